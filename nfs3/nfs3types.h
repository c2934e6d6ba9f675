// SPDX-License-Identifier: Apache-2.0
//
// RFC 1813's records in memory. Names and field order are the RFC's; what differs is said where it
// differs: the handle is three words and the module's bytes, verifiers are 64-bit numbers, names
// are NUL-terminated heap strings, WRITE's data lies behind its argument record.
#pragma once

#include <rpc/types.h>

#include <cstdint>

#include "backend/nfs_fh3.h"

// Section 2.6. Handlers may send other values too: an errno without a row in the error table goes
// to the client as it is, so every 32-bit value is a valid nfsstat3.
enum nfsstat3 : int32_t {
    NFS3_OK = 0,
    NFS3ERR_PERM = 1,
    NFS3ERR_NOENT = 2,
    NFS3ERR_IO = 5,
    NFS3ERR_NXIO = 6,
    NFS3ERR_ACCES = 13,
    NFS3ERR_EXIST = 17,
    NFS3ERR_XDEV = 18,
    NFS3ERR_NODEV = 19,
    NFS3ERR_NOTDIR = 20,
    NFS3ERR_ISDIR = 21,
    NFS3ERR_INVAL = 22,
    NFS3ERR_FBIG = 27,
    NFS3ERR_NOSPC = 28,
    NFS3ERR_ROFS = 30,
    NFS3ERR_MLINK = 31,
    NFS3ERR_NAMETOOLONG = 63,
    NFS3ERR_NOTEMPTY = 66,
    NFS3ERR_DQUOT = 69,
    NFS3ERR_STALE = 70,
    NFS3ERR_REMOTE = 71,
    NFS3ERR_BADHANDLE = 10001,
    NFS3ERR_NOT_SYNC = 10002,
    NFS3ERR_BAD_COOKIE = 10003,
    NFS3ERR_NOTSUPP = 10004,
    NFS3ERR_TOOSMALL = 10005,
    NFS3ERR_SERVERFAULT = 10006,
    NFS3ERR_BADTYPE = 10007,
    NFS3ERR_JUKEBOX = 10008,
};

enum ftype3 : uint32_t {
    NF3REG = 1,
    NF3DIR = 2,
    NF3BLK = 3,
    NF3CHR = 4,
    NF3LNK = 5,
    NF3SOCK = 6,
    NF3FIFO = 7,
};

enum time_how : uint32_t { DONT_CHANGE = 0, SET_TO_SERVER_TIME = 1, SET_TO_CLIENT_TIME = 2 };
enum createmode3 : uint32_t { UNCHECKED = 0, GUARDED = 1, EXCLUSIVE = 2 };

// ACCESS masks (section 3.3.4).
inline constexpr uint32_t ACCESS3_READ = 0x01;
inline constexpr uint32_t ACCESS3_LOOKUP = 0x02;
inline constexpr uint32_t ACCESS3_MODIFY = 0x04;
inline constexpr uint32_t ACCESS3_EXTEND = 0x08;
inline constexpr uint32_t ACCESS3_DELETE = 0x10;
inline constexpr uint32_t ACCESS3_EXECUTE = 0x20;

// FSINFO properties (section 3.3.19).
inline constexpr uint32_t FSF3_LINK = 0x01;
inline constexpr uint32_t FSF3_SYMLINK = 0x02;
inline constexpr uint32_t FSF3_HOMOGENEOUS = 0x08;
inline constexpr uint32_t FSF3_CANSETTIME = 0x10;

// The longest string of any kind that is decoded, in bytes.
inline constexpr uint32_t kXdrStringBytesMax = 4096;

using cookieverf3 = uint64_t;
using writeverf3 = uint64_t;
using createverf3 = uint64_t;

struct nfstime3 {
    uint32_t seconds;
    uint32_t nseconds;
};

struct specdata3 {
    uint32_t specdata1;
    uint32_t specdata2;
};

struct fattr3 {
    ftype3 type;
    uint32_t mode;
    uint32_t nlink;
    uint32_t uid;
    uint32_t gid;
    uint64_t size;
    uint64_t used;
    specdata3 rdev;
    uint64_t fsid;
    uint64_t fileid;
    nfstime3 atime;
    nfstime3 mtime;
    nfstime3 ctime;
};

