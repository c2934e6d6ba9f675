// SPDX-License-Identifier: Apache-2.0
//
// The procedures that take names away or give an object another one: REMOVE, RMDIR, RENAME and
// LINK. Between finding a name and acting on it another call may come; the back end decides such
// races.
#include <cerrno>
#include <cstring>

#include "backend/BkEndProc.h"
#include "base/log.h"
#include "base/perf_counter.h"
#include "nfs3/nfs3proc.h"

namespace {

// The attributes of the context's object: sent exactly when they can be had.
void FillAfter(OxelCtxt* ctxt, const std::string& path, post_op_attr* after) {
    after->attributes_follow = OSStatToNfsStat(ctxt, path, &after->attributes) == 0;
}

// FindChild, and why nothing was found: ENOENT when nothing is there, also of a back end that gives
// no reason.
BkEndProcPtr FindOrMissing(OxelCtxt* ctxt, const BkEndProcPtr& directory, const char* name,
                           int* err) {
    errno = ENOENT;
    BkEndProcPtr child = directory->FindChild(ctxt, name);
    *err = errno != 0 ? errno : ENOENT;
    return child;
}

}  // namespace

// ---- REMOVE (RFC 1813 section 3.3.12) ----

bool_t FillREMOVE3FailRes(REMOVE3res* result, nfsstat3 status) {
    result->status = status;
    ClearFollows(&result->resfail.dir_wcc);
    return TRUE;
}

bool_t Handle_REMOVE3(CallInfo3* call) {
    PerfCounterWrapper counter("NFS", 40);
    const diropargs3& what = call->arguments().remove.object;
    REMOVE3res* result = &call->result.remove;

    FSMPtr module;
    const nfsstat3 allowed =
        ValidateAndAuthorize(what.dir, call->identity, module, call->exportPtr, kForWrite);
    if (allowed != NFS3_OK) return FillREMOVE3FailRes(result, allowed);
    const BkEndProcPtr directory = module->GetBkEndProc(call->exportPtr, what.dir);
    if (!directory) {
        OXEL_LOG(-1, "Error: Removing [%s]. Parent Directory Not Found. FH [%s] IP [%s]", what.name,
                 FH2Str(what.dir).c_str(), GetClientIPStr(call->transport->xp_raddr).c_str());
        return FillREMOVE3FailRes(result, NFS3ERR_STALE);
    }
    const std::string& directoryPath = directory->GetPath();
    OXEL_LOG(4, "Request to delete [%s/%s].", directoryPath.c_str(), what.name);

    OxelCtxt ctxt(call->identity, call->exportPtr, directory);
    wcc_data* wcc = &result->resok.dir_wcc;  // both arms hold the same
    const int beforeErr = OSStatToWccAttr(&ctxt, directoryPath, &wcc->before.attributes);
    if (beforeErr != 0) {
        OXEL_LOG(-1, "Error: [%d:%s]", beforeErr, strerror(beforeErr));
        return FillREMOVE3FailRes(result, SysErrToNFSErr(beforeErr, true));
    }
    // REMOVE of a missing name succeeds (RFC 1813 has NFS3ERR_NOENT), so a retransmitted REMOVE
    // needs no reply cache. A name that could not be looked for is not missing.
    int err;
    const BkEndProcPtr child = FindOrMissing(&ctxt, directory, what.name, &err);
    const std::string path = directoryPath + "/" + what.name;
    bool failed = !child && err != ENOENT;
    if (child) {
        OxelCtxt both(call->identity, call->exportPtr, child, directory);
        failed = child->Unlink(&both, path) == -1;
        err = errno;
    }
    if (failed) {
        OXEL_LOG(-1, "Error: Failed unlink [%s] [%d:%s]", path.c_str(), err, strerror(err));
        result->status = SysErrToNFSErr(err, true);
        wcc->before.attributes_follow = TRUE;
        // Gathered and not sent: of a failed removal a client learns only what was before.
        (void)OSStatToNfsStat(&ctxt, directoryPath, &wcc->after.attributes);
        wcc->after.attributes_follow = FALSE;
        return TRUE;
    }

    // Announced even when they cannot be had; they go out as zeros then.
    (void)OSStatToNfsStat(&ctxt, directoryPath, &wcc->after.attributes);
    result->status = NFS3_OK;
    wcc->before.attributes_follow = TRUE;
    wcc->after.attributes_follow = TRUE;
    return TRUE;
}

bool_t Free_REMOVE3(CallInfo3*) {
    OXEL_LOG(4, "Freed memory");
    return TRUE;
}

// ---- RMDIR (section 3.3.13) ----

bool_t FillRMDIR3FailRes(RMDIR3res* result, nfsstat3 status) {
    result->status = status;
    ClearFollows(&result->resfail.dir_wcc);
    return TRUE;
}

