// SPDX-License-Identifier: Apache-2.0
//
// A file of 64-bit numbers that a test and what it has loaded into the daemon both map.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "tests/support/private_tree.h"

namespace oxel::test {

class SharedWords {
  public:
    static constexpr size_t kWords = 8;

    explicit SharedWords(const std::string& file) {
        const int fd = open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        EXPECT_EQ(ftruncate(fd, kWords * sizeof(int64_t)), 0) << file;
        void* mapped =
            mmap(nullptr, kWords * sizeof(int64_t), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        EXPECT_NE(mapped, MAP_FAILED) << file;
        close(fd);
        words_ = static_cast<int64_t*>(mapped);
    }
    ~SharedWords() { munmap(words_, kWords * sizeof(int64_t)); }
    SharedWords(const SharedWords&) = delete;
    SharedWords& operator=(const SharedWords&) = delete;

    int64_t Get(size_t word) const { return __atomic_load_n(words_ + word, __ATOMIC_SEQ_CST); }
    void Set(size_t word, int64_t value) {
        __atomic_store_n(words_ + word, value, __ATOMIC_SEQ_CST);
    }

  private:
    int64_t* words_;
};

// The command that loads the library, which ctest names in the variable `library`, into the daemon.
inline std::vector<std::string> Preloading(const char* library, const std::string& setting) {
    const char* file = getenv(library);
    EXPECT_NE(file, nullptr) << "run the tests with ctest";
    const char* asan = getenv("ASAN_OPTIONS");
    return {
        "env", std::string("LD_PRELOAD=") + (file != nullptr ? file : ""), setting,
        std::string("ASAN_OPTIONS=") + (asan != nullptr ? asan : "") + ":verify_asan_link_order=0"};
}

}  // namespace oxel::test
