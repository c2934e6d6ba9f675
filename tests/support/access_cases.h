// SPDX-License-Identifier: Apache-2.0
//
// Shares with rules of every kind, and what clients get at them: for the function that explains it,
// and for the daemon that does it.
#pragma once

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace oxel::test {

// The shares' directories, below the root that the exports text is made for.
inline const std::vector<std::string>& AccessCaseDirectories() {
    static const std::vector<std::string> names = {"all", "mixed", "open", "groups", "remote",
                                                   "six", "equal", "ro",   "deep"};
    return names;
}

// One share a line, from line 1 on.
inline std::string AccessCaseExports(const std::string& root) {
    const auto line = [&](const std::string& path, const char* directory, const char* clients) {
        return path + " -dir=" + root + "/" + directory + " " + clients + "\n";
    };
    return line("/srv/all", "all", "*(rw)") +
           line("/srv/mixed", "mixed",
                "* 127.0.0.0/8(rw) 127.0.0.2(ro,insecure) "
                "127.0.0.3(rw,all_squash,anonuid=99,anongid=98,insecure)") +
           line("/srv/open", "open", "*(rw,insecure,no_root_squash)") +
           line("/srv/groups", "groups",
                "127.0.0.0/255.0.0.0(rw,insecure,manage_gids,anonuid=77) 10.0.0.0/8") +
           line("/srv/remote", "remote", "10.99.0.0/16(rw,insecure) 10.99.1.0/24(ro)") +
           line("/srv/six", "six",
                "::1(rw,insecure) 2001:db8::/32(ro) ::/0(ro,insecure,all_squash)") +
           line("/srv/equal", "equal",
                "127.0.0.4/32(ro,insecure) 127.0.0.4(rw,insecure) 127.0.0.5(ro,insecure) "
                "127.0.0.5(rw,insecure)") +
           line("/srv/ro", "ro", "*(insecure)") +
           line("/data/deep/share", "deep", "*(rw,insecure)");
}

struct AccessCase {
    const char* address;
    std::string path;
    std::optional<unsigned> port;
    std::optional<uint32_t> uid;
    bool allowed;
    std::string reason;
    const char* rule;  // the client that decides, or null
    int line = 0;      // of that rule
    bool readOnly = false;
};
inline void PrintTo(const AccessCase& access, std::ostream* out) {
    *out << access.address << " " << access.path;
    if (access.port) *out << " port " << *access.port;
    if (access.uid) *out << " uid " << *access.uid;
}

// `root` as for the exports text.
inline std::vector<AccessCase> AccessCases(const std::string& root) {
    constexpr std::nullopt_t kNone = std::nullopt;
    const std::string squash =
        ": root as uid 65534 gid 65534, others as the uid and gid that they "
        "have there";
    const std::string below = ", from ports below 1024 only";
    const std::string as65534 = "as uid 65534 gid 65534";
    const auto unlike = [](const char* port, const char* rule) {
        return std::string("port ") + port + " is not below 1024, and the rule " + rule +
               " is secure";
    };
    return {
        // One rule for all.
        {"127.0.0.1", "/srv/all", kNone, kNone, true, "read-write" + squash + below, "*", 1},
        {"127.0.0.1", "/srv/all", 1023, kNone, true, "read-write" + squash, "*", 1},
        {"127.0.0.1", "/srv/all", 1024, kNone, false, unlike("1024", "*(rw)"), "*", 1},
        {"127.0.0.1", "/srv/all", 65535, 0, false, unlike("65535", "*(rw)"), "*", 1},
        {"::1", "/srv/all", 1, 0, true, "read-write " + as65534, "*", 1},
        {"::1", "/srv/all", 40000, 0, false, unlike("40000", "*(rw)"), "*", 1},
        {"127.0.0.1", "/srv/all", 700, 1000, true,
         "read-write as uid 1000 with the group it has there", "*", 1},
        // The most specific rule counts.
        {"127.0.0.1", "/srv/mixed", 700, 0, true, "read-write " + as65534, "127.0.0.0/8", 2},
        {"127.0.0.1", "/srv/mixed", 4000, 0, false, unlike("4000", "127.0.0.0/8(rw)"),
         "127.0.0.0/8", 2},
        {"127.0.0.2", "/srv/mixed", 4000, 0, true, "read-only " + as65534, "127.0.0.2", 2, true},
        {"127.0.0.2", "/srv/mixed", kNone, 7, true,
         "read-only as uid 7 with the group it has there", "127.0.0.2", 2, true},
        {"127.0.0.3", "/srv/mixed", 4000, 0, true, "read-write as uid 99 gid 98", "127.0.0.3", 2},
        {"127.0.0.3", "/srv/mixed", 4000, 1000, true, "read-write as uid 99 gid 98", "127.0.0.3",
         2},
        {"127.0.0.3", "/srv/mixed", kNone, kNone, true, "read-write as uid 99 gid 98", "127.0.0.3",
         2},
        {"::ffff:127.0.0.3", "/srv/mixed", kNone, kNone, true, "read-write as uid 99 gid 98",
         "127.0.0.3", 2},
        {"::1", "/srv/mixed", 700, kNone, true, "read-only" + squash, "*", 2, true},
        {"10.1.2.3", "/srv/mixed", kNone, kNone, true, "read-only" + squash + below, "*", 2, true},
        // Nobody is anybody else.
        {"127.0.0.1", "/srv/open", kNone, kNone, true,
         "read-write: everybody as the uid and gid that they have there", "*", 3},
        {"127.0.0.1", "/srv/open", 50000, 0, true, "read-write as uid 0 gid 0", "*", 3},
        {"127.0.0.1", "/srv/open", kNone, 4294967295u, true,
         "read-write as uid 65534 with the group it has there", "*", 3},
        {"::1", "/srv/open", kNone, 5, true, "read-write as uid 5 with the group it has there", "*",
         3},
        // Groups and a netmask.
        {"127.9.9.9", "/srv/groups", kNone, 0, true, "read-write as uid 77 gid 65534",
         "127.0.0.0/255.0.0.0", 4},
        {"127.0.0.1", "/srv/groups", kNone, 1234, true,
         "read-write as uid 1234 with the group it has there", "127.0.0.0/255.0.0.0", 4},
        {"10.255.255.255", "/srv/groups", kNone, 0, true, "read-only " + as65534 + below,
         "10.0.0.0/8", 4, true},
        {"11.0.0.0", "/srv/groups", kNone, kNone, false,
         "no client of share /srv/groups matches 11.0.0.0", nullptr},
        {"::1", "/srv/groups", kNone, kNone, false, "no client of share /srv/groups matches ::1",
         nullptr},
        // Rules for others.
        {"127.0.0.1", "/srv/remote", kNone, kNone, false,
         "no client of share /srv/remote matches 127.0.0.1", nullptr},
        {"127.0.0.2", "/srv/remote", 700, 0, false,
         "no client of share /srv/remote matches 127.0.0.2", nullptr},
        {"10.99.2.1", "/srv/remote", 40000, 0, true, "read-write " + as65534, "10.99.0.0/16", 5},
        {"10.99.1.1", "/srv/remote", 40000, 0, false, unlike("40000", "10.99.1.0/24(ro)"),
         "10.99.1.0/24", 5, true},
        {"10.98.255.255", "/srv/remote", kNone, kNone, false,
         "no client of share /srv/remote matches 10.98.255.255", nullptr},
        // IPv6.
        {"::1", "/srv/six", 40000, 0, true, "read-write " + as65534, "::1", 6},
        {"::2", "/srv/six", 40000, 3, true, "read-only " + as65534, "::/0", 6, true},
        {"2001:db8::1", "/srv/six", 700, 3, true, "read-only as uid 3 with the group it has there",
         "2001:db8::/32", 6, true},
        {"2001:db8::1", "/srv/six", 1024, 3, false, unlike("1024", "2001:db8::/32(ro)"),
         "2001:db8::/32", 6, true},
        {"127.0.0.1", "/srv/six", kNone, kNone, false,
         "no client of share /srv/six matches 127.0.0.1", nullptr},
        {"::ffff:127.0.0.1", "/srv/six", kNone, kNone, false,
         "no client of share /srv/six matches 127.0.0.1", nullptr},
        // Clients that are named twice.
        {"127.0.0.4", "/srv/equal", kNone, 0, true, "read-write " + as65534, "127.0.0.4", 7},
        {"127.0.0.5", "/srv/equal", kNone, 0, true, "read-only " + as65534, "127.0.0.5", 7, true},
        {"127.0.0.6", "/srv/equal", kNone, 0, false,
         "no client of share /srv/equal matches 127.0.0.6", nullptr},
        // No client may write.
        {"127.0.0.1", "/srv/ro", 40000, kNone, true, "read-only" + squash, "*", 8, true},
        // Slashes that are too many mean nothing.
        {"127.0.0.1", "//srv///open//", kNone, 0, true, "read-write as uid 0 gid 0", "*", 3},
        {"127.0.0.1", "/data/deep/share/", kNone, 0, true, "read-write " + as65534, "*", 9},
        // Paths that are no shares.
        {"127.0.0.1", "/srv/open/sub/dir", kNone, kNone, false,
         "/srv/open/sub/dir is not a share, it lies below share /srv/open", nullptr},
        {"127.0.0.1", "/data/deep/share/x", kNone, kNone, false,
         "/data/deep/share/x is not a share, it lies below share /data/deep/share", nullptr},
        {"127.0.0.1", "/data/deep", kNone, kNone, false,
         "/data/deep is not a share, it lies above /data/deep/share", nullptr},
        {"127.0.0.1", "/srv", kNone, kNone, false,
         "/srv is not a share, it lies above /srv/all, /srv/mixed, /srv/open and 5 more", nullptr},
        {"127.0.0.1", "/SRV/Open", kNone, kNone, false,
         "/SRV/Open is not a share: share /srv/open is spelled otherwise", nullptr},
        {"127.0.0.1", "/srv/./open", kNone, kNone, false,
         "/srv/./open is not a share: share /srv/open is spelled otherwise", nullptr},
        {"127.0.0.1", "/srv/all/../open", kNone, kNone, false,
         "/srv/all/../open is not a share: share /srv/open is spelled otherwise", nullptr},
        {"127.0.0.1", "/srv/opne", kNone, kNone, false,
         "/srv/opne is not a share; the nearest is /srv/open", nullptr},
        {"127.0.0.1", "/quite/another/place", kNone, kNone, false,
         "/quite/another/place is not a share", nullptr},
        {"127.0.0.1", root + "/open", kNone, kNone, false,
         root + "/open is not a share, it is the directory that share /srv/open serves", nullptr},
        {"127.0.0.1", root + "/mixed/in/it", kNone, kNone, false,
         root + "/mixed/in/it is not a share, it lies in the directory that share /srv/mixed "
                "serves",
         nullptr},
    };
}

}  // namespace oxel::test
