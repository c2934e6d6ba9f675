// SPDX-License-Identifier: Apache-2.0
//
// Critical sections and events.
#include "base/sync.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

TEST(CriticalSection, OneThreadAtATime) {
    XoCriticalSection section;
    long counter = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 10000; ++i) {
                XoCriticalSectionGuard guard(section);
                ++counter;
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(counter, 40000);
}

TEST(CriticalSection, TryEnterFailsWhileAnotherThreadIsInside) {
    XoCriticalSection section;
    section.enter();
    bool entered = false;
    const auto tryIt = [&] {
        entered = false;
        if (!section.tryEnter()) return;
        entered = true;
        section.leave();
    };
    std::thread(tryIt).join();
    EXPECT_FALSE(entered);
    section.leave();
    std::thread(tryIt).join();
    EXPECT_TRUE(entered);
}

TEST(Event, SetBeforeTheWaitIsNotLost) {
    XoEvent event;
    event.set();
    event.wait();
    EXPECT_FALSE(event.wait(0)) << "an automatic event resets when it wakes somebody";
}

TEST(Event, AutomaticOneWakesOneWaiterPerSet) {
    XoEvent event;
    std::atomic<int> woken{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 3; ++i)
        waiters.emplace_back([&] {
            event.wait();
            ++woken;
        });
    for (int i = 1; i <= 3; ++i) {
        event.set();
        while (woken < i) std::this_thread::yield();
        EXPECT_EQ(woken, i);
    }
    for (std::thread& waiter : waiters) waiter.join();
}

TEST(Event, ManualOneStaysSetUntilReset) {
    XoEvent event(true);
    event.set();
    event.wait();
    EXPECT_TRUE(event.wait(0));
    event.reset();
    EXPECT_FALSE(event.wait(0));
}

TEST(Event, ManualOneWakesEverybody) {
    XoEvent event(true);
    std::vector<std::thread> waiters;
    for (int i = 0; i < 3; ++i) waiters.emplace_back([&] { event.wait(); });
    event.set();
    for (std::thread& waiter : waiters) waiter.join();
}

TEST(Event, WaitWithALimitEndsWithoutTheEvent) {
    XoEvent event;
    EXPECT_FALSE(event.wait(1));
}

// The starter of a service keeps the event on its stack and returns as soon as it is set.
TEST(Event, MayBeDestroyedWhenItsWaitReturns) {
    for (int i = 0; i < 500; ++i) {
        auto event = std::make_unique<XoEvent>();
        std::thread setter([raw = event.get()] { raw->set(); });
        event->wait();
        event.reset();
        setter.join();
    }
}
