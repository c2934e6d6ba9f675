// SPDX-License-Identifier: Apache-2.0
//
// Choosing and reading the local tree.
#include "tests/system/local_tree.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>

#include "tests/support/private_tree.h"

namespace oxel::test {

static size_t FilesBelow(const std::string& directory, size_t enough) {
    std::error_code error;
    size_t count = 0;
    for (std::filesystem::recursive_directory_iterator it(directory, error), end;
         !error && it != end && count < enough; it.increment(error))
        ++count;
    return count;
}

size_t LargeTreeFilesMin() {
    if (getenv("OXEL_TEST_TREE")) return 1;
    return SanitizerBuild() ? 1000 : 20000;
}

std::string LargeTree() {
    if (const char* named = getenv("OXEL_TEST_TREE")) return named;
    if (SanitizerBuild())
        return FilesBelow("/usr/include", 1000) >= 1000 ? "/usr/include" : "/usr/share";
    return FilesBelow("/usr/share", 20000) >= 20000 ? "/usr/share" : "/usr";
}

std::vector<std::string> LocalNames(const std::string& directory) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(directory))
        names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace oxel::test
