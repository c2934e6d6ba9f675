// SPDX-License-Identifier: Apache-2.0
//
// Performance counters. Every test starts the process's counters anew.
#include "base/perf_counter.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <thread>

#include "tests/support/log_capture.h"

namespace oxel {

using test::LogCapture;

class PerfCounter : public testing::Test {
  protected:
    PerfCounter() {
        LogCapture discarded;
        LogAllPerfCounters();
    }
    ~PerfCounter() override { gPerfFlag = true; }

    static PerfTotals Only(unsigned id) {
        for (const PerfTotals& one : PerfSnapshot()) {
            if (one.id == id) return one;
        }
        return {};
    }
};

TEST_F(PerfCounter, AddsUpCountTimeMaximumAndBytes) {
    PerfAdd("Stage5", 5, 100, 7);
    PerfAdd("Stage5", 5, 300, 1);
    PerfAdd("Stage5", 5, 200, 0);
    const PerfTotals totals = Only(5);
    EXPECT_EQ(totals.name, "Stage5");
    EXPECT_EQ(totals.count, 3u);
    EXPECT_EQ(totals.nanoseconds, 600u);
    EXPECT_EQ(totals.nanosecondsMax, 300u);
    EXPECT_EQ(totals.bytes, 8u);
}

TEST_F(PerfCounter, KeepsTheNameThatCameFirst) {
    PerfAdd("First6", 6, 1, 0);
    PerfAdd("Second6", 6, 1, 0);
    EXPECT_EQ(Only(6).name, "First6");
}

TEST_F(PerfCounter, ShowsOnlyStagesThatRanInTheOrderOfTheirIds) {
    PerfAdd("b", 9, 1, 0);
    PerfAdd("a", 8, 1, 0);
    const std::vector<PerfTotals> all = PerfSnapshot();
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all[0].id, 8u);
    EXPECT_EQ(all[1].id, 9u);
}

TEST_F(PerfCounter, CountsThreadsThatRunAndThreadsThatHaveEnded) {
    PerfAdd("t", 10, 5, 1);
    std::thread([] { PerfAdd("t", 10, 50, 2); }).join();
    std::thread([] { PerfAdd("t", 10, 20, 4); }).join();
    const PerfTotals totals = Only(10);
    EXPECT_EQ(totals.count, 3u);
    EXPECT_EQ(totals.nanoseconds, 75u);
    EXPECT_EQ(totals.nanosecondsMax, 50u);
    EXPECT_EQ(totals.bytes, 7u);
}

TEST_F(PerfCounter, IdWithoutASlotIsIgnored) {
    PerfAdd("none", kPerfCounterIdMax, 1, 1);
    PerfAdd("none", ~0u, 1, 1);
    ThrdPerfCounter counter;
    counter.start("none", kPerfCounterIdMax);
    counter.stop("none", kPerfCounterIdMax);
    EXPECT_TRUE(PerfSnapshot().empty());
}

TEST_F(PerfCounter, WrapperTimesItsScope) {
    { PerfCounterWrapper scope("scope", 11, 42); }
    EXPECT_EQ(Only(11).count, 1u);
    EXPECT_EQ(Only(11).bytes, 42u);
}

TEST_F(PerfCounter, NothingIsCountedWhileAccountingIsOff) {
    gPerfFlag = false;
    { PerfCounterWrapper scope("off", 12); }
    EXPECT_TRUE(PerfSnapshot().empty());
}

// A scope that began while accounting was off has no beginning to count from.
TEST_F(PerfCounter, ScopeThatBeganWhileAccountingWasOffIsNotCounted) {
    gPerfFlag = false;
    {
        PerfCounterWrapper scope("off", 12);
        gPerfFlag = true;
    }
    EXPECT_TRUE(PerfSnapshot().empty());
}

TEST_F(PerfCounter, TimeBetweenStartAndStopCountsUnderTheNameOfTheStop) {
    ThrdPerfCounter counter;
    counter.start("OXEL", 13);
    counter.stop("Nfs3Dispatcher", 13);
    EXPECT_EQ(Only(13).count, 1u);
    EXPECT_EQ(Only(13).name, "Nfs3Dispatcher");
}

TEST_F(PerfCounter, StopWithoutAStartDoesNothing) {
    ThrdPerfCounter counter;
    counter.stop("x", 14);
    counter.start("x", 14);
    counter.stop("x", 14);
    counter.stop("x", 14);
    EXPECT_EQ(Only(14).count, 1u);
}

TEST_F(PerfCounter, LogHasALineForEachAndTheCountersStartAnew) {
    PerfAdd("Stage20", 20, 4000, 7);
    PerfAdd("Stage20", 20, 2000, 7);
    PerfAdd("Stage21", 21, 1, 0);
    LogCapture capture(1);
    LogAllPerfCounters();
    const auto lines = capture.AtLevel(1);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(
        lines[0].text,
        "Counter [20:Stage20] count [2] total [6 us] mean [3000 ns] max [4000 ns] bytes [14]");
    EXPECT_EQ(lines[0].function, "void LogAllPerfCounters()");
    EXPECT_TRUE(PerfSnapshot().empty());
    PerfAdd("Stage20", 20, 500, 1);
    const PerfTotals totals = Only(20);
    EXPECT_EQ(totals.count, 1u);
    EXPECT_EQ(totals.nanoseconds, 500u);
    EXPECT_EQ(totals.nanosecondsMax, 500u) << "the maximum starts anew too";
    EXPECT_EQ(totals.bytes, 1u);
}

TEST_F(PerfCounter, MaximumOfAnEndedThreadStartsAnewToo) {
    std::thread([] { PerfAdd("Stage22", 22, 9000, 0); }).join();
    {
        LogCapture capture(1);
        LogAllPerfCounters();
    }
    std::thread([] { PerfAdd("Stage22", 22, 10, 0); }).join();
    EXPECT_EQ(Only(22).nanosecondsMax, 10u);
}

TEST_F(PerfCounter, NothingIsLostBetweenTheLinesAndTheThreads) {
    constexpr unsigned kThreads = 3, kAdditions = 20000;
    LogCapture capture(1);
    std::atomic<unsigned> running{kThreads};
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            for (unsigned i = 0; i < kAdditions; ++i) PerfAdd("Stage30", 30, 1, 2);
            --running;
        });
    }
    while (running != 0) LogAllPerfCounters();
    for (std::thread& thread : threads) thread.join();
    LogAllPerfCounters();
    unsigned long sum = 0;
    for (const auto& line : capture.AtLevel(1)) {
        unsigned long count = 0;
        ASSERT_EQ(sscanf(line.text.c_str(), "Counter [30:Stage30] count [%lu]", &count), 1);
        sum += count;
    }
    EXPECT_EQ(sum, kThreads * kAdditions);
}

TEST_F(PerfCounter, ClockGoesForward) {
    const uint64_t first = MonotonicNanoseconds();
    EXPECT_LE(first, MonotonicNanoseconds());
    EXPECT_NE(first, 0u);
}

}  // namespace oxel
