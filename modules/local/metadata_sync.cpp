// SPDX-License-Identifier: Apache-2.0
//
// What is told as done is on the disk. There is no call that writes an object's attributes through
// the descriptors that objects are kept by (O_PATH), so each sync opens the object anew; that costs
// little beside the disk.
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
UniqueFd OpenToSync(const FileNode& node, int flags) {
    const auto open = [&] {
        return OpenMakingRoom([&] {
            return ::open(ProcPath(node.Fd()).Get(),
                          O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC | flags);
        });
    };
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
    const UniqueFd fd = OpenToSync(directory, O_DIRECTORY);
    if (!fd) return SyncAll(share);
    const int error = SyncedOrError(gDisk.load()->syncFile, fd.Get());
    return CannotSync(error) ? SyncAll(share) : Answer(error);
}

int SyncAttributes(ShareRoot& share, const FileNode& node) {
    if (node.Type() == S_IFDIR) return SyncDirectory(share, node);
    if (node.Type() != S_IFREG) return SyncAll(share);
    const UniqueFd fd = OpenToSync(node, 0);
    if (!fd) return SyncAll(share);
    if (SyncFile(node, fd.Get()) == 0) return 0;
    return CannotSync(errno) ? SyncAll(share) : -1;
}

}  // namespace oxel::local
