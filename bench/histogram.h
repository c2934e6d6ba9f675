// SPDX-License-Identifier: Apache-2.0
//
// Counts of durations in buckets that are never wider than 1/128 of what they hold: adding one
// costs a few instructions and no memory, however long the run.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>

namespace bench {

class Histogram {
  public:
    void Add(int64_t nanoseconds) {
        const uint64_t value = nanoseconds < 0 ? 0 : static_cast<uint64_t>(nanoseconds);
        ++buckets_[BucketOf(value)];
        ++count_;
        max_ = std::max(max_, value);
    }
    // In microseconds; 0 when nothing was added.
    double Quantile(double share) const {
        if (count_ == 0) return 0;
        uint64_t left = static_cast<uint64_t>(share * static_cast<double>(count_ - 1)) + 1;
        for (size_t i = 0; i < buckets_.size(); ++i) {
            if (left <= buckets_[i]) return static_cast<double>(std::min(TopOf(i), max_)) / 1000;
            left -= buckets_[i];
        }
        return Max();
    }
    double Max() const { return static_cast<double>(max_) / 1000; }
    uint64_t Count() const { return count_; }

  private:
    static constexpr unsigned kBits = 7;
    static constexpr uint64_t kSteps = 1 << kBits;
    static size_t BucketOf(uint64_t value) {
        if (value < kSteps) return value;
        const unsigned shift = static_cast<unsigned>(std::bit_width(value)) - 1 - kBits;
        return (shift + 1) * kSteps + ((value >> shift) - kSteps);
    }
    static uint64_t TopOf(size_t bucket) {
        if (bucket < kSteps) return bucket;
        const unsigned shift = static_cast<unsigned>(bucket / kSteps) - 1;
        return ((bucket % kSteps + kSteps + 1) << shift) - 1;
    }

    std::array<uint64_t, (64 - kBits + 1) * kSteps> buckets_{};
    uint64_t count_ = 0, max_ = 0;
};

}  // namespace bench
