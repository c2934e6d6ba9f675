// SPDX-License-Identifier: Apache-2.0
//
// How long things took: counts in buckets whose widths grow with the duration, eight to each
// doubling, so that a percentile is right within an eighth of its value at any scale.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace oxel {

// What a histogram held at one moment. Readings of several histograms can be added up, and an
// earlier one of the same histogram taken off.
struct LatencyReading {
    // From 1 us to 68 s; what is shorter is in the first bucket and what is longer in the last.
    static constexpr unsigned kFirstOctave = 10, kLastOctave = 36, kStepsPerOctave = 8;
    static constexpr size_t kBuckets = 2 + (kLastOctave - kFirstOctave) * kStepsPerOctave;

    uint64_t count = 0;
    uint64_t nanoseconds = 0;     // of all
    uint64_t nanosecondsMax = 0;  // of the longest; after Subtract() a bound of it
    std::array<uint64_t, kBuckets> buckets{};

    void Add(const LatencyReading& other);
    // `earlier` is a reading of the same histogram.
    void Subtract(const LatencyReading& earlier);
    // 0 when nothing is counted.
    uint64_t Mean() const { return count == 0 ? 0 : nanoseconds / count; }
    // The duration in nanoseconds that `part` (0 to 1) of all did not exceed, at most the longest;
    // 0 when nothing is counted.
    uint64_t Percentile(double part) const;
    // How many took less than 2^octave nanoseconds; kFirstOctave to kLastOctave.
    uint64_t CountBelow(unsigned octave) const;

    static size_t BucketOf(uint64_t nanoseconds);
    // The bucket holds durations from here on, in nanoseconds; `bucket` may be kBuckets - 1 at
    // most.
    static uint64_t LowerBound(size_t bucket);
};

// Any thread; two locked additions each time.
class LatencyHistogram {
  public:
    void Add(uint64_t nanoseconds);
    // Of a moment in which others go on counting: the parts may be apart by what came in between.
    LatencyReading Read() const;

  private:
    std::atomic<uint64_t> nanoseconds_{0}, nanosecondsMax_{0};
    std::array<std::atomic<uint64_t>, LatencyReading::kBuckets> buckets_{};
};

}  // namespace oxel
