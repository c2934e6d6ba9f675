// SPDX-License-Identifier: Apache-2.0
//
// Most failures are told with the status that the errno stands for. The tables have the others.
#include "tests/faults/expected_answers.h"

#include <cerrno>

#include "tests/support/nfs_client.h"

namespace oxel::test {
namespace {

using enum Operation;

struct StatusRow {
    int error;
    uint32_t status;
};
// RFC 1813 section 2.6, where the number is another one than Linux's.
constexpr StatusRow kOtherNumbers[] = {{ENAMETOOLONG, 63}, {ENOTEMPTY, 66}};

// Failures that do not end the call with their errno's status.
enum class Told {
    kNothing,  // the call goes on, and succeeds
    kStale,    // NFS3ERR_STALE whatever the errno
    kMissing,  // NFS3ERR_NOENT whatever the errno
    kDenied,   // NFS3ERR_ACCES: the operation gives no errno
};
constexpr uint32_t kAny = 0;  // procedure, or nth
struct Oddity {
    uint32_t procedure;
    Operation operation;
    uint32_t nth;
    Told told;
};
constexpr Oddity kOddities[] = {
    // COMMIT, FSSTAT and FSINFO take a handle without an object for a name that is gone.
    {nfs::kCommit, kGetBkEndProc, kAny, Told::kMissing},
    {nfs::kFsstat, kGetBkEndProc, kAny, Told::kMissing},
    {nfs::kFsinfo, kGetBkEndProc, kAny, Told::kMissing},
    {kAny, kGetExportForHandle, kAny, Told::kStale},
    {kAny, kGetBkEndProc, kAny, Told::kStale},
    {kAny, kIsWritable, kAny, Told::kDenied},
    {kAny, kIsClientAllowed, kAny, Told::kDenied},

    // Attributes after what the call was for are sent or left out; it has been done in any case.
    {nfs::kSetattr, kStat, 3, Told::kNothing},
    {nfs::kReadlink, kStat, kAny, Told::kNothing},
    {nfs::kWrite, kStat, 2, Told::kNothing},
    {nfs::kCreate, kStat, 2, Told::kNothing},
    {nfs::kCreate, kStat, 3, Told::kNothing},
    {nfs::kCreate, kStat, 4, Told::kNothing},
    {nfs::kMkdir, kStat, kAny, Told::kNothing},
    {nfs::kSymlink, kStat, 2, Told::kNothing},
    {nfs::kSymlink, kStat, 3, Told::kNothing},
    {nfs::kSymlink, kStat, 4, Told::kNothing},
    {nfs::kRemove, kStat, 2, Told::kNothing},
    {nfs::kRmdir, kStat, 2, Told::kNothing},
    {nfs::kRename, kStat, 3, Told::kNothing},
    {nfs::kRename, kStat, 4, Told::kNothing},
    {nfs::kLink, kStat, 2, Told::kNothing},
    {nfs::kLink, kStat, 3, Told::kNothing},
    {nfs::kReaddir, kStat, kAny, Told::kNothing},
    {nfs::kReaddirplus, kStat, kAny, Told::kNothing},
    {nfs::kPathconf, kStat, kAny, Told::kNothing},
    {nfs::kCommit, kStat, 2, Told::kNothing},
    // LOOKUP and ACCESS send zeros for attributes that they cannot have.
    {nfs::kLookup, kStat, 2, Told::kNothing},
    {nfs::kAccess, kStat, kAny, Told::kNothing},
    // COMMIT without attributes beforehand syncs nothing and says so by a verifier that no WRITE
    // has had: the client sends its data again.
    {nfs::kCommit, kStat, 1, Told::kNothing},

    // Nobody could act on it: what Write and SyncFs have answered holds.
    {nfs::kRead, kClose, kAny, Told::kNothing},
    {nfs::kWrite, kClose, kAny, Told::kNothing},
    {nfs::kCommit, kClose, kAny, Told::kNothing},

    // ACCESS does not grant what it could not ask for, PATHCONF knows no limit then.
    {nfs::kAccess, kAccess, kAny, Told::kNothing},
    {nfs::kPathconf, kPathConf, kAny, Told::kNothing},

    // What is made has the attributes that could be set; only the owner has to be the caller.
    {nfs::kCreate, kChmod, kAny, Told::kNothing},
    {nfs::kCreate, kSetTimes, kAny, Told::kNothing},
    {nfs::kCreate, kTruncate, kAny, Told::kNothing},
    {nfs::kMkdir, kChmod, kAny, Told::kNothing},
    {nfs::kMkdir, kSetTimes, kAny, Told::kNothing},
    {nfs::kSymlink, kChmod, kAny, Told::kNothing},
    {nfs::kSymlink, kChown, kAny, Told::kNothing},
    {nfs::kSymlink, kSetTimes, kAny, Told::kNothing},
    // Making the name finds out whether it exists.
    {nfs::kMkdir, kFindChild, kAny, Told::kNothing},
    {nfs::kSymlink, kFindChild, 1, Told::kNothing},
    // RENAME takes a source that could not be looked for as missing.
    {nfs::kRename, kFindChild, kAny, Told::kMissing},

    // A listing ends where the directory cannot be read on, and leaves out what cannot be found.
    {nfs::kReaddir, kReadDir, kAny, Told::kNothing},
    {nfs::kReaddir, kGetParent, kAny, Told::kNothing},
    {nfs::kReaddir, kFindChild, kAny, Told::kNothing},
    {nfs::kReaddirplus, kReadDir, kAny, Told::kNothing},
    {nfs::kReaddirplus, kGetParent, kAny, Told::kNothing},
    {nfs::kReaddirplus, kFindChild, kAny, Told::kNothing},
};

}  // namespace

uint32_t StatusOf(int error) {
    if (error == 0) return EINVAL;  // a failure without a reason
    for (const StatusRow& row : kOtherNumbers)
        if (row.error == error) return row.status;
    return static_cast<uint32_t>(error);
}

uint32_t StatusAfterFault(const CallKind& call, Operation operation, uint32_t nth, int error) {
    // MNT's handle tells what came of it: it is empty.
    if (call.program == kMountProgram) return operation == kIsClientAllowed ? EACCES : call.ok;
    const uint32_t procedure = call.procedure;
    const bool missing = operation == kFindChild && (error == ENOENT || error == 0);
    // REMOVE and RMDIR of a name that is not there succeed.
    if ((procedure == nfs::kRemove || procedure == nfs::kRmdir) && missing) return call.ok;
    if (procedure == nfs::kCreate && operation == kFindChild)
        return missing || !call.mustBeNew ? call.ok : StatusOf(error);
    // The owner that comes with the attributes may fail, the caller's own may not.
    if ((procedure == nfs::kCreate || procedure == nfs::kMkdir) && operation == kChown &&
        nth == 1 && call.namesOwner)
        return call.ok;
    for (const Oddity& row : kOddities) {
        if (row.procedure != kAny && row.procedure != procedure) continue;
        if (row.operation != operation || (row.nth != kAny && row.nth != nth)) continue;
        switch (row.told) {
            case Told::kNothing:
                return call.ok;
            case Told::kStale:
                return 70;
            case Told::kMissing:
                return 2;
            case Told::kDenied:
                return 13;
        }
    }
    return StatusOf(error);
}

}  // namespace oxel::test
