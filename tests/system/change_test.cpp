// SPDX-License-Identifier: Apache-2.0
//
// A client library that others wrote changes files in every way there is; after each change that
// client and the disk say the same, and it is what was asked for.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <memory>
#include <utility>
#include <vector>

#include "tests/support/modes.h"
#include "tests/support/private_tree.h"
#include "tests/system/libnfs_client.h"

namespace oxel::test {
namespace {

class Change : public testing::TestWithParam<Mode> {
  protected:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "files change their owners here";
        root_ = tree_.MakeDir("share");
        tree_.WriteConf("wire", "[Oxel]\nnNfs3Port = 0\n" + ModeSettings(GetParam()));
        tree_.WriteExports("wire", "/tree -dir=" + root_ + " *(rw,no_root_squash,insecure)\n");
        ASSERT_TRUE(daemon_.Start());
        client_ = std::make_unique<LibnfsClient>(daemon_.Port(), "/tree");
        ASSERT_TRUE(client_->Mounted());
        nfs_ = client_->Get();
    }
    void TearDown() override { client_.reset(); }

    std::string At(const std::string& path) const { return root_ + path; }
    void Make(const std::string& path, const std::string& text) {
        tree_.Write("share" + path, text);
    }
    bool Exists(const std::string& path) const {
        struct stat st;
        return lstat(At(path).c_str(), &st) == 0;
    }
    struct stat OnDisk(const std::string& path) const {
        struct stat st {};
        EXPECT_EQ(lstat(At(path).c_str(), &st), 0) << path;
        return st;
    }
    // The client sees what is on the disk.
    void ExpectSame(const std::string& path) {
        const struct stat st = OnDisk(path);
        nfs_stat_64 seen{};
        ASSERT_EQ(nfs_lstat64(nfs_, path.c_str(), &seen), 0) << path << client_->Error();
        EXPECT_EQ(seen.nfs_ino, st.st_ino) << path;
        EXPECT_EQ(seen.nfs_mode, st.st_mode & ~01000u) << path;
        EXPECT_EQ(seen.nfs_nlink, st.st_nlink) << path;
        EXPECT_EQ(seen.nfs_uid, st.st_uid) << path;
        EXPECT_EQ(seen.nfs_gid, st.st_gid) << path;
        EXPECT_EQ(seen.nfs_size, S_ISDIR(st.st_mode) ? 4096 : static_cast<uint64_t>(st.st_size))
            << path;
        EXPECT_EQ(static_cast<uint32_t>(seen.nfs_mtime), static_cast<uint32_t>(st.st_mtime))
            << path;
        EXPECT_EQ(static_cast<uint32_t>(seen.nfs_ctime), static_cast<uint32_t>(st.st_ctime))
            << path;
    }
    void ExpectGone(const std::string& path) {
        nfs_stat_64 seen{};
        EXPECT_EQ(nfs_lstat64(nfs_, path.c_str(), &seen), -ENOENT) << path;
        EXPECT_FALSE(Exists(path)) << path;
    }

