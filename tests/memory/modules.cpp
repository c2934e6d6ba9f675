// SPDX-License-Identifier: Apache-2.0
//
// The modules of a daemon that has the one in memory beside that of local directories: what
// bin/modules.cpp and backend/module_names.cpp would be with two modules.
#include "backend/module_names.h"

#include "backend/ExportCache.h"
#include "backend/FSMCache.h"
#include "backend/share_set.h"
#include "base/log.h"
#include "base/store.h"
#include "bin/modules.h"
#include "modules/local/local_module.h"
#include "modules/memory/memory_module.h"

const std::vector<oxel::ModuleName>& oxel::ModuleNames() {
    static const std::vector<ModuleName> names = {{"local", true}, {"memory", false}};
    return names;
}

static ExportPtr MakeExport(const oxel::ShareConfig& share, std::string* error) {
    if (share.module == "memory") return oxel::MakeMemoryExport(share, error);
    return oxel::MakeLocalExport(share, error);
}

// What a share in memory serves depends on nothing but its line.
static bool ExportIsCurrent(const ExportPtr& served, const oxel::ShareConfig& share) {
    return share.module == "memory" || oxel::LocalExportIsCurrent(served, share);
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
    FSMCache::SetFSM(oxel::kMemoryModuleType, oxel::MakeMemoryModule());
    oxel::gShareSet.Load(paths.exports, {MakeExport, ExportIsCurrent});
    gAllExports.LoadFromDisk();
    return true;
}

void SettleFileSystemModules() {
    oxel::SettlePlaces();
}
