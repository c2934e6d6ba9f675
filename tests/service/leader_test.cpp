// SPDX-License-Identifier: Apache-2.0
//
// The leader of the receiving threads: there is one at a time, one that is held up loses its place
// to another, and none of them is lost.
#include "bin/oxelService_leader.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "base/sync.h"

namespace {

void Eventually(const std::function<bool()>& condition) {
    while (!condition()) std::this_thread::yield();
}

// A leadership whose threads have all ended before it goes.
class Led {
  public:
    ~Led() {
        Eventually([this] { return leadership.AllEnded(); });
    }
    // Runs on a thread of its own until Join().
    void Start(Leadership::Lead lead, unsigned threadsMost) {
        runner_ = std::thread(
            [this, lead = std::move(lead), threadsMost] { leadership.Run(lead, threadsMost); });
    }
    void Join() { runner_.join(); }

    // For `lead`.
    void NoteLeader() {
        std::lock_guard<std::mutex> lock(mutex_);
        threads_.insert(std::this_thread::get_id());
    }
    // How many have led.
    size_t Threads() {
        std::lock_guard<std::mutex> lock(mutex_);
        return threads_.size();
    }

    Leadership leadership;

  private:
    std::mutex mutex_;
    std::set<std::thread::id> threads_;
    std::thread runner_;
};

}  // namespace

TEST(Leadership, BeginsOnTheCallingThreadAndReturnsWhenItIsOver) {
    Led led;
    std::thread::id leader;
    led.leadership.Run(
        [&] {
            leader = std::this_thread::get_id();
            return true;
        },
        5);
    EXPECT_EQ(leader, std::this_thread::get_id());
}

TEST(Leadership, IsOverAtOnceForThoseWhoWatchAndWait) {
    for (int round = 0; round < 200; ++round) {
        Led led;
        led.leadership.Run(
            [&] {
                for (int i = 0; i < round % 10; ++i) {
                    const uint64_t work = led.leadership.Begin();
                    if (!led.leadership.Finish(work)) return false;
                }
                return true;
            },
            3);
    }
}

TEST(Leadership, OfOneThreadIsNeverLost) {
    Led led;
    unsigned times = 0;
    led.leadership.Run(
        [&] {
            ++times;
            EXPECT_TRUE(led.leadership.AllEnded()) << "no other thread is made";
            for (int i = 0; i < 10000; ++i)
                EXPECT_TRUE(led.leadership.Finish(led.leadership.Begin()));
            return true;
        },
        1);
    EXPECT_EQ(times, 1u);
}

TEST(Leadership, OneThatIsHeldUpLosesItsPlaceAndLearnsOfIt) {
    Led led;
    XoEvent replaced;
    std::atomic<unsigned> leaders{0};
    bool learned = false;
    XoEvent firstIsBack;
    led.leadership.Run(
        [&] {
            if (++leaders == 1) {
                const uint64_t work = led.leadership.Begin();
                replaced.wait();
                learned = !led.leadership.Finish(work);
                firstIsBack.set();
                return false;
            }
            replaced.set();
            firstIsBack.wait();
            return true;
        },
        2);
    EXPECT_EQ(leaders, 2u);
    EXPECT_TRUE(learned);
}

TEST(Leadership, OneThatIsAtNoPieceOfWorkKeepsItsPlace) {
    // It may wait as long as it likes: for events, say.
    Led led;
    unsigned times = 0;
    led.leadership.Run(
        [&] {
            ++times;
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            return true;
        },
        2);
    EXPECT_EQ(times, 1u);
}

// What leaders share needs no lock: each sees what the one before it has written.
TEST(Leadership, WhatTheLeaderHasWrittenIsSeenByWhoTakesItsPlace) {
    Led led;
    uint64_t steps = 0;  // of the leader; plain on purpose
    std::deque<uint64_t> queue;
    uint64_t takenOver = 0;
    bool holdsUp = false;  // the leader's
    led.leadership.Run(
        [&] {
            if (holdsUp) ++takenOver;
            holdsUp = false;
            while (takenOver < 20) {
                queue.push_back(++steps);
                if (queue.size() > 3) queue.pop_front();
                holdsUp = steps % 50 == 0;
                const bool mine = holdsUp;
                const uint64_t before = steps;
                const uint64_t work = led.leadership.Begin();
                if (mine) std::this_thread::sleep_for(std::chrono::milliseconds(8));
                if (!led.leadership.Finish(work)) return false;
                EXPECT_EQ(steps, before);
                EXPECT_EQ(queue.back(), before);
            }
            return true;
        },
        3);
    EXPECT_GE(takenOver, 20u);
}

TEST(Leadership, IsOneThreadsAtATime) {
    Led led;
    std::atomic<int> leading{0};
    std::atomic<unsigned> leaders{0};
    led.leadership.Run(
        [&] {
            // Who led before is held up in its work and does not count any more.
            leading = 1;
            if (++leaders == 30) return true;
            for (unsigned i = 0;; ++i) {
                EXPECT_EQ(leading.exchange(2), 1);
                EXPECT_EQ(leading.exchange(1), 2);
                const unsigned mine = leaders;
                const uint64_t piece = led.leadership.Begin();
                if (i % 4 == 3) Eventually([&] { return leaders != mine; });
                if (!led.leadership.Finish(piece)) return false;
            }
        },
        4);
    EXPECT_EQ(leaders, 30u);
}

