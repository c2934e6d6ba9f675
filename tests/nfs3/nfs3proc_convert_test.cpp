// SPDX-License-Identifier: Apache-2.0
//
// The conversions between errno, struct stat and the protocol's numbers and attributes.
#include "tests/nfs3/nfs3proc_fixture.h"

using namespace oxel::test;
using testing::_;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::IsSupersetOf;

namespace {

TEST(SysErr, EveryRowOfTheTable) {
    const std::pair<int, int> rows[] = {
        {EPERM, 1},   {ENOENT, 2},  {EIO, 5},      {ENXIO, 6},         {EACCES, 13},   {EEXIST, 17},
        {EXDEV, 18},  {ENODEV, 19}, {ENOTDIR, 20}, {EISDIR, 21},       {EINVAL, 22},   {EFBIG, 27},
        {ENOSPC, 28}, {EROFS, 30},  {EMLINK, 31},  {ENAMETOOLONG, 63}, {ENOTEMPTY, 66}};
    for (const auto& [err, status] : rows) {
        EXPECT_EQ(status, SysErrToNFSErr(err, true)) << err;
        EXPECT_EQ(status, SysErrToNFSErr(err, false)) << err;
    }
}

TEST(SysErr, ErrnosWithoutARowGoThroughUnchanged) {
    for (int err :
         {EAGAIN, ENOMEM, EBUSY, EDEADLK, ENOSYS, EDQUOT, ESTALE, EOPNOTSUPP, 40, 133, 100000, -1})
        EXPECT_EQ(err, SysErrToNFSErr(err, true));
    EXPECT_EQ(11, SysErrToNFSErr(EAGAIN, true));
    EXPECT_EQ(116, SysErrToNFSErr(ESTALE, true));
    EXPECT_EQ(122, SysErrToNFSErr(EDQUOT, true));
}

TEST(SysErr, ZeroIsInvalidAndSaidWhenZeroIsAnError) {
    LogCapture log;
    EXPECT_EQ(NFS3ERR_INVAL, SysErrToNFSErr(0, true));
    EXPECT_THAT(log.Lines(), ElementsAre(LogLine{-1, "nfsstat3 SysErrToNFSErr(int, bool)",
                                                 "SysErrToNFSErr: Received error code 0"}));
}

TEST(SysErr, ZeroIsOkWhenZeroIsNoError) {
    LogCapture log;
    EXPECT_EQ(NFS3_OK, SysErrToNFSErr(0, false));
    EXPECT_THAT(log.Lines(), IsEmpty());
}

class Attributes : public ProcTest {
  protected:
    // A context on the object, as handlers make it.
    OxelCtxt ctxt_{call_.identity, share_, object_};

