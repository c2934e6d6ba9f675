// SPDX-License-Identifier: Apache-2.0
//
// An NFS client library that others wrote walks a large share: every name, attribute, link and byte
// must be what the local tree has.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <nfsc/libnfs.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>
#include <ostream>
#include <thread>

#include "tests/support/nfs_client.h"
#include "tests/support/private_tree.h"
#include "tests/system/local_tree.h"

namespace oxel::test {
namespace {

constexpr size_t kReadBytes = 256 * 1024;

// One mounted client. Used by one thread.
class LibnfsClient {
  public:
    LibnfsClient(uint16_t port, const std::string& share) : nfs_(nfs_init_context()) {
        const std::string number = std::to_string(port);
        const std::string url = "nfs://127.0.0.1" + share +
                                "?version=3&uid=0&gid=0&nfsport=" + number + "&mountport=" + number;
        nfs_url* parsed = nfs_parse_url_dir(nfs_, url.c_str());
        EXPECT_NE(parsed, nullptr) << url;
        if (!parsed) return;
        mounted_ = nfs_mount(nfs_, parsed->server, parsed->path) == 0;
        EXPECT_TRUE(mounted_) << url << ": " << nfs_get_error(nfs_);
        nfs_destroy_url(parsed);
    }
    ~LibnfsClient() { nfs_destroy_context(nfs_); }
    LibnfsClient(const LibnfsClient&) = delete;
    LibnfsClient& operator=(const LibnfsClient&) = delete;

    bool Mounted() const { return mounted_; }
    nfs_context* Get() const { return nfs_; }
    const char* Error() const { return nfs_get_error(nfs_); }

  private:
    nfs_context* nfs_;
    bool mounted_ = false;
};

// Walks a share and compares it with its directory. Stops after a number of differences.
class TreeComparison {
  public:
    enum class Share { kReadOnly, kWritable };
    TreeComparison(LibnfsClient& client, uint16_t port, std::string directory, Share share,
                   std::function<bool(size_t)> readsFile)
        : client_(client),
          plain_(port),
          root_(plain_.MountShare("/tree")),
          directory_(std::move(directory)),
          writable_(share == Share::kWritable),
          readsFile_(std::move(readsFile)),
          buffer_(kReadBytes),
          local_(kReadBytes) {}

    void Run() { CompareDirectory(""); }
    size_t Files() const { return files_; }
    size_t Objects() const { return objects_; }

  private:
    static constexpr int kDifferencesMax = 20;

    // `what` is said of `path` when `same` is false.
    void Expect(bool same, const std::string& path, const std::string& what) {
        if (same || differences_ >= kDifferencesMax) return;
        ++differences_;
        ADD_FAILURE() << directory_ << path << ": " << what;
    }
    void CompareDirectory(const std::string& path);
    void CompareEntry(const std::string& path, const nfsdirent& entry);
    void CompareLink(const std::string& path);
    void CompareContent(const std::string& path, const Attributes& expected);
    void CompareBytes(const std::string& path, uint64_t size,
                      const std::function<int(uint64_t)>& read);

    LibnfsClient& client_;
    NfsClient plain_;
    const std::string root_;
    const std::string directory_;
    const bool writable_;
    const std::function<bool(size_t)> readsFile_;  // by the file's number in the walk
    std::vector<char> buffer_, local_;
    size_t files_ = 0, objects_ = 0;
    int differences_ = 0;
};

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

enum class Threads { kMany, kOne };
void PrintTo(Threads threads, std::ostream* out) {
    *out << (threads == Threads::kMany ? "ManyThreads" : "OneThread");
}

class LibnfsTree : public testing::TestWithParam<Threads> {
  protected:
    void SetUp() override {
        directory_ = LargeTree();
        tree_.WriteConf("wire", std::string("[Oxel]\nnNfs3Port = 0\nnDisableMultiThreadRPC = ") +
                                    (GetParam() == Threads::kOne ? "1" : "0") + "\n");
        tree_.WriteExports("wire", "/tree -dir=" + directory_ + " *(ro,no_root_squash,insecure)\n");
        ASSERT_TRUE(daemon_.Start());
    }

