// SPDX-License-Identifier: Apache-2.0
//
// A program's day with a share in memory, through a client library that others wrote.
#include <fcntl.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "tests/memory/memory_fixture.h"
#include "tests/system/libnfs_client.h"

namespace oxel::test {
namespace {

using MemoryLibnfs = MemoryTest;

std::vector<std::string> Names(LibnfsClient& client, const char* directory) {
    std::vector<std::string> names;
    nfsdir* opened = nullptr;
    EXPECT_EQ(nfs_opendir(client.Get(), directory, &opened), 0) << client.Error();
    if (opened == nullptr) return names;
    while (const nfsdirent* entry = nfs_readdir(client.Get(), opened))
        names.emplace_back(entry->name);
    nfs_closedir(client.Get(), opened);
    std::sort(names.begin(), names.end());
    return names;
}

TEST_P(MemoryLibnfs, FilesAreMadeWrittenReadListedRenamedAndRemoved) {
    LibnfsClient client(daemon_.Port(), "/scratch");
    ASSERT_TRUE(client.Mounted());
    nfs_context* nfs = client.Get();
    ASSERT_EQ(nfs_mkdir2(nfs, "/directory", 0755), 0) << client.Error();

    std::string data(700000, '\0');  // several transfers
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 7 / 5);
    nfsfh* file = nullptr;
    ASSERT_EQ(nfs_open2(nfs, "/directory/file", O_CREAT | O_RDWR, 0640, &file), 0)
        << client.Error();
    size_t written = 0;
    while (written < data.size()) {
        const int now = nfs_pwrite(nfs, file, written, data.size() - written, &data[written]);
        ASSERT_GT(now, 0) << client.Error();
        written += static_cast<size_t>(now);
    }
    ASSERT_EQ(nfs_fsync(nfs, file), 0) << client.Error();

    std::string back(data.size() + 1, 'x');
    size_t got = 0;
    for (int now = 1; now > 0; got += static_cast<size_t>(std::max(now, 0)))
        now = nfs_pread(nfs, file, got, back.size() - got, &back[got]);
    back.resize(got);
    EXPECT_EQ(back == data, true) << got;
    ASSERT_EQ(nfs_close(nfs, file), 0);

    nfs_stat_64 st;
    ASSERT_EQ(nfs_stat64(nfs, "/directory/file", &st), 0) << client.Error();
    EXPECT_EQ(st.nfs_size, data.size());
    EXPECT_EQ(st.nfs_mode & 0777, 0640u);
    ASSERT_EQ(nfs_symlink(nfs, "file", "/directory/link"), 0) << client.Error();
    char target[100] = {};
    ASSERT_EQ(nfs_readlink(nfs, "/directory/link", target, sizeof target), 0) << client.Error();
    EXPECT_STREQ(target, "file");

    EXPECT_EQ(Names(client, "/directory"), (std::vector<std::string>{".", "..", "file", "link"}));
    EXPECT_EQ(nfs_rmdir(nfs, "/directory"), -ENOTEMPTY);
    ASSERT_EQ(nfs_rename(nfs, "/directory/file", "/moved"), 0) << client.Error();
    ASSERT_EQ(nfs_unlink(nfs, "/directory/link"), 0) << client.Error();
    ASSERT_EQ(nfs_rmdir(nfs, "/directory"), 0) << client.Error();
    EXPECT_EQ(Names(client, "/"), (std::vector<std::string>{".", "..", "moved"}));
    ASSERT_EQ(nfs_truncate(nfs, "/moved", 10), 0) << client.Error();
    ASSERT_EQ(nfs_stat64(nfs, "/moved", &st), 0) << client.Error();
    EXPECT_EQ(st.nfs_size, 10u);
    ASSERT_EQ(nfs_unlink(nfs, "/moved"), 0) << client.Error();
    EXPECT_EQ(nfs_stat64(nfs, "/moved", &st), -ENOENT);
    // The file's bytes are free again.
    struct statvfs space;
    ASSERT_EQ(nfs_statvfs(nfs, "/", &space), 0) << client.Error();
    EXPECT_EQ(space.f_bfree, space.f_blocks);
}

OXEL_ALL_MODES(MemoryLibnfs);

}  // namespace
}  // namespace oxel::test
