// SPDX-License-Identifier: Apache-2.0
//
// The load generator's command line.
#pragma once

#include <cstdint>
#include <string>

namespace bench {

struct Options {
    uint16_t port = 2049, mountPort = 0;
    std::string from;   // address that connections come from; any when empty
    std::string share;  // path to mount
    std::string file;   // file or directory below the share; the share's root when empty
    std::string set;    // directory below the share whose files are used at random
    std::string operation = "getattr";
    unsigned connections = 8, depth = 8;
    double seconds = 5, warmupSeconds = 0.5;
    uint32_t bytes = 64 << 10;
    uint32_t stable = 0;   // WRITE: 0 UNSTABLE, 1 DATA_SYNC, 2 FILE_SYNC
    uint64_t entries = 0;  // that a listing must have; 0: as many as the first one had
    int serverPid = 0;
    bool verify = false;
    std::string format = "text";  // text, json or line
};

// Ends the process with a message when the command line is wrong.
Options ParseOptions(int argc, char** argv);

}  // namespace bench
