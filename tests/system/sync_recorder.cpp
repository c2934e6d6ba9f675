// SPDX-License-Identifier: Apache-2.0
//
// Loaded into the daemon by LD_PRELOAD: appends a line "CALL INODE" to $OXEL_SYNC_RECORD after
// every successful call that has brought something to the disk.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace {

template <typename Function>
Function* Next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

void Note(const char* call, int fd) {
    const int before = errno;
    static const int record = [] {
        const char* path = getenv("OXEL_SYNC_RECORD");
        return path == nullptr ? -1 : open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    }();
    struct stat st;
    if (record >= 0 && fstat(fd, &st) == 0) {
        dprintf(record, "%s %llu\n", call, static_cast<unsigned long long>(st.st_ino));
    }
    errno = before;
}

int Sync(const char* call, int fd) {
    const int result = Next<int(int)>(call)(fd);
    if (result == 0) Note(call, fd);
    return result;
}

ssize_t Write(const char* call, int fd, const iovec* parts, int count, off_t offset, int flags) {
    const ssize_t bytes =
        Next<ssize_t(int, const iovec*, int, off_t, int)>(call)(fd, parts, count, offset, flags);
    if (bytes > 0 && (flags & RWF_SYNC) != 0) Note("sync-write", fd);
    if (bytes > 0 && (flags & RWF_DSYNC) != 0) Note("dsync-write", fd);
    return bytes;
}

}  // namespace

extern "C" {

int fsync(int fd) {
    return Sync("fsync", fd);
}
int fdatasync(int fd) {
    return Sync("fdatasync", fd);
}
int syncfs(int fd) noexcept {
    return Sync("syncfs", fd);
}
ssize_t pwritev2(int fd, const iovec* parts, int count, off_t offset, int flags) {
    return Write("pwritev2", fd, parts, count, offset, flags);
}
ssize_t pwritev64v2(int fd, const iovec* parts, int count, off64_t offset, int flags) {
    return Write("pwritev64v2", fd, parts, count, offset, flags);
}
}
