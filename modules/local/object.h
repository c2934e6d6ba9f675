// SPDX-License-Identifier: Apache-2.0
//
// A file, directory, link or device node inside a share. The class's operations stand in several
// files by what they do: object.cpp (finding), object_attr.cpp, object_io.cpp, object_names.cpp,
// object_dir.cpp, object_write.cpp, object_create.cpp, object_remove.cpp.
#pragma once

#include <atomic>
#include <boost/enable_shared_from_this.hpp>
#include <boost/make_shared.hpp>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <new>
#include <string>

#include "backend/BkEndProc.h"
#include "base/unique_fd.h"
#include "modules/local/caller_rights.h"
#include "modules/local/handle_codec.h"
#include "modules/local/share_root.h"
#include "modules/local/syscalls.h"

namespace oxel::local {

// The open descriptor of an object and what never changes about it. Shared by the LocalObjects that
// name the same object by different paths. While one is alive and open, the inode cannot be
// re-used.
class FileNode {
  public:
    // kForReading: the share's own descriptor duplicated, or the one that a file was made through.
    enum class Opened { kAsPath, kForReading };
    FileNode(UniqueFd fd, const ObjectId& id, const struct stat& st,
             Opened opened = Opened::kAsPath);
    // Without a descriptor until somebody asks for it: an entry of a listing, of which nothing is
    // wanted but its attributes and its handle. Shares with kernel handles only.
    FileNode(std::shared_ptr<ShareRoot> share, const ObjectId& id, const struct stat& st);
    ~FileNode();

    // -1 with errno when the node was without one and the object is gone.
    int Fd() const {
        const int fd = fd_.load(std::memory_order_acquire);
        return fd >= 0 ? fd : OpenNow();
    }
    bool IsOpen() const { return fd_.load(std::memory_order_acquire) >= 0; }
    // A descriptor that fsync(2) and fchmod(2) take, or -1 when there is none.
    int FileFd() const { return fileFd_.load(std::memory_order_acquire); }
    // Keeps one for later; the descriptor to use, which another thread may have brought first. For
    // directories: each name that is made or removed in one is synced.
    int KeepFileFd(UniqueFd fd) const;
    const ObjectId& Id() const { return id_; }
    dev_t Device() const { return device_; }
    uint64_t Inode() const { return inode_; }
    mode_t Type() const { return type_; }  // of S_IFMT
    uint64_t Serial() const { return serial_; }

    // Remembers what decides about access, from attributes just read.
    void Saw(const struct stat& st);
    // Tells apart, in the descriptor cache, both this object from another one with the same inode
    // number, and the times before and after a change of mode or owner.
    uint64_t AccessGeneration() const {
        return id_.Hash() ^ permissions_.load(std::memory_order_relaxed);
    }

    // The path was found to be right at this change time; it is asked for again when the change
    // time moves, or after a while, because a directory above may have been renamed.
    void PathVerified(int64_t changeTime, int64_t nowMs);
    int64_t VerifiedMs() const { return verifiedMs_.load(std::memory_order_relaxed); }
    bool PathMayHaveChanged(int64_t changeTime, int64_t nowMs) const;
    // This process has changed the object itself, and with that its change time, from one to
    // another: its path is believed as before.
    void OwnChange(int64_t changeTimeBefore, int64_t changeTimeAfter);
    // For the object cache: when a call last used the object.
    void Used(int64_t nowMs) { usedMs_.store(nowMs, std::memory_order_relaxed); }
    int64_t UsedMs() const { return usedMs_.load(std::memory_order_relaxed); }

  private:
    int OpenNow() const;

    const std::shared_ptr<ShareRoot> share_;  // null when it was made with a descriptor
    mutable std::atomic<int> fd_;             // owned
    mutable std::atomic<int> fileFd_{-1};     // fd_, or another one, owned
    const ObjectId id_;
    const dev_t device_;
    const uint64_t inode_;
    const mode_t type_;
    const uint64_t serial_;
    std::atomic<uint64_t> permissions_{0};
    std::atomic<int64_t> verifiedChangeTime_{0};
    std::atomic<int64_t> verifiedMs_{0};
    std::atomic<int64_t> usedMs_{0};
};

// For how long a path is believed while nothing about the object itself has changed. Tests set 0.
extern std::atomic<int64_t> gPathBelievedMs;
// The handle of an object that is no older is not remembered by inode number and birth time: a
// later owner of the number might have the same birth time, of which the coarsest are two seconds
// apart. Tests set less.
extern std::atomic<int64_t> gBirthSettledSeconds;
// A directory has been renamed through this process: no path below it is believed any longer.
void NoteDirectoryMove();

class LocalObject final : public BkEndProc, public boost::enable_shared_from_this<LocalObject> {
  public:
    LocalObject(std::shared_ptr<ShareRoot> share, std::shared_ptr<FileNode> node, std::string path)
        : share_(std::move(share)), node_(std::move(node)), path_(std::move(path)) {}

