// SPDX-License-Identifier: Apache-2.0
//
// A file-system module that keeps its files in memory: the smallest one that does all that clients
// ask for, to read and to start from. docs/modules.md goes through it. Only the file that registers
// modules uses this header.
#pragma once

#include <string>

#include "backend/exports_file.h"
#include "backend/types.h"

namespace oxel {

// Stands in every handle of the module, so it never changes.
inline constexpr FSModuleType kMemoryModuleType = 3;

FSMPtr MakeMemoryModule();

// One share. Null, with a reason for people in *error, when the line says something that this
// module does not have. Shares with one id have one tree, for the life of the process: a share that
// a reload makes anew keeps its files.
ExportPtr MakeMemoryExport(const ShareConfig& share, std::string* error);

}  // namespace oxel
