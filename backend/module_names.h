// SPDX-License-Identifier: Apache-2.0
//
// The modules that an exports file can name. Here rather than where modules are registered, because
// `oxelctl check` reads the file without having any.
#pragma once

#include <string>
#include <vector>

namespace oxel {

struct ModuleName {
    const char* name;      // of module=NAME
    bool servesDirectory;  // whether the share's directory must exist on this machine
};

// The first is the one of shares that name none. A program with other modules (the tests have one)
// defines this function itself in place of module_names.cpp.
const std::vector<ModuleName>& ModuleNames();

}  // namespace oxel
