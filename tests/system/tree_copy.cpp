// SPDX-License-Identifier: Apache-2.0
//
// The copy and the local comparison.
#include "tests/system/tree_copy.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "tests/support/private_tree.h"
#include "tests/system/local_tree.h"

namespace oxel::test {
namespace {

constexpr int kFailuresMax = 20;
constexpr size_t kWriteBytes = 256 * 1024;

std::string LinkTarget(const std::string& path) {
    char target[4096];
    const ssize_t length = readlink(path.c_str(), target, sizeof target);
    EXPECT_GE(length, 0) << path;
    return std::string(target, static_cast<size_t>(std::max<ssize_t>(length, 0)));
}

}  // namespace

bool TreeCopy::Done(int result, const char* what, const std::string& path) {
    if (result >= 0) return true;
    if (failures_++ < kFailuresMax)
        ADD_FAILURE() << what << " of " << path << ": " << result << ", " << client_.Error();
    return false;
}

void TreeCopy::CopyDirectory(const std::string& path) {
    for (const std::string& name : LocalNames(source_ + path)) {
        if (failures_ >= kFailuresMax) return;
        CopyEntry(path + "/" + name);
    }
}

void TreeCopy::CopyEntry(const std::string& path) {
    nfs_context* nfs = client_.Get();
    struct stat st;
    ASSERT_EQ(lstat((source_ + path).c_str(), &st), 0) << path;
    ++objects_;
    if (S_ISDIR(st.st_mode)) {
        if (!Done(nfs_mkdir(nfs, path.c_str()), "mkdir", path)) return;
        CopyDirectory(path);
    } else if (S_ISLNK(st.st_mode)) {
        const std::string target = LinkTarget(source_ + path);
        if (!Done(nfs_symlink(nfs, target.c_str(), path.c_str()), "symlink", path)) return;
    } else {
        if (st.st_nlink > 1) {
            const auto [known, first] = linked_.emplace(st.st_ino, path);
            if (!first) {
                (void)Done(nfs_link(nfs, known->second.c_str(), path.c_str()), "link", path);
                return;
            }
        }
        CopyContent(path, st);
    }
    CopyAttributes(path, st);
}

void TreeCopy::CopyContent(const std::string& path, const struct stat& st) {
    nfs_context* nfs = client_.Get();
    nfsfh* file = nullptr;
    if (!Done(nfs_creat(nfs, path.c_str(), 0600, &file), "creat", path)) return;
    const std::string content = ReadFile(source_ + path);
    EXPECT_EQ(content.size(), static_cast<size_t>(st.st_size));
    for (size_t at = 0; at < content.size();) {
        const size_t count = std::min(kWriteBytes, content.size() - at);
        const int written = nfs_pwrite(nfs, file, at, count, content.data() + at);
        if (!Done(written, "write", path) || written == 0) break;
        at += static_cast<size_t>(written);
    }
    // Whom it belongs to and what may be done with it is set while it is open, which spares the
    // library the way to it.
    (void)Done(nfs_fchown(nfs, file, static_cast<int>(st.st_uid), static_cast<int>(st.st_gid)),
               "chown", path);
    (void)Done(nfs_fchmod(nfs, file, static_cast<int>(st.st_mode & 07777)), "chmod", path);
    (void)Done(nfs_close(nfs, file), "close", path);
}

void TreeCopy::CopyAttributes(const std::string& path, const struct stat& st) {
    nfs_context* nfs = client_.Get();
    const int uid = static_cast<int>(st.st_uid), gid = static_cast<int>(st.st_gid);
    const int mode = static_cast<int>(st.st_mode & 07777);
    if (!S_ISREG(st.st_mode)) (void)Done(nfs_lchown(nfs, path.c_str(), uid, gid), "chown", path);
    if (S_ISDIR(st.st_mode)) (void)Done(nfs_chmod(nfs, path.c_str(), mode), "chmod", path);
    timeval times[2] = {{st.st_atim.tv_sec, st.st_atim.tv_nsec / 1000},
                        {st.st_mtim.tv_sec, st.st_mtim.tv_nsec / 1000}};
    (void)Done(nfs_lutimes(nfs, path.c_str(), times), "utimes", path);
    ExpectSeen(path, st);
}

void TreeCopy::ExpectSeen(const std::string& path, const struct stat& st) {
    nfs_stat_64 seen{};
    if (!Done(nfs_lstat64(client_.Get(), path.c_str(), &seen), "stat", path)) return;
    const bool same = seen.nfs_uid == st.st_uid && seen.nfs_gid == st.st_gid &&
                      (S_ISDIR(st.st_mode) || seen.nfs_size == static_cast<uint64_t>(st.st_size)) &&
                      (S_ISLNK(st.st_mode) || (seen.nfs_mode & 06777) == (st.st_mode & 06777)) &&
                      static_cast<uint32_t>(seen.nfs_mtime) == static_cast<uint32_t>(st.st_mtime);
    if (same || failures_++ >= kFailuresMax) return;
    ADD_FAILURE() << path << " right after: owner " << seen.nfs_uid << ":" << seen.nfs_gid
                  << " mode " << std::oct << seen.nfs_mode << std::dec << " size " << seen.nfs_size
                  << " mtime " << seen.nfs_mtime;
}

namespace {

class LocalComparison {
  public:
    void Compare(const std::string& one, const std::string& other) {
        const std::vector<std::string> names = LocalNames(one);
        EXPECT_EQ(names, LocalNames(other)) << one;
        for (const std::string& name : names) {
            if (testing::Test::HasFailure()) return;
            CompareEntry(one + "/" + name, other + "/" + name);
        }
    }

  private:
    void CompareEntry(const std::string& one, const std::string& other) {
        struct stat a, b;
        ASSERT_EQ(lstat(one.c_str(), &a), 0) << one;
        ASSERT_EQ(lstat(other.c_str(), &b), 0) << other;
        EXPECT_EQ(a.st_mode, b.st_mode) << one;
        EXPECT_EQ(a.st_uid, b.st_uid) << one;
        EXPECT_EQ(a.st_gid, b.st_gid) << one;
        EXPECT_EQ(a.st_nlink, b.st_nlink) << one;
        EXPECT_EQ(a.st_mtim.tv_sec, b.st_mtim.tv_sec) << one;
        EXPECT_EQ(a.st_mtim.tv_nsec / 1000, b.st_mtim.tv_nsec / 1000) << one;
        if (S_ISDIR(a.st_mode)) return Compare(one, other);
        EXPECT_EQ(a.st_size, b.st_size) << one;
        EXPECT_EQ(files_.emplace(a.st_ino, b.st_ino).first->second, b.st_ino)
            << one << " has another file's content";
        if (S_ISLNK(a.st_mode)) {
            EXPECT_EQ(LinkTarget(one), LinkTarget(other)) << one;
        } else {
            EXPECT_TRUE(ReadFile(one) == ReadFile(other)) << one << " has another content";
        }
    }
    std::map<ino_t, ino_t> files_;
};

}  // namespace

void ExpectSameTrees(const std::string& one, const std::string& other) {
    LocalComparison().Compare(one, other);
}

}  // namespace oxel::test
