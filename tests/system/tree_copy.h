// SPDX-License-Identifier: Apache-2.0
//
// Copying a local tree into a share through a client library, and comparing local trees.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <map>
#include <string>

#include "tests/system/libnfs_client.h"

namespace oxel::test {

// Copies everything below `source` to the root of what the client has mounted: contents, owners,
// modes, times, symbolic links, and names of one file as names of one file. What fails, fails the
// test; it stops after a number of failures.
class TreeCopy {
  public:
    TreeCopy(LibnfsClient& client, std::string source)
        : client_(client), source_(std::move(source)) {}
    void Run() { CopyDirectory(""); }
    size_t Objects() const { return objects_; }

  private:
    void CopyDirectory(const std::string& path);
    void CopyEntry(const std::string& path);
    void CopyContent(const std::string& path, const struct stat& st);
    void CopyAttributes(const std::string& path, const struct stat& st);
    // `result` is the library's answer to `what`; true when it is a success.
    bool Done(int result, const char* what, const std::string& path);
    void ExpectSeen(const std::string& path, const struct stat& st);

    LibnfsClient& client_;
    const std::string source_;
    std::map<ino_t, std::string> linked_;  // files with several names, by the first one's path
    size_t objects_ = 0;
    int failures_ = 0;
};

// Everything below the two directories is the same: names, types, modes, owners, sizes, times of
// modification to the microsecond, contents, targets of links, and which names are one file.
void ExpectSameTrees(const std::string& one, const std::string& other);

}  // namespace oxel::test
