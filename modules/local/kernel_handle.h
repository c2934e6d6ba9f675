// SPDX-License-Identifier: Apache-2.0
//
// The kernel's file handles as bodies of object ids.
#pragma once

#include <string>
#include <string_view>

#include "base/unique_fd.h"

namespace oxel::local {

// The handle of what `fd` stands for: its type byte and its bytes. False with errno: EOPNOTSUPP
// where the file system has none, EOVERFLOW when it is too long for an object id.
bool KernelHandleOf(int fd, std::string* body);

// An O_PATH descriptor for the object, or empty with errno: ESTALE when it is gone. `mountFd` is
// any readable descriptor of the file system. Needs CAP_DAC_READ_SEARCH, so the process's own
// rights. The object may lie anywhere on the file system; a file that has not been looked up lately
// has no known place in the tree.
UniqueFd OpenKernelHandle(int mountFd, std::string_view body);

}  // namespace oxel::local
