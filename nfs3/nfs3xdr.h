// SPDX-License-Identifier: Apache-2.0
//
// The codec of RFC 1813's types on the RPC library's primitives: one routine per type, named xdr_
// and the type's name, true on success. No I/O and no policy. Decoded strings are malloc'ed and
// released by running the same routine with XDR_FREE; every count is checked before it is used.
#pragma once

#include <rpc/rpc.h>

#include "nfs3/nfs3types.h"

// Basic types (section 2.5 and 2.6).
bool_t xdr_nfs_fh3(XDR* xdrs, nfs_fh3* value);
bool_t xdr_specdata3(XDR* xdrs, specdata3* value);
bool_t xdr_nfstime3(XDR* xdrs, nfstime3* value);
bool_t xdr_fattr3(XDR* xdrs, fattr3* value);
bool_t xdr_wcc_attr(XDR* xdrs, wcc_attr* value);
bool_t xdr_pre_op_attr(XDR* xdrs, pre_op_attr* value);
bool_t xdr_post_op_attr(XDR* xdrs, post_op_attr* value);
bool_t xdr_wcc_data(XDR* xdrs, wcc_data* value);
bool_t xdr_post_op_fh3(XDR* xdrs, post_op_fh3* value);
bool_t xdr_set_attrib(XDR* xdrs, set_attrib* value);
bool_t xdr_set_size(XDR* xdrs, set_size* value);
bool_t xdr_set_time(XDR* xdrs, set_time* value);
bool_t xdr_sattr3(XDR* xdrs, sattr3* value);
bool_t xdr_diropargs3(XDR* xdrs, diropargs3* value);
bool_t xdr_symlinkdata3(XDR* xdrs, symlinkdata3* value);
bool_t xdr_devicedata3(XDR* xdrs, devicedata3* value);

