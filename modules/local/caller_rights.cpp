// SPDX-License-Identifier: Apache-2.0
//
// Squashing, and switching of a thread's rights. The raw system calls are used because the C
// library's setgroups changes every thread of the process.
#include "modules/local/caller_rights.h"

#include <linux/capability.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <optional>

#include "backend/refusal_log.h"
#include "modules/local/call_state.h"
#include "modules/local/local_export.h"
#include "modules/local/object.h"
#include "modules/local/server_groups.h"

namespace oxel::local {
namespace {

constexpr uid_t kNoUid = static_cast<uid_t>(-1);
constexpr gid_t kNoGid = static_cast<gid_t>(-1);

struct Process {
    uid_t uid = geteuid();
    gid_t gid = getegid();
    bool canSwitch = false;

    Process() {
        __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
        __user_cap_data_struct data[2] = {};
        if (uid != 0 || syscall(SYS_capget, &header, data) != 0) return;
        const uint32_t needed = 1u << CAP_SETUID | 1u << CAP_SETGID;
        canSwitch = (data[0].effective & needed) == needed;
    }
};
const Process& process() {
    static const Process instance;
    return instance;
}

// setfsuid and setfsgid answer the id that held before, whether or not they change it; an id that
// cannot exist changes nothing and so asks for the one that holds.
uid_t SetFsUid(uid_t uid) {
    return static_cast<uid_t>(syscall(SYS_setfsuid, uid));
}
gid_t SetFsGid(gid_t gid) {
    return static_cast<gid_t>(syscall(SYS_setfsgid, gid));
}

// Without CAP_SYS_RESOURCE the caller is held to his quota and kept off the blocks that the file
// system reserves for root. Root's own file-system id still reaches those.
void DropResourceCapability() {
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2] = {};
    if (syscall(SYS_capget, &header, data) != 0) return;
    data[0].effective &= ~(1u << CAP_SYS_RESOURCE);
    // A failure leaves quotas unenforced, as they are for root; nothing to be done about it here.
    (void)syscall(SYS_capset, &header, data);
}

// What the calling thread's rights are known to be.
struct ThreadRights {
    uid_t uid = SetFsUid(kNoUid);
    gid_t gid = SetFsGid(kNoGid);
    std::vector<gid_t> groups;
    bool groupsKnown = false;
    bool resourceDropped = false;

    bool SetIds(uid_t newUid, gid_t newGid) {
        if (gid != newGid) {
            SetFsGid(newGid);
            gid = SetFsGid(kNoGid);
        }
        if (uid != newUid) {
            SetFsUid(newUid);
            uid = SetFsUid(kNoUid);
        }
        return uid == newUid && gid == newGid;
    }
    bool SetGroups(const std::vector<gid_t>& newGroups) {
        if (groupsKnown && groups == newGroups) return true;
        groupsKnown = false;
        if (syscall(SYS_setgroups, newGroups.size(), newGroups.data()) != 0) return false;
        groups = newGroups;
        groupsKnown = true;
        return true;
    }
};
ThreadRights& threadRights() {
    static thread_local ThreadRights instance;
    return instance;
}

// The rule that holds for a client, remembered from the thread's last operation: most calls of a
// thread come from few clients.
const ClientOptions* OptionsFor(const LocalExport& share, const CLuIPAddr& client) {
    struct Last {
        uint64_t share = 0;
        std::optional<XOIPAddr> client;
        std::optional<ClientOptions> options;
    };
    static thread_local Last last;
    const XOIPAddr address(client);
    if (last.share != share.Serial() || !last.client || !(*last.client == address)) {
        const ClientRule* rule = share.Rules().Match(address);
        last.share = share.Serial();
        last.client = address;
        last.options = rule != nullptr ? std::optional(rule->options) : std::nullopt;
    }
    return last.options ? &*last.options : nullptr;
}

Identity Squash(const IdInfo& caller, const ClientOptions& options) {
    Identity who{options.UidFor(caller.uid), options.GidFor(caller.gid), {}};
    if (options.allSquash) return who;
    who.groups = options.manageGids ? GroupsOfUser(caller.uid) : caller.groups;
    for (gid_t& group : who.groups) group = options.GidFor(group);
    return who;
}

}  // namespace

bool CanSwitchRights() {
    return process().canSwitch;
}

void BecomeOwn() {
    if (!process().canSwitch) return;
    // Groups mean nothing to root, so they may stay.
    (void)threadRights().SetIds(process().uid, process().gid);
}

OwnRightsScope::OwnRightsScope() {
    if (!process().canSwitch) return;
    uid_ = threadRights().uid;
    gid_ = threadRights().gid;
    BecomeOwn();
}

OwnRightsScope::~OwnRightsScope() {
    if (!process().canSwitch) return;
    const int error = errno;  // of what was done meanwhile
    (void)threadRights().SetIds(uid_, gid_);
    errno = error;
}

CallerRights::CallerRights(const OxelCtxt* ctxt, const LocalObject& object, Need need)
    : ctxt_(ctxt) {
    CallState::Get().OperationStarts();
    share_ = AsLocal(ctxt->exportPtr.get());
    if (share_ == nullptr || share_->Root().Serial() != object.Share().Serial()) {
        errno = EXDEV;
        return;
    }
    const ClientOptions* options = OptionsFor(*share_, ctxt->id.clientAddress);
    if (options == nullptr) {
        errno = EACCES;
        return;
    }
    if (need == Need::kModify && !options->writable) {
        const CLuIPAddr& client = ctxt->id.clientAddress;
        LogRefusedChange(client, share_->GetPath(), share_->Rules().Match(XOIPAddr(client)));
        errno = EROFS;
        return;
    }
    if (CanSwitchRights()) {
        who_ = Squash(ctxt->id, *options);
    } else {
        who_ = Identity{process().uid, process().gid, {}};
    }
    allowed_ = true;
}

bool CallerRights::Become() const {
    if (!process().canSwitch) return true;
    ThreadRights& rights = threadRights();
    if (who_.uid != process().uid) {
        if (!rights.resourceDropped) {
            DropResourceCapability();
            rights.resourceDropped = true;
        }
        if (!rights.SetGroups(who_.groups)) {
            errno = EACCES;
            return false;
        }
    }
    if (rights.SetIds(who_.uid, who_.gid)) return true;
    // An id that does not exist in this user namespace: acting with any other would be wrong.
    BecomeOwn();
    errno = EACCES;
    return false;
}

void CallerRights::MapOwnIds(uid_t* uid, gid_t* gid) const {
    if (*uid != ctxt_->id.uid || *gid != ctxt_->id.gid) return;
    *uid = who_.uid;
    *gid = who_.gid;
}

}  // namespace oxel::local

namespace oxel {

void RestoreOwnRights() {
    local::BecomeOwn();
}

}  // namespace oxel
