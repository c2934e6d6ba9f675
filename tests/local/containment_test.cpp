// SPDX-License-Identifier: Apache-2.0
//
// Nothing outside the share's directory can be reached, whatever names clients send and whatever
// other processes do to the tree meanwhile.
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "modules/local/object.h"
#include "modules/local/object_cache.h"
#include "tests/local/fixture.h"

namespace oxel::testing {
namespace {

class Containment : public LocalTest {
  protected:
    void SetUp() override {
        LocalTest::SetUp();
        MakeDir(InShare("d"));
        WriteFile(InShare("d/f"), "inside");
        WriteFile(Beside("f"), "secret");
    }
    int FindError(const std::string& directory, const std::string& name) {
        const BkEndProcPtr object = directory.empty() ? Root() : Find(directory);
        EXPECT_TRUE(object);
        OxelCtxt ctxt = AsSelf(object);
        errno = 0;
        return object->FindChild(&ctxt, name) ? 0 : errno;
    }
};

TEST_F(Containment, DotDotOfTheRootIsTheRoot) {
    const BkEndProcPtr root = Root();
    OxelCtxt ctxt = AsSelf(root);
    const BkEndProcPtr up = root->FindChild(&ctxt, "..");
    ASSERT_TRUE(up);
    EXPECT_EQ(up->GetPath(), ShareDirectory());
    EXPECT_FALSE(root->GetParent(&ctxt));
}

TEST_F(Containment, DotAndDotDotLeadToDirectoryAndParent) {
    MakeDir(InShare("d/e"));
    const BkEndProcPtr directory = Find("d/e");
    OxelCtxt ctxt = AsSelf(directory);
    EXPECT_EQ(directory->FindChild(&ctxt, ".")->GetPath(), InShare("d/e"));
    EXPECT_EQ(directory->FindChild(&ctxt, "..")->GetPath(), InShare("d"));
    EXPECT_EQ(directory->GetParent(&ctxt)->GetPath(), InShare("d"));
    const BkEndProcPtr top = Find("d");
    OxelCtxt topCtxt = AsSelf(top);
    EXPECT_EQ(top->GetParent(&topCtxt)->GetPath(), ShareDirectory());
    const BkEndProcPtr file = Find("d/f");
    OxelCtxt fileCtxt = AsSelf(file);
    EXPECT_EQ(file->GetParent(&fileCtxt)->GetPath(), InShare("d"));
}

TEST_F(Containment, ParentOfAMovedDirectoryIsTheNewOne) {
    MakeDir(InShare("d/e"));
    const BkEndProcPtr directory = Find("d/e");
    OxelCtxt ctxt = AsSelf(directory);
    Move(InShare("d/e"), InShare("e"));
    EXPECT_EQ(directory->GetParent(&ctxt)->GetPath(), ShareDirectory());
    Move(InShare("e"), Beside("e"));
    EXPECT_FALSE(directory->GetParent(&ctxt));
    EXPECT_EQ(errno, ESTALE);
    EXPECT_FALSE(directory->FindChild(&ctxt, ".."));
}

TEST_F(Containment, NamesThatAreNoNamesAreRefused) {
    EXPECT_EQ(FindError("", ""), ENOENT);
    EXPECT_EQ(FindError("", "missing"), ENOENT);
    EXPECT_EQ(FindError("", "d/f"), EACCES);
    EXPECT_EQ(FindError("", "/"), EACCES);
    EXPECT_EQ(FindError("", "../outside"), EACCES);
    EXPECT_EQ(FindError("", Beside("f")), EACCES);
    EXPECT_EQ(FindError("", std::string("d\0x", 3)), EACCES);
    EXPECT_EQ(FindError("", std::string(255, 'n')), ENOENT);
    EXPECT_EQ(FindError("", std::string(256, 'n')), ENAMETOOLONG);
    EXPECT_EQ(FindError("", std::string(5000, '/')), ENAMETOOLONG);
    EXPECT_EQ(FindError("d/f", "x"), ENOTDIR);
    EXPECT_EQ(FindError("d/f", "."), ENOTDIR);
    EXPECT_EQ(FindError("d/f", ".."), ENOTDIR);
}

TEST_F(Containment, FoundNamesLeaveEexist) {
    EXPECT_EQ((Find("d"), errno), EEXIST);
}

TEST_F(Containment, PathsOfPathMaxBytesAreRefused) {
    // Deeper than any path can say, made step by step.
    const std::string step(200, 's');
    UniqueFd at(open(ShareDirectory().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    for (int i = 0; i < 25; ++i) {
        ASSERT_EQ(mkdirat(at.Get(), step.c_str(), 0755), 0);
        at.Reset(openat(at.Get(), step.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        ASSERT_TRUE(at);
    }
    BkEndProcPtr object = Root();
    int depth = 0;
    for (;; ++depth) {
        OxelCtxt ctxt = AsSelf(object);
        const BkEndProcPtr next = object->FindChild(&ctxt, step);
        if (!next) break;
        object = next;
        ASSERT_LT(object->GetPath().size(), 4096u);
    }
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_GT(depth, 15);
    EXPECT_EQ(Resolve(HandleOf(object)), object);
}

TEST_F(Containment, SymbolicLinksAreObjectsAndNeverFollowed) {
    ASSERT_EQ(symlink(Beside("f").c_str(), InShare("file").c_str()), 0);
    ASSERT_EQ(symlink("../outside", InShare("dir").c_str()), 0);
    for (const char* name : {"file", "dir"}) {
        const BkEndProcPtr link = Find(name);
        ASSERT_TRUE(link);
        OxelCtxt ctxt = AsSelf(link);
        struct stat st;
        ASSERT_EQ(link->Stat(&ctxt, link->GetPath(), &st), 0);
        EXPECT_TRUE(S_ISLNK(st.st_mode));
        EXPECT_EQ(link->Open(&ctxt, "/", 0, 0), -1);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(link->Truncate(&ctxt, "/", 0), -1);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(link->OpenDir(&ctxt, "/"), nullptr);
        EXPECT_EQ(errno, ENOTDIR);
        EXPECT_FALSE(link->FindChild(&ctxt, "f"));
        EXPECT_EQ(errno, ENOTDIR);
        EXPECT_EQ(link->Chmod(&ctxt, "/", 0600), 0);
        EXPECT_EQ(link->Chown(&ctxt, "/", geteuid(), getegid()), 0);
        EXPECT_EQ(link->SetTimes(&ctxt, "/", {100, 0}, {200, 0}), 0);
        EXPECT_EQ(StatOf(InShare(name)).st_mtime, 200);
    }
    EXPECT_EQ(StatOf(Beside("f")).st_mode & 0777, 0644u);
    EXPECT_NE(StatOf(Beside("f")).st_mtime, 200);
    EXPECT_EQ(StatOf(Beside("f")).st_size, 6);
}

TEST_F(Containment, ADirectorySwappedForALinkDoesNotRedirectItsObject) {
    const BkEndProcPtr directory = Find("d");
    Move(InShare("d"), InShare("kept"));
    ASSERT_EQ(symlink(Beside("").c_str(), InShare("d").c_str()), 0);
    OxelCtxt ctxt = AsSelf(directory);
    const BkEndProcPtr file = directory->FindChild(&ctxt, "f");
    ASSERT_TRUE(file);
    OxelCtxt fileCtxt = AsSelf(file);
    EXPECT_EQ(ReadAll(*file, fileCtxt), "inside");
    EXPECT_EQ(directory->Chmod(&ctxt, directory->GetPath(), 0700), 0);
    EXPECT_EQ(StatOf(Beside("")).st_mode & 0777, 0755u);
    EXPECT_EQ(StatOf(InShare("kept")).st_mode & 0777, 0700u);
}

TEST_F(Containment, OtherPathsAreResolvedInsideTheShare) {
    ASSERT_EQ(symlink(Beside("").c_str(), InShare("out").c_str()), 0);
    ASSERT_EQ(symlink("d", InShare("alias").c_str()), 0);
    const BkEndProcPtr root = Root();
    OxelCtxt ctxt = AsSelf(root);
    struct stat st;
    const auto error = [&](const std::string& path) {
        errno = 0;
        return root->Stat(&ctxt, path, &st) == 0 ? 0 : errno;
    };
    EXPECT_EQ(error(InShare("d/f")), 0);
    EXPECT_EQ(st.st_ino, StatOf(InShare("d/f")).st_ino);
    EXPECT_EQ(error(InShare("out")), 0);
    EXPECT_TRUE(S_ISLNK(st.st_mode));
    EXPECT_EQ(error(InShare("none")), ENOENT);
    EXPECT_EQ(error(InShare("out/f")), ENOTDIR);
    EXPECT_EQ(error(InShare("alias/f")), ENOTDIR);
    EXPECT_EQ(error(InShare("../outside/f")), ENOENT);  // ".." of the root is the root
    EXPECT_EQ(error(Beside("f")), EACCES);
    EXPECT_EQ(error("/etc/passwd"), EACCES);
    EXPECT_EQ(error(ShareDirectory() + "-other"), EACCES);
    EXPECT_EQ(error("relative"), EACCES);
    EXPECT_EQ(error(""), EACCES);
}

TEST_F(Containment, PathsThatAListingUsesMeanTheObject) {
    const BkEndProcPtr directory = Find("d"), root = Root();
    struct stat st;
    OxelCtxt ctxt = AsSelf(directory);
    for (const std::string& path : {InShare("d"), std::string("/"), InShare("d/.")}) {
        ASSERT_EQ(directory->Stat(&ctxt, path, &st), 0) << path;
        EXPECT_EQ(st.st_ino, StatOf(InShare("d")).st_ino) << path;
    }
    OxelCtxt rootCtxt = AsSelf(root);
    ASSERT_EQ(root->Stat(&rootCtxt, InShare("d/.."), &st), 0);
    EXPECT_EQ(st.st_ino, StatOf(ShareDirectory()).st_ino);
}

TEST_F(Containment, ARootShareTakesPathsWithTwoSlashes) {
    share_ = MakeShare("/", 90);
    Publish({share_});
    const BkEndProcPtr root = Root();
    ASSERT_TRUE(root);
    EXPECT_EQ(root->GetPath(), "/");
    OxelCtxt ctxt = AsSelf(root);
    EXPECT_EQ(root->FindChild(&ctxt, "..")->GetPath(), "/");
    const BkEndProcPtr tmp = root->FindChild(&ctxt, "tmp");
    ASSERT_TRUE(tmp);
    EXPECT_EQ(tmp->GetPath(), "/tmp");
    OxelCtxt tmpCtxt = AsSelf(tmp);
    struct stat st;
    EXPECT_EQ(tmp->Stat(&tmpCtxt, "//tmp", &st), 0);
    EXPECT_EQ(st.st_ino, StatOf("/tmp").st_ino);
    local::ObjectCache::Instance().Clear();
    EXPECT_EQ(Resolve(HandleOf(tmp))->GetPath(), "/tmp");
    // Another file system.
    EXPECT_FALSE(root->FindChild(&ctxt, "proc"));
    EXPECT_EQ(errno, EXDEV);
}

TEST_F(Containment, OtherMountedFileSystemsAreNotEntered) {
    SKIP_UNLESS_ROOT();
    MakeDir(InShare("mnt"));
    WriteFile(InShare("mnt/under"), "under");
    const nfs_fh3 mountPoint = HandleAt("mnt"), under = HandleAt("mnt/under");
    InChild([&] {
        if (unshare(CLONE_NEWNS) != 0 || mount("", "/", nullptr, MS_REC | MS_PRIVATE, "") != 0 ||
            mount("none", InShare("mnt").c_str(), "tmpfs", 0, "") != 0) {
            fprintf(stderr, "not tested: mounting is not permitted here\n");
            return;
        }
        Restart();
        WriteFile(InShare("mnt/over"), "over");
        EXPECT_EQ(FindError("", "mnt"), EXDEV);
        // What lies beneath the mount point is hidden from clients as it is from local users.
        EXPECT_FALSE(Resolve(mountPoint));
        EXPECT_FALSE(Resolve(under));
        struct stat st;
        const BkEndProcPtr root = Root();
        OxelCtxt ctxt = AsSelf(root);
        EXPECT_EQ(root->Stat(&ctxt, InShare("mnt/over"), &st), -1);
        EXPECT_EQ(errno, EXDEV);
        ForgetEverything();
        umount(InShare("mnt").c_str());
    });
}

TEST_F(Containment, ABindMountedShareReachesNothingBesideIt) {
    SKIP_UNLESS_ROOT();
    // The directory outside is given the path, counted from the file system's root, that a file in
    // the share has.
    MakeDir(directory_ + "/mnt");
    InChild([&] {
        if (unshare(CLONE_NEWNS) != 0 || mount("", "/", nullptr, MS_REC | MS_PRIVATE, "") != 0 ||
            mount(ShareDirectory().c_str(), (directory_ + "/mnt").c_str(), nullptr, MS_BIND, "") !=
                0) {
            fprintf(stderr, "not tested: mounting is not permitted here\n");
            return;
        }
        share_ = MakeShare(directory_ + "/mnt", kShareId);
        Publish({share_});
        const nfs_fh3 handle = HandleAt("d/f");
        local::ObjectCache::Instance().Clear();
        ASSERT_TRUE(Resolve(handle));
        EXPECT_EQ(Resolve(handle)->GetPath(), directory_ + "/mnt/d/f");
        Move(InShare("d/f"), Beside("moved"));
        EXPECT_FALSE(Resolve(handle));
        local::ObjectCache::Instance().Clear();
        EXPECT_FALSE(Resolve(handle));
        ForgetEverything();
        umount((directory_ + "/mnt").c_str());
    });
}

// No lasting kernel handles there, so inode numbers stand in.
TEST_F(Containment, OverlayFileSystemsAreServedThroughInodeNumbers) {
    SKIP_UNLESS_ROOT();
    for (const char* name : {"/upper", "/work", "/merged"}) MakeDir(directory_ + name);
    InChild([&] {
        const std::string options = "lowerdir=" + ShareDirectory() + ",upperdir=" + directory_ +
                                    "/upper,workdir=" + directory_ + "/work";
        if (unshare(CLONE_NEWNS) != 0 || mount("", "/", nullptr, MS_REC | MS_PRIVATE, "") != 0 ||
            mount("none", (directory_ + "/merged").c_str(), "overlay", 0, options.c_str()) != 0) {
            fprintf(stderr, "not tested: an overlay cannot be mounted here\n");
            return;
        }
        share_ = MakeShare(directory_ + "/merged", kShareId);
        Publish({share_});
        WriteFile(directory_ + "/merged/d/new", "new");
        const nfs_fh3 lower = HandleAt("d/f"), upper = HandleAt("d/new"), directory = HandleAt("d");
        EXPECT_EQ(lower.objectId[1], static_cast<unsigned char>(local::HandleKind::kInode));
        for (int round = 0; round < 2; ++round) {
            for (const auto& [handle, name] : {std::pair(lower, "/d/f"), std::pair(upper, "/d/new"),
                                               std::pair(directory, "/d")}) {
                const BkEndProcPtr object = Resolve(handle);
                ASSERT_TRUE(object) << name;
                EXPECT_EQ(object->GetPath(), directory_ + "/merged" + name);
            }
            local::ObjectCache::Instance().Clear();
        }
        Remove(directory_ + "/merged/d/new");
        EXPECT_FALSE(Resolve(upper));
        ForgetEverything();
        umount((directory_ + "/merged").c_str());
    });
}

}  // namespace
}  // namespace oxel::testing
