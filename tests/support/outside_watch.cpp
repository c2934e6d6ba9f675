// SPDX-License-Identifier: Apache-2.0
//
// Making the outside and comparing it.
#include "tests/support/outside_watch.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <vector>

#include "base/unique_fd.h"
#include "tests/support/rpc_client.h"

namespace oxel::test {
namespace {

constexpr char kMark[] = "what-lies-outside";
const char* const kDirectories[] = {"", "/d", "/d/sub", "/kept-outside-what-lies-outside"};
const char* const kFiles[] = {"/f", "/d/f", "/d/sub/f", "/d/new", "/d/what-lies-outside"};

// Looking must not move the times of access, which tell whether anybody else has looked.
constexpr int kUnseen = O_RDONLY | O_NOATIME | O_CLOEXEC;

std::vector<std::string> Names(const std::string& directory) {
    std::vector<std::string> names;
    DIR* stream = fdopendir(open(directory.c_str(), kUnseen | O_DIRECTORY));
    if (stream == nullptr) return names;
    while (const dirent* entry = readdir(stream)) names.push_back(entry->d_name);
    closedir(stream);
    return names;
}

std::string Contents(const std::string& file) {
    const UniqueFd fd(open(file.c_str(), kUnseen));
    std::string text(100, '\0');
    const ssize_t bytes = fd ? read(fd.Get(), text.data(), text.size()) : 0;
    text.resize(bytes > 0 ? static_cast<size_t>(bytes) : 0);
    return text;
}

std::string Times(const timespec& time) {
    return std::to_string(time.tv_sec) + "." + std::to_string(time.tv_nsec);
}

}  // namespace

OutsideWatch::OutsideWatch(const std::string& directory) : directory_(directory) {
    for (const char* name : kDirectories) {
        std::filesystem::create_directories(directory_ + name);
        EXPECT_EQ(chmod((directory_ + name).c_str(), 0777), 0);
    }
    for (const char* name : kFiles) {
        std::ofstream(directory_ + name) << kMark;
        EXPECT_EQ(chmod((directory_ + name).c_str(), 0666), 0);
    }
    before_ = Look();
}

OutsideWatch::Tree OutsideWatch::Look() const {
    Tree tree;
    std::vector<std::string> paths;
    for (const char* name : kDirectories) paths.push_back(directory_ + name);
    for (const char* name : kFiles) paths.push_back(directory_ + name);
    for (const std::string& path : paths) {
        struct stat st {};
        if (lstat(path.c_str(), &st) != 0) {
            tree[path] = "is gone";
            continue;
        }
        for (const uint64_t number :
             {uint64_t{st.st_mode}, uint64_t{st.st_uid}, uint64_t{st.st_gid}, uint64_t{st.st_nlink},
              uint64_t{st.st_ino}, static_cast<uint64_t>(st.st_size)})
            tree[path] += std::to_string(number) + " ";
        tree[path] += "changed " + Times(st.st_ctim) + " modified " + Times(st.st_mtim) + " read " +
                      Times(st.st_atim);
    }
    for (const char* name : kDirectories) {
        const std::string directory = directory_ + name;
        for (const std::string& entry : Names(directory)) {
            if (entry != "." && entry != "..") tree.emplace(directory + "/" + entry, "is new");
        }
    }
    return tree;
}

void OutsideWatch::ExpectUntouched() const {
    const Tree now = Look();
    for (const auto& [path, what] : before_) {
        const auto found = now.find(path);
        EXPECT_EQ(found == now.end() ? "is gone" : found->second, what) << path;
    }
    for (const auto& [path, what] : now) EXPECT_EQ(before_.count(path), 1u) << path << " " << what;
    for (const char* name : kFiles) EXPECT_EQ(Contents(directory_ + name), kMark) << name;
}

void OutsideWatch::ExpectHidden(const std::string& reply) const {
    EXPECT_EQ(reply.find(kMark), std::string::npos) << Hex(reply);
}

}  // namespace oxel::test
