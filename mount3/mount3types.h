// SPDX-License-Identifier: Apache-2.0
//
// The MOUNT protocol's records in memory (RFC 1813 appendix I).
#pragma once

#include <rpc/types.h>

#include <cstdint>

#include "backend/nfs_fh3.h"

enum mountstat3 : int32_t {
    MNT3_OK = 0,
    MNT3ERR_PERM = 1,
    MNT3ERR_NOENT = 2,
    MNT3ERR_IO = 5,
    MNT3ERR_ACCES = 13,
    MNT3ERR_NOTDIR = 20,
    MNT3ERR_INVAL = 22,
    MNT3ERR_NAMETOOLONG = 63,
    MNT3ERR_NOTSUPP = 10004,
    MNT3ERR_SERVERFAULT = 10006,
};

struct MNT3args {
    char* dirpath;
};

struct MNT3res_ok {
    nfs_fh3 fhandle;
    struct {
        uint32_t auth_flavors_len;
        uint32_t* auth_flavors_val;  // new[]; released by Free_MNT3
    } auth_flavors;
};

struct MNT3res {
    mountstat3 fhs_status;
    MNT3res_ok mountinfo;
};

struct UMNT3args {
    char* dirpath;
};

struct mntentry3;
struct mntlist3 {
    bool_t present;
    mntentry3* entry;
};
struct mntentry3 {
    char* ml_hostname;
    char* ml_directory;
    mntlist3 next;
};
struct DUMP3res {
    mntlist3 mountlist;
};

struct groupnode3;
struct grouplist3 {
    bool_t present;
    groupnode3* group;
};
struct groupnode3 {
    char* gr_name;
    grouplist3 next;
};

struct exportnode3;
struct exportlist3 {
    bool_t present;
    exportnode3* node;
};
struct exportnode3 {
    char* ex_dir;  // strdup
    grouplist3 ex_groups;
    exportlist3 next;
};
struct EXPORT3res {
    exportlist3 exports;
};
