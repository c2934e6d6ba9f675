// SPDX-License-Identifier: Apache-2.0
//
// The only file that names concrete file-system modules.
#include "bin/modules.h"

#include <string>
#include <utility>
#include <vector>

#include "backend/Export.h"
#include "backend/ExportCache.h"
#include "backend/FSMCache.h"
#include "backend/exports_file.h"
#include "base/log.h"
#include "base/store.h"
#include "base/timer.h"
#include "modules/local/local_module.h"

// A file that was removed on this machine gives its blocks back, and a program that a client wrote
// can be started here, at most these two times after its last use by a client.
static constexpr unsigned kIdleFilesMs = 10000, kIdleFilesCheckMs = 5000;

static XOTimerErrno CloseIdleFiles(void*) {
    oxel::DropIdleLocalFiles(kIdleFilesMs);
    return 0;
}

bool InitializeFileSystemModules() {
    const oxel::InstancePaths paths(XOPI_Focus::focus());
    std::string error;
    if (!oxel::InitializeHandleKey(paths.handleKey, &error)) {
        OXEL_LOG(-1, "Error: No key to sign file handles with: %s", error.c_str());
        return false;
    }
    oxel::KeepPlacesIn(paths.stateDir + "/inodes");
    FSMCache::SetFSM(kLocalModuleType, oxel::MakeLocalModule(kLocalModuleType));
    FSMCache::SetFSM(kUnlistedModuleType, oxel::MakeLocalModule(kUnlistedModuleType));
    OXEL_LOG(1, "%s", oxel::DescribeLocalModule().c_str());

    const oxel::ExportsFile file = oxel::ReadExportsFile(paths.exports);
    for (const oxel::ExportsError& bad : file.errors)
        OXEL_LOG(-1, "Error: %s:%d: %s. The share is not served.", bad.file.c_str(), bad.line,
                 bad.reason.c_str());
    std::vector<std::pair<unsigned int, ExportPtr>> shares;
    for (const oxel::ShareConfig& config : file.shares) {
        ExportPtr share = oxel::MakeLocalExport(config, &error);
        if (!share) {
            OXEL_LOG(-1, "Error: %s:%d: %s. The share is not served.", paths.exports.c_str(),
                     config.line, error.c_str());
            continue;
        }
        OXEL_LOG(1, "Share [%s] id [%u] directory [%s] %s", config.path.c_str(), config.id,
                 config.directory.c_str(), share->IsWritable() ? "read-write" : "read-only");
        shares.emplace_back(config.id, std::move(share));
    }
    if (shares.empty()) OXEL_LOG(-1, "Warning: No share is defined in %s.", paths.exports.c_str());
    gAllExports.Replace(std::move(shares));
    gAllExports.LoadFromDisk();
    XoTimer::Register(OxelTimerTaskIdleFiles, CloseIdleFiles, kIdleFilesCheckMs, 0, nullptr);
    return true;
}

void SettleFileSystemModules() {
    oxel::SettlePlaces();
}
