// SPDX-License-Identifier: Apache-2.0
//
// The codec of the MOUNT protocol's records (RFC 1813 appendix I), by the rules of nfs3xdr.h.
// The lists are coded in loops; decoded nodes and strings are malloc'ed and released with XDR_FREE,
// a handler's own nodes by the procedure's Free_ function.
#pragma once

#include <rpc/rpc.h>

#include "mount3/mount3types.h"

bool_t xdr_MNT3args(XDR* xdrs, MNT3args* value);
// Flavours are decoded into the array that the record brings: auth_flavors_len is its room and
// becomes the count; more flavours than room fail. Nothing is allocated, and nothing freed.
bool_t xdr_MNT3res_ok(XDR* xdrs, MNT3res_ok* value);
bool_t xdr_MNT3res(XDR* xdrs, MNT3res* value);

bool_t xdr_DUMP3args(XDR* xdrs, void* value);
bool_t xdr_mntlist3(XDR* xdrs, mntlist3* link);
bool_t xdr_mntentry3(XDR* xdrs, mntentry3* entry);
bool_t xdr_DUMP3res(XDR* xdrs, DUMP3res* value);

bool_t xdr_UMNT3args(XDR* xdrs, UMNT3args* value);
bool_t xdr_UMNT3res(XDR* xdrs, void* value);
bool_t xdr_UMNTALL3args(XDR* xdrs, void* value);
bool_t xdr_UMNTALL3res(XDR* xdrs, void* value);

bool_t xdr_EXPORT3args(XDR* xdrs, void* value);
bool_t xdr_grouplist3(XDR* xdrs, grouplist3* link);
bool_t xdr_groupnode3(XDR* xdrs, groupnode3* group);
bool_t xdr_exportlist3(XDR* xdrs, exportlist3* link);
bool_t xdr_exportnode3(XDR* xdrs, exportnode3* node);
bool_t xdr_EXPORT3res(XDR* xdrs, EXPORT3res* value);
