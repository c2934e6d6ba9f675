// SPDX-License-Identifier: Apache-2.0
//
// Attributes: reading them, and every way of changing them.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

#include "tests/local/fixture.h"

namespace oxel::testing {
namespace {

class Attributes : public LocalTest {
  protected:
    void SetUp() override {
        LocalTest::SetUp();
        MakeDir(InShare("d"));
        WriteFile(InShare("f"), "0123456789");
    }
};

TEST_F(Attributes, AreThoseOfTheObject) {
    for (const char* name : {"f", "d"}) {
        const BkEndProcPtr object = Find(name);
        OxelCtxt ctxt = AsSelf(object);
        const struct stat expected = StatOf(InShare(name));
        for (int time = 0; time < 2; ++time) {
            struct stat st;
            ASSERT_EQ(object->Stat(&ctxt, object->GetPath(), &st), 0);
            EXPECT_EQ(st.st_ino, expected.st_ino);
            EXPECT_EQ(st.st_dev, expected.st_dev);
            EXPECT_EQ(st.st_mode, expected.st_mode);
            EXPECT_EQ(st.st_nlink, expected.st_nlink);
            EXPECT_EQ(st.st_uid, expected.st_uid);
            EXPECT_EQ(st.st_gid, expected.st_gid);
            EXPECT_EQ(st.st_size, expected.st_size);
            EXPECT_EQ(st.st_blocks, expected.st_blocks);
            EXPECT_EQ(st.st_blksize, expected.st_blksize);
            EXPECT_EQ(st.st_mtim.tv_nsec, expected.st_mtim.tv_nsec);
            EXPECT_EQ(st.st_ctim.tv_sec, expected.st_ctim.tv_sec);
        }
    }
}

// The attributes that proved the object alive answer the call's first question, and only that one.
TEST_F(Attributes, OfTheResolutionAnswerTheFirstStat) {
    const nfs_fh3 handle = HandleAt("f");
    const BkEndProcPtr object = Resolve(handle);
    OxelCtxt ctxt = AsSelf(object);
    ASSERT_EQ(chmod(InShare("f").c_str(), 0600), 0);
    struct stat st;
    ASSERT_EQ(object->Stat(&ctxt, "/", &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0644u);
    ASSERT_EQ(object->Stat(&ctxt, "/", &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
}

TEST_F(Attributes, OfTheLookupAnswerTheFirstStatOfTheChild) {
    const BkEndProcPtr root = Root();
    OxelCtxt ctxt = AsSelf(root);
    const BkEndProcPtr child = root->FindChild(&ctxt, "f");
    ASSERT_EQ(chmod(InShare("f").c_str(), 0600), 0);
    OxelCtxt childCtxt = AsSelf(child);
    struct stat st;
    ASSERT_EQ(child->Stat(&childCtxt, InShare("f"), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0644u);
    ASSERT_EQ(child->Stat(&childCtxt, InShare("f"), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
}

TEST_F(Attributes, AreReadAnewAfterAChange) {
    const nfs_fh3 handle = HandleAt("f");
    struct stat st;
    for (int change = 0; change < 4; ++change) {
        const BkEndProcPtr object = Resolve(handle);
        OxelCtxt ctxt = AsSelf(object);
        switch (change) {
            case 0:
                ASSERT_EQ(object->Chmod(&ctxt, "/", 0640), 0);
                break;
            case 1:
                ASSERT_EQ(object->Truncate(&ctxt, "/", 3), 0);
                break;
            case 2:
                ASSERT_EQ(object->SetTimes(&ctxt, "/", {1, 2}, {3, 4}), 0);
                break;
            case 3:
                ASSERT_EQ(object->Chown(&ctxt, "/", geteuid(), getegid()), 0);
                break;
        }
        ASSERT_EQ(object->Stat(&ctxt, "/", &st), 0);
        const struct stat after = StatOf(InShare("f"));
        EXPECT_EQ(st.st_mode, after.st_mode);
        EXPECT_EQ(st.st_size, after.st_size);
        EXPECT_EQ(st.st_mtime, after.st_mtime);
        EXPECT_EQ(st.st_ctim.tv_nsec, after.st_ctim.tv_nsec) << change;
    }
}

TEST_F(Attributes, OfEarlierCallsAreNotUsed) {
    const nfs_fh3 f = HandleAt("f"), d = HandleAt("d");
    const BkEndProcPtr file = Resolve(f);  // its attributes are never asked for in this call
    OxelCtxt fileCtxt = AsSelf(file);
    EXPECT_EQ(ReadAll(*file, fileCtxt), "0123456789");
    ASSERT_EQ(chmod(InShare("f").c_str(), 0600), 0);
    (void)Resolve(d);
    struct stat st;
    ASSERT_EQ(file->Stat(&fileCtxt, "/", &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
}

TEST_F(Attributes, ChmodSetsPermissionAndSetIdBitsOnly) {
    const BkEndProcPtr object = Find("d");
    OxelCtxt ctxt = AsSelf(object);
    ASSERT_EQ(object->Chmod(&ctxt, InShare("d"), 07755), 0);
    EXPECT_EQ(StatOf(InShare("d")).st_mode, S_IFDIR | 07755u);
    ASSERT_EQ(object->Chmod(&ctxt, InShare("d"), 0xfffff000 | 0711), 0);
    EXPECT_EQ(StatOf(InShare("d")).st_mode, S_IFDIR | 0711u);
}

TEST_F(Attributes, TimesAreSetToMicroseconds) {
    const BkEndProcPtr object = Find("f");
    OxelCtxt ctxt = AsSelf(object);
    ASSERT_EQ(object->SetTimes(&ctxt, InShare("f"), {1000, 999999}, {2000, 1}), 0);
    const struct stat st = StatOf(InShare("f"));
    EXPECT_EQ(st.st_atim.tv_sec, 1000);
    EXPECT_EQ(st.st_atim.tv_nsec, 999999000);
    EXPECT_EQ(st.st_mtim.tv_sec, 2000);
    EXPECT_EQ(st.st_mtim.tv_nsec, 1000);
    EXPECT_NE(object->SetTimes(&ctxt, InShare("f"), {1, 4000000}, {1, 0}), 0);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(Attributes, TruncateCutsAndExtendsRegularFilesOnly) {
    const BkEndProcPtr object = Find("f");
    OxelCtxt ctxt = AsSelf(object);
    ASSERT_EQ(object->Truncate(&ctxt, InShare("f"), 4), 0);
    EXPECT_EQ(ReadAll(*object, ctxt), "0123");
    ASSERT_EQ(object->Truncate(&ctxt, InShare("f"), 6), 0);
    EXPECT_EQ(ReadAll(*object, ctxt), std::string("0123\0\0", 6));
    EXPECT_NE(object->Truncate(&ctxt, InShare("f"), UINT64_MAX), 0);
    EXPECT_EQ(errno, EFBIG);
    EXPECT_NE(object->Truncate(&ctxt, InShare("f"), uint64_t{1} << 62), 0);
    EXPECT_EQ(errno, EFBIG);
    EXPECT_EQ(StatOf(InShare("f")).st_size, 6);

    const BkEndProcPtr directory = Find("d");
    OxelCtxt directoryCtxt = AsSelf(directory);
    EXPECT_NE(directory->Truncate(&directoryCtxt, InShare("d"), 0), 0);
    EXPECT_EQ(errno, EISDIR);
    ASSERT_EQ(mkfifo(InShare("fifo").c_str(), 0644), 0);
    const BkEndProcPtr fifo = Find("fifo");
    OxelCtxt fifoCtxt = AsSelf(fifo);
    EXPECT_NE(fifo->Truncate(&fifoCtxt, InShare("fifo"), 0), 0);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(Attributes, FileSystemAndLimitsAreThoseOfTheLocalCalls) {
    const BkEndProcPtr object = Find("f");
    OxelCtxt ctxt = AsSelf(object);
    struct statfs expected, got;
    ASSERT_EQ(statfs(InShare("f").c_str(), &expected), 0);
    ASSERT_EQ(object->StatFs(&ctxt, "/", &got), 0);
    EXPECT_EQ(got.f_type, expected.f_type);
    EXPECT_EQ(got.f_blocks, expected.f_blocks);
    EXPECT_EQ(got.f_bsize, expected.f_bsize);
    EXPECT_EQ(object->StatFs(&ctxt, InShare("none"), &got), ENOENT);
    for (const int name : {_PC_LINK_MAX, _PC_NAME_MAX, _PC_NO_TRUNC, _PC_CHOWN_RESTRICTED}) {
        EXPECT_EQ(object->PathConf(&ctxt, InShare("f"), name),
                  pathconf(InShare("f").c_str(), name));
    }
}

TEST_F(Attributes, LinksTellTheirTargetUpToTheCapacity) {
    const std::string target(300, 't');
    ASSERT_EQ(symlink(target.c_str(), InShare("link").c_str()), 0);
    const BkEndProcPtr link = Find("link"), file = Find("f");
    OxelCtxt ctxt = AsSelf(link);
    char buffer[400] = {};
    ASSERT_EQ(link->ReadLink(&ctxt, InShare("link"), buffer, 399), 300);
    EXPECT_EQ(buffer, target);
    EXPECT_EQ(link->ReadLink(&ctxt, InShare("link"), buffer, 10), 10);
    OxelCtxt fileCtxt = AsSelf(file);
    EXPECT_EQ(file->ReadLink(&fileCtxt, InShare("f"), buffer, 399), -1);
    EXPECT_EQ(errno, EINVAL);
}

}  // namespace
}  // namespace oxel::testing
