// SPDX-License-Identifier: Apache-2.0
//
// The procedures that make a name: CREATE, MKDIR, SYMLINK and MKNOD. A new object's handle is
// always the back end's; a name that was made stays made whatever fails after it.
#include <fcntl.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "backend/BkEndProc.h"
#include "base/log.h"
#include "base/perf_counter.h"
#include "nfs3/nfs3proc.h"

namespace {

// For objects whose creator names no mode. The digits are hexadecimal (03567 in octal), which
// clients of this server have always been given and may rely on.
constexpr mode_t kDefaultMode = 0x777;

// All four fail alike.
template <typename Result>
bool_t FillMadeFailRes(Result* result, nfsstat3 status) {
    result->status = status;
    ClearFollows(&result->resfail.dir_wcc);
    return TRUE;
}

}  // namespace

void DumpDiropArgs(FSMPtr& module, diropargs3* args) {
    OXEL_LOG(4, "fh [%s]", module->GetHandleString(args->dir).c_str());
    OXEL_LOG(3, "Name = [%s]", args->name);
}

// ---- CREATE (RFC 1813 section 3.3.8) ----

bool_t FillCreateFailRes(CREATE3res* result, nfsstat3 status) {
    return FillMadeFailRes(result, status);
}

// EXCLUSIVE's verifier lies where the other modes have set_it and the mode: one whose first word is
// 1 gives the mode with its second.
static mode_t CreationMode(const createhow3& how) {
    return how.obj_attributes.mode.set_it == TRUE ? how.obj_attributes.mode.value : kDefaultMode;
}

bool_t Handle_CREATE3(CallInfo3* call) {
    PerfCounterWrapper counter("NFS", 51);
    CREATE3args& args = call->arguments().create;
    createhow3& how = args.how;
    const char* name = args.where.name;
    CREATE3res* result = &call->result.create;
    CREATE3resok* resok = &result->resok;

    FSMPtr module;
    const nfsstat3 allowed =
        ValidateAndAuthorize(args.where.dir, call->identity, module, call->exportPtr, kForWrite);
    if (allowed != NFS3_OK) return FillCreateFailRes(result, allowed);
    DumpDiropArgs(module, &args.where);
    const bool hasAttributes = how.mode == UNCHECKED || how.mode == GUARDED;
    if (hasAttributes) {
        OXEL_LOG(3, "mode = %s", how.mode == UNCHECKED ? "UNCHECKED" : "GUARDED");
        Dumpsattr3(how.obj_attributes);
    } else {
        OXEL_LOG(3, "mode = %s verf = %llu", "EXCLUSIVE",
                 static_cast<unsigned long long>(how.Verifier()));
    }
    const BkEndProcPtr parent = module->GetBkEndProc(call->exportPtr, args.where.dir);
    if (!parent) {
        OXEL_LOG(-1, "Error: Creating [%s]. Parent Directory Not Found. FH [%s] IP [%s]", name,
                 FH2Str(args.where.dir).c_str(), GetClientIPStr(call->transport->xp_raddr).c_str());
        return FillCreateFailRes(result, NFS3ERR_STALE);
    }

    // A success announces the attributes from before and sends zeros: no directory has such times,
    // so a client never takes what it has cached of the directory for current.
    resok->dir_wcc.before.attributes_follow = TRUE;
    const std::string& parentPath = parent->GetPath();
    OxelCtxt parentCtxt(call->identity, call->exportPtr, parent);
    wcc_attr before{};
    const int beforeErr = OSStatToWccAttr(&parentCtxt, parentPath, &before);
    if (beforeErr != 0) return FillCreateFailRes(result, SysErrToNFSErr(beforeErr, true));

    const std::string path = parentPath + "/" + name;
    int flags = 0;
    bool mayExist = true;
    switch (how.mode) {
        case UNCHECKED:
            flags = O_RDWR | O_CREAT | O_APPEND;
            break;
        case GUARDED:
            flags = O_CREAT;
            mayExist = false;
            break;
        case EXCLUSIVE:
            flags = O_CREAT | O_EXCL;
            mayExist = false;
            break;
        default:  // no decoder lets it through
            OXEL_LOG(-1, "Error: Invalid flags. [%x].", how.mode);
            break;
    }
    errno = ENOENT;  // for a back end that gives no reason
    BkEndProcPtr child = parent->FindChild(&parentCtxt, name);
    if (!child) {
        // A name that could not be looked for may well exist: a file that must not be there would
        // be emptied, and given to the caller.
        int err = errno;
        if (!mayExist && err != ENOENT && err != 0) {
            OXEL_LOG(-1, "Error: Create failed. Error [%s]", strerror(err));
            return FillCreateFailRes(result, SysErrToNFSErr(err, true));
        }
        child = parent->CreateChild(&parentCtxt, name, flags, CreationMode(how));
        if (!child) {
            err = errno;
            OXEL_LOG(-1, "Error: Create failed. Error [%s]", strerror(err));
            return FillCreateFailRes(result, SysErrToNFSErr(err, true));
        }
    } else if (!mayExist) {
        // Of EXCLUSIVE too, whose verifier is kept nowhere: a repeated call (RFC 1813 would have it
        // succeed) cannot be told from another client's.
        OXEL_LOG(-1, "Error: Object to be CREATED is already present. Cant overwrite.");
        return FillCreateFailRes(result, NFS3ERR_EXIST);
    }

    OxelCtxt ctxt(call->identity, call->exportPtr, child);
    if (hasAttributes)
        (void)ApplySattr(&ctxt, &how.obj_attributes, path, NF3REG, false, nullptr);  // it logs
    if (child->Chown(&ctxt, "/", ctxt.id.uid, ctxt.id.gid) != 0) {
        const int err = errno;
        OXEL_LOG(-1, "Error: Create failed. Failed to do chown . Error [%s]", strerror(err));
        return FillCreateFailRes(result, SysErrToNFSErr(err, true));
    }

    result->status = NFS3_OK;
    resok->obj_attributes.attributes_follow =
        OSStatToNfsStat(&ctxt, path, &resok->obj_attributes.attributes) == 0;
    // The directory's are announced even when they cannot be had; what a failure takes back is the
    // object's.
    resok->dir_wcc.after.attributes_follow = TRUE;
    if (OSStatToNfsStat(&parentCtxt, parentPath, &resok->dir_wcc.after.attributes) != 0)
        resok->obj_attributes.attributes_follow = FALSE;
    resok->obj.handle_follows = TRUE;
    child->GetFileHandle(&resok->obj.handle);
    return TRUE;
}

