// SPDX-License-Identifier: Apache-2.0
//
// Which calls are quick. A quick call is handled by the thread that has read it, which saves two
// changes of threads; one that has lately taken long (it waits for a disk) goes to a handler
// thread.
#pragma once

#include <atomic>
#include <cstdint>

struct CallInfo3;

// Any thread.
class CallPace {
  public:
    // What calls are kept apart by: procedure, share, and for WRITE whether it waits for the disk.
    struct Kind {
        uint16_t slot;
        uint32_t longNanoseconds;  // more is long for a call of that size
    };
    // Of a call whose arguments are decoded.
    static Kind KindOf(CallInfo3* call);

    bool IsQuick(Kind kind) const {
        return scores_[kind.slot].load(std::memory_order_relaxed) < kSlow;
    }
    // Slow by one long call only, which may have been chance: the thread had to wait for a
    // processor.
    bool MayBeQuick(Kind kind) const {
        return scores_[kind.slot].load(std::memory_order_relaxed) < 2 * kLongCall;
    }
    // A call of that kind was handled within so many nanoseconds.
    void Learn(Kind kind, uint64_t nanoseconds);
    // A call of that kind is taking long and has not ended.
    void LearnLong(Kind kind);

  private:
    // One long call in eight makes a kind slow; a few quick ones in a row make it quick again.
    static constexpr uint8_t kSlow = 8, kLongCall = 8, kMost = 24;
    static constexpr unsigned kProcedures = 32, kShares = 64;

    std::atomic<uint8_t> scores_[kProcedures * kShares] = {};
};
