// SPDX-License-Identifier: Apache-2.0
//
// Making files, directories and symbolic links.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <thread>

#include "backend/FdCache.h"
#include "base/unique_fd.h"
#include "tests/local/change_fixture.h"

namespace oxel::testing {
namespace {

constexpr uid_t kAlice = 41000, kBob = 41001;
constexpr gid_t kStaff = 42000, kOthers = 42001;

// The flags that CREATE passes: UNCHECKED, GUARDED, EXCLUSIVE.
constexpr int kUnchecked = 0x442, kGuarded = 0x40, kExclusive = 0xC0;
// The mode when a client names none.
constexpr mode_t kNoMode = 0x777;

class Create : public ChangeTest {};

TEST_F(Create, FilesAreMadeWithEverySetOfFlags) {
    int n = 0;
    for (const int flags : {kUnchecked, kGuarded, kExclusive}) {
        const std::string name = "f" + std::to_string(n++);
        ASSERT_EQ(ChangeTest::Create("", name, flags, 0640), 0);
        const struct stat st = StatOf(InShare(name));
        EXPECT_TRUE(S_ISREG(st.st_mode));
        EXPECT_EQ(st.st_mode & 07777, 0640u);
        EXPECT_EQ(st.st_size, 0);
        EXPECT_EQ(made_->GetPath(), InShare(name));
        const BkEndProcPtr again = Resolve(HandleOf(made_));
        ASSERT_TRUE(again);
        EXPECT_EQ(again->GetPath(), InShare(name));
    }
}

TEST_F(Create, TheModeIsWhatWasAskedForWhateverTheUmask) {
    EXPECT_EQ(ChangeTest::Create("", "all", kGuarded, 07777), 0);
    EXPECT_EQ(StatOf(InShare("all")).st_mode & 07777, 07777u);
    EXPECT_EQ(ChangeTest::Create("", "none", kGuarded, 0), 0);
    EXPECT_EQ(StatOf(InShare("none")).st_mode & 07777, 0u);
    EXPECT_EQ(ChangeTest::Create("", "default", kUnchecked, kNoMode), 0);
    EXPECT_EQ(StatOf(InShare("default")).st_mode & 07777, 03567u);
    // Bits that are no mode are not looked at.
    EXPECT_EQ(ChangeTest::Create("", "more", kGuarded, 0xffff0000 | 0600), 0);
    EXPECT_EQ(StatOf(InShare("more")).st_mode, S_IFREG | 0600u);
    EXPECT_EQ(MakeDirectory("", "d", 0777), 0);
    EXPECT_EQ(StatOf(InShare("d")).st_mode & 07777, 0777u);
}

TEST_F(Create, AnExistingFileIsOpenedUnlessItMustBeNew) {
    WriteFile(InShare("f"), "text", 0644);
    EXPECT_EQ(ChangeTest::Create("", "f", kExclusive), EEXIST);
    EXPECT_EQ(ChangeTest::Create("", "f", kGuarded, 0600), 0);
    EXPECT_EQ(HandleOf(made_).nfh_len, HandleAt("f").nfh_len);
    EXPECT_EQ(ChangeTest::Create("", "f", kUnchecked, 0600), 0);
    EXPECT_EQ(TextOf(InShare("f")), "text");
    EXPECT_EQ(StatOf(InShare("f")).st_mode & 07777, 0644u);
}

TEST_F(Create, AnExistingFileNeedsTheAccessAskedFor) {
    SKIP_UNLESS_ROOT();
    ASSERT_EQ(chmod(ShareDirectory().c_str(), 0777), 0);
    WriteFile(InShare("f"), "text", 0644);
    ActAs(kAlice, kStaff);
    EXPECT_EQ(ChangeTest::Create("", "f", kGuarded), 0);
    EXPECT_EQ(ChangeTest::Create("", "f", kUnchecked), EACCES);
    ASSERT_EQ(chown(InShare("f").c_str(), kAlice, kStaff), 0);
    ASSERT_EQ(chmod(InShare("f").c_str(), 0), 0);
    EXPECT_EQ(ChangeTest::Create("", "f", kUnchecked), 0);
}

TEST_F(Create, SymbolicLinksAreNotFollowed) {
    WriteFile(Beside("target"), "outside");
    ASSERT_EQ(symlink(Beside("target").c_str(), InShare("link").c_str()), 0);
    ASSERT_EQ(symlink(Beside("new").c_str(), InShare("dangling").c_str()), 0);
    for (const int flags : {kUnchecked, kGuarded, kExclusive, kGuarded | O_TRUNC}) {
        EXPECT_EQ(ChangeTest::Create("", "link", flags), EEXIST);
        EXPECT_EQ(ChangeTest::Create("", "dangling", flags), EEXIST);
    }
    EXPECT_EQ(MakeDirectory("", "dangling"), EEXIST);
    EXPECT_EQ(TextOf(Beside("target")), "outside");
    EXPECT_FALSE(Exists(Beside("new")));
}

TEST_F(Create, NothingButFilesIsOpened) {
    MakeDir(InShare("d"));
    ASSERT_EQ(mkfifo(InShare("fifo").c_str(), 0666), 0);
    for (const int flags : {kUnchecked, kGuarded, O_CREAT | O_WRONLY}) {
        EXPECT_EQ(ChangeTest::Create("", "d", flags), EISDIR);
        EXPECT_EQ(ChangeTest::Create("", "fifo", flags), EEXIST);
    }
    EXPECT_EQ(ChangeTest::Create("", "d", kExclusive), EEXIST);
    WriteFile(InShare("f"), "");
    EXPECT_EQ(ChangeTest::Create("", "f", O_CREAT | O_ACCMODE), EINVAL);
}

TEST_F(Create, NamesThatCannotBeMadeAreRefusedAsLocally) {
    const std::string longest(255, 'n'), tooLong(256, 'n');
    const int directory = open(ShareDirectory().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const UniqueFd closing(directory);
    for (const char* dots : {".", ".."}) {
        EXPECT_EQ(ChangeTest::Create("", dots, kGuarded),
                  ErrnoOf([&] { return openat(directory, dots, O_CREAT | O_CLOEXEC, 0600); }));
        EXPECT_EQ(ChangeTest::Create("", dots, kExclusive), ErrnoOf([&] {
                      return openat(directory, dots, O_CREAT | O_EXCL | O_CLOEXEC, 0600);
                  }));
        EXPECT_EQ(MakeDirectory("", dots), ErrnoOf([&] { return mkdirat(directory, dots, 0700); }));
        EXPECT_EQ(Symlink("", dots, "x"), ErrnoOf([&] { return symlinkat("x", directory, dots); }));
    }
    for (const auto& [name, error] : {std::pair<std::string, int>("", ENOENT),
                                      {tooLong, ENAMETOOLONG},
                                      {"a/b", EACCES},
                                      {"../outside/x", EACCES},
                                      {"/tmp/x", EACCES},
                                      {std::string("a\0b", 3), EACCES}}) {
        EXPECT_EQ(ChangeTest::Create("", name, kGuarded), error) << name;
        EXPECT_EQ(ChangeTest::Create("", name, kExclusive), error) << name;
        EXPECT_EQ(MakeDirectory("", name), error) << name;
        EXPECT_EQ(Symlink("", name, "target"), error) << name;
    }
    EXPECT_EQ(ChangeTest::Create("", longest, kGuarded), 0);
    EXPECT_EQ(Unlink("", longest), 0);
    EXPECT_EQ(MakeDirectory("", longest), 0);
    EXPECT_EQ(RemoveDirectory("", longest), 0);
    EXPECT_EQ(Symlink("", longest, "target"), 0);
}

TEST_F(Create, OnlyDirectoriesHoldNames) {
    WriteFile(InShare("f"), "");
    EXPECT_EQ(ChangeTest::Create("f", "x"), ENOTDIR);
    EXPECT_EQ(MakeDirectory("f", "x"), ENOTDIR);
    EXPECT_EQ(Symlink("f", "x", "y"), ENOTDIR);
}

TEST_F(Create, ARemovedDirectoryHoldsNothingNew) {
    MakeDir(InShare("d"));
    const BkEndProcPtr d = Find("d");
    Remove(InShare("d"));
    OxelCtxt ctxt = Context(d);
    EXPECT_FALSE(d->CreateChild(&ctxt, "x", kGuarded, 0600));
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(d->CreateChildDir(&ctxt, "x", 0700));
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(d->CreateSymlink(&ctxt, "t", d->GetPath() + "/x"), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(Create, PathsThatNobodyCouldTellAreTooLong) {
    std::string directory;
    const std::string part(250, 'd');
    int error = 0;
    while (error == 0 && directory.size() < 6000) {
        error = MakeDirectory(directory, part);
        if (error == 0) directory += (directory.empty() ? "" : "/") + part;
    }
    EXPECT_EQ(error, ENAMETOOLONG);
    EXPECT_EQ(ChangeTest::Create(directory, part), ENAMETOOLONG);
    EXPECT_EQ(Symlink(directory, part, "t"), ENAMETOOLONG);
}

TEST_F(Create, WhatIsMadeBelongsToTheCaller) {
    SKIP_UNLESS_ROOT();
    ASSERT_EQ(chmod(ShareDirectory().c_str(), 0777), 0);
    ActAs(kAlice, kStaff);
    ASSERT_EQ(ChangeTest::Create("", "f"), 0);
    ASSERT_EQ(MakeDirectory("", "d"), 0);
    ASSERT_EQ(Symlink("", "l", "f"), 0);
    for (const char* name : {"f", "d", "l"}) {
        EXPECT_EQ(StatOf(InShare(name)).st_uid, kAlice) << name;
        EXPECT_EQ(StatOf(InShare(name)).st_gid, kStaff) << name;
    }
}

TEST_F(Create, TheCallersRightsInTheDirectoryCount) {
    SKIP_UNLESS_ROOT();
    MakeDir(InShare("d"), 0755);
    ASSERT_EQ(chown(InShare("d").c_str(), kAlice, kStaff), 0);
    ActAs(kBob, kStaff);
    EXPECT_EQ(ChangeTest::Create("d", "f"), EACCES);
    EXPECT_EQ(MakeDirectory("d", "e"), EACCES);
    EXPECT_EQ(Symlink("d", "l", "x"), EACCES);
    ActAs(kAlice, kOthers);
    EXPECT_EQ(ChangeTest::Create("d", "f"), 0);
    EXPECT_EQ(MakeDirectory("d", "e"), 0);
    EXPECT_EQ(Symlink("d", "l", "x"), 0);
}

TEST_F(Create, ReadOnlyClientsMakeNothing) {
    options_.writable = false;
    SetOptions(options_);
    EXPECT_EQ(ChangeTest::Create("", "f"), EROFS);
    EXPECT_EQ(MakeDirectory("", "d"), EROFS);
    EXPECT_EQ(Symlink("", "l", "x"), EROFS);
    EXPECT_FALSE(Exists(InShare("f")) || Exists(InShare("d")) || Exists(InShare("l")));
}

// A new object is given to its caller under the ids of the call, which a squashed caller does not
// act with.
TEST_F(Create, SquashedCallersKeepWhatTheyMake) {
    SKIP_UNLESS_ROOT();
    options_.rootSquash = true;
    options_.anonUid = kAlice;
    options_.anonGid = kStaff;
    SetOptions(options_);
    ASSERT_EQ(chmod(ShareDirectory().c_str(), 0777), 0);
    ActAs(0, 0);
    for (const bool directory : {false, true}) {
        const std::string name = directory ? "d" : "f";
        ASSERT_EQ(directory ? MakeDirectory("", name) : ChangeTest::Create("", name), 0);
        OxelCtxt ctxt = Context(made_);
        EXPECT_EQ(made_->Chown(&ctxt, "/", 0, 0), 0);
        EXPECT_EQ(StatOf(InShare(name)).st_uid, kAlice);
        EXPECT_EQ(StatOf(InShare(name)).st_gid, kStaff);
    }
    options_.allSquash = true;
    SetOptions(options_);
    ActAs(kBob, kOthers);
    ASSERT_EQ(ChangeTest::Create("", "g"), 0);
    OxelCtxt ctxt = Context(made_);
    EXPECT_EQ(made_->Chown(&ctxt, "/", kBob, kOthers), 0);
    EXPECT_EQ(made_->Chown(&ctxt, "/", 0, 0), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(StatOf(InShare("g")).st_uid, kAlice);
}

TEST_F(Create, CallersWithoutRootMayChownTheirNewFileToThemselves) {
    SKIP_UNLESS_ROOT();
    ASSERT_EQ(chmod(ShareDirectory().c_str(), 0777), 0);
    ActAs(kAlice, kStaff);
    ASSERT_EQ(ChangeTest::Create("", "f"), 0);
    OxelCtxt ctxt = Context(made_);
    EXPECT_EQ(made_->Chown(&ctxt, "/", kAlice, kStaff), 0);
    EXPECT_EQ(made_->Chown(&ctxt, "/", kBob, kStaff), -1);
    EXPECT_EQ(errno, EPERM);
}

TEST_F(Create, NewFilesAreWrittenWhateverTheirMode) {
    SKIP_UNLESS_ROOT();
    ASSERT_EQ(chmod(ShareDirectory().c_str(), 0777), 0);
    ActAs(kAlice, kStaff);
    ASSERT_EQ(ChangeTest::Create("", "f", kExclusive, 0), 0);
    EXPECT_EQ(WriteTo("f", "text", 0, FILE_SYNC), 0);
    EXPECT_EQ(TextOf(InShare("f")), "text");
}

TEST_F(Create, ThePathOfANewObjectMeansTheObject) {
    ASSERT_EQ(ChangeTest::Create("", "f"), 0);
    OxelCtxt ctxt = Context(made_);
    struct stat st;
    EXPECT_EQ(made_->Stat(&ctxt, InShare("f"), &st), 0);
    EXPECT_EQ(st.st_ino, StatOf(InShare("f")).st_ino);
    EXPECT_EQ(made_->Chmod(&ctxt, InShare("f"), 0600), 0);
    EXPECT_EQ(made_->Truncate(&ctxt, InShare("f"), 7), 0);
    EXPECT_EQ(made_->Stat(&ctxt, "/", &st), 0);
    EXPECT_EQ(st.st_size, 7);
}

TEST_F(Create, TheDirectorysAttributesAreReadAnew) {
    const BkEndProcPtr root = Root();
    OxelCtxt ctxt = Context(root);
    const nlink_t before = StatOf(ShareDirectory()).st_nlink;
    ASSERT_TRUE(Root()->CreateChildDir(&ctxt, "d", 0755));
    struct stat st;
    EXPECT_EQ(root->Stat(&ctxt, root->GetPath(), &st), 0);
    EXPECT_EQ(st.st_nlink, StatOf(ShareDirectory()).st_nlink);
    EXPECT_EQ(st.st_mtim.tv_nsec, StatOf(ShareDirectory()).st_mtim.tv_nsec);
    EXPECT_GE(st.st_nlink, before);
}

TEST_F(Create, SymbolicLinksSayWhatTheyWereGiven) {
    for (const std::string target : {"f", "/etc/passwd", "../../..", "a//b/./c", " \n\xff"}) {
        ASSERT_EQ(Symlink("", "l", target), 0);
        const BkEndProcPtr link = Find("l");
        ASSERT_TRUE(link);
        OxelCtxt ctxt = Context(link);
        char text[4096];
        const ssize_t length = link->ReadLink(&ctxt, "/", text, sizeof text);
        ASSERT_GE(length, 0);
        EXPECT_EQ(std::string(text, static_cast<size_t>(length)), target);
        EXPECT_EQ(Unlink("", "l"), 0);
    }
    EXPECT_EQ(Symlink("", "l", ""), ENOENT);
    EXPECT_EQ(Symlink("", "l", std::string("a\0b", 3)), EINVAL);
    EXPECT_EQ(Symlink("", "l", std::string(4096, 'x')), ENAMETOOLONG);
    const BkEndProcPtr root = Root();
    OxelCtxt ctxt = Context(root);
    EXPECT_EQ(root->CreateSymlink(&ctxt, "t", "/somewhere/else"), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(Create, ProgramsCanBeStartedWhileTheirObjectLives) {
    ASSERT_EQ(ChangeTest::Create("", "program", kExclusive, 0755), 0);
    WriteFile(InShare("program"), "#!/bin/sh\nexit 7\n", 0755);
    const int status = system(InShare("program").c_str());
    EXPECT_EQ(WEXITSTATUS(status), 7);
}

TEST_F(Create, NoDescriptorIsLeft) {
    const auto round = [&] {
        EXPECT_EQ(ChangeTest::Create("", "f"), 0);
        EXPECT_EQ(ChangeTest::Create("", "f", kUnchecked), 0);
        EXPECT_EQ(ChangeTest::Create("", "f", kExclusive), EEXIST);
        EXPECT_EQ(MakeDirectory("", "d"), 0);
        EXPECT_EQ(MakeDirectory("", "d"), EEXIST);
        EXPECT_EQ(Symlink("", "l", "f"), 0);
        EXPECT_EQ(Link("f", "", "hard"), 0);
        EXPECT_EQ(Rename("", "hard", "d", "moved"), 0);
        EXPECT_EQ(Unlink("d", "moved"), 0);
        EXPECT_EQ(Unlink("", "f"), 0);
        EXPECT_EQ(Unlink("", "l"), 0);
        EXPECT_EQ(RemoveDirectory("", "d"), 0);
        made_.reset();
        ForgetEverything();
    };
    round();
    const int before = CountDescriptors();
    for (int i = 0; i < 3; ++i) {
        Restart();
        round();
    }
    EXPECT_EQ(CountDescriptors(), before);
}

TEST_F(Create, OneOfManyExclusiveMakersWins) {
    constexpr int kThreads = 4, kNames = 50;
    const BkEndProcPtr root = Root();
    std::atomic<int> made{0}, refused{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            IdInfo id = Caller();
            id.uid = geteuid();
            id.gid = getegid();
            OxelCtxt ctxt(id, share_, root);
            for (int n = 0; n < kNames; ++n) {
                if (root->CreateChild(&ctxt, "f" + std::to_string(n), kExclusive, 0600)) {
                    ++made;
                } else if (errno == EEXIST) {
                    ++refused;
                }
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(made, kNames);
    EXPECT_EQ(refused, kNames * (kThreads - 1));
}

}  // namespace
}  // namespace oxel::testing
