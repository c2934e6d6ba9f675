// SPDX-License-Identifier: Apache-2.0
//
// Telling the first few of a kind in each minute, and counting the others.
#include "base/repeat_limit.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace oxel {

TEST(RepeatLimit, TellsTenAMinute) {
    RepeatLimit limit;
    for (int i = 0; i < 10; ++i) EXPECT_TRUE(limit.Count(1000 + i).tell) << i;
    EXPECT_FALSE(limit.Count(1010).tell);
    EXPECT_FALSE(limit.Count(1059).tell);
    const RepeatLimit::Verdict next = limit.Count(1060);
    EXPECT_TRUE(next.tell);
    EXPECT_EQ(next.untold, 2u);
    EXPECT_EQ(limit.Count(1061).untold, 0u);
}

TEST(RepeatLimit, ASumIsTakenWhenTheMinuteIsOverAndOnce) {
    RepeatLimit limit;
    for (int i = 0; i < 35; ++i) limit.Count(7);
    EXPECT_EQ(limit.TakeUntold(66), 0u);
    EXPECT_EQ(limit.TakeUntold(67), 25u);
    EXPECT_EQ(limit.TakeUntold(68), 0u);
}

TEST(RepeatLimit, ASumMayBeTakenAtOnce) {
    RepeatLimit limit;
    for (int i = 0; i < 12; ++i) limit.Count(7);
    EXPECT_EQ(limit.TakeUntold(7, true), 2u);
    EXPECT_FALSE(limit.Count(8).tell) << "the minute goes on";
}

TEST(RepeatLimit, ForgetsNothingThatIsToldWhileTheClockStandsAtZero) {
    RepeatLimit limit;
    EXPECT_TRUE(limit.Count(0).tell);
}

TEST(RepeatLimit, EachOfManyThreadsIsToldOrInASum) {
    RepeatLimit limit;
    std::atomic<int64_t> now{100};
    std::atomic<uint64_t> told{0}, untold{0};
    constexpr unsigned kThreads = 4, kEach = 50000;
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            for (unsigned i = 0; i < kEach; ++i) {
                if (t == 0 && i % 1000 == 0) now += 61;
                const RepeatLimit::Verdict verdict = limit.Count(now);
                told += verdict.tell ? 1 : 0;
                untold += verdict.untold;
                if (i % 100 == 0) untold += limit.TakeUntold(now);
            }
        });
    for (std::thread& thread : threads) thread.join();
    untold += limit.TakeUntold(now, true);
    EXPECT_EQ(told + untold, uint64_t{kThreads} * kEach);
    EXPECT_GE(told, 10u);
}

}  // namespace oxel
