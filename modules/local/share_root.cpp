// SPDX-License-Identifier: Apache-2.0
//
// Opening a share's directory, and telling what lies inside it.
#include "modules/local/share_root.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <tuple>

#include "base/log.h"
#include "modules/local/caller_rights.h"
#include "modules/local/kernel_handle.h"
#include "modules/local/syscalls.h"

namespace oxel::local {
namespace {

// Hints for this many files per share where kernel handles work; about 150 bytes each.
constexpr unsigned long kHintsMax = 131072;

std::string SystemReason(const std::string& directory) {
    return "cannot open the directory " + directory + ": " + strerror(errno);
}

// FUSE gives handles that it forgets together with the inode.
bool HandlesAreKept(int fd) {
    struct statfs fs;
    return fstatfs(fd, &fs) == 0 && static_cast<uint32_t>(fs.f_type) != FUSE_SUPER_MAGIC;
}

bool IsLayered(int fd) {
    struct statfs fs;
    return fstatfs(fd, &fs) == 0 && static_cast<uint32_t>(fs.f_type) == OVERLAYFS_SUPER_MAGIC;
}

// Every ShareRoot that is alive, by share id, module type and directory inode.
struct Registry {
    using Key = std::tuple<uint32_t, FSModuleType, dev_t, uint64_t, std::string>;
    XoCriticalSection mutex;
    std::map<Key, std::weak_ptr<ShareRoot>> roots GUARDED_BY(mutex);
    uint64_t serials GUARDED_BY(mutex) = 0;
};
Registry& registry() {
    static Registry* instance = new Registry;  // outlives every thread
    return *instance;
}

bool StartsBelow(const std::string& path, const std::string& prefix, std::string* relative) {
    if (path.compare(0, prefix.size(), prefix) != 0) return false;
    if (path.size() == prefix.size()) {
        relative->clear();
        return true;
    }
    if (path[prefix.size()] != '/') return false;
    relative->assign(path, prefix.size() + 1, std::string::npos);
    return true;
}

}  // namespace

std::shared_ptr<ShareRoot> ShareRoot::Open(FSModuleType type, uint32_t shareId,
                                           const std::string& directory, std::string* error) {
    BecomeOwn();
    std::shared_ptr<ShareRoot> root(new ShareRoot(type, shareId));
    root->fd_ =
        OpenMakingRoom([&] { return open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); });
    if (root->fd_) root->fd_ = DupAside(root->Fd());
    struct stat st;
    InodeIdentity identity;
    root->layered_ = root->fd_ && IsLayered(root->Fd());
    if (!root->fd_ || root->Identify(root->Fd(), &st, &identity) != 0 ||
        !PathOfFd(root->Fd(), &root->prefix_)) {
        *error = SystemReason(directory);
        return nullptr;
    }
    if (root->prefix_ == "/") root->prefix_.clear();
    {
        XoCriticalSectionGuard lock(root->currentMutex_);
        root->current_ = root->prefix_;
    }
    root->device_ = st.st_dev;
    root->inode_ = st.st_ino;

    XoCriticalSectionGuard lock(registry().mutex);
    auto& roots = registry().roots;
    std::erase_if(roots, [](const auto& entry) { return entry.second.expired(); });
    auto& known = roots[{shareId, type, st.st_dev, st.st_ino, root->prefix_}];
    if (auto alive = known.lock()) return alive;

    root->kind_ = root->KernelHandlesWork() ? HandleKind::kKernel : HandleKind::kInode;
    if (root->kind_ == HandleKind::kInode) root->body_ = EncodeInodeBody(identity);
    if (root->kind_ == HandleKind::kKernel)
        root->places_ = std::make_unique<MemoryInodeMap>(kHintsMax);
    else
        root->places_ = MakeLastingInodeMap(shareId, root->body_);
    root->serial_ = ++registry().serials;
    known = root;
    return root;
}

// Tried out rather than asked for: that a file system gives a handle does not mean that it takes it
// back, or that this process may use it.
bool ShareRoot::KernelHandlesWork() {
    if (!HandlesAreKept(Fd()) || !KernelHandleOf(Fd(), &body_)) return false;
    UniqueFd again = OpenKernelHandle(Fd(), body_);
    struct stat st;
    return again && fstat(again.Get(), &st) == 0 && IsRoot(st);
}

bool ShareRoot::RelativePath(const std::string& path, std::string* relative) {
    XoCriticalSectionGuard lock(currentMutex_);
    if (StartsBelow(path, current_, relative)) return true;
    std::string now;
    if (!PathOfFd(Fd(), &now)) return false;
    if (now == "/") now.clear();
    if (now == current_) return false;
    current_ = now;
    return StartsBelow(path, current_, relative);
}

bool ShareRoot::RelativeToPrefix(const std::string& path, std::string* relative) const {
    return StartsBelow(path, prefix_, relative);
}

bool ShareRoot::IsRootBody(std::string_view body) const {
    InodeIdentity wanted, found;
    struct stat st;
    return kind_ == HandleKind::kInode && DecodeInodeBody(body, &wanted) &&
           wanted.inode == inode_ && Identify(Fd(), &st, &found, &wanted) == 0 && found == wanted;
}

int ShareRoot::Identify(int fd, struct stat* st, InodeIdentity* identity,
                        const InodeIdentity* like) const {
    struct statx x;
    if (statx(fd, "", AT_EMPTY_PATH, STATX_BASIC_STATS | STATX_BTIME, &x) != 0) return -1;
    Looked looked;
    FromStatx(x, &looked);
    *st = looked.st;
    *identity = {x.stx_ino, looked.birthSeconds, looked.birthNanoseconds};
    uint64_t origin;
    if (layered_ && (like == nullptr || like->IsOrigin()) && LayerOriginOf(fd, &origin)) {
        identity->birthSeconds = static_cast<int64_t>(origin);
        identity->birthNanoseconds = InodeIdentity::kOrigin;
    }
    return 0;
}

}  // namespace oxel::local
