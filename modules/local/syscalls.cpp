// SPDX-License-Identifier: Apache-2.0
//
// Raw system calls and descriptor idioms.
#include "modules/local/syscalls.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/select.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
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

void FromStatx(const struct statx& x, Looked* looked) {
    struct stat& st = looked->st;
    st = {};
    st.st_dev = makedev(x.stx_dev_major, x.stx_dev_minor);
    st.st_ino = x.stx_ino;
    st.st_mode = x.stx_mode;
    st.st_nlink = x.stx_nlink;
    st.st_uid = x.stx_uid;
    st.st_gid = x.stx_gid;
    st.st_rdev = makedev(x.stx_rdev_major, x.stx_rdev_minor);
    st.st_size = static_cast<off_t>(x.stx_size);
    st.st_blksize = x.stx_blksize;
    st.st_blocks = static_cast<blkcnt_t>(x.stx_blocks);
    st.st_atim = {x.stx_atime.tv_sec, x.stx_atime.tv_nsec};
    st.st_mtim = {x.stx_mtime.tv_sec, x.stx_mtime.tv_nsec};
    st.st_ctim = {x.stx_ctime.tv_sec, x.stx_ctime.tv_nsec};
    const bool birth = (x.stx_mask & STATX_BTIME) != 0;
    looked->birthSeconds = birth ? x.stx_btime.tv_sec : 0;
    looked->birthNanoseconds = birth ? x.stx_btime.tv_nsec : 0;
}

bool LookAt(int fd, Looked* looked) {
    struct statx x;
    if (statx(fd, "", AT_EMPTY_PATH, STATX_BASIC_STATS | STATX_BTIME, &x) != 0) return false;
    FromStatx(x, looked);
    return true;
}

UniqueFd DupAside(int fd) {
    UniqueFd aside(fcntl(fd, F_DUPFD_CLOEXEC, FD_SETSIZE));
    if (aside) return aside;
    return OpenMakingRoom([&] { return fcntl(fd, F_DUPFD_CLOEXEC, 0); });
}

Look LookInside(int directory, const char* name, Looked* looked) {
    struct statx x;
    if (statx(directory, name, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT,
              STATX_BASIC_STATS | STATX_BTIME, &x) != 0) {
        return Look::kFailed;
    }
    if ((x.stx_attributes_mask & STATX_ATTR_MOUNT_ROOT) == 0) return Look::kCannotTell;
    if ((x.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0) {
        errno = EXDEV;
        return Look::kFailed;
    }
    FromStatx(x, looked);
    return Look::kFound;
}

UniqueFd OpenDirectory(int fd) {
    constexpr int kFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
    // Half the price of the way through /proc, but whoever may read a directory may not always
    // search it.
    UniqueFd directory = OpenMakingRoom([&] { return openat(fd, ".", kFlags); });
    if (directory || errno != EACCES) return directory;
    return OpenMakingRoom([&] { return open(ProcPath(fd).Get(), kFlags); });
}

int AccessFd(int fd, int mode) {
    return static_cast<int>(syscall(SYS_faccessat2, fd, "", mode, AT_EMPTY_PATH | AT_EACCESS));
}

ProcPath::ProcPath(int fd) {
    (void)snprintf(text_, sizeof text_, "/proc/self/fd/%d", fd);
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
