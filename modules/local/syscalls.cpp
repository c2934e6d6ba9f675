// SPDX-License-Identifier: Apache-2.0
//
// Raw system calls and descriptor idioms.
#include "modules/local/syscalls.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <climits>
#include <cstdio>

#include "backend/FdCache.h"
#include "modules/local/object_cache.h"

namespace oxel::local {

const uint64_t kInsideShare =
    RESOLVE_BENEATH | RESOLVE_NO_XDEV | RESOLVE_NO_MAGICLINKS | RESOLVE_NO_SYMLINKS;

int OpenAt2(int directory, const char* path, uint64_t flags, uint64_t resolve) {
    struct open_how how = {};
    how.flags = flags | O_CLOEXEC;
    how.resolve = resolve;
    return static_cast<int>(syscall(SYS_openat2, directory, path, &how, sizeof how));
}

UniqueFd OpenInside(int directory, const char* path) {
    return OpenMakingRoom(
        [&] { return OpenAt2(directory, path, O_PATH | O_NOFOLLOW, kInsideShare); });
}

int AccessFd(int fd, int mode) {
    return static_cast<int>(syscall(SYS_faccessat2, fd, "", mode, AT_EMPTY_PATH | AT_EACCESS));
}

ProcPath::ProcPath(int fd) {
    snprintf(text_, sizeof text_, "/proc/self/fd/%d", fd);
}

bool PathOfFd(int fd, std::string* path) {
    char text[PATH_MAX];
    const ssize_t length = readlink(ProcPath(fd).Get(), text, sizeof text);
    if (length < 0) return false;
    path->assign(text, static_cast<size_t>(length));
    return true;
}

int64_t NowMs() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

bool MakeRoomForDescriptors() {
    const bool any = gFdCache.Count() + ObjectCache::Instance().Count() != 0;
    gFdCache.Clear();
    ObjectCache::Instance().DropHalf();
    return any;
}

}  // namespace oxel::local
