// SPDX-License-Identifier: Apache-2.0
//
// Reading /proc/PID.
#include "tests/support/process_watch.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <system_error>

namespace oxel::test {

static std::string Process(pid_t pid) {
    return "/proc/" + std::to_string(pid);
}

static uint64_t StatusKiB(pid_t pid, const std::string& name) {
    std::ifstream in(Process(pid) + "/status");
    for (std::string word; in >> word;) {
        uint64_t value = 0;
        if (word == name + ":" && in >> value) return value;
    }
    ADD_FAILURE() << "process " << pid << " has no " << name;
    return 0;
}

uint64_t ResidentKiB(pid_t pid) {
    return StatusKiB(pid, "VmRSS");
}
uint64_t PeakResidentKiB(pid_t pid) {
    return StatusKiB(pid, "VmHWM");
}

void ForgetPeak(pid_t pid) {
    constexpr char kPeakOnly[] = "5";
    std::ofstream out(Process(pid) + "/clear_refs");
    out << kPeakOnly;
    out.close();
    EXPECT_TRUE(out.good()) << "the peak of process " << pid << " stays";
}

size_t OpenDescriptors(pid_t pid) {
    std::error_code error;
    std::filesystem::directory_iterator entries(Process(pid) + "/fd", error);
    EXPECT_FALSE(error) << error.message();
    return error ? 0 : static_cast<size_t>(std::distance(begin(entries), end(entries)));
}

std::string DescriptorList(pid_t pid) {
    std::error_code error;
    std::multiset<std::string> targets;
    for (const auto& entry : std::filesystem::directory_iterator(Process(pid) + "/fd", error))
        targets.insert(std::filesystem::read_symlink(entry.path(), error).string());
    std::string list;
    for (const std::string& target : targets) list += target + "\n";
    return list;
}

}  // namespace oxel::test
