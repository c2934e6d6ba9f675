// SPDX-License-Identifier: Apache-2.0
//
// The module: handles to shares and objects.
#include "modules/local/local_module.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include <boost/make_shared.hpp>

#include "backend/ExportCache.h"
#include "backend/FSM.h"
#include "backend/FdCache.h"
#include "modules/local/call_state.h"
#include "modules/local/caller_rights.h"
#include "modules/local/inode_map.h"
#include "modules/local/local_export.h"
#include "modules/local/object_cache.h"
#include "modules/local/resolver.h"
#include "modules/local/syscalls.h"
#include "modules/local/write_errors.h"

namespace oxel::local {
namespace {

// The share that a handle belongs to: the one at hand, or, for the second handle of a RENAME or
// LINK, perhaps another one. The operation then fails with EXDEV, which the client understands;
// were the object refused here, the client would take it for removed.
LocalExport* ShareOf(const nfs_fh3& handle, const ExportPtr& share, ExportPtr* other) {
    const auto matches = [&](LocalExport* candidate) {
        return candidate != nullptr && candidate->Root().ShareId() == handle.shareId &&
               candidate->Root().Type() == handle.fsmType;
    };
    auto* local = AsLocal(share.get());
    if (matches(local)) return local;
    if (!gAllExports.FindExportById(handle.shareId, *other)) return nullptr;
    local = AsLocal(other->get());
    return matches(local) ? local : nullptr;
}

class LocalModule final : public FSM {
  public:
    explicit LocalModule(FSModuleType type) : type_(type) {}

    // "type:share:objectId", the last in hexadecimal.
    std::string GetHandleString(const nfs_fh3& handle) override {
        return Guarded(std::string(), [&] {
            static const char kDigits[] = "0123456789abcdef";
            std::string text =
                std::to_string(handle.fsmType) + ":" + std::to_string(handle.shareId) + ":";
            if (handle.nfh_len < nfs_fh3::kLengthMin || handle.nfh_len > nfs_fh3::kLengthMax) {
                return text;
            }
            for (uint32_t i = 0; i < handle.nfh_len - nfs_fh3::kLengthMin; ++i) {
                text += kDigits[handle.objectId[i] >> 4];
                text += kDigits[handle.objectId[i] & 15];
            }
            return text;
        });
    }

    BkEndProcPtr GetBkEndProc(ExportPtr& share, const nfs_fh3& handle) override {
        return Guarded(BkEndProcPtr(), [&]() -> BkEndProcPtr {
            ExportPtr other;
            ObjectId id;
            LocalExport* local = ShareOf(handle, share, &other);
            if (local == nullptr || !ReadObjectId(handle, &id)) return nullptr;
            struct stat st;
            boost::shared_ptr<LocalObject> object = Resolve(*local, id, &st);
            if (object) CallState::Get().Resolved(object, st);
            return object;
        });
    }

    bool GetExportForHandle(const nfs_fh3& handle, ExportPtr& share) override {
        return Guarded(false, [&] {
            ExportPtr found;
            if (handle.fsmType != type_) return false;
            if (!gAllExports.FindExportById(handle.shareId, found) || !found) return false;
            if (found->GetFSMType() != type_) return false;
            share = found;
            return true;
        });
    }

  private:
    const FSModuleType type_;
};

}  // namespace
}  // namespace oxel::local

namespace oxel {

FSMPtr MakeLocalModule(FSModuleType type) {
    // Clients have taken their own mask into account; the process's belongs to nobody. What the
    // daemon makes for itself it makes with modes that need no mask.
    static const mode_t before = umask(0);
    (void)before;
    return boost::make_shared<local::LocalModule>(type);
}

bool LocalModuleActsForCallers() {
    return local::CanSwitchRights();
}

std::string DescribeLocalModule() {
    if (local::CanSwitchRights()) {
        return "Local files are accessed with the rights of each caller.";
    }
    return "Not started with root's rights: local files are accessed with the rights of user " +
           std::to_string(geteuid()) +
           " for every caller, and file handles are made of inode numbers.";
}

void DropIdleLocalFiles(unsigned idleMs) {
    // The kernel has written most of such data by then, so this seldom waits for the disk.
    constexpr unsigned kUncommittedMs = 30 * 1000;
    local::DelayedWrites::Instance().SettleIdle(local::NowMs() - std::max(idleMs, kUncommittedMs));
    local::FlushPlaces();
    gFdCache.ForgetIdle(idleMs);
    local::ObjectCache::Instance().DropIdle(local::NowMs() - int64_t{idleMs} + 1);
}

}  // namespace oxel
