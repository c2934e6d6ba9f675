// SPDX-License-Identifier: Apache-2.0
//
// From a file handle to its module and share, and who may use them: the first step of every
// procedure. A handle is stale when its module, its share or its object is not there any more;
// nothing else ages a handle.
#include "backend/FSMCache.h"
#include "backend/refusal_log.h"
#include "base/log.h"
#include "base/perf_counter.h"
#include "nfs3/nfs3proc.h"

void GetExport(const nfs_fh3& handle, ExportPtr& share) {
    FSMPtr module;
    if (!FSMCache::GetFSM(handle.fsmType, module)) {
        OXEL_LOG(-1, "FSM Not Found fsmType [%u] shareId [%u] nfh_len [%u].", handle.fsmType,
                 handle.shareId, handle.nfh_len);
        return;
    }
    if (share) return;
    if (!module->GetExportForHandle(handle, share) || !share) {
        share.reset();  // a module that fails may have left something here
        OXEL_LOG(-1, "Export not found for [%s].", module->GetHandleString(handle).c_str());
    }
}

nfsstat3 ValidateAndAuthorize(const nfs_fh3& handle, const IdInfo& id, FSMPtr& module,
                              ExportPtr& share, bool forWrite) {
    PerfCounterWrapper counter("ValidateAndAuthorize", 42);
    if (!FSMCache::GetFSM(handle.fsmType, module)) {
        OXEL_LOG(-1, "FSM Not Found fsmType [%u] shareId [%u] nfh_len [%u].", handle.fsmType,
                 handle.shareId, handle.nfh_len);
        return NFS3ERR_STALE;
    }
    // A share that the call has resolved already is trusted: the reply is sent under its lock.
    if (!share && (!module->GetExportForHandle(handle, share) || !share)) {
        share.reset();
        OXEL_LOG(-1, "Export not found for [%s].", module->GetHandleString(handle).c_str());
        return NFS3ERR_STALE;
    }
    OXEL_LOG(4, "fh [%s]", module->GetHandleString(handle).c_str());
    // Before the client's own check, so that an operator sees the share's setting as the reason
    // whoever asks.
    if (forWrite && IsExportReadOnly(share)) {
        OXEL_LOG(-1, "Write Access denied for share [%s]", share->GetPath().c_str());
        oxel::LogRefusedChange(id.clientAddress, share->GetPath(), nullptr);
        return NFS3ERR_ACCES;
    }
    if (!share->IsClientAllowed(XOIPAddr(id.clientAddress), std::string())) {
        OXEL_LOG(-1, "This object is not accessible to client [%s]",
                 id.clientAddress.GetAddressString().c_str());
        return NFS3ERR_ACCES;
    }
    return NFS3_OK;
}

bool IsExportReadOnly(ExportPtr& share) {
    if (share->IsWritable() != 0) return false;
    OXEL_LOG(4, "INFO: Share [%s] is read-only", share->GetPath().c_str());
    return true;
}

std::string FH2Str(const nfs_fh3&) {
    return std::string();
}

std::string GetClientIPStr(const sockaddr_in6& address) {
    return CLuIPAddr(address).GetAddressString();
}

std::string BaseName(const std::string& path) {
    const size_t last = path.find_last_not_of('/');
    if (last == std::string::npos) return path.empty() ? path : "/";
    const size_t slash = path.find_last_of('/', last);
    const size_t first = slash == std::string::npos ? 0 : slash + 1;
    return path.substr(first, last - first + 1);
}

// ---- One getter per procedure that begins with a handle ----

void GetExport_GETATTR3(CallInfo3* call) {
    GetExport(call->arguments().getattr.object, call->exportPtr);
}

void GetExport_SETATTR3(CallInfo3* call) {
    GetExport(call->arguments().setattr.object, call->exportPtr);
}

void GetExport_LOOKUP3(CallInfo3* call) {
    GetExport(call->arguments().lookup.what.dir, call->exportPtr);
}

void GetExport_ACCESS3(CallInfo3* call) {
    GetExport(call->arguments().access.object, call->exportPtr);
}

void GetExport_READLINK3(CallInfo3* call) {
    GetExport(call->arguments().readlink.symlink, call->exportPtr);
}

void GetExport_READ3(CallInfo3* call) {
    GetExport(call->arguments().read.file, call->exportPtr);
}

void GetExport_WRITE3(CallInfo3* call) {
    GetExport(call->arguments().write.file, call->exportPtr);
}

void GetExport_CREATE3(CallInfo3* call) {
    GetExport(call->arguments().create.where.dir, call->exportPtr);
}

void GetExport_MKDIR3(CallInfo3* call) {
    GetExport(call->arguments().mkdir.where.dir, call->exportPtr);
}

void GetExport_SYMLINK3(CallInfo3* call) {
    GetExport(call->arguments().symlink.where.dir, call->exportPtr);
}

void GetExport_MKNOD3(CallInfo3* call) {
    GetExport(call->arguments().mknod.where.dir, call->exportPtr);
}

void GetExport_REMOVE3(CallInfo3* call) {
    GetExport(call->arguments().remove.object.dir, call->exportPtr);
}

void GetExport_RMDIR3(CallInfo3* call) {
    GetExport(call->arguments().rmdir.object.dir, call->exportPtr);
}

void GetExport_RENAME3(CallInfo3* call) {
    GetExport(call->arguments().rename.from.dir, call->exportPtr);
}

void GetExport_LINK3(CallInfo3* call) {
    GetExport(call->arguments().link.file, call->exportPtr);
}

void GetExport_READDIR3(CallInfo3* call) {
    GetExport(call->arguments().readdir.dir, call->exportPtr);
}

void GetExport_READDIRPLUS3(CallInfo3* call) {
    GetExport(call->arguments().readdirplus.dir, call->exportPtr);
}

void GetExport_FSSTAT3(CallInfo3* call) {
    GetExport(call->arguments().fsstat.fsroot, call->exportPtr);
}

void GetExport_FSINFO3(CallInfo3* call) {
    GetExport(call->arguments().fsinfo.fsroot, call->exportPtr);
}

void GetExport_PATHCONF3(CallInfo3* call) {
    GetExport(call->arguments().pathconf.object, call->exportPtr);
}

void GetExport_COMMIT3(CallInfo3* call) {
    GetExport(call->arguments().commit.file, call->exportPtr);
}
