// SPDX-License-Identifier: Apache-2.0
//
// Ownership of descriptors.
#include "base/unique_fd.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <cerrno>

namespace oxel {

static bool IsOpen(int fd) {
    return fcntl(fd, F_GETFD) >= 0;
}

static int OpenSomething() {
    return open("/dev/null", O_RDONLY | O_CLOEXEC);
}

TEST(UniqueFd, ClosesAtTheEndOfItsScope) {
    const int number = OpenSomething();
    { const UniqueFd fd(number); }
    EXPECT_FALSE(IsOpen(number));
}

TEST(UniqueFd, MovingLeavesOneOwner) {
    UniqueFd first(OpenSomething());
    const int number = first.Get();
    UniqueFd second(std::move(first));
    EXPECT_FALSE(first);  // NOLINT(bugprone-use-after-move): what is left is the question
    EXPECT_EQ(second.Get(), number);
    first = std::move(second);
    EXPECT_FALSE(second);  // NOLINT(bugprone-use-after-move)
    EXPECT_TRUE(IsOpen(number));
}

TEST(UniqueFd, MovingOntoItselfKeepsTheDescriptor) {
    UniqueFd fd(OpenSomething());
    UniqueFd& same = fd;
    fd = std::move(same);
    EXPECT_TRUE(fd);
    EXPECT_TRUE(IsOpen(fd.Get()));
}

TEST(UniqueFd, ReleaseGivesTheDescriptorAway) {
    UniqueFd fd(OpenSomething());
    const int number = fd.Release();
    EXPECT_FALSE(fd);
    EXPECT_TRUE(IsOpen(number));
    close(number);
}

TEST(UniqueFd, ResetClosesTheOldDescriptorAndKeepsErrno) {
    UniqueFd fd(OpenSomething());
    const int number = fd.Get();
    errno = EXDEV;
    fd.Reset();
    EXPECT_EQ(errno, EXDEV);
    EXPECT_FALSE(IsOpen(number));
    fd.Reset();  // nothing to close
    EXPECT_EQ(fd.Get(), -1);
}

}  // namespace oxel
