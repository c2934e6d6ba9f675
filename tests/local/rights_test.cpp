// SPDX-License-Identifier: Apache-2.0
//
// Whose rights operations are done with, and what a client's rule takes away.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <thread>

#include "backend/FdCache.h"
#include "modules/local/server_groups.h"
#include "tests/local/fixture.h"

namespace oxel::testing {
namespace {

constexpr uid_t kAlice = 41000, kBob = 41001;
constexpr gid_t kStaff = 42000, kOthers = 42001;

uid_t FsUid() {
    return static_cast<uid_t>(syscall(SYS_setfsuid, -1));
}

class Rights : public LocalTest {
  protected:
    // Makes a file in the share that belongs to the two ids.
    void Own(const std::string& name, uid_t uid, gid_t gid, mode_t mode) {
        if (access(InShare(name).c_str(), F_OK) != 0) WriteFile(InShare(name), "text");
        ASSERT_EQ(lchown(InShare(name).c_str(), uid, gid), 0);
        ASSERT_EQ(chmod(InShare(name).c_str(), mode), 0);
    }
    // The errno of opening with those flags, 0 when it works.
    int OpenError(const std::string& name, uid_t uid, gid_t gid, int flags) {
        const BkEndProcPtr object = Find(name);
        OxelCtxt ctxt = As(uid, gid, object);
        const int fd = object->Open(&ctxt, "/", flags, 0);
        const int error = fd < 0 ? errno : 0;
        if (fd >= 0) object->Close(&ctxt, fd);
        RestoreOwnRights();
        return error;
    }
    // Access's answers to 4, 2 and 1 as "rwx".
    std::string AccessText(const std::string& name, uid_t uid, gid_t gid) {
        const BkEndProcPtr object = Find(name);
        OxelCtxt ctxt = As(uid, gid, object);
        std::string text;
        for (const auto& [mode, letter] : {std::pair(4, 'r'), {2, 'w'}, {1, 'x'}}) {
            text += object->Access(&ctxt, object->GetPath(), mode) == 0 ? letter : '-';
        }
        RestoreOwnRights();
        return text;
    }
    template <typename Operation>
    int ErrorOf(const std::string& name, uid_t uid, gid_t gid, Operation operation) {
        const BkEndProcPtr object = Find(name);
        OxelCtxt ctxt = As(uid, gid, object);
        errno = 0;
        const int error = operation(*object, ctxt) == 0 ? 0 : errno;
        RestoreOwnRights();
        return error;
    }
};

TEST_F(Rights, FilesAreOpenedWithTheCallersRights) {
    SKIP_UNLESS_ROOT();
    Own("private", kAlice, kStaff, 0600);
    Own("group", kAlice, kStaff, 0640);
    Own("public", kAlice, kStaff, 0644);
    EXPECT_EQ(OpenError("private", kAlice, kOthers, 0), 0);
    EXPECT_EQ(OpenError("private", kAlice, kOthers, 1), 0);
    EXPECT_EQ(OpenError("private", kBob, kStaff, 0), EACCES);
    EXPECT_EQ(OpenError("group", kBob, kStaff, 0), 0);
    EXPECT_EQ(OpenError("group", kBob, kStaff, 1), EACCES);
    EXPECT_EQ(OpenError("group", kBob, kOthers, 0), EACCES);
    EXPECT_EQ(OpenError("public", kBob, kOthers, 0), 0);
    EXPECT_EQ(OpenError("public", kBob, kOthers, 2), EACCES);
    EXPECT_EQ(OpenError("private", 0, 0, 2), 0);
}

TEST_F(Rights, DescriptorsAreNotSharedBetweenCallers) {
    SKIP_UNLESS_ROOT();
    Own("private", kAlice, kStaff, 0600);
    EXPECT_EQ(OpenError("private", kAlice, kStaff, 0), 0);
    EXPECT_EQ(OpenError("private", 0, 0, 0), 0);
    EXPECT_EQ(gFdCache.Count(), 2u);
    EXPECT_EQ(OpenError("private", kBob, kStaff, 0), EACCES);
    EXPECT_EQ(OpenError("private", kBob, kOthers, 0), EACCES);
}

TEST_F(Rights, KeptDescriptorsAreNotUsedAfterAChmodOnTheServer) {
    SKIP_UNLESS_ROOT();
    Own("f", kAlice, kStaff, 0644);
    EXPECT_EQ(OpenError("f", kBob, kOthers, 0), 0);
    Own("f", kAlice, kStaff, 0600);
    EXPECT_EQ(OpenError("f", kBob, kOthers, 0), EACCES);
    Own("f", kBob, kStaff, 0600);
    EXPECT_EQ(OpenError("f", kBob, kOthers, 0), 0);
}

TEST_F(Rights, OwnersReadAndWriteTheirFilesWhateverTheModeSays) {
    SKIP_UNLESS_ROOT();
    Own("f", kAlice, kStaff, 0);
    EXPECT_EQ(OpenError("f", kAlice, kOthers, 0), 0);
    EXPECT_EQ(OpenError("f", kAlice, kOthers, 1), 0);
    EXPECT_EQ(OpenError("f", kAlice, kOthers, 2), 0);
    EXPECT_EQ(OpenError("f", kBob, kStaff, 0), EACCES);
    // The client is still told that it may not, so that its own open(2) refuses.
    EXPECT_EQ(AccessText("f", kAlice, kOthers), "---");
    EXPECT_EQ(ErrorOf("f", kAlice, kStaff,
                      [](BkEndProc& f, OxelCtxt& ctxt) { return f.Truncate(&ctxt, "/", 1); }),
              0);
    EXPECT_EQ(StatOf(InShare("f")).st_size, 1);
}

TEST_F(Rights, ProgramsCanBeReadByWhoMayExecuteThem) {
    SKIP_UNLESS_ROOT();
    Own("program", kAlice, kStaff, 0711);
    EXPECT_EQ(OpenError("program", kBob, kOthers, 0), 0);
    EXPECT_EQ(OpenError("program", kBob, kOthers, 1), EACCES);
    EXPECT_EQ(AccessText("program", kBob, kOthers), "--x");
}

TEST_F(Rights, AccessAnswersForTheCaller) {
    SKIP_UNLESS_ROOT();
    Own("f", kAlice, kStaff, 0754);
    EXPECT_EQ(AccessText("f", kAlice, kOthers), "rwx");
    EXPECT_EQ(AccessText("f", kBob, kStaff), "r-x");
    EXPECT_EQ(AccessText("f", kBob, kOthers), "r--");
    EXPECT_EQ(AccessText("f", 0, 0), "rwx");
    Own("plain", kAlice, kStaff, 0600);
    EXPECT_EQ(AccessText("plain", 0, 0), "rw-");
}

TEST_F(Rights, LookupsNeedSearchAndListingsNeedRead) {
    SKIP_UNLESS_ROOT();
    MakeDir(InShare("d"));
    WriteFile(InShare("d/f"), "");
    const auto find = [](const char* name) {
        return [name](BkEndProc& d, OxelCtxt& ctxt) { return d.FindChild(&ctxt, name) ? 0 : -1; };
    };
    const auto list = [](BkEndProc& d, OxelCtxt& ctxt) {
        DirStream* stream = d.OpenDir(&ctxt, "/");
        if (stream == nullptr) return -1;
        d.CloseDir(&ctxt, stream);
        return 0;
    };
    Own("d", kAlice, kStaff, 0744);
    for (const char* name : {"f", ".", "..", "none"}) {
        EXPECT_EQ(ErrorOf("d", kBob, kOthers, find(name)), EACCES) << name;
    }
    EXPECT_EQ(ErrorOf("d", kBob, kOthers, list), 0);
    Own("d", kAlice, kStaff, 0711);
    EXPECT_EQ(ErrorOf("d", kBob, kOthers, find("f")), 0);
    EXPECT_EQ(ErrorOf("d", kBob, kOthers, list), EACCES);
    EXPECT_EQ(ErrorOf("d", kAlice, kOthers, list), 0);
}

TEST_F(Rights, RootIsSquashedUnlessTheRuleSaysOtherwise) {
    SKIP_UNLESS_ROOT();
    Own("roots", 0, 0, 0600);
    Own("nobodys", 65534, 65534, 0600);
    Own("group", kAlice, 65534, 0640);
    Own("alices", kAlice, kStaff, 0600);
    EXPECT_EQ(OpenError("roots", 0, 0, 0), 0);
    ClientOptions options = options_;
    options.rootSquash = true;
    SetOptions(options);
    EXPECT_EQ(OpenError("roots", 0, 0, 0), EACCES);
    EXPECT_EQ(OpenError("nobodys", 0, 0, 1), 0);
    EXPECT_EQ(OpenError("group", kBob, 0, 0), 0);
    EXPECT_EQ(OpenError("alices", kAlice, kStaff, 0), 0);
    options.anonUid = kAlice;
    SetOptions(options);
    EXPECT_EQ(OpenError("nobodys", 0, 0, 1), EACCES);
    EXPECT_EQ(OpenError("alices", 0, 0, 0), 0);
    options.anonUid = 65534;
    options.allSquash = true;
    SetOptions(options);
    EXPECT_EQ(OpenError("alices", kAlice, kStaff, 0), EACCES);
    EXPECT_EQ(OpenError("nobodys", kAlice, kStaff, 0), 0);
}

TEST_F(Rights, TheIdThatCannotExistIsAnonymous) {
    SKIP_UNLESS_ROOT();
    Own("nobodys", 65534, 65534, 0600);
    Own("roots", 0, 0, 0600);
    EXPECT_EQ(OpenError("nobodys", static_cast<uid_t>(-1), static_cast<gid_t>(-1), 0), 0);
    EXPECT_EQ(OpenError("roots", static_cast<uid_t>(-1), static_cast<gid_t>(-1), 0), EACCES);
}

TEST_F(Rights, SupplementaryGroupsCount) {
    SKIP_UNLESS_ROOT();
    Own("f", kAlice, kStaff, 0640);
    EXPECT_EQ(OpenError("f", kBob, kOthers, 0), EACCES);
    Caller().groups = {43000, kStaff};
    EXPECT_EQ(OpenError("f", kBob, kOthers, 0), 0);
    Caller().groups = {43000};
    EXPECT_EQ(OpenError("f", kBob, kOthers, 0), EACCES);
    Caller().groups.clear();
    EXPECT_EQ(OpenError("f", kBob, kOthers, 0), EACCES);
    // Not the process's own groups either.
    Own("roots", 0, 0, 0640);
    EXPECT_EQ(OpenError("roots", kBob, kOthers, 0), EACCES);
}

TEST_F(Rights, GroupsAreLookedUpOnTheServerWhereTheRuleSaysSo) {
    SKIP_UNLESS_ROOT();
    const std::vector<gid_t> groups = local::GroupsOfUser(1);  // daemon
    if (groups.empty() || groups.front() == 0) GTEST_SKIP() << "user 1 has no groups here";
    Own("f", kAlice, groups.front(), 0640);
    EXPECT_EQ(OpenError("f", 1, kOthers, 0), EACCES);
    ClientOptions options = options_;
    options.manageGids = true;
    SetOptions(options);
    EXPECT_EQ(OpenError("f", 1, kOthers, 0), 0);
    EXPECT_EQ(OpenError("f", kBob, kOthers, 0), EACCES);
    EXPECT_TRUE(local::GroupsOfUser(kBob).empty());
}

TEST_F(Rights, ReadOnlyClientsGetErofsForEveryModification) {
    WriteFile(InShare("f"), "text", 0666);
    ClientOptions options = options_;
    options.writable = false;
    SetOptions(options);
    EXPECT_EQ(OpenError("f", geteuid(), getegid(), 0), 0);
    EXPECT_EQ(OpenError("f", geteuid(), getegid(), 1), EROFS);
    EXPECT_EQ(OpenError("f", geteuid(), getegid(), 2), EROFS);
    const auto error = [&](auto operation) {
        return ErrorOf("f", geteuid(), getegid(), operation);
    };
    EXPECT_EQ(error([](BkEndProc& f, OxelCtxt& c) { return f.Chmod(&c, "/", 0600); }), EROFS);
    EXPECT_EQ(error([](BkEndProc& f, OxelCtxt& c) { return f.Chown(&c, "/", 1, 1); }), EROFS);
    EXPECT_EQ(error([](BkEndProc& f, OxelCtxt& c) { return f.Truncate(&c, "/", 0); }), EROFS);
    EXPECT_EQ(error([](BkEndProc& f, OxelCtxt& c) { return f.Access(&c, "/", 2); }), EROFS);
    EXPECT_EQ(error([](BkEndProc& f, OxelCtxt& c) { return f.Access(&c, "/", 4); }), 0);
    EXPECT_EQ(error([](BkEndProc& f, OxelCtxt& c) {
                  return f.SetTimes(&c, "/", {1, 0}, {1, 0});
              }),
              EROFS);
    EXPECT_EQ(share_->IsWritable(), 0u);
}

TEST_F(Rights, ClientsThatNoRuleMatchesAreRefused) {
    WriteFile(InShare("f"), "text", 0666);
    ShareConfig config;
    config.path = "/export";
    config.directory = ShareDirectory();
    config.id = kShareId;
    std::string reason;
    const ExportPtr closed = MakeLocalExport(config, &reason);
    ASSERT_TRUE(closed) << reason;
    const BkEndProcPtr object = Find("f");
    share_ = closed;
    OxelCtxt ctxt = AsSelf(object);
    EXPECT_EQ(object->Open(&ctxt, "/", 0, 0), -1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_FALSE(closed->IsClientAllowed(XOIPAddr(Caller().clientAddress), ""));
    EXPECT_EQ(closed->IsWritable(), 0u);
}

TEST_F(Rights, SecureRulesRefuseHighPorts) {
    ClientOptions options = options_;
    options.secure = true;
    SetOptions(options);
    CLuIPAddr address = Caller().clientAddress;
    address.SetPort(1023);
    EXPECT_TRUE(share_->IsClientAllowed(XOIPAddr(address), ""));
    address.SetPort(1024);
    EXPECT_FALSE(share_->IsClientAllowed(XOIPAddr(address), ""));
    EXPECT_EQ(share_->IsWritable(), 1u);
}

TEST_F(Rights, OnlyOwnersChangeModesAndOthersTimes) {
    SKIP_UNLESS_ROOT();
    Own("f", kAlice, kStaff, 0666);
    const auto chmodIt = [](BkEndProc& f, OxelCtxt& c) { return f.Chmod(&c, "/", 0640); };
    EXPECT_EQ(ErrorOf("f", kBob, kStaff, chmodIt), EPERM);
    const auto old = [](BkEndProc& f, OxelCtxt& c) { return f.SetTimes(&c, "/", {1, 0}, {1, 0}); };
    EXPECT_EQ(ErrorOf("f", kBob, kStaff, old), EPERM);
    EXPECT_EQ(ErrorOf("f", kAlice, kStaff, old), 0);
    EXPECT_EQ(ErrorOf("f", kAlice, kStaff, chmodIt), 0);
    // Writers may set the times to now, which arrives as a number.
    const auto touch = [](BkEndProc& f, OxelCtxt& c) {
        struct timeval now;
        gettimeofday(&now, nullptr);
        return f.SetTimes(&c, "/", now, now);
    };
    EXPECT_EQ(ErrorOf("f", kBob, kStaff, touch), EACCES);
    Own("f", kAlice, kStaff, 0666);
    EXPECT_EQ(ErrorOf("f", kBob, kOthers, touch), 0);
    EXPECT_GT(StatOf(InShare("f")).st_mtime, 1);
}

TEST_F(Rights, OwnersMayNotGiveFilesAwayButRootMay) {
    SKIP_UNLESS_ROOT();
    Own("f", kAlice, kStaff, 0644);
    const auto give = [](uid_t uid, gid_t gid) {
        return [=](BkEndProc& f, OxelCtxt& c) { return f.Chown(&c, "/", uid, gid); };
    };
    EXPECT_EQ(ErrorOf("f", kAlice, kStaff, give(kBob, kStaff)), EPERM);
    EXPECT_EQ(ErrorOf("f", kBob, kStaff, give(kBob, kStaff)), EPERM);
    EXPECT_EQ(ErrorOf("f", kAlice, kStaff, give(kAlice, kStaff)), 0);
    EXPECT_EQ(ErrorOf("f", 0, 0, give(kBob, kOthers)), 0);
    EXPECT_EQ(StatOf(InShare("f")).st_uid, kBob);
    EXPECT_EQ(StatOf(InShare("f")).st_gid, kOthers);
}

// CREATE and MKDIR give the new object to the ids of the call; a squashed caller's stand for the
// anonymous ones.
TEST_F(Rights, ANewObjectCanBeGivenToASquashedCaller) {
    SKIP_UNLESS_ROOT();
    Own("f", 65534, 65534, 0644);
    ClientOptions options = options_;
    options.rootSquash = true;
    SetOptions(options);
    const auto give = [](BkEndProc& f, OxelCtxt& c) {
        return f.Chown(&c, "/", c.id.uid, c.id.gid);
    };
    EXPECT_EQ(ErrorOf("f", 0, 0, give), 0);
    EXPECT_EQ(StatOf(InShare("f")).st_uid, 65534u);
    Own("roots", 0, 0, 0644);
    EXPECT_EQ(ErrorOf("roots", 0, 0, give), EPERM);
}

TEST_F(Rights, WithoutRootEverythingBelongsToTheDaemonsUser) {
    if (geteuid() == 0) GTEST_SKIP() << "for an ordinary user";
    WriteFile(InShare("f"), "text", 0600);
    EXPECT_EQ(OpenError("f", kAlice, kStaff, 2), 0);
    EXPECT_EQ(AccessText("f", 0, 0), "rw-");
    EXPECT_EQ(ErrorOf("f", kAlice, kStaff,
                      [](BkEndProc& f, OxelCtxt& c) { return f.Chown(&c, "/", kAlice, kStaff); }),
              0);
    EXPECT_EQ(ErrorOf("f", kAlice, kStaff,
                      [](BkEndProc& f, OxelCtxt& c) { return f.Chown(&c, "/", kBob, kStaff); }),
              EPERM);
    EXPECT_EQ(StatOf(InShare("f")).st_uid, geteuid());
}

TEST_F(Rights, SetIdBitsAreClearedByAWriterThatIsNotRoot) {
    SKIP_UNLESS_ROOT();
    Own("f", kAlice, kStaff, 06777);
    EXPECT_EQ(ErrorOf("f", kBob, kOthers,
                      [](BkEndProc& f, OxelCtxt& c) { return f.Truncate(&c, "/", 1); }),
              0);
    EXPECT_EQ(StatOf(InShare("f")).st_mode & 06000, 0u);
}

TEST_F(Rights, OneThreadsCallerIsNoOtherThreads) {
    SKIP_UNLESS_ROOT();
    Own("alices", kAlice, kStaff, 0600);
    Own("bobs", kBob, kStaff, 0600);
    const nfs_fh3 handles[2] = {HandleAt("alices"), HandleAt("bobs")};
    const uid_t users[2] = {kAlice, kBob};
    gFdCache.Init(0);
    std::atomic<int> wrong{0};
    const auto work = [&](int me) {
        IdInfo id;
        id.clientAddress = Caller().clientAddress;
        id.uid = users[me];
        id.gid = kOthers;
        for (int i = 0; i < 300; ++i) {
            for (int file = 0; file < 2; ++file) {
                ExportPtr share = share_;
                const BkEndProcPtr object = module_->GetBkEndProc(share, handles[file]);
                if (!object) {
                    ++wrong;
                    continue;
                }
                OxelCtxt ctxt(id, share, object);
                const int fd = object->Open(&ctxt, "/", 0, 0);
                if ((fd >= 0) != (file == me)) ++wrong;
                if (fd >= 0) object->Close(&ctxt, fd);
                if (FsUid() != users[me]) ++wrong;
            }
        }
        RestoreOwnRights();
        if (FsUid() != 0) ++wrong;
    };
    std::thread alice(work, 0), bob(work, 1);
    for (int i = 0; i < 1000; ++i) {
        if (FsUid() != 0) ++wrong;
    }
    alice.join();
    bob.join();
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(FsUid(), 0u);
}

TEST_F(Rights, MountsAreDoneWithTheProcessesOwnRights) {
    SKIP_UNLESS_ROOT();
    Own("f", kAlice, kStaff, 0600);
    const BkEndProcPtr object = Find("f");
    OxelCtxt ctxt = As(kAlice, kStaff, object);
    EXPECT_EQ(object->Access(&ctxt, "/", 4), 0);
    EXPECT_EQ(FsUid(), kAlice);
    nfs_fh3 root;
    EXPECT_EQ(share_->AddMountPoint(Caller().clientAddress, &root), 0);
    EXPECT_EQ(FsUid(), 0u);
}

}  // namespace
}  // namespace oxel::testing
