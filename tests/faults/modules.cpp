// SPDX-License-Identifier: Apache-2.0
//
// The modules of the daemon with the faulty back end: those of bin/modules.cpp, which is compiled
// into this program with its function renamed, each behind one that can fail.
#include <cstdlib>
#include <string>
#include <utility>

#include "backend/FSMCache.h"
#include "backend/share_set.h"
#include "base/log.h"
#include "base/store.h"
#include "bin/modules.h"
#include "modules/local/local_module.h"
#include "tests/faults/faulty_module.h"

bool InitializeSoundFileSystemModules();  // bin/modules.cpp's InitializeFileSystemModules()

bool InitializeFileSystemModules() {
    const char* root = getenv("OXEL_ROOT");
    std::string error = "OXEL_ROOT is not set";
    if (root == nullptr || !oxel::test::MapFaults(std::string(root) + "/faults", &error)) {
        OXEL_LOG(-1, "Error: No plan for faults: %s", error.c_str());
        return false;
    }
    if (!InitializeSoundFileSystemModules()) return false;
    for (const FSModuleType type : {kLocalModuleType, kUnlistedModuleType}) {
        FSMPtr module;
        if (!FSMCache::GetFSM(type, module)) return false;
        FSMCache::SetFSM(type, oxel::test::WithFaults(std::move(module)));
    }
    // The shares once more, each behind a faulty one.
    const auto make = [](const oxel::ShareConfig& config, std::string* reason) {
        return oxel::test::WithFaults(oxel::MakeLocalExport(config, reason), config);
    };
    const auto isCurrent = [](const ExportPtr& share, const oxel::ShareConfig& config) {
        return oxel::LocalExportIsCurrent(oxel::test::WithoutFaults(share), config);
    };
    oxel::gShareSet.Load(oxel::InstancePaths(XOPI_Focus::focus()).exports, {make, isCurrent});
    return true;
}
