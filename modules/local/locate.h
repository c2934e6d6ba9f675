// SPDX-License-Identifier: Apache-2.0
//
// Where an object lies inside its share. The kernel answers that for directories and for files that
// somebody has looked up lately; for the others there are places remembered from earlier, and in
// the end a search of the share.
#pragma once

#include <sys/stat.h>

#include <string>
#include <string_view>

#include "base/unique_fd.h"
#include "modules/local/share_root.h"

namespace oxel::local {

// Where the object is, verified, and a descriptor to use in place of the caller's when there is a
// better one.
struct Location {
    std::string path;
    UniqueFd fd;
    int64_t verifiedMs = -1;  // of NowMs, when it rests on something seen earlier; -1: now
};

// The place of the object that `fd` stands for. False when it is not inside the share. The thread
// gets the process's own rights.
bool Locate(ShareRoot& share, int fd, const struct stat& st, std::string_view body,
            Location* location);

// The object of an "inode" handle, opened. False when there is none.
bool LocateInode(ShareRoot& share, std::string_view body, Location* location);

// Puts the object that the full path leads to, and the directories above it, into the map of places
// of a share that resolves handles through nothing else.
void RememberPath(ShareRoot& share, const std::string& path);

}  // namespace oxel::local
