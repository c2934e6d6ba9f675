// SPDX-License-Identifier: Apache-2.0
//
// What the daemon uses while a long load runs: memory, descriptors, call records, taken every few
// seconds, written to a file, and judged at the end.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/private_tree.h"
#include "tests/system/soak_clients.h"

namespace oxel::test {

class SoakWatch {
  public:
    // Samples until it is ended. `csv` may be empty.
    SoakWatch(const Daemon& daemon, const SoakCounts& counts, double seconds, std::string csv);
    ~SoakWatch();
    void End();

    // Whether memory and descriptors were the same in the last third as in the second one; the
    // first is for what is slow to fill: caches, pools, buffers of each call record.
    void ExpectFlat();

  private:
    struct Sample {
        double seconds;
        uint64_t calls, connections, residentKiB, descriptors, recordsInUse;
    };
    void Run();
    void Take();
    uint64_t Median(size_t from, size_t to, uint64_t Sample::*field) const;

    const Daemon& daemon_;
    const SoakCounts& counts_;
    const double everySeconds_;
    const std::string csv_;
    const std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
    std::vector<Sample> samples_;
    std::atomic<bool> over_{false};
    std::thread thread_;
};

}  // namespace oxel::test
