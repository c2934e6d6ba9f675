// SPDX-License-Identifier: Apache-2.0
//
// Names and paths.
#include "modules/local/names.h"

#include <limits.h>

#include <cerrno>

namespace oxel::local {

int NameError(const std::string& name) {
    if (name.empty()) return ENOENT;
    if (name.size() > NAME_MAX) return ENAMETOOLONG;
    if (name.find('/') != std::string::npos || name.find('\0') != std::string::npos) return EACCES;
    return 0;
}

bool PathBelow(const std::string& directory, const std::string& name, std::string* path) {
    std::string whole;
    whole.reserve(directory.size() + 1 + name.size());
    whole += directory;
    if (whole.back() != '/') whole += '/';
    whole += name;
    if (whole.size() >= PATH_MAX) {
        errno = ENAMETOOLONG;
        return false;
    }
    *path = std::move(whole);
    return true;
}

bool NameInPath(const std::string& directory, const std::string& path, std::string* name) {
    // The name may hold a slash, which is for NameError to refuse.
    const size_t length = directory.size();
    if (path.compare(0, length, directory) != 0 || path.size() <= length || path[length] != '/') {
        errno = EINVAL;
        return false;
    }
    name->assign(path, length + 1, std::string::npos);
    return true;
}

}  // namespace oxel::local