bool_t Handle_RMDIR3(CallInfo3* call) {
    PerfCounterWrapper counter("NFS", 58);
    const diropargs3& what = call->arguments().rmdir.object;
    RMDIR3res* result = &call->result.rmdir;

    FSMPtr module;
    const nfsstat3 allowed =
        ValidateAndAuthorize(what.dir, call->identity, module, call->exportPtr, kForWrite);
    if (allowed != NFS3_OK) return FillRMDIR3FailRes(result, allowed);
    const BkEndProcPtr directory = module->GetBkEndProc(call->exportPtr, what.dir);
    if (!directory) {
        OXEL_LOG(-1, "Error: Removing [%s]. Parent Directory Not Found. FH [%s] IP [%s]", what.name,
                 FH2Str(what.dir).c_str(), GetClientIPStr(call->transport->xp_raddr).c_str());
        return FillRMDIR3FailRes(result, NFS3ERR_STALE);
    }
    const std::string& directoryPath = directory->GetPath();
    OXEL_LOG(4, "Request to delete [%s/%s].", directoryPath.c_str(), what.name);

    OxelCtxt ctxt(call->identity, call->exportPtr, directory);
    wcc_data* wcc = &result->resok.dir_wcc;  // both arms hold the same
    const int beforeErr = OSStatToWccAttr(&ctxt, directoryPath, &wcc->before.attributes);
    if (beforeErr != 0) {
        OXEL_LOG(-1, "Error: [%d:%s]", beforeErr, strerror(beforeErr));
        return FillRMDIR3FailRes(result, SysErrToNFSErr(beforeErr, true));
    }
    // As REMOVE: a missing name is a success.
    int err;
    const BkEndProcPtr child = FindOrMissing(&ctxt, directory, what.name, &err);
    const std::string path = directoryPath + "/" + what.name;
    bool failed = !child && err != ENOENT;
    if (child) {
        failed = child->RemoveDir(&ctxt, path) == -1;
        err = errno;
    }
    if (failed) {
        OXEL_LOG(-1, "Error: Failed to delete [%s] [%d:%s]", path.c_str(), err, strerror(err));
        result->status = SysErrToNFSErr(err, true);
        wcc->before.attributes_follow = TRUE;
        // Asked twice; the second answer decides, and only what it gives is announced.
        (void)OSStatToNfsStat(&ctxt, directoryPath, &wcc->after.attributes);
        FillAfter(&ctxt, directoryPath, &wcc->after);
        return TRUE;
    }

    FillAfter(&ctxt, directoryPath, &wcc->after);
    result->status = NFS3_OK;
    wcc->before.attributes_follow = TRUE;
    return TRUE;
}

bool_t Free_RMDIR3(CallInfo3*) {
    OXEL_LOG(4, "Freed memory");
    return TRUE;
}

// ---- RENAME (section 3.3.14) ----

bool_t FillRENAME3FailRes(RENAME3res* result, nfsstat3 status) {
    result->status = status;
    ClearFollows(&result->resfail.fromdir_wcc);
    ClearFollows(&result->resfail.todir_wcc);
    return TRUE;
}

// The directories may lie in two shares, of two modules even: each is held to the rules of its own,
// and whether a rename can go from one to the other is the back end's to say. The reply is sent
// under the lock of the source's.
bool_t Handle_RENAME3(CallInfo3* call) {
    PerfCounterWrapper counter("NFS", 54);
    const diropargs3& from = call->arguments().rename.from;
    const diropargs3& to = call->arguments().rename.to;
    RENAME3res* result = &call->result.rename;

    FSMPtr fromModule, toModule;
    ExportPtr toShare;
    nfsstat3 allowed =
        ValidateAndAuthorize(from.dir, call->identity, fromModule, call->exportPtr, kForWrite);
    if (allowed == NFS3_OK)
        allowed = ValidateAndAuthorize(to.dir, call->identity, toModule, toShare, kForWrite);
    if (allowed != NFS3_OK) return FillRENAME3FailRes(result, allowed);
    const BkEndProcPtr fromDirectory = fromModule->GetBkEndProc(call->exportPtr, from.dir);
    const BkEndProcPtr toDirectory = toModule->GetBkEndProc(toShare, to.dir);
    if (!fromDirectory) {
        OXEL_LOG(-1, "Error: Renaming [%s]. 'from' directory not found. FH [%s] IP [%s]", from.name,
                 FH2Str(from.dir).c_str(), GetClientIPStr(call->transport->xp_raddr).c_str());
        return FillRENAME3FailRes(result, NFS3ERR_STALE);
    }
    if (!toDirectory) {
        OXEL_LOG(-1, "Error: Renaming [%s]. 'to' directory not found. FH [%s] IP [%s]", from.name,
                 FH2Str(to.dir).c_str(), GetClientIPStr(call->transport->xp_raddr).c_str());
        return FillRENAME3FailRes(result, NFS3ERR_STALE);
    }
    const std::string& fromPath = fromDirectory->GetPath();
    const std::string& toPath = toDirectory->GetPath();
    OXEL_LOG(4, "From [%s/%s] to [%s/%s]", fromPath.c_str(), from.name, toPath.c_str(), to.name);

    OxelCtxt fromCtxt(call->identity, call->exportPtr, fromDirectory);
    wcc_data* fromWcc = &result->resok.fromdir_wcc;  // both arms hold the same
    const int fromErr = OSStatToWccAttr(&fromCtxt, fromPath, &fromWcc->before.attributes);
    if (fromErr != 0) {
        OXEL_LOG(-1, "Error: [%d:%s]", fromErr, strerror(fromErr));
        return FillRENAME3FailRes(result, SysErrToNFSErr(fromErr, true));
    }
    fromWcc->before.attributes_follow = TRUE;
    const BkEndProcPtr object = fromDirectory->FindChild(&fromCtxt, from.name);
    if (!object) {
        OXEL_LOG(-1, "Error: Failed to rename. Source [%s] not present.", from.name);
        return FillRENAME3FailRes(result, SysErrToNFSErr(ENOENT, true));
    }

    OxelCtxt toCtxt(call->identity, toShare, toDirectory);
    wcc_data* toWcc = &result->resok.todir_wcc;
    toWcc->before.attributes_follow = TRUE;
    const int toErr = OSStatToWccAttr(&toCtxt, toPath, &toWcc->before.attributes);
    if (toErr != 0) {
        OXEL_LOG(-1, "Error: [%d:%s]", toErr, strerror(toErr));
        return FillRENAME3FailRes(result, SysErrToNFSErr(toErr, true));
    }

    // Names, not paths: the context has both directories, which may have moved meanwhile.
    OxelCtxt both(call->identity, call->exportPtr, fromDirectory, toDirectory);
    if (object->Rename(&both, from.name, to.name) == -1) {
        const int err = errno;
        OXEL_LOG(-1, "Error: Failed to rename. [%s].", strerror(err));
        return FillRENAME3FailRes(result, SysErrToNFSErr(err, true));
    }
    FillAfter(&fromCtxt, fromPath, &fromWcc->after);
    FillAfter(&toCtxt, toPath, &toWcc->after);
    result->status = NFS3_OK;
    return TRUE;
}