struct wcc_attr {
    uint64_t size;
    nfstime3 mtime;
    nfstime3 ctime;
};

struct post_op_attr {
    bool_t attributes_follow;
    fattr3 attributes;
};

struct pre_op_attr {
    bool_t attributes_follow;
    wcc_attr attributes;
};

struct wcc_data {
    pre_op_attr before;
    post_op_attr after;
};

struct post_op_fh3 {
    bool_t handle_follows;
    nfs_fh3 handle;
};

// set_mode3, set_uid3 and set_gid3 of the RFC.
struct set_attrib {
    bool_t set_it;
    uint32_t value;
};

struct set_size {
    bool_t set_it;
    uint64_t size;
};

// set_atime and set_mtime of the RFC.
struct set_time {
    time_how set_it;
    nfstime3 time;
};

struct sattr3 {
    set_attrib mode;
    set_attrib uid;
    set_attrib gid;
    set_size size;
    set_time atime;
    set_time mtime;
};

struct diropargs3 {
    nfs_fh3 dir;
    char* name;  // from the decoder, freed by the transport's free-arguments operation
};

struct sattrguard3 {
    bool_t check;
    nfstime3 obj_ctime;
};

// The attributes and EXCLUSIVE's verifier share one storage: the verifier's two words are the words
// of obj_attributes.mode, which CREATE reads as such in every mode.
struct createhow3 {
    createmode3 mode;
    union {
        sattr3 obj_attributes;
        struct {
            uint32_t high;  // the first word on the wire
            uint32_t low;
        } verf;
    };
    uint64_t Verifier() const { return (uint64_t{verf.high} << 32) | verf.low; }
};

struct symlinkdata3 {
    sattr3 symlink_attributes;
    char* symlink_data;
};

struct devicedata3 {
    sattr3 dev_attributes;
    specdata3 spec;
};

struct mknoddata3 {
    ftype3 type;
    union {
        devicedata3 device;      // NF3CHR, NF3BLK
        sattr3 pipe_attributes;  // NF3SOCK, NF3FIFO
    };
};

// ---- Arguments and results, in the order of section 3.3; every argument begins with a handle ----

struct GETATTR3args {
    nfs_fh3 object;
};

struct GETATTR3resok {
    fattr3 obj_attributes;
};

struct GETATTR3res {
    nfsstat3 status;
    GETATTR3resok resok;
};

struct SETATTR3args {
    nfs_fh3 object;
    sattr3 new_attributes;
    sattrguard3 guard;
};

struct SETATTR3resok {
    wcc_data obj_wcc;
};

struct SETATTR3resfail {
    wcc_data obj_wcc;
};

struct SETATTR3res {
    nfsstat3 status;
    union {
        SETATTR3resok resok;
        SETATTR3resfail resfail;
    };
};

struct LOOKUP3args {
    diropargs3 what;
};

struct LOOKUP3resok {
    nfs_fh3 object;
    post_op_attr obj_attributes;
    post_op_attr dir_attributes;
};

struct LOOKUP3resfail {
    post_op_attr dir_attributes;
};

struct LOOKUP3res {
    nfsstat3 status;
    union {
        LOOKUP3resok resok;
        LOOKUP3resfail resfail;
    };
};

struct ACCESS3args {
    nfs_fh3 object;
    uint32_t access;
};

struct ACCESS3resok {
    post_op_attr obj_attributes;
    uint32_t access;
};

struct ACCESS3resfail {
    post_op_attr obj_attributes;
};

struct ACCESS3res {
    nfsstat3 status;
    union {
        ACCESS3resok resok;
        ACCESS3resfail resfail;
    };
};

struct READLINK3args {
    nfs_fh3 symlink;
};

struct READLINK3resok {
    post_op_attr symlink_attributes;
    char* data;
};

struct READLINK3resfail {
    post_op_attr symlink_attributes;
};

struct READLINK3res {
    nfsstat3 status;
    union {
        READLINK3resok resok;
        READLINK3resfail resfail;
    };
};

struct READ3args {
    nfs_fh3 file;
    uint64_t offset;
    uint32_t count;
};

