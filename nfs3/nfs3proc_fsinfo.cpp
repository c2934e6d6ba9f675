// SPDX-License-Identifier: Apache-2.0
//
// The procedures that describe a share: its capacity (FSSTAT), the server's transfer limits
// (FSINFO) and the limits of names (PATHCONF).
#include <unistd.h>

#include <cstring>

#include "backend/BkEndProc.h"
#include "base/log.h"
#include "base/perf_counter.h"
#include "nfs3/nfs3proc.h"

namespace {

// The path by which an object names itself.
const std::string& Self() {
    static const std::string self = "/";
    return self;
}

}  // namespace

// ---- FSSTAT (RFC 1813 section 3.3.18) ----

bool_t Handle_FSSTAT3(CallInfo3* call) {
    PerfCounterWrapper counter("NFS", 45);
    const FSSTAT3args& args = call->arguments().fsstat;
    FSSTAT3res* result = &call->result.fsstat;
    FSSTAT3resok* resok = &result->resok;
    resok->obj_attributes.attributes_follow = FALSE;

    FSMPtr module;
    result->status =
        ValidateAndAuthorize(args.fsroot, call->identity, module, call->exportPtr, kForRead);
    if (result->status != NFS3_OK) return TRUE;
    const BkEndProcPtr object = module->GetBkEndProc(call->exportPtr, args.fsroot);
    if (!object) {
        // Not stale, as elsewhere: a client asks this of the share, not of an object.
        OXEL_LOG(-1, "Error: FS Root obect is not found.");
        result->status = NFS3ERR_NOENT;
        return TRUE;
    }

    OxelCtxt ctxt(call->identity, call->exportPtr, object);
    const int statErr = OSStatToNfsStat(&ctxt, Self(), &resok->obj_attributes.attributes);
    if (statErr != 0) {
        OXEL_LOG(-1, "Error: Failed to stat(). [%d:%s]", statErr, strerror(statErr));
        result->status = SysErrToNFSErr(statErr, true);
        return TRUE;
    }
    struct statfs fs;
    const int statfsErr = object->StatFs(&ctxt, Self(), &fs);
    if (statfsErr != 0) {
        OXEL_LOG(-1, "Error: Failed to statfs(). [%d:%s]", statfsErr, strerror(statfsErr));
        result->status = SysErrToNFSErr(statfsErr, true);
        return TRUE;
    }

    const uint64_t blockBytes = static_cast<uint64_t>(fs.f_bsize);
    resok->obj_attributes.attributes_follow = TRUE;
    resok->tbytes = blockBytes * fs.f_blocks;
    resok->fbytes = blockBytes * fs.f_bfree;
    resok->abytes = blockBytes * fs.f_bavail;
    resok->tfiles = fs.f_files;
    resok->ffiles = fs.f_ffree;
    resok->afiles = fs.f_ffree;  // none are kept back for the superuser
    resok->invarsec = 1;
    OXEL_LOG(4, "resok->tbytes [%llx]", static_cast<unsigned long long>(resok->tbytes));
    return TRUE;
}

bool_t Free_FSSTAT3(CallInfo3*) {
    OXEL_LOG(4, "Freed memory");
    return TRUE;
}

// ---- FSINFO (section 3.3.19) ----

bool_t Handle_FSINFO3(CallInfo3* call) {
    PerfCounterWrapper counter("NFS", 60);
    const FSINFO3args& args = call->arguments().fsinfo;
    FSINFO3res* result = &call->result.fsinfo;
    FSINFO3resok* resok = &result->resok;
    resok->obj_attributes.attributes_follow = FALSE;

    FSMPtr module;
    result->status =
        ValidateAndAuthorize(args.fsroot, call->identity, module, call->exportPtr, kForRead);
    if (result->status != NFS3_OK) return TRUE;
    const BkEndProcPtr object = module->GetBkEndProc(call->exportPtr, args.fsroot);
    if (!object) {
        OXEL_LOG(-1, "Error: FS Root obect is not found.");
        result->status = NFS3ERR_NOENT;
        return TRUE;
    }

    OxelCtxt ctxt(call->identity, call->exportPtr, object);
    const int statErr = OSStatToNfsStat(&ctxt, Self(), &resok->obj_attributes.attributes);
    if (statErr != 0) {
        OXEL_LOG(-1, "Error: Failed to stat(). [%d:%s]", statErr, strerror(statErr));
        result->status = SysErrToNFSErr(statErr, true);
        return TRUE;
    }

    const uint32_t transferBytes = static_cast<uint32_t>(NFS3_MAXBUF_SIZE);  // its low 32 bits
    resok->obj_attributes.attributes_follow = TRUE;
    resok->rtmax = transferBytes;
    resok->rtpref = transferBytes;
    resok->rtmult = 1;
    resok->wtmax = transferBytes;
    resok->wtpref = transferBytes;
    resok->wtmult = 1;
    resok->dtpref = transferBytes;
    resok->maxfilesize = uint64_t{100} << 40;
    // Times are kept to the second. RFC 1813 would have seconds 1 here; the same second in the
    // other field is what clients of this server know.
    resok->time_delta.seconds = 0;
    resok->time_delta.nseconds = 1000000000;
    resok->properties = FSF3_LINK | FSF3_SYMLINK | FSF3_HOMOGENEOUS | FSF3_CANSETTIME;
    return TRUE;
}

bool_t Free_FSINFO3(CallInfo3*) {
    OXEL_LOG(4, "Freed memory");
    return TRUE;
}

// ---- PATHCONF (section 3.3.20) ----

bool_t Handle_PATHCONF3(CallInfo3* call) {
    PerfCounterWrapper counter("NFS", 61);
    const PATHCONF3args& args = call->arguments().pathconf;
    PATHCONF3res* result = &call->result.pathconf;
    PATHCONF3resok* resok = &result->resok;
    resok->obj_attributes.attributes_follow = FALSE;

    FSMPtr module;
    result->status =
        ValidateAndAuthorize(args.object, call->identity, module, call->exportPtr, kForRead);
    if (result->status != NFS3_OK) return TRUE;
    const BkEndProcPtr object = module->GetBkEndProc(call->exportPtr, args.object);
    if (!object) {
        OXEL_LOG(-1, "Error: Stale File Handle. FH [%s] IP [%s]", FH2Str(args.object).c_str(),
                 GetClientIPStr(call->transport->xp_raddr).c_str());
        result->status = NFS3ERR_STALE;
        return TRUE;
    }

    OxelCtxt ctxt(call->identity, call->exportPtr, object);
    const std::string& path = object->GetPath();
    // As they come: no limit (-1) is shown as the largest number, a truth value as its number.
    const auto limit = [&](int name) {
        return static_cast<uint32_t>(object->PathConf(&ctxt, path, name));
    };
    resok->linkmax = limit(_PC_LINK_MAX);
    resok->name_max = limit(_PC_NAME_MAX);
    resok->no_trunc = limit(_PC_NO_TRUNC);
    resok->chown_restricted = limit(_PC_CHOWN_RESTRICTED);
    resok->case_insensitive = FALSE;
    resok->case_preserving = TRUE;
    resok->obj_attributes.attributes_follow =
        OSStatToNfsStat(&ctxt, path, &resok->obj_attributes.attributes) == 0;
    return TRUE;
}

bool_t Free_PATHCONF3(CallInfo3*) {
    OXEL_LOG(4, "Freed memory");
    return TRUE;
}
