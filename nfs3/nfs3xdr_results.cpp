// SPDX-License-Identifier: Apache-2.0
//
// The codec of the procedures' results, in the order of RFC 1813 section 3.3; the directory lists
// have their own file.
#include "backend/OxelServiceGlobals.h"
#include "base/perf_counter.h"
#include "nfs3/nfs3xdr.h"
#include "nfs3/nfs3xdr_words.h"

using oxel::xdr::CodeResult;
using oxel::xdr::CodeString;
using oxel::xdr::CodeU32;
using oxel::xdr::CodeWords;

namespace oxel::xdr {

// Each lists the words that stand behind the record's attributes.

template <typename Io>
constexpr bool Words(Io& io, READ3resok& v) {
    return io.U32(v.count) && io.Bool(v.eof);
}

template <typename Io>
constexpr bool Words(Io& io, WRITE3resok& v) {
    return io.U32(v.count) && io.U32(v.committed) && io.U64(v.verf);
}

template <typename Io>
constexpr bool Words(Io& io, FSSTAT3resok& v) {
    return io.U64(v.tbytes) && io.U64(v.fbytes) && io.U64(v.abytes) && io.U64(v.tfiles) &&
           io.U64(v.ffiles) && io.U64(v.afiles) && io.U32(v.invarsec);
}

template <typename Io>
constexpr bool Words(Io& io, FSINFO3resok& v) {
    return io.U32(v.rtmax) && io.U32(v.rtpref) && io.U32(v.rtmult) && io.U32(v.wtmax) &&
           io.U32(v.wtpref) && io.U32(v.wtmult) && io.U32(v.dtpref) && io.U64(v.maxfilesize) &&
           Words(io, v.time_delta) && io.U32(v.properties);
}

// no_trunc and chown_restricted hold whatever number pathconf(3) gave; on the wire they are flags.
template <typename Io>
constexpr bool Words(Io& io, PATHCONF3resok& v) {
    return io.U32(v.linkmax) && io.U32(v.name_max) && io.Bool(v.no_trunc) &&
           io.Bool(v.chown_restricted) && io.Bool(v.case_insensitive) && io.Bool(v.case_preserving);
}

}  // namespace oxel::xdr

bool_t xdr_GETATTR3res(XDR* xdrs, GETATTR3res* value) {
    if (!CodeU32(xdrs, &value->status)) return FALSE;
    return value->status == NFS3_OK ? xdr_fattr3(xdrs, &value->resok.obj_attributes) : TRUE;
}

bool_t xdr_SETATTR3resok(XDR* xdrs, SETATTR3resok* value) {
    return xdr_wcc_data(xdrs, &value->obj_wcc);
}

bool_t xdr_SETATTR3resfail(XDR* xdrs, SETATTR3resfail* value) {
    return xdr_wcc_data(xdrs, &value->obj_wcc);
}

bool_t xdr_SETATTR3res(XDR* xdrs, SETATTR3res* value) {
    return CodeResult(xdrs, value, xdr_SETATTR3resok, xdr_SETATTR3resfail);
}

bool_t xdr_LOOKUP3resok(XDR* xdrs, LOOKUP3resok* value) {
    return xdr_nfs_fh3(xdrs, &value->object) && xdr_post_op_attr(xdrs, &value->obj_attributes) &&
           xdr_post_op_attr(xdrs, &value->dir_attributes);
}

bool_t xdr_LOOKUP3resfail(XDR* xdrs, LOOKUP3resfail* value) {
    return xdr_post_op_attr(xdrs, &value->dir_attributes);
}

bool_t xdr_LOOKUP3res(XDR* xdrs, LOOKUP3res* value) {
    return CodeResult(xdrs, value, xdr_LOOKUP3resok, xdr_LOOKUP3resfail);
}

bool_t xdr_ACCESS3resok(XDR* xdrs, ACCESS3resok* value) {
    return xdr_post_op_attr(xdrs, &value->obj_attributes) && CodeU32(xdrs, &value->access);
}

bool_t xdr_ACCESS3resfail(XDR* xdrs, ACCESS3resfail* value) {
    return xdr_post_op_attr(xdrs, &value->obj_attributes);
}

bool_t xdr_ACCESS3res(XDR* xdrs, ACCESS3res* value) {
    return CodeResult(xdrs, value, xdr_ACCESS3resok, xdr_ACCESS3resfail);
}

bool_t xdr_READLINK3resok(XDR* xdrs, READLINK3resok* value) {
    return xdr_post_op_attr(xdrs, &value->symlink_attributes) && CodeString(xdrs, &value->data);
}

