// SPDX-License-Identifier: Apache-2.0
//
// The module and its shares: handles, and which tree belongs to which share.
#include "modules/memory/memory_module.h"

#include <endian.h>

#include <boost/make_shared.hpp>
#include <cerrno>
#include <cstring>
#include <map>
#include <new>

#include "backend/ExportCache.h"
#include "backend/FSM.h"
#include "modules/memory/memory_object.h"

namespace oxel::memory {

void WriteHandle(uint32_t shareId, const ObjectId& id, nfs_fh3* out) {
    const uint64_t words[] = {htobe64(id.tree), htobe64(id.node)};
    out->nfh_len = nfs_fh3::kLengthMin + sizeof words;
    out->fsmType = kMemoryModuleType;
    out->shareId = shareId;
    memcpy(out->objectId, words, sizeof words);
}

bool ReadHandle(const nfs_fh3& handle, ObjectId* id) {
    uint64_t words[2];
    if (handle.nfh_len != nfs_fh3::kLengthMin + sizeof words || handle.fsmType != kMemoryModuleType)
        return false;
    memcpy(words, handle.objectId, sizeof words);
    *id = {be64toh(words[0]), be64toh(words[1])};
    return true;
}

MemoryExport* AsMemory(Export* share) {
    return dynamic_cast<MemoryExport*>(share);
}

MemoryExport::MemoryExport(std::string path, uint32_t id, ClientRules rules,
                           std::shared_ptr<Tree> tree)
    : Export(std::move(path)), id_(id), rules_(std::move(rules)), tree_(std::move(tree)) {}

FSModuleType MemoryExport::GetFSMType() {
    return kMemoryModuleType;
}

int MemoryExport::AddMountPoint(const CLuIPAddr& client, nfs_fh3* root) {
    WriteHandle(id_, {tree_->Id(), Tree::Number(*tree_->Root())}, root);
    try {
        gAllExports.RecordMount(id_, client.GetAddressString());
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return -1;
    }
    return 0;
}

namespace {

class MemoryModule final : public FSM {
  public:
    std::string GetHandleString(const nfs_fh3& handle) override {
        ObjectId id{};
        (void)ReadHandle(handle, &id);  // of what is no handle, node 0
        return "memory:" + std::to_string(handle.shareId) + ":" + std::to_string(id.node);
    }

    BkEndProcPtr GetBkEndProc(ExportPtr& share, const nfs_fh3& handle) override {
        const MemoryExport* memory = AsMemory(share.get());
        ObjectId id;
        if (memory == nullptr || !ReadHandle(handle, &id) || handle.shareId != memory->Id() ||
            id.tree != memory->Files()->Id())
            return nullptr;
        try {
            NodePtr node = memory->Files()->ByNumber(id.node);
            if (!node) return nullptr;
            return boost::make_shared<MemoryObject>(memory->Id(), memory->GetPath(),
                                                    memory->Files(), std::move(node));
        } catch (const std::bad_alloc&) {
            return nullptr;
        }
    }

    bool GetExportForHandle(const nfs_fh3& handle, ExportPtr& share) override {
        ExportPtr found;
        if (!gAllExports.FindExportById(handle.shareId, found)) return false;
        if (AsMemory(found.get()) == nullptr) return false;
        share = std::move(found);
        return true;
    }
};

// A reload makes a share anew when its line has changed; its files must not go with the old one.
std::shared_ptr<Tree> TreeOf(uint32_t shareId) {
    static XoCriticalSection mutex;
    static std::map<uint32_t, std::shared_ptr<Tree>> trees;
    XoCriticalSectionGuard lock(mutex);
    std::shared_ptr<Tree>& tree = trees[shareId];
    if (!tree) tree = std::make_shared<Tree>();
    return tree;
}

}  // namespace
}  // namespace oxel::memory

namespace oxel {

FSMPtr MakeMemoryModule() {
    return boost::make_shared<memory::MemoryModule>();
}

ExportPtr MakeMemoryExport(const ShareConfig& share, std::string* error) {
    if (share.unlisted) {
        // EXPORT leaves shares out by their module's type, of which this module has one.
        *error = "shares in memory cannot be unlisted";
        return nullptr;
    }
    return boost::make_shared<memory::MemoryExport>(share.path, share.id, share.clients,
                                                    memory::TreeOf(share.id));
}

}  // namespace oxel
