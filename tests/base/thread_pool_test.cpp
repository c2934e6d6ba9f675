// SPDX-License-Identifier: Apache-2.0
//
// The thread pool's rules, one at a time.
#include "base/thread_pool.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <set>
#include <vector>

#include "tests/base/pool_work.h"
#include "tests/support/log_capture.h"

namespace oxel::test {

constexpr unsigned long kIdleNever = 3600;

TEST(ThreadPool, TakesNoWorkBeforeItIsInitialised) {
    XoThreadPool pool;
    std::function<void()> work = [] {};
    EXPECT_FALSE(Do(pool, work));
    EXPECT_FALSE(pool.setMaxCount(3));
    EXPECT_EQ(pool.maxCount(), 0u);
    EXPECT_EQ(pool.threadCount(), 0u);
}

TEST(ThreadPool, NumbersWithoutSenseAreRefused) {
    XoThreadPool pool;
    EXPECT_FALSE(pool.initThreadPool("P", 60, 0, 0, 0));
    EXPECT_FALSE(pool.initThreadPool("P", 60, 3, 2, 0));
    EXPECT_FALSE(pool.initThreadPool("P", 60, 1, 2, 3));
    EXPECT_TRUE(pool.initThreadPool("P", 60, 1, 2, 1));
    EXPECT_FALSE(pool.initThreadPool("P", 60, 1, 2, 1)) << "a second time";
    EXPECT_FALSE(pool.setMaxCount(0));
    EXPECT_EQ(pool.maxCount(), 2u);
}

TEST(ThreadPool, HasTheThreadsOfTheStart) {
    XoThreadPool pool;
    ASSERT_TRUE(pool.initThreadPool("P", 60, 3, 5, 3));
    EXPECT_EQ(pool.threadCount(), 3u);
    Until([&] { return pool.idleCount() == 3; });
}

TEST(ThreadPool, FailsWhenNoThreadCanBeMade) {
    LogCapture capture;
    pthread_attr_t before, huge;
    ASSERT_EQ(pthread_getattr_default_np(&before), 0);
    ASSERT_EQ(pthread_attr_init(&huge), 0);
    ASSERT_EQ(pthread_attr_setstacksize(&huge, size_t{1} << 50), 0);  // more than there is
    ASSERT_EQ(pthread_setattr_default_np(&huge), 0);
    XoThreadPool none, late;
    EXPECT_TRUE(late.initThreadPool("LATE", 60, 0, 2, 0)) << "it needs none yet";
    EXPECT_FALSE(none.initThreadPool("NONE", 60, 1, 2, 1));
    std::function<void()> work = [] {};
    EXPECT_FALSE(Do(late, work)) << "nobody would come for it";
    EXPECT_EQ(late.queued(), 0u);
    pthread_setattr_default_np(&before);
    pthread_attr_destroy(&huge);
    pthread_attr_destroy(&before);
    EXPECT_EQ(capture.AtLevel(-1).size(), 1u);
    Hold hold;
    ASSERT_TRUE(hold.On(late)) << "later there is a thread";
    hold.LetGo();
    hold.finished.wait();
    EXPECT_TRUE(none.initThreadPool("NONE", 60, 1, 2, 1));
}

TEST(ThreadPool, ItemsStartInTheOrderInWhichTheyCame) {
    XoThreadPool pool;
    ASSERT_TRUE(pool.initThreadPool("P", 60, 1, 1, 1));
    std::vector<int> order;
    std::vector<std::function<void()>> items;
    for (int i = 0; i < 200; ++i) items.emplace_back([&order, i] { order.push_back(i); });
    Hold first, last;
    ASSERT_TRUE(first.On(pool));
    for (std::function<void()>& item : items) ASSERT_TRUE(Do(pool, item));
    ASSERT_TRUE(last.On(pool));
    first.LetGo();
    last.LetGo();
    last.finished.wait();
    ASSERT_EQ(order.size(), 200u);
    for (int i = 0; i < 200; ++i) EXPECT_EQ(order[static_cast<size_t>(i)], i);
}

TEST(ThreadPool, GrowsUpToItsMaximumAndQueuesTheRest) {
    Hold holds[4];
    XoThreadPool pool;
    ASSERT_TRUE(pool.initThreadPool("P", kIdleNever, 1, 3, 1));
    for (int i = 0; i < 3; ++i) ASSERT_TRUE(holds[i].On(pool));
    for (int i = 0; i < 3; ++i) holds[i].started.wait();
    EXPECT_EQ(pool.threadCount(), 3u);
    ASSERT_TRUE(holds[3].On(pool));
    EXPECT_EQ(pool.queued(), 1u);
    EXPECT_EQ(pool.threadCount(), 3u);
    holds[1].LetGo();
    holds[3].started.wait();
    EXPECT_EQ(holds[3].thread, holds[1].thread) << "who is done takes the next";
    for (Hold& hold : holds) hold.LetGo();
}

TEST(ThreadPool, MakesNoThreadWhileOneSleeps) {
    XoThreadPool pool;
    ASSERT_TRUE(pool.initThreadPool("P", kIdleNever, 1, 5, 1));
    for (int i = 0; i < 50; ++i) {
        Until([&] { return pool.idleCount() == 1; });
        Hold hold;
        ASSERT_TRUE(hold.On(pool));
        hold.LetGo();
        hold.finished.wait();
        EXPECT_EQ(pool.threadCount(), 1u);
        Until([&] { return pool.idleCount() == 1; });
    }
}

TEST(ThreadPool, WakesTheThreadThatSleptLeast) {
    Hold holds[3], next, after;
    XoThreadPool pool;
    ASSERT_TRUE(pool.initThreadPool("P", kIdleNever, 3, 3, 3));
    for (Hold& hold : holds) ASSERT_TRUE(hold.On(pool));
    for (Hold& hold : holds) hold.started.wait();
    for (unsigned i = 0; i < 3; ++i) {
        holds[i].LetGo();
        Until([&] { return pool.idleCount() == i + 1; });
    }
    ASSERT_TRUE(next.On(pool));
    next.started.wait();
    EXPECT_EQ(next.thread, holds[2].thread);
    ASSERT_TRUE(after.On(pool));
    after.started.wait();
    EXPECT_EQ(after.thread, holds[1].thread);
    next.LetGo();
    after.LetGo();
}

TEST(ThreadPool, ThreadsHaveThePoolsNameAndTheLowestFreeNumbers) {
    XoThreadPool pool;
    ASSERT_TRUE(pool.initThreadPool("OXEL_SEND", 0, 1, 3, 1));
    for (int round = 0; round < 20; ++round) {
        Hold holds[3];
        std::set<std::string> names;
        for (Hold& hold : holds) ASSERT_TRUE(hold.On(pool));
        for (Hold& hold : holds) {
            hold.started.wait();
            names.insert(hold.thread);
        }
        EXPECT_EQ(names, (std::set<std::string>{"OXEL_SEND-1", "OXEL_SEND-2", "OXEL_SEND-3"}));
        for (Hold& hold : holds) hold.LetGo();
        for (Hold& hold : holds) hold.finished.wait();
        Until([&] { return pool.threadCount() == 1; });  // the others end: no idle seconds
    }
}

TEST(ThreadPool, IdleThreadsAboveTheMinimumEnd) {
    Hold holds[4];
    XoThreadPool pool;
    ASSERT_TRUE(pool.initThreadPool("P", 0, 2, 4, 0));
    for (Hold& hold : holds) ASSERT_TRUE(hold.On(pool));
    for (Hold& hold : holds) hold.started.wait();
    EXPECT_EQ(pool.threadCount(), 4u);
    for (Hold& hold : holds) hold.LetGo();
    Until([&] { return pool.threadCount() == 2 && pool.idleCount() == 2; });
}

TEST(ThreadPool, PoolThatHasLostAllItsThreadsMakesNewOnes) {
    XoThreadPool pool;
    ASSERT_TRUE(pool.initThreadPool("P", 0, 0, 2, 0));
    for (int i = 0; i < 20; ++i) {
        Hold hold;
        ASSERT_TRUE(hold.On(pool));
        hold.LetGo();
        hold.finished.wait();
        Until([&] { return pool.threadCount() == 0; });
    }
}

TEST(ThreadPool, LowerMaximumEndsSleepingThreads) {
    XoThreadPool pool;
    ASSERT_TRUE(pool.initThreadPool("P", kIdleNever, 4, 4, 4));
    Until([&] { return pool.idleCount() == 4; });
    EXPECT_TRUE(pool.setMaxCount(1));
    EXPECT_EQ(pool.maxCount(), 1u);
    Until([&] { return pool.threadCount() == 1; });
    Hold hold;
    ASSERT_TRUE(hold.On(pool));
    hold.LetGo();
    hold.finished.wait();
}

TEST(ThreadPool, LowerMaximumEndsBusyThreadsAfterTheirWork) {
    Hold holds[4], queuedOne;
    XoThreadPool pool;
    ASSERT_TRUE(pool.initThreadPool("P", kIdleNever, 1, 4, 1));
    for (Hold& hold : holds) ASSERT_TRUE(hold.On(pool));
    for (Hold& hold : holds) hold.started.wait();
    EXPECT_TRUE(pool.setMaxCount(2));
    EXPECT_EQ(pool.threadCount(), 4u) << "what runs is not disturbed";
    ASSERT_TRUE(queuedOne.On(pool));
    holds[0].LetGo();
    holds[1].LetGo();
    Until([&] { return pool.threadCount() == 2; });
    EXPECT_EQ(pool.queued(), 1u) << "the two surplus threads took nothing more";
    holds[2].LetGo();
    queuedOne.started.wait();
    queuedOne.LetGo();
    holds[3].LetGo();
}

TEST(ThreadPool, HigherMaximumIsUsedForWhatIsQueuedAlready) {
    Hold holds[3];
    XoThreadPool pool;
    ASSERT_TRUE(pool.initThreadPool("P", kIdleNever, 1, 1, 1));
    for (Hold& hold : holds) ASSERT_TRUE(hold.On(pool));
    holds[0].started.wait();
    EXPECT_EQ(pool.queued(), 2u);
    EXPECT_TRUE(pool.setMaxCount(3));
    for (Hold& hold : holds) hold.started.wait();
    for (Hold& hold : holds) hold.LetGo();
}

TEST(ThreadPool, WorkMayAddWorkToItsOwnPool) {
    XoThreadPool pool;
    ASSERT_TRUE(pool.initThreadPool("P", 60, 1, 1, 1));
    XoEvent done;
    int depth = 0;
    std::function<void()> work = [&] {
        if (++depth == 1000)
            done.set();
        else
            ASSERT_TRUE(Do(pool, work));
    };
    ASSERT_TRUE(Do(pool, work));
    done.wait();
    EXPECT_EQ(depth, 1000);
}

TEST(ThreadPool, EndRunsWhatIsQueuedAndWhatThatAdds) {
    std::atomic<int> ran{0};
    std::function<void()> last = [&] { ++ran; };
    {
        Hold hold;
        std::function<void()> work;
        XoThreadPool pool;  // ends first
        work = [&] {
            ++ran;
            Do(pool, last);
        };
        ASSERT_TRUE(pool.initThreadPool("P", 60, 1, 2, 1));
        ASSERT_TRUE(hold.On(pool));
        for (int i = 0; i < 100; ++i) ASSERT_TRUE(Do(pool, work));
        hold.LetGo();
        hold.finished.wait();
    }
    EXPECT_EQ(ran, 200);
}

TEST(ThreadPool, WorkMayDestroyItsPool) {
    auto pool = std::make_unique<XoThreadPool>();
    ASSERT_TRUE(pool->initThreadPool("P", 60, 2, 2, 2));
    XoEvent gone;
    std::function<void()> work = [&] {
        pool.reset();
        gone.set();
    };
    ASSERT_TRUE(Do(*pool, work));
    gone.wait();
    EXPECT_EQ(pool, nullptr);
}

}  // namespace oxel::test
