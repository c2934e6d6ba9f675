// SPDX-License-Identifier: Apache-2.0
//
// The contract's operations on one object: each finds out who calls, has the tree do the work, and
// leaves the reason of a failure in errno.
#include "modules/memory/memory_object.h"

#include <unistd.h>

#include <algorithm>
#include <boost/make_shared.hpp>
#include <cerrno>
#include <cstring>
#include <new>

namespace oxel::memory {
namespace {

constexpr int kDescriptor = 1;  // there is nothing to open: an object is held by its pointer

struct Stream : DirStream {
    uint64_t position = 0;
    struct dirent entry {};
};

// Runs what may be out of memory: no exception may leave a module.
template <typename Result, typename Work>
Result Guarded(Result onFailure, Work work) {
    try {
        return work();
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return onFailure;
    }
}

int Fail(int error) {
    errno = error;
    return -1;
}

MemoryObject* AsMemory(const BkEndProcPtr& object) {
    return dynamic_cast<MemoryObject*>(object.get());
}

// What stands behind the directory's path and a slash.
bool NameBelow(const BkEndProc& directory, const std::string& path, std::string* name) {
    const std::string& above = directory.GetPath();
    if (path.size() <= above.size() || path.compare(0, above.size(), above) != 0 ||
        path[above.size()] != '/')
        return false;
    *name = path.substr(above.size() + 1);
    return true;
}

}  // namespace

MemoryObject::MemoryObject(uint32_t shareId, const std::string& sharePath,
                           std::shared_ptr<Tree> tree, NodePtr node)
    : shareId_(shareId),
      sharePath_(sharePath),
      tree_(std::move(tree)),
      node_(std::move(node)),
      path_(sharePath_ + tree_->PathOf(*node_)) {}

int MemoryObject::WhoCalls(const OxelCtxt& ctxt, Need need, Caller* who) const {
    const MemoryExport* share = memory::AsMemory(ctxt.exportPtr.get());
    // The second object of a call may lie in another share.
    if (share == nullptr || share->Files() != tree_) return EXDEV;
    const ClientRule* rule = share->Rules().Match(XOIPAddr(ctxt.id.clientAddress));
    if (rule == nullptr) return EACCES;
    const ClientOptions& options = rule->options;
    if (need == Need::kModify && !options.writable) return EROFS;
    *who = {ctxt.id.uid, ctxt.id.gid};
    if (options.allSquash || (options.rootSquash && who->uid == 0)) who->uid = options.anonUid;
    if (options.allSquash || (options.rootSquash && who->gid == 0)) who->gid = options.anonGid;
    return 0;
}

// 0, or -1 with errno.
template <typename Work>
int MemoryObject::As(const OxelCtxt* ctxt, Need need, Work work) const {
    return Guarded(-1, [&] {
        Caller who;
        int error = WhoCalls(*ctxt, need, &who);
        if (error == 0) error = work(who);
        return error == 0 ? 0 : Fail(error);
    });
}

BkEndProcPtr MemoryObject::ObjectFor(NodePtr node) const {
    return boost::make_shared<MemoryObject>(shareId_, sharePath_, tree_, std::move(node));
}

void MemoryObject::GetFileHandle(nfs_fh3* out) const {
    WriteHandle(shareId_, {tree_->Id(), Tree::Number(*node_)}, out);
}

// ---- Attributes ----

int MemoryObject::Stat(OxelCtxt*, const std::string&, struct stat* out) {
    const int error = tree_->Stat(*node_, out);
    return error == 0 ? 0 : Fail(error);
}

int MemoryObject::Access(OxelCtxt* ctxt, const std::string&, int mode) {
    const Need need = (mode & W_OK) != 0 ? Need::kModify : Need::kRead;
    return As(ctxt, need, [&](const Caller& who) { return tree_->Check(who, *node_, mode); });
}

int MemoryObject::Chmod(OxelCtxt* ctxt, const std::string&, mode_t mode) {
    return As(ctxt, Need::kModify,
              [&](const Caller& who) { return tree_->Chmod(who, *node_, mode); });
}

int MemoryObject::Chown(OxelCtxt* ctxt, const std::string&, uid_t uid, gid_t gid) {
    return As(ctxt, Need::kModify, [&](const Caller& who) {
        // A new object is given to its caller under the ids that came with the call.
        const bool toCaller = uid == ctxt->id.uid && gid == ctxt->id.gid;
        return toCaller ? tree_->Chown(who, *node_, who.uid, who.gid)
                        : tree_->Chown(who, *node_, uid, gid);
    });
}

int MemoryObject::SetTimes(OxelCtxt* ctxt, const std::string&, const struct timeval& accessTime,
                           const struct timeval& modificationTime) {
    return As(ctxt, Need::kModify, [&](const Caller& who) {
        return tree_->SetTimes(who, *node_, accessTime.tv_sec, modificationTime.tv_sec);
    });
}

// ---- Data ----

int MemoryObject::Open(OxelCtxt* ctxt, const std::string&, int flags, int) {
    const bool writes = flags != 0;
    const int mode = writes ? W_OK : R_OK;
    const int result = As(ctxt, writes ? Need::kModify : Need::kRead,
                          [&](const Caller& who) { return tree_->CheckOpen(who, *node_, mode); });
    return result == 0 ? kDescriptor : -1;
}

int MemoryObject::Close(OxelCtxt*, int) {
    return 0;
}

ssize_t MemoryObject::Read(OxelCtxt*, int, void* buffer, uint64_t offset, uint32_t count) {
    uint32_t got = 0;
    const int error = tree_->Read(*node_, buffer, offset, count, &got);
    return error == 0 ? static_cast<ssize_t>(got) : Fail(error);
}

// No more stable than memory is: what is asked for is what there is.
ssize_t MemoryObject::Write(OxelCtxt*, int, const void* data, uint64_t offset, uint32_t count,
                            stable_how) {
    return Guarded(ssize_t{-1}, [&]() -> ssize_t {
        const int error = tree_->Write(*node_, data, offset, count);
        return error == 0 ? static_cast<ssize_t>(count) : Fail(error);
    });
}

int MemoryObject::Truncate(OxelCtxt* ctxt, const std::string&, uint64_t size) {
    return As(ctxt, Need::kModify,
              [&](const Caller& who) { return tree_->Truncate(who, *node_, size); });
}

int MemoryObject::SyncFs(OxelCtxt*, int) {
    return 0;
}

// ---- Names ----

BkEndProcPtr MemoryObject::FindChild(OxelCtxt* ctxt, const std::string& name) {
    return Guarded(BkEndProcPtr(), [&]() -> BkEndProcPtr {
        NodePtr found;
        const int result = As(ctxt, Need::kRead, [&](const Caller& who) {
            if (name == "..") found = tree_->ParentOf(*node_);
            if (name == "." || (name == ".." && !found)) found = node_;
            if (found) return 0;
            return tree_->Find(who, *node_, name, &found);
        });
        if (result != 0) return nullptr;
        BkEndProcPtr child = ObjectFor(found);
        errno = EEXIST;
        return child;
    });
}

BkEndProcPtr MemoryObject::GetParent(OxelCtxt*) {
    return Guarded(BkEndProcPtr(), [&]() -> BkEndProcPtr {
        const NodePtr parent = tree_->ParentOf(*node_);
        return parent ? ObjectFor(parent) : nullptr;
    });
}

BkEndProcPtr MemoryObject::Make(OxelCtxt* ctxt, const std::string& name, mode_t mode) {
    return Guarded(BkEndProcPtr(), [&]() -> BkEndProcPtr {
        NodePtr made;
        const int result = As(ctxt, Need::kModify, [&](const Caller& who) {
            return tree_->Make(who, *node_, name, mode, "", &made);
        });
        return result == 0 ? ObjectFor(made) : nullptr;
    });
}

BkEndProcPtr MemoryObject::CreateChild(OxelCtxt* ctxt, const std::string& name, int, mode_t mode) {
    return Make(ctxt, name, S_IFREG | (mode & 07777));
}

BkEndProcPtr MemoryObject::CreateChildDir(OxelCtxt* ctxt, const std::string& name, mode_t mode) {
    return Make(ctxt, name, S_IFDIR | (mode & 07777));
}

int MemoryObject::CreateSymlink(OxelCtxt* ctxt, const std::string& target,
                                const std::string& linkPath) {
    return As(ctxt, Need::kModify, [&](const Caller& who) {
        std::string name;
        NodePtr made;
        if (!NameBelow(*this, linkPath, &name)) return EINVAL;
        return tree_->Make(who, *node_, name, S_IFLNK | 0777, target, &made);
    });
}

ssize_t MemoryObject::ReadLink(OxelCtxt*, const std::string&, char* buffer, size_t capacity) {
    return Guarded(ssize_t{-1}, [&]() -> ssize_t {
        std::string target;
        if (const int error = tree_->ReadLink(*node_, &target); error != 0) return Fail(error);
        const size_t bytes = std::min(capacity, target.size());
        std::copy_n(target.data(), bytes, buffer);  // without a final zero, as readlink(2)
        return static_cast<ssize_t>(bytes);
    });
}

// An errno of the contract is enough to say that the module does not have something.
int MemoryObject::HardLink(OxelCtxt*, const std::string&, const std::string&) {
    return Fail(EPERM);
}

int MemoryObject::Remove(const OxelCtxt* ctxt, const BkEndProcPtr& from, const std::string& path,
                         bool wantDirectory) {
    return As(ctxt, Need::kModify, [&](const Caller& who) {
        MemoryObject* directory = AsMemory(from);
        std::string name;
        if (directory == nullptr || directory->tree_ != tree_) return EXDEV;
        if (!NameBelow(*directory, path, &name)) return EINVAL;
        return tree_->Remove(who, *directory->node_, name, *node_, wantDirectory);
    });
}

int MemoryObject::Unlink(OxelCtxt* ctxt, const std::string& path) {
    return Remove(ctxt, ctxt->secondObject, path, false);
}

// RMDIR's context has the directory alone.
int MemoryObject::RemoveDir(OxelCtxt* ctxt, const std::string& path) {
    return Remove(ctxt, ctxt->object, path, true);
}

int MemoryObject::Rename(OxelCtxt* ctxt, const std::string& fromName, const std::string& toName) {
    return As(ctxt, Need::kModify, [&](const Caller& who) {
        MemoryObject* from = AsMemory(ctxt->object);
        MemoryObject* to = AsMemory(ctxt->secondObject);
        if (from == nullptr || to == nullptr || from->tree_ != tree_ || to->tree_ != tree_)
            return EXDEV;
        return tree_->Rename(who, *from->node_, fromName, *to->node_, toName, node_);
    });
}

// ---- Listing ----

DirStream* MemoryObject::OpenDir(OxelCtxt* ctxt, const std::string&) {
    struct stat st;
    if (Stat(ctxt, "/", &st) != 0) return nullptr;
    if (!S_ISDIR(st.st_mode)) {
        errno = ENOTDIR;
        return nullptr;
    }
    if (Access(ctxt, "/", R_OK) != 0) return nullptr;
    return Guarded(static_cast<DirStream*>(nullptr), []() -> DirStream* { return new Stream; });
}

void MemoryObject::SeekDir(OxelCtxt*, DirStream* stream, uint64_t position) {
    static_cast<Stream*>(stream)->position = position;
}

struct dirent* MemoryObject::ReadDir(OxelCtxt*, DirStream* stream) {
    auto* of = static_cast<Stream*>(stream);
    return tree_->List(*node_, &of->position, &of->entry) == 0 ? &of->entry : nullptr;
}

int64_t MemoryObject::TellDir(OxelCtxt*, DirStream* stream) {
    return static_cast<int64_t>(static_cast<Stream*>(stream)->position);
}

void MemoryObject::CloseDir(OxelCtxt*, DirStream* stream) {
    delete stream;
}

// ---- The file system ----

long MemoryObject::PathConf(OxelCtxt*, const std::string&, int name) {
    if (name == _PC_NAME_MAX) return NAME_MAX;
    if (name == _PC_LINK_MAX) return 1;
    return -1;
}

int MemoryObject::StatFs(OxelCtxt*, const std::string&, struct statfs* out) {
    uint64_t bytesFree = 0, nodesFree = 0;
    tree_->Space(&bytesFree, &nodesFree);
    *out = {};
    out->f_bsize = 512;
    out->f_blocks = Tree::kBytesMax / 512;
    out->f_bfree = out->f_bavail = bytesFree / 512;
    out->f_files = Tree::kNodesMax;
    out->f_ffree = nodesFree;
    return 0;
}

}  // namespace oxel::memory
