// SPDX-License-Identifier: Apache-2.0
//
// The last resort for finding an object whose name is not known: reading the share's directories.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "base/unique_fd.h"
#include "modules/local/share_root.h"

namespace oxel::local {

// Looks for a name of the inode below the share's root; `isIt` decides about an O_PATH descriptor
// of a candidate. Only directories are read, no other object is touched, so the cost is that of
// listing the share. The places passed by are remembered while there is room, so that the next
// objects need no search of their own; for the same reason a search goes on to the end where
// handles resolve through nothing but places: stopping at the object would halve the first search
// and make the sum of those that follow, each from the start, quadratic. False with errno: ENOENT
// when the whole share was searched, another one when something kept the search from it.
bool SearchTree(ShareRoot& share, uint64_t inode, const std::function<bool(int fd)>& isIt,
                std::string* relative, UniqueFd* fd) REQUIRES(share.SearchMutex());

}  // namespace oxel::local
