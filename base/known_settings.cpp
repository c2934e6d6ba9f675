// SPDX-License-Identifier: Apache-2.0
//
// The table of settings. A row more is needed wherever something new is read from the store.
#include "base/known_settings.h"

#include <cstring>
#include <vector>

#include "base/log.h"
#include "base/nearest_word.h"

namespace oxel {

static constexpr KnownSetting kSettings[] = {
    {"Log", "nLogLevel", "1",
     "how much is logged: 0 errors and warnings, 1 information, 2 failed calls, 3 and 4 traces"},
    {"Log", "nMaxSizeMB", "64",
     "the log is renamed to <log>.old when it grows past so many MiB; 0: never"},
    {"Oxel", "nHardened", "0", "1: no client can hold up or starve the others"},
    {"Oxel", "nNfs3Port", "2049", "the port of both NFS and MOUNT; 0: one that is free"},
    {"Oxel", "nMaxBufSize", "256", "the largest READ and WRITE, in KiB"},
    {"Oxel", "nMaxNFSRPCThread", "5",
     "handler threads, 1 to 100; call records are made for as many as there are at start"},
    {"Oxel", "nDisableMultiThreadRPC", "0", "1: one thread receives, handles and answers calls"},
    {"Oxel", "oxelFdCacheSize", "100", "files of clients that are kept open"},
    {"Oxel", "nNoNetworkServices", "by the option -no_nfs",
     "1: the network services wait for oxelctl start-network; 0: they start at once"},
    {"Oxel", "nAllowOtherNFSServers", "by the option -no_pm_reg",
     "1: nothing is registered with the port mapper; 0: the services are registered"},
    {"Oxel", "nNfs3Program", "100003", "the RPC program number of NFS"},
    {"Oxel", "nMount3Program", "100005", "is read and not used: MOUNT is always program 100005"},
    {"Oxel", "nEnableWindowsNFSClientSupport", "0", "a flag for file-system modules to read"},
    {"Oxel", "nEnableDummyReadsAndWrites", "0",
     "1: READ and WRITE move no data, for measuring the network alone"},
    {"Oxel", "nMetricsPort", "0",
     "figures for Prometheus over HTTP on 127.0.0.1 at this port; 0: none"},
    {"Oxel", "nMetricsPerClient", "0", "1: the figures also tell each client's calls"},
    {"Oxel", "nReceiveThreads", "one for each processor, at most 8",
     "hardened mode: threads that read and handle calls"},
    {"Oxel", "nMaxConnections", "8192", "hardened mode: connections in all"},
    {"Oxel", "nMaxConnectionsPerAddress", "2048", "hardened mode: connections from one address"},
    {"Oxel", "nRecordSeconds", "60", "hardened mode: from a call's first byte to its last"},
    {"Oxel", "nIdleSeconds", "600", "hardened mode: a connection may be without calls so long"},
    {"Oxel", "nSendSeconds", "60", "hardened mode: a client may leave its replies unread so long"},
    {"Oxel", "nMaxBufferedMB", "64, or sixteen of the largest transfers",
     "hardened mode: MiB for calls that are not whole and replies that wait, of all clients"},
};

std::span<const KnownSetting> KnownSettings() {
    return kSettings;
}

std::string UnknownSetting(const std::string& section, const std::string& key) {
    std::vector<std::string> keys, allKeys, sections;
    std::string elsewhere;
    for (const KnownSetting& known : kSettings) {
        if (sections.empty() || sections.back() != known.section)
            sections.emplace_back(known.section);
        allKeys.emplace_back(known.key);
        if (section == known.section) keys.emplace_back(known.key);
        if (key != known.key) continue;
        if (section == known.section) return "";
        elsewhere = known.section;
    }
    const std::string what =
        "nothing reads '" + EscapeControl(key) + "' in section [" + EscapeControl(section) + "]";
    if (!elsewhere.empty()) return what + "; it belongs into section [" + elsewhere + "]";
    if (!keys.empty()) {
        if (NearestWord(key, keys).empty()) {
            const std::string far = NearestWord(key, allKeys);
            for (const KnownSetting& known : kSettings)
                if (far == known.key)
                    return what + "; did you mean '" + far + "' in section [" + known.section +
                           "]?";
        }
        return what + DidYouMean(key, keys);
    }
    const std::string near = NearestWord(section, sections);
    return what + (near.empty() ? "; there are the sections [Log] and [Oxel]"
                                : "; did you mean section [" + near + "]?");
}

}  // namespace oxel