    // Takes what `fd` stands for, whose path is `path`; *st is filled. Null with errno: EXDEV for
    // what lies on another file system than the handles of this share can name.
    static boost::shared_ptr<LocalObject> FromFd(const std::shared_ptr<ShareRoot>& share,
                                                 UniqueFd fd, std::string path, struct stat* st,
                                                 FileNode::Opened opened = kAsPath);
    static constexpr FileNode::Opened kAsPath = FileNode::Opened::kAsPath;

    ShareRoot& Share() const { return *share_; }
    const std::shared_ptr<ShareRoot>& SharePtr() const { return share_; }
    FileNode& Node() const { return *node_; }
    const std::shared_ptr<FileNode>& NodePtr() const { return node_; }
    bool IsShareRoot() const {
        return node_->Inode() == share_->Inode() && node_->Device() == share_->Device();
    }

    int Stat(OxelCtxt* ctxt, const std::string& path, struct stat* out) override;
    int Access(OxelCtxt* ctxt, const std::string& path, int mode) override;
    int Open(OxelCtxt* ctxt, const std::string& path, int flags, int mode) override;
    int Truncate(OxelCtxt* ctxt, const std::string& path, uint64_t size) override;
    ssize_t Read(OxelCtxt* ctxt, int fd, void* buffer, uint64_t offset, uint32_t count) override;
    ssize_t Write(OxelCtxt* ctxt, int fd, const void* data, uint64_t offset, uint32_t count,
                  stable_how stable) override;
    int Close(OxelCtxt* ctxt, int fd) override;
    int Unlink(OxelCtxt* ctxt, const std::string& path) override;
    DirStream* OpenDir(OxelCtxt* ctxt, const std::string& path) override;
    void SeekDir(OxelCtxt* ctxt, DirStream* stream, uint64_t position) override;
    struct dirent* ReadDir(OxelCtxt* ctxt, DirStream* stream) override;
    int64_t TellDir(OxelCtxt* ctxt, DirStream* stream) override;
    void CloseDir(OxelCtxt* ctxt, DirStream* stream) override;
    int RemoveDir(OxelCtxt* ctxt, const std::string& path) override;
    int Chmod(OxelCtxt* ctxt, const std::string& path, mode_t mode) override;
    int SetTimes(OxelCtxt* ctxt, const std::string& path, const struct timeval& accessTime,
                 const struct timeval& modificationTime) override;
    int Chown(OxelCtxt* ctxt, const std::string& path, uid_t uid, gid_t gid) override;
    int Rename(OxelCtxt* ctxt, const std::string& fromName, const std::string& toName) override;
    int HardLink(OxelCtxt* ctxt, const std::string& existingPath,
                 const std::string& linkPath) override;
    int CreateSymlink(OxelCtxt* ctxt, const std::string& target,
                      const std::string& linkPath) override;
    ssize_t ReadLink(OxelCtxt* ctxt, const std::string& path, char* buffer,
                     size_t capacity) override;
    BkEndProcPtr CreateChild(OxelCtxt* ctxt, const std::string& name, int flags,
                             mode_t mode) override;
    BkEndProcPtr CreateChildDir(OxelCtxt* ctxt, const std::string& name, mode_t mode) override;
    BkEndProcPtr FindChild(OxelCtxt* ctxt, const std::string& name) override;
    BkEndProcPtr GetParent(OxelCtxt* ctxt) override;
    int SyncFs(OxelCtxt* ctxt, int fd) override;
    long PathConf(OxelCtxt* ctxt, const std::string& path, int name) override;
    int StatFs(OxelCtxt* ctxt, const std::string& path, struct statfs* out) override;
    const std::string& GetPath() const override { return path_; }
    void GetFileHandle(nfs_fh3* out) const override;

