// SPDX-License-Identifier: Apache-2.0
//
// Opening and reading files, and the descriptors kept between calls.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>

#include "backend/FdCache.h"
#include "base/unique_fd.h"
#include "modules/local/disk_calls.h"
#include "modules/local/object_cache.h"
#include "tests/local/fixture.h"

namespace oxel::testing {
namespace {

class Io : public LocalTest {
  protected:
    void SetUp() override {
        LocalTest::SetUp();
        WriteFile(InShare("f"), "0123456789");
    }
    int OpenOnce(const BkEndProcPtr& object, int flags) {
        OxelCtxt ctxt = AsSelf(object);
        const int fd = object->Open(&ctxt, object->GetPath(), flags, 0);
        if (fd >= 0) object->Close(&ctxt, fd);
        return fd;
    }
};

TEST_F(Io, ReadsFromTheOffset) {
    const BkEndProcPtr object = Find("f");
    OxelCtxt ctxt = AsSelf(object);
    const int fd = object->Open(&ctxt, InShare("f"), 0, 0);
    ASSERT_GE(fd, 0);
    char text[32];
    EXPECT_EQ(object->Read(&ctxt, fd, text, 2, 3), 3);
    EXPECT_EQ(std::string(text, 3), "234");
    EXPECT_EQ(object->Read(&ctxt, fd, text, 8, 10), 2);
    EXPECT_EQ(object->Read(&ctxt, fd, text, 10, 10), 0);
    EXPECT_EQ(object->Read(&ctxt, fd, text, 1000, 10), 0);
    EXPECT_EQ(object->Read(&ctxt, fd, text, LLONG_MAX, 10), 0);
    EXPECT_EQ(object->Read(&ctxt, fd, text, ULLONG_MAX, 10), 0);
    EXPECT_EQ(object->Read(&ctxt, fd, text, 0, 0), 0);
    EXPECT_EQ(object->Close(&ctxt, fd), 0);
}

// A disk that reads at most three bytes at once, and none from the offset `badFrom` on.
off_t badFrom = LLONG_MAX;
int interrupts = 0;
const local::DiskCalls* SlowDisk() {
    static const local::DiskCalls disk = [] {
        local::DiskCalls calls = local::kRealDisk;
        calls.read = [](int fd, void* buffer, size_t count, off_t offset) -> ssize_t {
            if (interrupts > 0 || offset >= badFrom) {
                errno = interrupts-- > 0 ? EINTR : EIO;
                return -1;
            }
            return pread(fd, buffer, std::min<size_t>(count, 3), offset);
        };
        return calls;
    }();
    return &disk;
}

// It used to be told as it came, and the client was told that the file ended there.
TEST_F(Io, AReadThatComesShortIsGoneOnWithToTheEndOfTheFile) {
    const BkEndProcPtr object = Find("f");
    OxelCtxt ctxt = AsSelf(object);
    const int fd = object->Open(&ctxt, InShare("f"), 0, 0);
    local::gDisk = SlowDisk();
    char text[32];
    interrupts = 2;
    EXPECT_EQ(object->Read(&ctxt, fd, text, 1, 8), 8);
    EXPECT_EQ(std::string(text, 8), "12345678");
    EXPECT_EQ(object->Read(&ctxt, fd, text, 1, 20), 9);
    EXPECT_EQ(std::string(text, 9), "123456789");
    badFrom = 7;
    EXPECT_EQ(object->Read(&ctxt, fd, text, 0, 6), 6);
    EXPECT_EQ(object->Read(&ctxt, fd, text, 1, 8), -1);
    EXPECT_EQ(errno, EIO);
    badFrom = LLONG_MAX;
    local::gDisk = &local::kRealDisk;
    object->Close(&ctxt, fd);
}

TEST_F(Io, OnlyRegularFilesAreOpened) {
    MakeDir(InShare("d"));
    ASSERT_EQ(mkfifo(InShare("fifo").c_str(), 0666), 0);
    for (const int flags : {0, 1, 2}) {
        EXPECT_EQ(OpenOnce(Find("d"), flags), -1);
        EXPECT_EQ(errno, EISDIR);
        EXPECT_EQ(OpenOnce(Find("fifo"), flags), -1);
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_EQ(OpenOnce(Find("f"), 3), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(Io, AFileReplacedByAFifoIsStillTheFile) {
    const BkEndProcPtr object = Find("f");
    Move(InShare("f"), InShare("kept"));
    ASSERT_EQ(mkfifo(InShare("f").c_str(), 0666), 0);
    OxelCtxt ctxt = AsSelf(object);
    EXPECT_EQ(ReadAll(*object, ctxt), "0123456789");
}

TEST_F(Io, DescriptorsAreKeptForTheNextCall) {
    const nfs_fh3 handle = HandleAt("f");
    const int first = OpenOnce(Resolve(handle), 0);
    ASSERT_GE(first, 0);
    EXPECT_EQ(gFdCache.Count(), 1u);
    EXPECT_EQ(OpenOnce(Resolve(handle), 0), first);
    local::ObjectCache::Instance().Clear();
    EXPECT_EQ(OpenOnce(Resolve(handle), 0), first);
    EXPECT_NE(OpenOnce(Resolve(handle), 1), first);
    EXPECT_EQ(gFdCache.Count(), 2u);
}

TEST_F(Io, DescriptorsAreForgottenWhenTheFileChanges) {
    const nfs_fh3 handle = HandleAt("f");
    for (int change = 0; change < 3; ++change) {
        const BkEndProcPtr object = Resolve(handle);
        OpenOnce(object, 0);
        EXPECT_EQ(gFdCache.Count(), 1u);
        OxelCtxt ctxt = AsSelf(object);
        switch (change) {
            case 0:
                EXPECT_EQ(object->Chmod(&ctxt, "/", 0600), 0);
                break;
            case 1:
                EXPECT_EQ(object->Chown(&ctxt, "/", geteuid(), getegid()), 0);
                break;
            case 2:
                EXPECT_EQ(object->Truncate(&ctxt, "/", 5), 0);
                break;
        }
        EXPECT_EQ(gFdCache.Count(), 0u) << change;
    }
}

TEST_F(Io, DescriptorsAreForgottenWhenTheFileIsRemovedOnTheServer) {
    const nfs_fh3 handle = HandleAt("f");
    OpenOnce(Resolve(handle), 0);
    Remove(InShare("f"));
    EXPECT_FALSE(Resolve(handle));
    EXPECT_EQ(gFdCache.Count(), 0u);
}

TEST_F(Io, AnOpenDescriptorOutlivesForgettingUntilItIsClosed) {
    const BkEndProcPtr object = Find("f");
    OxelCtxt ctxt = AsSelf(object);
    const int fd = object->Open(&ctxt, "/", 0, 0);
    ASSERT_EQ(object->Chmod(&ctxt, "/", 0600), 0);
    char text[16];
    EXPECT_EQ(object->Read(&ctxt, fd, text, 0, 16), 10);
    EXPECT_EQ(object->Close(&ctxt, fd), 0);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    EXPECT_EQ(object->Close(&ctxt, fd), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(Io, CloseLeavesForeignDescriptorsAlone) {
    const BkEndProcPtr object = Find("f");
    OxelCtxt ctxt = AsSelf(object);
    const int own = dup(2);
    EXPECT_EQ(object->Close(&ctxt, own), -1);
    EXPECT_EQ(fcntl(own, F_GETFD), 0);
    close(own);
}

TEST_F(Io, NoDescriptorsAreLeaked) {
    MakeDir(InShare("d"));
    for (int i = 0; i < 20; ++i) WriteFile(InShare("d/n" + std::to_string(i)), "x");
    const auto work = [&] {
        for (int i = 0; i < 20; ++i) {
            const BkEndProcPtr object = Find("d/n" + std::to_string(i));
            OxelCtxt ctxt = AsSelf(object);
            EXPECT_EQ(ReadAll(*object, ctxt), "x");
            struct stat st;
            EXPECT_EQ(object->Stat(&ctxt, "/", &st), 0);
            EXPECT_TRUE(object->GetParent(&ctxt));
            const BkEndProcPtr directory = Find("d");
            OxelCtxt directoryCtxt = AsSelf(directory);
            DirStream* stream = directory->OpenDir(&directoryCtxt, "/");
            EXPECT_NE(directory->ReadDir(&directoryCtxt, stream), nullptr);
            directory->CloseDir(&directoryCtxt, stream);
            EXPECT_FALSE(directory->FindChild(&directoryCtxt, "none"));
            EXPECT_TRUE(directory->FindChild(&directoryCtxt, ".."));
            nfs_fh3 forged = HandleOf(object);
            forged.objectId[5] ^= 1;
            EXPECT_FALSE(Resolve(forged));
        }
        local::ObjectCache::Instance().Clear();
        gFdCache.Clear();
    };
    work();
    const int before = CountDescriptors();
    work();
    EXPECT_EQ(CountDescriptors(), before);
}

TEST_F(Io, IdleFilesAreClosed) {
    const nfs_fh3 handle = HandleAt("f");
    OpenOnce(Resolve(handle), 0);
    ForgetEverything();
    Restart();
    const int before = CountDescriptors();
    OpenOnce(Resolve(handle), 0);
    EXPECT_EQ(CountDescriptors(), before + 2);
    DropIdleLocalFiles(60 * 1000);
    EXPECT_EQ(CountDescriptors(), before + 2);
    DropIdleLocalFiles(0);
    EXPECT_EQ(CountDescriptors(), before);
}

TEST_F(Io, SharesThatAreGoneKeepNothingOpen) {
    OpenOnce(Find("f"), 0);
    (void)Find("f");
    EXPECT_GT(local::ObjectCache::Instance().Count(), 0u);
    Publish({});
    share_.reset();
    EXPECT_EQ(local::ObjectCache::Instance().Count(), 0u);
    EXPECT_EQ(gFdCache.Count(), 0u);
}

TEST_F(Io, KeptDescriptorsGiveWayWhenTheProcessRunsOut) {
    for (int i = 0; i < 40; ++i) WriteFile(InShare("n" + std::to_string(i)), "x");
    std::vector<nfs_fh3> handles;
    for (int i = 0; i < 40; ++i) handles.push_back(HandleAt("n" + std::to_string(i)));
    ForgetEverything();
    Restart();
    rlimit old;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &old), 0);
    rlimit low = old;
    low.rlim_cur = static_cast<rlim_t>(CountDescriptors()) + 24;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
    int served = 0;
    for (const nfs_fh3& handle : handles) {
        const BkEndProcPtr object = Resolve(handle);
        if (!object) continue;
        OxelCtxt ctxt = AsSelf(object);
        if (ReadAll(*object, ctxt) == "x") ++served;
    }
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &old), 0);
    EXPECT_EQ(served, 40);
}

// Handles of inode numbers follow what was moved behind the daemon's back by searching the share;
// that a search could not look everywhere says nothing about the file.
TEST_F(Io, AFileThatWasNotFoundForWantOfDescriptorsIsFoundAfterwards) {
    MakeDir(InShare("d"));
    WriteFile(InShare("f"), "text");
    const nfs_fh3 handle = HandleAt("f");
    ForgetEverything();
    Restart();
    Move(InShare("f"), InShare("d/g"));
    rlimit old;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &old), 0);
    rlimit low = old;
    low.rlim_cur = static_cast<rlim_t>(CountDescriptors()) + 24;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
    std::vector<UniqueFd> fill;
    do {
        fill.emplace_back(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0));
    } while (fill.back());
    EXPECT_FALSE(Resolve(handle));
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &old), 0);
    const BkEndProcPtr found = Resolve(handle);
    ASSERT_TRUE(found);
    EXPECT_EQ(found->GetPath(), InShare("d/g"));
}

}  // namespace
}  // namespace oxel::testing
