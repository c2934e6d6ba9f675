// SPDX-License-Identifier: Apache-2.0
//
// Writing contents, and bringing them to the disk. A reply promises what the stability of the write
// says, so nothing here answers before the disk has.
#include <sys/uio.h>

#include <cerrno>
#include <climits>
#include <cstring>

#include "base/log.h"
#include "modules/local/disk_calls.h"
#include "modules/local/object.h"
#include "modules/local/write_errors.h"

namespace oxel::local {
namespace {

// pwritev2 with its flags; at least one byte, or -1.
ssize_t WriteSome(int fd, const void* data, size_t count, off_t offset, int flags) {
    ssize_t bytes;
    do {
        bytes = gDisk.load()->write(fd, data, count, offset, flags);
    } while (bytes < 0 && errno == EINTR);
    if (bytes != 0) return bytes;
    errno = EIO;  // nothing taken and no reason given: asking again could go on for ever
    return -1;
}

}  // namespace

ssize_t LocalObject::Write(OxelCtxt* ctxt, int fd, const void* data, uint64_t offset,
                           uint32_t count, stable_how stable) {
    return Guarded<ssize_t>(-1, [&]() -> ssize_t {
        // The kernel clears set-id bits and counts quotas by the rights of the thread that writes,
        // not by those that the file was opened with.
        const CallerRights rights(ctxt, *this, CallerRights::Need::kModify);
        if (!rights || !rights.Become()) return -1;
        if (count == 0) return 0;
        // No file reaches there; the system call would refuse the number.
        if (offset > static_cast<uint64_t>(LLONG_MAX) - count) {
            errno = EFBIG;
            return -1;
        }
        Changing();
        const auto at = static_cast<off_t>(offset);
        if (stable == UNSTABLE) {
            const DelayedWrites::Writing writing(*node_, ctxt->id.clientAddress, fd);
            if (writing) return WriteSome(fd, data, count, at, 0);
        }
        return WriteStable(ctxt, fd, data, at, count, stable);
    });
}

// RFC 1813 section 3.3.7: DATA_SYNC brings the data to the disk and what is needed to read it
// again, FILE_SYNC all attributes too.
ssize_t LocalObject::WriteStable(OxelCtxt* ctxt, int fd, const void* data, off_t offset,
                                 uint32_t count, stable_how stable) {
    DelayedWrites& delayed = DelayedWrites::Instance();
    const bool dataOnly = stable == UNSTABLE || stable == DATA_SYNC;
    if (!delayed.Knows(*node_)) {
        const ssize_t bytes = WriteSome(fd, data, count, offset, dataOnly ? RWF_DSYNC : RWF_SYNC);
        if (bytes > 0 || errno != EOPNOTSUPP) return bytes;
    }
    // In two steps, so that an error of earlier delayed writes is told from one of this write.
    const ssize_t bytes = WriteSome(fd, data, count, offset, 0);
    if (bytes < 0) return bytes;
    const DiskCalls& disk = *gDisk.load();
    const int error = delayed.Settle(*node_, ctxt->id.clientAddress, [&] {
        return SyncedOrError(dataOnly ? disk.syncData : disk.syncFile, fd);
    });
    if (error == 0) return bytes;
    errno = error;
    return -1;
}

int LocalObject::SyncFs(OxelCtxt* ctxt, int fd) {
    return Guarded(-1, [&] {
        // No rights are needed beyond those that the file was opened with.
        const DiskCalls& disk = *gDisk.load();
        int whole = 0;
        int error = DelayedWrites::Instance().Settle(*node_, ctxt->id.clientAddress, [&] {
            // The file by itself too: only this tells of its own errors, and is passed on by file
            // systems that live in another process or on another machine.
            const int own = SyncedOrError(disk.syncFile, fd);
            whole = SyncedOrError(disk.syncFileSystem, fd);
            return own;
        });
        // An error somewhere on the file system is nothing that this file's other writers need to
        // be told.
        if (error == 0) error = whole;
        if (error == 0) return 0;
        errno = error;
        return -1;
    });
}

}  // namespace oxel::local
