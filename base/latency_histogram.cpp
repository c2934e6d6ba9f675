// SPDX-License-Identifier: Apache-2.0
//
// Buckets:
//
//   | < 2^10 | 2^10 .. in 8 steps .. 2^11 | ... | .. 2^36 | >= 2^36 |      nanoseconds
#include "base/latency_histogram.h"

#include <algorithm>
#include <bit>
#include <cmath>

namespace oxel {

namespace {

constexpr unsigned kStepBits = 3;
static_assert(1u << kStepBits == LatencyReading::kStepsPerOctave);

}  // namespace

size_t LatencyReading::BucketOf(uint64_t nanoseconds) {
    if (nanoseconds < uint64_t{1} << kFirstOctave) return 0;
    const unsigned octave = static_cast<unsigned>(std::bit_width(nanoseconds)) - 1;
    if (octave >= kLastOctave) return kBuckets - 1;
    const uint64_t step = nanoseconds >> (octave - kStepBits) & (kStepsPerOctave - 1);
    return 1 + (octave - kFirstOctave) * kStepsPerOctave + step;
}

uint64_t LatencyReading::LowerBound(size_t bucket) {
    if (bucket == 0) return 0;
    const size_t octave = kFirstOctave + (bucket - 1) / kStepsPerOctave;
    const uint64_t step = (bucket - 1) % kStepsPerOctave;
    return (kStepsPerOctave + step) << (octave - kStepBits);
}

void LatencyReading::Add(const LatencyReading& other) {
    count += other.count;
    nanoseconds += other.nanoseconds;
    nanosecondsMax = std::max(nanosecondsMax, other.nanosecondsMax);
    for (size_t i = 0; i < kBuckets; ++i) buckets[i] += other.buckets[i];
}

void LatencyReading::Subtract(const LatencyReading& earlier) {
    count -= earlier.count;
    nanoseconds -= earlier.nanoseconds;
    size_t longest = 0;
    for (size_t i = 0; i < kBuckets; ++i) {
        buckets[i] -= earlier.buckets[i];
        if (buckets[i] != 0) longest = i;
    }
    // The longest of all time may have come before.
    if (count == 0)
        nanosecondsMax = 0;
    else if (longest + 1 < kBuckets)
        nanosecondsMax = std::min(nanosecondsMax, LowerBound(longest + 1));
}

uint64_t LatencyReading::Percentile(double part) const {
    if (count == 0) return 0;
    const auto rank = std::clamp<uint64_t>(
        static_cast<uint64_t>(std::ceil(part * static_cast<double>(count))), 1, count);
    uint64_t below = 0;
    for (size_t i = 0; i < kBuckets; ++i) {
        if (below + buckets[i] < rank) {
            below += buckets[i];
            continue;
        }
        // As if the bucket's durations lay evenly in it.
        const uint64_t from = LowerBound(i);
        const uint64_t to = i + 1 < kBuckets ? LowerBound(i + 1) : nanosecondsMax;
        if (to <= from) return nanosecondsMax;
        const double within = static_cast<double>(rank - below) / static_cast<double>(buckets[i]);
        return std::min(nanosecondsMax,
                        from + static_cast<uint64_t>(static_cast<double>(to - from) * within));
    }
    return nanosecondsMax;
}

uint64_t LatencyReading::CountBelow(unsigned octave) const {
    uint64_t below = 0;
    const size_t last = size_t{octave - kFirstOctave} * kStepsPerOctave;
    for (size_t i = 0; i <= last; ++i) below += buckets[i];
    return below;
}

void LatencyHistogram::Add(uint64_t nanoseconds) {
    buckets_[LatencyReading::BucketOf(nanoseconds)].fetch_add(1, std::memory_order_relaxed);
    nanoseconds_.fetch_add(nanoseconds, std::memory_order_relaxed);
    uint64_t longest = nanosecondsMax_.load(std::memory_order_relaxed);
    while (longest < nanoseconds && !nanosecondsMax_.compare_exchange_weak(
                                        longest, nanoseconds, std::memory_order_relaxed)) {
    }
}

LatencyReading LatencyHistogram::Read() const {
    LatencyReading reading;
    for (size_t i = 0; i < LatencyReading::kBuckets; ++i) {
        reading.buckets[i] = buckets_[i].load(std::memory_order_relaxed);
        reading.count += reading.buckets[i];
    }
    reading.nanoseconds = nanoseconds_.load(std::memory_order_relaxed);
    reading.nanosecondsMax = nanosecondsMax_.load(std::memory_order_relaxed);
    return reading;
}

}  // namespace oxel
