// SPDX-License-Identifier: Apache-2.0
//
// Renaming.
#include <fcntl.h>
#include <stdio.h>
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

class RenameTest : public ChangeTest {
  protected:
    void SetUp() override {
        ChangeTest::SetUp();
        MakeDir(InShare("a"));
        MakeDir(InShare("b"));
        WriteFile(InShare("a/f"), "text");
    }
    std::string PathOfHandle(const nfs_fh3& handle) {
        const BkEndProcPtr object = Resolve(handle);
        return object ? object->GetPath() : "stale";
    }
};

TEST_F(RenameTest, WithinAndBetweenDirectories) {
    EXPECT_EQ(Rename("a", "f", "a", "g"), 0);
    EXPECT_EQ(TextOf(InShare("a/g")), "text");
    EXPECT_EQ(Rename("a", "g", "b", "f"), 0);
    EXPECT_EQ(TextOf(InShare("b/f")), "text");
    EXPECT_FALSE(Exists(InShare("a/f")) || Exists(InShare("a/g")));
    EXPECT_EQ(Rename("", "b", "a", "c"), 0);
    EXPECT_EQ(TextOf(InShare("a/c/f")), "text");
}

TEST_F(RenameTest, HandlesSurviveAndLeadToTheNewPath) {
    const nfs_fh3 f = HandleAt("a/f"), a = HandleAt("a");
    EXPECT_EQ(Rename("a", "f", "b", "g"), 0);
    EXPECT_EQ(PathOfHandle(f), InShare("b/g"));
    EXPECT_EQ(Rename("b", "g", "a", "f"), 0);
    EXPECT_EQ(PathOfHandle(f), InShare("a/f"));
    // A directory above: at once, although nothing about the file itself has changed.
    EXPECT_EQ(Rename("", "a", "b", "moved"), 0);
    EXPECT_EQ(PathOfHandle(a), InShare("b/moved"));
    EXPECT_EQ(PathOfHandle(f), InShare("b/moved/f"));
    local::ObjectCache::Instance().Clear();
    EXPECT_EQ(PathOfHandle(f), InShare("b/moved/f"));
    EXPECT_EQ(PathOfHandle(a), InShare("b/moved"));
    EXPECT_EQ(Rename("", "b", "", "c"), 0);
    local::ObjectCache::Instance().Clear();
    EXPECT_EQ(PathOfHandle(f), InShare("c/moved/f"));
}

TEST_F(RenameTest, WhatIsReplacedIsGoneAtOnce) {
    WriteFile(InShare("b/f"), "old");
    const nfs_fh3 old = HandleAt("b/f"), f = HandleAt("a/f");
    EXPECT_EQ(WriteTo("b/f", "x"), 0);
    EXPECT_EQ(gFdCache.Count(), 1u);
    EXPECT_EQ(Rename("a", "f", "b", "f"), 0);
    EXPECT_EQ(gFdCache.Count(), 0u);
    EXPECT_FALSE(Resolve(old));
    EXPECT_EQ(PathOfHandle(f), InShare("b/f"));
    EXPECT_EQ(TextOf(InShare("b/f")), "text");

    MakeDir(InShare("d"));
    const nfs_fh3 d = HandleAt("d"), a = HandleAt("a");
    EXPECT_EQ(Rename("", "a", "", "d"), 0);
    EXPECT_FALSE(Resolve(d));
    EXPECT_EQ(PathOfHandle(a), InShare("d"));
}

TEST_F(RenameTest, AReplacedFileWithAnotherNameLivesOn) {
    WriteFile(InShare("b/f"), "old");
    ASSERT_EQ(link(InShare("b/f").c_str(), InShare("b/other").c_str()), 0);
    const nfs_fh3 old = HandleAt("b/f");
    EXPECT_EQ(Rename("a", "f", "b", "f"), 0);
    EXPECT_EQ(PathOfHandle(old), InShare("b/other"));
}

TEST_F(RenameTest, ToItselfChangesNothing) {
    const nfs_fh3 f = HandleAt("a/f");
    EXPECT_EQ(Rename("a", "f", "a", "f"), 0);
    ASSERT_EQ(link(InShare("a/f").c_str(), InShare("b/g").c_str()), 0);
    EXPECT_EQ(Rename("a", "f", "b", "g"), 0);
    EXPECT_TRUE(Exists(InShare("a/f")) && Exists(InShare("b/g")));
    EXPECT_TRUE(Resolve(f));
    EXPECT_EQ(Rename("", "a", "", "a"), 0);
}

