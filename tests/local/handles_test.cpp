// SPDX-License-Identifier: Apache-2.0
//
// File handles: what they lead to, what they survive, and what is refused.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "backend/ExportCache.h"
#include "modules/local/handle_codec.h"
#include "modules/local/object.h"
#include "modules/local/object_cache.h"
#include "tests/local/fixture.h"

namespace oxel::testing {
namespace {

class Handles : public LocalTest {
  protected:
    void SetUp() override {
        LocalTest::SetUp();
        MakeDir(InShare("d"));
        MakeDir(InShare("d/e"));
        WriteFile(InShare("f"), "contents of f");
        WriteFile(InShare("d/e/g"), "contents of g");
    }
    std::string PathOf(const nfs_fh3& handle) {
        const BkEndProcPtr object = Resolve(handle);
        return object ? object->GetPath() : "stale";
    }
    static bool Same(const nfs_fh3& a, const nfs_fh3& b) { return memcmp(&a, &b, sizeof a) == 0; }
    void ForgetObjects() { local::ObjectCache::Instance().Clear(); }
};

TEST_F(Handles, LeadBackToTheirObjects) {
    ASSERT_EQ(symlink("nowhere", InShare("link").c_str()), 0);
    ASSERT_EQ(mkfifo(InShare("fifo").c_str(), 0644), 0);
    for (const char* name : {"f", "d", "d/e", "d/e/g", "link", "fifo"}) {
        const nfs_fh3 handle = HandleAt(name);
        EXPECT_EQ(PathOf(handle), InShare(name));
        ForgetObjects();
        EXPECT_EQ(PathOf(handle), InShare(name));
        EXPECT_TRUE(Same(handle, HandleOf(Resolve(handle))));
    }
    EXPECT_EQ(PathOf(RootHandle()), ShareDirectory());
}

TEST_F(Handles, CarryModuleTypeAndShareAndFitADirectoryEntry) {
    for (const char* name : {"f", "d/e/g"}) {
        const nfs_fh3 handle = HandleAt(name);
        EXPECT_EQ(handle.fsmType, kLocalModuleType);
        EXPECT_EQ(handle.shareId, kShareId);
        EXPECT_LE(handle.nfh_len, 48u);
        EXPECT_GE(handle.nfh_len, 8u + 12u);
    }
    EXPECT_EQ(RootHandle().shareId, kShareId);
}

TEST_F(Handles, SurviveARestart) {
    const nfs_fh3 file = HandleAt("d/e/g"), directory = HandleAt("d"), root = RootHandle();
    Restart();
    EXPECT_EQ(PathOf(file), InShare("d/e/g"));
    EXPECT_EQ(PathOf(directory), InShare("d"));
    EXPECT_EQ(PathOf(root), ShareDirectory());
}

TEST_F(Handles, SurviveARenameAndTellTheNewPath) {
    const nfs_fh3 file = HandleAt("f"), deep = HandleAt("d/e/g"), directory = HandleAt("d/e");
    Move(InShare("f"), InShare("d/renamed"));
    EXPECT_EQ(PathOf(file), InShare("d/renamed"));
    ForgetObjects();
    EXPECT_EQ(PathOf(file), InShare("d/renamed"));

    local::gPathBelievedMs = 0;
    Move(InShare("d/e"), InShare("moved"));
    EXPECT_EQ(PathOf(directory), InShare("moved"));
    EXPECT_EQ(PathOf(deep), InShare("moved/g"));
    ForgetObjects();
    EXPECT_EQ(PathOf(deep), InShare("moved/g"));
    local::gPathBelievedMs = 1000;
}

TEST_F(Handles, SurviveARenameDuringDowntime) {
    const nfs_fh3 deep = HandleAt("d/e/g");
    ForgetEverything();
    Move(InShare("d/e"), InShare("moved"));
    Move(InShare("moved/g"), InShare("moved/h"));
    Restart();
    EXPECT_EQ(PathOf(deep), InShare("moved/h"));
}

TEST_F(Handles, PathIsConstantForTheLifeOfAnObject) {
    const BkEndProcPtr before = Find("f");
    const std::string* path = &before->GetPath();
    Move(InShare("f"), InShare("other"));
    const BkEndProcPtr after = Resolve(HandleOf(before));
    ASSERT_TRUE(after);
    EXPECT_EQ(&before->GetPath(), path);
    EXPECT_EQ(*path, InShare("f"));
    EXPECT_EQ(after->GetPath(), InShare("other"));
}

TEST_F(Handles, OfARemovedObjectAreStale) {
    const nfs_fh3 file = HandleAt("f"), uncached = HandleAt("d/e/g"), directory = HandleAt("d/e");
    Remove(InShare("f"));
    EXPECT_EQ(PathOf(file), "stale");
    EXPECT_EQ(PathOf(file), "stale");
    ForgetObjects();
    Remove(InShare("d/e/g"));
    Remove(InShare("d/e"));
    EXPECT_EQ(PathOf(uncached), "stale");
    EXPECT_EQ(PathOf(directory), "stale");
}

TEST_F(Handles, AreStaleWhenTheInodeNumberIsUsedAgain) {
    WriteFile(InShare("old"), "old");
    const nfs_fh3 handle = HandleAt("old");
    const ino_t inode = StatOf(InShare("old")).st_ino;
    ForgetEverything();
    Remove(InShare("old"));
    bool again = false;
    for (int i = 0; i < 200 && !again; ++i) {
        WriteFile(InShare("new" + std::to_string(i)), "new");
        again = StatOf(InShare("new" + std::to_string(i))).st_ino == inode;
    }
    Restart();
    EXPECT_EQ(PathOf(handle), "stale");
    if (!again) GTEST_SKIP() << "the file system did not use the inode number again";
}

TEST_F(Handles, WithAnyByteChangedAreRefused) {
    const nfs_fh3 good = HandleAt("f");
    for (uint32_t at = 0; at < good.nfh_len - 8; ++at) {
        for (const int bit : {0, 7}) {
            nfs_fh3 forged = good;
            forged.objectId[at] = static_cast<unsigned char>(forged.objectId[at] ^ 1 << bit);
            EXPECT_EQ(PathOf(forged), "stale") << "byte " << at;
        }
    }
    EXPECT_EQ(PathOf(good), InShare("f"));
}

TEST_F(Handles, OfAnyOtherLengthAreRefused) {
    const nfs_fh3 good = HandleAt("f");
    for (uint32_t length = 0; length <= 70; ++length) {
        if (length == good.nfh_len) continue;
        nfs_fh3 cut = good;
        cut.nfh_len = length;
        EXPECT_EQ(PathOf(cut), "stale") << "length " << length;
        (void)module_->GetHandleString(cut);
    }
}

TEST_F(Handles, OfAnotherModuleTypeOrShareAreRefused) {
    const ExportPtr second = MakeShare(ShareDirectory(), 78);
    const ExportPtr unlisted = MakeShare(ShareDirectory(), 79, true);
    Publish({share_, second, unlisted});
    nfs_fh3 handle = HandleAt("f");
    handle.shareId = 78;
    EXPECT_EQ(PathOf(handle), "stale");
    ExportPtr passed = second;
    EXPECT_FALSE(module_->GetBkEndProc(passed, handle));
    handle = HandleAt("f");
    handle.fsmType = kUnlistedModuleType;
    EXPECT_EQ(PathOf(handle), "stale");
    handle.shareId = 79;
    EXPECT_EQ(PathOf(handle), "stale");
    passed = unlisted;
    EXPECT_FALSE(MakeLocalModule(kUnlistedModuleType)->GetBkEndProc(passed, handle));
}

TEST_F(Handles, OfAnotherKeyAreRefused) {
    const nfs_fh3 handle = HandleAt("f");
    Remove(directory_ + "/handle.key");
    Restart();
    EXPECT_EQ(PathOf(handle), "stale");
    EXPECT_NE(PathOf(HandleAt("f")), "stale");
}

// RENAME and LINK resolve their second handle with the first one's share; the operations then
// answer EXDEV.
TEST_F(Handles, OfAnotherShareLeadToAnObjectThatAnswersExdev) {
    MakeDir(directory_ + "/second");
    WriteFile(directory_ + "/second/x", "x");
    const ExportPtr second = MakeShare(directory_ + "/second", 78);
    Publish({share_, second});
    nfs_fh3 root;
    second->AddMountPoint(Caller().clientAddress, &root);
    const BkEndProcPtr directory = Resolve(root);
    ASSERT_TRUE(directory);
    EXPECT_EQ(directory->GetPath(), directory_ + "/second");
    OxelCtxt ctxt = AsSelf(directory);
    struct stat st;
    EXPECT_EQ(directory->Stat(&ctxt, directory->GetPath(), &st), 0);
    EXPECT_FALSE(directory->FindChild(&ctxt, "x"));
    EXPECT_EQ(errno, EXDEV);
    EXPECT_EQ(directory->Chmod(&ctxt, "/", 0700), -1);
    EXPECT_EQ(errno, EXDEV);
    EXPECT_EQ(directory->OpenDir(&ctxt, "/"), nullptr);
    EXPECT_EQ(errno, EXDEV);
}

TEST_F(Handles, NameTheirShareOnlyWhenItExists) {
    const nfs_fh3 handle = HandleAt("f");
    ExportPtr found;
    EXPECT_TRUE(module_->GetExportForHandle(handle, found));
    EXPECT_EQ(found, share_);
    found.reset();
    nfs_fh3 other = handle;
    other.shareId = kShareId + 1;
    EXPECT_FALSE(module_->GetExportForHandle(other, found));
    EXPECT_FALSE(found);
    other = handle;
    other.fsmType = kUnlistedModuleType;
    EXPECT_FALSE(module_->GetExportForHandle(other, found));
    EXPECT_FALSE(MakeLocalModule(kUnlistedModuleType)->GetExportForHandle(handle, found));
}

TEST_F(Handles, ArePrintedWithTypeShareAndBytes) {
    nfs_fh3 handle{};
    handle.nfh_len = 11;
    handle.fsmType = 1;
    handle.shareId = 4000000000;
    handle.objectId[0] = 0x01;
    handle.objectId[1] = 0xab;
    handle.objectId[2] = 0xf0;
    EXPECT_EQ(module_->GetHandleString(handle), "1:4000000000:01abf0");
    EXPECT_EQ(module_->GetHandleString(HandleAt("f")).substr(0, 7), "1:77:01");
}

TEST_F(Handles, OfAFileMovedOutOfTheShareAreStale) {
    const nfs_fh3 file = HandleAt("f"), deep = HandleAt("d/e/g"), directory = HandleAt("d");
    Move(InShare("f"), Beside("f"));
    EXPECT_EQ(PathOf(file), "stale");
    ForgetObjects();
    EXPECT_EQ(PathOf(file), "stale");
    Move(Beside("f"), InShare("back"));
    // Where handles are inode numbers, a failed search is not repeated at once; a lookup helps.
    if (geteuid() != 0) {
        EXPECT_TRUE(Find("back"));
    }
    EXPECT_EQ(PathOf(file), InShare("back"));

    local::gPathBelievedMs = 0;
    EXPECT_NE(PathOf(deep), "stale");
    Move(InShare("d"), Beside("d"));
    EXPECT_EQ(PathOf(directory), "stale");
    EXPECT_EQ(PathOf(deep), "stale");
    ForgetObjects();
    EXPECT_EQ(PathOf(deep), "stale");
    local::gPathBelievedMs = 1000;
}

// The descriptor that the module holds stands for the removed name.
TEST_F(Handles, OfAFileWithTwoNamesOutliveOneOfThem) {
    ASSERT_EQ(link(InShare("f").c_str(), InShare("d/second").c_str()), 0);
    const nfs_fh3 handle = HandleAt("f");
    EXPECT_TRUE(Same(handle, HandleAt("d/second")));
    (void)HandleAt("f");
    const BkEndProcPtr held = Resolve(handle);
    Remove(InShare("f"));
    EXPECT_EQ(PathOf(handle), InShare("d/second"));
    EXPECT_EQ(PathOf(handle), InShare("d/second"));
    ForgetObjects();
    EXPECT_EQ(PathOf(handle), InShare("d/second"));
}

TEST_F(Handles, OfAFileWhoseOtherNameLiesOutsideLeadToTheNameInside) {
    ASSERT_EQ(link(InShare("f").c_str(), Beside("f").c_str()), 0);
    const nfs_fh3 handle = HandleAt("f");
    ForgetObjects();
    // The kernel may now know the file by the name outside.
    EXPECT_EQ(StatOf(Beside("f")).st_ino, StatOf(InShare("f")).st_ino);
    EXPECT_EQ(PathOf(handle), InShare("f"));
    Remove(InShare("f"));
    EXPECT_EQ(PathOf(handle), "stale");
    // A search that found nothing is not repeated for an unchanged file, but a change ends that.
    ASSERT_EQ(link(Beside("f").c_str(), InShare("again").c_str()), 0);
    if (geteuid() != 0) {
        EXPECT_TRUE(Find("again"));
    }
    EXPECT_EQ(PathOf(handle), InShare("again"));
}

// After the machine's memory was short, or after a reboot, the kernel opens a file by its handle
// without knowing where it lies.
TEST_F(Handles, OfAFileThatTheKernelHasForgottenAreFound) {
    SKIP_UNLESS_ROOT();
    const nfs_fh3 handle = HandleAt("d/e/g");
    const auto forget = [&] {
        const int fd = open("/proc/sys/vm/drop_caches", O_WRONLY | O_CLOEXEC);
        if (fd < 0) return false;
        const bool done = write(fd, "2", 1) == 1;
        close(fd);
        return done;
    };
    ForgetObjects();
    if (!forget()) GTEST_SKIP() << "the kernel's name cache cannot be emptied here";
    EXPECT_EQ(PathOf(handle), InShare("d/e/g"));  // through the place remembered
    Restart();
    ASSERT_TRUE(forget());
    EXPECT_EQ(PathOf(handle), InShare("d/e/g"));  // through a search
    Restart();
    Move(InShare("d/e/g"), Beside("g"));
    ASSERT_TRUE(forget());
    EXPECT_EQ(PathOf(handle), "stale");
}

TEST_F(Handles, StayGoodAcrossAReloadAndTheirObjectsStayCached) {
    const nfs_fh3 handle = HandleAt("f");
    const BkEndProcPtr before = Resolve(handle);
    ClientOptions options = options_;
    options.writable = false;
    SetOptions(options);
    EXPECT_EQ(Resolve(handle), before);
    OxelCtxt ctxt = AsSelf(before);
    EXPECT_EQ(before->Chmod(&ctxt, "/", 0600), -1);
    EXPECT_EQ(errno, EROFS);
}

TEST_F(Handles, AreStaleWhenTheShareGetsAnotherDirectory) {
    const nfs_fh3 handle = HandleAt("f");
    ASSERT_TRUE(Resolve(handle));
    MakeDir(directory_ + "/second");
    share_ = MakeShare(directory_ + "/second", kShareId);
    Publish({share_});
    EXPECT_EQ(PathOf(handle), "stale");
}

TEST_F(Handles, AreStaleWhenTheShareDirectoryIsRemoved) {
    MakeDir(directory_ + "/second");
    share_ = MakeShare(directory_ + "/second", kShareId);
    Publish({share_});
    const nfs_fh3 root = RootHandle();
    EXPECT_NE(PathOf(root), "stale");
    Remove(directory_ + "/second");
    EXPECT_EQ(PathOf(root), "stale");
}

TEST_F(Handles, FollowARenamedShareDirectory) {
    const nfs_fh3 handle = HandleAt("d/e/g");
    ForgetObjects();
    Move(ShareDirectory(), directory_ + "/renamed");
    // What clients see does not change.
    EXPECT_EQ(PathOf(handle), InShare("d/e/g"));
    Move(directory_ + "/renamed", ShareDirectory());
}

TEST_F(Handles, ShareWithoutDirectoryIsRefusedWithAReason) {
    ShareConfig config;
    config.path = "/none";
    config.directory = directory_ + "/none";
    config.id = 5;
    std::string error;
    EXPECT_FALSE(MakeLocalExport(config, &error));
    EXPECT_EQ(error,
              "cannot open the directory " + config.directory + ": No such file or directory");
    WriteFile(directory_ + "/file", "");
    config.directory = directory_ + "/file";
    EXPECT_FALSE(MakeLocalExport(config, &error));
    EXPECT_NE(error.find("Not a directory"), std::string::npos);
}

TEST_F(Handles, KeyIsMadeOnceAndPrivate) {
    const std::string file = directory_ + "/state/handle.key";
    std::string error;
    ASSERT_TRUE(InitializeHandleKey(file, &error)) << error;
    struct stat st = StatOf(file);
    EXPECT_EQ(st.st_size, 16);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    EXPECT_EQ(StatOf(directory_ + "/state").st_mode & 07777, 0700u);
    const nfs_fh3 handle = RootHandle();
    ASSERT_TRUE(InitializeHandleKey(file, &error)) << error;
    EXPECT_EQ(StatOf(file).st_ino, st.st_ino);
    (void)handle;
}

TEST_F(Handles, KeyOfAnotherSizeIsAnError) {
    const std::string file = directory_ + "/bad.key";
    std::string error;
    for (const char* text : {"", "short", "seventeen bytes.."}) {
        WriteFile(file, text, 0600);
        EXPECT_FALSE(InitializeHandleKey(file, &error));
        EXPECT_NE(error.find(file), std::string::npos);
        EXPECT_NE(error.find("16 bytes"), std::string::npos);
        EXPECT_EQ(StatOf(file).st_size, static_cast<off_t>(strlen(text)));
    }
}

TEST_F(Handles, KindFitsTheRightsOfTheProcess) {
    const nfs_fh3 handle = HandleAt("f");
    const auto kind = static_cast<local::HandleKind>(handle.objectId[1]);
    if (geteuid() != 0) {
        EXPECT_EQ(kind, local::HandleKind::kInode);
        EXPECT_NE(DescribeLocalModule().find("Not started with root's rights"), std::string::npos);
    } else {
        EXPECT_EQ(kind, local::HandleKind::kKernel);
        EXPECT_NE(DescribeLocalModule().find("the rights of each caller"), std::string::npos);
    }
}

}  // namespace
}  // namespace oxel::testing
