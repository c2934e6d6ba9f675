// SPDX-License-Identifier: Apache-2.0
//
// Making objects, and telling which object a path argument means.
#include "modules/local/object.h"

#include <fcntl.h>

#include <vector>

#include "modules/local/call_state.h"
#include "modules/local/kernel_handle.h"
#include "modules/local/local_export.h"
#include "modules/local/syscalls.h"

namespace oxel::local {

std::atomic<int64_t> gPathBelievedMs{1000};

namespace {

std::atomic<uint64_t> nodeSerials{0};
std::atomic<int64_t> directoryMovedMs{-1};

// Mode and owner in one number, mixed so that swapping two values changes it.
uint64_t PermissionMark(const struct stat& st) {
    uint64_t mark = st.st_mode;
    for (const uint64_t part : {uint64_t{st.st_uid}, uint64_t{st.st_gid}}) {
        mark = (mark ^ part) * 0x9e3779b97f4a7c15;
        mark ^= mark >> 29;
    }
    return mark;
}

bool EndsWith(const std::string& text, const char* end, size_t bytes) {
    return text.size() >= bytes && text.compare(text.size() - bytes, bytes, end) == 0;
}

std::vector<std::string> Components(const std::string& path) {
    std::vector<std::string> names;
    for (size_t begin = 0; begin < path.size();) {
        const size_t end = std::min(path.find('/', begin), path.size());
        if (end > begin) names.push_back(path.substr(begin, end - begin));
        begin = end + 1;
    }
    return names;
}

}  // namespace

FileNode::FileNode(UniqueFd fd, const ObjectId& id, const struct stat& st, Opened opened)
    : FileNode(nullptr, id, st) {
    if (opened == Opened::kForReading) fileFd_.store(fd.Get(), std::memory_order_release);
    fd_.store(fd.Release(), std::memory_order_release);
}

FileNode::FileNode(std::shared_ptr<ShareRoot> share, const ObjectId& id, const struct stat& st)
    : share_(std::move(share)),
      fd_(-1),
      id_(id),
      device_(st.st_dev),
      inode_(st.st_ino),
      type_(st.st_mode & S_IFMT),
      serial_(nodeSerials.fetch_add(1, std::memory_order_relaxed) + 1) {
    const int64_t now = NowMs();
    Saw(st);
    PathVerified(ChangeTime(st), now);
    Used(now);
}

FileNode::~FileNode() {
    const UniqueFd fd(fd_.load(std::memory_order_acquire));
    UniqueFd fileFd(fileFd_.load(std::memory_order_acquire));
    if (fileFd.Get() == fd.Get()) (void)fileFd.Release();
}

int FileNode::KeepFileFd(UniqueFd fd) const {
    int known = -1;
    return fileFd_.compare_exchange_strong(known, fd.Get(), std::memory_order_acq_rel)
               ? fd.Release()
               : known;
}

// By the handle, which is the very object's or nobody's.
int FileNode::OpenNow() const {
    if (!share_) {
        errno = EBADF;
        return -1;
    }
    const OwnRightsScope own;
    UniqueFd fd = OpenKernelHandle(share_->Fd(), id_.Body());
    int known = -1;
    // Another thread may have been quicker.
    if (fd && fd_.compare_exchange_strong(known, fd.Get(), std::memory_order_acq_rel)) {
        return fd.Release();
    }
    return known;
}

void FileNode::OwnChange(int64_t changeTimeBefore, int64_t changeTimeAfter) {
    // Only from the change time that was verified: whatever else has moved it is looked into.
    verifiedChangeTime_.compare_exchange_strong(changeTimeBefore, changeTimeAfter,
                                                std::memory_order_relaxed);
}

void FileNode::Saw(const struct stat& st) {
    permissions_.store(PermissionMark(st), std::memory_order_relaxed);
}

void FileNode::PathVerified(int64_t changeTime, int64_t nowMs) {
    verifiedChangeTime_.store(changeTime, std::memory_order_relaxed);
    verifiedMs_.store(nowMs, std::memory_order_relaxed);
}

bool FileNode::PathMayHaveChanged(int64_t changeTime, int64_t nowMs) const {
    const int64_t verifiedMs = verifiedMs_.load(std::memory_order_relaxed);
    return changeTime != verifiedChangeTime_.load(std::memory_order_relaxed) ||
           verifiedMs <= directoryMovedMs.load(std::memory_order_relaxed) ||
           nowMs - verifiedMs >= gPathBelievedMs.load(std::memory_order_relaxed);
}

void NoteDirectoryMove() {
    directoryMovedMs.store(NowMs(), std::memory_order_relaxed);
}

boost::shared_ptr<LocalObject> LocalObject::FromFd(const std::shared_ptr<ShareRoot>& share,
                                                   UniqueFd fd, std::string path, struct stat* st,
                                                   FileNode::Opened opened) {
    ObjectId id;
    if (share->Kind() == HandleKind::kKernel) {
        if (fstat(fd.Get(), st) != 0 || !KernelIdOf(*share, fd.Get(), &id)) return nullptr;
    } else {
        InodeIdentity identity;
        if (share->Identify(fd.Get(), st, &identity) != 0) return nullptr;
        if (st->st_dev != share->Device()) {
            errno = EXDEV;  // a subvolume, whose inode numbers are not this share's
            return nullptr;
        }
        id =
            SignObjectId(share->Type(), share->ShareId(), share->Kind(), EncodeInodeBody(identity));
    }
    auto node = std::make_shared<FileNode>(std::move(fd), id, *st, opened);
    return boost::make_shared<LocalObject>(share, std::move(node), std::move(path));
}

bool KernelIdOf(const ShareRoot& share, int fd, ObjectId* id) {
    std::string body;
    if (!KernelHandleOf(fd, &body)) return false;
    *id = SignObjectId(share.Type(), share.ShareId(), HandleKind::kKernel, body);
    return true;
}

void LocalObject::GetFileHandle(nfs_fh3* out) const {
    WriteHandle(share_->Type(), share_->ShareId(), node_->Id(), out);
}

bool LocalObject::IsSelf(const std::string& path) const {
    if (path == path_ || path == "/") return true;
    // A listing asks for "." and ".." with the right object and its directory's path before them.
    if (EndsWith(path, "/.", 2) || EndsWith(path, "/..", 3)) return true;
    // Below a share whose directory is "/", callers compose "//name".
    return path.size() == path_.size() + 1 && path.compare(0, 2, "//") == 0 &&
           path.compare(1, std::string::npos, path_) == 0;
}

boost::shared_ptr<LocalObject> LocalObject::ObjectAt(OxelCtxt* ctxt, const std::string& path) {
    // The object that the call found before is the one that is meant, even when its name has been
    // given to another one meanwhile.
    if (Ptr known = CallState::Get().ByPath(*share_, path)) return known;
    const CallerRights rights(ctxt, *this, CallerRights::Need::kRead);
    if (!rights) return nullptr;
    std::string relative;
    if (!share_->RelativeToPrefix(path, &relative)) {
        errno = EACCES;
        return nullptr;
    }
    // Name by name as lookups would, so that neither a symbolic link nor ".." leads out.
    Ptr at = rights.Share().RootObject();
    for (const std::string& name : Components(relative)) {
        at = at->Child(ctxt, name);
        if (!at) return nullptr;
    }
    return at;
}

}  // namespace oxel::local
