// SPDX-License-Identifier: Apache-2.0
//
// A share: a tree that clients can mount, with the rules of who may.
#pragma once

#include <atomic>
#include <string>
#include <utility>

#include "backend/nfs_fh3.h"
#include "backend/types.h"
#include "base/sync.h"
#include "net/CLuIPAddr.h"

// Called from many threads at once; throws nothing.
class Export {
  public:
    // `path` is what clients mount; `parent` is the share that this one lies in, or null.
    explicit Export(std::string path, ExportPtr parent = ExportPtr())
        : path_(std::move(path)), parent_(std::move(parent)) {}
    virtual ~Export() = default;
    Export(const Export&) = delete;
    Export& operator=(const Export&) = delete;

    // Records that the client has mounted the share and writes the share's root handle into *root.
    virtual int AddMountPoint(const CLuIPAddr& client, nfs_fh3* root) = 0;
    virtual FSModuleType GetFSMType() = 0;
    // Non-zero when any client may modify; 0 makes the share read-only to every client.
    virtual unsigned IsWritable() = 0;
    // Whether the client at that address (and port) may use the share; `host` is always empty.
    virtual bool IsClientAllowed(XOIPAddr client, const std::string& host) = 0;

    std::string GetPath() const { return path_; }
    ExportPtr GetParentExport() const { return parent_; }
    // Held by a sender thread while it sends a reply of this share.
    void LockRpcSocket() ACQUIRE(rpcSocketLock_) { rpcSocketLock_.enter(); }
    void UnlockRpcSocket() RELEASE(rpcSocketLock_) { rpcSocketLock_.leave(); }
    // Seconds since the epoch; 0 = never.
    void SetLastAccessTime(long seconds) { lastAccess_.store(seconds, std::memory_order_relaxed); }
    long GetLastAccessTime() const { return lastAccess_.load(std::memory_order_relaxed); }

  private:
    const std::string path_;
    const ExportPtr parent_;
    XoCriticalSection rpcSocketLock_;
    std::atomic<long> lastAccess_{0};
};
