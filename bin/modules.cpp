// SPDX-License-Identifier: Apache-2.0
//
// The only file that names concrete file-system modules.
#include "bin/modules.h"

#include <string>

#include "backend/ExportCache.h"
#include "backend/FSMCache.h"
#include "backend/share_set.h"
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

    oxel::gShareSet.Load(paths.exports, {oxel::MakeLocalExport, oxel::LocalExportIsCurrent,
                                         oxel::LocalModuleActsForCallers()});
    gAllExports.LoadFromDisk();
    XoTimer::Register(OxelTimerTaskIdleFiles, CloseIdleFiles, kIdleFilesCheckMs, 0, nullptr);
    return true;
}

void SettleFileSystemModules() {
    oxel::SettlePlaces();
}
