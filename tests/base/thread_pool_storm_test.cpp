// SPDX-License-Identifier: Apache-2.0
//
// The thread pool under everything at once. A lost wake-up shows as a test that never ends.
#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "tests/base/pool_work.h"

namespace oxel::test {

namespace {

struct Ticket {
    std::atomic<int> times{0};
    std::atomic<size_t>* done = nullptr;
};

void* Stamp(void* opaque) {
    auto* ticket = static_cast<Ticket*>(opaque);
    ticket->times.fetch_add(1, std::memory_order_relaxed);
    ticket->done->fetch_add(1);  // the last touch of what the test owns
    return nullptr;
}

constexpr size_t kProducers = 3, kEach = 4000;

// Every item of every producer is run exactly once. `pace` runs before each item.
void Storm(XoThreadPool& pool, const std::function<void(size_t item)>& pace) {
    std::atomic<size_t> done{0};
    auto tickets = std::make_unique<Ticket[]>(kProducers * kEach);
    for (size_t i = 0; i < kProducers * kEach; ++i) tickets[i].done = &done;
    std::vector<std::thread> producers;
    for (size_t p = 0; p < kProducers; ++p) {
        producers.emplace_back([&, p] {
            for (size_t i = 0; i < kEach; ++i) {
                pace(i);
                EXPECT_TRUE(pool.doWork(Stamp, &tickets[p * kEach + i]));
            }
        });
    }
    for (std::thread& producer : producers) producer.join();
    Until([&] { return done == kProducers * kEach; });
    for (size_t i = 0; i < kProducers * kEach; ++i) EXPECT_EQ(tickets[i].times, 1);
}

void NoPause(size_t) {}

// Lets the workers run dry now and then, so that sleeping and waking meet adding.
void PauseOften(size_t item) {
    if (item % 3 == 0) std::this_thread::yield();
}

}  // namespace

TEST(ThreadPoolStorm, OneThread) {
    XoThreadPool pool;
    ASSERT_TRUE(pool.initThreadPool("P", 60, 1, 1, 1));
    Storm(pool, NoPause);
    Storm(pool, PauseOften);
}

TEST(ThreadPoolStorm, FixedThreads) {
    XoThreadPool pool;
    ASSERT_TRUE(pool.initThreadPool("P", 60, 3, 3, 3));
    Storm(pool, NoPause);
    Storm(pool, PauseOften);
}

TEST(ThreadPoolStorm, ThreadsThatEndAsSoonAsTheyAreIdle) {
    XoThreadPool pool;
    ASSERT_TRUE(pool.initThreadPool("P", 0, 0, 4, 0));
    Storm(pool, NoPause);
    Storm(pool, PauseOften);
    Until([&] { return pool.threadCount() == 0; });
}

TEST(ThreadPoolStorm, MaximumThatChangesAllTheTime) {
    for (const unsigned long idleSeconds : {0ul, 60ul}) {
        XoThreadPool pool;
        ASSERT_TRUE(pool.initThreadPool("P", idleSeconds, 1, 4, 1));
        std::atomic<bool> stop{false};
        std::thread changer([&] {
            for (unsigned i = 0; !stop; ++i) {
                EXPECT_TRUE(pool.setMaxCount(1 + i * 7 % 6));
                std::this_thread::yield();
            }
        });
        Storm(pool, PauseOften);
        stop = true;
        changer.join();
        EXPECT_TRUE(pool.setMaxCount(2));
        Until([&] { return pool.threadCount() <= 2; });
        Storm(pool, NoPause);
    }
}

// A call's road: received here, handled there, sent by a third, and back.
TEST(ThreadPoolStorm, WorkThatGoesFromPoolToPool) {
    constexpr int kCalls = 16, kHops = 2000;
    struct Call {
        XoThreadPool* pools[2];
        int hops = 0;
        XoEvent done;
        static void* Hop(void* opaque) {
            auto* call = static_cast<Call*>(opaque);
            if (++call->hops == kHops) {
                call->done.set();
            } else {
                EXPECT_TRUE(call->pools[call->hops % 2]->doWork(Hop, call));
            }
            return nullptr;
        }
    };
    XoThreadPool handlers, senders;
    ASSERT_TRUE(handlers.initThreadPool("OXEL", 60, 1, 5, 1));
    ASSERT_TRUE(senders.initThreadPool("OXEL_SEND", 60, 3, 3, 3));
    Call calls[kCalls];
    for (Call& call : calls) {
        call.pools[0] = &handlers;
        call.pools[1] = &senders;
        ASSERT_TRUE(handlers.doWork(Call::Hop, &call));
    }
    for (Call& call : calls) call.done.wait();
    for (Call& call : calls) EXPECT_EQ(call.hops, kHops);
}

TEST(ThreadPoolStorm, PoolsComeAndGo) {
    std::atomic<size_t> done{0};
    Ticket ticket;
    ticket.done = &done;
    for (size_t round = 0; round < 200; ++round) {
        XoThreadPool pool;
        ASSERT_TRUE(pool.initThreadPool("P", round % 2, round % 3, 3, 0));
        for (int i = 0; i < 5; ++i) ASSERT_TRUE(pool.doWork(Stamp, &ticket));
    }
    EXPECT_EQ(done, 1000u);
}

}  // namespace oxel::test
