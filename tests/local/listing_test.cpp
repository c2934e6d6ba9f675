// SPDX-License-Identifier: Apache-2.0
//
// What is remembered of names and handles so that a name need not be opened, and that it never
// stands in for another object.
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <map>

#include "modules/local/local_export.h"
#include "modules/local/object.h"
#include "modules/local/object_cache.h"
#include "tests/local/fixture.h"

namespace oxel::testing {
namespace {

bool Same(const nfs_fh3& a, const nfs_fh3& b) {
    return memcmp(&a, &b, sizeof a) == 0;
}

class Listing : public LocalTest {
  protected:
    void SetUp() override {
        LocalTest::SetUp();
        local::gBirthSettledSeconds = -60;  // the files of a test are young
        MakeDir(InShare("d"));
        for (int i = 0; i < 20; ++i) WriteFile(Name(i), "contents " + std::to_string(i));
    }
    void TearDown() override {
        local::gBirthSettledSeconds = 4;
        LocalTest::TearDown();
    }
    std::string Name(int i) const { return InShare("d/name" + std::to_string(i)); }
    local::ShareRoot& Root() { return dynamic_cast<local::LocalExport&>(*share_).Root(); }

    // Every entry but "." and ".." as READDIRPLUS finds it; null for one that is not found.
    // `between` runs after an entry has been read, before its name is looked for.
    std::map<std::string, BkEndProcPtr> List(
        const std::function<void(const std::string&)>& between = nullptr, uid_t uid = geteuid()) {
        std::map<std::string, BkEndProcPtr> listed;
        const BkEndProcPtr directory = Find("d");
        OxelCtxt ctxt = As(uid, uid, directory);
        DirStream* stream = directory->OpenDir(&ctxt, directory->GetPath());
        EXPECT_NE(stream, nullptr);
        if (stream == nullptr) return listed;
        while (const struct dirent* entry = directory->ReadDir(&ctxt, stream)) {
            const std::string name = entry->d_name;
            if (name == "." || name == "..") continue;
            if (between) between(name);
            listed[name] = directory->FindChild(&ctxt, name);
            why_[name] = errno;
        }
        directory->CloseDir(&ctxt, stream);
        RestoreOwnRights();
        return listed;
    }
    struct stat StatBy(const BkEndProcPtr& object) {
        struct stat st = {};
        OxelCtxt ctxt = AsSelf(object);
        EXPECT_EQ(object->Stat(&ctxt, object->GetPath(), &st), 0);
        return st;
    }
    // A second listing, which finds the handles that the first has made.
    std::map<std::string, BkEndProcPtr> ListKnown() {
        (void)List();
        return List();
    }
    bool Knows(const std::string& path) {
        local::InodeId known;
        bool placed;
        return Root().Places().FindId(StatOf(path).st_ino, "", "", &known, &placed);
    }

