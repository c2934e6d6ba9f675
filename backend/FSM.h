// SPDX-License-Identifier: Apache-2.0
//
// A file-system module: it makes and reads the handles of one module type.
#pragma once

#include <string>

#include "backend/nfs_fh3.h"
#include "backend/types.h"

// All operations are called from many threads at once and throw nothing.
class FSM {
  public:
    virtual ~FSM() = default;

    // A printable form of a handle, for log lines.
    virtual std::string GetHandleString(const nfs_fh3& handle) = 0;
    // The object that the handle names inside the share; null when there is none (the client gets
    // NFS3ERR_STALE). Never another object than the one the handle was made for.
    virtual BkEndProcPtr GetBkEndProc(ExportPtr& share, const nfs_fh3& handle) = 0;
    // The share that the handle's shareId names; false, or a null pointer, when there is none.
    virtual bool GetExportForHandle(const nfs_fh3& handle, ExportPtr& share) = 0;
};
