// SPDX-License-Identifier: Apache-2.0
//
// The registry of file-system modules, by type.
#pragma once

#include "backend/types.h"

class FSMCache {
  public:
    // False, with `module` untouched, when no module of that type exists. Any thread.
    static bool GetFSM(FSModuleType type, FSMPtr& module);
    // Adds or replaces a module; a null pointer removes it. At start, and in tests.
    static void SetFSM(FSModuleType type, FSMPtr module);
};
