// SPDX-License-Identifier: Apache-2.0
//
// The module's share and its objects.
#pragma once

#include <boost/shared_ptr.hpp>
#include <boost/smart_ptr/enable_shared_from_this.hpp>
#include <memory>
#include <string>

#include "backend/BkEndProc.h"
#include "backend/Export.h"
#include "backend/client_rules.h"
#include "modules/memory/memory_tree.h"

namespace oxel::memory {

// A handle names a tree and a node in it:
//
//   objectId  0             8               16
//            | tree's id    | node's number |      big-endian
//
// Numbers are used once, and the tree's id is another one in each life of the process, so that a
// handle never means another object than the one that it was made for.
struct ObjectId {
    uint64_t tree, node;
};
void WriteHandle(uint32_t shareId, const ObjectId& id, nfs_fh3* out);
// False when the handle is none of this module's.
bool ReadHandle(const nfs_fh3& handle, ObjectId* id);

// Constant after construction; any thread.
class MemoryExport final : public Export {
  public:
    MemoryExport(std::string path, uint32_t id, ClientRules rules, std::shared_ptr<Tree> tree);

    int AddMountPoint(const CLuIPAddr& client, nfs_fh3* root) override;
    FSModuleType GetFSMType() override;
    unsigned IsWritable() override { return rules_.AnyWritable() ? 1 : 0; }
    bool IsClientAllowed(XOIPAddr client, const std::string&) override {
        return rules_.Allows(client);
    }

    uint32_t Id() const { return id_; }
    const ClientRules& Rules() const { return rules_; }
    const std::shared_ptr<Tree>& Files() const { return tree_; }

  private:
    const uint32_t id_;
    const ClientRules rules_;
    const std::shared_ptr<Tree> tree_;
};

// Null when the share is another module's.
MemoryExport* AsMemory(Export* share);

class MemoryObject final : public BkEndProc, public boost::enable_shared_from_this<MemoryObject> {
  public:
    MemoryObject(uint32_t shareId, const std::string& sharePath, std::shared_ptr<Tree> tree,
                 NodePtr node);

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
    enum class Need { kRead, kModify };
    // Who calls, after squashing, when the client may do it at all; 0 or an errno.
    int WhoCalls(const OxelCtxt& ctxt, Need need, Caller* who) const;
    template <typename Work>
    int As(const OxelCtxt* ctxt, Need need, Work work) const;
    BkEndProcPtr ObjectFor(NodePtr node) const;
    BkEndProcPtr Make(OxelCtxt* ctxt, const std::string& name, mode_t mode);
    int Remove(const OxelCtxt* ctxt, const BkEndProcPtr& from, const std::string& path,
               bool wantDirectory);

    const uint32_t shareId_;
    const std::string sharePath_;
    const std::shared_ptr<Tree> tree_;
    const NodePtr node_;
    const std::string path_;
};

}  // namespace oxel::memory
