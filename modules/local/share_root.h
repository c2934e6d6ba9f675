// SPDX-License-Identifier: Apache-2.0
//
// The directory that a share serves: its descriptor, which everything in the share is reached
// through, and what is known of where objects lie below it.
#pragma once

#include <sys/stat.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "backend/types.h"
#include "base/sync.h"
#include "base/unique_fd.h"
#include "modules/local/handle_codec.h"
#include "modules/local/inode_map.h"

namespace oxel::local {

// Shared by the share's Export and the objects inside it. A reload that leaves id, module type and
// directory as they are finds the same ShareRoot again, so what is cached stays good. Any thread.
class ShareRoot {
  public:
    // Opens the directory and finds out which kind of handles it can have. Null with a reason for
    // people in *error.
    static std::shared_ptr<ShareRoot> Open(FSModuleType type, uint32_t shareId,
                                           const std::string& directory, std::string* error);

    FSModuleType Type() const { return type_; }
    uint32_t ShareId() const { return shareId_; }
    // Opened for reading: open_by_handle_at takes no O_PATH descriptor.
    int Fd() const { return fd_.Get(); }
    // Full and free of symbolic links; no slash at the end, so empty for "/" itself.
    const std::string& Prefix() const { return prefix_; }
    HandleKind Kind() const { return kind_; }
    // Different for every ShareRoot of the process's life.
    uint64_t Serial() const { return serial_; }
    bool IsRoot(const struct stat& st) const { return st.st_ino == inode_ && st.st_dev == device_; }
    // Whether a kind 2 body that a client sent is the root's, also in a form that other kernels
    // give.
    bool IsRootBody(std::string_view body) const;
    dev_t Device() const { return device_; }
    uint64_t Inode() const { return inode_; }
    // The body of the root's object id.
    const std::string& Body() const { return body_; }

    // What kind 2 says of an open object of this file system; the whole record goes into *st.
    // `like` chooses the form to compare with it. 0, or -1.
    int Identify(int fd, struct stat* st, InodeIdentity* identity,
                 const InodeIdentity* like = nullptr) const;

    // The path below the root ("a/b", empty for the root) of an absolute path that the kernel gave
    // for a descriptor. False when it lies outside. Knows when the root itself has been renamed.
    bool RelativePath(const std::string& path, std::string* relative);
    // The same for a path that a caller composed from objects' paths.
    bool RelativeToPrefix(const std::string& path, std::string* relative) const;
    std::string FullPath(const std::string& relative) const { return prefix_ + "/" + relative; }

    InodeMap& Places() { return *places_; }
    // Held by the one search of the tree that is under way.
    XoCriticalSection& SearchMutex() RETURN_CAPABILITY(searchMutex_) { return searchMutex_; }
    // Objects that a search did not find, by body, so that a client cannot start one search after
    // another with the same handle.
    struct Missing {
        int64_t changeTime;  // the object's own, 0 where it is not known
        int64_t atMs;
    };
    LruCache<std::string, Missing>& NotFound() { return notFound_; }

    // The number of Exports that use it; the objects of a share that nobody exports any more are
    // dropped when it falls to 0.
    void AddExport() { exports_.fetch_add(1, std::memory_order_relaxed); }
    bool DropExport() { return exports_.fetch_sub(1, std::memory_order_acq_rel) == 1; }

  private:
    ShareRoot(FSModuleType type, uint32_t shareId) : type_(type), shareId_(shareId) {}
    bool KernelHandlesWork();

    const FSModuleType type_;
    const uint32_t shareId_;
    // Constant once Open has returned:
    UniqueFd fd_;
    std::string prefix_;
    dev_t device_ = 0;
    uint64_t inode_ = 0;
    bool layered_ = false;  // overlayfs
    HandleKind kind_ = HandleKind::kInode;
    std::string body_;
    uint64_t serial_ = 0;
    std::unique_ptr<InodeMap> places_;

    LruCache<std::string, Missing> notFound_{1024};
    XoCriticalSection searchMutex_;
    std::atomic<int> exports_{0};
    XoCriticalSection currentMutex_;
    std::string current_ GUARDED_BY(currentMutex_);  // where the root lies now, as Prefix
};

}  // namespace oxel::local
