// SPDX-License-Identifier: Apache-2.0
//
// The receive loops' pulses: whether each of them turns, and how many calls it has received. A
// pulse is written by the thread that has the loop and read by whoever wants to know, so that a
// beat costs a store to a line that nobody else writes.
#pragma once

#include <atomic>
#include <cstdint>

// One processor receives some hundred thousand calls a second: more loops than this only wait.
inline constexpr unsigned kReceiveLoopsMax = 8;

class alignas(64) LoopPulse {
  public:
    // ---- The thread that has the loop ----

    // Once in each turn. With the first one the loop is known to run.
    void Beat() { Advance(turns_); }
    void CallReceived() { Advance(calls_); }
    // The loop may stand still in this scope without being at fault: what it waits for is a
    // client, a call record or a disk, and the daemon would be no better off after a restart.
    class MayWait {
      public:
        explicit MayWait(LoopPulse& pulse, bool may = true) : pulse_(may ? &pulse : nullptr) {
            if (pulse_ != nullptr) pulse_->waits_.store(true, std::memory_order_relaxed);
        }
        ~MayWait() {
            if (pulse_ != nullptr) pulse_->waits_.store(false, std::memory_order_relaxed);
        }
        MayWait(const MayWait&) = delete;
        MayWait& operator=(const MayWait&) = delete;

      private:
        LoopPulse* const pulse_;
    };

    // ---- Any thread ----

    uint64_t Turns() const { return turns_.load(std::memory_order_relaxed); }
    uint64_t Calls() const { return calls_.load(std::memory_order_relaxed); }
    bool Waits() const { return waits_.load(std::memory_order_relaxed); }

  private:
    static void Advance(std::atomic<uint64_t>& count) {
        count.store(count.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }

    std::atomic<uint64_t> turns_{0}, calls_{0};
    std::atomic<bool> waits_{false};
};

// Of loop 0 to kReceiveLoopsMax - 1.
LoopPulse& PulseOf(unsigned loop);

// NFS calls that all loops have received.
uint64_t CallsReceived();

// Notices loops that stand still. One thread at a time.
class PulseWatch {
  public:
    // Whether each loop that runs has turned since the last time that this was true, or may wait.
    bool AllAlive();
    // After AllAlive() was false: a loop that stood still.
    unsigned StandsStill() const { return standsStill_; }

  private:
    uint64_t seen_[kReceiveLoopsMax] = {};
    unsigned standsStill_ = 0;
};
