// SPDX-License-Identifier: Apache-2.0
//
// Writing, its three stabilities, and errors of delayed writes.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <map>
#include <mutex>
#include <thread>

#include "backend/FdCache.h"
#include "base/unique_fd.h"
#include "modules/local/disk_calls.h"
#include "modules/local/syscalls.h"
#include "modules/local/write_errors.h"
#include "tests/local/change_fixture.h"

namespace oxel::testing {
namespace {

using local::DelayedWrites;

constexpr uid_t kAlice = 41000, kBob = 41001;
constexpr gid_t kStaff = 42000;

// A disk that notes what it is asked for, and fails when it is told to. An error of a delayed write
// is told as the kernel does: once for each open file.
struct FakeDisk {
    std::atomic<int> lastFlags{-1};
    std::atomic<int> syncs{0}, dataSyncs{0}, fileSystemSyncs{0};
    std::atomic<int> syncError{0}, fileSystemError{0}, takenError{0}, syncInterrupts{0};
    std::atomic<int> flagsRefused{0};
    std::atomic<ssize_t> writeResult{-2};  // -2: write really
    std::atomic<size_t> writeMax{SIZE_MAX};
};
FakeDisk* fake = nullptr;

int Fail(std::atomic<int>* error) {
    const int value = error->exchange(0);
    if (value == 0) return 0;
    errno = value;
    return -1;
}

const local::DiskCalls kFakeDisk = {
    [](int fd, const void* data, size_t count, off_t offset, int flags) -> ssize_t {
        fake->lastFlags = flags;
        if (flags != 0 && fake->flagsRefused != 0) {
            errno = EOPNOTSUPP;
            return -1;
        }
        if (fake->writeResult != -2) return fake->writeResult;
        return local::kRealDisk.write(fd, data, std::min(count, fake->writeMax.load()), offset,
                                      flags);
    },
    [](int) {
        if (fake->syncInterrupts > 0) {
            --fake->syncInterrupts;
            errno = EINTR;
            return -1;
        }
        ++fake->syncs;
        return Fail(&fake->syncError);
    },
    [](int) {
        ++fake->dataSyncs;
        return Fail(&fake->syncError);
    },
    [](int) {
        ++fake->fileSystemSyncs;
        return Fail(&fake->fileSystemError);
    },
    [](int) { return Fail(&fake->takenError); },
};

class Write : public ChangeTest {
  protected:
    void SetUp() override {
        ChangeTest::SetUp();
        WriteFile(InShare("f"), "0123456789");
    }
    void TearDown() override {
        ChangeTest::TearDown();
        fake = nullptr;
    }
    FakeDisk& UseFakeDisk() {
        fake = &disk_;
        local::gDisk = &kFakeDisk;
        return disk_;
    }

