// SPDX-License-Identifier: Apache-2.0
//
// A tree of its own for a test's configuration, logs and locks, and tests that run in a process of
// their own, because what they set up (pools, listeners, the RPC library's tables) is made once per
// process.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "base/instance.h"
#include "base/store.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

namespace oxel::test {

// $OXEL_ROOT while it lives, with the instance "Test" in focus; removed at the end.
class PrivateRoot {
  public:
    explicit PrivateRoot(const std::string& conf = "") : paths_(MakeTree()) {
        XOPI_Focus::setFocus("Test");
        if (!conf.empty()) WriteConf(conf);
    }
    ~PrivateRoot() {
        unsetenv("OXEL_ROOT");
        std::error_code
            ignored;  // a tree that cannot be removed is left in the temporary directory
        std::filesystem::remove_all(root_, ignored);
    }
    PrivateRoot(const PrivateRoot&) = delete;
    PrivateRoot& operator=(const PrivateRoot&) = delete;

    const std::string& root() const { return root_; }
    const InstancePaths& paths() const { return paths_; }
    void WriteConf(const std::string& text) const { Write(paths_.conf, text); }
    static void Write(const std::string& file, const std::string& text) {
        std::filesystem::create_directories(std::filesystem::path(file).parent_path());
        std::ofstream(file) << text;
    }

  private:
    InstancePaths MakeTree() {
        std::string name = std::filesystem::temp_directory_path() / "oxel-service-XXXXXX";
        if (mkdtemp(name.data()) == nullptr) {
            perror("mkdtemp");
            abort();
        }
        root_ = name;
        setenv("OXEL_ROOT", root_.c_str(), 1);
        return InstancePaths("Test");
    }
    std::string root_;
    InstancePaths paths_;
};

// What a test says when it cannot run here; in a child, with RunInChild, the parent skips.
inline constexpr int kChildSkipped = 77;
inline constexpr unsigned kChildSecondsMax = 120;

// Runs `body` in a child process. Its failures are the caller's; a child that hangs is ended.
inline void RunInChild(void (*body)()) {
    fflush(stdout);
    fflush(stderr);
    const pid_t child = fork();
    ASSERT_NE(child, -1);
    if (child == 0) {
        alarm(kChildSecondsMax);
        body();
        const bool failed = ::testing::Test::HasFailure(), skipped = ::testing::Test::IsSkipped();
        fflush(stdout);
        _exit(failed ? 1 : skipped ? kChildSkipped : 0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    if (WIFEXITED(status) && WEXITSTATUS(status) == kChildSkipped) GTEST_SKIP();
    ASSERT_TRUE(WIFEXITED(status)) << "the child died of signal " << WTERMSIG(status);
    ASSERT_EQ(WEXITSTATUS(status), 0) << "the failures are above";
}

// Whether the process has lost memory so far; only the address sanitizer knows. For the end of a
// child's body, since a child ends without the check that a process's end brings.
inline void CheckLeaks() {
#if defined(__SANITIZE_ADDRESS__)
    EXPECT_EQ(__lsan_do_recoverable_leak_check(), 0) << "memory is lost";
#endif
}

}  // namespace oxel::test

// A test whose body runs in a process of its own.
#define TEST_IN_CHILD(suite, name)                          \
    static void suite##_##name##_InChild();                 \
    TEST(suite, name) {                                     \
        ::oxel::test::RunInChild(suite##_##name##_InChild); \
    }                                                       \
    static void suite##_##name##_InChild()

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define OXEL_TEST_SANITIZED 1
#else
#define OXEL_TEST_SANITIZED 0
#endif
