// SPDX-License-Identifier: Apache-2.0
//
// This function alone, so that a program can have its own in its place.
#include "backend/module_names.h"

namespace oxel {

const std::vector<ModuleName>& ModuleNames() {
    static const std::vector<ModuleName> names = {{"local", true}};
    return names;
}

}  // namespace oxel