TEST_F(RenameTest, RefusalsAreThoseOfTheLocalCall) {
    MakeDir(InShare("a/sub"));
    WriteFile(InShare("b/file"), "");
    MakeDir(InShare("b/full"));
    WriteFile(InShare("b/full/x"), "");
    const UniqueFd root(open(ShareDirectory().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    for (const auto& [from, fromName, to, toName] :
         {std::tuple("", "a", "a", "a"), std::tuple("", "a", "a/sub", "x"),
          std::tuple("a", "sub", "b", "file"), std::tuple("a", "sub", "b", "full"),
          std::tuple("a", "f", "b", "full"), std::tuple("a", "sub", "", "a"),
          std::tuple("a", "missing", "b", "x"), std::tuple("a", ".", "b", "x"),
          std::tuple("a", "..", "b", "x"), std::tuple("a", "f", "b", "."),
          std::tuple("a", "f", "b", "..")}) {
        const std::string what = std::string(from) + " " + fromName + " " + to + " " + toName;
        const std::string source = InShare(from) + "/" + fromName;
        const std::string target = InShare(to) + "/" + toName;
        const int local = ErrnoOf([&] { return rename(source.c_str(), target.c_str()); });
        EXPECT_NE(local, 0) << what;
        EXPECT_EQ(Rename(from, fromName, to, toName), local) << what;
    }
}

TEST_F(RenameTest, NamesThatCannotBeAreRefused) {
    const BkEndProcPtr a = Find("a"), b = Find("b"), f = Find("a/f");
    for (const auto& [name, error] : {std::pair<std::string, int>("", ENOENT),
                                      {std::string(256, 'n'), ENAMETOOLONG},
                                      {"../../outside/x", EACCES},
                                      {std::string("f\0x", 3), EACCES}}) {
        EXPECT_EQ(RenameObject(f, a, name, b, "x"), error) << name;
        EXPECT_EQ(RenameObject(f, a, "f", b, name), error) << name;
    }
    EXPECT_EQ(RenameObject(f, f, "f", b, "x"), ENOTDIR);
    EXPECT_EQ(RenameObject(f, a, "f", f, "x"), ENOTDIR);
    EXPECT_EQ(RenameObject(f, a, "f", nullptr, "x"), EINVAL);
    EXPECT_EQ(TextOf(InShare("a/f")), "text");
}

TEST_F(RenameTest, ANameThatMeansAnotherObjectByNowIsLeftAlone) {
    const BkEndProcPtr a = Find("a"), b = Find("b"), f = Find("a/f");
    Move(InShare("a/f"), InShare("kept"));
    EXPECT_EQ(RenameObject(f, a, "f", b, "x"), ENOENT);
    WriteFile(InShare("a/f"), "new");
    EXPECT_EQ(RenameObject(f, a, "f", b, "x"), ENOENT);
    EXPECT_EQ(TextOf(InShare("a/f")), "new");
    EXPECT_FALSE(Exists(InShare("b/x")));
}

TEST_F(RenameTest, TwoSharesAreTwoFileSystems) {
    const ExportPtr other = MakeShare(Beside(""), 78);
    Publish({share_, other});
    nfs_fh3 root;
    other->AddMountPoint(Caller().clientAddress, &root);
    const BkEndProcPtr outside = Resolve(root), a = Find("a"), f = Find("a/f");
    ASSERT_TRUE(outside);
    EXPECT_EQ(RenameObject(f, a, "f", outside, "x"), EXDEV);
    EXPECT_EQ(RenameObject(f, outside, "f", a, "x"), EXDEV);
    // Also when one share's directory lies below the other's.
    const ExportPtr below = MakeShare(InShare("b"), 79);
    Publish({share_, other, below});
    below->AddMountPoint(Caller().clientAddress, &root);
    const BkEndProcPtr b = Resolve(root);
    ASSERT_TRUE(b);
    EXPECT_EQ(RenameObject(f, a, "f", b, "x"), EXDEV);
    EXPECT_TRUE(Exists(InShare("a/f")));
    EXPECT_FALSE(Exists(Beside("x")) || Exists(InShare("b/x")));
}

TEST_F(RenameTest, SymbolicLinksAreRenamedThemselves) {
    WriteFile(Beside("x"), "outside");
    ASSERT_EQ(symlink(Beside("x").c_str(), InShare("a/l").c_str()), 0);
    ASSERT_EQ(symlink(Beside("x").c_str(), InShare("b/l").c_str()), 0);
    EXPECT_EQ(Rename("a", "f", "b", "l"), 0);  // replaces the link, not what it points to
    EXPECT_EQ(TextOf(InShare("b/l")), "text");
    EXPECT_EQ(Rename("a", "l", "b", "m"), 0);
    EXPECT_TRUE(S_ISLNK(StatOf(InShare("b/m")).st_mode));
    EXPECT_EQ(TextOf(Beside("x")), "outside");
}

TEST_F(RenameTest, TheCallersRightsCountInBothDirectories) {
    SKIP_UNLESS_ROOT();
    ASSERT_EQ(chown(InShare("a").c_str(), kAlice, kStaff), 0);
    ActAs(kAlice, kStaff);
    EXPECT_EQ(Rename("a", "f", "b", "f"), EACCES);
    EXPECT_EQ(Rename("a", "f", "a", "g"), 0);
    ASSERT_EQ(chown(InShare("b").c_str(), kAlice, kStaff), 0);
    ActAs(kBob, kStaff);
    EXPECT_EQ(Rename("a", "g", "b", "f"), EACCES);
    ActAs(kAlice, kStaff);
    EXPECT_EQ(Rename("a", "g", "b", "f"), 0);
}

TEST_F(RenameTest, ReadOnlyClientsRenameNothing) {
    options_.writable = false;
    SetOptions(options_);
    EXPECT_EQ(Rename("a", "f", "b", "f"), EROFS);
    EXPECT_TRUE(Exists(InShare("a/f")));
}

}  // namespace
}  // namespace oxel::testing