bool_t Free_CREATE3(CallInfo3*) {
    OXEL_LOG(4, "Freed memory");
    return TRUE;
}

// ---- MKDIR (section 3.3.9) ----

bool_t FillMkdirFailRes(MKDIR3res* result, nfsstat3 status) {
    return FillMadeFailRes(result, status);
}

bool_t Handle_MKDIR3(CallInfo3* call) {
    PerfCounterWrapper counter("NFS", 57);
    MKDIR3args& args = call->arguments().mkdir;
    const char* name = args.where.name;
    MKDIR3res* result = &call->result.mkdir;
    MKDIR3resok* resok = &result->resok;

    FSMPtr module;
    const nfsstat3 allowed =
        ValidateAndAuthorize(args.where.dir, call->identity, module, call->exportPtr, kForWrite);
    if (allowed != NFS3_OK) return FillMkdirFailRes(result, allowed);
    DumpDiropArgs(module, &args.where);
    const BkEndProcPtr parent = module->GetBkEndProc(call->exportPtr, args.where.dir);
    if (!parent) {
        // Its text has always lacked a bracket; operators search for it as it is.
        OXEL_LOG(-1, "Error: Creating [%s. Parent Directory Not Found. FH [%s] IP [%s]", name,
                 FH2Str(args.where.dir).c_str(), GetClientIPStr(call->transport->xp_raddr).c_str());
        return FillMkdirFailRes(result, NFS3ERR_STALE);
    }

    OxelCtxt parentCtxt(call->identity, call->exportPtr, parent);
    // A name that exists, whatever has it, is answered as made (RFC 1813 has NFS3ERR_EXIST), so a
    // retransmitted MKDIR needs no reply cache.
    BkEndProcPtr child = parent->FindChild(&parentCtxt, name);
    if (!child) {
        const set_attrib& wish = args.attributes.mode;
        child = parent->CreateChildDir(&parentCtxt, name, wish.set_it ? wish.value : kDefaultMode);
        if (!child) {
            const int err = errno;
            OXEL_LOG(-1, "Error: CreateChildDir failed. Error [%s]", strerror(err));
            return FillMkdirFailRes(result, SysErrToNFSErr(err, true));
        }
    }

    OxelCtxt ctxt(call->identity, call->exportPtr, child);
    const std::string& path = child->GetPath();
    (void)ApplySattr(&ctxt, &args.attributes, path, NF3DIR, false, nullptr);  // it logs
    if (child->Chown(&ctxt, "/", ctxt.id.uid, ctxt.id.gid) != 0) {
        const int err = errno;
        OXEL_LOG(-1, "Error: Create failed. Failed to do chown . Error [%s]", strerror(err));
        return FillMkdirFailRes(result, SysErrToNFSErr(err, true));
    }

    result->status = NFS3_OK;
    resok->obj.handle_follows = TRUE;
    child->GetFileHandle(&resok->obj.handle);
    const int err = OSStatToNfsStat(&ctxt, path, &resok->obj_attributes.attributes);
    if (err != 0)
        OXEL_LOG(-1, "Error: Failed to stat(%s). [%d:%s]", path.c_str(), err, strerror(err));
    resok->obj_attributes.attributes_follow = err == 0;
    ClearFollows(&resok->dir_wcc);
    return TRUE;
}

bool_t Free_MKDIR3(CallInfo3*) {
    OXEL_LOG(4, "Freed memory");
    return TRUE;
}

// ---- SYMLINK (section 3.3.10) ----

bool_t FillSymlink3FailRes(SYMLINK3res* result, nfsstat3 status) {
    return FillMadeFailRes(result, status);
}

