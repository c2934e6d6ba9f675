// SPDX-License-Identifier: Apache-2.0
//
// A client that is not root, and a root that is squashed, are refused what a local user with the
// same ids is refused, with the same reason; and are allowed the rest.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "tests/support/modes.h"
#include "tests/support/private_tree.h"
#include "tests/system/libnfs_client.h"

namespace oxel::test {
namespace {

constexpr uint32_t kUser = 12345, kGroup = 23456, kNobody = 65534;
constexpr uint32_t kOtherUser = 54321;

// This thread acts for another user while this lives. The raw calls: the C library's change every
// thread of the process.
class ActAs {
  public:
    ActAs(uint32_t uid, uint32_t gid) {
        EXPECT_EQ(syscall(SYS_setgroups, 0, nullptr), 0) << strerror(errno);
        EXPECT_EQ(syscall(SYS_setresgid, -1, gid, -1), 0) << strerror(errno);
        EXPECT_EQ(syscall(SYS_setresuid, -1, uid, -1), 0) << strerror(errno);
    }
    ~ActAs() {
        EXPECT_EQ(syscall(SYS_setresuid, -1, 0, -1), 0) << strerror(errno);
        EXPECT_EQ(syscall(SYS_setresgid, -1, 0, -1), 0) << strerror(errno);
    }
    ActAs(const ActAs&) = delete;
    ActAs& operator=(const ActAs&) = delete;
};

struct Operation {
    const char* name;
    std::function<int(const std::string& root)> local;  // 0, or -1 with errno
    std::function<int(nfs_context*)> client;            // 0, or an errno below 0
};

Operation Two(const char* name, int (*local)(const char*, const char*),
              int (*client)(nfs_context*, const char*, const char*), const std::string& from,
              const std::string& to) {
    return {
        name,
        [=](const std::string& root) { return local((root + from).c_str(), (root + to).c_str()); },
        [=](nfs_context* nfs) { return client(nfs, from.c_str(), to.c_str()); }};
}
Operation Rename(const char* name, const std::string& from, const std::string& to) {
    return Two(name, rename, nfs_rename, from, to);
}
Operation Link(const char* name, const std::string& from, const std::string& to) {
    return Two(name, link, nfs_link, from, to);
}
Operation Unlink(const char* name, const std::string& path) {
    return {name, [=](const std::string& root) { return unlink((root + path).c_str()); },
            [=](nfs_context* nfs) { return nfs_unlink(nfs, path.c_str()); }};
}
Operation Rmdir(const char* name, const std::string& path) {
    return {name, [=](const std::string& root) { return rmdir((root + path).c_str()); },
            [=](nfs_context* nfs) { return nfs_rmdir(nfs, path.c_str()); }};
}
Operation Mkdir(const char* name, const std::string& path) {
    return {name, [=](const std::string& root) { return mkdir((root + path).c_str(), 0755); },
            [=](nfs_context* nfs) { return nfs_mkdir(nfs, path.c_str()); }};
}
Operation Symlink(const char* name, const std::string& path) {
    return {name, [=](const std::string& root) { return symlink("x", (root + path).c_str()); },
            [=](nfs_context* nfs) { return nfs_symlink(nfs, "x", path.c_str()); }};
}
Operation Create(const char* name, const std::string& path) {
    return {name,
            [=](const std::string& root) {
                const int fd = open((root + path).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
                return fd < 0 ? -1 : close(fd);
            },
            [=](nfs_context* nfs) {
                nfsfh* file = nullptr;
                const int result = nfs_creat(nfs, path.c_str(), 0644, &file);
                return result == 0 ? nfs_close(nfs, file) : result;
            }};
}
Operation Chmod(const char* name, const std::string& path, unsigned mode) {
    return {name, [=](const std::string& root) { return chmod((root + path).c_str(), mode); },
            [=](nfs_context* nfs) { return nfs_chmod(nfs, path.c_str(), static_cast<int>(mode)); }};
}
Operation Chown(const char* name, const std::string& path, uint32_t uid, uint32_t gid) {
    return {name, [=](const std::string& root) { return lchown((root + path).c_str(), uid, gid); },
            [=](nfs_context* nfs) {
                return nfs_lchown(nfs, path.c_str(), static_cast<int>(uid), static_cast<int>(gid));
            }};
}
Operation Times(const char* name, const std::string& path) {
    static timeval times[2] = {{1000000000, 0}, {1000000000, 0}};
    return {name, [=](const std::string& root) { return utimes((root + path).c_str(), times); },
            [=](nfs_context* nfs) { return nfs_utimes(nfs, path.c_str(), times); }};
}
Operation Truncate(const char* name, const std::string& path) {
    return {name, [=](const std::string& root) { return truncate((root + path).c_str(), 2); },
            [=](nfs_context* nfs) { return nfs_truncate(nfs, path.c_str(), 2); }};
}
Operation Stat(const char* name, const std::string& path) {
    return {name,
            [=](const std::string& root) {
                struct stat st;
                return lstat((root + path).c_str(), &st);
            },
            [=](nfs_context* nfs) {
                nfs_stat_64 st;
                return nfs_lstat64(nfs, path.c_str(), &st);
            }};
}
Operation List(const char* name, const std::string& path) {
    return {name,
            [=](const std::string& root) {
                const int fd = open((root + path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
                return fd < 0 ? -1 : close(fd);
            },
            [=](nfs_context* nfs) {
                nfsdir* stream = nullptr;
                const int result = nfs_opendir(nfs, path.c_str(), &stream);
                if (result == 0) nfs_closedir(nfs, stream);
                return result;
            }};
}

std::vector<Operation> Operations() {
    return {
        // In a directory of others that may only be read.
        Mkdir("mkdir in a directory of others", "/others/new"),
        Create("create in a directory of others", "/others/new"),
        Symlink("symlink in a directory of others", "/others/new"),
        Link("link into a directory of others", "/mine/file", "/others/new"),
        Unlink("unlink in a directory of others", "/others/file"),
        Rmdir("rmdir in a directory of others", "/others/empty"),
        Rename("rename out of a directory of others", "/others/file", "/mine/new"),
        Rename("rename into a directory of others", "/mine/file", "/others/new"),
        // What is others' in a directory that all may write, and in one where the owner decides.
        Chmod("chmod of a file of others", "/all/file", 0666),
        Chown("chown of a file of others", "/all/file", kUser, kGroup),
        Times("utimes of a file of others", "/all/file"),
        Truncate("truncate of a file of others", "/all/file"),
        Truncate("truncate of a file that all may write", "/all/writable"),
        Times("utimes of a file that all may write", "/all/writable"),
        Link("link to a file of others", "/all/file", "/all/link"),
        Unlink("unlink of a file of others where all may", "/all/other"),
        Unlink("unlink where the owner decides", "/sticky/file"),
        Rename("rename where the owner decides", "/sticky/file", "/sticky/new"),
        Rename("rename over a file where the owner decides", "/mine/other", "/sticky/file"),
        // A directory that may not be searched, one that may not be read.
        Stat("stat in a closed directory", "/closed/file"),
        Unlink("unlink in a closed directory", "/closed/file"),
        List("list of a closed directory", "/closed"),
        List("list of a directory that may be searched", "/search"),
        Stat("stat in a directory that may be searched", "/search/file"),
        // What is the caller's own.
        Chmod("chmod of the own file", "/mine/file", 0640),
        Chown("giving the own file away", "/mine/file", kOtherUser, kGroup),
        Chown("giving the own file to a foreign group", "/mine/file", kUser, 1),
        Times("utimes of the own file", "/mine/file"),
        Truncate("truncate of the own file", "/mine/file"),
        Mkdir("mkdir in the own directory", "/mine/dir"),
        Create("create in the own directory", "/mine/new"),
        Link("link in the own directory", "/mine/file", "/mine/link"),
        Rename("rename in the own directory", "/mine/new", "/mine/newer"),
        Unlink("unlink in the own directory", "/mine/newer"),
        Rmdir("rmdir in the own directory", "/mine/dir"),
        Rmdir("rmdir of what is not empty", "/mine"),
    };
}

class Denial : public testing::TestWithParam<Mode> {
  protected:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "other users need root";
        tree_.WriteConf("wire", "[Oxel]\nnNfs3Port = 0\n" + ModeSettings(GetParam()));
        tree_.WriteExports("wire", "/tree -dir=" + tree_.MakeDir("share") + " *(rw,insecure)\n");
        tree_.MakeDir("local");
        ASSERT_TRUE(daemon_.Start());
    }
    // The same twice: one tree for the client, one for the local user.
    void MakeTree(const std::string& name, uint32_t uid, uint32_t gid) {
        struct {
            const char* path;
            bool directory;
            unsigned mode;
            bool mine;
        } rows[] = {{"/others", true, 0755, false},        {"/others/file", false, 0644, false},
                    {"/others/empty", true, 0755, false},  {"/all", true, 0777, false},
                    {"/all/file", false, 0644, false},     {"/all/other", false, 0600, false},
                    {"/all/writable", false, 0666, false}, {"/sticky", true, 01777, false},
                    {"/sticky/file", false, 0644, false},  {"/closed", true, 0700, false},
                    {"/closed/file", false, 0644, false},  {"/search", true, 0711, false},
                    {"/search/file", false, 0644, false},  {"/mine", true, 0755, true},
                    {"/mine/file", false, 0644, true},     {"/mine/other", false, 0644, true}};
        for (const auto& row : rows) {
            const std::string path = row.directory ? tree_.MakeDir(name + row.path)
                                                   : tree_.Write(name + row.path, "content");
            ASSERT_EQ(chown(path.c_str(), row.mine ? uid : kOtherUser, row.mine ? gid : kOtherUser),
                      0);
            ASSERT_EQ(chmod(path.c_str(), row.mode), 0);
        }
    }
    // `asUid` is who calls as; `uid` whose rights that is here.
    void ExpectTheSameAnswers(uint32_t asUid, uint32_t asGid, uint32_t uid, uint32_t gid) {
        MakeTree("share", uid, gid);
        MakeTree("local", uid, gid);
        LibnfsClient client(daemon_.Port(), "/tree", asUid, asGid);
        ASSERT_TRUE(client.Mounted());
        int refused = 0;
        for (const Operation& operation : Operations()) {
            int wanted;
            {
                const ActAs user(uid, gid);
                wanted = operation.local(tree_.Path("local")) == 0 ? 0 : errno;
            }
            EXPECT_EQ(-operation.client(client.Get()), wanted)
                << operation.name << ": " << client.Error();
            refused += wanted != 0;
        }
        EXPECT_GT(refused, 15);
    }

    PrivateTree tree_;
    Daemon daemon_{tree_};
};

TEST_P(Denial, AUserIsRefusedWhatALocalOneIs) {
    ExpectTheSameAnswers(kUser, kGroup, kUser, kGroup);
}

TEST_P(Denial, ASquashedRootIsRefusedWhatNobodyIs) {
    ExpectTheSameAnswers(0, 0, kNobody, kNobody);
}

TEST_P(Denial, WhatAUserMakesIsHis) {
    MakeTree("share", kUser, kGroup);
    LibnfsClient client(daemon_.Port(), "/tree", kUser, kGroup), root(daemon_.Port(), "/tree");
    ASSERT_TRUE(client.Mounted() && root.Mounted());
    const auto expectOwner = [&](const std::string& path, uint32_t uid, uint32_t gid) {
        struct stat st {};
        EXPECT_EQ(lstat(tree_.Path("share" + path).c_str(), &st), 0) << path;
        EXPECT_EQ(st.st_uid, uid) << path;
        EXPECT_EQ(st.st_gid, gid) << path;
    };
    for (LibnfsClient* who : {&client, &root}) {
        const std::string name = who == &client ? "user" : "root";
        const uint32_t uid = who == &client ? kUser : kNobody,
                       gid = who == &client ? kGroup : kNobody;
        nfsfh* file = nullptr;
        ASSERT_EQ(nfs_creat(who->Get(), ("/all/file of " + name).c_str(), 0600, &file), 0)
            << who->Error();
        EXPECT_EQ(nfs_pwrite(who->Get(), file, 0, 4, "text"), 4) << who->Error();
        EXPECT_EQ(nfs_close(who->Get(), file), 0) << who->Error();
        ASSERT_EQ(nfs_mkdir(who->Get(), ("/all/dir of " + name).c_str()), 0) << who->Error();
        ASSERT_EQ(nfs_symlink(who->Get(), "x", ("/all/link of " + name).c_str()), 0)
            << who->Error();
        for (const char* kind : {"file", "dir", "link"})
            expectOwner(std::string("/all/") + kind + " of " + name, uid, gid);
    }
    // Neither may use the other's.
    nfsfh* file = nullptr;
    EXPECT_LT(nfs_open(client.Get(), "/all/file of root", O_RDONLY, &file), 0);
    EXPECT_EQ(nfs_truncate(root.Get(), "/all/file of user", 0), -EACCES);
    EXPECT_EQ(ReadFile(tree_.Path("share/all/file of user")), "text");
}

OXEL_ALL_MODES(Denial);

}  // namespace
}  // namespace oxel::test
