// SPDX-License-Identifier: Apache-2.0
//
// The registry of file-system modules. Every call looks its module up here, so a look-up is a
// shared lock and one probe of a small map.
#include "backend/FSMCache.h"

#include <map>

#include "backend/FSM.h"
#include "base/sync.h"

namespace {

struct Registry {
    oxel::SharedSection section;
    std::map<FSModuleType, FSMPtr> modules GUARDED_BY(section);
};

// Never destroyed: worker threads may still look up while the process ends.
Registry& TheRegistry() {
    static Registry* registry = new Registry;
    return *registry;
}

}  // namespace

bool FSMCache::GetFSM(FSModuleType type, FSMPtr& module) {
    Registry& registry = TheRegistry();
    oxel::SharedGuard lock(registry.section);
    auto it = registry.modules.find(type);
    if (it == registry.modules.end()) return false;
    module = it->second;
    return true;
}

void FSMCache::SetFSM(FSModuleType type, FSMPtr module) {
    Registry& registry = TheRegistry();
    // The module that goes is released by the caller, after the lock: its destructor is not ours to
    // know.
    oxel::ExclusiveGuard lock(registry.section);
    if (module) {
        registry.modules[type].swap(module);
    } else if (auto it = registry.modules.find(type); it != registry.modules.end()) {
        module.swap(it->second);
        registry.modules.erase(it);
    }
}
