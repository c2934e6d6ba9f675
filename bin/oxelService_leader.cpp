// SPDX-License-Identifier: Apache-2.0
//
// The leader, its watcher, and those who wait to watch.
#include "bin/oxelService_leader.h"

#include <string>
#include <system_error>
#include <thread>

#include "base/patience.h"
#include "base/thread.h"

namespace {

// The watcher looks that often while the leader works: one that is at the same piece of work twice
// is held up.
constexpr uint32_t kLookMs = 2;
// After so many looks without any work the watcher sleeps until there is some.
constexpr unsigned kQuietLooks = 5;

}  // namespace

uint64_t Leadership::Begin() {
    const uint64_t work = work_.load(std::memory_order_relaxed) + 1;
    // In one order with what Watch() does before it sleeps: either it sees the work, or this sees
    // that it sleeps.
    work_.store(work, std::memory_order_seq_cst);
    if (watcherSleeps_.load(std::memory_order_seq_cst)) {
        watcherSleeps_.store(false, std::memory_order_relaxed);
        wakeWatcher_.set();
    }
    return work;
}

bool Leadership::Finish(uint64_t work) {
    return work_.compare_exchange_strong(work, work + 1, std::memory_order_acq_rel);
}

bool Leadership::Watch() {
    uint64_t seen = 0;
    unsigned quiet = 0;
    while (!over_) {
        uint64_t work = work_.load(std::memory_order_acquire);
        const bool sameWork = work == seen;
        if (sameWork && work % 2 == 1) {
            if (work_.compare_exchange_strong(work, work + 1, std::memory_order_acq_rel))
                return true;
            continue;
        }
        quiet = sameWork ? quiet + 1 : 0;
        seen = work;
        if (quiet < kQuietLooks) {
            (void)wakeWatcher_.wait(kLookMs);
            continue;
        }
        watcherSleeps_.store(true, std::memory_order_seq_cst);
        if (work_.load(std::memory_order_seq_cst) == seen && !over_) wakeWatcher_.wait();
        watcherSleeps_.store(false, std::memory_order_relaxed);
        quiet = 0;
    }
    return false;
}

void Leadership::StartWatcherIfNone() {
    const oxel::PatientNew patient;
    XoCriticalSectionGuard lock(mutex_);
    if (deputies_ != 0 || threads_ + 1 >= threadsMost_) return;
    try {
        std::thread([this, number = threads_ + 2] {
            oxel::SetThreadName(name_ + "-" + std::to_string(number));
            Member(false);
            XoCriticalSectionGuard ended(mutex_);
            --threads_;
        }).detach();
        ++threads_;
        ++deputies_;
    } catch (const std::system_error&) {
        // No thread can be had: the leader is told that nobody watches it.
    }
}

void Leadership::SayOver() {
    XoCriticalSectionGuard lock(mutex_);
    over_ = true;
    changed_.notifyAll();
    wakeWatcher_.set();
}

void Leadership::Member(bool leads) {
    for (;; leads = false) {
        if (!leads) {
            {
                XoCriticalSectionGuard lock(mutex_);
                while (watched_ && !over_) changed_.wait(mutex_);
                if (over_) return;
                watched_ = true;
            }
            const bool leadsNow = Watch();
            {
                XoCriticalSectionGuard lock(mutex_);
                watched_ = false;
                changed_.notifyOne();
                if (!leadsNow) return;
                --deputies_;
            }
        }
        StartWatcherIfNone();
        if (lead_()) {
            SayOver();
            return;
        }
        XoCriticalSectionGuard lock(mutex_);
        ++deputies_;
    }
}

void Leadership::Run(Lead lead, unsigned threadsMost, const std::string& name) {
    name_ = name;
    lead_ = std::move(lead);
    threadsMost_ = threadsMost;
    Member(true);
}

bool Leadership::AllEnded() {
    XoCriticalSectionGuard lock(mutex_);
    return threads_ == 0;
}
