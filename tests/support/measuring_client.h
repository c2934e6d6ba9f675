// SPDX-License-Identifier: Apache-2.0
//
// A well-behaved client beside others that are not: a thread that sends GETATTR after GETATTR over
// a connection of its own, compares every answer with what it must be, and knows how long each
// took.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/nfs_client.h"

namespace oxel::test {

struct Measured {
    size_t calls = 0;
    uint64_t p99Us = 0, maxUs = 0;
};

class MeasuringClient {
  public:
    // Of the file at `localPath`, which nobody may change meanwhile and which is `name` in `share`.
    MeasuringClient(uint16_t port, const std::string& share, const std::string& name,
                    const std::string& localPath);
    ~MeasuringClient();

    // Calls answered since the start or the last Take().
    size_t Calls() const;
    // Waits for so many more. The test fails when they do not come within a time that only a
    // hanging daemon needs, or when an answer was wrong.
    bool WaitForCalls(size_t more);
    // What was measured since the start or the last one of these.
    Measured Take();
    // How long the call that is under way has been so already; milliseconds.
    uint64_t WaitingMs() const;

  private:
    using Clock = std::chrono::steady_clock;
    void Run();

    NfsClient client_;
    const std::string handle_, expectedResults_;
    mutable std::mutex mutex_;
    std::vector<uint64_t> latenciesUs_;
    std::atomic<Clock::time_point> sent_;
    std::atomic<bool> end_{false}, failed_{false};
    std::thread thread_;
};

}  // namespace oxel::test
