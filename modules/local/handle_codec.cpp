// SPDX-License-Identifier: Apache-2.0
//
// Making, signing and checking of object ids.
#include "modules/local/handle_codec.h"

#include <endian.h>
#include <sodium.h>

namespace oxel::local {

static_assert(kHandleKeyBytes == crypto_shorthash_KEYBYTES);
static_assert(ObjectId::kSignatureBytes == crypto_shorthash_BYTES);
static_assert(ObjectId::kBytesMax == 40);

namespace {

// Written once, before the threads that use it exist.
unsigned char handleKey[kHandleKeyBytes];

constexpr size_t kInodeBodyBytes = 20;

void Sign(FSModuleType type, uint32_t shareId, const unsigned char* headAndBody, size_t bytes,
          unsigned char* signature) {
    unsigned char message[8 + ObjectId::kHeadBytes + ObjectId::kBodyBytesMax];
    const uint32_t words[2] = {htole32(type), htole32(shareId)};
    memcpy(message, words, sizeof words);
    memcpy(message + sizeof words, headAndBody, bytes);
    crypto_shorthash(signature, message, sizeof words + bytes, handleKey);
}

}  // namespace

void SetHandleKey(const unsigned char (&key)[kHandleKeyBytes]) {
    memcpy(handleKey, key, sizeof handleKey);
}

std::string EncodeInodeBody(const InodeIdentity& identity) {
    const uint64_t inode = htole64(identity.inode);
    const uint64_t seconds = htole64(static_cast<uint64_t>(identity.birthSeconds));
    const uint32_t nanoseconds = htole32(identity.birthNanoseconds);
    std::string body(kInodeBodyBytes, '\0');
    memcpy(body.data(), &inode, 8);
    memcpy(body.data() + 8, &seconds, 8);
    memcpy(body.data() + 16, &nanoseconds, 4);
    return body;
}

bool DecodeInodeBody(std::string_view body, InodeIdentity* identity) {
    if (body.size() != kInodeBodyBytes) return false;
    uint64_t inode, seconds;
    uint32_t nanoseconds;
    memcpy(&inode, body.data(), 8);
    memcpy(&seconds, body.data() + 8, 8);
    memcpy(&nanoseconds, body.data() + 16, 4);
    *identity = {le64toh(inode), static_cast<int64_t>(le64toh(seconds)), le32toh(nanoseconds)};
    return true;
}

ObjectId SignObjectId(FSModuleType type, uint32_t shareId, HandleKind kind, std::string_view body) {
    ObjectId id;
    const size_t bytes = ObjectId::kHeadBytes + body.size();
    id.length = static_cast<unsigned char>(bytes + ObjectId::kSignatureBytes);
    id.bytes[0] = ObjectId::kVersion;
    id.bytes[1] = static_cast<unsigned char>(kind);
    memcpy(id.bytes + ObjectId::kHeadBytes, body.data(), body.size());
    Sign(type, shareId, id.bytes, bytes, id.bytes + bytes);
    return id;
}

bool ReadObjectId(const nfs_fh3& handle, ObjectId* id) {
    constexpr size_t kBytesMin =
        ObjectId::kHeadBytes + ObjectId::kBodyBytesMin + ObjectId::kSignatureBytes;
    if (handle.nfh_len < nfs_fh3::kLengthMin + kBytesMin) return false;
    const size_t length = handle.nfh_len - nfs_fh3::kLengthMin;
    if (length > ObjectId::kBytesMax) return false;
    if (handle.objectId[0] != ObjectId::kVersion) return false;
    const auto kind = static_cast<HandleKind>(handle.objectId[1]);
    if (kind != HandleKind::kKernel && kind != HandleKind::kInode) return false;

    const size_t signedBytes = length - ObjectId::kSignatureBytes;
    unsigned char signature[ObjectId::kSignatureBytes];
    Sign(handle.fsmType, handle.shareId, handle.objectId, signedBytes, signature);
    // In constant time: the time of a plain comparison would give the signature away byte by byte.
    if (sodium_memcmp(signature, handle.objectId + signedBytes, sizeof signature) != 0) {
        return false;
    }
    *id = ObjectId{};
    id->length = static_cast<unsigned char>(length);
    memcpy(id->bytes, handle.objectId, length);
    return true;
}

void WriteHandle(FSModuleType type, uint32_t shareId, const ObjectId& id, nfs_fh3* handle) {
    memset(handle, 0, sizeof *handle);
    handle->nfh_len = nfs_fh3::kLengthMin + id.length;
    handle->fsmType = type;
    handle->shareId = shareId;
    memcpy(handle->objectId, id.bytes, id.length);
}

}  // namespace oxel::local
