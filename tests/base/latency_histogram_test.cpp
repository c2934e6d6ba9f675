// SPDX-License-Identifier: Apache-2.0
//
// Histograms of durations: where a duration is counted, and what is told of all of them.
#include "base/latency_histogram.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <thread>
#include <vector>

namespace oxel {
namespace {

constexpr uint64_t kFirst = uint64_t{1} << LatencyReading::kFirstOctave;
constexpr uint64_t kEnd = uint64_t{1} << LatencyReading::kLastOctave;

LatencyReading ReadingOf(const std::vector<uint64_t>& durations) {
    LatencyHistogram histogram;
    for (const uint64_t one : durations) histogram.Add(one);
    return histogram.Read();
}

TEST(LatencyHistogram, BucketsLieSideBySide) {
    EXPECT_EQ(LatencyReading::LowerBound(0), 0u);
    EXPECT_EQ(LatencyReading::LowerBound(1), kFirst);
    EXPECT_EQ(LatencyReading::LowerBound(LatencyReading::kBuckets - 1), kEnd);
    for (size_t bucket = 1; bucket < LatencyReading::kBuckets; ++bucket) {
        const uint64_t from = LatencyReading::LowerBound(bucket);
        EXPECT_EQ(LatencyReading::BucketOf(from), bucket) << from;
        EXPECT_EQ(LatencyReading::BucketOf(from - 1), bucket - 1) << from;
    }
}

TEST(LatencyHistogram, BucketIsAtMostAnEighthWide) {
    for (size_t bucket = 1; bucket + 1 < LatencyReading::kBuckets; ++bucket) {
        const uint64_t from = LatencyReading::LowerBound(bucket);
        EXPECT_LE(LatencyReading::LowerBound(bucket + 1) - from, from / 8) << bucket;
    }
}

TEST(LatencyHistogram, EveryDurationHasABucket) {
    EXPECT_EQ(LatencyReading::BucketOf(0), 0u);
    EXPECT_EQ(LatencyReading::BucketOf(kEnd), LatencyReading::kBuckets - 1);
    EXPECT_EQ(LatencyReading::BucketOf(UINT64_MAX), LatencyReading::kBuckets - 1);
}

TEST(LatencyHistogram, NothingCountedIsZeroThroughout) {
    const LatencyReading reading = LatencyHistogram().Read();
    EXPECT_EQ(reading.count, 0u);
    EXPECT_EQ(reading.Mean(), 0u);
    EXPECT_EQ(reading.Percentile(0.99), 0u);
    EXPECT_EQ(reading.nanosecondsMax, 0u);
}

TEST(LatencyHistogram, OneDurationIsEveryPercentile) {
    for (const uint64_t one : {uint64_t{5}, uint64_t{12345}, uint64_t{7'000'000'000}, 2 * kEnd}) {
        const LatencyReading reading = ReadingOf({one});
        EXPECT_EQ(reading.Percentile(0), one);
        EXPECT_EQ(reading.Percentile(0.5), one);
        EXPECT_EQ(reading.Percentile(1), one);
        EXPECT_EQ(reading.Mean(), one);
        EXPECT_EQ(reading.nanosecondsMax, one);
    }
}

TEST(LatencyHistogram, PercentilesAreRightWithinAnEighth) {
    std::mt19937_64 random(20260101);
    std::lognormal_distribution<double> durations(11, 2);  // around 60 us, over some decades
    std::vector<uint64_t> all(20000);
    for (uint64_t& one : all) one = kFirst + static_cast<uint64_t>(durations(random));
    const LatencyReading reading = ReadingOf(all);
    std::sort(all.begin(), all.end());
    for (const double part : {0.01, 0.1, 0.5, 0.9, 0.95, 0.99, 0.999}) {
        const auto exact = static_cast<double>(
            all[static_cast<size_t>(part * static_cast<double>(all.size())) - 1]);
        const auto told = static_cast<double>(reading.Percentile(part));
        EXPECT_GE(told, exact * 7 / 8) << part;
        EXPECT_LE(told, exact * 9 / 8) << part;
    }
    EXPECT_EQ(reading.Percentile(1), all.back());
}

TEST(LatencyHistogram, MeanIsExact) {
    EXPECT_EQ(ReadingOf({1000, 2000, 6000}).Mean(), 3000u);
}

TEST(LatencyHistogram, ReadingsAddUp) {
    LatencyReading sum = ReadingOf({2000, 3000});
    sum.Add(ReadingOf({9000}));
    EXPECT_EQ(sum.count, 3u);
    EXPECT_EQ(sum.nanoseconds, 14000u);
    EXPECT_EQ(sum.nanosecondsMax, 9000u);
    EXPECT_EQ(sum.buckets, ReadingOf({2000, 3000, 9000}).buckets);
}

TEST(LatencyHistogram, EarlierReadingTakenOffLeavesWhatCameSince) {
    LatencyHistogram histogram;
    histogram.Add(50'000'000);
    const LatencyReading earlier = histogram.Read();
    for (int i = 0; i < 10; ++i) histogram.Add(100'000);
    LatencyReading since = histogram.Read();
    since.Subtract(earlier);
    EXPECT_EQ(since.count, 10u);
    EXPECT_EQ(since.Mean(), 100'000u);
    // The longest of all was before: what is told is a bound of the longest since.
    EXPECT_GE(since.nanosecondsMax, 100'000u);
    EXPECT_LE(since.nanosecondsMax, 112'500u);
    LatencyReading nothing = histogram.Read();
    nothing.Subtract(histogram.Read());
    EXPECT_EQ(nothing.count, 0u);
    EXPECT_EQ(nothing.nanosecondsMax, 0u);
}

TEST(LatencyHistogram, CountBelowAnOctaveIsExact) {
    const LatencyReading reading =
        ReadingOf({1, kFirst - 1, kFirst, 4 * kFirst - 1, 4 * kFirst, kEnd - 1, kEnd});
    EXPECT_EQ(reading.CountBelow(LatencyReading::kFirstOctave), 2u);
    EXPECT_EQ(reading.CountBelow(LatencyReading::kFirstOctave + 2), 4u);
    EXPECT_EQ(reading.CountBelow(LatencyReading::kFirstOctave + 3), 5u);
    EXPECT_EQ(reading.CountBelow(LatencyReading::kLastOctave), 6u);
}

TEST(LatencyHistogram, ManyThreadsLoseNothing) {
    constexpr uint64_t kThreads = 4, kEach = 20000;
    LatencyHistogram histogram;
    std::vector<std::thread> threads;
    for (uint64_t thread = 1; thread <= kThreads; ++thread)
        threads.emplace_back([&histogram, thread] {
            for (uint64_t i = 0; i < kEach; ++i) histogram.Add(thread * 3000 + i % 7);
        });
    for (std::thread& thread : threads) thread.join();
    const LatencyReading reading = histogram.Read();
    EXPECT_EQ(reading.count, kThreads * kEach);
    EXPECT_EQ(reading.nanosecondsMax, kThreads * 3000 + 6);
}

}  // namespace
}  // namespace oxel
