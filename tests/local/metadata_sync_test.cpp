// SPDX-License-Identifier: Apache-2.0
//
// Names and attributes are on the disk before the call that changed them returns.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>
#include <set>

#include "modules/local/disk_calls.h"
#include "modules/local/write_errors.h"
#include "tests/local/change_fixture.h"

namespace oxel::testing {
namespace {

// A disk that notes which inodes are synced, and fails once when it is told to.
struct RecordingDisk {
    std::mutex mutex;
    std::multiset<ino_t> synced;
    int wholeSyncs = 0;
    ino_t failing = 0;  // the inode whose next sync fails, with `error`
    int error = 0;
} disk;

int SyncFile(int fd) {
    struct stat st;
    if (fstat(fd, &st) != 0) return -1;
    std::lock_guard<std::mutex> lock(disk.mutex);
    disk.synced.insert(st.st_ino);
    if (disk.failing != st.st_ino) return 0;
    disk.failing = 0;
    errno = disk.error;
    return -1;
}

int SyncFileSystem(int) {
    std::lock_guard<std::mutex> lock(disk.mutex);
    ++disk.wholeSyncs;
    return 0;
}

const local::DiskCalls kRecordingDisk = {local::kRealDisk.write, SyncFile, fdatasync,
                                         SyncFileSystem, local::kRealDisk.takeError};

class MetadataSync : public ChangeTest {
  protected:
    void SetUp() override {
        ChangeTest::SetUp();
        MakeDir(InShare("a"), 0777);
        MakeDir(InShare("b"), 0777);
        WriteFile(InShare("a/f"), "text", 0666);
        disk.failing = 0;
        disk.synced.clear();
        disk.wholeSyncs = 0;
        local::gDisk = &kRecordingDisk;
    }
    ino_t Inode(const std::string& name) { return StatOf(InShare(name)).st_ino; }
    // Exactly these have been synced since the last question.
    void Expect(const std::multiset<ino_t>& inodes) {
        EXPECT_EQ(disk.synced, inodes);
        EXPECT_EQ(disk.wholeSyncs, 0);
        disk.synced.clear();
        disk.wholeSyncs = 0;
    }
    void FailSyncOf(const std::string& name, int error) {
        disk.failing = Inode(name);
        disk.error = error;
    }
    template <typename Call>
    int On(const std::string& name, Call call) {
        const BkEndProcPtr object = Find(name);
        OxelCtxt ctxt = Context(object);
        const int error = ErrnoOf([&] { return call(*object, &ctxt); });
        RestoreOwnRights();
        return error;
    }
};

TEST_F(MetadataSync, NewFilesAndTheirDirectoryAreSynced) {
    int n = 0;
    for (const int flags : {0x442, 0x40, 0xC0}) {
        const std::string name = "new" + std::to_string(n++);
        EXPECT_EQ(Create("a", name, flags), 0);
        Expect({Inode("a"), Inode("a/" + name)});
    }
    EXPECT_EQ(Create("a", "f", 0x442), 0);  // it was there
    Expect({});
    EXPECT_EQ(Create("a", "f", 0x442 | O_TRUNC), 0);
    Expect({Inode("a/f")});
}

TEST_F(MetadataSync, NewDirectoriesAndLinksAreSynced) {
    EXPECT_EQ(MakeDirectory("a", "d"), 0);
    Expect({Inode("a"), Inode("a/d")});
    EXPECT_EQ(Symlink("a", "l", "f"), 0);
    Expect({Inode("a")});
    EXPECT_EQ(Link("a/f", "b", "hard"), 0);
    Expect({Inode("b"), Inode("b/hard")});
}

TEST_F(MetadataSync, TheDirectoryOfARemovedNameIsSynced) {
    EXPECT_EQ(MakeDirectory("a", "d"), 0);
    disk.synced.clear();
    EXPECT_EQ(Unlink("a", "f"), 0);
    Expect({Inode("a")});
    EXPECT_EQ(RemoveDirectory("a", "d"), 0);
    Expect({Inode("a")});
}

TEST_F(MetadataSync, BothDirectoriesOfARenameAreSynced) {
    EXPECT_EQ(Rename("a", "f", "a", "g"), 0);
    Expect({Inode("a")});
    EXPECT_EQ(Rename("a", "g", "b", "g"), 0);
    Expect({Inode("a"), Inode("b")});
}

TEST_F(MetadataSync, ChangedAttributesAreSynced) {
    const auto truncate = [](uint64_t size) {
        return [size](BkEndProc& o, OxelCtxt* c) { return o.Truncate(c, "/", size); };
    };
    const auto chmod = [](mode_t mode) {
        return [mode](BkEndProc& o, OxelCtxt* c) { return o.Chmod(c, "/", mode); };
    };
    const auto setTimes = [](BkEndProc& o, OxelCtxt* c) {
        return o.SetTimes(c, "/", timeval{1, 0}, timeval{2, 0});
    };
    EXPECT_EQ(On("a/f", truncate(2)), 0);
    Expect({Inode("a/f")});
    EXPECT_EQ(On("a/f", chmod(0)), 0);
    EXPECT_EQ(disk.synced.size() + static_cast<size_t>(disk.wholeSyncs), 1u);
    disk.synced.clear();
    disk.wholeSyncs = 0;
    EXPECT_EQ(On("a/f", chmod(0600)), 0);
    Expect({Inode("a/f")});
    EXPECT_EQ(On("a/f", setTimes), 0);
    Expect({Inode("a/f")});
    for (const auto& call : {chmod(0711), chmod(0755)}) {
        EXPECT_EQ(On("a", call), 0);
        Expect({Inode("a")});
    }
    EXPECT_EQ(On("a", setTimes), 0);
    Expect({Inode("a")});
    if (geteuid() != 0) return;
    for (const char* name : {"a", "a/f"}) {
        EXPECT_EQ(On(name, [](BkEndProc& o, OxelCtxt* c) { return o.Chown(c, "/", 41000, 0); }), 0);
        Expect({Inode(name)});
    }
}

TEST_F(MetadataSync, WhatWasTheSameBeforeIsNotSyncedAgain) {
    EXPECT_EQ(On("a/f", [](BkEndProc& o, OxelCtxt* c) { return o.Chmod(c, "/", 0666); }), 0);
    EXPECT_EQ(
        On("a/f", [](BkEndProc& o, OxelCtxt* c) { return o.Chown(c, "/", geteuid(), getegid()); }),
        0);
    Expect({});
}

TEST_F(MetadataSync, WhatCannotBeOpenedIsSyncedWithItsFileSystem) {
    ASSERT_EQ(symlink("f", InShare("a/l").c_str()), 0);
    EXPECT_EQ(On("a/l",
                 [](BkEndProc& o, OxelCtxt* c) {
                     return o.SetTimes(c, "/", timeval{1, 0}, timeval{2, 0});
                 }),
              0);
    EXPECT_EQ(disk.wholeSyncs, 1);
    EXPECT_TRUE(disk.synced.empty());
}

TEST_F(MetadataSync, ADirectoryThatItsWriterMayNotReadIsSynced) {
    SKIP_UNLESS_ROOT();
    ASSERT_EQ(chmod(InShare("a").c_str(), 0733), 0);
    ActAs(41000, 42000);
    EXPECT_EQ(Create("a", "new"), 0);
    Expect({Inode("a"), Inode("a/new")});
}

TEST_F(MetadataSync, AnErrorIsTheCallsErrorAndTheChangeIsSeen) {
    for (const int error : {EIO, ENOSPC}) {
        FailSyncOf("a", error);
        EXPECT_EQ(Create("a", "new"), error);
        EXPECT_TRUE(Exists(InShare("a/new")));
        FailSyncOf("a", error);
        EXPECT_EQ(MakeDirectory("a", "d"), error);
        EXPECT_TRUE(Exists(InShare("a/d")));
        FailSyncOf("a", error);
        EXPECT_EQ(Symlink("a", "l", "f"), error);
        FailSyncOf("a", error);
        EXPECT_EQ(Link("a/f", "a", "hard"), error);
        FailSyncOf("a/f", error);
        EXPECT_EQ(Link("a/f", "a", "hard2"), error);
        FailSyncOf("a", error);
        EXPECT_EQ(Rename("a", "new", "b", "new"), error);
        FailSyncOf("b", error);
        EXPECT_EQ(Rename("b", "new", "a", "new"), error);
        FailSyncOf("a/f", error);
        EXPECT_EQ(On("a/f", [](BkEndProc& o, OxelCtxt* c) { return o.Truncate(c, "/", 2); }),
                  error);
        for (const char* name : {"new", "l", "hard", "hard2"}) {
            FailSyncOf("a", error);
            EXPECT_EQ(Unlink("a", name), error);
            EXPECT_FALSE(Exists(InShare(std::string("a/") + name)));
        }
        FailSyncOf("a", error);
        EXPECT_EQ(RemoveDirectory("a", "d"), error);
        EXPECT_FALSE(Exists(InShare("a/d")));
    }
    made_.reset();
}

// The file's data may be what could not be written.
TEST_F(MetadataSync, AnErrorIsAlsoToldToWhoHasUncommittedData) {
    ComeFrom("192.0.2.1");
    EXPECT_EQ(WriteTo("a/f", "x"), 0);
    FailSyncOf("a/f", EIO);
    EXPECT_EQ(On("a/f", [](BkEndProc& o, OxelCtxt* c) { return o.Truncate(c, "/", 2); }), EIO);
    EXPECT_EQ(Commit("a/f"), EIO);
    EXPECT_EQ(Commit("a/f"), 0);
    EXPECT_EQ(local::DelayedWrites::Instance().Count(), 0u);
}

}  // namespace
}  // namespace oxel::testing
