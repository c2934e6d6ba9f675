// SPDX-License-Identifier: Apache-2.0
//
// The codec of the procedures' arguments, in the order of RFC 1813 section 3.3.
#include <cstring>

#include "backend/OxelServiceGlobals.h"
#include "base/perf_counter.h"
#include "nfs3/nfs3xdr.h"
#include "nfs3/nfs3xdr_words.h"

using oxel::xdr::CodeU32;
using oxel::xdr::CodeWords;

namespace oxel::xdr {

// The words behind the handle.
template <typename Io>
constexpr bool Words(Io& io, READ3args& v) {
    return io.U64(v.offset) && io.U32(v.count);
}

// The words between the handle and the data.
template <typename Io>
constexpr bool Words(Io& io, WRITE3args& v) {
    return io.U64(v.offset) && io.U32(v.count) && io.U32(v.stable);
}

template <typename Io>
constexpr bool Words(Io& io, READDIR3args& v) {
    return io.U64(v.cookie) && io.U64(v.cookieverf) && io.U32(v.count);
}

template <typename Io>
constexpr bool Words(Io& io, READDIRPLUS3args& v) {
    return io.U64(v.cookie) && io.U64(v.cookieverf) && io.U32(v.dircount) && io.U32(v.maxcount);
}

template <typename Io>
constexpr bool Words(Io& io, COMMIT3args& v) {
    return io.U64(v.offset) && io.U32(v.count);
}

}  // namespace oxel::xdr

bool_t xdr_GETATTR3args(XDR* xdrs, GETATTR3args* value) {
    return xdr_nfs_fh3(xdrs, &value->object);
}

static bool_t CodeGuard(XDR* xdrs, sattrguard3* value) {
    if (!xdr_bool(xdrs, &value->check)) return FALSE;
    return value->check ? xdr_nfstime3(xdrs, &value->obj_ctime) : TRUE;
}

bool_t xdr_SETATTR3args(XDR* xdrs, SETATTR3args* value) {
    return xdr_nfs_fh3(xdrs, &value->object) && xdr_sattr3(xdrs, &value->new_attributes) &&
           CodeGuard(xdrs, &value->guard);
}

bool_t xdr_LOOKUP3args(XDR* xdrs, LOOKUP3args* value) {
    return xdr_diropargs3(xdrs, &value->what);
}

bool_t xdr_ACCESS3args(XDR* xdrs, ACCESS3args* value) {
    return xdr_nfs_fh3(xdrs, &value->object) && CodeU32(xdrs, &value->access);
}

bool_t xdr_READLINK3args(XDR* xdrs, READLINK3args* value) {
    return xdr_nfs_fh3(xdrs, &value->symlink);
}

bool_t xdr_READ3args(XDR* xdrs, READ3args* value) {
    PerfCounterWrapper counter("XDR", 15);
    return xdr_nfs_fh3(xdrs, &value->file) && CodeWords(xdrs, value);
}

// The record keeps `count` and no length of the data: the data area always holds `count` bytes.
// What the client counted and did not send is zero there, and never a byte of an earlier call.
bool_t xdr_WRITE3args(XDR* xdrs, WRITE3args* value) {
    PerfCounterWrapper counter("XDR", 15);
    if (xdrs->x_op == XDR_FREE) return TRUE;
    if (!xdr_nfs_fh3(xdrs, &value->file) || !CodeWords(xdrs, value)) return FALSE;
    if (value->count > WriteAreaBytes()) return FALSE;
    u_int length = value->count;
    if (!xdr_u_int(xdrs, &length)) return FALSE;
    if (length > NFS3_MAXBUF_SIZE || length > WriteAreaBytes()) return FALSE;
    if (length != 0 && !oxel::xdr::CodeOpaque(xdrs, value->data(), length)) return FALSE;
    if (xdrs->x_op == XDR_DECODE && length < value->count)
        memset(value->data() + length, 0, value->count - length);
    return TRUE;
}

static bool_t CodeCreateHow(XDR* xdrs, createhow3* value) {
    if (!CodeU32(xdrs, &value->mode)) return FALSE;
    switch (value->mode) {
        case UNCHECKED:
        case GUARDED:
            return xdr_sattr3(xdrs, &value->obj_attributes);
        case EXCLUSIVE:
            return CodeU32(xdrs, &value->verf.high) && CodeU32(xdrs, &value->verf.low);
    }
    return xdrs->x_op == XDR_FREE;  // a partly decoded record holds anything
}

bool_t xdr_CREATE3args(XDR* xdrs, CREATE3args* value) {
    return xdr_diropargs3(xdrs, &value->where) && CodeCreateHow(xdrs, &value->how);
}

bool_t xdr_MKDIR3args(XDR* xdrs, MKDIR3args* value) {
    return xdr_diropargs3(xdrs, &value->where) && xdr_sattr3(xdrs, &value->attributes);
}

bool_t xdr_SYMLINK3args(XDR* xdrs, SYMLINK3args* value) {
    return xdr_diropargs3(xdrs, &value->where) && xdr_symlinkdata3(xdrs, &value->symlink);
}

// Every type has an arm, most of them empty: which types can be made is for the handler to say.
static bool_t CodeMknodData(XDR* xdrs, mknoddata3* value) {
    if (!CodeU32(xdrs, &value->type)) return FALSE;
    switch (value->type) {
        case NF3CHR:
        case NF3BLK:
            return xdr_devicedata3(xdrs, &value->device);
        case NF3SOCK:
        case NF3FIFO:
            return xdr_sattr3(xdrs, &value->pipe_attributes);
        default:
            return TRUE;
    }
}

bool_t xdr_MKNOD3args(XDR* xdrs, MKNOD3args* value) {
    return xdr_diropargs3(xdrs, &value->where) && CodeMknodData(xdrs, &value->what);
}

bool_t xdr_REMOVE3args(XDR* xdrs, REMOVE3args* value) {
    return xdr_diropargs3(xdrs, &value->object);
}

bool_t xdr_RMDIR3args(XDR* xdrs, RMDIR3args* value) {
    return xdr_diropargs3(xdrs, &value->object);
}

bool_t xdr_RENAME3args(XDR* xdrs, RENAME3args* value) {
    return xdr_diropargs3(xdrs, &value->from) && xdr_diropargs3(xdrs, &value->to);
}

bool_t xdr_LINK3args(XDR* xdrs, LINK3args* value) {
    return xdr_nfs_fh3(xdrs, &value->file) && xdr_diropargs3(xdrs, &value->link);
}

bool_t xdr_READDIR3args(XDR* xdrs, READDIR3args* value) {
    return xdr_nfs_fh3(xdrs, &value->dir) && CodeWords(xdrs, value);
}

bool_t xdr_READDIRPLUS3args(XDR* xdrs, READDIRPLUS3args* value) {
    return xdr_nfs_fh3(xdrs, &value->dir) && CodeWords(xdrs, value);
}

bool_t xdr_FSSTAT3args(XDR* xdrs, FSSTAT3args* value) {
    return xdr_nfs_fh3(xdrs, &value->fsroot);
}

bool_t xdr_FSINFO3args(XDR* xdrs, FSINFO3args* value) {
    return xdr_nfs_fh3(xdrs, &value->fsroot);
}

bool_t xdr_PATHCONF3args(XDR* xdrs, PATHCONF3args* value) {
    return xdr_nfs_fh3(xdrs, &value->object);
}

bool_t xdr_COMMIT3args(XDR* xdrs, COMMIT3args* value) {
    return xdr_nfs_fh3(xdrs, &value->file) && CodeWords(xdrs, value);
}
