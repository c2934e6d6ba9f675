// SPDX-License-Identifier: Apache-2.0
//
// Delayed writes that really fail: a file system in an image whose own disk is full.
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "backend/FdCache.h"
#include "modules/local/disk_calls.h"
#include "modules/local/object_cache.h"
#include "tests/local/change_fixture.h"

namespace oxel::testing {
namespace {

class FailingDisk : public ChangeTest {
  protected:
    void SetUp() override {
        ChangeTest::SetUp();
        local::gDisk = &local::kRealDisk;
    }
    // Seen by this process alone. False where that is not allowed, or without loop devices.
    bool MountShareOnSmallDisk() {
        if (unshare(CLONE_NEWNS) != 0) return false;
        if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return false;
        if (mount("small", disk_.c_str(), "tmpfs", 0, "size=6m") != 0) return false;
        const std::string image = disk_ + "/image";
        const std::string command = "truncate -s 64M " + image + " && mkfs.ext2 -q -F " + image +
                                    " && mount -o loop " + image + " " + ShareDirectory();
        return system(command.c_str()) == 0;
    }
    int GrowDisk() { return mount("small", disk_.c_str(), nullptr, MS_REMOUNT, "size=128m"); }
    int CommitFrom(const char* client) {
        ComeFrom(client);
        return Commit("f");
    }

    std::string disk_;
};

constexpr char kOne[] = "192.0.2.1", kTwo[] = "192.0.2.2", kThree[] = "192.0.2.3";

TEST_F(FailingDisk, BothWritersAreToldAlthoughTheDiskHasRecoveredInBetween) {
    SKIP_UNLESS_ROOT();
    if (access("/dev/loop-control", R_OK | W_OK) != 0 || access("/usr/sbin/mkfs.ext2", X_OK) != 0) {
        GTEST_SKIP() << "this test needs loop devices and mkfs.ext2";
    }
    disk_ = Beside("");
    InChild([&] {
        if (!MountShareOnSmallDisk()) {
            fprintf(stderr, "No file system can be mounted here; nothing was tried.\n");
            return;
        }
        Restart();
        ASSERT_EQ(ChangeTest::Create("", "f"), 0);
        const std::string megabyte(1 << 20, 'x');
        ComeFrom(kOne);
        for (uint64_t n = 0; n < 16; ++n) ASSERT_EQ(WriteTo("f", megabyte, n << 20), 0);
        ComeFrom(kTwo);
        ASSERT_EQ(WriteTo("f", megabyte, 16 << 20), 0);
        // As when other files have pushed this one's descriptors out.
        gFdCache.Clear();
        made_.reset();
        local::ObjectCache::Instance().Clear();

        EXPECT_NE(CommitFrom(kTwo), 0);
        ASSERT_EQ(GrowDisk(), 0);
        int error = EIO;
        for (int attempt = 0; attempt < 5 && error != 0; ++attempt) error = CommitFrom(kThree);
        EXPECT_EQ(error, 0);
        gFdCache.Clear();
        EXPECT_NE(CommitFrom(kOne), 0);
        EXPECT_EQ(CommitFrom(kOne), 0);
        EXPECT_EQ(CommitFrom(kTwo), 0);
        ForgetEverything();
    });
}

TEST_F(FailingDisk, AWriteThatMustBeStableIsNotToldAsDone) {
    SKIP_UNLESS_ROOT();
    if (access("/dev/loop-control", R_OK | W_OK) != 0 || access("/usr/sbin/mkfs.ext2", X_OK) != 0) {
        GTEST_SKIP() << "this test needs loop devices and mkfs.ext2";
    }
    disk_ = Beside("");
    InChild([&] {
        if (!MountShareOnSmallDisk()) {
            fprintf(stderr, "No file system can be mounted here; nothing was tried.\n");
            return;
        }
        Restart();
        for (const stable_how stable : {FILE_SYNC, DATA_SYNC}) {
            ASSERT_EQ(ChangeTest::Create("", "f"), 0);
            const std::string megabyte(1 << 20, 'x');
            int error = 0;
            for (uint64_t n = 0; n < 16 && error == 0; ++n) {
                error = WriteTo("f", megabyte, n << 20, stable);
            }
            EXPECT_NE(error, 0);
            EXPECT_EQ(Unlink("", "f"), 0);
        }
        made_.reset();
        ForgetEverything();
    });
}

}  // namespace
}  // namespace oxel::testing
