// SPDX-License-Identifier: Apache-2.0
//
// The system calls that the C library has no function for, and the few idioms around them that
// every operation on local files needs.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cerrno>
#include <cstdint>
#include <string>

#include "base/unique_fd.h"

namespace oxel::local {

// openat2(2) with O_CLOEXEC added to `flags`; `resolve` holds RESOLVE_* bits. -1 with errno.
int OpenAt2(int directory, const char* path, uint64_t flags, uint64_t resolve);

// How names inside a share are opened: never out of the directory, never into another mounted file
// system (EXDEV), never through a symbolic link or one of /proc's links.
extern const uint64_t kInsideShare;
// An O_PATH descriptor for `path` (one name, or several below `directory`); it gives no access to
// the contents, so that a device or FIFO is not touched. A symbolic link is opened itself.
UniqueFd OpenInside(int directory, const char* path);

// What a name leads to, as OpenInside would open it, without opening it.
struct Looked {
    struct stat st;
    // When the object was made. 0 and 0 where the file system keeps no birth times.
    int64_t birthSeconds;
    uint32_t birthNanoseconds;
    bool HasBirth() const { return birthSeconds != 0 || birthNanoseconds != 0; }
};
// kCannotTell: the kernel is too old to say where another file system begins.
enum class Look { kFound, kFailed, kCannotTell };
// `name` is one name in `directory`. kFailed with errno, as OpenInside gives it.
Look LookInside(int directory, const char* name, Looked* looked);
// The same of what is open. False with errno.
bool LookAt(int fd, Looked* looked);
// Of statx(2); both times zero where there is no birth time.
void FromStatx(const struct statx& x, Looked* looked);

// The directory that `fd` stands for, opened for reading with the thread's rights.
UniqueFd OpenDirectory(int fd);

// Whether the thread's file-system ids may use `fd` with `mode` (R_OK, W_OK, X_OK). 0, or -1.
int AccessFd(int fd, int mode);

// "/proc/self/fd/N": the way to re-open, or to change by path, what an O_PATH descriptor stands
// for.
class ProcPath {
  public:
    explicit ProcPath(int fd);
    const char* Get() const { return text_; }

  private:
    char text_[32];
};

// The path of an open descriptor as the kernel knows it now. "/" for a file that the kernel reached
// by its handle and whose place in the tree it does not know; " (deleted)" is appended to a name
// that has been removed. False with errno.
bool PathOfFd(int fd, std::string* path);

// Milliseconds of a clock that never goes back; about 4 ms coarse, costs no system call.
int64_t NowMs();

// Changes of any metadata move it: the inode's change time in nanoseconds.
inline int64_t ChangeTime(const struct stat& st) {
    return int64_t{st.st_ctim.tv_sec} * 1000000000 + st.st_ctim.tv_nsec;
}

// A duplicate whose number no select() could watch, when there may be such numbers, else any: what
// stays open as long as its share leaves the low numbers to connections. Empty with errno when
// there is none.
UniqueFd DupAside(int fd);

// Closes what is only kept open to save time, or half of it. Called when the process is out of
// descriptors. False when there was nothing.
bool MakeRoomForDescriptors();

// The descriptor that `open` returns; when the process is out of descriptors, room is made and
// `open` tried again: others may have been quicker to take what was given up. Empty with errno on
// failure.
template <typename Open>
UniqueFd OpenMakingRoom(Open open) {
    constexpr int kTriesMax = 16;
    int fd = open();
    for (int i = 0; i < kTriesMax && fd < 0 && (errno == EMFILE || errno == ENFILE); ++i) {
        const int error = errno;
        const bool gaveUp = MakeRoomForDescriptors();
        errno = error;
        if (!gaveUp) break;
        fd = open();
    }
    return UniqueFd(fd);
}

}  // namespace oxel::local