struct READ3resok {
    post_op_attr file_attributes;
    uint32_t count;
    bool_t eof;
    struct {
        uint32_t data_len;
        char* data_val;
    } data;  // the buffer belongs to the call record
};

struct READ3resfail {
    post_op_attr file_attributes;
};

struct READ3res {
    nfsstat3 status;
    union {
        READ3resok resok;
        READ3resfail resfail;
    };
};

// The data lies directly behind the record, in an area of WriteAreaBytes(): the record must be the
// call record's own (or one allocated with that room).
struct alignas(16) WRITE3args {
    nfs_fh3 file;
    uint64_t offset;
    uint32_t count;
    stable_how stable;
    char* data() { return reinterpret_cast<char*>(this + 1); }
};

struct WRITE3resok {
    wcc_data file_wcc;
    uint32_t count;
    stable_how committed;
    writeverf3 verf;
};

struct WRITE3resfail {
    wcc_data file_wcc;
};

struct WRITE3res {
    nfsstat3 status;
    union {
        WRITE3resok resok;
        WRITE3resfail resfail;
    };
};

struct CREATE3args {
    diropargs3 where;
    createhow3 how;
};

struct MKDIR3args {
    diropargs3 where;
    sattr3 attributes;
};

struct SYMLINK3args {
    diropargs3 where;
    symlinkdata3 symlink;
};

struct MKNOD3args {
    diropargs3 where;
    mknoddata3 what;
};

struct CREATE3resok {
    post_op_fh3 obj;
    post_op_attr obj_attributes;
    wcc_data dir_wcc;
};

struct CREATE3resfail {
    wcc_data dir_wcc;
};

struct CREATE3res {
    nfsstat3 status;
    union {
        CREATE3resok resok;
        CREATE3resfail resfail;
    };
};

struct MKDIR3resok {
    post_op_fh3 obj;
    post_op_attr obj_attributes;
    wcc_data dir_wcc;
};

struct MKDIR3resfail {
    wcc_data dir_wcc;
};

struct MKDIR3res {
    nfsstat3 status;
    union {
        MKDIR3resok resok;
        MKDIR3resfail resfail;
    };
};

struct SYMLINK3resok {
    post_op_fh3 obj;
    post_op_attr obj_attributes;
    wcc_data dir_wcc;
};

struct SYMLINK3resfail {
    wcc_data dir_wcc;
};

struct SYMLINK3res {
    nfsstat3 status;
    union {
        SYMLINK3resok resok;
        SYMLINK3resfail resfail;
    };
};

struct MKNOD3resok {
    post_op_fh3 obj;
    post_op_attr obj_attributes;
    wcc_data dir_wcc;
};

struct MKNOD3resfail {
    wcc_data dir_wcc;
};

struct MKNOD3res {
    nfsstat3 status;
    union {
        MKNOD3resok resok;
        MKNOD3resfail resfail;
    };
};

struct REMOVE3args {
    diropargs3 object;
};

struct REMOVE3resok {
    wcc_data dir_wcc;
};

struct REMOVE3resfail {
    wcc_data dir_wcc;
};

struct REMOVE3res {
    nfsstat3 status;
    union {
        REMOVE3resok resok;
        REMOVE3resfail resfail;
    };
};

struct RMDIR3args {
    diropargs3 object;
};

struct RMDIR3resok {
    wcc_data dir_wcc;
};

struct RMDIR3resfail {
    wcc_data dir_wcc;
};

struct RMDIR3res {
    nfsstat3 status;
    union {
        RMDIR3resok resok;
        RMDIR3resfail resfail;
    };
};

struct RENAME3args {
    diropargs3 from;
    diropargs3 to;
};

struct RENAME3resok {
    wcc_data fromdir_wcc;
    wcc_data todir_wcc;
};

struct RENAME3resfail {
    wcc_data fromdir_wcc;
    wcc_data todir_wcc;
};

struct RENAME3res {
    nfsstat3 status;
    union {
        RENAME3resok resok;
        RENAME3resfail resfail;
    };
};

struct LINK3args {
    nfs_fh3 file;
    diropargs3 link;
};

struct LINK3resok {
    post_op_attr file_attributes;
    wcc_data linkdir_wcc;
};

struct LINK3resfail {
    post_op_attr file_attributes;
    wcc_data linkdir_wcc;
};