bool_t Free_RENAME3(CallInfo3*) {
    OXEL_LOG(4, "Freed memory");
    return TRUE;
}

// ---- LINK (section 3.3.15) ----

bool_t FillLink3FailRes(LINK3res* result, nfsstat3 status) {
    result->status = status;
    ClearFollows(&result->resfail.linkdir_wcc);
    return TRUE;
}

bool_t Handle_LINK3(CallInfo3* call) {
    PerfCounterWrapper counter("NFS", 55);
    LINK3args& args = call->arguments().link;
    const diropargs3& link = args.link;
    LINK3res* result = &call->result.link;

    // The directory is what changes; the file is looked for in the directory's share and needs no
    // check of its own.
    FSMPtr module;
    const nfsstat3 allowed =
        ValidateAndAuthorize(link.dir, call->identity, module, call->exportPtr, kForWrite);
    if (allowed != NFS3_OK) return FillLink3FailRes(result, allowed);
    DumpDiropArgs(module, &args.link);
    const BkEndProcPtr directory = module->GetBkEndProc(call->exportPtr, link.dir);
    if (!directory) {
        OXEL_LOG(-1, "Error: Creating link [%s]. Parent directory not found. FH [%s] IP [%s]",
                 link.name, FH2Str(link.dir).c_str(),
                 GetClientIPStr(call->transport->xp_raddr).c_str());
        return FillLink3FailRes(result, NFS3ERR_STALE);
    }
    OxelCtxt ctxt(call->identity, call->exportPtr, directory);
    const BkEndProcPtr file = module->GetBkEndProc(call->exportPtr, args.file);
    if (!file) {
        OXEL_LOG(-1, "Error: Target is not found. FH [%s] IP [%s]", FH2Str(args.file).c_str(),
                 GetClientIPStr(call->transport->xp_raddr).c_str());
        return FillLink3FailRes(result, NFS3ERR_STALE);
    }

    const std::string& directoryPath = directory->GetPath();
    wcc_data* wcc = &result->resok.linkdir_wcc;  // both arms hold the same
    const int beforeErr = OSStatToWccAttr(&ctxt, directoryPath, &wcc->before.attributes);
    if (beforeErr != 0) return FillLink3FailRes(result, SysErrToNFSErr(beforeErr, true));

    const std::string linkPath = directoryPath + "/" + link.name;
    const std::string& targetPath = file->GetPath();
    if (directory->HardLink(&ctxt, targetPath, linkPath) == -1) {
        const int err = errno;
        OXEL_LOG(-1, "Error: Failed to create hardlink [%s] to [%s]. [%s]", linkPath.c_str(),
                 targetPath.c_str(), strerror(err));
        result->status = SysErrToNFSErr(err, true);
    } else {
        result->status = NFS3_OK;
        FillAfter(&ctxt, targetPath, &result->resok.file_attributes);
    }
    wcc->before.attributes_follow = TRUE;
    FillAfter(&ctxt, directoryPath, &wcc->after);
    return TRUE;
}

bool_t Free_LINK3(CallInfo3*) {
    OXEL_LOG(4, "Freed memory");
    return TRUE;
}