    PrivateTree tree_;
    Daemon daemon_{tree_};
    std::string directory_;
};

TEST_P(LibnfsTree, OneClientSeesEveryNameAttributeLinkAndByte) {
    LibnfsClient client(daemon_.Port(), "/tree");
    ASSERT_TRUE(client.Mounted());
    TreeComparison comparison(
        client, daemon_.Port(), directory_, TreeComparison::Share::kReadOnly,
        [](size_t file) { return GetParam() == Threads::kMany || file % 4 == 0; });
    comparison.Run();
    EXPECT_GE(comparison.Files(), LargeTreeFilesMin()) << directory_;
    RecordProperty("objects", static_cast<int>(comparison.Objects()));
}

TEST_P(LibnfsTree, FourClientsAtOnceSeeTheSame) {
    constexpr size_t kClients = 4;
    std::vector<std::thread> threads;
    std::atomic<size_t> files{0};
    for (size_t n = 0; n < kClients; ++n) {
        threads.emplace_back([&, n] {
            LibnfsClient client(daemon_.Port(), "/tree");
            if (!client.Mounted()) return;
            // All walk everything; each reads its share of the files, and one in fifty all read.
            TreeComparison comparison(
                client, daemon_.Port(), directory_, TreeComparison::Share::kReadOnly,
                [n](size_t file) { return file % (2 * kClients) == n || file % 50 == 0; });
            comparison.Run();
            files += comparison.Files();
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_GE(files, kClients * LargeTreeFilesMin()) << directory_;
}

INSTANTIATE_TEST_SUITE_P(Modes, LibnfsTree, testing::Values(Threads::kMany, Threads::kOne),
                         testing::PrintToStringParamName());

// What a program does with files: made, written, read back, renamed, removed, through the library.
class LibnfsWork : public LibnfsTree {
  protected:
    void SetUp() override {
        directory_ = tree_.MakeDir("share");
        tree_.WriteConf("wire", std::string("[Oxel]\nnNfs3Port = 0\nnDisableMultiThreadRPC = ") +
                                    (GetParam() == Threads::kOne ? "1" : "0") + "\n");
        tree_.WriteExports("wire", "/tree -dir=" + directory_ + " *(rw,no_root_squash,insecure)\n");
        ASSERT_TRUE(daemon_.Start());
    }
};

TEST_P(LibnfsWork, FilesAreMadeWrittenRenamedAndRemoved) {
    LibnfsClient client(daemon_.Port(), "/tree");
    ASSERT_TRUE(client.Mounted());
    nfs_context* nfs = client.Get();
    std::string content;
    for (int i = 0; i < 100000; ++i) content += std::to_string(i) + "\n";
    ASSERT_EQ(nfs_mkdir(nfs, "/dir"), 0) << client.Error();
    for (int i = 0; i < 50; ++i) {
        const std::string name = "/dir/file" + std::to_string(i);
        nfsfh* file = nullptr;
        ASSERT_EQ(nfs_creat(nfs, name.c_str(), 0640, &file), 0) << client.Error();
        for (size_t at = 0; at < content.size(); at += 100000) {
            const size_t count = std::min<size_t>(100000, content.size() - at);
            ASSERT_EQ(nfs_pwrite(nfs, file, at, count, content.data() + at),
                      static_cast<int>(count))
                << client.Error();
        }
        ASSERT_EQ(nfs_fsync(nfs, file), 0) << client.Error();
        ASSERT_EQ(nfs_close(nfs, file), 0);
        EXPECT_TRUE(ReadFile(directory_ + name) == content);
        EXPECT_EQ(ExpectedAttributes(directory_ + name).mode, 0640u);
    }
    ASSERT_EQ(nfs_rename(nfs, "/dir/file0", "/dir/renamed"), 0) << client.Error();
    ASSERT_EQ(nfs_link(nfs, "/dir/file1", "/dir/linked"), 0) << client.Error();
    ASSERT_EQ(nfs_symlink(nfs, "file2", "/dir/symlink"), 0) << client.Error();
    ASSERT_EQ(nfs_truncate(nfs, "/dir/file3", 10), 0) << client.Error();
    EXPECT_EQ(ReadFile(directory_ + "/dir/file3"), content.substr(0, 10));
    ASSERT_EQ(nfs_chmod(nfs, "/dir/file4", 0600), 0) << client.Error();
    EXPECT_EQ(ExpectedAttributes(directory_ + "/dir/file4").mode, 0600u);
    TreeComparison comparison(client, daemon_.Port(), directory_, TreeComparison::Share::kWritable,
                              [](size_t) { return true; });
    comparison.Run();
    EXPECT_EQ(comparison.Objects(), 53u);
    for (const std::string& name : LocalNames(directory_ + "/dir"))
        EXPECT_EQ(nfs_unlink(nfs, ("/dir/" + name).c_str()), 0) << name << client.Error();
    EXPECT_EQ(nfs_rmdir(nfs, "/dir"), 0) << client.Error();
    EXPECT_TRUE(LocalNames(directory_).empty());
}

INSTANTIATE_TEST_SUITE_P(Modes, LibnfsWork, testing::Values(Threads::kMany, Threads::kOne),
                         testing::PrintToStringParamName());

}  // namespace
}  // namespace oxel::test
