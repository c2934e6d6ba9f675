// SPDX-License-Identifier: Apache-2.0
//
// The NFS version 3 procedures. A handler works on its call record alone: it resolves the handle,
// acts through the back end's contract, and fills the result; every failure is a status in the
// result. It returns non-zero: the reply is to be sent. Handlers run on many threads at once.
#pragma once

#include <dirent.h>

#include <string>

#include "backend/FSM.h"
#include "backend/OxelCtxt.h"
#include "bin/oxelService_callinfo.h"
#include "nfs3/nfs3types.h"

// Those that somebody has to tell from the others (RFC 1813 section 3).
enum Nfs3Procedure : int {
    NFSPROC3_READ = 6,
    NFSPROC3_WRITE = 7,
    NFSPROC3_READDIR = 16,
    NFSPROC3_READDIRPLUS = 17,
};
inline constexpr int kNfs3ProcedureCount = 22;
extern const ProcedureRow Nfsv3Handlers[kNfs3ProcedureCount];

// ---- Handles and access (nfs3proc_handle.cpp) ----

// Resolves the share of a handle into `share` unless it is set already; it stays null on failure,
// which is only logged.
void GetExport(const nfs_fh3& handle, ExportPtr& share);
// `forWrite`: whether the procedure modifies.
inline constexpr bool kForRead = false;
inline constexpr bool kForWrite = true;
// Resolves module and share and checks access: NFS3_OK with both set, NFS3ERR_STALE (no module or
// share), NFS3ERR_ACCES (`forWrite` on a read-only share, or the client is not allowed). A `share`
// that is set already is trusted; it stays null when it cannot be resolved.
nfsstat3 ValidateAndAuthorize(const nfs_fh3& handle, const IdInfo& id, FSMPtr& module,
                              ExportPtr& share, bool forWrite);
bool IsExportReadOnly(ExportPtr& share);
// Always empty: log lines have the field, the printable form is the module's GetHandleString.
std::string FH2Str(const nfs_fh3& handle);
// The caller's numeric address, for log lines.
std::string GetClientIPStr(const sockaddr_in6& address);
// The last component of a path.
std::string BaseName(const std::string& path);

// ---- Conversion between the operating system and the protocol (nfs3proc_convert.cpp) ----

// An errno as nfsstat3; values without a row go through unchanged. 0 becomes NFS3ERR_INVAL when
// `zeroIsError`.
nfsstat3 SysErrToNFSErr(int err, bool zeroIsError);
// Fill attributes from the context's object: 0, or the errno of the failed Stat (then *out is
// untouched). nseconds and rdev are not written.
int OSStatToNfsStat(OxelCtxt* ctxt, const std::string& path, fattr3* out);
int OSStatToNfsStatLinuxClient(OxelCtxt* ctxt, const std::string& path, fattr3* out);
int OSStatToWccAttr(OxelCtxt* ctxt, const std::string& path, wcc_attr* out);
// Announces attributes neither from before nor from after.
void ClearFollows(wcc_data* wcc);
// Applies settable attributes: mode, owner, times, size, in this order. With `failOnError` it stops
// at the first failure with its status; without, it logs failures and returns NFS3_OK.
// `guardCtime` older than the object's ctime leaves the times alone; null is no guard.
nfsstat3 ApplySattr(OxelCtxt* ctxt, sattr3* attributes, const std::string& path, ftype3 type,
                    bool failOnError, nfstime3* guardCtime);
void Dumpsattr3(sattr3& attributes);

// ---- New names (nfs3proc_create.cpp) ----

// Traces the directory and the name that a procedure works on.
void DumpDiropArgs(FSMPtr& module, diropargs3* args);

// ---- Directory entries (nfs3proc_readdir.cpp) ----

// Makes the record of one name of the directory `dir` and hangs it into `link`, whose present flag
// is the caller's to set; 0, with `link` untouched, when the name has gone meanwhile and is to be
// skipped. `entry` is read before anything else is asked of the stream. std::bad_alloc leaves
// `link` untouched too.
bool_t FSDirEntToNFSDirEnt(OxelCtxt& ctxt, struct dirent* entry, dirlist3* link, BkEndProcPtr dir);
bool_t FSDirEntToNFSDirEnt(OxelCtxt& ctxt, struct dirent* entry, dirlistplus3* link,
                           BkEndProcPtr dir);

// ---- Handlers, share getters and releases, one set per procedure ----

