// SPDX-License-Identifier: Apache-2.0
//
// How the codec's routines code runs of fixed words. A record's fixed words are listed once, in an
// overload of Words(); they are coded straight in the stream's buffer when it has them in one
// piece, else one by one through the library's primitives.
#pragma once

#include <arpa/inet.h>
#include <rpc/rpc.h>

#include <cstdint>
#include <cstring>

#include "nfs3/nfs3types.h"

namespace oxel::xdr {

// The four ways to go through a record's words. Each is given to Words(io, record), which calls
// U32 (a number or an enum of 32 bits), U64 and Bool (as the library's xdr_bool: any value but 0 is
// TRUE, both ways) in the order of the wire and stops at the first false.

// Counts the bytes that the words take on the wire.
struct CountWords {
    uint32_t bytes = 0;
    template <typename T>
    constexpr bool U32(const T&) {
        static_assert(sizeof(T) == 4);
        bytes += 4;
        return true;
    }
    constexpr bool U64(const uint64_t&) {
        bytes += 8;
        return true;
    }
    template <typename T>
    constexpr bool Bool(const T& value) {
        return U32(value);
    }
};

// Encodes into memory that has room for all of them.
struct PutWords {
    int32_t* at;
    template <typename T>
    bool U32(const T& value) {
        *at++ = static_cast<int32_t>(htonl(static_cast<uint32_t>(value)));
        return true;
    }
    bool U64(const uint64_t& value) {
        U32(static_cast<uint32_t>(value >> 32));
        return U32(static_cast<uint32_t>(value));
    }
    template <typename T>
    bool Bool(const T& value) {
        return U32(uint32_t{value != 0});
    }
};

// Decodes from memory that holds all of them, at any address: a client may cut its record into
// fragments of odd lengths, and the library's buffer then has the words where they came.
struct GetWords {
    const char* at;
    template <typename T>
    bool U32(T& value) {
        uint32_t word;
        memcpy(&word, at, sizeof word);
        at += sizeof word;
        value = static_cast<T>(ntohl(word));
        return true;
    }
    bool U64(uint64_t& value) {
        uint32_t high, low;
        U32(high);
        U32(low);
        value = (uint64_t{high} << 32) | low;
        return true;
    }
    template <typename T>
    bool Bool(T& value) {
        uint32_t word;
        U32(word);
        value = word != 0 ? TRUE : FALSE;
        return true;
    }
};

// Encodes, decodes or frees through the library's primitives.
struct StreamWords {
    XDR* xdrs;
    template <typename T>
    bool U32(T& value) {
        auto word = static_cast<u_int>(value);
        if (!xdr_u_int(xdrs, &word)) return false;
        if (xdrs->x_op == XDR_DECODE) value = static_cast<T>(word);
        return true;
    }
    bool U64(uint64_t& value) { return xdr_u_int64_t(xdrs, &value) != FALSE; }
    template <typename T>
    bool Bool(T& value) {
        bool_t flag = value != 0 ? TRUE : FALSE;
        if (!xdr_bool(xdrs, &flag)) return false;
        if (xdrs->x_op == XDR_DECODE) value = static_cast<T>(flag);
        return true;
    }
};

// ---- Fixed records. A result that begins with optional attributes lists what follows them. ----

template <typename Io>
constexpr bool Words(Io& io, specdata3& v) {
    return io.U32(v.specdata1) && io.U32(v.specdata2);
}

template <typename Io>
constexpr bool Words(Io& io, nfstime3& v) {
    return io.U32(v.seconds) && io.U32(v.nseconds);
}

template <typename Io>
constexpr bool Words(Io& io, fattr3& v) {
    return io.U32(v.type) && io.U32(v.mode) && io.U32(v.nlink) && io.U32(v.uid) && io.U32(v.gid) &&
           io.U64(v.size) && io.U64(v.used) && Words(io, v.rdev) && io.U64(v.fsid) &&
           io.U64(v.fileid) && Words(io, v.atime) && Words(io, v.mtime) && Words(io, v.ctime);
}

template <typename Io>
constexpr bool Words(Io& io, wcc_attr& v) {
    return io.U64(v.size) && Words(io, v.mtime) && Words(io, v.ctime);
}

template <typename T>
constexpr uint32_t BytesOf() {
    CountWords count;
    T value{};
    Words(count, value);
    return count.bytes;
}

static_assert(BytesOf<fattr3>() == 84 && BytesOf<wcc_attr>() == 24);

template <typename T>
bool_t CodeWords(XDR* xdrs, T* value) {
    constexpr uint32_t bytes = BytesOf<T>();
    if (xdrs->x_op == XDR_FREE) return TRUE;
    if (int32_t* words = XDR_INLINE(xdrs, bytes)) {
        if (xdrs->x_op == XDR_ENCODE) {
            PutWords io{words};
            return Words(io, *value);
        }
        GetWords io{reinterpret_cast<const char*>(words)};
        return Words(io, *value);
    }
    StreamWords io{xdrs};
    return Words(io, *value);
}

// A flag and, when it is set, the record.
template <typename T>
bool_t CodeOptional(XDR* xdrs, bool_t* follows, T* value) {
    constexpr uint32_t bytes = BytesOf<T>();
    if (xdrs->x_op == XDR_FREE) return TRUE;
    if (xdrs->x_op == XDR_ENCODE && *follows) {
        if (int32_t* words = XDR_INLINE(xdrs, 4 + bytes)) {
            PutWords io{words};
            return io.Bool(*follows) && Words(io, *value);
        }
    }
    if (!xdr_bool(xdrs, follows)) return FALSE;
    return *follows ? CodeWords(xdrs, value) : TRUE;
}

// One number or enum of 32 bits.
template <typename T>
bool_t CodeU32(XDR* xdrs, T* value) {
    StreamWords io{xdrs};
    return io.U32(*value);
}

// A union of the status and its two arms.
template <typename Result, typename Ok, typename Fail>
bool_t CodeResult(XDR* xdrs, Result* result, bool_t (*codeOk)(XDR*, Ok*),
                  bool_t (*codeFail)(XDR*, Fail*)) {
    if (!CodeU32(xdrs, &result->status)) return FALSE;
    return result->status == NFS3_OK ? codeOk(xdrs, &result->resok)
                                     : codeFail(xdrs, &result->resfail);
}

// `bytes` rounded up to whole words.
constexpr uint32_t Padded(uint32_t bytes) {
    return (bytes + 3) & ~uint32_t{3};
}

// Opaque bytes and their padding, without a length. As the library's xdr_opaque, but for the
// padding that is decoded: the library writes that to one place for all threads.
bool_t CodeOpaque(XDR* xdrs, void* bytes, u_int length);

// Copies into the stream's buffer and fills the last word up with zero bytes; returns what follows.
int32_t* PutPadded(int32_t* words, const void* from, uint32_t bytes);

// A handle's bytes on the wire; 0 when its length is one that cannot be encoded. No handle at all
// (length 0) is an empty opaque.
uint32_t HandleBytes(const nfs_fh3& handle);
// Writes HandleBytes() bytes; returns what follows.
int32_t* PutHandle(int32_t* words, const nfs_fh3& handle);

}  // namespace oxel::xdr
