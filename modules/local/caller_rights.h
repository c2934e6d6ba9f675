// SPDX-License-Identifier: Apache-2.0
//
// Whose rights a thread has in the file system. The kernel keeps file-system user id, group id and
// groups per thread; a worker thread takes those of the caller it works for. Other threads never
// come here and keep the process's own.
#pragma once

#include <sys/types.h>

#include <vector>

#include "backend/OxelCtxt.h"

namespace oxel::local {

class LocalExport;
class LocalObject;

// With whose rights an operation is done: after squashing, and with the groups that count here.
struct Identity {
    uid_t uid;
    gid_t gid;
    std::vector<gid_t> groups;
};

// Whether the process may act for others: it is root and has CAP_SETUID and CAP_SETGID. If not,
// everything happens with its own rights. Decided once, at the first use of the module.
bool CanSwitchRights();

// Gives the calling thread the process's own rights again; needed for what only root may do. A
// thread keeps the rights that it was given until the next switch, because switching costs more
// than most operations.
void BecomeOwn();

// The process's own rights for the length of a scope, then those that the thread had before.
class OwnRightsScope {
  public:
    OwnRightsScope();
    ~OwnRightsScope();
    OwnRightsScope(const OwnRightsScope&) = delete;
    OwnRightsScope& operator=(const OwnRightsScope&) = delete;

  private:
    uid_t uid_ = 0;
    gid_t gid_ = 0;
};

// One operation's check of who may do what. Fails with EACCES for a client that no rule of the
// share matches, with EROFS for a modification by a client whose rule says ro, and with EXDEV for
// an object of another share than the context's (the rules that were checked are not that share's).
class CallerRights {
  public:
    enum class Need { kRead, kModify };
    CallerRights(const OxelCtxt* ctxt, const LocalObject& object, Need need);

    // False with errno when the operation must not be done.
    explicit operator bool() const { return allowed_; }
    // Gives the thread the caller's rights, unless it has them. False with errno.
    bool Become() const;
    const Identity& Who() const { return who_; }
    // The ids that stand for the caller's own, as the client sent them, mapped as the caller is;
    // other ids unchanged.
    void MapOwnIds(uid_t* uid, gid_t* gid) const;
    LocalExport& Share() const { return *share_; }

  private:
    const OxelCtxt* const ctxt_;
    LocalExport* share_ = nullptr;
    Identity who_{};
    bool allowed_ = false;
};

}  // namespace oxel::local
