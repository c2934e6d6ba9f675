// SPDX-License-Identifier: Apache-2.0
//
// What is told as done is on the disk. No call writes an object's attributes through the
// descriptors that most objects are kept by (O_PATH), so a sync opens the object anew; a directory
// keeps what was opened for the next sync.
#include "modules/local/metadata_sync.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

#include "modules/local/caller_rights.h"
#include "modules/local/disk_calls.h"
#include "modules/local/object.h"
#include "modules/local/syscalls.h"
#include "modules/local/write_errors.h"

namespace oxel::local {
namespace {

int Answer(int error) {
    if (error == 0) return 0;
    errno = error;
    return -1;
}

// Whoever may change an object may not always read it.
template <typename Open>
UniqueFd OpenToSync(Open open) {
    UniqueFd fd = open();
    if (!fd && errno == EACCES) {
        BecomeOwn();
        fd = open();
    }
    return fd;
}

// For what cannot be opened or does not sync by itself: symbolic links, devices, a file that
// another process holds a lease on.
int SyncAll(ShareRoot& share) {
    return Answer(SyncedOrError(gDisk.load()->syncFileSystem, share.Fd()));
}

bool CannotSync(int error) {
    return error == EINVAL || error == EOPNOTSUPP || error == ENOSYS;
}

}  // namespace

int SyncFile(const FileNode& node, int fd) {
    return Answer(DelayedWrites::Instance().SettleForAll(
        node, [&] { return SyncedOrError(gDisk.load()->syncFile, fd); }));
}

int SyncDirectory(ShareRoot& share, const FileNode& directory) {
    int fd = directory.FileFd();
    if (fd < 0) {
        UniqueFd opened = OpenToSync([&] { return OpenDirectory(directory.Fd()); });
        if (!opened) return SyncAll(share);
        fd = directory.KeepFileFd(std::move(opened));
    }
    const int error = SyncedOrError(gDisk.load()->syncFile, fd);
    return CannotSync(error) ? SyncAll(share) : Answer(error);
}

int SyncAttributes(ShareRoot& share, const FileNode& node) {
    if (node.Type() == S_IFDIR) return SyncDirectory(share, node);
    if (node.Type() != S_IFREG) return SyncAll(share);
    UniqueFd opened;
    int fd = node.FileFd();
    if (fd < 0) {
        opened = OpenToSync([&] {
            return OpenMakingRoom([&] {
                return ::open(ProcPath(node.Fd()).Get(),
                              O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
            });
        });
        if (!opened) return SyncAll(share);
        fd = opened.Get();
    }
    if (SyncFile(node, fd) == 0) return 0;
    return CannotSync(errno) ? SyncAll(share) : -1;
}

}  // namespace oxel::local
