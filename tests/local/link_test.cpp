// SPDX-License-Identifier: Apache-2.0
//
// Hard links.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "base/unique_fd.h"
#include "modules/local/object_cache.h"
#include "tests/local/change_fixture.h"

namespace oxel::testing {
namespace {

constexpr uid_t kAlice = 41000, kBob = 41001;
constexpr gid_t kStaff = 42000;

class LinkTest : public ChangeTest {
  protected:
    void SetUp() override {
        ChangeTest::SetUp();
        MakeDir(InShare("d"));
        WriteFile(InShare("f"), "text");
    }
    // With a path that no object of the running call has.
    int LinkByPath(const std::string& existing, const std::string& directory,
                   const std::string& name) {
        const BkEndProcPtr link = Resolve(HandleAt(directory));
        OxelCtxt ctxt = Context(link);
        const int error =
            ErrnoOf([&] { return link->HardLink(&ctxt, existing, link->GetPath() + "/" + name); });
        RestoreOwnRights();
        return error;
    }
};

TEST_F(LinkTest, AFileGetsAnotherName) {
    EXPECT_EQ(Link("f", "d", "g"), 0);
    EXPECT_EQ(StatOf(InShare("d/g")).st_ino, StatOf(InShare("f")).st_ino);
    EXPECT_EQ(StatOf(InShare("f")).st_nlink, 2u);
    EXPECT_EQ(Link("d/g", "", "h"), 0);
    EXPECT_EQ(StatOf(InShare("f")).st_nlink, 3u);
}

TEST_F(LinkTest, AttributesReadAfterwardsCountTheLink) {
    const nfs_fh3 file = HandleAt("f"), parent = HandleAt("d");
    const BkEndProcPtr d = Resolve(parent), f = Resolve(file);
    OxelCtxt ctxt = Context(d);
    EXPECT_EQ(d->HardLink(&ctxt, f->GetPath(), d->GetPath() + "/g"), 0);
    struct stat st;
    EXPECT_EQ(d->Stat(&ctxt, f->GetPath(), &st), 0);  // asked of the directory
    EXPECT_EQ(st.st_ino, StatOf(InShare("f")).st_ino);
    EXPECT_EQ(st.st_nlink, 2u);
}

TEST_F(LinkTest, AFileIsFoundByItsHandleAfterARestart) {
    const nfs_fh3 file = HandleAt("f");
    Restart();
    const BkEndProcPtr d = Find("d"), f = Resolve(file);
    ASSERT_TRUE(f);
    OxelCtxt ctxt = Context(d);
    EXPECT_EQ(d->HardLink(&ctxt, f->GetPath(), d->GetPath() + "/g"), 0);
    EXPECT_EQ(StatOf(InShare("f")).st_nlink, 2u);
}

TEST_F(LinkTest, APathIsFollowedNameByName) {
    MakeDir(InShare("d/e"));
    WriteFile(InShare("d/e/x"), "");
    ASSERT_EQ(symlink("e", InShare("d/l").c_str()), 0);
    EXPECT_EQ(LinkByPath(InShare("d/e/x"), "", "y"), 0);
    EXPECT_EQ(StatOf(InShare("y")).st_ino, StatOf(InShare("d/e/x")).st_ino);
    EXPECT_EQ(LinkByPath(InShare("d/l/x"), "", "z"), ENOTDIR);
    EXPECT_EQ(LinkByPath(InShare("d/none"), "", "z"), ENOENT);
    EXPECT_EQ(LinkByPath(InShare("d/../../outside/x"), "", "z"), ENOENT);
    WriteFile(Beside("x"), "outside");
    EXPECT_EQ(LinkByPath(InShare("d/../../outside/x"), "", "z"), ENOENT);
    EXPECT_EQ(LinkByPath(Beside("x"), "", "z"), EXDEV);
    EXPECT_EQ(StatOf(Beside("x")).st_nlink, 1u);
    EXPECT_FALSE(Exists(InShare("z")));
}

TEST_F(LinkTest, SymbolicLinksAreLinkedThemselves) {
    WriteFile(Beside("x"), "outside");
    ASSERT_EQ(symlink(Beside("x").c_str(), InShare("l").c_str()), 0);
    EXPECT_EQ(Link("l", "d", "m"), 0);
    EXPECT_TRUE(S_ISLNK(StatOf(InShare("d/m")).st_mode));
    EXPECT_EQ(StatOf(InShare("d/m")).st_ino, StatOf(InShare("l")).st_ino);
    EXPECT_EQ(StatOf(Beside("x")).st_nlink, 1u);
}

TEST_F(LinkTest, RefusalsAreThoseOfTheLocalCall) {
    EXPECT_EQ(Link("d", "", "e"), EPERM);
    EXPECT_EQ(Link("d", "d", "e"), EPERM);
    EXPECT_EQ(Link("f", "", "d"), EEXIST);
    EXPECT_EQ(Link("f", "", "f"), EEXIST);
    EXPECT_EQ(Link("f", "f", "x"), ENOTDIR);
    const UniqueFd root(open(ShareDirectory().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    for (const char* dots : {".", ".."}) {
        EXPECT_EQ(Link("f", "d", dots),
                  ErrnoOf([&] { return linkat(root.Get(), "f", root.Get(), dots, 0); }));
    }
    for (const auto& [name, error] : {std::pair<std::string, int>("", ENOENT),
                                      {std::string(256, 'n'), ENAMETOOLONG},
                                      {"../../outside/x", EACCES},
                                      {std::string("f\0x", 3), EACCES}}) {
        EXPECT_EQ(Link("f", "d", name), error) << name;
    }
    EXPECT_EQ(StatOf(InShare("f")).st_nlink, 1u);
}

TEST_F(LinkTest, ARemovedFileGetsNoNewName) {
    const nfs_fh3 file = HandleAt("f"), parent = HandleAt("d");
    const BkEndProcPtr d = Resolve(parent), f = Resolve(file);
    Remove(InShare("f"));
    OxelCtxt ctxt = Context(d);
    EXPECT_EQ(d->HardLink(&ctxt, f->GetPath(), d->GetPath() + "/g"), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(LinkTest, TwoSharesAreTwoFileSystems) {
    // One share's directory lies below the other's, so that the path leads there from both.
    const ExportPtr below = MakeShare(InShare("d"), 78);
    Publish({share_, below});
    WriteFile(InShare("d/x"), "");
    nfs_fh3 root;
    below->AddMountPoint(Caller().clientAddress, &root);
    IdInfo id = Caller();
    id.uid = geteuid();
    id.gid = getegid();
    OxelCtxt inBelow(id, below, nullptr);
    const BkEndProcPtr belowRoot = Resolve(root);
    inBelow.object = belowRoot;
    const BkEndProcPtr x = belowRoot->FindChild(&inBelow, "x");
    ASSERT_TRUE(x);
    const nfs_fh3 file = HandleOf(x), parent = RootHandle();
    const BkEndProcPtr top = Resolve(parent), again = Resolve(file);
    OxelCtxt ctxt = Context(top);
    EXPECT_EQ(top->HardLink(&ctxt, again->GetPath(), top->GetPath() + "/y"), -1);
    EXPECT_EQ(errno, EXDEV);
    EXPECT_EQ(StatOf(InShare("d/x")).st_nlink, 1u);
}

TEST_F(LinkTest, HandlesSurviveTheRemovalOfEitherName) {
    const nfs_fh3 handle = HandleAt("f");
    EXPECT_EQ(Link("f", "d", "g"), 0);
    EXPECT_EQ(Unlink("", "f"), 0);
    BkEndProcPtr object = Resolve(handle);
    ASSERT_TRUE(object);
    EXPECT_EQ(object->GetPath(), InShare("d/g"));
    EXPECT_EQ(Link("d/g", "", "f"), 0);
    EXPECT_EQ(Unlink("d", "g"), 0);
    local::ObjectCache::Instance().Clear();
    object = Resolve(handle);
    ASSERT_TRUE(object);
    EXPECT_EQ(object->GetPath(), InShare("f"));
}

TEST_F(LinkTest, TheCallersRightsInTheDirectoryCount) {
    SKIP_UNLESS_ROOT();
    ASSERT_EQ(chown(InShare("d").c_str(), kAlice, kStaff), 0);
    ASSERT_EQ(chown(InShare("f").c_str(), kAlice, kStaff), 0);
    ASSERT_EQ(chmod(InShare("f").c_str(), 0666), 0);
    ActAs(kBob, kStaff);
    EXPECT_EQ(Link("f", "d", "g"), EACCES);
    ActAs(kAlice, kStaff);
    EXPECT_EQ(Link("f", "d", "g"), 0);
}

TEST_F(LinkTest, ReadOnlyClientsLinkNothing) {
    options_.writable = false;
    SetOptions(options_);
    EXPECT_EQ(Link("f", "d", "g"), EROFS);
    EXPECT_FALSE(Exists(InShare("d/g")));
}

}  // namespace
}  // namespace oxel::testing
