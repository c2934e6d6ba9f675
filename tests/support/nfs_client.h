// SPDX-License-Identifier: Apache-2.0
//
// NFS version 3 and MOUNT calls on top of the byte-level client: argument builders and result
// readers by RFC 1813, nothing of the daemon's own codec.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tests/support/rpc_client.h"

namespace oxel::test {

// RFC 1813's procedure numbers.
namespace nfs {
inline constexpr uint32_t kNull = 0, kGetattr = 1, kSetattr = 2, kLookup = 3, kAccess = 4,
                          kReadlink = 5, kRead = 6, kWrite = 7, kCreate = 8, kMkdir = 9,
                          kSymlink = 10, kMknod = 11, kRemove = 12, kRmdir = 13, kRename = 14,
                          kLink = 15, kReaddir = 16, kReaddirplus = 17, kFsstat = 18, kFsinfo = 19,
                          kPathconf = 20, kCommit = 21;
}  // namespace nfs
namespace mnt {
inline constexpr uint32_t kNull = 0, kMnt = 1, kDump = 2, kUmnt = 3, kUmntall = 4, kExport = 5;
}  // namespace mnt

struct Attributes {  // fattr3
    uint32_t type = 0, mode = 0, nlink = 0, uid = 0, gid = 0;
    uint64_t size = 0, used = 0;
    uint32_t rdev1 = 0, rdev2 = 0;
    uint64_t fsid = 0, fileid = 0;
    uint32_t atime = 0, atimeNs = 0, mtime = 0, mtimeNs = 0, ctime = 0, ctimeNs = 0;
};
Attributes ReadAttributes(XdrReader* reader);
std::string AttributesBytes(const Attributes& attributes);
// What the daemon must say of a local file: read with lstat, in the daemon's form.
Attributes ExpectedAttributes(const std::string& localPath);

struct DirectoryEntry {
    uint64_t fileid = 0, cookie = 0;
    std::string name;
    bool hasAttributes = false, hasHandle = false;  // READDIRPLUS only
    Attributes attributes;
    std::string handle;
};
struct DirectoryPage {
    uint32_t status = 0;
    bool hasAttributes = false;
    Attributes attributes;
    uint64_t verifier = 0;
    std::vector<DirectoryEntry> entries;
    bool eof = false;
};

// The results of READDIR, or of READDIRPLUS.
DirectoryPage ReadPage(const std::string& results, bool plus);

// sattr3 with what tests set; the rest is "don't change".
struct SetAttributes {
    int64_t mode = -1, uid = -1, gid = -1, size = -1;
    uint32_t setAtime = 0, setMtime = 0;  // 0 no, 1 server's time, 2 client's time
    uint32_t atime = 0, mtime = 0;        // seconds
    std::string Bytes() const;
};

// Calls over one connection as one user. Every call has its own transaction id.
class NfsClient {
  public:
    explicit NfsClient(uint16_t port, uint32_t uid = 0, uint32_t gid = 0)
        : connection_(port), uid_(uid), gid_(gid) {}
    NfsClient(uint16_t port, const std::string& fromAddress, bool fromReservedPort, uint32_t uid,
              uint32_t gid)
        : connection_(port, fromAddress, fromReservedPort), uid_(uid), gid_(gid) {}

    RpcConnection& Connection() { return connection_; }
    // Calls, built but not sent.
    RpcCall Nfs(uint32_t procedure, const std::string& arguments);
    RpcCall Mount(uint32_t procedure, const std::string& arguments, uint32_t version = 3);

    // The results of a successful RPC call; empty, with the test failed, when it is not.
    std::string Results(const RpcCall& call);
    // The status word of a call's results.
    uint32_t Status(const RpcCall& call);

    // MNT: the root handle; empty when the status is not 0, which *status then has.
    std::string MountShare(const std::string& path, uint32_t* status = nullptr);
    // LOOKUP: the handle; empty when the status is not 0.
    std::string Lookup(const std::string& directory, const std::string& name,
                       uint32_t* status = nullptr);
    // LOOKUP along a path with slashes.
    std::string Walk(std::string directory, const std::string& path);
    Attributes GetAttributes(const std::string& handle, uint32_t* status = nullptr);
    // READ: the data; *eof and *status where wanted.
    std::string Read(const std::string& handle, uint64_t offset, uint32_t count,
                     bool* eof = nullptr, uint32_t* status = nullptr);
    DirectoryPage ReadDirectory(const std::string& handle, uint64_t cookie, uint32_t count);
    DirectoryPage ReadDirectoryPlus(const std::string& handle, uint64_t cookie, uint32_t dircount,
                                    uint32_t maxcount);

  private:
    RpcConnection connection_;
    const uint32_t uid_, gid_;
    uint32_t xid_ = 0x10000000;
};

// A handle followed by a name, as diropargs3.
std::string DirectoryName(const std::string& directory, const std::string& name);
std::string ReadArguments(const std::string& handle, uint64_t offset, uint32_t count);
std::string WriteArguments(const std::string& handle, uint64_t offset, uint32_t stable,
                           const std::string& data);

}  // namespace oxel::test