    PrivateTree tree_;
    Daemon daemon_{tree_};
    std::string root_;
    std::unique_ptr<LibnfsClient> client_;
    nfs_context* nfs_ = nullptr;
};

TEST_P(Change, FilesAreRenamedAlsoOverOthers) {
    for (int i = 0; i < 50; ++i) {
        const std::string number = std::to_string(i), from = "/from" + number;
        const std::string to = i % 2 == 0 ? "/to" + number : "/dir/to" + number;
        Make(from, "moved" + number);
        Make(to, "replaced");
        const ino_t inode = OnDisk(from).st_ino;
        ASSERT_EQ(nfs_rename(nfs_, from.c_str(), to.c_str()), 0) << client_->Error();
        ExpectGone(from);
        ExpectSame(to);
        EXPECT_EQ(OnDisk(to).st_ino, inode);
        EXPECT_EQ(ReadFile(At(to)), "moved" + number);
        // And to a name that is free.
        ASSERT_EQ(nfs_rename(nfs_, to.c_str(), from.c_str()), 0) << client_->Error();
        ExpectGone(to);
        ExpectSame(from);
    }
}

TEST_P(Change, DirectoriesAreRenamedAlsoOverEmptyOnes) {
    for (int i = 0; i < 20; ++i) {
        const std::string number = std::to_string(i), from = "/from" + number, to = "/to" + number;
        Make(from + "/below/file", number);
        if (i % 2 == 0) tree_.MakeDir("share" + to);
        ASSERT_EQ(nfs_rename(nfs_, from.c_str(), to.c_str()), 0) << client_->Error();
        ExpectGone(from);
        for (const char* below : {"", "/below", "/below/file"}) ExpectSame(to + below);
        EXPECT_EQ(ReadFile(At(to + "/below/file")), number);
    }
    Make("/full/file", "kept");
    EXPECT_EQ(nfs_rename(nfs_, "/to0", "/full"), -ENOTEMPTY);
    EXPECT_EQ(nfs_rename(nfs_, "/to0", "/to0/below/inside"), -EINVAL);
    EXPECT_EQ(nfs_rename(nfs_, "/to0", "/full/file"), -ENOTDIR);
    EXPECT_EQ(nfs_rename(nfs_, "/full/file", "/to0"), -EISDIR);
    EXPECT_EQ(nfs_rename(nfs_, "/missing", "/to0"), -ENOENT);
    EXPECT_EQ(ReadFile(At("/full/file")), "kept");
    ExpectSame("/to0/below/file");
}

TEST_P(Change, NamesOfOneFileAreCounted) {
    Make("/file", "text");
    tree_.MakeDir("share/dir");
    std::vector<std::string> names{"/file"};
    for (int i = 0; i < 20; ++i) {
        names.push_back((i % 2 == 0 ? "/link" : "/dir/link") + std::to_string(i));
        ASSERT_EQ(nfs_link(nfs_, names[(names.size() - 1) / 2].c_str(), names.back().c_str()), 0)
            << client_->Error();
        EXPECT_EQ(OnDisk("/file").st_nlink, names.size());
        for (const std::string& name : names) ExpectSame(name);
    }
    EXPECT_EQ(nfs_link(nfs_, "/file", "/link0"), -EEXIST);
    EXPECT_EQ(nfs_link(nfs_, "/dir", "/dirlink"), -EPERM);
    EXPECT_EQ(nfs_link(nfs_, "/file", "/missing/link"), -ENOENT);
    // One name over another of the same file changes nothing.
    ASSERT_EQ(nfs_rename(nfs_, "/link0", "/link2"), 0) << client_->Error();
    EXPECT_EQ(OnDisk("/file").st_nlink, names.size());
    while (!names.empty()) {
        ASSERT_EQ(nfs_unlink(nfs_, names.back().c_str()), 0) << client_->Error();
        ExpectGone(names.back());
        names.pop_back();
        for (const std::string& name : names) {
            ExpectSame(name);
            EXPECT_EQ(OnDisk(name).st_nlink, names.size());
        }
    }
}

TEST_P(Change, SizesGrowAndShrink) {
    std::string text(70000, '\0');
    for (size_t i = 0; i < text.size(); ++i) text[i] = static_cast<char>('a' + i % 23);
    Make("/file", text);
    for (const size_t size : {65536u, 65535u, 4097u, 4096u, 100u, 5000u, 1u, 0u, 300000u, 7u}) {
        ASSERT_EQ(nfs_truncate(nfs_, "/file", size), 0) << client_->Error();
        const size_t kept = std::min<size_t>(size, text.size());
        text.resize(kept);
        text.resize(size, '\0');
        EXPECT_EQ(static_cast<size_t>(OnDisk("/file").st_size), size);
        ExpectSame("/file");
        EXPECT_TRUE(ReadFile(At("/file")) == text) << size;
    }
    // The same through a file that the client has open, and writes beyond the end.
    nfsfh* file = nullptr;
    ASSERT_EQ(nfs_creat(nfs_, "/open", 0640, &file), 0) << client_->Error();
    ASSERT_EQ(nfs_pwrite(nfs_, file, 10000, 5, "there"), 5) << client_->Error();
    EXPECT_EQ(OnDisk("/open").st_size, 10005);
    ASSERT_EQ(nfs_ftruncate(nfs_, file, 10002), 0) << client_->Error();
    ExpectSame("/open");
    ASSERT_EQ(nfs_pwrite(nfs_, file, 10002, 3, "ing"), 3) << client_->Error();
    ASSERT_EQ(nfs_close(nfs_, file), 0) << client_->Error();
    ExpectSame("/open");
    EXPECT_TRUE(ReadFile(At("/open")) == std::string(10000, '\0') + "thing");
    EXPECT_LT(nfs_truncate(nfs_, "/missing", 1), 0);
}

TEST_P(Change, ModesOwnersAndTimesAreSet) {
    Make("/file", "text");
    tree_.MakeDir("share/dir");
    ASSERT_EQ(symlink("file", At("/link").c_str()), 0);
    for (const std::string path : {"/file", "/dir"}) {
        for (const int mode : {0, 0777, 0644, 04755, 02755, 06700, 01777, 0400}) {
            ASSERT_EQ(nfs_chmod(nfs_, path.c_str(), mode), 0) << client_->Error();
            EXPECT_EQ(OnDisk(path).st_mode & 07777, static_cast<mode_t>(mode)) << path;
            ExpectSame(path);
        }
    }
    for (const std::string path : {"/file", "/dir", "/link"}) {
        for (const auto& [uid, gid] : {std::pair(1000, 1001), {0, 12345}, {65534, 0}}) {
            ASSERT_EQ(nfs_lchown(nfs_, path.c_str(), uid, gid), 0) << client_->Error();
            EXPECT_EQ(OnDisk(path).st_uid, static_cast<uid_t>(uid)) << path;
            EXPECT_EQ(OnDisk(path).st_gid, static_cast<gid_t>(gid)) << path;
            ExpectSame(path);
        }
        for (const time_t seconds :
             {time_t{0}, time_t{1}, time_t{999999999}, time_t{2147483648}, time_t{4294967295}}) {
            timeval times[2] = {{seconds, 250000}, {seconds, 999999}};
            ASSERT_EQ(nfs_lutimes(nfs_, path.c_str(), times), 0) << client_->Error();
            const struct stat st = OnDisk(path);
            EXPECT_EQ(st.st_mtim.tv_sec, seconds) << path;
            EXPECT_EQ(st.st_mtim.tv_nsec, 999999000) << path;
            EXPECT_EQ(st.st_atim.tv_sec, seconds) << path;
            EXPECT_EQ(st.st_atim.tv_nsec, 250000000) << path;
            ExpectSame(path);
        }
    }
    // Through the link: what it leads to.
    ASSERT_EQ(nfs_chmod(nfs_, "/link", 0604), 0) << client_->Error();
    EXPECT_EQ(OnDisk("/file").st_mode & 07777, 0604u);
    EXPECT_TRUE(S_ISLNK(OnDisk("/link").st_mode));
}

TEST_P(Change, WhatIsRemovedIsGoneAndWhatIsNotEmptyStays) {
    Make("/dir/sub/file", "text");
    Make("/dir/other", "text");
    ASSERT_EQ(symlink("missing", At("/dir/link").c_str()), 0);
    EXPECT_EQ(nfs_rmdir(nfs_, "/dir"), -ENOTEMPTY);
    EXPECT_EQ(nfs_rmdir(nfs_, "/dir/sub"), -ENOTEMPTY);
    EXPECT_EQ(nfs_rmdir(nfs_, "/dir/other"), -ENOTDIR);
    EXPECT_EQ(nfs_rmdir(nfs_, "/dir/link"), -ENOTDIR);
    EXPECT_EQ(nfs_unlink(nfs_, "/dir/sub"), -EISDIR);
    ExpectSame("/dir/sub/file");
    for (const char* path : {"/dir/sub/file", "/dir/other", "/dir/link"}) {
        ASSERT_EQ(nfs_unlink(nfs_, path), 0) << client_->Error();
        ExpectGone(path);
        ExpectSame("/dir");
    }
    for (const char* path : {"/dir/sub", "/dir"}) {
        ASSERT_EQ(nfs_rmdir(nfs_, path), 0) << client_->Error();
        ExpectGone(path);
        ExpectSame("/");
    }
    EXPECT_TRUE(std::filesystem::is_empty(root_));
}

TEST_P(Change, NamesThatCannotBeAreRefused) {
    Make("/file", "text");
    const std::string longest = "/" + std::string(255, 'n'), tooLong = longest + "n";
    EXPECT_EQ(nfs_mkdir(nfs_, tooLong.c_str()), -ENAMETOOLONG);
    EXPECT_EQ(nfs_rename(nfs_, "/file", tooLong.c_str()), -ENAMETOOLONG);
    EXPECT_EQ(nfs_symlink(nfs_, "x", tooLong.c_str()), -ENAMETOOLONG);
    EXPECT_EQ(nfs_mkdir(nfs_, "/file/below"), -ENOTDIR);
    ASSERT_EQ(nfs_rename(nfs_, "/file", longest.c_str()), 0) << client_->Error();
    ExpectSame(longest);
    ASSERT_EQ(nfs_unlink(nfs_, longest.c_str()), 0) << client_->Error();
    ExpectGone(longest);
}

OXEL_ALL_MODES(Change);

}  // namespace
}  // namespace oxel::test
