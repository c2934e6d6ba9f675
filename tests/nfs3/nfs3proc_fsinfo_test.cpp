// SPDX-License-Identifier: Apache-2.0
//
// FSSTAT, FSINFO and PATHCONF.
#include "tests/nfs3/nfs3proc_fixture.h"

using namespace oxel::test;
using testing::_;
using testing::ElementsAre;
using testing::InSequence;
using testing::IsEmpty;
using testing::Return;

namespace {

constexpr const char* kGoneText = "Error: FS Root obect is not found.";

// ---- FSSTAT ----

class Fsstat : public ProcTest {
  protected:
    static constexpr const char* kFunction = "bool_t Handle_FSSTAT3(CallInfo3*)";
    Fsstat() {
        struct statfs fs {};
        fs.f_bsize = 4096;
        fs.f_blocks = uint64_t{1} << 36;
        fs.f_bfree = 1000;
        fs.f_bavail = 900;
        fs.f_files = 77;
        fs.f_ffree = 66;
        ON_CALL(*object_, StatFs)
            .WillByDefault([fs](OxelCtxt*, const std::string&, struct statfs* out) {
                *out = fs;
                return 0;
            });
    }
    FSSTAT3res& Run() {
        call_.arguments().fsstat.fsroot = handle_;
        EXPECT_EQ(TRUE, Handle_FSSTAT3(&call_));
        return call_.result.fsstat;
    }
};

TEST_F(Fsstat, GivesTheCapacityInBytesAndFiles) {
    InSequence order;
    EXPECT_CALL(*object_, Stat(OnObject(object_.get()), "/", _));
    EXPECT_CALL(*object_, StatFs(OnObject(object_.get()), "/", _));
    const FSSTAT3res& result = Run();
    EXPECT_EQ(NFS3_OK, result.status);
    EXPECT_EQ(uint64_t{1} << 48, result.resok.tbytes);
    EXPECT_EQ(4096u * 1000u, result.resok.fbytes);
    EXPECT_EQ(4096u * 900u, result.resok.abytes);
    EXPECT_EQ(77u, result.resok.tfiles);
    EXPECT_EQ(1u, result.resok.invarsec);
    EXPECT_EQ(TRUE, result.resok.obj_attributes.attributes_follow);
    EXPECT_EQ(4711u, result.resok.obj_attributes.attributes.fileid);
    EXPECT_TRUE(log_.Has(4, "resok->tbytes [1000000000000]")) << log_.Dump();
    EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(Fsstat, AvailableFilesAreTheFreeFiles) {
    const FSSTAT3res& result = Run();
    EXPECT_EQ(66u, result.resok.ffiles);
    EXPECT_EQ(66u, result.resok.afiles);
}

TEST_F(Fsstat, RefusedClientGetsAccess) {
    ClientIsRefused();
    const FSSTAT3res& result = Run();
    EXPECT_EQ(NFS3ERR_ACCES, result.status);
    EXPECT_EQ(FALSE, result.resfail.obj_attributes.attributes_follow);
}

TEST_F(Fsstat, HandleWhoseObjectHasVanishedIsNoentNotStale) {
    ObjectIsGone();
    const FSSTAT3res& result = Run();
    EXPECT_EQ(NFS3ERR_NOENT, result.status);
    EXPECT_EQ(FALSE, result.resfail.obj_attributes.attributes_follow);
    EXPECT_THAT(Errors(), ElementsAre(LogLine{-1, kFunction, kGoneText}));
}

TEST_F(Fsstat, FailedStatIsItsErrno) {
    EXPECT_CALL(*object_, Stat).WillOnce(FailWith(EACCES, -1));
    EXPECT_CALL(*object_, StatFs).Times(0);
    const FSSTAT3res& result = Run();
    EXPECT_EQ(NFS3ERR_ACCES, result.status);
    EXPECT_EQ(FALSE, result.resfail.obj_attributes.attributes_follow);
    EXPECT_THAT(
        Errors(),
        ElementsAre(
            LogLine{-1, kNfsStatFunction, "Error: Failed to stat [/]. [13:Permission denied]"},
            LogLine{-1, kFunction, "Error: Failed to stat(). [13:Permission denied]"}));
}

TEST_F(Fsstat, FailedStatfsIsItsResultWhateverErrnoSays) {
    EXPECT_CALL(*object_, StatFs).WillOnce(FailWith(ENOENT, EIO));
    const FSSTAT3res& result = Run();
    EXPECT_EQ(NFS3ERR_IO, result.status);
    EXPECT_EQ(FALSE, result.resfail.obj_attributes.attributes_follow);
    EXPECT_THAT(Errors(), ElementsAre(LogLine{
                              -1, kFunction, "Error: Failed to statfs(). [5:Input/output error]"}));
}

// ---- FSINFO ----

class Fsinfo : public ProcTest {
  protected:
    static constexpr const char* kFunction = "bool_t Handle_FSINFO3(CallInfo3*)";
    ~Fsinfo() override { NFS3_MAXBUF_SIZE = maxBytesBefore_; }
    FSINFO3res& Run() {
        call_.arguments().fsinfo.fsroot = handle_;
        EXPECT_EQ(TRUE, Handle_FSINFO3(&call_));
        return call_.result.fsinfo;
    }
    const uint64_t maxBytesBefore_ = NFS3_MAXBUF_SIZE;
};

TEST_F(Fsinfo, GivesTheConstantsWhateverTheShare) {
    NFS3_MAXBUF_SIZE = 262144;
    EXPECT_CALL(*object_, Stat(OnObject(object_.get()), "/", _));
    const FSINFO3res& result = Run();
    EXPECT_EQ(NFS3_OK, result.status);
    EXPECT_EQ(262144u, result.resok.rtmax);
    EXPECT_EQ(262144u, result.resok.rtpref);
    EXPECT_EQ(1u, result.resok.rtmult);
    EXPECT_EQ(262144u, result.resok.wtmax);
    EXPECT_EQ(262144u, result.resok.wtpref);
    EXPECT_EQ(1u, result.resok.wtmult);
    EXPECT_EQ(262144u, result.resok.dtpref);
    EXPECT_EQ(0x640000000000u, result.resok.maxfilesize);
    EXPECT_EQ(0u, result.resok.time_delta.seconds);
    EXPECT_EQ(1000000000u, result.resok.time_delta.nseconds);
    EXPECT_EQ(0x1Bu, result.resok.properties);
    EXPECT_EQ(TRUE, result.resok.obj_attributes.attributes_follow);
    EXPECT_EQ(4711u, result.resok.obj_attributes.attributes.fileid);
    EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(Fsinfo, TransferSizesAreTheLow32BitsOfTheSetting) {
    NFS3_MAXBUF_SIZE = (uint64_t{3} << 32) | 0x10000;
    const FSINFO3res& result = Run();
    for (uint32_t bytes : {result.resok.rtmax, result.resok.rtpref, result.resok.wtmax,
                           result.resok.wtpref, result.resok.dtpref})
        EXPECT_EQ(0x10000u, bytes);
}

TEST_F(Fsinfo, RefusedClientGetsAccess) {
    ClientIsRefused();
    const FSINFO3res& result = Run();
    EXPECT_EQ(NFS3ERR_ACCES, result.status);
    EXPECT_EQ(FALSE, result.resfail.obj_attributes.attributes_follow);
}

TEST_F(Fsinfo, HandleWhoseObjectHasVanishedIsNoentNotStale) {
    ObjectIsGone();
    const FSINFO3res& result = Run();
    EXPECT_EQ(NFS3ERR_NOENT, result.status);
    EXPECT_EQ(FALSE, result.resfail.obj_attributes.attributes_follow);
    EXPECT_THAT(Errors(), ElementsAre(LogLine{-1, kFunction, kGoneText}));
}

TEST_F(Fsinfo, FailedStatIsItsErrno) {
    EXPECT_CALL(*object_, Stat).WillOnce(FailWith(EIO, -1));
    const FSINFO3res& result = Run();
    EXPECT_EQ(NFS3ERR_IO, result.status);
    EXPECT_EQ(FALSE, result.resfail.obj_attributes.attributes_follow);
    EXPECT_THAT(
        Errors(),
        ElementsAre(
            LogLine{-1, kNfsStatFunction, "Error: Failed to stat [/]. [5:Input/output error]"},
            LogLine{-1, kFunction, "Error: Failed to stat(). [5:Input/output error]"}));
}

// ---- PATHCONF ----

class Pathconf : public ProcTest {
  protected:
    static constexpr const char* kFunction = "bool_t Handle_PATHCONF3(CallInfo3*)";
    PATHCONF3res& Run() {
        call_.arguments().pathconf.object = handle_;
        EXPECT_EQ(TRUE, Handle_PATHCONF3(&call_));
        return call_.result.pathconf;
    }
};

TEST_F(Pathconf, GivesTheLimitsOfTheObject) {
    InSequence order;
    EXPECT_CALL(*object_, PathConf(OnObject(object_.get()), kPath, 0)).WillOnce(Return(65000));
    EXPECT_CALL(*object_, PathConf(_, kPath, 3)).WillOnce(Return(255));
    EXPECT_CALL(*object_, PathConf(_, kPath, 7)).WillOnce(Return(1));
    EXPECT_CALL(*object_, PathConf(_, kPath, 6)).WillOnce(Return(2));
    EXPECT_CALL(*object_, Stat(OnObject(object_.get()), kPath, _));
    const PATHCONF3res& result = Run();
    EXPECT_EQ(NFS3_OK, result.status);
    EXPECT_EQ(65000u, result.resok.linkmax);
    EXPECT_EQ(255u, result.resok.name_max);
    EXPECT_EQ(1u, result.resok.no_trunc);
    EXPECT_EQ(2u, result.resok.chown_restricted);
    EXPECT_EQ(FALSE, result.resok.case_insensitive);
    EXPECT_EQ(TRUE, result.resok.case_preserving);
    EXPECT_EQ(TRUE, result.resok.obj_attributes.attributes_follow);
    EXPECT_EQ(4711u, result.resok.obj_attributes.attributes.fileid);
    EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(Pathconf, NoLimitIsTheLargestNumber) {
    EXPECT_CALL(*object_, PathConf).WillRepeatedly(FailWith(EINVAL, -1L));
    const PATHCONF3res& result = Run();
    EXPECT_EQ(NFS3_OK, result.status);
    EXPECT_EQ(0xFFFFFFFFu, result.resok.linkmax);
    EXPECT_EQ(0xFFFFFFFFu, result.resok.name_max);
    EXPECT_EQ(0xFFFFFFFFu, result.resok.no_trunc);
    EXPECT_EQ(0xFFFFFFFFu, result.resok.chown_restricted);
}

TEST_F(Pathconf, FailedStatOnlyLosesTheAttributes) {
    EXPECT_CALL(*object_, PathConf).WillRepeatedly(Return(9));
    EXPECT_CALL(*object_, Stat).WillOnce(FailWith(EIO, -1));
    const PATHCONF3res& result = Run();
    EXPECT_EQ(NFS3_OK, result.status);
    EXPECT_EQ(9u, result.resok.linkmax);
    EXPECT_EQ(FALSE, result.resok.obj_attributes.attributes_follow);
}

TEST_F(Pathconf, RefusedClientGetsAccess) {
    ClientIsRefused();
    const PATHCONF3res& result = Run();
    EXPECT_EQ(NFS3ERR_ACCES, result.status);
    EXPECT_EQ(FALSE, result.resfail.obj_attributes.attributes_follow);
}

TEST_F(Pathconf, HandleWithoutAnObjectIsStale) {
    ObjectIsGone();
    const PATHCONF3res& result = Run();
    EXPECT_EQ(NFS3ERR_STALE, result.status);
    EXPECT_EQ(FALSE, result.resfail.obj_attributes.attributes_follow);
    EXPECT_THAT(Errors(), ElementsAre(LogLine{-1, kFunction,
                                              "Error: Stale File Handle. FH [] IP [192.0.2.7]"}));
}

TEST_F(ProcTest, ReleasesOfFsstatFsinfoAndPathconfOnlySaySo) {
    EXPECT_EQ(1, Free_FSSTAT3(&call_));
    EXPECT_EQ(1, Free_FSINFO3(&call_));
    EXPECT_EQ(1, Free_PATHCONF3(&call_));
    EXPECT_THAT(log_.Lines(),
                ElementsAre(LogLine{4, "bool_t Free_FSSTAT3(CallInfo3*)", "Freed memory"},
                            LogLine{4, "bool_t Free_FSINFO3(CallInfo3*)", "Freed memory"},
                            LogLine{4, "bool_t Free_PATHCONF3(CallInfo3*)", "Freed memory"}));
}

}  // namespace
