// SPDX-License-Identifier: Apache-2.0
//
// A mount by an NFS client library that others wrote.
#pragma once

#include <gtest/gtest.h>
#include <nfsc/libnfs.h>

#include <cstdint>
#include <string>

namespace oxel::test {

// One mounted client, acting as one user. Used by one thread. Nothing is masked out of the modes
// that it is given, and it does not remember directories.
class LibnfsClient {
  public:
    LibnfsClient(uint16_t port, const std::string& share, uint32_t uid = 0, uint32_t gid = 0)
        : nfs_(nfs_init_context()) {
        const std::string number = std::to_string(port);
        const std::string url =
            "nfs://127.0.0.1" + share + "?version=3&dircache=0&uid=" + std::to_string(uid) +
            "&gid=" + std::to_string(gid) + "&nfsport=" + number + "&mountport=" + number;
        nfs_url* parsed = nfs_parse_url_dir(nfs_, url.c_str());
        EXPECT_NE(parsed, nullptr) << url;
        if (!parsed) return;
        (void)nfs_umask(nfs_, 0);
        mounted_ = nfs_mount(nfs_, parsed->server, parsed->path) == 0;
        EXPECT_TRUE(mounted_) << url << ": " << nfs_get_error(nfs_);
        nfs_destroy_url(parsed);
    }
    ~LibnfsClient() { nfs_destroy_context(nfs_); }
    LibnfsClient(const LibnfsClient&) = delete;
    LibnfsClient& operator=(const LibnfsClient&) = delete;

    bool Mounted() const { return mounted_; }
    nfs_context* Get() const { return nfs_; }
    const char* Error() const { return nfs_get_error(nfs_); }

  private:
    nfs_context* nfs_;
    bool mounted_ = false;
};

}  // namespace oxel::test
