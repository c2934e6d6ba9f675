// SPDX-License-Identifier: Apache-2.0
//
// Performance counters: how often, how long and how many bytes, per numbered stage of a call.
// Accounting is per thread and unlocked on the road of a call; reading adds the threads up.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

extern std::atomic<bool> gPerfFlag;        // accounting is on
extern std::atomic<bool> gPrintPerfStats;  // the receive loop is asked to flush the counters

namespace oxel {

inline constexpr unsigned kPerfCounterIdMax = 64;  // ids are 0 .. 63

struct PerfTotals {
    unsigned id;
    std::string name;  // the name that the stage was first timed under
    uint64_t count, nanoseconds, nanosecondsMax, bytes;
};

uint64_t MonotonicNanoseconds();
void PerfAdd(const char* name, unsigned id, uint64_t nanoseconds, uint64_t bytes);
// The totals of all threads, those that have ended included; only stages that ran, by id.
std::vector<PerfTotals> PerfSnapshot();

}  // namespace oxel

// Times a scope under a counter. `name` must outlive the process (a literal).
class PerfCounterWrapper {
  public:
    PerfCounterWrapper(const char* name, unsigned id, uint64_t bytes = 0)
        : name_(name),
          id_(id),
          bytes_(bytes),
          start_(gPerfFlag.load(std::memory_order_relaxed) ? oxel::MonotonicNanoseconds() : 0) {}
    ~PerfCounterWrapper() {
        if (start_ != 0) oxel::PerfAdd(name_, id_, oxel::MonotonicNanoseconds() - start_, bytes_);
    }
    PerfCounterWrapper(const PerfCounterWrapper&) = delete;
    PerfCounterWrapper& operator=(const PerfCounterWrapper&) = delete;

  private:
    const char* name_;
    unsigned id_;
    uint64_t bytes_;
    uint64_t start_;  // 0: accounting was off when the scope began
};

// Times what begins in one call and ends in another, on one thread.
class ThrdPerfCounter {
  public:
    void start(const char* name, unsigned id);
    // The time counts under the name given here. Does nothing when `id` was not started.
    void stop(const char* name, unsigned id);

  private:
    uint64_t started_[oxel::kPerfCounterIdMax] = {};
};

// Writes every counter to the log at level 1, one line each, and starts them anew from zero.
void LogAllPerfCounters();
