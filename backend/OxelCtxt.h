// SPDX-License-Identifier: Apache-2.0
//
// The context of one request, handed to every back-end operation.
#pragma once

#include <utility>

#include "backend/IdInfo.h"
#include "backend/types.h"

// Lives on a handler's stack; the IdInfo (in the call record) must outlive it.
struct OxelCtxt {
    OxelCtxt(const IdInfo& caller, ExportPtr share, BkEndProcPtr worksOn)
        : id(caller), exportPtr(std::move(share)), object(std::move(worksOn)) {}
    // For operations that touch two objects: REMOVE (the object and its directory), RENAME (the
    // source directory and the target directory).
    OxelCtxt(const IdInfo& caller, ExportPtr share, BkEndProcPtr worksOn, BkEndProcPtr second)
        : id(caller),
          exportPtr(std::move(share)),
          object(std::move(worksOn)),
          secondObject(std::move(second)) {}

    const IdInfo& id;
    ExportPtr exportPtr;
    BkEndProcPtr object;
    BkEndProcPtr secondObject;  // null unless the 4-argument constructor was used
    bool flag = false;          // free for a module's use within one call
};
