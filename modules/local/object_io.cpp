// SPDX-License-Identifier: Apache-2.0
//
// Contents of files: opening, reading, resizing. Descriptors live on in the descriptor cache, so
// that a READ of a hot file costs one pread.
#include <fcntl.h>
#include <unistd.h>

#include <climits>

#include "backend/FdCache.h"
#include "modules/local/call_state.h"
#include "modules/local/disk_calls.h"
#include "modules/local/metadata_sync.h"
#include "modules/local/object.h"
#include "modules/local/syscalls.h"

namespace oxel::local {
namespace {

// RFC 1813 section 2.6: the client is to try again later (NFS3ERR_JUKEBOX). Error numbers without
// an NFS name of their own reach the client as they are.
constexpr int kTryLater = 10008;

}  // namespace

int LocalObject::Open(OxelCtxt* ctxt, const std::string& path, int flags, int) {
    return On(ctxt, path, -1, [&](LocalObject& object) { return object.OpenSelf(ctxt, flags); });
}

int LocalObject::OpenSelf(OxelCtxt* ctxt, int flags) {
    const int access = flags & O_ACCMODE;
    const auto need = access == O_RDONLY ? CallerRights::Need::kRead : CallerRights::Need::kModify;
    const CallerRights rights(ctxt, *this, need);
    if (!rights) return -1;
    // Opening anything else could start a device, or wait for the other end of a FIFO.
    if (node_->Type() != S_IFREG || access == O_ACCMODE) {
        errno = node_->Type() == S_IFDIR ? EISDIR : EINVAL;
        return -1;
    }
    const CacheKey key{node_->Device(),  node_->Inode(),   node_->AccessGeneration(), access,
                       rights.Who().uid, rights.Who().gid, rights.Who().groups};
    const int kept = gFdCache.Acquire(key);
    if (kept >= 0) return kept;
    UniqueFd fd = OpenRegular(rights, access);
    return fd ? gFdCache.Add(key, std::move(fd)) : -1;
}

UniqueFd LocalObject::OpenRegular(const CallerRights& rights, int access) {
    if (!rights.Become()) return UniqueFd();
    const auto open = [&] {
        // Never to wait: a lease that another process holds on the file is broken, but not sat out.
        return OpenMakingRoom([&] {
            return ::open(ProcPath(node_->Fd()).Get(), access | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
        });
    };
    UniqueFd fd = open();
    if (!fd && errno == EACCES) {
        if (MayOverride(rights, access)) {
            BecomeOwn();
            fd = open();
        } else {
            errno = EACCES;
        }
    }
    if (!fd && errno == EWOULDBLOCK) errno = kTryLater;
    return fd;
}

// RFC 1813 section 4.4: a client that has a file open goes on using it after its mode forbids that,
// and reads the programs that it may execute; both arrive here as an ordinary READ or WRITE.
bool LocalObject::MayOverride(const CallerRights& rights, int access) {
    struct stat st;
    if (fstat(node_->Fd(), &st) != 0) return false;
    if (st.st_uid == rights.Who().uid) return true;
    return access == O_RDONLY && AccessFd(node_->Fd(), X_OK) == 0;
}

ssize_t LocalObject::Read(OxelCtxt*, int fd, void* buffer, uint64_t offset, uint32_t count) {
    // No file reaches there; the system call would refuse the number.
    if (offset > static_cast<uint64_t>(LLONG_MAX) - count) return 0;
    // Until the file ends: the system call also comes short before a block that cannot be read, and
    // whoever is told of fewer bytes than asked for takes them for the last ones. So what was read
    // before an error is not told.
    size_t got = 0;
    while (got < count) {
        const ssize_t bytes = gDisk.load()->read(fd, static_cast<char*>(buffer) + got, count - got,
                                                 static_cast<off_t>(offset + got));
        if (bytes == 0) break;
        if (bytes > 0)
            got += static_cast<size_t>(bytes);
        else if (errno != EINTR)
            return -1;
    }
    return static_cast<ssize_t>(got);
}

int LocalObject::Close(OxelCtxt*, int fd) {
    return Guarded(-1, [&] {
        if (gFdCache.Release(fd)) return 0;
        errno = EBADF;
        return -1;
    });
}

int LocalObject::Truncate(OxelCtxt* ctxt, const std::string& path, uint64_t size) {
    return On(ctxt, path, -1, [&](LocalObject& object) { return object.TruncateSelf(ctxt, size); });
}

int LocalObject::TruncateSelf(OxelCtxt* ctxt, uint64_t size) {
    const CallerRights rights(ctxt, *this, CallerRights::Need::kModify);
    if (!rights) return -1;
    if (node_->Type() != S_IFREG) {
        errno = node_->Type() == S_IFDIR ? EISDIR : EINVAL;
        return -1;
    }
    if (size > static_cast<uint64_t>(LLONG_MAX)) {
        errno = EFBIG;
        return -1;
    }
    UniqueFd fd = OpenRegular(rights, O_WRONLY);
    // With the caller's rights again, so that set-id bits are cleared as for any writer.
    if (!fd || !rights.Become()) return -1;
    Changing();
    int result;
    do {
        result = ftruncate(fd.Get(), static_cast<off_t>(size));
    } while (result != 0 && errno == EINTR);
    if (result != 0) return -1;
    struct stat now;
    (void)AccessChanged(&now);
    return SyncFile(*node_, fd.Get());
}

}  // namespace oxel::local
