// SPDX-License-Identifier: Apache-2.0
//
// Between the operating system's language (errno, struct stat) and the protocol's (nfsstat3,
// fattr3, wcc_attr, sattr3). Every procedure uses these. Reasons are taken from errno at once: what
// follows, logging included, may change it.
#include <sys/stat.h>
#include <sys/time.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "backend/BkEndProc.h"
#include "base/log.h"
#include "nfs3/nfs3proc.h"

namespace {

struct StatusOfErrno {
    int err;
    nfsstat3 status;
};

constexpr StatusOfErrno kStatusRows[] = {
    {EPERM, NFS3ERR_PERM},
    {ENOENT, NFS3ERR_NOENT},
    {EIO, NFS3ERR_IO},
    {ENXIO, NFS3ERR_NXIO},
    {EACCES, NFS3ERR_ACCES},
    {EEXIST, NFS3ERR_EXIST},
    {EXDEV, NFS3ERR_XDEV},
    {ENODEV, NFS3ERR_NODEV},
    {ENOTDIR, NFS3ERR_NOTDIR},
    {EISDIR, NFS3ERR_ISDIR},
    {EINVAL, NFS3ERR_INVAL},
    {EFBIG, NFS3ERR_FBIG},
    {ENOSPC, NFS3ERR_NOSPC},
    {EROFS, NFS3ERR_ROFS},
    {EMLINK, NFS3ERR_MLINK},
    {ENAMETOOLONG, NFS3ERR_NAMETOOLONG},
    {ENOTEMPTY, NFS3ERR_NOTEMPTY},
};

// The rows by errno; an errno without a row is its own status. That a client sees 11 for EAGAIN or
// 122 for EDQUOT is meant: the number still tells what went wrong to who looks at the wire, though
// Linux makes EIO of those that version 3 does not have.
constexpr auto kStatusByErrno = []() {
    std::array<nfsstat3, ENOTEMPTY + 1> table{};
    for (size_t err = 0; err < table.size(); ++err) table[err] = static_cast<nfsstat3>(err);
    for (const StatusOfErrno& row : kStatusRows) table[row.err] = row.status;
    return table;
}();
static_assert(kStatusByErrno[ENAMETOOLONG] == 63 && kStatusByErrno[ENOTEMPTY] == 66);

constexpr ftype3 kNoType = static_cast<ftype3>(0);

// By the file-type bits of st_mode, moved down to 0..15.
constexpr auto kTypeByMode = [] {
    std::array<ftype3, 16> table{};
    table[S_IFIFO >> 12] = NF3FIFO;
    table[S_IFCHR >> 12] = NF3CHR;
    table[S_IFDIR >> 12] = NF3DIR;
    table[S_IFBLK >> 12] = NF3BLK;
    table[S_IFREG >> 12] = NF3REG;
    table[S_IFLNK >> 12] = NF3LNK;
    table[S_IFSOCK >> 12] = NF3SOCK;
    return table;
}();

// Permission, set-user-id and set-group-id bits; the sticky bit is not shown to clients.
constexpr uint32_t kModeBits = 0xDFF;
// One number for every share, so that a client sees one file system whatever lies below.
constexpr uint64_t kFileSystemId = 2051;
// Directories have the same size on every back end.
constexpr uint64_t kDirectoryBytes = 4096;

uint32_t Seconds(time_t time) {
    return static_cast<uint32_t>(time);
}

// `type` is left as it is where the object's kind has no NFS type.
void FillAttributes(const struct stat& st, ftype3 type, fattr3* out) {
    if (type != kNoType) out->type = type;
    out->mode = st.st_mode & kModeBits;
    out->nlink = static_cast<uint32_t>(st.st_nlink);
    out->uid = st.st_uid;
    out->gid = st.st_gid;
    if (out->type == NF3DIR) {
        out->size = kDirectoryBytes;
        out->used = kDirectoryBytes;
    } else {
        out->size = static_cast<uint64_t>(st.st_size);
        // Not st_blocks * 512: the unit is the object's preferred block size.
        out->used = static_cast<uint64_t>(st.st_blocks) * static_cast<uint64_t>(st.st_blksize);
    }
    out->fsid = kFileSystemId;
    out->fileid = st.st_ino;
    out->atime.seconds = Seconds(st.st_atime);
    out->mtime.seconds = Seconds(st.st_mtime);
    out->ctime.seconds = Seconds(st.st_ctime);
}

ftype3 TypeOf(const struct stat& st) {
    return kTypeByMode[(st.st_mode & S_IFMT) >> 12];
}

}  // namespace

