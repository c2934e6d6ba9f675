// SPDX-License-Identifier: Apache-2.0
//
// A file system in memory behind the back-end contract: small, the same for every input, and with
// handles that a seed can name. One of its operations can be made to fail, and it tells afterwards
// whether it is still a tree.
#pragma once

#include <cstdint>
#include <string>

#include "backend/BkEndProc.h"
#include "backend/Export.h"
#include "backend/FSM.h"

namespace oxel::fuzz {

// Shares by number. Each begins with the same tree; node n of it has the handle
//
//   fsmType | shareId | n | 0x6e6f6465 "node"    four words, 16 bytes
//
// 1 the root, 2 "file" (100 bytes) with a second name "other name", 3 "directory", 4 "link"
// (symbolic, to "file"), 5 "large" (70,000 bytes), 6 "directory/below", 7 "directory/deeper", 9
// "many", a directory of 40 files, 10 to 49. What calls make is 50 and the next ones.
enum ShareNumber : uint32_t {
    kWritable = 1,
    kReadOnly = 2,  // for everybody
    kUnlisted = 3,  // of the module type that EXPORT does not show
    kRefused = 4,   // to every client
    kDamaged = 5,   // names a module that does not exist
    kShareEnd = 6,
};

class MemoryModule : public FSM {
  public:
    static constexpr FSModuleType kType = kLocalModuleType;

    // Registers modules and shares with the process's registries.
    static void Install();
    // Every share begins anew. Operation `failing` (from 1 on; 0: none) fails with `error`.
    static void Begin(unsigned failing, int error);
    // Nothing is open, every share is a tree, and none has changed that nobody may change. Aborts
    // with a word why when that does not hold.
    static void Check();

    std::string GetHandleString(const nfs_fh3& handle) override;
    BkEndProcPtr GetBkEndProc(ExportPtr& share, const nfs_fh3& handle) override;
    bool GetExportForHandle(const nfs_fh3& handle, ExportPtr& share) override;
};

// Ends the process with a word why unless `holds`.
void Demand(bool holds, const char* what);

}  // namespace oxel::fuzz
