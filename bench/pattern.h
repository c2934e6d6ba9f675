// SPDX-License-Identifier: Apache-2.0
//
// The bytes of the files that the benchmarks read and write: byte N of a file is byte N of an
// endless pattern, so that data of any offset is known without having been kept.
#pragma once

#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

namespace bench {

class Pattern {
  public:
    static constexpr size_t kBytesMax = 1 << 20;  // of one look at it
    explicit Pattern(uint64_t shift = 0) : shift_(shift), bytes_(kPeriod + kBytesMax) {
        uint64_t state = 0;
        for (size_t i = 0; i < kPeriod; ++i) {
            state = state * 6364136223846793005u + 1442695040888963407u;
            bytes_[i] = static_cast<char>(state >> 56);
        }
        for (size_t i = kPeriod; i < bytes_.size(); ++i) bytes_[i] = bytes_[i - kPeriod];
    }
    // `length` bytes (kBytesMax at most) as they stand at `offset` of a file.
    std::string_view At(uint64_t offset, size_t length) const {
        return {bytes_.data() + (offset + shift_) % kPeriod, length};
    }

  private:
    // A prime: blocks of 2^n bytes come round again only after 65521 of them.
    static constexpr size_t kPeriod = 65521;
    const uint64_t shift_;
    std::vector<char> bytes_;
};

}  // namespace bench
