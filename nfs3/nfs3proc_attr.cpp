// SPDX-License-Identifier: Apache-2.0
//
// The procedures that read or set attributes or resolve a name: GETATTR, SETATTR, LOOKUP, ACCESS
// and READLINK. GETATTR is the plain form of every handler: resolve the handle, act through the
// object, fill the result.
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>

#include "backend/BkEndProc.h"
#include "base/log.h"
#include "base/perf_counter.h"
#include "nfs3/nfs3proc.h"

// ---- GETATTR (RFC 1813 section 3.3.1) ----

bool_t FillGETATTR3FailRes(GETATTR3res* result, nfsstat3 status) {
    result->status = status;
    return TRUE;
}

bool_t Handle_GETATTR3(CallInfo3* call) {
    PerfCounterWrapper counter("NFS", 47);
    const GETATTR3args& args = call->arguments().getattr;
    GETATTR3res* result = &call->result.getattr;

    FSMPtr module;
    const nfsstat3 allowed =
        ValidateAndAuthorize(args.object, call->identity, module, call->exportPtr, kForRead);
    if (allowed != NFS3_OK) return FillGETATTR3FailRes(result, allowed);
    const BkEndProcPtr object = module->GetBkEndProc(call->exportPtr, args.object);
    if (!object) {
        OXEL_LOG(-1, "Error: Stale File Handle. FH [%s] IP [%s]", FH2Str(args.object).c_str(),
                 GetClientIPStr(call->transport->xp_raddr).c_str());
        return FillGETATTR3FailRes(result, NFS3ERR_STALE);
    }
    const std::string& path = object->GetPath();
    OXEL_LOG(3, "For [%s]", BaseName(path).c_str());

    OxelCtxt ctxt(call->identity, call->exportPtr, object);
    const int err = OSStatToNfsStat(&ctxt, path, &result->resok.obj_attributes);
    if (err != 0) return FillGETATTR3FailRes(result, SysErrToNFSErr(err, true));
    result->status = NFS3_OK;
    return TRUE;
}

bool_t Free_GETATTR3(CallInfo3*) {
    OXEL_LOG(4, "Freed memory");
    return TRUE;
}

// ---- SETATTR (section 3.3.2) ----

bool_t FillSETATTR3FailRes(SETATTR3res* result, nfsstat3 status) {
    result->status = status;
    ClearFollows(&result->resfail.obj_wcc);
    return TRUE;
}

bool_t Handle_SETATTR3(CallInfo3* call) {
    PerfCounterWrapper counter("NFS", 41);
    SETATTR3args& args = call->arguments().setattr;
    SETATTR3res* result = &call->result.setattr;

    FSMPtr module;
    const nfsstat3 allowed =
        ValidateAndAuthorize(args.object, call->identity, module, call->exportPtr, kForWrite);
    if (allowed != NFS3_OK) return FillSETATTR3FailRes(result, allowed);
    Dumpsattr3(args.new_attributes);
    const BkEndProcPtr object = module->GetBkEndProc(call->exportPtr, args.object);
    if (!object) {
        OXEL_LOG(-1, "Error: Stale File Handle. FH [%s] IP [%s]", FH2Str(args.object).c_str(),
                 GetClientIPStr(call->transport->xp_raddr).c_str());
        return FillSETATTR3FailRes(result, NFS3ERR_STALE);
    }
    const std::string& path = object->GetPath();
    OXEL_LOG(3, "For [%s]", BaseName(path).c_str());

    OxelCtxt ctxt(call->identity, call->exportPtr, object);
    // Both arms hold the same wcc_data, so what is filled here stands whatever the status becomes.
    wcc_data* wcc = &result->resok.obj_wcc;
    const int beforeErr = OSStatToWccAttr(&ctxt, path, &wcc->before.attributes);
    if (beforeErr != 0) return FillSETATTR3FailRes(result, SysErrToNFSErr(beforeErr, true));
    wcc->before.attributes_follow = TRUE;

    nfstime3* guard = args.guard.check ? &args.guard.obj_ctime : nullptr;
    // As a regular file whatever the object is: a client that resizes a directory gets the back
    // end's reason for refusing.
    result->status = ApplySattr(&ctxt, &args.new_attributes, path, NF3REG, true, guard);
    wcc->after.attributes_follow = FALSE;
    if (result->status == NFS3_OK) {
        const int afterErr = OSStatToNfsStat(&ctxt, path, &wcc->after.attributes);
        if (afterErr != 0)
            OXEL_LOG(-1, "Error: Failed to stat(). [%d:%s]", afterErr, strerror(afterErr));
        else
            wcc->after.attributes_follow = TRUE;
    }
    return TRUE;
}