// Arguments and results by procedure (section 3.3).
bool_t xdr_GETATTR3args(XDR* xdrs, GETATTR3args* value);
bool_t xdr_GETATTR3res(XDR* xdrs, GETATTR3res* value);
bool_t xdr_SETATTR3args(XDR* xdrs, SETATTR3args* value);
bool_t xdr_SETATTR3resok(XDR* xdrs, SETATTR3resok* value);
bool_t xdr_SETATTR3resfail(XDR* xdrs, SETATTR3resfail* value);
bool_t xdr_SETATTR3res(XDR* xdrs, SETATTR3res* value);
bool_t xdr_LOOKUP3args(XDR* xdrs, LOOKUP3args* value);
bool_t xdr_LOOKUP3resok(XDR* xdrs, LOOKUP3resok* value);
bool_t xdr_LOOKUP3resfail(XDR* xdrs, LOOKUP3resfail* value);
bool_t xdr_LOOKUP3res(XDR* xdrs, LOOKUP3res* value);
bool_t xdr_ACCESS3args(XDR* xdrs, ACCESS3args* value);
bool_t xdr_ACCESS3resok(XDR* xdrs, ACCESS3resok* value);
bool_t xdr_ACCESS3resfail(XDR* xdrs, ACCESS3resfail* value);
bool_t xdr_ACCESS3res(XDR* xdrs, ACCESS3res* value);
bool_t xdr_READLINK3args(XDR* xdrs, READLINK3args* value);
bool_t xdr_READLINK3resok(XDR* xdrs, READLINK3resok* value);
bool_t xdr_READLINK3resfail(XDR* xdrs, READLINK3resfail* value);
bool_t xdr_READLINK3res(XDR* xdrs, READLINK3res* value);
bool_t xdr_READ3args(XDR* xdrs, READ3args* value);
bool_t xdr_READ3resok(XDR* xdrs, READ3resok* value);
bool_t xdr_READ3resfail(XDR* xdrs, READ3resfail* value);
bool_t xdr_READ3res(XDR* xdrs, READ3res* value);
bool_t xdr_WRITE3args(XDR* xdrs, WRITE3args* value);
bool_t xdr_WRITE3resok(XDR* xdrs, WRITE3resok* value);
bool_t xdr_WRITE3resfail(XDR* xdrs, WRITE3resfail* value);
bool_t xdr_WRITE3res(XDR* xdrs, WRITE3res* value);
bool_t xdr_CREATE3args(XDR* xdrs, CREATE3args* value);
bool_t xdr_CREATE3resok(XDR* xdrs, CREATE3resok* value);
bool_t xdr_CREATE3resfail(XDR* xdrs, CREATE3resfail* value);
bool_t xdr_CREATE3res(XDR* xdrs, CREATE3res* value);
bool_t xdr_MKDIR3args(XDR* xdrs, MKDIR3args* value);
bool_t xdr_MKDIR3resok(XDR* xdrs, MKDIR3resok* value);
bool_t xdr_MKDIR3resfail(XDR* xdrs, MKDIR3resfail* value);
bool_t xdr_MKDIR3res(XDR* xdrs, MKDIR3res* value);
bool_t xdr_SYMLINK3args(XDR* xdrs, SYMLINK3args* value);
bool_t xdr_SYMLINK3resok(XDR* xdrs, SYMLINK3resok* value);
bool_t xdr_SYMLINK3resfail(XDR* xdrs, SYMLINK3resfail* value);
bool_t xdr_SYMLINK3res(XDR* xdrs, SYMLINK3res* value);
bool_t xdr_MKNOD3args(XDR* xdrs, MKNOD3args* value);
bool_t xdr_MKNOD3resok(XDR* xdrs, MKNOD3resok* value);
bool_t xdr_MKNOD3resfail(XDR* xdrs, MKNOD3resfail* value);
bool_t xdr_MKNOD3res(XDR* xdrs, MKNOD3res* value);
bool_t xdr_REMOVE3args(XDR* xdrs, REMOVE3args* value);
bool_t xdr_REMOVE3resok(XDR* xdrs, REMOVE3resok* value);
bool_t xdr_REMOVE3resfail(XDR* xdrs, REMOVE3resfail* value);
bool_t xdr_REMOVE3res(XDR* xdrs, REMOVE3res* value);
bool_t xdr_RMDIR3args(XDR* xdrs, RMDIR3args* value);
bool_t xdr_RMDIR3resok(XDR* xdrs, RMDIR3resok* value);
bool_t xdr_RMDIR3resfail(XDR* xdrs, RMDIR3resfail* value);
bool_t xdr_RMDIR3res(XDR* xdrs, RMDIR3res* value);
bool_t xdr_RENAME3args(XDR* xdrs, RENAME3args* value);
bool_t xdr_RENAME3resok(XDR* xdrs, RENAME3resok* value);
bool_t xdr_RENAME3resfail(XDR* xdrs, RENAME3resfail* value);
bool_t xdr_RENAME3res(XDR* xdrs, RENAME3res* value);
bool_t xdr_LINK3args(XDR* xdrs, LINK3args* value);
bool_t xdr_LINK3resok(XDR* xdrs, LINK3resok* value);
bool_t xdr_LINK3resfail(XDR* xdrs, LINK3resfail* value);
bool_t xdr_LINK3res(XDR* xdrs, LINK3res* value);
bool_t xdr_READDIR3args(XDR* xdrs, READDIR3args* value);
bool_t xdr_READDIR3resok(XDR* xdrs, READDIR3resok* value);
bool_t xdr_READDIR3resfail(XDR* xdrs, READDIR3resfail* value);
bool_t xdr_READDIR3res(XDR* xdrs, READDIR3res* value);
bool_t xdr_READDIRPLUS3args(XDR* xdrs, READDIRPLUS3args* value);
bool_t xdr_READDIRPLUS3resok(XDR* xdrs, READDIRPLUS3resok* value);
bool_t xdr_READDIRPLUS3resfail(XDR* xdrs, READDIRPLUS3resfail* value);
bool_t xdr_READDIRPLUS3res(XDR* xdrs, READDIRPLUS3res* value);
bool_t xdr_FSSTAT3args(XDR* xdrs, FSSTAT3args* value);
bool_t xdr_FSSTAT3resok(XDR* xdrs, FSSTAT3resok* value);
bool_t xdr_FSSTAT3resfail(XDR* xdrs, FSSTAT3resfail* value);
bool_t xdr_FSSTAT3res(XDR* xdrs, FSSTAT3res* value);
bool_t xdr_FSINFO3args(XDR* xdrs, FSINFO3args* value);
bool_t xdr_FSINFO3resok(XDR* xdrs, FSINFO3resok* value);
bool_t xdr_FSINFO3resfail(XDR* xdrs, FSINFO3resfail* value);
bool_t xdr_FSINFO3res(XDR* xdrs, FSINFO3res* value);
bool_t xdr_PATHCONF3args(XDR* xdrs, PATHCONF3args* value);
bool_t xdr_PATHCONF3resok(XDR* xdrs, PATHCONF3resok* value);
bool_t xdr_PATHCONF3resfail(XDR* xdrs, PATHCONF3resfail* value);
bool_t xdr_PATHCONF3res(XDR* xdrs, PATHCONF3res* value);
bool_t xdr_COMMIT3args(XDR* xdrs, COMMIT3args* value);
bool_t xdr_COMMIT3resok(XDR* xdrs, COMMIT3resok* value);
bool_t xdr_COMMIT3resfail(XDR* xdrs, COMMIT3resfail* value);
bool_t xdr_COMMIT3res(XDR* xdrs, COMMIT3res* value);

// Directory lists: a present flag and the node, again and again; xdr_dirlist3 and
// xdr_dirlistplus3 code one link and, when its flag is set, the node with all that follow it (in a
// loop, not by recursion: a list's length must not become the stack's depth).
bool_t xdr_dirlist3(XDR* xdrs, dirlist3* link);
bool_t xdr_entry3(XDR* xdrs, entry3* entry);
bool_t xdr_dirlistplus3(XDR* xdrs, dirlistplus3* link);
bool_t xdr_entryplus3(XDR* xdrs, entryplus3* entry);

namespace oxel::xdr {

// A string of at most kXdrStringBytesMax bytes.
// - Encoding a null pointer fails.
// - Decoding stores a malloc'ed NUL-terminated copy in *text (what stood there is not looked at)
//   and leaves *text alone on failure. Bytes with a NUL among them fail: as a C string they would
//   name another file than the client meant.
// - Freeing leaves a null pointer.
bool_t CodeString(XDR* xdrs, char** text);

}  // namespace oxel::xdr

// The encoded size of a string of n bytes: 4 + n rounded up to a multiple of 4.
unsigned int GetXdrStringLength(unsigned int n);
