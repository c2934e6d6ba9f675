// SPDX-License-Identifier: Apache-2.0
#include "bench/options.h"

#include <CLI/CLI.hpp>
#include <cstdlib>

#include "bench/pattern.h"

namespace bench {

Options ParseOptions(int argc, char** argv) {
    Options options;
    CLI::App app("Load generator for an NFS version 3 server on this machine (127.0.0.1)");
    app.add_option("--port", options.port, "NFS port");
    app.add_option("--mount-port", options.mountPort, "MOUNT port; the NFS port by default");
    app.add_option("--from", options.from, "Address of this machine to come from (127.0.0.2)");
    app.add_option("--share", options.share, "Path to mount");
    app.add_option("--file", options.file, "File or directory below the share to work on");
    app.add_option(
        "--set", options.set,
        "Directory below the share: getattr, lookup and access take its files at random");
    app.add_option("--op", options.operation, "What to call")
        ->check(
            CLI::IsMember({"null", "getattr", "lookup", "access", "read", "write", "create-remove",
                           "mkdir-rmdir", "readdirplus", "mix", "idle", "ready"}));
    app.add_option("--connections", options.connections)->check(CLI::Range(1, 20000));
    app.add_option("--depth", options.depth, "Calls in flight per connection")
        ->check(CLI::Range(1, 1024));
    app.add_option("--seconds", options.seconds)->check(CLI::Range(0.05, 3600.0));
    app.add_option("--warmup", options.warmupSeconds, "Seconds that do not count")
        ->check(CLI::Range(0.0, 600.0));
    app.add_option("--bytes", options.bytes,
                   "READ and WRITE count; READDIRPLUS dircount and maxcount")
        ->check(CLI::Range(size_t{1}, Pattern::kBytesMax));
    app.add_option("--stable", options.stable, "WRITE: 0 UNSTABLE, 1 DATA_SYNC, 2 FILE_SYNC")
        ->check(CLI::Range(0, 2));
    app.add_option("--entries", options.entries, "Entries that every listing must have");
    app.add_option("--server-pid", options.serverPid, "Server whose CPU time is told per call");
    app.add_flag("--verify", options.verify,
                 "Compare what READ gives (of files that oxel-tree made) and read back what was "
                 "written");
    app.add_option("--format", options.format, "text, json, or line (one line of name=value)")
        ->check(CLI::IsMember({"text", "json", "line"}));
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        exit(app.exit(error));
    }
    if (options.mountPort == 0) options.mountPort = options.port;
    return options;
}

}  // namespace bench