    std::map<std::string, int> why_;
};

TEST_F(Listing, EntriesHaveHandlePathAndAttributesOfALookup) {
    MakeDir(InShare("d/directory"));
    ASSERT_EQ(symlink("nowhere", InShare("d/link").c_str()), 0);
    for (int round = 0; round < 3; ++round) {
        const auto listed = List();
        EXPECT_EQ(listed.size(), 22u);
        for (const auto& [name, object] : listed) {
            ASSERT_TRUE(object) << name;
            EXPECT_TRUE(Same(HandleOf(object), HandleAt("d/" + name))) << name;
            EXPECT_EQ(object->GetPath(), InShare("d/" + name));
            const struct stat st = StatBy(object), real = StatOf(InShare("d/" + name));
            EXPECT_EQ(st.st_ino, real.st_ino);
            EXPECT_EQ(st.st_mode, real.st_mode);
            EXPECT_EQ(st.st_size, real.st_size);
            EXPECT_EQ(st.st_mtim.tv_nsec, real.st_mtim.tv_nsec);
        }
    }
}

TEST_F(Listing, OpensNoDescriptorForAKnownEntry) {
    SKIP_UNLESS_ROOT();
    (void)List();
    const int before = CountDescriptors();
    const auto listed = List();
    EXPECT_EQ(listed.size(), 20u);
    EXPECT_LE(CountDescriptors(), before);
}

TEST_F(Listing, DoesNotPushOutTheObjectsThatClientsWorkWith) {
    SKIP_UNLESS_ROOT();
    (void)Find("d");
    const size_t before = local::ObjectCache::Instance().Count();
    (void)ListKnown();
    EXPECT_EQ(local::ObjectCache::Instance().Count(), before);
}

TEST_F(Listing, AnEntryIsOpenedWhenMoreIsAskedOfIt) {
    const auto listed = ListKnown();
    const BkEndProcPtr object = listed.at("name7");
    Move(Name(7), InShare("elsewhere"));
    OxelCtxt ctxt = AsSelf(object);
    EXPECT_EQ(ReadAll(*object, ctxt), "contents 7");
    struct stat st;
    EXPECT_EQ(object->Stat(&ctxt, "/", &st), 0);
}

TEST_F(Listing, OpeningAnEntryLeavesTheCallersRights) {
    SKIP_UNLESS_ROOT();
    ASSERT_EQ(chmod(Name(7).c_str(), 0600), 0);
    const auto listed = ListKnown();
    OxelCtxt ctxt = As(1000, 1000, listed.at("name7"));
    EXPECT_NE(listed.at("name7")->Access(&ctxt, Name(7), R_OK), 0);
    EXPECT_EQ(errno, EACCES);
    RestoreOwnRights();
}

TEST_F(Listing, AnEntryThatIsGoneCannotBeOpenedAnyMore) {
    const auto listed = ListKnown();
    Remove(Name(3));
    WriteFile(Name(3), "another file");
    const BkEndProcPtr object = listed.at("name3");
    OxelCtxt ctxt = AsSelf(object);
    const std::string read = ReadAll(*object, ctxt);
    EXPECT_NE(read, "another file");
}

TEST_F(Listing, SeesRemovalAndReplacementBehindItsBack) {
    (void)ListKnown();
    const nfs_fh3 old = HandleAt("d/name5");
    WriteFile(InShare("other"), "the other");
    const nfs_fh3 other = HandleAt("other");
    const auto listed = List([&](const std::string& name) {
        if (name == "name4") Remove(Name(4));
        if (name == "name5") Move(InShare("other"), Name(5));
    });
    EXPECT_FALSE(listed.at("name4"));
    EXPECT_EQ(why_["name4"], ENOENT);
    ASSERT_TRUE(listed.at("name5"));
    EXPECT_FALSE(Same(HandleOf(listed.at("name5")), old));
    EXPECT_TRUE(Same(HandleOf(listed.at("name5")), other));
}

// As after the inode number has been used again: what is remembered is another object's handle.
TEST_F(Listing, AnotherBirthTimeIsAnotherObject) {
    SKIP_UNLESS_ROOT();
    (void)List();
    const uint64_t inode = StatOf(Name(2)).st_ino;
    const nfs_fh3 right = HandleAt("d/name2");
    local::InodeId known;
    bool placed;
    ASSERT_TRUE(Root().Places().FindId(inode, "", "", &known, &placed));
    local::InodeId wrong;
    ASSERT_TRUE(Root().Places().FindId(StatOf(Name(1)).st_ino, "", "", &wrong, &placed));
    wrong.birthSeconds = known.birthSeconds - 1;
    wrong.birthNanoseconds = known.birthNanoseconds;
    Root().Places().PutId(inode, wrong);
    EXPECT_TRUE(Same(HandleOf(List().at("name2")), right));
    // And it is known anew.
    ASSERT_TRUE(Root().Places().FindId(inode, "", "", &known, &placed));
    EXPECT_FALSE(known.id == wrong.id);
}

// Two objects can follow each other under one inode number within a tick of the clock that birth
// times are taken from.
TEST_F(Listing, AYoungObjectIsNotRemembered) {
    SKIP_UNLESS_ROOT();
    (void)List();
    EXPECT_TRUE(Knows(Name(0)));
    local::gBirthSettledSeconds = 1000;
    WriteFile(InShare("d/young"), "");
    const auto listed = List();
    EXPECT_TRUE(listed.at("young"));
    EXPECT_FALSE(Knows(InShare("d/young")));
}

TEST_F(Listing, ARemovedNameIsForgotten) {
    SKIP_UNLESS_ROOT();
    (void)List();
    const uint64_t inode = StatOf(Name(9)).st_ino;
    const BkEndProcPtr directory = Find("d"), object = Find("d/name9");
    OxelCtxt ctxt = AsSelf(object);
    ctxt.secondObject = directory;
    ASSERT_EQ(object->Unlink(&ctxt, Name(9)), 0);
    local::InodeId known;
    bool placed;
    EXPECT_FALSE(Root().Places().FindId(inode, "", "", &known, &placed));
}

TEST_F(Listing, NeedsTheRightToSearchForKnownEntriesToo) {
    SKIP_UNLESS_ROOT();
    (void)ListKnown();
    ASSERT_EQ(chmod(InShare("d").c_str(), 0744), 0);
    const auto listed = List(nullptr, 1000);
    ASSERT_EQ(listed.size(), 20u);
    for (const auto& [name, object] : listed) {
        EXPECT_FALSE(object) << name;
        EXPECT_EQ(why_[name], EACCES);
    }
}

TEST_F(Listing, DoesNotEnterWhatIsMountedOnAKnownEntry) {
    SKIP_UNLESS_ROOT();
    MakeDir(InShare("d/mnt"));
    WriteFile(Beside("secret"), "secret");
    InChild([&] {
        if (unshare(CLONE_NEWNS) != 0 || mount("", "/", nullptr, MS_REC | MS_PRIVATE, "") != 0) {
            return;
        }
        Restart();  // the share is reached through this name space's mounts
        ASSERT_TRUE(ListKnown().at("mnt"));
        ASSERT_TRUE(Find("d/mnt"));
        // Of this very file system, so that the device number does not tell.
        ASSERT_EQ(mount(Beside("").c_str(), InShare("d/mnt").c_str(), nullptr, MS_BIND, ""), 0);
        EXPECT_FALSE(List().at("mnt"));
        EXPECT_EQ(why_["mnt"], EXDEV);
        EXPECT_FALSE(Find("d/mnt"));
        EXPECT_EQ(errno, EXDEV);
        ASSERT_EQ(mount(Beside("secret").c_str(), Name(6).c_str(), nullptr, MS_BIND, ""), 0);
        EXPECT_FALSE(List().at("name6"));
        EXPECT_EQ(why_["name6"], EXDEV);
    });
}

// ---- Names that lead to objects which are open already ----

TEST_F(Listing, ASecondNameOfACachedObjectHasItsOwnPath) {
    const nfs_fh3 handle = HandleAt("d/name1");
    ASSERT_EQ(link(Name(1).c_str(), InShare("second").c_str()), 0);
    const BkEndProcPtr second = Find("second");
    ASSERT_TRUE(second);
    EXPECT_EQ(second->GetPath(), InShare("second"));
    EXPECT_TRUE(Same(HandleOf(second), handle));
    EXPECT_EQ(Find("d/name1")->GetPath(), Name(1));
}

TEST_F(Listing, ANameThatLeadsElsewhereNowIsTheOtherObject) {
    const nfs_fh3 one = HandleAt("d/name1"), two = HandleAt("d/name2");
    Move(Name(2), Name(1));
    EXPECT_TRUE(Same(HandleAt("d/name1"), two));
    EXPECT_FALSE(Find("d/name2"));
    EXPECT_FALSE(Resolve(one));
}

TEST_F(Listing, TheIndexOfInodesKeepsNothingOpen) {
    SKIP_UNLESS_ROOT();
    local::ObjectCache& cache = local::ObjectCache::Instance();
    const uint64_t inode = StatOf(Name(1)).st_ino;
    (void)HandleAt("d/name1");
    EXPECT_TRUE(cache.FindInode(Root().Serial(), inode));
    EXPECT_FALSE(cache.FindInode(Root().Serial() + 1, inode));
    const int open = CountDescriptors();
    cache.Clear();
    EXPECT_LT(CountDescriptors(), open);
    EXPECT_FALSE(cache.FindInode(Root().Serial(), inode));
}

TEST_F(Listing, KnownIdsAreBoundedWithTheirPlaces) {
    local::MemoryInodeMap map(3);
    local::InodeId known;
    known.id.length = local::ObjectId::kHeadBytes + local::ObjectId::kSignatureBytes + 2;
    known.birthSeconds = 5;
    for (uint64_t inode = 1; inode <= 4; ++inode) {
        map.Put(inode, {"parent", "name"});
        map.PutId(inode, known);
    }
    local::InodeId found;
    bool placed = false;
    EXPECT_FALSE(map.FindId(1, "parent", "name", &found, &placed));
    ASSERT_TRUE(map.FindId(4, "parent", "name", &found, &placed));
    EXPECT_TRUE(placed);
    EXPECT_EQ(found.birthSeconds, 5);
    ASSERT_TRUE(map.FindId(4, "parent", "another", &found, &placed));
    EXPECT_FALSE(placed);
    map.PutId(99, known);  // without a place there is nothing to keep it with
    EXPECT_FALSE(map.FindId(99, "parent", "name", &found, &placed));
    map.Remove(4);
    EXPECT_FALSE(map.FindId(4, "parent", "name", &found, &placed));
}

// ---- A path that this process's own changes have not put in doubt ----

TEST_F(Listing, OwnWritesDoNotHideARename) {
    const BkEndProcPtr object = Find("d/name1");
    const nfs_fh3 handle = HandleOf(object);
    for (int round = 0; round < 3; ++round) {
        const BkEndProcPtr file = module_->GetBkEndProc(share_, handle);
        ASSERT_TRUE(file);
        OxelCtxt ctxt = AsSelf(file);
        const int fd = file->Open(&ctxt, file->GetPath(), 1, 0);
        ASSERT_GE(fd, 0);
        EXPECT_EQ(file->Write(&ctxt, fd, "x", 0, 1, UNSTABLE), 1);
        file->Close(&ctxt, fd);
        struct stat st;
        ASSERT_EQ(file->Stat(&ctxt, file->GetPath(), &st), 0);
        const std::string next = InShare("d/moved" + std::to_string(round));
        Move(file->GetPath(), next);
        EXPECT_EQ(Resolve(handle)->GetPath(), next);
    }
}

TEST_F(Listing, ADirectoryIsSyncedThroughADescriptorThatGoesWithIt) {
    const BkEndProcPtr root = LocalTest::Root();
    const int before = CountDescriptors();
    for (int round = 0; round < 50; ++round) {
        OxelCtxt ctxt = AsSelf(root);
        BkEndProcPtr made = root->CreateChildDir(&ctxt, "made", 0755);
        ASSERT_TRUE(made);
        OxelCtxt inside = AsSelf(made);
        BkEndProcPtr file = made->CreateChild(&inside, "file", O_CREAT, 0644);
        ASSERT_TRUE(file);
        OxelCtxt both(inside.id, share_, file, made);
        ASSERT_EQ(file->Unlink(&both, made->GetPath() + "/file"), 0);
        OxelCtxt above(ctxt.id, share_, root, made);
        ASSERT_EQ(made->RemoveDir(&above, made->GetPath()), 0);
    }
    local::ObjectCache::Instance().Clear();
    EXPECT_LE(CountDescriptors(), before);
}

}  // namespace
}  // namespace oxel::testing
