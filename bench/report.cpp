// SPDX-License-Identifier: Apache-2.0
#include "bench/report.h"

#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace bench {
namespace {

uint64_t StatusKib(int pid, const char* name) {
    if (pid == 0) return 0;
    std::ifstream file("/proc/" + std::to_string(pid) + "/status");
    for (std::string word; file >> word;) {
        uint64_t kib = 0;
        if (word == name && file >> kib) return kib;
    }
    return 0;
}

double Rounded(double value) {
    return std::round(value * 1000) / 1000;
}

}  // namespace

uint64_t CpuNanoseconds(int pid) {
    if (pid == 0) return 0;
    clockid_t clock;
    timespec used;
    if (clock_getcpuclockid(pid, &clock) != 0 || clock_gettime(clock, &used) != 0)
        throw std::runtime_error("no process " + std::to_string(pid));
    return static_cast<uint64_t>(used.tv_sec) * 1000000000 + static_cast<uint64_t>(used.tv_nsec);
}

uint64_t MachineBusyNanoseconds() {
    std::ifstream file("/proc/stat");
    std::string name;
    uint64_t user = 0, nice = 0, system = 0, idle = 0, wait = 0, irq = 0, softIrq = 0, steal = 0;
    file >> name >> user >> nice >> system >> idle >> wait >> irq >> softIrq >> steal;
    const uint64_t ticks = user + nice + system + irq + softIrq + steal;
    return ticks * 1000000000 / static_cast<uint64_t>(sysconf(_SC_CLK_TCK));
}

uint64_t ResidentKib(int pid) {
    return StatusKib(pid, "VmRSS:");
}

uint64_t PeakResidentKib(int pid) {
    return StatusKib(pid, "VmHWM:");
}

void ForgetPeak(int pid) {
    if (pid != 0) std::ofstream("/proc/" + std::to_string(pid) + "/clear_refs") << "5";
}

void PrintReport(const Options& options, const Measured& measured, const Histogram& durations,
                 const Counters& counters) {
    const double calls = static_cast<double>(durations.Count());
    const double serverUs = static_cast<double>(measured.serverCpuNs) / 1000;
    nlohmann::ordered_json report;
    const auto say = [&](const char* name, double value) { report[name] = Rounded(value); };
    report["operation"] = options.operation;
    report["connections"] = options.connections;
    report["depth"] = options.depth;
    report["calls"] = durations.Count();
    say("callsPerSecond", calls / measured.seconds);
    say("p50us", durations.Quantile(0.5));
    say("p95us", durations.Quantile(0.95));
    say("p99us", durations.Quantile(0.99));
    say("maxus", durations.Max());
    say("ownCpuUsPerCall", static_cast<double>(measured.ownCpuNs) / 1000 / calls);
    if (options.serverPid != 0) {
        // A measurement beside a busy stranger says little: of the machine, what others had.
        const double others = static_cast<double>(measured.machineBusyNs) -
                              static_cast<double>(measured.serverCpuNs + measured.ownCpuNs);
        const double machine =
            measured.seconds * static_cast<double>(sysconf(_SC_NPROCESSORS_ONLN));
        say("othersPercent", std::max(0.0, others / 1e7 / machine));
        say("serverCpuUsPerCall", serverUs / calls);
        report["rssBeforeKib"] = measured.residentBeforeKib;
        report["rssKib"] = measured.residentKib;
        report["rssPeakKib"] = measured.peakKib;
    }
    if (counters.bytes != 0)
        say("mibPerSecond", static_cast<double>(counters.bytes) / (1 << 20) / measured.seconds);
    if (options.verify) report["bytesVerified"] = counters.verified;
    if (const uint64_t listings = counters.listings.Count(); listings != 0) {
        const double entries = static_cast<double>(counters.entries);
        report["listings"] = listings;
        say("listingsPerSecond", static_cast<double>(listings) / measured.seconds);
        say("entriesPerSecond", entries / measured.seconds);
        say("listingP50us", counters.listings.Quantile(0.5));
        say("listingP99us", counters.listings.Quantile(0.99));
        if (options.serverPid != 0) {
            say("serverCpuUsPerListing", serverUs / static_cast<double>(listings));
            say("serverCpuUsPerEntry", serverUs / entries);
        }
    }
    if (options.format == "json") {
        printf("%s\n", report.dump().c_str());
        return;
    }
    for (const auto& [name, value] : report.items()) {
        const std::string text =
            value.is_string() ? value.get<std::string>() : std::string(value.dump());
        if (options.format == "line")
            printf("%s=%s ", name.c_str(), text.c_str());
        else
            printf("%-22s %s\n", name.c_str(), text.c_str());
    }
    if (options.format == "line") printf("\n");
}

}  // namespace bench
