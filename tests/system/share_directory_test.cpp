// SPDX-License-Identifier: Apache-2.0
//
// What an administrator does to a share's directory while clients use it: its file system becomes
// read-only and writable again, the directory is moved away and put back, removed, replaced.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <memory>

#include "tests/support/private_mounts.h"
#include "tests/support/private_tree.h"
#include "tests/system/integrity_client.h"

namespace oxel::test {
namespace {

constexpr uint32_t kNoEntry = 2, kReadOnly = 30, kStale = 70;

class ShareDirectory : public testing::Test {
  protected:
    void SetUp() override {
        tree_.MakeDir("share");
        // Nearly nothing is kept open between calls.
        tree_.WriteConf("wire", "[Oxel]\nnNfs3Port = 0\noxelFdCacheSize = 1\n");
        tree_.WriteExports(
            "wire", "/share -dir=" + tree_.Path("share") + ",id=7 *(rw,no_root_squash,insecure)\n");
    }
    void TearDown() override {
        session_.reset();
        if (daemon_.Running()) {
            EXPECT_EQ(daemon_.Stop(), 0);
        }
        mount_.reset();
    }
    void Start() {
        tree_.Write("share/d/file", "content");
        tree_.Write("share/other", "other");
        ASSERT_TRUE(daemon_.Start());
        session_ = std::make_unique<Session>(daemon_.Port());
        root_ = session_->Client().MountShare("/share");
        directory_ = session_->Client().Lookup(root_, "d");
        file_ = session_->Client().Lookup(directory_, "file");
        other_ = session_->Client().Lookup(root_, "other");
    }
    uint32_t Status(uint32_t procedure, const std::string& arguments) {
        return XdrReader(*session_->Call(procedure, arguments)).U32();
    }
    uint32_t Getattr(const std::string& handle) {
        return Status(nfs::kGetattr, XdrWriter().Opaque(handle).Bytes());
    }
    uint32_t Write(const std::string& data) {
        return Status(nfs::kWrite, WriteArguments(file_, 0, kFileSync, data));
    }
    std::string Read(const std::string& handle) { return session_->Client().Read(handle, 0, 1000); }
    void ExpectUsable(const std::string& content) {
        EXPECT_EQ(Status(nfs::kSetattr, SizeArguments(file_, content.size())), 0u);
        EXPECT_EQ(Write(content), 0u);
        EXPECT_EQ(Read(file_), content);
        EXPECT_EQ(session_->Client().ReadDirectory(root_, 0, 8000).entries.size(), 4u);
        EXPECT_EQ(session_->Client().MountShare("/share"), root_);
    }
    void ExpectAllStale() {
        for (const std::string& handle : {root_, directory_, file_}) {
            EXPECT_EQ(Getattr(handle), kStale);
            EXPECT_EQ(Status(nfs::kLookup, DirectoryName(handle == file_ ? root_ : handle, "x")),
                      kStale);
        }
        EXPECT_EQ(Status(nfs::kRead, ReadArguments(file_, 0, 10)), kStale);
        EXPECT_EQ(Write("x"), kStale);
        EXPECT_EQ(Status(nfs::kCreate, CreateArguments(root_, "new")), kStale);
        // FSSTAT says so in another way: its answer for an object that is not found is NOENT.
        EXPECT_EQ(Status(nfs::kFsstat, XdrWriter().Opaque(root_).Bytes()), kNoEntry);
        EXPECT_EQ(session_->Client().ReadDirectory(root_, 0, 8000).status, kStale);
        EXPECT_EQ(session_->Client().ReadDirectoryPlus(root_, 0, 8000, 8000).status, kStale);
    }
    int Reload() {
        std::string output;
        return daemon_.Control({"reload"}, &output);
    }
    void Remove() { std::filesystem::remove_all(tree_.Path("share")); }

