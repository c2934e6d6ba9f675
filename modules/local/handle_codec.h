// SPDX-License-Identifier: Apache-2.0
//
// The module's part of a file handle: what it holds, and the signature that keeps clients from
// making handles of their own (a guessed handle would reach any file of the file system).
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "backend/nfs_fh3.h"
#include "backend/types.h"

namespace oxel::local {

// What identifies the object inside the share.
enum class HandleKind : unsigned char {
    kKernel = 1,  // the kernel's own file handle: survives renames, restarts and inode re-use
    kInode = 2,   // inode number and birth time, where kernel handles cannot be had
};

// nfs_fh3::objectId as this module fills it; 40 bytes at most, so that a whole handle of 48 fits
// the size that a directory entry is reckoned with.
//
//   offset  0         1      2                        length - 8
//          | version | kind | body, 2 .. 30 bytes    | signature, 8 bytes |
//
//   body, kind 1:  | handle type, 1 byte | the kernel's file handle, 1 .. 29 bytes |
//   body, kind 2:  | inode, 8 | birth seconds, 8 | birth nanoseconds, 4 |   (little-endian)
//
// The signature is SipHash-2-4 under the instance's key over
//   | module type, 4 | share id, 4 | version | kind | body |               (little-endian)
// so that a handle of one share or module cannot be passed off as another's.
struct ObjectId {
    static constexpr unsigned char kVersion = 1;
    static constexpr size_t kHeadBytes = 2, kSignatureBytes = 8;
    static constexpr size_t kBodyBytesMin = 2, kBodyBytesMax = 30;
    static constexpr size_t kBytesMax = kHeadBytes + kBodyBytesMax + kSignatureBytes;
    static constexpr size_t kKernelHandleBytesMax = kBodyBytesMax - 1;

    unsigned char length = 0;
    unsigned char bytes[kBytesMax] = {};

    HandleKind Kind() const { return static_cast<HandleKind>(bytes[1]); }
    std::string_view Body() const {
        return {reinterpret_cast<const char*>(bytes) + kHeadBytes,
                length - kHeadBytes - kSignatureBytes};
    }
    // The signature as a number: a hash of the whole id that needs no computing.
    uint64_t Hash() const {
        uint64_t hash = 0;
        memcpy(&hash, bytes + length - kSignatureBytes, sizeof hash);
        return hash;
    }
    bool operator==(const ObjectId& other) const {
        return length == other.length && memcmp(bytes, other.bytes, length) == 0;
    }
};

// What an object id of kind 2 says.
struct InodeIdentity {
    uint64_t inode;
    int64_t birthSeconds;  // both 0 where the file system keeps no birth times
    uint32_t birthNanoseconds;
    // On overlayfs a file that is changed for the first time is copied from a lower layer and then
    // has the birth time of the copy. Where the kernel tells what it was copied from, a hash of
    // that stands in birthSeconds, and this in birthNanoseconds.
    static constexpr uint32_t kOrigin = 0x80000000;
    bool IsOrigin() const { return birthNanoseconds == kOrigin; }
    bool operator==(const InodeIdentity&) const = default;
};
std::string EncodeInodeBody(const InodeIdentity& identity);
// False when `body` has not the size of one.
bool DecodeInodeBody(std::string_view body, InodeIdentity* identity);

// `body` must hold 2 to 30 bytes. Any thread, once the key is there.
ObjectId SignObjectId(FSModuleType type, uint32_t shareId, HandleKind kind, std::string_view body);

// The object id in a handle. False when the handle is cut short, malformed or not signed by this
// server for its own module type and share id.
bool ReadObjectId(const nfs_fh3& handle, ObjectId* id);

// Writes a whole handle; unused bytes of objectId are zero.
void WriteHandle(FSModuleType type, uint32_t shareId, const ObjectId& id, nfs_fh3* handle);

// The key that signs, set by InitializeHandleKey before any handle is made.
inline constexpr size_t kHandleKeyBytes = 16;
void SetHandleKey(const unsigned char (&key)[kHandleKeyBytes]);

}  // namespace oxel::local