bool_t xdr_READLINK3resfail(XDR* xdrs, READLINK3resfail* value) {
    return xdr_post_op_attr(xdrs, &value->symlink_attributes);
}

bool_t xdr_READLINK3res(XDR* xdrs, READLINK3res* value) {
    return CodeResult(xdrs, value, xdr_READLINK3resok, xdr_READLINK3resfail);
}

bool_t xdr_READ3resok(XDR* xdrs, READ3resok* value) {
    if (!xdr_post_op_attr(xdrs, &value->file_attributes) || !CodeWords(xdrs, value)) return FALSE;
    return xdr_bytes(xdrs, &value->data.data_val, &value->data.data_len,
                     static_cast<u_int>(NFS3_MAXBUF_SIZE));
}

bool_t xdr_READ3resfail(XDR* xdrs, READ3resfail* value) {
    return xdr_post_op_attr(xdrs, &value->file_attributes);
}

bool_t xdr_READ3res(XDR* xdrs, READ3res* value) {
    PerfCounterWrapper counter("XDR", 16);
    return CodeResult(xdrs, value, xdr_READ3resok, xdr_READ3resfail);
}

bool_t xdr_WRITE3resok(XDR* xdrs, WRITE3resok* value) {
    return xdr_wcc_data(xdrs, &value->file_wcc) && CodeWords(xdrs, value);
}

bool_t xdr_WRITE3resfail(XDR* xdrs, WRITE3resfail* value) {
    return xdr_wcc_data(xdrs, &value->file_wcc);
}

bool_t xdr_WRITE3res(XDR* xdrs, WRITE3res* value) {
    PerfCounterWrapper counter("XDR", 16);
    return CodeResult(xdrs, value, xdr_WRITE3resok, xdr_WRITE3resfail);
}

// The four procedures that make an object answer alike.
template <typename Resok>
static bool_t CodeMadeObject(XDR* xdrs, Resok* value) {
    return xdr_post_op_fh3(xdrs, &value->obj) && xdr_post_op_attr(xdrs, &value->obj_attributes) &&
           xdr_wcc_data(xdrs, &value->dir_wcc);
}

bool_t xdr_CREATE3resok(XDR* xdrs, CREATE3resok* value) {
    return CodeMadeObject(xdrs, value);
}

bool_t xdr_CREATE3resfail(XDR* xdrs, CREATE3resfail* value) {
    return xdr_wcc_data(xdrs, &value->dir_wcc);
}

bool_t xdr_CREATE3res(XDR* xdrs, CREATE3res* value) {
    return CodeResult(xdrs, value, xdr_CREATE3resok, xdr_CREATE3resfail);
}

bool_t xdr_MKDIR3resok(XDR* xdrs, MKDIR3resok* value) {
    return CodeMadeObject(xdrs, value);
}

bool_t xdr_MKDIR3resfail(XDR* xdrs, MKDIR3resfail* value) {
    return xdr_wcc_data(xdrs, &value->dir_wcc);
}

bool_t xdr_MKDIR3res(XDR* xdrs, MKDIR3res* value) {
    return CodeResult(xdrs, value, xdr_MKDIR3resok, xdr_MKDIR3resfail);
}

bool_t xdr_SYMLINK3resok(XDR* xdrs, SYMLINK3resok* value) {
    return CodeMadeObject(xdrs, value);
}

bool_t xdr_SYMLINK3resfail(XDR* xdrs, SYMLINK3resfail* value) {
    return xdr_wcc_data(xdrs, &value->dir_wcc);
}

bool_t xdr_SYMLINK3res(XDR* xdrs, SYMLINK3res* value) {
    return CodeResult(xdrs, value, xdr_SYMLINK3resok, xdr_SYMLINK3resfail);
}

bool_t xdr_MKNOD3resok(XDR* xdrs, MKNOD3resok* value) {
    return CodeMadeObject(xdrs, value);
}

bool_t xdr_MKNOD3resfail(XDR* xdrs, MKNOD3resfail* value) {
    return xdr_wcc_data(xdrs, &value->dir_wcc);
}

bool_t xdr_MKNOD3res(XDR* xdrs, MKNOD3res* value) {
    return CodeResult(xdrs, value, xdr_MKNOD3resok, xdr_MKNOD3resfail);
}

bool_t xdr_REMOVE3resok(XDR* xdrs, REMOVE3resok* value) {
    return xdr_wcc_data(xdrs, &value->dir_wcc);
}

bool_t xdr_REMOVE3resfail(XDR* xdrs, REMOVE3resfail* value) {
    return xdr_wcc_data(xdrs, &value->dir_wcc);
}