bool_t Handle_NULL3(CallInfo3* call);  // also MOUNT's procedure 0
bool_t Handle_GETATTR3(CallInfo3* call);
bool_t Handle_SETATTR3(CallInfo3* call);
bool_t Handle_LOOKUP3(CallInfo3* call);
bool_t Handle_ACCESS3(CallInfo3* call);
bool_t Handle_READLINK3(CallInfo3* call);
bool_t Handle_READ3(CallInfo3* call);
bool_t Handle_WRITE3(CallInfo3* call);
bool_t Handle_CREATE3(CallInfo3* call);
bool_t Handle_MKDIR3(CallInfo3* call);
bool_t Handle_SYMLINK3(CallInfo3* call);
bool_t Handle_MKNOD3(CallInfo3* call);
bool_t Handle_REMOVE3(CallInfo3* call);
bool_t Handle_RMDIR3(CallInfo3* call);
bool_t Handle_RENAME3(CallInfo3* call);
bool_t Handle_LINK3(CallInfo3* call);
bool_t Handle_READDIR3(CallInfo3* call);
bool_t Handle_READDIRPLUS3(CallInfo3* call);
bool_t Handle_FSSTAT3(CallInfo3* call);
bool_t Handle_FSINFO3(CallInfo3* call);
bool_t Handle_PATHCONF3(CallInfo3* call);
bool_t Handle_COMMIT3(CallInfo3* call);

void GetExport_GETATTR3(CallInfo3* call);
void GetExport_SETATTR3(CallInfo3* call);
void GetExport_LOOKUP3(CallInfo3* call);
void GetExport_ACCESS3(CallInfo3* call);
void GetExport_READLINK3(CallInfo3* call);
void GetExport_READ3(CallInfo3* call);
void GetExport_WRITE3(CallInfo3* call);
void GetExport_CREATE3(CallInfo3* call);
void GetExport_MKDIR3(CallInfo3* call);
void GetExport_SYMLINK3(CallInfo3* call);
void GetExport_MKNOD3(CallInfo3* call);
void GetExport_REMOVE3(CallInfo3* call);
void GetExport_RMDIR3(CallInfo3* call);
void GetExport_RENAME3(CallInfo3* call);
void GetExport_LINK3(CallInfo3* call);
void GetExport_READDIR3(CallInfo3* call);
void GetExport_READDIRPLUS3(CallInfo3* call);
void GetExport_FSSTAT3(CallInfo3* call);
void GetExport_FSINFO3(CallInfo3* call);
void GetExport_PATHCONF3(CallInfo3* call);
void GetExport_COMMIT3(CallInfo3* call);

bool_t Free_GETATTR3(CallInfo3* call);
bool_t Free_SETATTR3(CallInfo3* call);
bool_t Free_LOOKUP3(CallInfo3* call);
bool_t Free_ACCESS3(CallInfo3* call);
bool_t Free_READLINK3(CallInfo3* call);
bool_t Free_READ3(CallInfo3* call);
bool_t Free_WRITE3(CallInfo3* call);
bool_t Free_CREATE3(CallInfo3* call);
bool_t Free_MKDIR3(CallInfo3* call);
bool_t Free_SYMLINK3(CallInfo3* call);
bool_t Free_MKNOD3(CallInfo3* call);
bool_t Free_REMOVE3(CallInfo3* call);
bool_t Free_RMDIR3(CallInfo3* call);
bool_t Free_RENAME3(CallInfo3* call);
bool_t Free_LINK3(CallInfo3* call);
bool_t Free_READDIR3(CallInfo3* call);
bool_t Free_READDIRPLUS3(CallInfo3* call);
bool_t Free_FSSTAT3(CallInfo3* call);
bool_t Free_FSINFO3(CallInfo3* call);
bool_t Free_PATHCONF3(CallInfo3* call);
bool_t Free_COMMIT3(CallInfo3* call);

// Failure fillers: store the status, clear the attributes-follow flags of the failure arm,
// return 1.
bool_t FillGETATTR3FailRes(GETATTR3res* result, nfsstat3 status);
bool_t FillSETATTR3FailRes(SETATTR3res* result, nfsstat3 status);
bool_t FillLOOKUP3FailRes(LOOKUP3res* result, nfsstat3 status);
bool_t FillREADLINK3FailRes(READLINK3res* result, nfsstat3 status);
bool_t FillREAD3FailRes(READ3res* result, nfsstat3 status);
bool_t FillWriteFailRes(WRITE3res* result, nfsstat3 status);
bool_t FillCreateFailRes(CREATE3res* result, nfsstat3 status);
bool_t FillMkdirFailRes(MKDIR3res* result, nfsstat3 status);
bool_t FillSymlink3FailRes(SYMLINK3res* result, nfsstat3 status);
bool_t FillMKNodFailRes(MKNOD3res* result, nfsstat3 status);
bool_t FillREMOVE3FailRes(REMOVE3res* result, nfsstat3 status);
bool_t FillRMDIR3FailRes(RMDIR3res* result, nfsstat3 status);
bool_t FillRENAME3FailRes(RENAME3res* result, nfsstat3 status);
bool_t FillLink3FailRes(LINK3res* result, nfsstat3 status);
bool_t FillRDirP3FailRes(READDIR3res* result, nfsstat3 status);
bool_t FillRDirP3FailRes(READDIRPLUS3res* result, nfsstat3 status);
bool_t FillCommitFailRes(COMMIT3res* result, nfsstat3 status);