nfsstat3 SysErrToNFSErr(int err, bool zeroIsError) {
    if (zeroIsError && err == 0) {
        OXEL_LOG(-1, "%s: Received error code 0", "SysErrToNFSErr");
        return NFS3ERR_INVAL;
    }
    if (err < 0 || static_cast<size_t>(err) >= kStatusByErrno.size())
        return static_cast<nfsstat3>(err);
    return kStatusByErrno[static_cast<size_t>(err)];
}

int OSStatToNfsStat(OxelCtxt* ctxt, const std::string& path, fattr3* out) {
    struct stat st;
    if (ctxt->object->Stat(ctxt, path, &st) != 0) {
        const int err = errno;
        OXEL_LOG(-1, "Error: Failed to stat [%s]. [%d:%s]", path.c_str(), err, strerror(err));
        return err;
    }
    OXEL_LOG(3, "Object type = [%x : %x].", st.st_mode, st.st_mode & S_IFMT);
    const ftype3 type = TypeOf(st);
    if (type == kNoType) OXEL_LOG(-1, "Error: Unknown Object type = [%x].", st.st_mode & S_IFMT);
    FillAttributes(st, type, out);
    OXEL_LOG(3, "Filled stat info.");
    return 0;
}

int OSStatToNfsStatLinuxClient(OxelCtxt* ctxt, const std::string& path, fattr3* out) {
    struct stat st;
    if (ctxt->object->Stat(ctxt, path, &st) != 0) {
        const int err = errno;
        OXEL_LOG(-1, "Error: Failed to stat [%s]. [%d:%s]", path.c_str(), err, strerror(err));
        return err;
    }
    OXEL_LOG(3, "mode [%o] uid [%u] gid [%u].", st.st_mode, st.st_uid, st.st_gid);
    const ftype3 type = TypeOf(st);
    if (type == kNoType) OXEL_LOG(-1, "Error: Unknown Object type = [%x].", st.st_mode & S_IFMT);
    FillAttributes(st, type, out);
    OXEL_LOG(3, "Filled stat info mode [%o] uid [%u] gid [%u]", out->mode, out->uid, out->gid);
    return 0;
}

int OSStatToWccAttr(OxelCtxt* ctxt, const std::string& path, wcc_attr* out) {
    struct stat st;
    if (ctxt->object->Stat(ctxt, path, &st) != 0) {
        const int err = errno;
        OXEL_LOG(-1, "Error: Failed to stat [%s]. [%d:%s]", path.c_str(), err, strerror(err));
        return err;
    }
    out->size = S_ISDIR(st.st_mode) ? kDirectoryBytes : static_cast<uint64_t>(st.st_size);
    out->mtime.seconds = Seconds(st.st_mtime);
    out->ctime.seconds = Seconds(st.st_ctime);
    OXEL_LOG(3, "Filled stat info.");
    return 0;
}

void ClearFollows(wcc_data* wcc) {
    wcc->before.attributes_follow = FALSE;
    wcc->after.attributes_follow = FALSE;
}

