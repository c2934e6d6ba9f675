// SPDX-License-Identifier: Apache-2.0
//
// What others can cause at will, and how often it is told: the first few of a kind in each minute;
// the others are counted.
#pragma once

#include <atomic>
#include <cstdint>

namespace oxel {

// A monotonic clock in seconds: cheap to ask, exact to some milliseconds.
int64_t CoarseSeconds();

// One kind of message. Any thread; no locks. Nothing is lost: each is told or in a sum.
class RepeatLimit {
  public:
    static constexpr unsigned kToldAMinute = 10;
    static constexpr int64_t kMinute = 60;

    struct Verdict {
        bool tell;        // this one
        uint64_t untold;  // so many of the minute before were not told: to be said first
    };
    // One more, at the time `now`.
    Verdict Count(int64_t now);
    // How many were not told, once their minute is over; they are forgotten here. `atOnce`: without
    // waiting for the minute's end.
    uint64_t TakeUntold(int64_t now, bool atOnce = false);

  private:
    // One word, so that it is exchanged in one step.
    struct Minute {
        int64_t began : 56;
        uint64_t told : 8;
    };
    std::atomic<Minute> minute_{Minute{-kMinute, 0}};
    std::atomic<uint64_t> untold_{0};
};

}  // namespace oxel
