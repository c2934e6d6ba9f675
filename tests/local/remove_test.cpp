// SPDX-License-Identifier: Apache-2.0
//
// Removing files and directories.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "backend/FdCache.h"
#include "base/unique_fd.h"
#include "modules/local/object_cache.h"
#include "tests/local/change_fixture.h"

namespace oxel::testing {
namespace {

constexpr uid_t kAlice = 41000, kBob = 41001;
constexpr gid_t kStaff = 42000;

class RemoveTest : public ChangeTest {};

TEST_F(RemoveTest, FilesLinksAndSpecialFilesGo) {
    WriteFile(InShare("f"), "");
    ASSERT_EQ(symlink(Beside("x").c_str(), InShare("l").c_str()), 0);
    ASSERT_EQ(mkfifo(InShare("fifo").c_str(), 0600), 0);
    WriteFile(Beside("x"), "outside");
    for (const char* name : {"f", "l", "fifo"}) {
        EXPECT_EQ(Unlink("", name), 0) << name;
        EXPECT_FALSE(Exists(InShare(name))) << name;
        EXPECT_EQ(Unlink("", name), ENOENT) << name;
    }
    EXPECT_EQ(TextOf(Beside("x")), "outside");
}

TEST_F(RemoveTest, EmptyDirectoriesGo) {
    MakeDir(InShare("d"));
    MakeDir(InShare("d/e"));
    EXPECT_EQ(RemoveDirectory("", "d"), ENOTEMPTY);
    EXPECT_EQ(RemoveDirectory("d", "e"), 0);
    EXPECT_EQ(RemoveDirectory("", "d"), 0);
    EXPECT_FALSE(Exists(InShare("d")));
}

TEST_F(RemoveTest, EachTakesItsOwnKindOnly) {
    MakeDir(InShare("d"));
    WriteFile(InShare("f"), "");
    EXPECT_EQ(Unlink("", "d"), ErrnoOf([&] { return unlink(InShare("d").c_str()); }));
    EXPECT_EQ(Unlink("", "d"), EISDIR);
    EXPECT_EQ(RemoveDirectory("", "f"), ENOTDIR);
    EXPECT_TRUE(Exists(InShare("d")) && Exists(InShare("f")));
}

TEST_F(RemoveTest, DotsAreRefusedAsLocally) {
    MakeDir(InShare("d"));
    MakeDir(InShare("d/e"));
    const UniqueFd d(open(InShare("d").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    for (const char* directory : {"d", "d/e"}) {
        for (const char* dots : {".", ".."}) {
            EXPECT_EQ(Unlink(directory, dots), ErrnoOf([&] { return unlinkat(d.Get(), dots, 0); }));
            EXPECT_EQ(RemoveDirectory(directory, dots),
                      ErrnoOf([&] { return unlinkat(d.Get(), dots, AT_REMOVEDIR); }));
        }
    }
    EXPECT_EQ(RemoveDirectory("", ".."), ENOTEMPTY);
    EXPECT_EQ(RemoveDirectory("", "."), EINVAL);
    EXPECT_TRUE(Exists(InShare("d/e")));
}

TEST_F(RemoveTest, NamesThatCannotBeAreRefused) {
    WriteFile(InShare("f"), "");
    WriteFile(Beside("x"), "");
    MakeDir(Beside("d"));
    const BkEndProcPtr root = Root(), f = Find("f");
    for (const auto& [name, error] : {std::pair<std::string, int>("", ENOENT),
                                      {std::string(256, 'n'), ENAMETOOLONG},
                                      {"../outside/x", EACCES},
                                      {std::string("f\0x", 3), EACCES}}) {
        EXPECT_EQ(UnlinkObject(root, f, name), error) << name;
        EXPECT_EQ(RemoveDirectoryObject(root, f, name), error) << name;
    }
    EXPECT_EQ(RemoveDirectoryObject(root, f, "../outside/d"), EACCES);
    EXPECT_TRUE(Exists(InShare("f")) && Exists(Beside("x")) && Exists(Beside("d")));
}

TEST_F(RemoveTest, PathsOfOtherDirectoriesAreRefused) {
    MakeDir(InShare("d"));
    WriteFile(InShare("f"), "");
    WriteFile(InShare("d/f"), "");
    const BkEndProcPtr d = Find("d"), f = Find("f");
    OxelCtxt ctxt = Context(f, d);
    EXPECT_EQ(f->Unlink(&ctxt, InShare("f")), -1);
    EXPECT_EQ(errno, EINVAL);
    OxelCtxt alone = Context(f);
    EXPECT_EQ(f->Unlink(&alone, InShare("f")), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_TRUE(Exists(InShare("f")));
}

TEST_F(RemoveTest, ANameThatMeansAnotherObjectByNowIsLeftAlone) {
    WriteFile(InShare("f"), "old");
    WriteFile(InShare("new"), "new");
    MakeDir(InShare("d"));
    MakeDir(InShare("newd"));
    const BkEndProcPtr root = Root(), f = Find("f"), d = Find("d");
    Move(InShare("f"), InShare("kept"));
    Move(InShare("new"), InShare("f"));
    Move(InShare("d"), InShare("keptd"));
    Move(InShare("newd"), InShare("d"));
    EXPECT_EQ(UnlinkObject(root, f, "f"), ENOENT);
    EXPECT_EQ(RemoveDirectoryObject(root, d, "d"), ENOENT);
    Remove(InShare("f"));
    EXPECT_EQ(UnlinkObject(root, f, "f"), ENOENT);
    EXPECT_EQ(TextOf(InShare("kept")), "old");
    EXPECT_TRUE(Exists(InShare("d")) && Exists(InShare("keptd")));
}

TEST_F(RemoveTest, HandlesAreStaleAtOnce) {
    WriteFile(InShare("f"), "text");
    MakeDir(InShare("d"));
    const nfs_fh3 f = HandleAt("f"), d = HandleAt("d");
    EXPECT_EQ(Unlink("", "f"), 0);
    EXPECT_EQ(RemoveDirectory("", "d"), 0);
    EXPECT_FALSE(Resolve(f));
    EXPECT_FALSE(Resolve(d));
    // A new object under the old name is another one.
    WriteFile(InShare("f"), "new");
    EXPECT_FALSE(Resolve(f));
    EXPECT_TRUE(Find("f"));
    EXPECT_FALSE(Resolve(f));
}

TEST_F(RemoveTest, NothingKeepsARemovedFilesBlocks) {
    WriteFile(InShare("f"), "text");
    EXPECT_EQ(WriteTo("f", "x"), 0);
    EXPECT_EQ(Commit("f"), 0);
    EXPECT_EQ(gFdCache.Count(), 2u);
    const size_t objects = local::ObjectCache::Instance().Count();
    EXPECT_EQ(Unlink("", "f"), 0);
    EXPECT_EQ(gFdCache.Count(), 0u);
    EXPECT_LT(local::ObjectCache::Instance().Count(), objects);
}

TEST_F(RemoveTest, AFileWithAnotherNameLivesOn) {
    WriteFile(InShare("a"), "text");
    MakeDir(InShare("d"));
    ASSERT_EQ(link(InShare("a").c_str(), InShare("d/b").c_str()), 0);
    const nfs_fh3 handle = HandleAt("a");
    EXPECT_EQ(Unlink("", "a"), 0);
    const BkEndProcPtr object = Resolve(handle);
    ASSERT_TRUE(object);
    EXPECT_EQ(object->GetPath(), InShare("d/b"));
    EXPECT_EQ(StatOf(InShare("d/b")).st_nlink, 1u);
}

TEST_F(RemoveTest, TheCallersRightsCount) {
    SKIP_UNLESS_ROOT();
    MakeDir(InShare("d"), 0755);
    ASSERT_EQ(chown(InShare("d").c_str(), kAlice, kStaff), 0);
    WriteFile(InShare("d/f"), "");
    MakeDir(InShare("d/e"));
    MakeDir(InShare("sticky"), 0777);
    ASSERT_EQ(chmod(InShare("sticky").c_str(), 01777), 0);
    WriteFile(InShare("sticky/f"), "");
    ASSERT_EQ(chown(InShare("sticky/f").c_str(), kAlice, kStaff), 0);
    ActAs(kBob, kStaff);
    EXPECT_EQ(Unlink("d", "f"), EACCES);
    EXPECT_EQ(RemoveDirectory("d", "e"), EACCES);
    EXPECT_EQ(Unlink("sticky", "f"), EPERM);
    ActAs(kAlice, kStaff);
    EXPECT_EQ(Unlink("d", "f"), 0);  // another's file in the caller's directory
    EXPECT_EQ(RemoveDirectory("d", "e"), 0);
    EXPECT_EQ(Unlink("sticky", "f"), 0);
}

TEST_F(RemoveTest, SquashedRootRemovesNothingOfOthers) {
    SKIP_UNLESS_ROOT();
    options_.rootSquash = true;
    SetOptions(options_);
    WriteFile(InShare("f"), "");
    ActAs(0, 0);
    EXPECT_EQ(Unlink("", "f"), EACCES);
    EXPECT_TRUE(Exists(InShare("f")));
}

TEST_F(RemoveTest, ReadOnlyClientsRemoveNothing) {
    WriteFile(InShare("f"), "");
    MakeDir(InShare("d"));
    options_.writable = false;
    SetOptions(options_);
    EXPECT_EQ(Unlink("", "f"), EROFS);
    EXPECT_EQ(RemoveDirectory("", "d"), EROFS);
    EXPECT_TRUE(Exists(InShare("f")) && Exists(InShare("d")));
}

}  // namespace
}  // namespace oxel::testing