bool_t Free_SETATTR3(CallInfo3*) {
    OXEL_LOG(4, "Freed memory");
    return TRUE;
}

// ---- LOOKUP (section 3.3.3) ----

bool_t FillLOOKUP3FailRes(LOOKUP3res* result, nfsstat3 status) {
    result->status = status;
    result->resfail.dir_attributes.attributes_follow = FALSE;
    return TRUE;
}

bool_t Handle_LOOKUP3(CallInfo3* call) {
    PerfCounterWrapper counter("NFS", 44);
    const LOOKUP3args& args = call->arguments().lookup;
    const char* name = args.what.name;
    LOOKUP3res* result = &call->result.lookup;
    OXEL_LOG(4, "Lookup for [%s]", name);

    // Before the handle is looked at: an empty name is the client's mistake whatever it lies in.
    if (name[0] == '\0') {
        OXEL_LOG(-1, "Error: Client sent empty name to look.");
        return FillLOOKUP3FailRes(result, NFS3ERR_INVAL);
    }
    FSMPtr module;
    const nfsstat3 allowed =
        ValidateAndAuthorize(args.what.dir, call->identity, module, call->exportPtr, kForRead);
    if (allowed != NFS3_OK) return FillLOOKUP3FailRes(result, allowed);
    const BkEndProcPtr directory = module->GetBkEndProc(call->exportPtr, args.what.dir);
    if (!directory) {
        OXEL_LOG(-1, "Error: Looking for [%s]. Stale File Handle. FH [%s] IP [%s]", name,
                 FH2Str(args.what.dir).c_str(), GetClientIPStr(call->transport->xp_raddr).c_str());
        return FillLOOKUP3FailRes(result, NFS3ERR_STALE);
    }

    OxelCtxt directoryCtxt(call->identity, call->exportPtr, directory);
    const std::string childName(name);
    const BkEndProcPtr child = directory->FindChild(&directoryCtxt, childName);
    if (!child) {
        const int err = errno;
        OXEL_LOG(2, "FindChild() failed [%s] under [%s]. err [%d]", name,
                 directory->GetPath().c_str(), err);
        return FillLOOKUP3FailRes(result, SysErrToNFSErr(err, true));
    }
    child->GetFileHandle(&result->resok.object);
    OXEL_LOG(4, "fh [%s]", module->GetHandleString(result->resok.object).c_str());

    OxelCtxt ctxt(call->identity, call->exportPtr, child);
    const std::string& path = child->GetPath();
    const int err = OSStatToNfsStat(&ctxt, path, &result->resok.obj_attributes.attributes);
    if (err != 0) {
        OXEL_LOG(2, "stat() failed. [%s] err [%d]", path.c_str(), err);
        return FillLOOKUP3FailRes(result, SysErrToNFSErr(err, true));
    }
    result->resok.obj_attributes.attributes_follow = TRUE;

    // The directory's attributes are announced even when they could not be had; they go out as
    // zeros then.
    ctxt.object = directory;
    (void)OSStatToNfsStat(&ctxt, directory->GetPath(), &result->resok.dir_attributes.attributes);
    result->resok.dir_attributes.attributes_follow = TRUE;
    result->status = NFS3_OK;
    return TRUE;
}

bool_t Free_LOOKUP3(CallInfo3*) {
    OXEL_LOG(4, "Freed memory");
    return TRUE;
}

// ---- ACCESS (section 3.3.4) ----

namespace {

struct RightsOfMode {
    int mode;         // access(2)'s
    uint32_t rights;  // ACCESS3_*
};

// In the order in which the back end is asked.
constexpr RightsOfMode kRightsRows[] = {
    {4, ACCESS3_READ},
    {1, ACCESS3_LOOKUP | ACCESS3_EXECUTE},
    {2, ACCESS3_MODIFY | ACCESS3_EXTEND | ACCESS3_DELETE},
};

}  // namespace

