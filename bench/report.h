// SPDX-License-Identifier: Apache-2.0
//
// What a load has cost: the server's CPU time and memory, and the figures printed.
#pragma once

#include <cstdint>
#include <string>

#include "bench/histogram.h"
#include "bench/options.h"
#include "bench/workload.h"

namespace bench {

// Nanoseconds of CPU that all threads of a process have used, those that have ended included.
// 0 for pid 0.
uint64_t CpuNanoseconds(int pid);

// Of a process, in KiB. The peak counts from the last ForgetPeak.
uint64_t ResidentKib(int pid);
uint64_t PeakResidentKib(int pid);
void ForgetPeak(int pid);

// Nanoseconds that all CPUs of the machine have been busy with anything, or were kept from us by a
// hypervisor.
uint64_t MachineBusyNanoseconds();

struct Measured {
    double seconds = 0;
    uint64_t serverCpuNs = 0, ownCpuNs = 0, machineBusyNs = 0;
    uint64_t residentBeforeKib = 0;  // before the first connection
    uint64_t residentKib = 0, peakKib = 0;
};

void PrintReport(const Options& options, const Measured& measured, const Histogram& durations,
                 const Counters& counters);

}  // namespace bench
