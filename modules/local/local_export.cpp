// SPDX-License-Identifier: Apache-2.0
//
// Shares of local directories.
#include "modules/local/local_export.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "backend/ExportCache.h"
#include "backend/FdCache.h"
#include "backend/refusal_log.h"
#include "base/log.h"
#include "modules/local/local_module.h"
#include "modules/local/object_cache.h"
#include "modules/local/syscalls.h"
#include "modules/local/write_errors.h"

namespace oxel::local {
namespace {

std::atomic<uint64_t> exportSerials{0};

boost::shared_ptr<LocalObject> MakeRootObject(const std::shared_ptr<ShareRoot>& root) {
    UniqueFd fd = DupAside(root->Fd());
    struct stat st;
    if (!fd) return nullptr;
    const std::string path = root->Prefix().empty() ? "/" : root->Prefix();
    return LocalObject::FromFd(root, std::move(fd), path, &st, FileNode::Opened::kForReading);
}

}  // namespace

LocalExport::LocalExport(std::string path, ClientRules rules,
                         boost::shared_ptr<LocalObject> rootObject)
    : Export(std::move(path)),
      rules_(std::move(rules)),
      rootObject_(std::move(rootObject)),
      root_(rootObject_->SharePtr()),
      serial_(exportSerials.fetch_add(1, std::memory_order_relaxed) + 1) {
    root_->AddExport();
}

LocalExport::~LocalExport() {
    if (!root_->DropExport()) return;
    // Nobody exports the directory any more: what is kept open must not keep its file system busy.
    (void)Guarded(-1, [] {  // what it does not reach is told to the writers later
        DelayedWrites::Instance().SettleIdle(NowMs() + 1);
        return 0;
    });
    ObjectCache::Instance().DropShare(root_->Serial());
    gFdCache.Clear();
}

int LocalExport::AddMountPoint(const CLuIPAddr& client, nfs_fh3* root) {
    return Guarded(-1, [&] {
        // What the caller does next (saving the registry) is the process's own business, and in
        // single-threaded mode this thread may still have the rights of a caller.
        BecomeOwn();
        rootObject_->GetFileHandle(root);
        gAllExports.RecordMount(root_->ShareId(), client.GetAddressString());
        return 0;
    });
}

bool LocalExport::IsClientAllowed(XOIPAddr client, const std::string&) {
    if (rules_.Allows(client)) return true;
    LogRefusedClient(client, GetPath(), rules_);
    return false;
}

}  // namespace oxel::local

namespace oxel {

ExportPtr MakeLocalExport(const ShareConfig& share, std::string* error) {
    return local::Guarded(ExportPtr(), [&]() -> ExportPtr {
        const FSModuleType type = share.unlisted ? kUnlistedModuleType : kLocalModuleType;
        const auto root = local::ShareRoot::Open(type, share.id, share.directory, error);
        if (!root) return nullptr;
        auto rootObject = local::MakeRootObject(root);
        if (!rootObject) {
            *error = "cannot use the directory " + share.directory + ": " + strerror(errno);
            return nullptr;
        }
        if (root->Kind() == local::HandleKind::kInode && local::CanSwitchRights()) {
            OXEL_LOG(1,
                     "Share [%s]: the file system of [%s] has no lasting file handles; inode "
                     "numbers stand in for them.",
                     share.path.c_str(), share.directory.c_str());
        }
        return boost::make_shared<local::LocalExport>(share.path, share.clients,
                                                      std::move(rootObject));
    });
}

bool LocalExportIsCurrent(const ExportPtr& served, const ShareConfig& share) {
    const auto* local = dynamic_cast<local::LocalExport*>(served.get());
    if (local == nullptr) return false;
    local::BecomeOwn();
    struct stat st;
    return stat(share.directory.c_str(), &st) != 0 || local->Root().IsRoot(st);
}

}  // namespace oxel
