// SPDX-License-Identifier: Apache-2.0
//
// A file descriptor with one owner, closed at the end of its scope.
#pragma once

#include <unistd.h>

#include <utility>

namespace oxel {

class UniqueFd {
  public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : fd_(other.Release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        if (this != &other) Reset(other.Release());
        return *this;
    }
    ~UniqueFd() { Reset(); }

    int Get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    int Release() { return std::exchange(fd_, -1); }
    // errno is kept, so that a failed operation's reason survives the clean-up.
    void Reset(int fd = -1);

  private:
    int fd_ = -1;
};

}  // namespace oxel
