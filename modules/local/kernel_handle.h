// SPDX-License-Identifier: Apache-2.0
//
// The kernel's file handles as bodies of object ids.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "base/unique_fd.h"

namespace oxel::local {

// The handle of what `fd` stands for: its type byte and its bytes. False with errno: EOPNOTSUPP
// where the file system has none, EOVERFLOW when it is too long for an object id.
bool KernelHandleOf(int fd, std::string* body);

// A hash of overlayfs's own identifier of the object, with the inode and generation number in the
// layer that it came from. It stays when the object is copied to the upper layer, and an inode
// number that is used again has another one. False with errno where the kernel gives none that has
// this property: before Linux 6.6, or where overlayfs cannot keep where a copy came from.
bool LayerOriginOf(int fd, uint64_t* hash);

// An O_PATH descriptor for the object, or empty with errno: ESTALE when it is gone. `mountFd` is
// any readable descriptor of the file system. Needs CAP_DAC_READ_SEARCH, so the process's own
// rights. The object may lie anywhere on the file system; a file that has not been looked up lately
// has no known place in the tree.
UniqueFd OpenKernelHandle(int mountFd, std::string_view body);

}  // namespace oxel::local