  private:
    using Ptr = boost::shared_ptr<LocalObject>;

    // object.cpp. What a path argument means: this object, another one of the running call, or
    // whatever the path leads to inside the share with the caller's rights (null with errno).
    bool IsSelf(const std::string& path) const;
    Ptr ObjectAt(OxelCtxt* ctxt, const std::string& path);
    // Runs `operation(LocalObject&)` on the object that `path` means. No exception leaves.
    template <typename Result, typename Operation>
    Result On(OxelCtxt* ctxt, const std::string& path, Result failure, Operation operation);

    // object_names.cpp
    Ptr Child(OxelCtxt* ctxt, const std::string& name);
    Ptr ChildUnchecked(const std::string& name, struct stat* st);
    Ptr ListedChild(const std::string& name, struct stat* st);
    Ptr KnownChild(const std::string& path, const std::string& name, const Looked& looked);
    Ptr OpenChild(std::string path, const std::string& name, struct stat* st);
    Ptr Parent(OxelCtxt* ctxt, const CallerRights& rights);
    Ptr Adopt(UniqueFd fd, std::string path, const std::string& name, struct stat* st,
              FileNode::Opened opened = kAsPath);
    void RememberPlace(const LocalObject& directory, const std::string& name);

    // object_create.cpp
    bool MayMake(const std::string& name, int dots, std::string* path) const;
    Ptr MakeFile(const std::string& name, const std::string& path, int flags, mode_t mode,
                 struct stat* st);
    Ptr OpenExisting(const CallerRights& rights, const std::string& name, int flags,
                     struct stat* st);
    Ptr LinkSource(OxelCtxt* ctxt, const std::string& path);

    // object_remove.cpp
    bool IsAt(const LocalObject& directory, const std::string& name) const;
    int RemoveName(const CallerRights& rights, LocalObject& directory, const std::string& name,
                   int flags);
    void NameRemoved(const LocalObject& directory, const std::string& name);
    void Moved(const LocalObject& directory, const std::string& name, std::string path);

    // object_write.cpp
    ssize_t WriteStable(OxelCtxt* ctxt, int fd, const void* data, off_t offset, uint32_t count,
                        stable_how stable);

    // object_attr.cpp and object_io.cpp: the operations on this object itself.
    int StatSelf(struct stat* out);
    int AccessSelf(OxelCtxt* ctxt, int mode);
    int ChmodSelf(OxelCtxt* ctxt, mode_t mode);
    int ChownSelf(OxelCtxt* ctxt, uid_t uid, gid_t gid);
    int GiveToCaller(OxelCtxt* ctxt);
    bool HasInheritedGroup(const struct stat& st) const;
    bool StatAbove(struct stat* st) const;
    int SetTimesSelf(OxelCtxt* ctxt, const struct timespec (&times)[2]);
    int TruncateSelf(OxelCtxt* ctxt, uint64_t size);
    int OpenSelf(OxelCtxt* ctxt, int flags);
    UniqueFd OpenRegular(const CallerRights& rights, int access);
    bool MayOverride(const CallerRights& rights, int access);
    // Before and after a change of what the descriptor cache and the call's attributes rest on.
    void Changing();
    // *now is what the object has become.
    bool AccessChanged(struct stat* now);
    int SyncAccess(const struct stat& before);
    bool StatUnlessJustMade(struct stat* st) const;

    const std::shared_ptr<ShareRoot> share_;
    const std::shared_ptr<FileNode> node_;
    const std::string path_;
};

// The object id of what `fd` stands for, in a share with kernel handles. False with errno.
bool KernelIdOf(const ShareRoot& share, int fd, ObjectId* id);

// Runs an operation so that running out of memory is an errno like any other.
template <typename Result, typename Operation>
Result Guarded(Result failure, Operation operation) {
    try {
        return operation();
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
    } catch (...) {
        errno = EIO;
    }
    return failure;
}

template <typename Result, typename Operation>
Result LocalObject::On(OxelCtxt* ctxt, const std::string& path, Result failure,
                       Operation operation) {
    return Guarded(failure, [&]() -> Result {
        if (IsSelf(path)) return operation(*this);
        const Ptr other = ObjectAt(ctxt, path);
        return other ? operation(*other) : failure;
    });
}

}  // namespace oxel::local
