// SPDX-License-Identifier: Apache-2.0
//
// A clock for the receive loop that a test moves on, and an epoll_wait() that no time ends: what
// the loop does, it does because it was woken. Both take the place of the C library's functions in
// the program that includes this; in one source file of it.
#pragma once

#include <sys/epoll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <ctime>

namespace oxel::test {

inline std::atomic<time_t> gCoarseSeconds{1000000};

// The coarse clock stands still but for this.
inline void Pass(time_t seconds) {
    gCoarseSeconds += seconds;
}

}  // namespace oxel::test

extern "C" int clock_gettime(clockid_t clock, timespec* now) noexcept {
    if (clock != CLOCK_MONOTONIC_COARSE)
        return static_cast<int>(syscall(SYS_clock_gettime, clock, now));
    now->tv_sec = oxel::test::gCoarseSeconds;
    now->tv_nsec = 0;
    return 0;
}

extern "C" int epoll_wait(int epoll, epoll_event* events, int most, int milliseconds) {
    return static_cast<int>(syscall(SYS_epoll_pwait, epoll, events, most,
                                    milliseconds > 0 ? -1 : milliseconds, nullptr, 0));
}