bool_t Handle_ACCESS3(CallInfo3* call) {
    PerfCounterWrapper counter("NFS", 43);
    const ACCESS3args& args = call->arguments().access;
    ACCESS3res* result = &call->result.access;

    FSMPtr module;
    const nfsstat3 allowed =
        ValidateAndAuthorize(args.object, call->identity, module, call->exportPtr, kForRead);
    if (allowed != NFS3_OK) {
        result->status = allowed;
        return TRUE;
    }
    OXEL_LOG(3, "requested access [0x%x]", args.access);
    const BkEndProcPtr object = module->GetBkEndProc(call->exportPtr, args.object);
    if (!object) {
        OXEL_LOG(-1, "Error: Stale File Handle. FH [%s] IP [%s]", FH2Str(args.object).c_str(),
                 GetClientIPStr(call->transport->xp_raddr).c_str());
        result->status = NFS3ERR_STALE;
        return TRUE;
    }
    const std::string& path = object->GetPath();
    OXEL_LOG(3, "For [%s]", BaseName(path).c_str());

    // Every right that the back end grants, asked for or not, as clients cache them all.
    OxelCtxt ctxt(call->identity, call->exportPtr, object);
    uint32_t granted = 0;
    for (const RightsOfMode& row : kRightsRows)
        if (object->Access(&ctxt, path, row.mode) == 0) granted |= row.rights;
    OXEL_LOG(3, "Allowed permissions [%x].", granted);

    result->status = NFS3_OK;
    result->resok.access = granted;
    // Only -1 takes the attributes back, which a failed stat does not give: it gives its errno.
    const int err = OSStatToNfsStat(&ctxt, path, &result->resok.obj_attributes.attributes);
    result->resok.obj_attributes.attributes_follow = err != -1;
    return TRUE;
}

bool_t Free_ACCESS3(CallInfo3*) {
    OXEL_LOG(4, "Freed memory");
    return TRUE;
}

// ---- READLINK (section 3.3.5) ----

bool_t FillREADLINK3FailRes(READLINK3res* result, nfsstat3 status) {
    result->status = status;
    result->resfail.symlink_attributes.attributes_follow = FALSE;
    return TRUE;
}

bool_t Handle_READLINK3(CallInfo3* call) {
    PerfCounterWrapper counter("NFS", 48);
    const READLINK3args& args = call->arguments().readlink;
    READLINK3res* result = &call->result.readlink;

    FSMPtr module;
    const nfsstat3 allowed =
        ValidateAndAuthorize(args.symlink, call->identity, module, call->exportPtr, kForRead);
    if (allowed != NFS3_OK) return FillREADLINK3FailRes(result, allowed);
    const BkEndProcPtr object = module->GetBkEndProc(call->exportPtr, args.symlink);
    if (!object) {
        OXEL_LOG(-1, "Error: Stale File Handle. FH [%s] IP [%s]", FH2Str(args.symlink).c_str(),
                 GetClientIPStr(call->transport->xp_raddr).c_str());
        return FillREADLINK3FailRes(result, NFS3ERR_STALE);
    }
    const std::string& path = object->GetPath();
    OXEL_LOG(3, "For [%s]", BaseName(path).c_str());

    OxelCtxt ctxt(call->identity, call->exportPtr, object);
    char target[4096];
    constexpr size_t kCapacity = sizeof target - 1;
    const ssize_t length = object->ReadLink(&ctxt, path, target, kCapacity);
    if (length == -1) {
        const int err = errno;
        OXEL_LOG(-1, "Error: Failed to get target of softlink [%s]. [%d:%s]",
                 BaseName(path).c_str(), err, strerror(err));
        result->status = SysErrToNFSErr(err, true);
        // Announced even when they cannot be had.
        result->resfail.symlink_attributes.attributes_follow = TRUE;
        (void)OSStatToNfsStat(&ctxt, path, &result->resfail.symlink_attributes.attributes);
        return TRUE;
    }
    const int statErr = OSStatToNfsStat(&ctxt, path, &result->resok.symlink_attributes.attributes);
    result->resok.symlink_attributes.attributes_follow = statErr == 0;
    target[std::clamp<ssize_t>(length, 0, kCapacity)] = '\0';
    result->resok.data = strdup(target);  // Free_READLINK3 frees it
    if (result->resok.data == nullptr) throw std::bad_alloc();
    result->status = NFS3_OK;
    OXEL_LOG(3, "[%s] -> [%s] [%s] [%d]", BaseName(path).c_str(), result->resok.data, target,
             static_cast<int>(sizeof target));
    return TRUE;
}

bool_t Free_READLINK3(CallInfo3* call) {
    READLINK3res* result = &call->result.readlink;
    if (result->status == NFS3_OK) {
        free(result->resok.data);
        result->resok.data = nullptr;
    }
    OXEL_LOG(4, "Freed memory");
    return TRUE;
}
