// SPDX-License-Identifier: Apache-2.0
//
// One file-system object (file, directory, link, device node) inside a share.
#pragma once

#include <dirent.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/vfs.h>

#include <cstdint>
#include <string>

#include "backend/OxelCtxt.h"
#include "backend/nfs_fh3.h"
#include "backend/types.h"

// An open directory of one call. Its owner is the module; CloseDir releases it.
class DirStream {
  public:
    virtual ~DirStream() = default;
};

// Every operation takes the request's context first and acts with the rights of the caller in it.
// Unless noted, a path argument is the object's full path (GetPath) or "/", both meaning the object
// itself; 0 is success; -1, non-zero or a null pointer is failure with the reason in errno. Called
// from many threads at once; nothing is thrown.
class BkEndProc {
  public:
    virtual ~BkEndProc() = default;

    virtual int Stat(OxelCtxt* ctxt, const std::string& path, struct stat* out) = 0;
    // `mode`: 4 read, 1 execute, 2 write. 0 when the caller has that access, as access(2) answers.
    virtual int Access(OxelCtxt* ctxt, const std::string& path, int mode) = 0;
    // `flags`: 0 read, 1 write, 2 read-write. A descriptor for Read, Write, SyncFs and Close.
    virtual int Open(OxelCtxt* ctxt, const std::string& path, int flags, int mode) = 0;
    virtual int Truncate(OxelCtxt* ctxt, const std::string& path, uint64_t size) = 0;
    // Bytes read, negative on failure. Fewer than `count` only where the file ends: a client is
    // told that this was its end, and takes what it knows to follow for zeros.
    virtual ssize_t Read(OxelCtxt* ctxt, int fd, void* buffer, uint64_t offset, uint32_t count) = 0;
    // Bytes written, at least 1, or -1. The data is as stable as asked before this returns.
    virtual ssize_t Write(OxelCtxt* ctxt, int fd, const void* data, uint64_t offset, uint32_t count,
                          stable_how stable) = 0;
    virtual int Close(OxelCtxt* ctxt, int fd) = 0;
    // Removes this object; `path` is its full path, the context's second object its directory.
    virtual int Unlink(OxelCtxt* ctxt, const std::string& path) = 0;
    virtual DirStream* OpenDir(OxelCtxt* ctxt, const std::string& path) = 0;
    // `position` comes from TellDir; 0 is the start.
    virtual void SeekDir(OxelCtxt* ctxt, DirStream* stream, uint64_t position) = 0;
    // The next entry, valid until the next call on the stream; null at the end.
    virtual struct dirent* ReadDir(OxelCtxt* ctxt, DirStream* stream) = 0;
    // The position after the entry last read.
    virtual int64_t TellDir(OxelCtxt* ctxt, DirStream* stream) = 0;
    virtual void CloseDir(OxelCtxt* ctxt, DirStream* stream) = 0;
    // Removes this directory; `path` is its full path.
    virtual int RemoveDir(OxelCtxt* ctxt, const std::string& path) = 0;
    virtual int Chmod(OxelCtxt* ctxt, const std::string& path, mode_t mode) = 0;
    virtual int SetTimes(OxelCtxt* ctxt, const std::string& path, const struct timeval& accessTime,
                         const struct timeval& modificationTime) = 0;
    virtual int Chown(OxelCtxt* ctxt, const std::string& path, uid_t uid, gid_t gid) = 0;
    // Bare names; the directories are the context's two objects (source, target).
    virtual int Rename(OxelCtxt* ctxt, const std::string& fromName, const std::string& toName) = 0;
    // Called on the new link's directory; both are full paths.
    virtual int HardLink(OxelCtxt* ctxt, const std::string& existingPath,
                         const std::string& linkPath) = 0;
    virtual int CreateSymlink(OxelCtxt* ctxt, const std::string& target,
                              const std::string& linkPath) = 0;
    // Length of the target (cut to `capacity`, not terminated), or -1.
    virtual ssize_t ReadLink(OxelCtxt* ctxt, const std::string& path, char* buffer,
                             size_t capacity) = 0;
    // `flags` and `mode` are open(2)'s, exactly as passed.
    virtual BkEndProcPtr CreateChild(OxelCtxt* ctxt, const std::string& name, int flags,
                                     mode_t mode) = 0;
    virtual BkEndProcPtr CreateChildDir(OxelCtxt* ctxt, const std::string& name, mode_t mode) = 0;
    // ENOENT when absent; leaves errno EEXIST when the child is found.
    virtual BkEndProcPtr FindChild(OxelCtxt* ctxt, const std::string& name) = 0;
    // Null at the top of the share.
    virtual BkEndProcPtr GetParent(OxelCtxt* ctxt) = 0;
    // Flushes the whole file system that holds the open file.
    virtual int SyncFs(OxelCtxt* ctxt, int fd) = 0;
    // `name` is a pathconf(3) name; the answer is pathconf's (-1: no limit, or failure).
    virtual long PathConf(OxelCtxt* ctxt, const std::string& path, int name) = 0;
    // 0, or the error number itself (not left in errno).
    virtual int StatFs(OxelCtxt* ctxt, const std::string& path, struct statfs* out) = 0;
    // The full path on the server, constant for the life of this C++ object.
    virtual const std::string& GetPath() const = 0;
    // Writes the object's handle: nfh_len, fsmType, shareId and the module's objectId.
    virtual void GetFileHandle(nfs_fh3* out) const = 0;
};
