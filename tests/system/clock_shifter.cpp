// SPDX-License-Identifier: Apache-2.0
//
// Loaded into the daemon by LD_PRELOAD: the wall clock is off by as many seconds as the 64-bit
// number in the file $OXEL_CLOCK says, at any moment. The other clocks are as they are.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>

namespace {

int64_t Offset() {
    static const volatile int64_t* const offset = []() -> const volatile int64_t* {
        const char* path = getenv("OXEL_CLOCK");
        const int fd = path == nullptr ? -1 : open(path, O_RDONLY | O_CLOEXEC);
        void* mapped =
            fd < 0 ? MAP_FAILED : mmap(nullptr, sizeof(int64_t), PROT_READ, MAP_SHARED, fd, 0);
        if (fd >= 0) close(fd);
        return mapped == MAP_FAILED ? nullptr : static_cast<const volatile int64_t*>(mapped);
    }
    ();
    return offset == nullptr ? 0 : *offset;
}

using GetTime = int(clockid_t, timespec*);
GetTime* Real() {
    static auto* const real = reinterpret_cast<GetTime*>(dlsym(RTLD_NEXT, "clock_gettime"));
    return real;
}

}  // namespace

extern "C" {

int clock_gettime(clockid_t clock, timespec* now) noexcept {
    const int result = Real()(clock, now);
    if (result == 0 && (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE))
        now->tv_sec += Offset();
    return result;
}

time_t time(time_t* out) noexcept {
    timespec now{};
    (void)clock_gettime(CLOCK_REALTIME, &now);
    if (out != nullptr) *out = now.tv_sec;
    return now.tv_sec;
}

int gettimeofday(timeval* out, void*) noexcept {
    timespec now{};
    const int result = clock_gettime(CLOCK_REALTIME, &now);
    out->tv_sec = now.tv_sec;
    out->tv_usec = now.tv_nsec / 1000;
    return result;
}
}
