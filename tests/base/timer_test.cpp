// SPDX-License-Identifier: Apache-2.0
//
// Periodic callbacks. Every test takes its tasks away again: there is one timer in the process.
#include "base/timer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <string>
#include <thread>

#include "base/sync.h"
#include "base/thread.h"

namespace {

struct Counted {
    std::atomic<int> calls{0};
    int enough = 1;  // calls after which `reached` is set
    XOTimerErrno result = 0;
    XoEvent reached{true};
    std::string thread;
};

XOTimerErrno Count(void* opaque) {
    auto* counted = static_cast<Counted*>(opaque);
    if (counted->thread.empty()) counted->thread = oxel::ThreadName();
    if (++counted->calls == counted->enough) counted->reached.set();
    return counted->result;
}

// Runs the other task `times` times, so that every task due meanwhile has had its turn.
void LetTheTimerRun(OxelTimerTask other, int times) {
    Counted counted;
    counted.enough = times;
    ASSERT_EQ(XoTimer::Register(other, Count, 1, 0, &counted), 0);
    counted.reached.wait();
    XoTimer::Unregister(other);
}

struct Slow {
    XoEvent started, release;
    std::atomic<bool> finished{false};
};

XOTimerErrno RunSlowly(void* opaque) {
    auto* slow = static_cast<Slow*>(opaque);
    slow->started.set();
    slow->release.wait();
    for (int i = 0; i < 1000; ++i) std::this_thread::yield();
    slow->finished = true;
    return 1;  // once only
}

XOTimerErrno UnregisterMyself(void* opaque) {
    XoTimer::Unregister(OxelTimerTaskRegistry);
    return Count(opaque);
}

}  // namespace

TEST(Timer, CallsAgainAndAgainOnItsOwnThread) {
    Counted counted;
    counted.enough = 3;
    ASSERT_EQ(XoTimer::Register(OxelTimerTaskRegistry, Count, 1, 1, &counted), 0);
    counted.reached.wait();
    XoTimer::Unregister(OxelTimerTaskRegistry);
    EXPECT_EQ(counted.thread, "TIMER");
}

TEST(Timer, CallbackThatFailsIsRemoved) {
    Counted once;
    once.result = 5;
    ASSERT_EQ(XoTimer::Register(OxelTimerTaskRegistry, Count, 1, 0, &once), 0);
    once.reached.wait();
    LetTheTimerRun(OxelTimerTaskThreadCount, 10);
    EXPECT_EQ(once.calls, 1);
    XoTimer::Unregister(OxelTimerTaskRegistry);
}

TEST(Timer, UnregisterWaitsForTheCallbackThatRuns) {
    Slow slow;
    ASSERT_EQ(XoTimer::Register(OxelTimerTaskRegistry, RunSlowly, 1, 0, &slow), 0);
    slow.started.wait();
    slow.release.set();
    XoTimer::Unregister(OxelTimerTaskRegistry);
    EXPECT_TRUE(slow.finished);
}

TEST(Timer, UnregisteredTaskIsNotCalledAgain) {
    Counted counted;
    ASSERT_EQ(XoTimer::Register(OxelTimerTaskRegistry, Count, 1, 0, &counted), 0);
    counted.reached.wait();
    XoTimer::Unregister(OxelTimerTaskRegistry);
    const int calls = counted.calls;
    LetTheTimerRun(OxelTimerTaskThreadCount, 10);
    EXPECT_EQ(counted.calls, calls);
}

TEST(Timer, CallbackMayUnregisterItself) {
    Counted counted;
    ASSERT_EQ(XoTimer::Register(OxelTimerTaskRegistry, UnregisterMyself, 1, 0, &counted), 0);
    counted.reached.wait();
    LetTheTimerRun(OxelTimerTaskThreadCount, 10);
    EXPECT_EQ(counted.calls, 1);
    XoTimer::Unregister(OxelTimerTaskRegistry);  // its object may go now
}

TEST(Timer, RegisteringAgainReplacesTheTask) {
    Counted first, second;
    second.enough = 5;
    ASSERT_EQ(XoTimer::Register(OxelTimerTaskRegistry, Count, 3600 * 1000, 0, &first), 0);
    ASSERT_EQ(XoTimer::Register(OxelTimerTaskRegistry, Count, 1, 0, &second), 0);
    second.reached.wait();
    XoTimer::Unregister(OxelTimerTaskRegistry);
    EXPECT_EQ(first.calls, 0);
}

// The old task's failure must not take away the new one.
TEST(Timer, TaskReplacedDuringItsRunLeavesTheNewOneAlone) {
    Slow old;
    Counted fresh;
    ASSERT_EQ(XoTimer::Register(OxelTimerTaskRegistry, RunSlowly, 1, 0, &old), 0);
    old.started.wait();
    ASSERT_EQ(XoTimer::Register(OxelTimerTaskRegistry, Count, 1, 0, &fresh), 0);
    old.release.set();
    fresh.reached.wait();
    EXPECT_TRUE(old.finished);
    XoTimer::Unregister(OxelTimerTaskRegistry);
}

TEST(Timer, UnregisteringWhatIsNotThereReturns) {
    XoTimer::Unregister(OxelTimerTaskRegistry);
}

TEST(Timer, NumbersWithoutSenseAreRefused) {
    Counted counted;
    EXPECT_EQ(XoTimer::Register(OxelTimerTaskRegistry, nullptr, 1, 0, &counted), EINVAL);
    EXPECT_EQ(XoTimer::Register(OxelTimerTaskRegistry, Count, 0, 0, &counted), EINVAL);
    EXPECT_EQ(XoTimer::Register(OxelTimerTaskRegistry, Count, 1, 2, &counted), EINVAL);
}