    fattr3 Fill(const struct stat& st) {
        EXPECT_CALL(*object_, Stat(&ctxt_, kPath, _)).WillOnce(StatGives(st));
        fattr3 out{};
        EXPECT_EQ(0, OSStatToNfsStat(&ctxt_, kPath, &out));
        return out;
    }
};

TEST_F(Attributes, OfARegularFile) {
    const fattr3 out = Fill(FileStat(S_IFREG | 0644));
    EXPECT_EQ(NF3REG, out.type);
    EXPECT_EQ(0644u, out.mode);
    EXPECT_EQ(3u, out.nlink);
    EXPECT_EQ(1001u, out.uid);
    EXPECT_EQ(1002u, out.gid);
    EXPECT_EQ(5000u, out.size);
    EXPECT_EQ(16u * 4096u, out.used);
    EXPECT_EQ(2051u, out.fsid);
    EXPECT_EQ(4711u, out.fileid);
    EXPECT_EQ(1000u, out.atime.seconds);
    EXPECT_EQ(2000u, out.mtime.seconds);
    EXPECT_EQ(3000u, out.ctime.seconds);
    EXPECT_THAT(log_.Lines(),
                ElementsAre(LogLine{3, kNfsStatFunction, "Object type = [81a4 : 8000]."},
                            LogLine{3, kNfsStatFunction, "Filled stat info."}));
}

TEST_F(Attributes, EveryObjectTypeHasItsNumber) {
    const std::pair<mode_t, ftype3> rows[] = {
        {S_IFIFO, NF3FIFO}, {S_IFCHR, NF3CHR}, {S_IFDIR, NF3DIR},  {S_IFBLK, NF3BLK},
        {S_IFREG, NF3REG},  {S_IFLNK, NF3LNK}, {S_IFSOCK, NF3SOCK}};
    for (const auto& [mode, type] : rows) {
        const fattr3 out = Fill(FileStat(mode | 0600));
        EXPECT_EQ(type, out.type);
        EXPECT_EQ(2051u, out.fsid);
    }
    EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(Attributes, UnknownObjectTypeIsSaidAndTheTypeLeftAlone) {
    EXPECT_CALL(*object_, Stat).WillOnce(StatGives(FileStat(0x3000 | 0600)));
    fattr3 out{};
    out.type = NF3LNK;
    EXPECT_EQ(0, OSStatToNfsStat(&ctxt_, kPath, &out));
    EXPECT_EQ(NF3LNK, out.type);
    EXPECT_EQ(0600u, out.mode);
    EXPECT_EQ(5000u, out.size);
    EXPECT_THAT(Errors(),
                ElementsAre(LogLine{-1, kNfsStatFunction, "Error: Unknown Object type = [3000]."}));
}

TEST_F(Attributes, StickyBitIsNotShownTheSetIdBitsAre) {
    EXPECT_EQ(0777u, Fill(FileStat(S_IFREG | 01777)).mode);
    EXPECT_EQ(06777u, Fill(FileStat(S_IFREG | 07777)).mode);
    for (mode_t bit : {0400, 0200, 0100, 040, 020, 010, 04, 02, 01, 04000, 02000})
        EXPECT_EQ(bit, Fill(FileStat(S_IFREG | bit)).mode);
}

TEST_F(Attributes, DirectoriesHave4096BytesWhateverTheirSize) {
    const fattr3 out = Fill(FileStat(S_IFDIR | 0755));
    EXPECT_EQ(4096u, out.size);
    EXPECT_EQ(4096u, out.used);
}

TEST_F(Attributes, UsedIsBlocksTimesTheBlockSizeIn64Bits) {
    struct stat st = FileStat(S_IFREG | 0600);
    st.st_blocks = int64_t{1} << 33;
    st.st_blksize = 4096;
    st.st_size = (int64_t{1} << 42) + 1;
    const fattr3 out = Fill(st);
    EXPECT_EQ(uint64_t{1} << 45, out.used);
    EXPECT_EQ((uint64_t{1} << 42) + 1, out.size);
}

TEST_F(Attributes, LinkCountAndSecondsAreCutTo32Bits) {
    struct stat st = FileStat(S_IFREG | 0600);
    st.st_nlink = (uint64_t{1} << 32) + 5;
    st.st_mtime = (int64_t{1} << 32) + 6;
    const fattr3 out = Fill(st);
    EXPECT_EQ(5u, out.nlink);
    EXPECT_EQ(6u, out.mtime.seconds);
}

TEST_F(Attributes, NanosecondsAndDeviceNumbersAreLeftAlone) {
    struct stat st = FileStat(S_IFCHR | 0600);
    st.st_atim.tv_nsec = st.st_mtim.tv_nsec = st.st_ctim.tv_nsec = 99;
    st.st_rdev = 0x0801;
    EXPECT_CALL(*object_, Stat).WillOnce(StatGives(st));
    fattr3 out{};
    out.atime.nseconds = 1;
    out.mtime.nseconds = 2;
    out.ctime.nseconds = 3;
    out.rdev = {4, 5};
    EXPECT_EQ(0, OSStatToNfsStat(&ctxt_, kPath, &out));
    EXPECT_EQ(1u, out.atime.nseconds);
    EXPECT_EQ(2u, out.mtime.nseconds);
    EXPECT_EQ(3u, out.ctime.nseconds);
    EXPECT_EQ(4u, out.rdev.specdata1);
    EXPECT_EQ(5u, out.rdev.specdata2);
}

TEST_F(Attributes, FailedStatGivesItsErrnoAndLeavesTheOutputUntouched) {
    EXPECT_CALL(*object_, Stat).WillOnce(FailWith(ENOENT, -1)).WillOnce(FailWith(EACCES, 7));
    fattr3 out;
    std::memset(&out, 0x5a, sizeof out);
    fattr3 before;
    std::memset(&before, 0x5a, sizeof before);
    EXPECT_EQ(ENOENT, OSStatToNfsStat(&ctxt_, kPath, &out));
    EXPECT_EQ(EACCES, OSStatToNfsStat(&ctxt_, kPath, &out));
    // Every byte was written, padding included.
    // NOLINTNEXTLINE(bugprone-suspicious-memory-comparison)
    EXPECT_EQ(0, std::memcmp(&before, &out, sizeof out));
    EXPECT_THAT(
        log_.Lines(),
        ElementsAre(LogLine{-1, kNfsStatFunction,
                            "Error: Failed to stat [/srv/share/dir/name]. [2:No such file or "
                            "directory]"},
                    LogLine{-1, kNfsStatFunction,
                            "Error: Failed to stat [/srv/share/dir/name]. [13:Permission "
                            "denied]"}));
}

TEST_F(Attributes, TheLinuxClientVariantDiffersInItsTraceOnly) {
    const char* function = "int OSStatToNfsStatLinuxClient(OxelCtxt*, const std::string&, fattr3*)";
    for (mode_t mode : {S_IFREG | 01644, S_IFDIR | 0755, S_IFSOCK | 0600}) {
        const fattr3 plain = Fill(FileStat(mode));
        log_.Clear();
        EXPECT_CALL(*object_, Stat).WillOnce(StatGives(FileStat(mode)));
        fattr3 out{};
        EXPECT_EQ(0, OSStatToNfsStatLinuxClient(&ctxt_, kPath, &out));
        // Both were zero throughout before.
        // NOLINTNEXTLINE(bugprone-suspicious-memory-comparison)
        EXPECT_EQ(0, std::memcmp(&plain, &out, sizeof out));
        char first[80], second[80];
        snprintf(first, sizeof first, "mode [%o] uid [1001] gid [1002].", mode);
        snprintf(second, sizeof second, "Filled stat info mode [%o] uid [1001] gid [1002]",
                 mode & 0xDFF);
        EXPECT_THAT(log_.Lines(),
                    ElementsAre(LogLine{3, function, first}, LogLine{3, function, second}));
    }
    log_.Clear();
    EXPECT_CALL(*object_, Stat).WillOnce(FailWith(EIO, -1));
    fattr3 out{};
    EXPECT_EQ(EIO, OSStatToNfsStatLinuxClient(&ctxt_, kPath, &out));
    EXPECT_THAT(log_.Lines(), ElementsAre(LogLine{-1, function,
                                                  "Error: Failed to stat [/srv/share/dir/name]. "
                                                  "[5:Input/output error]"}));
}

TEST_F(Attributes, WccOfAFileHoldsItsSizeAndSeconds) {
    EXPECT_CALL(*object_, Stat(&ctxt_, kPath, _)).WillOnce(StatGives(FileStat(S_IFREG | 0600)));
    wcc_attr out{};
    out.mtime.nseconds = 1;
    out.ctime.nseconds = 2;
    EXPECT_EQ(0, OSStatToWccAttr(&ctxt_, kPath, &out));
    EXPECT_EQ(5000u, out.size);
    EXPECT_EQ(2000u, out.mtime.seconds);
    EXPECT_EQ(3000u, out.ctime.seconds);
    EXPECT_EQ(1u, out.mtime.nseconds);
    EXPECT_EQ(2u, out.ctime.nseconds);
    EXPECT_THAT(
        log_.Lines(),
        ElementsAre(LogLine{3, "int OSStatToWccAttr(OxelCtxt*, const std::string&, wcc_attr*)",
                            "Filled stat info."}));
}

TEST_F(Attributes, WccOfADirectoryHas4096Bytes) {
    EXPECT_CALL(*object_, Stat).WillOnce(StatGives(FileStat(S_IFDIR | 0700)));
    wcc_attr out{};
    EXPECT_EQ(0, OSStatToWccAttr(&ctxt_, kPath, &out));
    EXPECT_EQ(4096u, out.size);
}

TEST_F(Attributes, WccOfAFailedStatIsItsErrno) {
    EXPECT_CALL(*object_, Stat).WillOnce(FailWith(ELOOP, -1));
    wcc_attr out{};
    EXPECT_EQ(ELOOP, OSStatToWccAttr(&ctxt_, kPath, &out));
    EXPECT_THAT(
        log_.Lines(),
        ElementsAre(LogLine{-1, "int OSStatToWccAttr(OxelCtxt*, const std::string&, wcc_attr*)",
                            "Error: Failed to stat [/srv/share/dir/name]. [40:Too many levels of "
                            "symbolic links]"}));
}

}  // namespace
