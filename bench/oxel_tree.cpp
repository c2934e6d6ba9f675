// SPDX-License-Identifier: Apache-2.0
//
// Makes the directories and files that the benchmarks work on, directly in the file system and
// fast.
//   oxel-tree names DIR COUNT             COUNT empty files
//   oxel-tree data FILE BYTES             a file of the known pattern
//   oxel-tree mix DIR                     20 directories of 20 files of 128 KiB, and 20 links
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>

#include "base/unique_fd.h"
#include "bench/pattern.h"

namespace {

constexpr unsigned kMixDirectories = 20, kMixFiles = 20;
constexpr uint64_t kMixFileBytes = 128 << 10;

void Need(bool done, const std::string& what) {
    if (!done) throw std::runtime_error(what + ": " + strerror(errno));
}

void MakeDirectory(const std::string& path) {
    Need(mkdir(path.c_str(), 0755) == 0 || errno == EEXIST, path);
}

std::string Numbered(const char* format, unsigned long number) {
    char name[64];
    (void)snprintf(name, sizeof name, format, number);
    return name;
}

void MakeNames(const std::string& directory, unsigned long count) {
    MakeDirectory(directory);
    const oxel::UniqueFd fd(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    Need(static_cast<bool>(fd), directory);
    for (unsigned long i = 0; i < count; ++i) {
        const std::string name = Numbered("a-file-with-a-name-%07lu", i);
        Need(mknodat(fd.Get(), name.c_str(), S_IFREG | 0644, 0) == 0 || errno == EEXIST, name);
    }
}

void MakeData(const std::string& path, uint64_t bytes, const bench::Pattern& pattern) {
    const oxel::UniqueFd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    Need(static_cast<bool>(fd), path);
    for (uint64_t at = 0; at < bytes;) {
        const std::string_view part =
            pattern.At(at, std::min<uint64_t>(bytes - at, bench::Pattern::kBytesMax));
        const ssize_t wrote = write(fd.Get(), part.data(), part.size());
        Need(wrote > 0, path);
        at += static_cast<uint64_t>(wrote);
    }
}

void MakeMix(const std::string& root) {
    const bench::Pattern pattern;
    MakeDirectory(root);
    MakeDirectory(root + "/links");
    for (unsigned i = 0; i < kMixDirectories; ++i) {
        const std::string directory = Numbered("directory-%02lu", i);
        MakeDirectory(root + "/" + directory);
        for (unsigned j = 0; j < kMixFiles; ++j)
            MakeData(root + "/" + directory + "/" + Numbered("file-%02lu", j), kMixFileBytes,
                     pattern);
        const std::string link = root + "/links/" + Numbered("link-%02lu", i);
        Need(
            symlink(("../" + directory + "/file-00").c_str(), link.c_str()) == 0 || errno == EEXIST,
            link);
    }
}

}  // namespace

int main(int argc, char** argv) {
    const std::string_view verb = argc > 2 ? argv[1] : "";
    try {
        if (verb == "names" && argc == 4) {
            MakeNames(argv[2], strtoul(argv[3], nullptr, 10));
        } else if (verb == "data" && argc == 4) {
            MakeData(argv[2], strtoull(argv[3], nullptr, 10), bench::Pattern());
        } else if (verb == "mix" && argc == 3) {
            MakeMix(argv[2]);
        } else {
            (void)fprintf(stderr, "usage: oxel-tree names DIR COUNT | data FILE BYTES | mix DIR\n");
            return 2;
        }
        return 0;
    } catch (const std::exception& error) {
        (void)fprintf(stderr, "oxel-tree: %s\n", error.what());
        return 1;
    }
}
