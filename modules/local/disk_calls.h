// SPDX-License-Identifier: Apache-2.0
//
// The system calls that bring data to the disk and from it. They stand behind one pointer so that a
// disk that fails, and data that was told to be stable but is not, can be tried out.
#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>

namespace oxel::local {

struct DiskCalls {
    // pwritev2(2) of one buffer; `flags` holds RWF_* bits.
    ssize_t (*write)(int fd, const void* data, size_t count, off_t offset, int flags);
    int (*syncFile)(int fd);        // fsync(2)
    int (*syncData)(int fd);        // fdatasync(2)
    int (*syncFileSystem)(int fd);  // syncfs(2)
    // -1 with errno when writing the file's data back has failed since this was last asked through
    // this open file; waits for writes that are under way, starts none.
    int (*takeError)(int fd);
    ssize_t (*read)(int fd, void* buffer, size_t count, off_t offset) = ::pread;
};

extern const DiskCalls kRealDisk;
// Tests put faults here; they outlive every call. Any thread.
extern std::atomic<const DiskCalls*> gDisk;

// One of the syncs above, begun again after a signal. 0 or an error number.
int SyncedOrError(int (*sync)(int), int fd);

}  // namespace oxel::local
