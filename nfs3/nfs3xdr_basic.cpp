// SPDX-License-Identifier: Apache-2.0
//
// The codec of handles, strings, times and other types that the procedures' records are made of.
#include <cstdlib>
#include <cstring>

#include "nfs3/nfs3xdr.h"
#include "nfs3/nfs3xdr_words.h"

namespace oxel::xdr {

int32_t* PutPadded(int32_t* words, const void* from, uint32_t bytes) {
    if (bytes == 0) return words;
    const uint32_t count = Padded(bytes) / 4;
    words[count - 1] = 0;
    memcpy(words, from, bytes);
    return words + count;
}

uint32_t HandleBytes(const nfs_fh3& handle) {
    if (handle.nfh_len == 0) return 4;
    if (handle.nfh_len < nfs_fh3::kLengthMin || handle.nfh_len > nfs_fh3::kLengthMax) return 0;
    return 4 + Padded(handle.nfh_len);
}

int32_t* PutHandle(int32_t* words, const nfs_fh3& handle) {
    PutWords io{words};
    io.U32(handle.nfh_len);
    if (handle.nfh_len == 0) return io.at;
    io.U32(handle.fsmType);
    io.U32(handle.shareId);
    return PutPadded(io.at, handle.objectId, handle.nfh_len - nfs_fh3::kLengthMin);
}

bool_t CodeOpaque(XDR* xdrs, void* bytes, u_int length) {
    auto* at = static_cast<char*>(bytes);
    if (xdrs->x_op != XDR_DECODE) return xdr_opaque(xdrs, at, length);
    char padding[BYTES_PER_XDR_UNIT];
    const u_int padded = Padded(length) - length;
    return XDR_GETBYTES(xdrs, at, length) && (padded == 0 || XDR_GETBYTES(xdrs, padding, padded));
}

static bool_t EncodeString(XDR* xdrs, const char* text) {
    if (text == nullptr) return FALSE;
    const size_t length = strlen(text);
    if (length > kXdrStringBytesMax) return FALSE;
    auto bytes = static_cast<u_int>(length);
    if (int32_t* words = XDR_INLINE(xdrs, GetXdrStringLength(bytes))) {
        PutWords io{words};
        io.U32(bytes);
        PutPadded(io.at, text, bytes);
        return TRUE;
    }
    // xdr_opaque does not write to what it encodes.
    return xdr_u_int(xdrs, &bytes) && xdr_opaque(xdrs, const_cast<char*>(text), bytes);
}

static bool_t DecodeString(XDR* xdrs, char** text) {
    u_int bytes;
    if (!xdr_u_int(xdrs, &bytes) || bytes > kXdrStringBytesMax) return FALSE;
    auto* copy = static_cast<char*>(malloc(bytes + 1));
    if (copy == nullptr) return FALSE;
    if (!CodeOpaque(xdrs, copy, bytes) || memchr(copy, '\0', bytes) != nullptr) {
        free(copy);
        return FALSE;
    }
    copy[bytes] = '\0';
    *text = copy;
    return TRUE;
}

bool_t CodeString(XDR* xdrs, char** text) {
    switch (xdrs->x_op) {
        case XDR_ENCODE:
            return EncodeString(xdrs, *text);
        case XDR_DECODE:
            return DecodeString(xdrs, text);
        case XDR_FREE:
            free(*text);
            *text = nullptr;
            return TRUE;
    }
    return FALSE;
}

}  // namespace oxel::xdr

using oxel::xdr::CodeString;
using oxel::xdr::CodeWords;

// Section 2.3.3 bounds the handle at 64 bytes; this server's own are at least the two words long.
static bool_t DecodeHandle(XDR* xdrs, nfs_fh3* value) {
    u_int length;
    if (!xdr_u_int(xdrs, &length)) return FALSE;
    if (length < nfs_fh3::kLengthMin || length > nfs_fh3::kLengthMax) return FALSE;
    const uint32_t objectBytes = length - nfs_fh3::kLengthMin;
    if (int32_t* words = XDR_INLINE(xdrs, oxel::xdr::Padded(length))) {
        oxel::xdr::GetWords io{reinterpret_cast<const char*>(words)};
        io.U32(value->fsmType);
        io.U32(value->shareId);
        memcpy(value->objectId, io.at, objectBytes);
    } else {
        if (!xdr_u_int(xdrs, &value->fsmType) || !xdr_u_int(xdrs, &value->shareId) ||
            !oxel::xdr::CodeOpaque(xdrs, value->objectId, objectBytes))
            return FALSE;
    }
    // Modules may compare or hash the whole area.
    memset(value->objectId + objectBytes, 0, sizeof(value->objectId) - objectBytes);
    value->nfh_len = length;
    return TRUE;
}

static bool_t EncodeHandle(XDR* xdrs, nfs_fh3* value) {
    const uint32_t bytes = oxel::xdr::HandleBytes(*value);
    if (bytes == 0) return FALSE;
    if (int32_t* words = XDR_INLINE(xdrs, bytes)) {
        oxel::xdr::PutHandle(words, *value);
        return TRUE;
    }
    if (!xdr_u_int(xdrs, &value->nfh_len)) return FALSE;
    if (value->nfh_len == 0) return TRUE;
    return xdr_u_int(xdrs, &value->fsmType) && xdr_u_int(xdrs, &value->shareId) &&
           xdr_opaque(xdrs, reinterpret_cast<char*>(value->objectId),
                      value->nfh_len - nfs_fh3::kLengthMin);
}

bool_t xdr_nfs_fh3(XDR* xdrs, nfs_fh3* value) {
    switch (xdrs->x_op) {
        case XDR_ENCODE:
            return EncodeHandle(xdrs, value);
        case XDR_DECODE:
            return DecodeHandle(xdrs, value);
        case XDR_FREE:
            return TRUE;
    }
    return FALSE;
}

bool_t xdr_specdata3(XDR* xdrs, specdata3* value) {
    return CodeWords(xdrs, value);
}

bool_t xdr_nfstime3(XDR* xdrs, nfstime3* value) {
    return CodeWords(xdrs, value);
}

bool_t xdr_post_op_fh3(XDR* xdrs, post_op_fh3* value) {
    if (!xdr_bool(xdrs, &value->handle_follows)) return FALSE;
    return value->handle_follows ? xdr_nfs_fh3(xdrs, &value->handle) : TRUE;
}

bool_t xdr_diropargs3(XDR* xdrs, diropargs3* value) {
    return xdr_nfs_fh3(xdrs, &value->dir) && CodeString(xdrs, &value->name);
}

bool_t xdr_symlinkdata3(XDR* xdrs, symlinkdata3* value) {
    return xdr_sattr3(xdrs, &value->symlink_attributes) && CodeString(xdrs, &value->symlink_data);
}

bool_t xdr_devicedata3(XDR* xdrs, devicedata3* value) {
    return xdr_sattr3(xdrs, &value->dev_attributes) && xdr_specdata3(xdrs, &value->spec);
}

unsigned int GetXdrStringLength(unsigned int n) {
    return 4 + oxel::xdr::Padded(n);
}
