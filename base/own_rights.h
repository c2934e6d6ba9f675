// SPDX-License-Identifier: Apache-2.0
//
// The process's own rights for a scope. A worker thread keeps the file-system ids of the caller it
// last worked for; what it then opens or renames for the daemon itself needs the daemon's.
#pragma once

#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

namespace oxel {

// Per thread (the raw system calls change the calling thread only).
class OwnRights {
  public:
    OwnRights()
        : gid_(static_cast<gid_t>(syscall(SYS_setfsgid, getegid()))),
          uid_(static_cast<uid_t>(syscall(SYS_setfsuid, geteuid()))) {}
    ~OwnRights() {
        (void)syscall(SYS_setfsuid, uid_);  // both answer the id before and never fail
        (void)syscall(SYS_setfsgid, gid_);
    }
    OwnRights(const OwnRights&) = delete;
    OwnRights& operator=(const OwnRights&) = delete;

  private:
    const gid_t gid_;
    const uid_t uid_;
};

}  // namespace oxel
