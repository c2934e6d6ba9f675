// SPDX-License-Identifier: Apache-2.0
//
// Resolving handles: through the cache with one system call, or through the kernel.
#include "modules/local/resolver.h"

#include <cerrno>

#include "backend/FdCache.h"
#include "modules/local/kernel_handle.h"
#include "modules/local/local_export.h"
#include "modules/local/locate.h"
#include "modules/local/names.h"
#include "modules/local/object_cache.h"
#include "modules/local/syscalls.h"

namespace oxel::local {
namespace {

using ObjectPtr = boost::shared_ptr<LocalObject>;

// The object under the path where it was found; the descriptor of before, or a better one.
ObjectPtr At(const std::shared_ptr<ShareRoot>& share, const std::shared_ptr<FileNode>& node,
             Location location, const struct stat& st) {
    std::shared_ptr<FileNode> use = node;
    if (location.fd) use = std::make_shared<FileNode>(std::move(location.fd), node->Id(), st);
    use->Saw(st);
    use->PathVerified(ChangeTime(st), location.verifiedMs >= 0 ? location.verifiedMs : NowMs());
    auto object = boost::make_shared<LocalObject>(share, std::move(use), std::move(location.path));
    ObjectCache::Instance().Put(object);
    return object;
}

// A cached object as it is now: the same one, one with a new path, or null when it is gone.
ObjectPtr Verify(const ObjectPtr& object, struct stat* st) {
    FileNode& node = object->Node();
    if (fstat(node.Fd(), st) != 0) return nullptr;
    if (st->st_nlink == 0) {
        gFdCache.Forget(node.Device(), node.Inode());
        object->Share().Places().Remove(node.Inode());
        return nullptr;
    }
    const int64_t now = NowMs();
    node.Saw(*st);
    node.Used(now);
    if (object->IsShareRoot() || !node.PathMayHaveChanged(ChangeTime(*st), now)) return object;
    std::string path;
    if (PathOfFd(node.Fd(), &path) && path == object->GetPath()) {
        node.PathVerified(ChangeTime(*st), now);
        return object;
    }
    Location location;
    if (!Locate(object->Share(), node.Fd(), *st, node.Id().Body(), &location)) return nullptr;
    if (location.path == object->GetPath() && !location.fd) {
        node.PathVerified(ChangeTime(*st), now);
        return object;
    }
    // Somebody has renamed it behind this process's back.
    RememberPath(object->Share(), location.path);
    return At(object->SharePtr(), object->NodePtr(), std::move(location), *st);
}

// Whether the object lies where it was last seen, which a look at that one name tells; the kernel's
// own answer, and proof of it, cost far more. Its directory must be one that is cached.
bool WhereLastSeen(LocalExport& share, const struct stat& st, Location* location) {
    ShareRoot& root = share.Root();
    InodePlace place;
    if (st.st_dev != root.Device() || !root.Places().Find(st.st_ino, &place)) return false;
    ObjectPtr directory = share.RootObject();
    if (place.parent != root.Body()) {
        const ObjectId id =
            SignObjectId(root.Type(), root.ShareId(), HandleKind::kKernel, place.parent);
        directory = ObjectCache::Instance().Find({root.Serial(), id});
    }
    struct stat above;
    if (!directory || !(directory = Verify(directory, &above)) || !S_ISDIR(above.st_mode))
        return false;
    BecomeOwn();
    Looked looked;
    // While the object is open, another object cannot have its inode number.
    if (LookInside(directory->Node().Fd(), place.name.c_str(), &looked) != Look::kFound ||
        looked.st.st_ino != st.st_ino || looked.st.st_dev != st.st_dev ||
        !PathBelow(directory->GetPath(), place.name, &location->path)) {
        return false;
    }
    // The path is as good as the directory's and no better.
    if (!directory->IsShareRoot()) location->verifiedMs = directory->Node().VerifiedMs();
    return true;
}

ObjectPtr FromKernelHandle(LocalExport& share, const ObjectId& id, struct stat* st) {
    const std::shared_ptr<ShareRoot>& root = share.RootObject()->SharePtr();
    BecomeOwn();
    UniqueFd fd = OpenKernelHandle(root->Fd(), id.Body());
    if (!fd || fstat(fd.Get(), st) != 0 || st->st_nlink == 0) return nullptr;
    Location location;
    if (!WhereLastSeen(share, *st, &location) &&
        !Locate(*root, fd.Get(), *st, id.Body(), &location)) {
        return nullptr;
    }
    if (!location.fd) location.fd = std::move(fd);
    auto node = std::make_shared<FileNode>(std::move(location.fd), id, *st);
    return At(root, node, std::move(location), *st);
}

ObjectPtr FromInode(LocalExport& share, const ObjectId& id, struct stat* st) {
    const std::shared_ptr<ShareRoot>& root = share.RootObject()->SharePtr();
    Location location;
    if (!LocateInode(*root, id.Body(), &location)) return nullptr;
    if (fstat(location.fd.Get(), st) != 0 || st->st_nlink == 0) return nullptr;
    auto node = std::make_shared<FileNode>(std::move(location.fd), id, *st);
    return At(root, node, std::move(location), *st);
}

}  // namespace

ObjectPtr Resolve(LocalExport& share, const ObjectId& id, struct stat* st) {
    if (id == share.RootObject()->Node().Id()) return Verify(share.RootObject(), st);
    if (id.Kind() != share.Root().Kind()) return nullptr;
    ObjectCache& cache = ObjectCache::Instance();
    if (const ObjectPtr cached = cache.Find({share.Root().Serial(), id})) {
        ObjectPtr now = Verify(cached, st);
        if (!now) cache.Drop(*cached);
        return now;
    }
    if (share.Root().IsRootBody(id.Body())) return Verify(share.RootObject(), st);
    return id.Kind() == HandleKind::kKernel ? FromKernelHandle(share, id, st)
                                            : FromInode(share, id, st);
}

}  // namespace oxel::local
