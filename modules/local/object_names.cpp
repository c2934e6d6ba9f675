// SPDX-License-Identifier: Apache-2.0
//
// Finding objects by name: children, parents, and what symbolic links say.
#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include "modules/local/call_state.h"
#include "modules/local/local_export.h"
#include "modules/local/locate.h"
#include "modules/local/names.h"
#include "modules/local/object.h"
#include "modules/local/object_cache.h"
#include "modules/local/syscalls.h"

namespace oxel::local {

std::atomic<int64_t> gBirthSettledSeconds{4};

BkEndProcPtr LocalObject::FindChild(OxelCtxt* ctxt, const std::string& name) {
    return Guarded(BkEndProcPtr(), [&]() -> BkEndProcPtr {
        Ptr child = Child(ctxt, name);
        // SYMLINK answers with this when the name exists.
        if (child) errno = EEXIST;
        return child;
    });
}

boost::shared_ptr<LocalObject> LocalObject::Child(OxelCtxt* ctxt, const std::string& name) {
    const CallerRights rights(ctxt, *this, CallerRights::Need::kRead);
    if (!rights) return nullptr;
    if (node_->Type() != S_IFDIR) {
        errno = ENOTDIR;
        return nullptr;
    }
    if ((errno = NameError(name)) != 0) return nullptr;
    if (!rights.Become()) return nullptr;
    if (name == "." || name == "..") {
        if (AccessFd(node_->Fd(), X_OK) != 0) return nullptr;
        if (name == "." || IsShareRoot()) return shared_from_this();
        return Parent(ctxt, rights);
    }
    struct stat st;
    Ptr child = ctxt->flag && share_->Kind() == HandleKind::kKernel ? ListedChild(name, &st)
                                                                    : ChildUnchecked(name, &st);
    if (child) CallState::Get().Found(child, st);
    return child;
}

// `name` can be the name of an entry, and the thread has the rights of the caller.
boost::shared_ptr<LocalObject> LocalObject::ChildUnchecked(const std::string& name,
                                                           struct stat* st) {
    std::string path;
    if (!PathBelow(path_, name, &path)) return nullptr;
    // One look at the name tells whether it leads to an object that is open already.
    if (share_->Kind() == HandleKind::kKernel) {
        Looked looked;
        const Look look = LookInside(node_->Fd(), name.c_str(), &looked);
        if (look == Look::kFailed) return nullptr;
        *st = looked.st;
        if (look == Look::kFound) {
            if (Ptr child = KnownChild(path, name, looked)) return child;
        }
    }
    return OpenChild(std::move(path), name, st);
}

boost::shared_ptr<LocalObject> LocalObject::OpenChild(std::string path, const std::string& name,
                                                      struct stat* st) {
    UniqueFd fd = OpenInside(node_->Fd(), name.c_str());
    return fd ? Adopt(std::move(fd), std::move(path), name, st) : nullptr;
}

// The cached object that this directory's entry `name` leads to, under the entry's path. Null when
// it is not cached.
boost::shared_ptr<LocalObject> LocalObject::KnownChild(const std::string& path,
                                                       const std::string& name,
                                                       const Looked& looked) {
    if (looked.st.st_dev != share_->Device()) return nullptr;
    ObjectCache& cache = ObjectCache::Instance();
    Ptr known = cache.FindInode(share_->Serial(), looked.st.st_ino);
    if (!known) return nullptr;
    const int64_t now = NowMs();
    FileNode& node = *known->node_;
    node.Saw(looked.st);
    node.Used(now);
    node.PathVerified(ChangeTime(looked.st), now);
    if (known->path_ != path) {
        known = boost::make_shared<LocalObject>(share_, known->node_, path);
        cache.Put(known);
    }
    known->RememberPlace(*this, name);
    return known;
}

// The same for an entry of a listing, of which the caller wants attributes and handle: it is not
// opened when its handle is known, and not cached, because a listing of a large directory would
// push out what clients work with.
boost::shared_ptr<LocalObject> LocalObject::ListedChild(const std::string& name, struct stat* st) {
    std::string path;
    if (!PathBelow(path_, name, &path)) return nullptr;
    InodeMap& places = share_->Places();
    const std::string_view parent = node_->Id().Body();
    const uint64_t inode = CallState::Get().LastListed();
    const auto identified = [&](const Looked& looked) {
        return looked.HasBirth() && looked.st.st_dev == share_->Device();
    };
    InodeId known;
    bool placed;
    if (places.FindId(inode, parent, name, &known, &placed)) {
        Looked looked;
        const Look look = LookInside(node_->Fd(), name.c_str(), &looked);
        if (look == Look::kFailed) return nullptr;
        if (look == Look::kFound && identified(looked) && looked.st.st_ino == inode &&
            looked.birthSeconds == known.birthSeconds &&
            looked.birthNanoseconds == known.birthNanoseconds) {
            if (!placed) places.Put(inode, {std::string(parent), name});
            *st = looked.st;
            auto node = std::make_shared<FileNode>(share_, known.id, looked.st);
            return boost::make_shared<LocalObject>(share_, std::move(node), std::move(path));
        }
    }
    const int64_t now = time(nullptr);
    UniqueFd fd = OpenInside(node_->Fd(), name.c_str());
    Looked looked;
    ObjectId id;
    if (!fd || !LookAt(fd.Get(), &looked) || !KernelIdOf(*share_, fd.Get(), &id)) return nullptr;
    *st = looked.st;
    if (looked.st.st_dev == share_->Device() || !S_ISDIR(st->st_mode)) {
        places.Put(st->st_ino, {std::string(parent), name});
    }
    if (identified(looked) &&
        looked.birthSeconds + gBirthSettledSeconds.load(std::memory_order_relaxed) < now)
        places.PutId(st->st_ino, {looked.birthSeconds, looked.birthNanoseconds, id});
    auto node = std::make_shared<FileNode>(std::move(fd), id, *st);
    return boost::make_shared<LocalObject>(share_, std::move(node), std::move(path));
}

// Takes the descriptor of this directory's entry `name`.
boost::shared_ptr<LocalObject> LocalObject::Adopt(UniqueFd fd, std::string path,
                                                  const std::string& name, struct stat* st,
                                                  FileNode::Opened opened) {
    Ptr child = FromFd(share_, std::move(fd), std::move(path), st, opened);
    if (!child) return nullptr;
    child->RememberPlace(*this, name);
    ObjectCache::Instance().Put(child);
    return child;
}

// The kernel can always tell the path of a directory that it has a handle of.
void LocalObject::RememberPlace(const LocalObject& directory, const std::string& name) {
    if (share_->Kind() != HandleKind::kInode && node_->Type() == S_IFDIR) return;
    const std::string_view parent = directory.node_->Id().Body();
    if (share_->Places().IsPut(node_->Inode(), parent, name)) return;
    share_->Places().Put(node_->Inode(), {std::string(parent), name});
}

BkEndProcPtr LocalObject::GetParent(OxelCtxt* ctxt) {
    return Guarded(BkEndProcPtr(), [&]() -> BkEndProcPtr {
        errno = 0;
        if (IsShareRoot()) return nullptr;
        const CallerRights rights(ctxt, *this, CallerRights::Need::kRead);
        if (!rights || !rights.Become()) return nullptr;
        if (node_->Type() == S_IFDIR) return Parent(ctxt, rights);
        const size_t slash = path_.find_last_of('/');
        return ObjectAt(ctxt, slash == 0 ? "/" : path_.substr(0, slash));
    });
}

// This object is a directory and not the share's root.
boost::shared_ptr<LocalObject> LocalObject::Parent(OxelCtxt*, const CallerRights& rights) {
    UniqueFd fd = OpenMakingRoom(
        [&] { return openat(node_->Fd(), "..", O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC); });
    struct stat st;
    std::string path, relative;
    if (!fd || fstat(fd.Get(), &st) != 0) return nullptr;
    if (share_->IsRoot(st)) return rights.Share().RootObject();
    // The directory may just have been moved out of the share.
    if (!PathOfFd(fd.Get(), &path)) return nullptr;
    if (!share_->RelativePath(path, &relative) || relative.empty()) {
        errno = ESTALE;
        return nullptr;
    }
    Ptr parent = FromFd(share_, std::move(fd), share_->FullPath(relative), &st);
    if (!parent) return nullptr;
    InodePlace place;
    if (!share_->Places().Find(parent->node_->Inode(), &place)) {
        RememberPath(*share_, parent->path_);
    }
    ObjectCache::Instance().Put(parent);
    CallState::Get().Found(parent, st);
    return parent;
}

ssize_t LocalObject::ReadLink(OxelCtxt* ctxt, const std::string& path, char* buffer,
                              size_t capacity) {
    return On<ssize_t>(ctxt, path, -1, [&](LocalObject& object) -> ssize_t {
        const CallerRights rights(ctxt, object, CallerRights::Need::kRead);
        if (!rights) return -1;
        if (object.node_->Type() != S_IFLNK) {
            errno = EINVAL;
            return -1;
        }
        return readlinkat(object.node_->Fd(), "", buffer, capacity);
    });
}

}  // namespace oxel::local
