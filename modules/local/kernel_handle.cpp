// SPDX-License-Identifier: Apache-2.0
//
// name_to_handle_at(2) and open_by_handle_at(2).
#include "modules/local/kernel_handle.h"

#include <fcntl.h>
#include <sodium.h>

#include <cerrno>
#include <cstring>

#include "modules/local/handle_codec.h"
#include "modules/local/syscalls.h"

namespace oxel::local {
namespace {

// struct file_handle ends in an array without a size.
struct HandleBuffer {
    alignas(file_handle) char bytes[sizeof(file_handle) + ObjectId::kKernelHandleBytesMax + 3];
    file_handle* Get() { return reinterpret_cast<file_handle*>(bytes); }
};

}  // namespace

bool KernelHandleOf(int fd, std::string* body) {
    HandleBuffer buffer;
    file_handle* handle = buffer.Get();
    handle->handle_bytes = ObjectId::kKernelHandleBytesMax;
    int mountId;
    if (name_to_handle_at(fd, "", handle, &mountId, AT_EMPTY_PATH) != 0) return false;
    if (handle->handle_bytes == 0 || handle->handle_type < 0 || handle->handle_type > 0xff) {
        errno = EOPNOTSUPP;
        return false;
    }
    body->assign(1, static_cast<char>(handle->handle_type));
    body->append(reinterpret_cast<const char*>(handle->f_handle), handle->handle_bytes);
    return true;
}

bool LayerOriginOf(int fd, uint64_t* hash) {
    constexpr int kIdentifierOnly = 0x200;     // AT_HANDLE_FID: need not be good for opening
    constexpr int kLayerIdentifier = 0xf8;     // OVL_FILEID_V1
    constexpr unsigned kIdentifierBytes = 64;  // what layers have is shorter
    alignas(file_handle) char bytes[sizeof(file_handle) + kIdentifierBytes] = {};
    auto* handle = reinterpret_cast<file_handle*>(bytes);
    handle->handle_bytes = kIdentifierBytes;
    int mountId;
    if (name_to_handle_at(fd, "", handle, &mountId, AT_EMPTY_PATH | kIdentifierOnly) != 0) {
        return false;
    }
    if (handle->handle_type != kLayerIdentifier) {
        errno = EOPNOTSUPP;
        return false;
    }
    static_assert(sizeof *hash == crypto_shorthash_BYTES);
    constexpr unsigned char kKey[crypto_shorthash_KEYBYTES] = {};  // not a secret, only short
    crypto_shorthash(reinterpret_cast<unsigned char*>(hash), handle->f_handle, handle->handle_bytes,
                     kKey);
    return true;
}

UniqueFd OpenKernelHandle(int mountFd, std::string_view body) {
    HandleBuffer buffer;
    file_handle* handle = buffer.Get();
    if (body.size() < 2 || body.size() - 1 > ObjectId::kKernelHandleBytesMax) {
        errno = ESTALE;
        return UniqueFd();
    }
    handle->handle_bytes = static_cast<unsigned>(body.size() - 1);
    handle->handle_type = static_cast<unsigned char>(body[0]);
    memcpy(handle->f_handle, body.data() + 1, body.size() - 1);
    return OpenMakingRoom(
        [&] { return open_by_handle_at(mountFd, handle, O_PATH | O_NOFOLLOW | O_CLOEXEC); });
}

}  // namespace oxel::local
