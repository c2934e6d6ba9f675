// SPDX-License-Identifier: Apache-2.0
//
// Namespaces and file systems in memory.
#include "tests/support/private_mounts.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace oxel::test {

static bool WriteProc(const char* file, const std::string& text) {
    const int fd = open(file, O_WRONLY | O_CLOEXEC);
    const bool done = fd >= 0 && write(fd, text.data(), text.size()) == ssize_t(text.size());
    if (fd >= 0) close(fd);
    return done;
}

std::string EnterPrivateMounts() {
    static const std::string outcome = [] {
        auto failed = [](const char* step) { return std::string(step) + ": " + strerror(errno); };
        const uid_t uid = geteuid();
        const gid_t gid = getegid();
        if (unshare(CLONE_NEWNS | (uid == 0 ? 0 : CLONE_NEWUSER)) != 0) return failed("unshare");
        if (uid != 0) {
            auto map = [](unsigned id) {
                return std::to_string(id) + " " + std::to_string(id) + " 1";
            };
            if (!WriteProc("/proc/self/setgroups", "deny") ||
                !WriteProc("/proc/self/uid_map", map(uid)) ||
                !WriteProc("/proc/self/gid_map", map(gid)))
                return failed("mapping the user");
        }
        if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
            return failed("making mounts private");
        return std::string();
    }();
    return outcome;
}

PrivateMount::PrivateMount(const std::string& directory, const std::string& options)
    : directory_(directory), options_(options), error_(EnterPrivateMounts()) {
    if (!error_.empty()) return;
    if (mount("tmpfs", directory_.c_str(), "tmpfs", 0, options_.c_str()) != 0)
        error_ = "mounting a file system in memory: " + std::string(strerror(errno));
    else
        EXPECT_EQ(chmod(directory_.c_str(), 0777), 0);
}

PrivateMount::~PrivateMount() {
    if (error_.empty()) {
        EXPECT_EQ(umount2(directory_.c_str(), MNT_DETACH), 0) << strerror(errno);
    }
}

bool PrivateMount::Remount(bool readOnly) const {
    const unsigned long flags = MS_REMOUNT | (readOnly ? MS_RDONLY : 0);
    return mount("tmpfs", directory_.c_str(), "tmpfs", flags, options_.c_str()) == 0;
}

void PrivateMount::Fill() const {
    const int fd = open((directory_ + "/filler").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    ASSERT_GE(fd, 0) << strerror(errno);
    const std::string block(65536, 'f');
    for (size_t bytes = block.size(); bytes > 0;) {
        if (write(fd, block.data(), bytes) < 0) bytes = errno == ENOSPC ? bytes / 2 : 0;
    }
    EXPECT_EQ(errno, ENOSPC) << strerror(errno);
    close(fd);
}

void PrivateMount::Empty() const {
    EXPECT_EQ(unlink((directory_ + "/filler").c_str()), 0) << strerror(errno);
}

}  // namespace oxel::test
