// SPDX-License-Identifier: Apache-2.0
//
// A network with nothing in it but loopback, and an empty /run, for a child process: what it says
// to "the port mapper" reaches nobody on this machine.
#pragma once

#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <string>

#include "base/unique_fd.h"

namespace oxel::test {

// At the start of a child's body, before any thread. False when this system does not allow it.
inline bool EnterPrivateNetwork() {
    const uid_t uid = geteuid();
    const gid_t gid = getegid();
    if (unshare(CLONE_NEWNET | CLONE_NEWNS) != 0) {
        if (unshare(CLONE_NEWUSER | CLONE_NEWNET | CLONE_NEWNS) != 0) return false;
        std::ofstream("/proc/self/setgroups") << "deny";
        std::ofstream("/proc/self/uid_map") << "0 " << uid << " 1";
        std::ofstream("/proc/self/gid_map") << "0 " << gid << " 1";
    }
    if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", "/run", "tmpfs", 0, nullptr) != 0)
        return false;
    const UniqueFd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ifreq loopback{};
    strcpy(loopback.ifr_name, "lo");
    loopback.ifr_flags = IFF_UP | IFF_RUNNING;
    return ioctl(fd.Get(), SIOCSIFFLAGS, &loopback) == 0;
}

// In the private network: `text` instead of the file, for this process.
inline bool Cover(const std::string& file, const std::string& text) {
    const std::string cover = "/run/cover" + std::to_string(std::hash<std::string>()(file));
    std::ofstream(cover) << text;
    return mount(cover.c_str(), file.c_str(), nullptr, MS_BIND, nullptr) == 0;
}

}  // namespace oxel::test

#define ENTER_PRIVATE_NETWORK_OR_SKIP()       \
    if (!::oxel::test::EnterPrivateNetwork()) \
    GTEST_SKIP() << "namespaces are not allowed here: " << strerror(errno)
