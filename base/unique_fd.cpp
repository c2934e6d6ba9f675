// SPDX-License-Identifier: Apache-2.0
//
// Closing of owned descriptors.
#include "base/unique_fd.h"

#include <cerrno>

namespace oxel {

void UniqueFd::Reset(int fd) {
    const int old = std::exchange(fd_, fd);
    if (old < 0) return;
    const int savedErrno = errno;
    // Linux frees the number even when close() is interrupted: never a second try.
    (void)close(old);
    errno = savedErrno;
}

}  // namespace oxel
