// SPDX-License-Identifier: Apache-2.0
//
// Making files, directories and symbolic links. Each is made through its directory's descriptor
// with the caller's rights, so that it belongs to the caller and no other directory can be meant.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "modules/local/call_state.h"
#include "modules/local/metadata_sync.h"
#include "modules/local/names.h"
#include "modules/local/object.h"
#include "modules/local/syscalls.h"

namespace oxel::local {
namespace {

// What open(2) is given of the caller's flags; the others ask for other things than a file.
constexpr int kCallersFlags = O_ACCMODE | O_CREAT | O_EXCL | O_APPEND | O_TRUNC | O_SYNC | O_DSYNC;
constexpr int kOwnFlags = O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
// How often a name may appear and vanish again between two calls.
constexpr int kRacesMax = 8;

}  // namespace

// Whether `name` can be made in this directory; its path. `dots` is the errno for "." and "..".
bool LocalObject::MayMake(const std::string& name, int dots, std::string* path) const {
    if (node_->Type() != S_IFDIR) {
        errno = ENOTDIR;
        return false;
    }
    if (const int error = IsDots(name) ? dots : NameError(name); error != 0) {
        errno = error;
        return false;
    }
    return PathBelow(path_, name, path);
}

BkEndProcPtr LocalObject::CreateChild(OxelCtxt* ctxt, const std::string& name, int flags,
                                      mode_t mode) {
    return Guarded(BkEndProcPtr(), [&]() -> BkEndProcPtr {
        const CallerRights rights(ctxt, *this, CallerRights::Need::kModify);
        std::string path;
        if (!rights || !MayMake(name, (flags & O_EXCL) != 0 ? EEXIST : EISDIR, &path)) {
            return nullptr;
        }
        Changing();
        for (int attempt = 0; attempt < kRacesMax; ++attempt) {
            if (!rights.Become()) return nullptr;
            struct stat st;
            Ptr child = (flags & O_CREAT) != 0 ? MakeFile(name, path, flags, mode, &st) : nullptr;
            if (!child && (flags & O_CREAT) != 0 && (errno != EEXIST || (flags & O_EXCL) != 0)) {
                return nullptr;
            }
            if (child) {
                CallState::Get().Made(child, st);
                return child;
            }
            child = OpenExisting(rights, name, flags, &st);
            if (child) {
                CallState::Get().Found(child, st);
                return child;
            }
            if (errno != ENOENT || (flags & O_CREAT) == 0) return nullptr;
        }
        return nullptr;
    });
}

// Always a new file (EEXIST otherwise): what is there already might be a symbolic link, a FIFO that
// blocks, or a device that does something when it is opened.
boost::shared_ptr<LocalObject> LocalObject::MakeFile(const std::string& name,
                                                     const std::string& path, int flags,
                                                     mode_t mode, struct stat* st) {
    // For reading whatever the caller asks for: the descriptor stays with the object, which
    // outlives the call, and a program that is open for writing cannot be started. Nothing else
    // depends on the access that a new file is opened with.
    UniqueFd made = OpenMakingRoom([&] {
        return openat(node_->Fd(), name.c_str(),
                      (flags & kCallersFlags & ~O_ACCMODE) | O_RDONLY | O_EXCL | kOwnFlags,
                      mode & 07777);
    });
    if (!made) return nullptr;
    Ptr child = Adopt(std::move(made), path, name, st, FileNode::Opened::kForReading);
    if (!child || SyncFile(*child->node_, child->node_->FileFd()) != 0) return nullptr;
    return SyncDirectory(*share_, *node_) == 0 ? child : nullptr;
}

// As open(2) with O_CREAT finds a file that exists: it must be one, and the caller must have the
// access that he asks for. What cannot be opened as a file just exists.
boost::shared_ptr<LocalObject> LocalObject::OpenExisting(const CallerRights& rights,
                                                         const std::string& name, int flags,
                                                         struct stat* st) {
    const int access = flags & O_ACCMODE;
    if (access == O_ACCMODE) {
        errno = EINVAL;
        return nullptr;
    }
    Ptr child = ChildUnchecked(name, st);
    if (!child) return nullptr;
    if (child->node_->Type() != S_IFREG) {
        errno = child->node_->Type() == S_IFDIR ? EISDIR : EEXIST;
        return nullptr;
    }
    const UniqueFd fd = child->OpenRegular(rights, access | (flags & O_TRUNC));
    if (!fd) return nullptr;
    if ((flags & O_TRUNC) != 0 && SyncFile(*child->node_, fd.Get()) != 0) return nullptr;
    return child;
}

BkEndProcPtr LocalObject::CreateChildDir(OxelCtxt* ctxt, const std::string& name, mode_t mode) {
    return Guarded(BkEndProcPtr(), [&]() -> BkEndProcPtr {
        const CallerRights rights(ctxt, *this, CallerRights::Need::kModify);
        std::string path;
        if (!rights || !MayMake(name, EEXIST, &path) || !rights.Become()) return nullptr;
        Changing();
        if (mkdirat(node_->Fd(), name.c_str(), mode & 07777) != 0) return nullptr;
        struct stat st;
        Ptr child = OpenChild(std::move(path), name, &st);
        if (!child) return nullptr;
        // Somebody who may change this directory can already have put something else in its place;
        // a directory of his is as good for the caller as one that he moves there later.
        if (child->node_->Type() != S_IFDIR) {
            errno = ENOENT;
            return nullptr;
        }
        if (SyncDirectory(*share_, *child->node_) != 0 || SyncDirectory(*share_, *node_) != 0) {
            return nullptr;
        }
        CallState::Get().Made(child, st);
        return child;
    });
}

int LocalObject::CreateSymlink(OxelCtxt* ctxt, const std::string& target,
                               const std::string& linkPath) {
    return Guarded(-1, [&] {
        const CallerRights rights(ctxt, *this, CallerRights::Need::kModify);
        std::string name, path;
        if (!rights || !NameInPath(path_, linkPath, &name) || !MayMake(name, EEXIST, &path)) {
            return -1;
        }
        if (target.find('\0') != std::string::npos) {
            errno = EINVAL;  // the link would say something else
            return -1;
        }
        if (!rights.Become()) return -1;
        Changing();
        if (symlinkat(target.c_str(), node_->Fd(), name.c_str()) != 0) return -1;
        return SyncDirectory(*share_, *node_);
    });
}

int LocalObject::HardLink(OxelCtxt* ctxt, const std::string& existingPath,
                          const std::string& linkPath) {
    return Guarded(-1, [&] {
        const CallerRights rights(ctxt, *this, CallerRights::Need::kModify);
        std::string name, path;
        if (!rights || !NameInPath(path_, linkPath, &name) || !MayMake(name, EEXIST, &path)) {
            return -1;
        }
        const Ptr existing = LinkSource(ctxt, existingPath);
        if (!existing) return -1;
        if (existing->node_->Type() == S_IFDIR) {
            errno = EPERM;
            return -1;
        }
        if (!rights.Become()) return -1;
        Changing();
        // The descriptor's link leads to the very object, and no further when that is a symbolic
        // link itself.
        if (linkat(AT_FDCWD, ProcPath(existing->node_->Fd()).Get(), node_->Fd(), name.c_str(),
                   AT_SYMLINK_FOLLOW) != 0) {
            return -1;
        }
        InodePlace place;
        if (!share_->Places().Find(existing->node_->Inode(), &place)) {
            share_->Places().Put(existing->node_->Inode(), {std::string(node_->Id().Body()), name});
        }
        // The link count goes first: a name more than it says is worse than one less.
        if (SyncAttributes(*share_, *existing->node_) != 0) return -1;
        return SyncDirectory(*share_, *node_);
    });
}

// The object that is to get another name. One of another share lies on another device as far as
// clients can know, whether or not this share could reach it as well.
boost::shared_ptr<LocalObject> LocalObject::LinkSource(OxelCtxt* ctxt, const std::string& path) {
    if (path == path_) return shared_from_this();
    if (Ptr known = CallState::Get().ByPath(*share_, path)) return known;
    std::string relative;
    if (CallState::Get().ByPath(path) || !share_->RelativeToPrefix(path, &relative)) {
        errno = EXDEV;
        return nullptr;
    }
    return ObjectAt(ctxt, path);
}

}  // namespace oxel::local
