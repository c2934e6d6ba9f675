// SPDX-License-Identifier: Apache-2.0
//
// What oxelctl can ask a daemon for.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace oxel::ctl {

// Exit codes; scripts rely on them.
enum ExitCode : int {
    kDone = 0,
    kRefused = 1,  // the daemon said no
    kUsage = 2,
    kNoDaemon = 3,  // no daemon answers
};

// What the command line says beside the verb.
struct Settings {
    std::string instance = "Instance001";
    bool json = false;
    std::optional<int> level;         // log-level
    bool registerPortMapper = false;  // start-network
    bool watch = false;               // stats
    std::string by = "procedure";     // stats: or "share", "client"
    struct {
        std::string address, path, file;
        std::optional<uint64_t> port, uid;
    } why;
};

// Each makes one request to the daemon, prints the answer and says how it went. Check reads the
// files of the instance itself, and asks the daemon only what a reload would do.
ExitCode Check(const Settings& settings);
ExitCode Status(const Settings& settings);
ExitCode Perf(const Settings& settings);
ExitCode LogLevel(const Settings& settings);
ExitCode StartNetwork(const Settings& settings);
ExitCode Stop(const Settings& settings);
// verbs_shares.cpp
ExitCode Exports(const Settings& settings);
ExitCode Mounts(const Settings& settings);
ExitCode Reload(const Settings& settings);
// verbs_calls.cpp
ExitCode Clients(const Settings& settings);
ExitCode Stats(const Settings& settings);
// why.cpp. With a file it asks no daemon.
ExitCode Why(const Settings& settings);

}  // namespace oxel::ctl