  private:
    FakeDisk disk_;
};

TEST_F(Write, WritesAtTheOffsetWithEveryStability) {
    EXPECT_EQ(WriteTo("f", "ab", 1, UNSTABLE), 0);
    EXPECT_EQ(WriteTo("f", "cd", 4, DATA_SYNC), 0);
    EXPECT_EQ(WriteTo("f", "ef", 7, FILE_SYNC), 0);
    EXPECT_EQ(TextOf(InShare("f")), "0ab3cd6ef9");
    EXPECT_EQ(WriteTo("f", "end", 12, FILE_SYNC), 0);
    EXPECT_EQ(TextOf(InShare("f")), std::string("0ab3cd6ef9\0\0end", 15));
    EXPECT_EQ(Commit("f"), 0);
}

TEST_F(Write, OneCallWritesAndSyncs) {
    FakeDisk& disk = UseFakeDisk();
    EXPECT_EQ(WriteTo("f", "x", 0, FILE_SYNC), 0);
    EXPECT_EQ(disk.lastFlags, RWF_SYNC);
    EXPECT_EQ(WriteTo("f", "x", 0, DATA_SYNC), 0);
    EXPECT_EQ(disk.lastFlags, RWF_DSYNC);
    EXPECT_EQ(WriteTo("f", "x", 0, UNSTABLE), 0);
    EXPECT_EQ(disk.lastFlags, 0);
    EXPECT_EQ(disk.syncs + disk.dataSyncs + disk.fileSystemSyncs, 0);
    // From any other number nothing less than the most can be concluded.
    EXPECT_EQ(Commit("f"), 0);
    EXPECT_EQ(WriteTo("f", "x", 0, static_cast<stable_how>(9)), 0);
    EXPECT_EQ(disk.lastFlags, RWF_SYNC);
}

TEST_F(Write, WhereTheFlagsAreUnknownTheFileIsSyncedAfterwards) {
    FakeDisk& disk = UseFakeDisk();
    disk.flagsRefused = 1;
    EXPECT_EQ(WriteTo("f", "x", 0, FILE_SYNC), 0);
    EXPECT_EQ(disk.syncs, 1);
    EXPECT_EQ(WriteTo("f", "y", 0, DATA_SYNC), 0);
    EXPECT_EQ(disk.dataSyncs, 1);
    disk.syncError = EIO;
    disk.syncInterrupts = 2;
    EXPECT_EQ(WriteTo("f", "z", 0, FILE_SYNC), EIO);
}

TEST_F(Write, AShortWriteIsToldAsShort) {
    FakeDisk& disk = UseFakeDisk();
    disk.writeMax = 3;
    const BkEndProcPtr object = Find("f");
    OxelCtxt ctxt = AsSelf(object);
    const int fd = object->Open(&ctxt, "/", 1, 0);
    for (const stable_how stable : {UNSTABLE, DATA_SYNC, FILE_SYNC}) {
        EXPECT_EQ(object->Write(&ctxt, fd, "abcdef", 0, 6, stable), 3);
    }
    object->Close(&ctxt, fd);
}

TEST_F(Write, WritingNothingForNoReasonIsAnError) {
    FakeDisk& disk = UseFakeDisk();
    disk.writeResult = 0;
    EXPECT_EQ(WriteTo("f", "x", 0, UNSTABLE), EIO);
    EXPECT_EQ(WriteTo("f", "x", 0, FILE_SYNC), EIO);
}

TEST_F(Write, OffsetsThatNoFileReachesAreTooBig) {
    for (const stable_how stable : {UNSTABLE, FILE_SYNC}) {
        EXPECT_EQ(WriteTo("f", "xy", ULLONG_MAX, stable), EFBIG);
        EXPECT_EQ(WriteTo("f", "xy", uint64_t{1} << 63, stable), EFBIG);
        EXPECT_EQ(WriteTo("f", "xy", LLONG_MAX, stable), EFBIG);
        EXPECT_EQ(WriteTo("f", "xy", LLONG_MAX - 1, stable), EFBIG);
        EXPECT_EQ(WriteTo("f", "xy", LLONG_MAX - 4096, stable), EFBIG);
    }
    EXPECT_EQ(TextOf(InShare("f")), "0123456789");
}

TEST_F(Write, PastTheProcessLimitIsTooBig) {
    InChild([&] {
        (void)signal(SIGXFSZ, SIG_IGN);  // as at the daemon's start
        const rlimit limit = {100, 100};
        ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
        EXPECT_EQ(WriteTo("f", "xy", 100, UNSTABLE), EFBIG);
        EXPECT_EQ(WriteTo("f", "xy", 100, FILE_SYNC), EFBIG);
        EXPECT_EQ(WriteTo("f", "xy", 50, FILE_SYNC), 0);
    });
}

TEST_F(Write, AReadOnlyClientWritesAndCommitsNothing) {
    options_.writable = false;
    SetOptions(options_);
    EXPECT_EQ(WriteTo("f", "x"), EROFS);
    EXPECT_EQ(Commit("f"), EROFS);
    // Nor through a descriptor from before the rule changed.
    const BkEndProcPtr object = Find("f");
    OxelCtxt ctxt = AsSelf(object);
    const UniqueFd fd(open(InShare("f").c_str(), O_RDWR | O_CLOEXEC));
    EXPECT_EQ(object->Write(&ctxt, fd.Get(), "x", 0, 1, UNSTABLE), -1);
    EXPECT_EQ(errno, EROFS);
    EXPECT_EQ(TextOf(InShare("f")), "0123456789");
}

TEST_F(Write, OwnersWriteWhateverTheModeSays) {
    SKIP_UNLESS_ROOT();
    ASSERT_EQ(chown(InShare("f").c_str(), kAlice, kStaff), 0);
    ASSERT_EQ(chmod(InShare("f").c_str(), 0444), 0);
    ActAs(kBob, kStaff);
    EXPECT_EQ(WriteTo("f", "x"), EACCES);
    EXPECT_EQ(Commit("f"), EACCES);
    ActAs(kAlice, kStaff);
    EXPECT_EQ(WriteTo("f", "ab", 0, FILE_SYNC), 0);
    EXPECT_EQ(Commit("f"), 0);
    EXPECT_EQ(TextOf(InShare("f")), "ab23456789");
}

TEST_F(Write, SetIdBitsGoWhenAnotherThanRootWrites) {
    SKIP_UNLESS_ROOT();
    ASSERT_EQ(chown(InShare("f").c_str(), kAlice, kStaff), 0);
    ASSERT_EQ(chmod(InShare("f").c_str(), 06777), 0);
    EXPECT_EQ(WriteTo("f", "x"), 0);  // root
    EXPECT_EQ(StatOf(InShare("f")).st_mode & 07777, 06777u);
    ActAs(kBob, kStaff);
    EXPECT_EQ(WriteTo("f", "x"), 0);
    EXPECT_EQ(StatOf(InShare("f")).st_mode & 07777, 0777u);
    // The owner too, also when his rights to write come from being the owner alone.
    ASSERT_EQ(chmod(InShare("f").c_str(), 06555), 0);
    ActAs(kAlice, kStaff);
    EXPECT_EQ(WriteTo("f", "x"), 0);
    EXPECT_EQ(StatOf(InShare("f")).st_mode & 07777, 0555u);
}

TEST_F(Write, AttributesReadAfterwardsAreNew) {
    const nfs_fh3 handle = HandleAt("f");
    const BkEndProcPtr object = Resolve(handle);
    OxelCtxt ctxt = AsSelf(object);
    const int fd = object->Open(&ctxt, "/", 1, 0);
    EXPECT_EQ(object->Write(&ctxt, fd, "abc", 100, 3, UNSTABLE), 3);
    struct stat st;
    EXPECT_EQ(object->Stat(&ctxt, object->GetPath(), &st), 0);
    EXPECT_EQ(st.st_size, 103);
    object->Close(&ctxt, fd);
}

TEST_F(Write, CommitSyncsTheFileAndItsFileSystem) {
    FakeDisk& disk = UseFakeDisk();
    EXPECT_EQ(WriteTo("f", "x"), 0);
    EXPECT_EQ(disk.syncs + disk.fileSystemSyncs, 0);
    EXPECT_EQ(Commit("f"), 0);
    EXPECT_EQ(disk.syncs, 1);
    EXPECT_EQ(disk.fileSystemSyncs, 1);
    disk.syncError = ENOSPC;
    EXPECT_EQ(Commit("f"), ENOSPC);
    EXPECT_EQ(disk.fileSystemSyncs, 2);
    disk.fileSystemError = EIO;
    EXPECT_EQ(Commit("f"), EIO);
    EXPECT_EQ(Commit("f"), 0);
}

class WriteErrors : public Write {
  protected:
    void SetUp() override {
        Write::SetUp();
        disk_ = &UseFakeDisk();
    }
    int WriteFrom(const char* client, stable_how stable = UNSTABLE) {
        ComeFrom(client);
        return WriteTo("f", "x", 0, stable);
    }
    int CommitFrom(const char* client) {
        ComeFrom(client);
        return Commit("f");
    }
    FakeDisk* disk_ = nullptr;
};

constexpr char kOne[] = "192.0.2.1", kTwo[] = "192.0.2.2", kThree[] = "2001:db8::3";

TEST_F(WriteErrors, EveryClientWithUncommittedDataIsToldOnce) {
    for (const char* client : {kOne, kTwo, kThree}) EXPECT_EQ(WriteFrom(client), 0);
    disk_->syncError = EIO;
    EXPECT_EQ(CommitFrom(kTwo), EIO);
    EXPECT_EQ(CommitFrom(kOne), EIO);
    EXPECT_EQ(CommitFrom(kOne), 0);
    EXPECT_EQ(CommitFrom(kTwo), 0);
    EXPECT_EQ(WriteFrom(kThree, FILE_SYNC), EIO);
    EXPECT_EQ(WriteFrom(kThree, FILE_SYNC), 0);
    EXPECT_EQ(CommitFrom(kThree), 0);
    EXPECT_EQ(DelayedWrites::Instance().Count(), 0u);
}

TEST_F(WriteErrors, ASyncingWriteThatMeetsTheErrorPassesItOn) {
    EXPECT_EQ(WriteFrom(kOne), 0);
    disk_->syncError = EIO;
    EXPECT_EQ(WriteFrom(kTwo, FILE_SYNC), EIO);
    EXPECT_EQ(CommitFrom(kTwo), 0);
    EXPECT_EQ(CommitFrom(kOne), EIO);
    EXPECT_EQ(CommitFrom(kOne), 0);
}

TEST_F(WriteErrors, AnErrorOfTheWriteItselfConcernsNobodyElse) {
    EXPECT_EQ(WriteFrom(kOne), 0);
    ComeFrom(kTwo);
    EXPECT_EQ(WriteTo("f", "xy", LLONG_MAX - 4096, FILE_SYNC), EFBIG);
    EXPECT_EQ(CommitFrom(kOne), 0);
}

TEST_F(WriteErrors, CommittedDataIsNotConcerned) {
    EXPECT_EQ(WriteFrom(kOne), 0);
    EXPECT_EQ(WriteFrom(kTwo), 0);
    EXPECT_EQ(CommitFrom(kOne), 0);  // the other's data is on the disk as well
    disk_->syncError = EIO;
    EXPECT_EQ(CommitFrom(kThree), EIO);
    EXPECT_EQ(CommitFrom(kOne), 0);
    EXPECT_EQ(CommitFrom(kTwo), 0);
}

TEST_F(WriteErrors, AnErrorOfTheFileSystemIsToldToWhoAsks) {
    EXPECT_EQ(WriteFrom(kOne), 0);
    EXPECT_EQ(WriteFrom(kTwo), 0);
    disk_->fileSystemError = EIO;
    EXPECT_EQ(CommitFrom(kOne), EIO);
    EXPECT_EQ(CommitFrom(kTwo), 0);
}

TEST_F(WriteErrors, AnErrorThatOnlyTheWritersDescriptorWasToldOfIsFound) {
    EXPECT_EQ(WriteFrom(kOne), 0);
    gFdCache.Clear();
    disk_->takenError = EIO;
    EXPECT_EQ(CommitFrom(kOne), EIO);
    EXPECT_EQ(CommitFrom(kOne), 0);
}

TEST_F(WriteErrors, FilesStayOpenUntilTheyAreCommitted) {
    DelayedWrites& delayed = DelayedWrites::Instance();
    EXPECT_EQ(WriteFrom(kOne), 0);
    gFdCache.Clear();
    EXPECT_EQ(delayed.CountOpen(), 1u);
    EXPECT_EQ(WriteFrom(kTwo), 0);
    EXPECT_EQ(delayed.CountOpen(), 1u);
    EXPECT_EQ(CommitFrom(kTwo), 0);
    EXPECT_EQ(delayed.CountOpen(), 0u);
    EXPECT_EQ(delayed.Count(), 0u);
}

TEST_F(WriteErrors, WhatNobodyCommitsIsSyncedAndItsErrorKept) {
    DelayedWrites& delayed = DelayedWrites::Instance();
    EXPECT_EQ(WriteFrom(kOne), 0);
    delayed.SettleIdle(0);  // nothing is that old
    EXPECT_EQ(delayed.CountOpen(), 1u);
    disk_->syncError = EIO;
    delayed.SettleIdle(local::NowMs() + 1);
    EXPECT_EQ(delayed.CountOpen(), 0u);
    EXPECT_EQ(delayed.Count(), 1u);
    EXPECT_EQ(CommitFrom(kTwo), 0);
    EXPECT_EQ(CommitFrom(kOne), EIO);
    EXPECT_EQ(delayed.Count(), 0u);

    EXPECT_EQ(WriteFrom(kOne), 0);
    delayed.SettleIdle(local::NowMs() + 1);
    EXPECT_EQ(delayed.Count(), 0u);
}

TEST_F(WriteErrors, WhatCannotBeRememberedIsMadeStableAtOnce) {
    DelayedWrites::Instance().SetLimit(1);
    WriteFile(InShare("g"), "");
    EXPECT_EQ(WriteTo("f", "x"), 0);
    EXPECT_EQ(disk_->lastFlags, 0);
    EXPECT_EQ(WriteTo("g", "x"), 0);
    EXPECT_EQ(disk_->lastFlags, RWF_DSYNC);
    EXPECT_EQ(WriteTo("f", "x"), 0);
    EXPECT_EQ(disk_->lastFlags, 0);
    // An error that waits for its client gives way to data that is under way.
    ComeFrom(kOne);
    EXPECT_EQ(WriteTo("f", "x"), 0);
    disk_->syncError = EIO;
    EXPECT_EQ(CommitFrom(kTwo), EIO);
    EXPECT_EQ(DelayedWrites::Instance().CountOpen(), 0u);
    EXPECT_EQ(WriteTo("g", "x"), 0);
    EXPECT_EQ(disk_->lastFlags, 0);
    EXPECT_EQ(DelayedWrites::Instance().Count(), 1u);
}

TEST_F(WriteErrors, TooManyClientsOfOneFileAreMadeToWait) {
    for (int i = 1; i <= 64; ++i) {
        EXPECT_EQ(WriteFrom(("198.51.100." + std::to_string(i)).c_str()), 0);
        EXPECT_EQ(disk_->lastFlags, 0);
    }
    EXPECT_EQ(WriteFrom(kOne), 0);
    EXPECT_EQ(disk_->dataSyncs, 1);
}

TEST_F(WriteErrors, RemovedFilesAreForgotten) {
    EXPECT_EQ(WriteFrom(kOne), 0);
    EXPECT_EQ(Unlink("", "f"), 0);
    EXPECT_EQ(DelayedWrites::Instance().Count(), 0u);
}

TEST_F(WriteErrors, NoShareNoOpenFile) {
    EXPECT_EQ(WriteFrom(kOne), 0);
    ForgetEverything();
    EXPECT_EQ(DelayedWrites::Instance().CountOpen(), 0u);
    EXPECT_EQ(disk_->syncs, 1);
    Restart();
}

// Writers and committers of one file on several threads; every sync that fails must be told to at
// least the client that asked, and nothing may stay behind.
TEST_F(WriteErrors, ManyThreadsLeaveNothingBehind) {
    constexpr int kThreads = 4, kRounds = 200;
    const BkEndProcPtr object = Find("f");
    std::atomic<int> told{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            IdInfo id = Caller();
            ASSERT_TRUE(
                CLuIPAddr::Parse("192.0.2." + std::to_string(10 + t), 800, &id.clientAddress));
            id.uid = geteuid();
            id.gid = getegid();
            OxelCtxt ctxt(id, share_, object);
            for (int round = 0; round < kRounds; ++round) {
                const int fd = object->Open(&ctxt, "/", 2, 0);
                ASSERT_GE(fd, 0);
                EXPECT_EQ(object->Write(&ctxt, fd, "x", 0, 1, UNSTABLE), 1);
                if (round % 16 == t) disk_->syncError = EIO;
                if (object->SyncFs(&ctxt, fd) != 0) ++told;
                object->Close(&ctxt, fd);
            }
            // What the others met meanwhile.
            const int fd = object->Open(&ctxt, "/", 2, 0);
            (void)object->SyncFs(&ctxt, fd);
            object->Close(&ctxt, fd);
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_GT(told, 0);
    EXPECT_EQ(DelayedWrites::Instance().CountOpen(), 0u);
    disk_->syncError = 0;
}

}  // namespace
}  // namespace oxel::testing
