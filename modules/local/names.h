// SPDX-License-Identifier: Apache-2.0
//
// What may be the name of an entry, and which entry a path means.
#pragma once

#include <string>

namespace oxel::local {

// What the kernel answers for a name that is not the name of a directory entry. 0 when it may be
// one, or is "." or "..".
int NameError(const std::string& name);

inline bool IsDots(const std::string& name) {
    return name == "." || name == "..";
}

// The path of the entry, or false with errno: ENAMETOOLONG as for a local caller, because the
// kernel could not tell such a path.
bool PathBelow(const std::string& directory, const std::string& name, std::string* path);

// The name in a path that a caller composed of the directory's path, a slash and the name. False
// with errno EINVAL when it is not made so.
bool NameInPath(const std::string& directory, const std::string& path, std::string* name);

}  // namespace oxel::local
