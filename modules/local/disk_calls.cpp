// SPDX-License-Identifier: Apache-2.0
//
// The real calls.
#include "modules/local/disk_calls.h"

#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>

namespace oxel::local {
namespace {

ssize_t Write(int fd, const void* data, size_t count, off_t offset, int flags) {
    // An iovec has no const; the call only reads.
    const iovec part = {const_cast<void*>(data), count};
    return pwritev2(fd, &part, 1, offset, flags);
}

int TakeError(int fd) {
    return sync_file_range(fd, 0, 0, SYNC_FILE_RANGE_WAIT_BEFORE);
}

}  // namespace

const DiskCalls kRealDisk = {Write, fsync, fdatasync, syncfs, TakeError};
std::atomic<const DiskCalls*> gDisk{&kRealDisk};

int SyncedOrError(int (*sync)(int), int fd) {
    int result;
    do {
        result = sync(fd);
    } while (result != 0 && errno == EINTR);
    return result == 0 ? 0 : errno;
}

}  // namespace oxel::local
