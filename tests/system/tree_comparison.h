// SPDX-License-Identifier: Apache-2.0
//
// Compares what a client sees of a share with the directory that it serves.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "tests/support/nfs_client.h"
#include "tests/system/libnfs_client.h"

namespace oxel::test {

// Walks a share and compares it with its directory. Stops after a number of differences.
class TreeComparison {
  public:
    enum class Share { kReadOnly, kWritable };
    // `client` has mounted `name`; `directory` is what it serves.
    TreeComparison(LibnfsClient& client, uint16_t port, const std::string& name,
                   std::string directory, Share share, std::function<bool(size_t)> readsFile);

    void Run() { CompareDirectory(""); }
    size_t Files() const { return files_; }
    size_t Objects() const { return objects_; }

  private:
    static constexpr int kDifferencesMax = 20;

    // `what` is said of `path` when `same` is false.
    void Expect(bool same, const std::string& path, const std::string& what) {
        if (same || differences_ >= kDifferencesMax) return;
        ++differences_;
        ADD_FAILURE() << directory_ << path << ": " << what;
    }
    void CompareDirectory(const std::string& path);
    void CompareEntry(const std::string& path, const nfsdirent& entry);
    void CompareLink(const std::string& path);
    void CompareContent(const std::string& path, const Attributes& expected);
    void CompareBytes(const std::string& path, uint64_t size,
                      const std::function<int(uint64_t)>& read);

    LibnfsClient& client_;
    NfsClient plain_;
    const std::string root_;
    const std::string directory_;
    const bool writable_;
    const std::function<bool(size_t)> readsFile_;  // by the file's number in the walk
    std::vector<char> buffer_, local_;
    size_t files_ = 0, objects_ = 0;
    int differences_ = 0;
};

}  // namespace oxel::test