// A failure after the directory's attributes were taken: they are sent.
static bool_t FailWithBefore(SYMLINK3res* result, int err, const wcc_attr& before) {
    wcc_data* wcc = &result->resfail.dir_wcc;
    result->status = SysErrToNFSErr(err, true);
    wcc->before.attributes_follow = TRUE;
    wcc->before.attributes = before;
    wcc->after.attributes_follow = FALSE;
    return TRUE;
}

bool_t Handle_SYMLINK3(CallInfo3* call) {
    PerfCounterWrapper counter("NFS", 52);
    SYMLINK3args& args = call->arguments().symlink;
    const char* name = args.where.name;
    const char* target = args.symlink.symlink_data;
    SYMLINK3res* result = &call->result.symlink;
    SYMLINK3resok* resok = &result->resok;

    FSMPtr module;
    const nfsstat3 allowed =
        ValidateAndAuthorize(args.where.dir, call->identity, module, call->exportPtr, kForWrite);
    if (allowed != NFS3_OK) return FillSymlink3FailRes(result, allowed);
    DumpDiropArgs(module, &args.where);
    const BkEndProcPtr parent = module->GetBkEndProc(call->exportPtr, args.where.dir);
    if (!parent) {
        OXEL_LOG(-1, "Error: Creating [%s]. Parent Directory Not Found. FH [%s] IP [%s]", name,
                 FH2Str(args.where.dir).c_str(), GetClientIPStr(call->transport->xp_raddr).c_str());
        return FillSymlink3FailRes(result, NFS3ERR_STALE);
    }

    const std::string& parentPath = parent->GetPath();
    OxelCtxt ctxt(call->identity, call->exportPtr, parent);
    wcc_attr before{};
    const int beforeErr = OSStatToWccAttr(&ctxt, parentPath, &before);
    if (beforeErr != 0) return FillSymlink3FailRes(result, SysErrToNFSErr(beforeErr, true));

    const BkEndProcPtr existing = parent->FindChild(&ctxt, name);
    // Whatever finding the name left there; modules leave EEXIST.
    if (existing) return FailWithBefore(result, errno, before);

    const std::string path = parentPath + "/" + name;
    if (parent->CreateSymlink(&ctxt, target, path) == -1) {
        const int err = errno;
        OXEL_LOG(-1, "Error: Failed to create symlink [%s] to [%s]. [%s]", path.c_str(), target,
                 strerror(err));
        return FailWithBefore(result, err, before);
    }
    const BkEndProcPtr link = parent->FindChild(&ctxt, name);
    if (!link) return FailWithBefore(result, errno, before);

    // The link keeps the owner that it was made with.
    (void)ApplySattr(&ctxt, &args.symlink.symlink_attributes, path, NF3LNK, false, nullptr);
    result->status = NFS3_OK;
    resok->obj_attributes.attributes_follow =
        OSStatToNfsStat(&ctxt, path, &resok->obj_attributes.attributes) == 0;
    const int afterErr = OSStatToNfsStat(&ctxt, parentPath, &resok->dir_wcc.after.attributes);
    if (afterErr != 0)
        OXEL_LOG(-1, "Error: Failed to stat(%s). [%d:%s]", parentPath.c_str(), afterErr,
                 strerror(afterErr));
    resok->dir_wcc.after.attributes_follow = afterErr == 0;
    resok->dir_wcc.before.attributes_follow = TRUE;
    resok->dir_wcc.before.attributes = before;
    resok->obj.handle_follows = TRUE;
    link->GetFileHandle(&resok->obj.handle);
    return TRUE;
}

// The freeing of the decoded arguments, which comes first on the road of a call, has left null
// here.
bool_t Free_SYMLINK3(CallInfo3* call) {
    char*& target = call->arguments().symlink.symlink.symlink_data;
    free(target);
    target = nullptr;
    OXEL_LOG(4, "Freed memory");
    return TRUE;
}

// ---- MKNOD (section 3.3.11) ----

bool_t FillMKNodFailRes(MKNOD3res* result, nfsstat3 status) {
    return FillMadeFailRes(result, status);
}

// Never makes anything: shares hold no devices, sockets or fifos of their clients.
bool_t Handle_MKNOD3(CallInfo3* call) {
    PerfCounterWrapper counter("NFS", 53);
    MKNOD3args& args = call->arguments().mknod;
    MKNOD3res* result = &call->result.mknod;

    FSMPtr module;
    const nfsstat3 allowed =
        ValidateAndAuthorize(args.where.dir, call->identity, module, call->exportPtr, kForWrite);
    if (allowed != NFS3_OK) return FillMKNodFailRes(result, allowed);
    DumpDiropArgs(module, &args.where);
    switch (args.what.type) {
        case NF3BLK:
        case NF3CHR:
        case NF3SOCK:
        case NF3FIFO:
            return FillMKNodFailRes(result, NFS3ERR_NOTSUPP);
        default:
            OXEL_LOG(0, "WARNING:\tShould Not Reached Here For Regular File");
            return FillMKNodFailRes(result, NFS3ERR_BADTYPE);
    }
}

bool_t Free_MKNOD3(CallInfo3*) {
    OXEL_LOG(4, "Freed memory");
    return TRUE;
}