struct LINK3res {
    nfsstat3 status;
    union {
        LINK3resok resok;
        LINK3resfail resfail;
    };
};

struct READDIR3args {
    nfs_fh3 dir;
    uint64_t cookie;
    cookieverf3 cookieverf;
    uint32_t count;
};

struct entry3;
struct entryplus3;

// A link to an entry: the optional-data flag and the node. The same form holds a list's head.
struct dirlist3 {
    bool_t present;
    entry3* entry;
};

struct dirlistplus3 {
    bool_t present;
    entryplus3* entry;
};

// Entries are made with new, their names with strdup.
struct entry3 {
    uint64_t fileid;
    char* name;
    uint64_t cookie;
    dirlist3 next;
};

struct entryplus3 {
    uint64_t fileid;
    char* name;
    uint64_t cookie;
    post_op_attr name_attributes;
    post_op_fh3 name_handle;
    dirlistplus3 next;
};

struct READDIR3resok {
    post_op_attr dir_attributes;
    cookieverf3 cookieverf;
    dirlist3 reply;
    bool_t eof;
};

struct READDIR3resfail {
    post_op_attr dir_attributes;
};

struct READDIR3res {
    nfsstat3 status;
    union {
        READDIR3resok resok;
        READDIR3resfail resfail;
    };
};

struct READDIRPLUS3args {
    nfs_fh3 dir;
    uint64_t cookie;
    cookieverf3 cookieverf;
    uint32_t dircount;
    uint32_t maxcount;
};

struct READDIRPLUS3resok {
    post_op_attr dir_attributes;
    cookieverf3 cookieverf;
    dirlistplus3 reply;
    bool_t eof;
};

struct READDIRPLUS3resfail {
    post_op_attr dir_attributes;
};

struct READDIRPLUS3res {
    nfsstat3 status;
    union {
        READDIRPLUS3resok resok;
        READDIRPLUS3resfail resfail;
    };
};

struct FSSTAT3args {
    nfs_fh3 fsroot;
};

struct FSSTAT3resok {
    post_op_attr obj_attributes;
    uint64_t tbytes;
    uint64_t fbytes;
    uint64_t abytes;
    uint64_t tfiles;
    uint64_t ffiles;
    uint64_t afiles;
    uint32_t invarsec;
};

struct FSSTAT3resfail {
    post_op_attr obj_attributes;
};

struct FSSTAT3res {
    nfsstat3 status;
    union {
        FSSTAT3resok resok;
        FSSTAT3resfail resfail;
    };
};

struct FSINFO3args {
    nfs_fh3 fsroot;
};

struct FSINFO3resok {
    post_op_attr obj_attributes;
    uint32_t rtmax;
    uint32_t rtpref;
    uint32_t rtmult;
    uint32_t wtmax;
    uint32_t wtpref;
    uint32_t wtmult;
    uint32_t dtpref;
    uint64_t maxfilesize;
    nfstime3 time_delta;
    uint32_t properties;
};

struct FSINFO3resfail {
    post_op_attr obj_attributes;
};

struct FSINFO3res {
    nfsstat3 status;
    union {
        FSINFO3resok resok;
        FSINFO3resfail resfail;
    };
};

struct PATHCONF3args {
    nfs_fh3 object;
};

struct PATHCONF3resok {
    post_op_attr obj_attributes;
    uint32_t linkmax;
    uint32_t name_max;
    uint32_t no_trunc;
    uint32_t chown_restricted;
    bool_t case_insensitive;
    bool_t case_preserving;
};

struct PATHCONF3resfail {
    post_op_attr obj_attributes;
};

struct PATHCONF3res {
    nfsstat3 status;
    union {
        PATHCONF3resok resok;
        PATHCONF3resfail resfail;
    };
};

struct COMMIT3args {
    nfs_fh3 file;
    uint64_t offset;
    uint32_t count;
};

struct COMMIT3resok {
    wcc_data file_wcc;
    writeverf3 verf;
};

struct COMMIT3resfail {
    wcc_data file_wcc;
};

struct COMMIT3res {
    nfsstat3 status;
    union {
        COMMIT3resok resok;
        COMMIT3resfail resfail;
    };
};
