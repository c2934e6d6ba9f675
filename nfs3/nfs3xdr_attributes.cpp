// SPDX-License-Identifier: Apache-2.0
//
// The codec of attributes: those that replies carry, and those that a client wants set.
#include "nfs3/nfs3xdr.h"
#include "nfs3/nfs3xdr_words.h"

using oxel::xdr::CodeOptional;
using oxel::xdr::CodeU32;
using oxel::xdr::CodeWords;

bool_t xdr_fattr3(XDR* xdrs, fattr3* value) {
    return CodeWords(xdrs, value);
}

bool_t xdr_wcc_attr(XDR* xdrs, wcc_attr* value) {
    return CodeWords(xdrs, value);
}

bool_t xdr_pre_op_attr(XDR* xdrs, pre_op_attr* value) {
    return CodeOptional(xdrs, &value->attributes_follow, &value->attributes);
}

bool_t xdr_post_op_attr(XDR* xdrs, post_op_attr* value) {
    return CodeOptional(xdrs, &value->attributes_follow, &value->attributes);
}

bool_t xdr_wcc_data(XDR* xdrs, wcc_data* value) {
    return xdr_pre_op_attr(xdrs, &value->before) && xdr_post_op_attr(xdrs, &value->after);
}

bool_t xdr_set_attrib(XDR* xdrs, set_attrib* value) {
    if (!xdr_bool(xdrs, &value->set_it)) return FALSE;
    return value->set_it ? CodeU32(xdrs, &value->value) : TRUE;
}

bool_t xdr_set_size(XDR* xdrs, set_size* value) {
    if (!xdr_bool(xdrs, &value->set_it)) return FALSE;
    return value->set_it ? xdr_u_int64_t(xdrs, &value->size) : TRUE;
}

bool_t xdr_set_time(XDR* xdrs, set_time* value) {
    if (!CodeU32(xdrs, &value->set_it)) return FALSE;
    switch (value->set_it) {
        case DONT_CHANGE:
        case SET_TO_SERVER_TIME:
            return TRUE;
        case SET_TO_CLIENT_TIME:
            return xdr_nfstime3(xdrs, &value->time);
    }
    return xdrs->x_op == XDR_FREE;  // a partly decoded record holds anything
}

bool_t xdr_sattr3(XDR* xdrs, sattr3* value) {
    return xdr_set_attrib(xdrs, &value->mode) && xdr_set_attrib(xdrs, &value->uid) &&
           xdr_set_attrib(xdrs, &value->gid) && xdr_set_size(xdrs, &value->size) &&
           xdr_set_time(xdrs, &value->atime) && xdr_set_time(xdrs, &value->mtime);
}