    PrivateTree tree_;
    Daemon daemon_{tree_};
    std::unique_ptr<PrivateMount> mount_;
    std::unique_ptr<Session> session_;
    std::string root_, directory_, file_, other_;
};

TEST_F(ShareDirectory, AReadOnlyFileSystemIsReadOnAndWrittenWhenItIsWritableAgain) {
    mount_ = std::make_unique<PrivateMount>(tree_.Path("share"), "size=4m");
    if (!mount_->Error().empty())
        GTEST_SKIP() << "file systems in namespaces are not allowed here: " << mount_->Error();
    ASSERT_NO_FATAL_FAILURE(Start());
    for (int round = 0; round < 3; ++round) {
        const std::string content = "content" + std::to_string(round);
        ASSERT_NO_FATAL_FAILURE(ExpectUsable(content));
        // The descriptor of the last write gives way to that of a read; a file that is open for
        // writing would keep the file system writable.
        EXPECT_EQ(Read(other_), "other");
        ASSERT_TRUE(WaitUntil([&] { return mount_->Remount(true); }));
        EXPECT_EQ(Write("refused"), kReadOnly);
        EXPECT_EQ(Status(nfs::kCreate, CreateArguments(root_, "new")), kReadOnly);
        EXPECT_EQ(Status(nfs::kMkdir, DirectoryName(root_, "new") + SetAttributes().Bytes()),
                  kReadOnly);
        EXPECT_EQ(Status(nfs::kSymlink,
                         DirectoryName(root_, "new") +
                             XdrWriter().Raw(SetAttributes().Bytes()).Opaque("to").Bytes()),
                  kReadOnly);
        EXPECT_EQ(Status(nfs::kRemove, DirectoryName(root_, "other")), kReadOnly);
        EXPECT_EQ(Status(nfs::kRmdir, DirectoryName(root_, "d")), kReadOnly);
        EXPECT_EQ(Status(nfs::kRename, DirectoryName(root_, "other") + DirectoryName(root_, "new")),
                  kReadOnly);
        EXPECT_EQ(
            Status(nfs::kLink, XdrWriter().Opaque(file_).Raw(DirectoryName(root_, "new")).Bytes()),
            kReadOnly);
        EXPECT_EQ(Status(nfs::kSetattr, SizeArguments(file_, 1)), kReadOnly);
        SetAttributes mode;
        mode.mode = 0600;
        EXPECT_EQ(
            Status(nfs::kSetattr, XdrWriter().Opaque(file_).Raw(mode.Bytes()).Bool(false).Bytes()),
            kReadOnly);
        EXPECT_EQ(Read(file_), content);
        EXPECT_EQ(Getattr(directory_), 0u);
        EXPECT_EQ(session_->Client().ReadDirectoryPlus(root_, 0, 8000, 8000).entries.size(), 4u);
        EXPECT_EQ(session_->Client().MountShare("/share"), root_);
        ASSERT_TRUE(mount_->Remount(false));
    }
    ExpectUsable("last");
}

// Handles are of objects: where they lie does not matter.
TEST_F(ShareDirectory, ADirectoryThatIsMovedAwayAndBackStaysTheShare) {
    ASSERT_NO_FATAL_FAILURE(Start());
    const std::string away = tree_.Path("elsewhere");
    ASSERT_EQ(rename(tree_.Path("share").c_str(), away.c_str()), 0);
    ExpectUsable("moved");
    EXPECT_EQ(ReadFile(away + "/d/file"), "moved");
    // A share without its directory is a mistake in the file: everything stays as it was.
    EXPECT_EQ(Reload(), 1);
    ExpectUsable("moved, reloaded");
    ASSERT_EQ(rename(away.c_str(), tree_.Path("share").c_str()), 0);
    EXPECT_EQ(Reload(), 0);
    ExpectUsable("back");
    EXPECT_EQ(ReadFile(tree_.Path("share/d/file")), "back");
}

TEST_F(ShareDirectory, OneThatIsRemovedLeavesStaleHandles) {
    ASSERT_NO_FATAL_FAILURE(Start());
    Remove();
    ExpectAllStale();
    // It is still exported; what is mounted is as stale.
    EXPECT_EQ(session_->Client().MountShare("/share"), root_);
    EXPECT_EQ(Reload(), 1);
    ExpectAllStale();
}

TEST_F(ShareDirectory, AnotherOneInItsPlaceIsServedAfterAReload) {
    ASSERT_NO_FATAL_FAILURE(Start());
    for (int round = 0; round < 3; ++round) {
        Remove();
        tree_.Write("share/d/file", "new" + std::to_string(round));
        tree_.Write("share/other", "other");
        ExpectAllStale();
        EXPECT_EQ(session_->Client().MountShare("/share"), root_);
        EXPECT_EQ(Reload(), 0);
        ExpectAllStale();
        const std::string before = root_;
        root_ = session_->Client().MountShare("/share");
        EXPECT_NE(root_, before);
        directory_ = session_->Client().Lookup(root_, "d");
        file_ = session_->Client().Lookup(directory_, "file");
        EXPECT_EQ(Read(file_), "new" + std::to_string(round));
        ExpectUsable("content");
        EXPECT_EQ(Getattr(before), kStale);
    }
}

// The first one stays the share as long as it lives and nobody says otherwise.
TEST_F(ShareDirectory, AnotherOneInItsPlaceWhileItLivesElsewhereIsServedAfterAReload) {
    ASSERT_NO_FATAL_FAILURE(Start());
    ASSERT_EQ(rename(tree_.Path("share").c_str(), tree_.Path("elsewhere").c_str()), 0);
    tree_.Write("share/d/file", "another");
    ExpectUsable("first");
    EXPECT_EQ(ReadFile(tree_.Path("share/d/file")), "another");
    EXPECT_EQ(Reload(), 0);
    ExpectAllStale();
    const std::string root = session_->Client().MountShare("/share");
    EXPECT_NE(root, root_);
    EXPECT_EQ(Read(session_->Client().Walk(root, "d/file")), "another");
}

}  // namespace
}  // namespace oxel::test
