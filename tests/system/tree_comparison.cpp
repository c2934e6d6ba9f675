// SPDX-License-Identifier: Apache-2.0
//
// The walk and the comparison.
#include "tests/system/tree_comparison.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "tests/system/local_tree.h"

namespace oxel::test {

static constexpr size_t kReadBytes = 256 * 1024;

TreeComparison::TreeComparison(LibnfsClient& client, uint16_t port, const std::string& name,
                               std::string directory, Share share,
                               std::function<bool(size_t)> readsFile)
    : client_(client),
      plain_(port),
      root_(plain_.MountShare(name)),
      directory_(std::move(directory)),
      writable_(share == Share::kWritable),
      readsFile_(std::move(readsFile)),
      buffer_(kReadBytes),
      local_(kReadBytes) {}

void TreeComparison::CompareDirectory(const std::string& path) {
    if (differences_ >= kDifferencesMax) return;
    nfsdir* stream = nullptr;
    if (nfs_opendir(client_.Get(), path.empty() ? "/" : path.c_str(), &stream) != 0) {
        Expect(false, path, std::string("opendir: ") + client_.Error());
        return;
    }
    std::vector<std::string> names, directories;
    while (const nfsdirent* entry = nfs_readdir(client_.Get(), stream)) {
        const std::string name = entry->name;
        if (name == "." || name == "..") continue;
        names.push_back(name);
        CompareEntry(path + "/" + name, *entry);
        if (S_ISDIR(entry->mode) || entry->type == 2) directories.push_back(name);
    }
    nfs_closedir(client_.Get(), stream);
    std::sort(names.begin(), names.end());
    Expect(names == LocalNames(directory_ + path), path, "the names differ");
    for (const std::string& name : directories) CompareDirectory(path + "/" + name);
}

void TreeComparison::CompareEntry(const std::string& path, const nfsdirent& entry) {
    ++objects_;
    const Attributes expected = ExpectedAttributes(directory_ + path);
    auto same = [&](const char* what, uint64_t seen, uint64_t wanted) {
        Expect(seen == wanted, path,
               std::string(what) + " is " + std::to_string(seen) + " instead of " +
                   std::to_string(wanted));
    };
    same("the type", entry.type, expected.type);
    same("the mode", entry.mode & 07777, expected.mode);
    same("the size", entry.size, expected.size);
    same("the owner", entry.uid, expected.uid);
    same("the group", entry.gid, expected.gid);
    same("the number of links", entry.nlink, expected.nlink);
    same("the file number", entry.inode, expected.fileid);
    same("the mtime", static_cast<uint32_t>(entry.mtime.tv_sec), expected.mtime);
    same("the ctime", static_cast<uint32_t>(entry.ctime.tv_sec), expected.ctime);
    // Whoever reads a file meanwhile moves its time on, and nothing moves it back.
    const uint32_t atime = static_cast<uint32_t>(entry.atime.tv_sec);
    Expect(atime <= expected.atime, path, "the atime is ahead");
    if (expected.type == 5) CompareLink(path);
    if (expected.type == 1 && readsFile_(files_++)) CompareContent(path, expected);
}

void TreeComparison::CompareLink(const std::string& path) {
    char seen[4096] = {}, wanted[4096] = {};
    Expect(readlink((directory_ + path).c_str(), wanted, sizeof wanted - 1) >= 0, path, "readlink");
    if (nfs_readlink(client_.Get(), path.c_str(), seen, sizeof seen) != 0)
        Expect(false, path, std::string("READLINK: ") + client_.Error());
    else
        Expect(std::string(seen) == wanted, path, "the link's target differs");
}

// Compares what `read` gives at growing offsets with the local file.
void TreeComparison::CompareBytes(const std::string& path, uint64_t size,
                                  const std::function<int(uint64_t)>& read) {
    const int local = open((directory_ + path).c_str(), O_RDONLY | O_CLOEXEC);
    if (local < 0) return;
    uint64_t offset = 0;
    for (;;) {
        const int got = read(offset);
        if (got < 0) {
            Expect(false, path, std::string("read: ") + client_.Error());
            break;
        }
        const ssize_t there = pread(local, local_.data(), kReadBytes, static_cast<off_t>(offset));
        Expect(there == got && std::equal(buffer_.begin(), buffer_.begin() + got, local_.begin()),
               path, "the content differs from offset " + std::to_string(offset));
        offset += static_cast<uint64_t>(got);
        if (got == 0 || there != got) break;
    }
    Expect(offset == size, path, "the length read is " + std::to_string(offset));
    close(local);
}

void TreeComparison::CompareContent(const std::string& path, const Attributes& expected) {
    // The library opens a file only when ACCESS answers exactly the rights that it asked for, and
    // this server tells every right that the caller has. Such files are read by handle.
    if (writable_ || (expected.mode & 0111) != 0) {
        const std::string handle = plain_.Walk(root_, path.substr(1));
        CompareBytes(path, expected.size, [&](uint64_t offset) {
            const std::string data = plain_.Read(handle, offset, kReadBytes);
            std::copy(data.begin(), data.end(), buffer_.begin());
            return static_cast<int>(data.size());
        });
        return;
    }
    nfsfh* file = nullptr;
    if (nfs_open(client_.Get(), path.c_str(), O_RDONLY, &file) != 0) {
        Expect(false, path, std::string("open: ") + client_.Error());
        return;
    }
    CompareBytes(path, expected.size, [&](uint64_t offset) {
        return nfs_pread(client_.Get(), file, offset, kReadBytes, buffer_.data());
    });
    nfs_close(client_.Get(), file);
}

}  // namespace oxel::test
