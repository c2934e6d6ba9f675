// SPDX-License-Identifier: Apache-2.0
//
// Handles made of inode numbers: what is known of where objects lie outlives the process, and the
// share is searched only for what nobody could know.
#include "modules/local/inode_map.h"

#include <lmdb.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "modules/local/handle_codec.h"
#include "modules/local/local_export.h"
#include "modules/local/object.h"
#include "modules/local/object_cache.h"
#include "tests/local/change_fixture.h"
#include "tests/support/log_capture.h"

namespace oxel::testing {
namespace {

class InodeMapTest : public ChangeTest {
  protected:
    void SetUp() override {
        ChangeTest::SetUp();
        MakeDir(InShare("d"));
        MakeDir(InShare("d/e"));
        MakeDir(InShare("other"));
        WriteFile(InShare("d/e/g"), "contents of g");
        if (RootHandle().objectId[1] != static_cast<unsigned char>(local::HandleKind::kInode)) {
            GTEST_SKIP() << "the kernel's handles are used here; an ordinary user has none";
        }
    }
    void TearDown() override {
        local::gPathBelievedMs = 1000;
        ChangeTest::TearDown();
    }
    std::string PathOf(const nfs_fh3& handle) {
        const BkEndProcPtr object = Resolve(handle);
        return object ? object->GetPath() : "stale";
    }
    std::string ContentsOf(const nfs_fh3& handle) {
        const BkEndProcPtr object = Resolve(handle);
        if (!object) return "stale";
        OxelCtxt ctxt = AsSelf(object);
        return ReadAll(*object, ctxt);
    }
    bool Remembered(ino_t inode) {
        local::InodePlace place;
        return dynamic_cast<local::LocalExport&>(*share_).Root().Places().Find(inode, &place);
    }
    static size_t Searches(const test::LogCapture& log) {
        size_t count = 0;
        for (const test::LogLine& line : log.AtLevel(2)) {
            count += line.text.rfind("Searching share", 0) == 0;
        }
        return count;
    }
    std::string Store() const { return directory_ + "/inodes"; }
    // The number of the last transaction; the store must not be open.
    uint64_t LastTransaction() const {
        MDB_env* environment = nullptr;
        MDB_envinfo info = {};
        EXPECT_EQ(mdb_env_create(&environment), 0);
        EXPECT_EQ(mdb_env_open(environment, Store().c_str(), MDB_RDONLY | MDB_NOLOCK, 0600), 0);
        EXPECT_EQ(mdb_env_info(environment, &info), 0);
        mdb_env_close(environment);
        return info.me_last_txnid;
    }
};

TEST_F(InodeMapTest, NothingIsSearchedAfterARestart) {
    const nfs_fh3 file = HandleAt("d/e/g"), directory = HandleAt("d/e");
    test::LogCapture log;
    Restart();
    EXPECT_EQ(PathOf(file), InShare("d/e/g"));
    EXPECT_EQ(PathOf(directory), InShare("d/e"));
    EXPECT_EQ(ContentsOf(file), "contents of g");
    EXPECT_EQ(Searches(log), 0u) << log.Dump();
}

TEST_F(InodeMapTest, NothingIsSearchedAfterRenamesThroughTheDaemon) {
    const nfs_fh3 file = HandleAt("d/e/g"), directory = HandleAt("d/e");
    test::LogCapture log;
    ASSERT_EQ(Rename("d/e", "g", "other", "h"), 0);
    ASSERT_EQ(Rename("d", "e", "other", "moved"), 0);
    Restart();
    EXPECT_EQ(PathOf(file), InShare("other/h"));
    EXPECT_EQ(PathOf(directory), InShare("other/moved"));
    EXPECT_EQ(Searches(log), 0u) << log.Dump();
}

TEST_F(InodeMapTest, NothingIsSearchedAfterARenameOfADirectoryAbove) {
    const nfs_fh3 file = HandleAt("d/e/g");
    test::LogCapture log;
    ASSERT_EQ(Rename("", "d", "other", "d2"), 0);
    Restart();
    EXPECT_EQ(PathOf(file), InShare("other/d2/e/g"));
    EXPECT_EQ(Searches(log), 0u) << log.Dump();
}

TEST_F(InodeMapTest, NothingIsSearchedForWhatClientsMade) {
    ASSERT_EQ(MakeDirectory("d", "made"), 0);
    ASSERT_EQ(Create("d/made", "file"), 0);
    const nfs_fh3 file = HandleOf(made_);
    test::LogCapture log;
    Restart();
    EXPECT_EQ(PathOf(file), InShare("d/made/file"));
    EXPECT_EQ(Searches(log), 0u) << log.Dump();
}

TEST_F(InodeMapTest, ARenameBehindTheBackThatWasNoticedIsRemembered) {
    local::gPathBelievedMs = 0;
    const nfs_fh3 file = HandleAt("d/e/g");
    MakeDir(InShare("fresh"));
    Move(InShare("d/e"), InShare("fresh/e"));
    Move(InShare("fresh/e/g"), InShare("fresh/e/h"));
    test::LogCapture log;
    EXPECT_EQ(PathOf(file), InShare("fresh/e/h"));
    Restart();
    EXPECT_EQ(PathOf(file), InShare("fresh/e/h"));
    EXPECT_EQ(Searches(log), 0u) << log.Dump();
}

TEST_F(InodeMapTest, RenamesDuringDowntimeCostOneSearch) {
    const nfs_fh3 file = HandleAt("d/e/g"), directory = HandleAt("d/e");
    ForgetEverything();
    Move(InShare("d/e"), InShare("moved"));
    Move(InShare("moved/g"), InShare("moved/h"));
    test::LogCapture log;
    Restart();
    EXPECT_EQ(PathOf(file), InShare("moved/h"));
    EXPECT_EQ(PathOf(directory), InShare("moved"));
    EXPECT_EQ(Searches(log), 1u) << log.Dump();
    Restart();
    EXPECT_EQ(PathOf(file), InShare("moved/h"));
    EXPECT_EQ(PathOf(directory), InShare("moved"));
    EXPECT_EQ(Searches(log), 1u) << log.Dump();
}

TEST_F(InodeMapTest, AnInodeNumberUsedAgainIsStaleWithoutASearch) {
    WriteFile(InShare("old"), "old");
    const nfs_fh3 handle = HandleAt("old");
    const ino_t inode = StatOf(InShare("old")).st_ino;
    ForgetEverything();
    Remove(InShare("old"));
    bool again = false;
    for (int i = 0; i < 200 && !again; ++i) {
        const std::string name = InShare("n" + std::to_string(i));
        WriteFile(name, "new");
        again = StatOf(name).st_ino == inode;
        if (again) Move(name, InShare("old"));
    }
    Restart();
    if (!again) GTEST_SKIP() << "the file system did not use the inode number again";
    test::LogCapture log;
    EXPECT_EQ(PathOf(handle), "stale");
    EXPECT_EQ(Searches(log), 0u) << log.Dump();
    const nfs_fh3 now = HandleAt("old");
    EXPECT_EQ(PathOf(handle), "stale");
    Restart();
    EXPECT_EQ(ContentsOf(now), "new");
    EXPECT_EQ(PathOf(handle), "stale");
}

TEST_F(InodeMapTest, AFileIsReachedByTheNameThatIsLeft) {
    const nfs_fh3 handle = HandleAt("d/e/g");
    ASSERT_EQ(Link("d/e/g", "other", "second"), 0);
    ASSERT_EQ(Unlink("d/e", "g"), 0);
    EXPECT_EQ(PathOf(handle), InShare("other/second"));
    Restart();
    EXPECT_EQ(PathOf(handle), InShare("other/second"));
    // Removed behind the back of the daemon, with a third name made.
    ForgetEverything();
    ASSERT_EQ(link(InShare("other/second").c_str(), InShare("d/third").c_str()), 0);
    Remove(InShare("other/second"));
    Restart();
    EXPECT_EQ(ContentsOf(handle), "contents of g");
    EXPECT_EQ(PathOf(handle), InShare("d/third"));
}

TEST_F(InodeMapTest, WhatIsGoneIsForgotten) {
    const ino_t removed = StatOf(InShare("d/e/g")).st_ino;
    const nfs_fh3 file = HandleAt("d/e/g");
    EXPECT_TRUE(Remembered(removed));
    ASSERT_EQ(Unlink("d/e", "g"), 0);
    EXPECT_FALSE(Remembered(removed));
    EXPECT_EQ(PathOf(file), "stale");

    const ino_t cached = StatOf(InShare("d/e")).st_ino;
    const nfs_fh3 directory = HandleAt("d/e");
    Remove(InShare("d/e"));
    EXPECT_EQ(PathOf(directory), "stale");
    EXPECT_FALSE(Remembered(cached));

    const ino_t unseen = StatOf(InShare("d")).st_ino;
    const nfs_fh3 above = HandleAt("d");
    ForgetEverything();
    Remove(InShare("d"));
    Restart();
    EXPECT_TRUE(Remembered(unseen));
    EXPECT_EQ(PathOf(above), "stale");
    EXPECT_FALSE(Remembered(unseen));
}

TEST_F(InodeMapTest, ADamagedStoreCostsOneSearch) {
    const nfs_fh3 file = HandleAt("d/e/g"), directory = HandleAt("d/e");
    ForgetEverything();
    WriteFile(Store() + "/data.mdb", std::string(100000, 'x'), 0600);
    test::LogCapture log;
    Restart();
    EXPECT_EQ(PathOf(file), InShare("d/e/g"));
    EXPECT_EQ(PathOf(directory), InShare("d/e"));
    EXPECT_EQ(Searches(log), 1u) << log.Dump();
    ASSERT_EQ(log.AtLevel(-1).size(), 1u) << log.Dump();
    Restart();
    EXPECT_EQ(PathOf(file), InShare("d/e/g"));
    EXPECT_EQ(Searches(log), 1u) << log.Dump();
}

TEST_F(InodeMapTest, WithoutAPlaceForTheStoreTheShareIsServed) {
    WriteFile(directory_ + "/plain", "");
    ForgetEverything();
    KeepPlacesIn(directory_ + "/plain/inodes");
    test::LogCapture log;
    share_ = MakeShare(ShareDirectory(), kShareId);
    module_ = MakeLocalModule(kLocalModuleType);
    Publish({share_});
    const nfs_fh3 file = HandleAt("d/e/g");
    local::ObjectCache::Instance().Clear();
    EXPECT_EQ(PathOf(file), InShare("d/e/g"));
    EXPECT_EQ(Searches(log), 0u) << log.Dump();
    EXPECT_EQ(log.AtLevel(-1).size(), 1u) << log.Dump();
}

TEST_F(InodeMapTest, AListingIsWrittenAsOne) {
    constexpr int kNames = 900;
    MakeDir(InShare("many"));
    for (int i = 0; i < kNames; ++i) WriteFile(InShare("many/" + std::to_string(i)), "");
    (void)HandleAt("many");
    std::vector<nfs_fh3> handles;
    const auto list = [&] {
        const BkEndProcPtr directory = Find("many");
        OxelCtxt ctxt = AsSelf(directory);
        DirStream* stream = directory->OpenDir(&ctxt, directory->GetPath());
        ASSERT_NE(stream, nullptr);
        while (const struct dirent* entry = directory->ReadDir(&ctxt, stream)) {
            const std::string name = entry->d_name;
            if (name == "." || name == "..") continue;
            const BkEndProcPtr child = directory->FindChild(&ctxt, name);
            ASSERT_TRUE(child) << name;
            handles.push_back(HandleOf(child));
        }
        directory->CloseDir(&ctxt, stream);
    };
    ForgetEverything();
    const uint64_t before = LastTransaction();
    Restart();
    list();
    ASSERT_EQ(handles.size(), size_t{kNames});
    ForgetEverything();
    const uint64_t after = LastTransaction();
    EXPECT_EQ(after - before, 1u);
    Restart();
    test::LogCapture log;
    for (const nfs_fh3& handle : handles) ASSERT_NE(PathOf(handle), "stale");
    EXPECT_EQ(Searches(log), 0u);
    // What is known is not written again.
    list();
    ForgetEverything();
    EXPECT_EQ(LastTransaction(), after);
}

TEST_F(InodeMapTest, ASecondShareOfTheDirectoryHasPlacesOfItsOwn) {
    const ExportPtr second = MakeShare(ShareDirectory(), 78);
    ASSERT_TRUE(second);
    Publish({share_, second});
    const nfs_fh3 file = HandleAt("d/e/g");
    EXPECT_TRUE(Remembered(StatOf(InShare("d/e/g")).st_ino));
    local::InodePlace place;
    EXPECT_FALSE(dynamic_cast<local::LocalExport&>(*second).Root().Places().Find(
        StatOf(InShare("d/e/g")).st_ino, &place));
    EXPECT_EQ(PathOf(file), InShare("d/e/g"));
}

TEST_F(InodeMapTest, AReloadGoesOnWithTheSameStore) {
    const nfs_fh3 file = HandleAt("d/e/g");
    test::LogCapture log;
    ClientOptions options = options_;
    options.secure = true;
    SetOptions(options);
    SetOptions(options_);
    local::ObjectCache::Instance().Clear();
    EXPECT_EQ(PathOf(file), InShare("d/e/g"));
    EXPECT_EQ(Searches(log), 0u) << log.Dump();
    EXPECT_EQ(log.AtLevel(-1).size(), 0u) << log.Dump();
}

// Every handle leads to its own file or is refused, whatever happens to the names meanwhile.
TEST_F(InodeMapTest, ThreadsThatRenameAndResolveNeverGetAnotherFile) {
    constexpr int kFiles = 8;
    std::vector<nfs_fh3> handles;
    for (int i = 0; i < kFiles; ++i) {
        WriteFile(InShare("d/" + std::to_string(i)), "file " + std::to_string(i));
        handles.push_back(HandleAt("d/" + std::to_string(i)));
    }
    std::atomic<bool> done{false};
    std::atomic<int> wrong{0};
    IdInfo id = Caller();
    id.uid = geteuid();
    id.gid = getegid();
    std::vector<std::thread> readers;
    for (int thread = 0; thread < 3; ++thread) {
        readers.emplace_back([&, thread] {
            for (int i = thread; !done || i < 200; ++i) {
                const size_t which = static_cast<size_t>(i) % kFiles;
                ExportPtr share = share_;
                const BkEndProcPtr object = module_->GetBkEndProc(share, handles[which]);
                if (!object) continue;
                OxelCtxt ctxt(id, share, object);
                if (ReadAll(*object, ctxt) != "file " + std::to_string(which)) ++wrong;
                if (i % 5 == 0) local::ObjectCache::Instance().Clear();
            }
        });
    }
    for (int round = 0; round < 60; ++round) {
        const std::string name = std::to_string(round % kFiles);
        const bool away = round / kFiles % 2 == 0;
        EXPECT_EQ(Rename(away ? "d" : "other", name, away ? "other" : "d", name), 0);
    }
    done = true;
    for (std::thread& reader : readers) reader.join();
    EXPECT_EQ(wrong, 0);
    test::LogCapture log;
    Restart();
    for (int i = 0; i < kFiles; ++i) {
        EXPECT_EQ(ContentsOf(handles[static_cast<size_t>(i)]), "file " + std::to_string(i));
    }
    EXPECT_EQ(Searches(log), 0u) << log.Dump();
}

}  // namespace
}  // namespace oxel::testing
