// SPDX-License-Identifier: Apache-2.0
//
// A load generator: connections x depth raw calls in flight against a running server, every reply's
// transaction id and status checked. Prints calls per second, MiB/s, latencies, and the server's
// CPU time per call.
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <stdexcept>

#include "bench/load.h"
#include "bench/options.h"
#include "bench/report.h"
#include "bench/session.h"
#include "bench/workload.h"

namespace bench {
namespace {

constexpr int64_t kReadyWithinNs = 20'000'000'000;

// Waits until the server gives out its share; prints the milliseconds that this took.
void AwaitReady(const Options& options) {
    const int64_t beginNs = NowNs();
    for (;;) {
        try {
            MountShare(options.mountPort, options.share);
            break;
        } catch (const std::exception&) {
            if (NowNs() - beginNs > kReadyWithinNs) throw;
            usleep(1000);
        }
    }
    printf("%.1f\n", static_cast<double>(NowNs() - beginNs) / 1e6);
}

void Measure(const Options& options) {
    const bool needsShare = !options.share.empty();
    if (!needsShare && options.operation != "null" && options.operation != "idle")
        throw std::runtime_error(options.operation + " needs --share");
    const std::unique_ptr<Workload> workload = MakeWorkload(
        options, needsShare ? MountShare(options.mountPort, options.share) : std::string());
    Session session(options.port);
    workload->Prepare(&session);

    Measured measured;
    measured.residentBeforeKib = ResidentKib(options.serverPid);
    Load load(options, workload.get());
    const bool idle = options.operation == "idle";
    if (!idle && options.warmupSeconds > 0) load.Run(options.warmupSeconds);
    workload->counters = Counters();
    ForgetPeak(options.serverPid);
    const uint64_t machineBefore = MachineBusyNanoseconds();
    const uint64_t serverBefore = CpuNanoseconds(options.serverPid);
    const uint64_t ownBefore = CpuNanoseconds(getpid());
    const int64_t beginNs = NowNs();
    const auto durations = idle ? load.RunOnce() : load.Run(options.seconds);
    measured.seconds = static_cast<double>(NowNs() - beginNs) / 1e9;
    measured.ownCpuNs = CpuNanoseconds(getpid()) - ownBefore;
    measured.serverCpuNs = CpuNanoseconds(options.serverPid) - serverBefore;
    measured.machineBusyNs = MachineBusyNanoseconds() - machineBefore;
    measured.residentKib = ResidentKib(options.serverPid);
    measured.peakKib = PeakResidentKib(options.serverPid);
    workload->Finish(&session);
    PrintReport(options, measured, *durations, workload->counters);
}

int Main(int argc, char** argv) {
    const Options options = ParseOptions(argc, argv);
    try {
        if (!options.from.empty()) ConnectFrom(options.from);
        if (options.operation == "ready")
            AwaitReady(options);
        else
            Measure(options);
        return 0;
    } catch (const std::exception& error) {
        (void)fprintf(stderr, "oxel-load: %s\n", error.what());
        return 1;
    }
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
    return bench::Main(argc, argv);
}
