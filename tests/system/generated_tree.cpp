// SPDX-License-Identifier: Apache-2.0
//
// Making the tree.
#include "tests/system/generated_tree.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <random>
#include <vector>

namespace oxel::test {
namespace {

constexpr size_t kDepthMax = 3;

class Generator {
  public:
    Generator(const std::string& directory, unsigned seed)
        : directories_{{directory, 0}}, random_(seed) {}

    void Make(size_t objects) {
        MakeLargeFiles();
        while (made_ < objects) {
            const unsigned kind = Below(100);
            if (kind < 4)
                MakeDirectory();
            else if (kind < 9)
                MakeSymlink();
            else if (kind < 14 && !files_.empty())
                MakeHardLink();
            else
                MakeFile(Size());
        }
        // Last, and from the bottom up: making what lies in a directory moves its time.
        for (size_t i = directories_.size(); i-- > 1;) SetAttributes(directories_[i].path, false);
    }

  private:
    struct Directory {
        std::string path;
        size_t depth;
    };

    unsigned Below(unsigned end) { return static_cast<unsigned>(random_() % end); }
    template <size_t n, typename T>
    T OneOf(const T (&choice)[n]) {
        return choice[Below(n)];
    }

    std::string NewName() {
        const std::string number = std::to_string(made_++);
        switch (Below(16)) {
            case 0:
                return number + std::string(255 - number.size(), 'n');
            case 1:
                return "Größe-日本-" + number;
            case 2:
                return "\xff\xfe\x80" + number;
            case 3:
                return "  two blanks " + number + " ";
            case 4:
                return "-rf" + number;
            case 5:
                return "new\nline" + number;
            case 6:
                return ".hidden" + number;
            case 7:
                return "'quoted\" \\" + number + "%s$x*?";
            case 8:
                return "\x01\x7f\t" + number;
            default:
                return "file" + number;
        }
    }
    std::string NewPath() {
        const Directory& parent = directories_[Below(static_cast<unsigned>(directories_.size()))];
        return parent.path + "/" + NewName();
    }
    size_t Size() {
        static constexpr size_t kSmall[] = {0, 0, 1, 1, 2, 3, 511, 4095, 4096, 4097, 8191, 8193};
        static constexpr size_t kBorders[] = {65535,  65536,  65537,  131071, 131073, 262143,
                                              262144, 262145, 524287, 524289, 1048577};
        const unsigned kind = Below(100);
        if (kind == 0) return OneOf(kBorders);
        return kind < 25 ? OneOf(kSmall) : Below(2000);
    }

    void MakeFile(size_t size) {
        const std::string path = NewPath();
        std::ofstream out(path, std::ios::binary);
        out << GeneratedBytes(static_cast<unsigned>(made_), size);
        out.close();
        ASSERT_TRUE(out.good()) << path;
        SetAttributes(path, false);
        files_.push_back(path);
    }
    void MakeLargeFiles() {
        // Whole transfers, one more byte, one less; and one that is none of these.
        for (const size_t size : {(10u << 20), (4u << 20) + 1, (4u << 20) - 1, 3333333u})
            MakeFile(size);
    }
    void MakeDirectory() {
        const Directory parent = directories_[Below(static_cast<unsigned>(directories_.size()))];
        if (parent.depth >= kDepthMax) return;
        const std::string path = parent.path + "/" + NewName();
        ASSERT_EQ(mkdir(path.c_str(), 0700), 0) << path << ": " << strerror(errno);
        directories_.push_back({path, parent.depth + 1});
    }
    void MakeSymlink() {
        static const std::string kTargets[] = {
            "file1", "../file2",  "/etc/hostname", "/nonexistent/x", ".",
            "..",    "a//b/./..", " \n\xff",       "Größe",          std::string(1000, 'l')};
        const std::string path = NewPath();
        const std::string target = kTargets[Below(std::size(kTargets))];
        ASSERT_EQ(symlink(target.c_str(), path.c_str()), 0) << path << ": " << strerror(errno);
        SetAttributes(path, true);
    }
    void MakeHardLink() {
        const std::string existing = files_[Below(static_cast<unsigned>(files_.size()))];
        const std::string path = NewPath();
        ASSERT_EQ(link(existing.c_str(), path.c_str()), 0) << path << ": " << strerror(errno);
    }

    void SetAttributes(const std::string& path, bool isLink) {
        static constexpr unsigned kIds[] = {0, 0, 1000, 12345, 65534, 2000000000};
        static constexpr unsigned kModes[] = {0644,  0644,  0600,  0755,  0400, 0,
                                              04755, 02755, 06711, 01666, 0777, 0444};
        // One beyond what a signed number of 32 bits counts.
        static constexpr time_t kTimes[] = {0, 1, 1000000000, 2147483647, 4000000000};
        const uid_t uid = OneOf(kIds);
        const gid_t gid = OneOf(kIds);
        ASSERT_EQ(lchown(path.c_str(), uid, gid), 0) << path;
        if (!isLink) {
            ASSERT_EQ(chmod(path.c_str(), OneOf(kModes)), 0) << path;
        }
        const timespec times[2] = {{OneOf(kTimes) + Below(1000), Below(1000000) * 1000},
                                   {OneOf(kTimes) + Below(1000), Below(1000000) * 1000}};
        ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << path;
    }

    std::vector<Directory> directories_;
    std::vector<std::string> files_;
    std::mt19937 random_;
    size_t made_ = 0;
};

}  // namespace

void GenerateTree(const std::string& directory, size_t objects, unsigned seed) {
    Generator(directory, seed).Make(objects);
}

std::string GeneratedBytes(unsigned file, size_t length) {
    std::string bytes(length, '\0');
    uint32_t word = file * 2654435761u + 1;
    for (size_t at = 0; at < length; at += sizeof word) {
        word = word * 1664525u + 1013904223u;
        memcpy(&bytes[at], &word, std::min(sizeof word, length - at));
    }
    return bytes;
}

}  // namespace oxel::test