// With two threads the one that was held up has to watch the other, again and again.
TEST(Leadership, WhoWasHeldUpWatchesAndLeadsAgain) {
    Led led;
    std::atomic<unsigned> leaders{0};
    led.leadership.Run(
        [&] {
            led.NoteLeader();
            const unsigned mine = ++leaders;
            if (mine == 40) return true;
            const uint64_t work = led.leadership.Begin();
            Eventually([&] { return leaders != mine; });
            EXPECT_FALSE(led.leadership.Finish(work));
            return false;
        },
        2);
    EXPECT_EQ(leaders, 40u);
    EXPECT_EQ(led.Threads(), 2u);
}

// The watcher goes to sleep when there is no work for a while; work that holds the leader up after
// a pause of any length is noticed all the same.
TEST(Leadership, WorkAfterAnyPauseWakesTheWatcher) {
    Led led;
    std::atomic<unsigned> leaders{0};
    led.leadership.Run(
        [&] {
            const unsigned mine = ++leaders;
            if (mine == 60) return true;
            // The pauses only make both cases likely, that the watcher is awake and that it sleeps.
            std::this_thread::sleep_for(std::chrono::microseconds(mine % 20 * 900));
            for (unsigned i = 0; i < mine % 3; ++i) {
                const uint64_t quick = led.leadership.Begin();
                if (!led.leadership.Finish(quick)) return false;
            }
            const uint64_t work = led.leadership.Begin();
            Eventually([&] { return leaders != mine; });
            EXPECT_FALSE(led.leadership.Finish(work));
            return false;
        },
        3);
    EXPECT_EQ(leaders, 60u);
}

TEST(Leadership, ThreadsAreAsManyAsAreHeldUpAndNoMoreThanTheBound) {
    constexpr unsigned kThreads = 4;
    Led led;
    std::atomic<unsigned> leaders{0};
    XoEvent goOn(true), lastLeads(true);
    std::atomic<unsigned> lost{0};
    led.Start(
        [&] {
            led.NoteLeader();
            if (++leaders == kThreads) {
                lastLeads.set();
                // Nobody is left to take its place.
                const uint64_t work = led.leadership.Begin();
                goOn.wait();
                (void)led.leadership.Finish(work);  // those that are back may have taken it
                Eventually([&] { return lost >= kThreads - 1; });
                return true;
            }
            if (lost >= kThreads - 1) return true;
            const uint64_t work = led.leadership.Begin();
            goOn.wait();
            if (!led.leadership.Finish(work)) ++lost;
            return false;
        },
        kThreads);
    lastLeads.wait();
    EXPECT_EQ(leaders, kThreads);
    EXPECT_EQ(led.Threads(), kThreads);
    goOn.set();
    led.Join();
    EXPECT_EQ(led.Threads(), kThreads);
}

// Who leads with nobody behind it is told, and must not be held up.
TEST(Leadership, IsWatchedAsLongAsAThreadIsLeft) {
    constexpr unsigned kThreads = 3;
    Led led;
    std::atomic<unsigned> leaders{0};
    XoEvent goOn(true);
    led.leadership.Run(
        [&] {
            const unsigned mine = ++leaders;
            EXPECT_EQ(led.leadership.Watched(), mine < kThreads) << mine;
            if (mine == kThreads) {
                // Those that come back watch again.
                goOn.set();
                Eventually([&] { return led.leadership.Watched(); });
                return true;
            }
            const uint64_t work = led.leadership.Begin();
            goOn.wait();
            EXPECT_FALSE(led.leadership.Finish(work));
            return false;
        },
        kThreads);
    EXPECT_EQ(leaders, kThreads);
}

TEST(Leadership, OfOneThreadIsNotWatched) {
    Led led;
    led.leadership.Run(
        [&] {
            EXPECT_FALSE(led.leadership.Watched());
            return true;
        },
        1);
}

TEST(Leadership, RunReturnsWhenItIsOverThoughItsThreadDoesNotLead) {
    Led led;
    const std::thread::id caller = std::this_thread::get_id();
    std::atomic<bool> replaced{false};
    std::thread::id last;
    led.leadership.Run(
        [&] {
            if (std::this_thread::get_id() == caller) {
                const uint64_t work = led.leadership.Begin();
                Eventually([&] { return replaced.load(); });
                EXPECT_FALSE(led.leadership.Finish(work));
                return false;
            }
            replaced = true;
            last = std::this_thread::get_id();
            return true;
        },
        2);
    EXPECT_NE(last, caller);
}

TEST(Leadership, OneThatIsHeldUpWhenItIsOverEndsAfterItsWork) {
    Led led;
    XoEvent release(true), over(true);
    std::atomic<unsigned> leaders{0};
    led.Start(
        [&] {
            if (++leaders == 1) {
                const uint64_t work = led.leadership.Begin();
                release.wait();
                EXPECT_FALSE(led.leadership.Finish(work));
                return false;
            }
            over.set();
            return true;
        },
        3);
    over.wait();
    release.set();
    led.Join();
    EXPECT_EQ(leaders, 2u);
}
