// SPDX-License-Identifier: Apache-2.0
//
// An NFS client library that others wrote walks a large share: every name, attribute, link and byte
// must be what the local tree has.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "tests/support/modes.h"
#include "tests/support/nfs_client.h"
#include "tests/support/private_tree.h"
#include "tests/system/libnfs_client.h"
#include "tests/system/local_tree.h"
#include "tests/system/tree_comparison.h"

namespace oxel::test {
namespace {

class LibnfsTree : public testing::TestWithParam<Mode> {
  protected:
    void SetUp() override {
        directory_ = LargeTree();
        tree_.WriteConf("wire", "[Oxel]\nnNfs3Port = 0\n" + ModeSettings(GetParam()));
        tree_.WriteExports("wire", "/tree -dir=" + directory_ + " *(ro,no_root_squash,insecure)\n");
        ASSERT_TRUE(daemon_.Start());
    }

    PrivateTree tree_;
    Daemon daemon_{tree_};
    std::string directory_;
};

TEST_P(LibnfsTree, OneClientSeesEveryNameAttributeLinkAndByte) {
    LibnfsClient client(daemon_.Port(), "/tree");
    ASSERT_TRUE(client.Mounted());
    TreeComparison comparison(client, daemon_.Port(), "/tree", directory_,
                              TreeComparison::Share::kReadOnly, [](size_t file) {
                                  // Every name and attribute in every mode, the contents mostly in
                                  // one.
                                  return GetParam() == Mode::kManyThreads ||
                                         file % (IsHardened(GetParam()) ? 8 : 4) == 0;
                              });
    comparison.Run();
    EXPECT_GE(comparison.Files(), LargeTreeFilesMin()) << directory_;
    RecordProperty("objects", static_cast<int>(comparison.Objects()));
}

TEST_P(LibnfsTree, FourClientsAtOnceSeeTheSame) {
    constexpr size_t kClients = 4;
    std::vector<std::thread> threads;
    std::atomic<size_t> files{0};
    for (size_t n = 0; n < kClients; ++n) {
        threads.emplace_back([&, n] {
            LibnfsClient client(daemon_.Port(), "/tree");
            if (!client.Mounted()) return;
            // All walk everything; each reads its share of the files, and one in fifty all read.
            TreeComparison comparison(
                client, daemon_.Port(), "/tree", directory_, TreeComparison::Share::kReadOnly,
                [n](size_t file) { return file % (2 * kClients) == n || file % 50 == 0; });
            comparison.Run();
            files += comparison.Files();
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_GE(files, kClients * LargeTreeFilesMin()) << directory_;
}

OXEL_ALL_MODES(LibnfsTree);

// What a program does with files: made, written, read back, renamed, removed, through the library.
class LibnfsWork : public LibnfsTree {
  protected:
    void SetUp() override {
        directory_ = tree_.MakeDir("share");
        tree_.WriteConf("wire", "[Oxel]\nnNfs3Port = 0\n" + ModeSettings(GetParam()));
        tree_.WriteExports("wire", "/tree -dir=" + directory_ + " *(rw,no_root_squash,insecure)\n");
        ASSERT_TRUE(daemon_.Start());
    }
};

TEST_P(LibnfsWork, FilesAreMadeWrittenRenamedAndRemoved) {
    LibnfsClient client(daemon_.Port(), "/tree");
    ASSERT_TRUE(client.Mounted());
    nfs_context* nfs = client.Get();
    std::string content;
    for (int i = 0; i < 100000; ++i) content += std::to_string(i) + "\n";
    ASSERT_EQ(nfs_mkdir(nfs, "/dir"), 0) << client.Error();
    for (int i = 0; i < 50; ++i) {
        const std::string name = "/dir/file" + std::to_string(i);
        nfsfh* file = nullptr;
        ASSERT_EQ(nfs_creat(nfs, name.c_str(), 0640, &file), 0) << client.Error();
        for (size_t at = 0; at < content.size(); at += 100000) {
            const size_t count = std::min<size_t>(100000, content.size() - at);
            ASSERT_EQ(nfs_pwrite(nfs, file, at, count, content.data() + at),
                      static_cast<int>(count))
                << client.Error();
        }
        ASSERT_EQ(nfs_fsync(nfs, file), 0) << client.Error();
        ASSERT_EQ(nfs_close(nfs, file), 0);
        EXPECT_TRUE(ReadFile(directory_ + name) == content);
        EXPECT_EQ(ExpectedAttributes(directory_ + name).mode, 0640u);
    }
    ASSERT_EQ(nfs_rename(nfs, "/dir/file0", "/dir/renamed"), 0) << client.Error();
    ASSERT_EQ(nfs_link(nfs, "/dir/file1", "/dir/linked"), 0) << client.Error();
    ASSERT_EQ(nfs_symlink(nfs, "file2", "/dir/symlink"), 0) << client.Error();
    ASSERT_EQ(nfs_truncate(nfs, "/dir/file3", 10), 0) << client.Error();
    EXPECT_EQ(ReadFile(directory_ + "/dir/file3"), content.substr(0, 10));
    ASSERT_EQ(nfs_chmod(nfs, "/dir/file4", 0600), 0) << client.Error();
    EXPECT_EQ(ExpectedAttributes(directory_ + "/dir/file4").mode, 0600u);
    TreeComparison comparison(client, daemon_.Port(), "/tree", directory_,
                              TreeComparison::Share::kWritable, [](size_t) { return true; });
    comparison.Run();
    EXPECT_EQ(comparison.Objects(), 53u);
    for (const std::string& name : LocalNames(directory_ + "/dir"))
        EXPECT_EQ(nfs_unlink(nfs, ("/dir/" + name).c_str()), 0) << name << client.Error();
    EXPECT_EQ(nfs_rmdir(nfs, "/dir"), 0) << client.Error();
    EXPECT_TRUE(LocalNames(directory_).empty());
}

OXEL_ALL_MODES(LibnfsWork);

}  // namespace
}  // namespace oxel::test