nfsstat3 ApplySattr(OxelCtxt* ctxt, sattr3* attributes, const std::string& path, ftype3 type,
                    bool failOnError, nfstime3* guardCtime) {
    BkEndProc& object = *ctxt->object;

    if (attributes->mode.set_it && object.Chmod(ctxt, path, attributes->mode.value) == -1) {
        const int err = errno;
        OXEL_LOG(-1, "Error: Failed to chmod [%s]. [%s]", path.c_str(), strerror(err));
        if (failOnError) return SysErrToNFSErr(err, true);
    }

    // One of the two alone is ignored without a word.
    if (attributes->uid.set_it && attributes->gid.set_it) {
        if (object.Chown(ctxt, path, attributes->uid.value, attributes->gid.value) == -1) {
            const int err = errno;
            OXEL_LOG(-1, "Error: Failed to chown [%s]. [%s]", path.c_str(), strerror(err));
            if (failOnError) return SysErrToNFSErr(err, true);
        }
        OXEL_LOG(4, "uid [%d] gid [%d]", static_cast<int>(attributes->uid.value),
                 static_cast<int>(attributes->gid.value));
    }

    struct stat st;
    const bool statFilled = object.Stat(ctxt, path, &st) == 0;
    if (!statFilled) {
        const int err = errno;
        OXEL_LOG(-1, "Error: Failed to stat [%s]. [%s]", path.c_str(), strerror(err));
        if (failOnError) return SysErrToNFSErr(err, true);
    }

    // Each time is gated by the other one's set_it and takes its source from its own. Clients have
    // long lived with it: setting only the mtime to a client's time moves the atime to now and
    // leaves the mtime alone. A guard that does not hold is no failure (RFC 1813 section 3.3.2
    // would answer NFS3ERR_NOT_SYNC); the times just stay.
    const bool mayChange = guardCtime == nullptr ||
                           (statFilled && static_cast<int64_t>(guardCtime->seconds) >= st.st_ctime);
    const bool setAccess = mayChange && attributes->mtime.set_it != DONT_CHANGE;
    const bool setModification = mayChange && attributes->atime.set_it != DONT_CHANGE;
    // SetTimes takes both times; one that is to stay must be known.
    if ((setAccess || setModification) && (statFilled || (setAccess && setModification))) {
        struct timeval now;
        gettimeofday(&now, nullptr);
        const auto chosen = [&now](const set_time& wish) {
            if (wish.set_it != SET_TO_CLIENT_TIME) return now;
            return timeval{static_cast<time_t>(wish.time.seconds),
                           static_cast<suseconds_t>(wish.time.nseconds / 1000)};
        };
        struct timeval accessTime {
        }, modificationTime{};
        if (setAccess) {
            accessTime = chosen(attributes->atime);
            OXEL_LOG(4, "Setting atime to [%u : %u]", Seconds(accessTime.tv_sec),
                     static_cast<unsigned>(accessTime.tv_usec));
        } else {
            accessTime.tv_sec = st.st_atime;
        }
        if (setModification) {
            modificationTime = chosen(attributes->mtime);
            OXEL_LOG(4, "Setting mtime to [%u : %u]", Seconds(modificationTime.tv_sec),
                     static_cast<unsigned>(modificationTime.tv_usec));
        } else {
            modificationTime.tv_sec = st.st_mtime;
        }
        if (object.SetTimes(ctxt, path, accessTime, modificationTime) != 0) {
            const int err = errno;
            OXEL_LOG(-1, "Error: Failed to set time stamps. Error [%s]", strerror(err));
            if (failOnError) return SysErrToNFSErr(err, true);
        }
    }

    if (type == NF3REG && attributes->size.set_it) {
        if (object.Truncate(ctxt, path, attributes->size.size) != 0) {
            const int err = errno;
            OXEL_LOG(-1, "Error: Failed to truncate. Error [%s]", strerror(err));
            if (failOnError) return SysErrToNFSErr(err, true);
        } else {
            OXEL_LOG(3, "Successfully resized [%s] to [%lld] bytes.", path.c_str(),
                     static_cast<long long>(attributes->size.size));
        }
    }
    return NFS3_OK;
}

static const char* SetText(bool_t setIt) {
    return setIt ? "Set to " : "Dont set";
}

static const char* TimeText(time_how how) {
    if (how == SET_TO_CLIENT_TIME) return "Set to Client Time";
    if (how == SET_TO_SERVER_TIME) return "Set to server time";
    return "Dont Change";
}

void Dumpsattr3(sattr3& attributes) {
    OXEL_LOG(3, "mode [%s: %x] uid [%s: %d] gid [%s: %d] size [%s: %llu]",
             SetText(attributes.mode.set_it), attributes.mode.value, SetText(attributes.uid.set_it),
             static_cast<int>(attributes.uid.value), SetText(attributes.gid.set_it),
             static_cast<int>(attributes.gid.value), SetText(attributes.size.set_it),
             static_cast<unsigned long long>(attributes.size.size));
    // Both labels are the atime's.
    OXEL_LOG(3, "time [%s: {%u %u}] mtime [%s: {%u %u}]", TimeText(attributes.atime.set_it),
             attributes.atime.time.seconds, attributes.atime.time.nseconds,
             TimeText(attributes.atime.set_it), attributes.mtime.time.seconds,
             attributes.mtime.time.nseconds);
}