bool_t xdr_REMOVE3res(XDR* xdrs, REMOVE3res* value) {
    return CodeResult(xdrs, value, xdr_REMOVE3resok, xdr_REMOVE3resfail);
}

bool_t xdr_RMDIR3resok(XDR* xdrs, RMDIR3resok* value) {
    return xdr_wcc_data(xdrs, &value->dir_wcc);
}

bool_t xdr_RMDIR3resfail(XDR* xdrs, RMDIR3resfail* value) {
    return xdr_wcc_data(xdrs, &value->dir_wcc);
}

bool_t xdr_RMDIR3res(XDR* xdrs, RMDIR3res* value) {
    return CodeResult(xdrs, value, xdr_RMDIR3resok, xdr_RMDIR3resfail);
}

bool_t xdr_RENAME3resok(XDR* xdrs, RENAME3resok* value) {
    return xdr_wcc_data(xdrs, &value->fromdir_wcc) && xdr_wcc_data(xdrs, &value->todir_wcc);
}

bool_t xdr_RENAME3resfail(XDR* xdrs, RENAME3resfail* value) {
    return xdr_wcc_data(xdrs, &value->fromdir_wcc) && xdr_wcc_data(xdrs, &value->todir_wcc);
}

bool_t xdr_RENAME3res(XDR* xdrs, RENAME3res* value) {
    return CodeResult(xdrs, value, xdr_RENAME3resok, xdr_RENAME3resfail);
}

bool_t xdr_LINK3resok(XDR* xdrs, LINK3resok* value) {
    return xdr_post_op_attr(xdrs, &value->file_attributes) &&
           xdr_wcc_data(xdrs, &value->linkdir_wcc);
}

bool_t xdr_LINK3resfail(XDR* xdrs, LINK3resfail* value) {
    return xdr_post_op_attr(xdrs, &value->file_attributes) &&
           xdr_wcc_data(xdrs, &value->linkdir_wcc);
}

bool_t xdr_LINK3res(XDR* xdrs, LINK3res* value) {
    return CodeResult(xdrs, value, xdr_LINK3resok, xdr_LINK3resfail);
}

bool_t xdr_FSSTAT3resok(XDR* xdrs, FSSTAT3resok* value) {
    return xdr_post_op_attr(xdrs, &value->obj_attributes) && CodeWords(xdrs, value);
}

bool_t xdr_FSSTAT3resfail(XDR* xdrs, FSSTAT3resfail* value) {
    return xdr_post_op_attr(xdrs, &value->obj_attributes);
}

bool_t xdr_FSSTAT3res(XDR* xdrs, FSSTAT3res* value) {
    return CodeResult(xdrs, value, xdr_FSSTAT3resok, xdr_FSSTAT3resfail);
}

bool_t xdr_FSINFO3resok(XDR* xdrs, FSINFO3resok* value) {
    return xdr_post_op_attr(xdrs, &value->obj_attributes) && CodeWords(xdrs, value);
}

bool_t xdr_FSINFO3resfail(XDR* xdrs, FSINFO3resfail* value) {
    return xdr_post_op_attr(xdrs, &value->obj_attributes);
}

bool_t xdr_FSINFO3res(XDR* xdrs, FSINFO3res* value) {
    return CodeResult(xdrs, value, xdr_FSINFO3resok, xdr_FSINFO3resfail);
}

bool_t xdr_PATHCONF3resok(XDR* xdrs, PATHCONF3resok* value) {
    return xdr_post_op_attr(xdrs, &value->obj_attributes) && CodeWords(xdrs, value);
}

bool_t xdr_PATHCONF3resfail(XDR* xdrs, PATHCONF3resfail* value) {
    return xdr_post_op_attr(xdrs, &value->obj_attributes);
}

bool_t xdr_PATHCONF3res(XDR* xdrs, PATHCONF3res* value) {
    return CodeResult(xdrs, value, xdr_PATHCONF3resok, xdr_PATHCONF3resfail);
}

bool_t xdr_COMMIT3resok(XDR* xdrs, COMMIT3resok* value) {
    return xdr_wcc_data(xdrs, &value->file_wcc) && xdr_u_int64_t(xdrs, &value->verf);
}

bool_t xdr_COMMIT3resfail(XDR* xdrs, COMMIT3resfail* value) {
    return xdr_wcc_data(xdrs, &value->file_wcc);
}

bool_t xdr_COMMIT3res(XDR* xdrs, COMMIT3res* value) {
    return CodeResult(xdrs, value, xdr_COMMIT3resok, xdr_COMMIT3resfail);
}
