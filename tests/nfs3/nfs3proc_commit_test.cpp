// SPDX-License-Identifier: Apache-2.0
//
// COMMIT.
#include "backend/OxelServiceGlobals.h"
#include "tests/nfs3/nfs3proc_fixture.h"

using namespace oxel::test;
using testing::_;
using testing::ElementsAre;
using testing::InSequence;
using testing::IsEmpty;
using testing::Return;

namespace {

constexpr const char* kFunction = "bool_t Handle_COMMIT3(CallInfo3*)";
constexpr int kFd = 33;
constexpr uint32_t kStartTime = 0x89abcdef;

class Commit : public ProcTest {
  protected:
    Commit() {
        OxelServiceGlobals::SetServerStartTime(kStartTime);
        ON_CALL(*object_, Open).WillByDefault(Return(kFd));
        ON_CALL(*object_, Close).WillByDefault(Return(0));
        ON_CALL(*object_, SyncFs).WillByDefault(Return(0));
    }
    ~Commit() override { OxelServiceGlobals::SetServerStartTime(startBefore_); }
    COMMIT3res& Run(uint64_t offset = 100, uint32_t count = 200) {
        call_.arguments().commit = {handle_, offset, count};
        EXPECT_EQ(TRUE, Handle_COMMIT3(&call_));
        return call_.result.commit;
    }
    static void CarriesNothing(const COMMIT3res& result) {
        EXPECT_EQ(FALSE, result.resfail.file_wcc.before.attributes_follow);
        EXPECT_EQ(FALSE, result.resfail.file_wcc.after.attributes_follow);
    }

    const uint32_t startBefore_ = OxelServiceGlobals::serverStartTime;
};

TEST_F(Commit, OpensForBothSyncsTheFileSystemAndCloses) {
    InSequence order;
    EXPECT_CALL(*object_, Stat(IsContextOf(&call_, object_.get()), kPath, _));
    EXPECT_CALL(*object_, Open(OnObject(object_.get()), kPath, 2, 0)).WillOnce(Return(kFd));
    EXPECT_CALL(*object_, SyncFs(OnObject(object_.get()), kFd)).WillOnce(Return(0));
    EXPECT_CALL(*object_, Close(OnObject(object_.get()), kFd)).WillOnce(Return(-1));
    EXPECT_CALL(*object_, Stat(OnObject(object_.get()), kPath, _));
    const COMMIT3res& result = Run();
    EXPECT_EQ(NFS3_OK, result.status);
    const wcc_data& wcc = result.resok.file_wcc;
    EXPECT_EQ(TRUE, wcc.before.attributes_follow);
    EXPECT_EQ(5000u, wcc.before.attributes.size);
    EXPECT_EQ(TRUE, wcc.after.attributes_follow);
    EXPECT_EQ(4711u, wcc.after.attributes.fileid);
    EXPECT_EQ(uint64_t{kStartTime}, result.resok.verf);
    // The closing of a success is not traced.
    EXPECT_THAT(log_.AtLevel(4), ElementsAre(LogLine{4, kValidateFunction, "fh [handle text]"},
                                             LogLine{4, kFunction, "Opened [name]. fd [33]"}));
    EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(Commit, SucceedsWithoutAttributesThatCannotBeHadAfterwards) {
    EXPECT_CALL(*object_, Stat)
        .WillOnce(StatGives(FileStat(S_IFREG | 0644)))
        .WillOnce(FailWith(EIO, -1));
    const COMMIT3res& result = Run();
    EXPECT_EQ(NFS3_OK, result.status);
    EXPECT_EQ(TRUE, result.resok.file_wcc.before.attributes_follow);
    EXPECT_EQ(FALSE, result.resok.file_wcc.after.attributes_follow);
    EXPECT_EQ(uint64_t{kStartTime}, result.resok.verf);
}

TEST_F(Commit, HandleWithoutAnObjectIsNoentAndNotStaleWithoutAWord) {
    ObjectIsGone();
    const COMMIT3res& result = Run();
    EXPECT_EQ(NFS3ERR_NOENT, result.status);
    CarriesNothing(result);
    EXPECT_THAT(log_.Lines(), ElementsAre(LogLine{4, kValidateFunction, "fh [handle text]"}));
}

TEST_F(Commit, WithoutAttributesFromBeforeItSucceedsWithNothingNotEvenAVerifier) {
    EXPECT_CALL(*object_, Stat).WillOnce(FailWith(ENOENT, -1));
    EXPECT_CALL(*object_, Open).Times(0);
    const COMMIT3res& result = Run();
    EXPECT_EQ(NFS3_OK, result.status);
    CarriesNothing(result);
    EXPECT_EQ(0u, result.resok.verf);
    EXPECT_THAT(Errors(), ElementsAre(LogLine{
                              -1, "int OSStatToWccAttr(OxelCtxt*, const std::string&, wcc_attr*)",
                              "Error: Failed to stat [/srv/share/dir/name]. [2:No such file "
                              "or directory]"}));
}

TEST_F(Commit, FailedOpenSaysReadingAndClosesNothing) {
    EXPECT_CALL(*object_, Open).WillOnce(FailWith(EACCES, -1));
    EXPECT_CALL(*object_, Close).Times(0);
    const COMMIT3res& result = Run();
    EXPECT_EQ(NFS3ERR_ACCES, result.status);
    CarriesNothing(result);
    EXPECT_THAT(Errors(), ElementsAre(LogLine{-1, kFunction,
                                              "Error: Failed to open [name] for reading. Error "
                                              "[Permission denied]"}));
}

TEST_F(Commit, FailedSyncIsItsErrnoWhateverCloseLeavesInErrno) {
    InSequence order;
    EXPECT_CALL(*object_, SyncFs(_, kFd)).WillOnce(FailWith(EIO, -1));
    EXPECT_CALL(*object_, Close(_, kFd)).WillOnce(FailWith(EBADF, -1));
    const COMMIT3res& result = Run();
    EXPECT_EQ(NFS3ERR_IO, result.status);
    CarriesNothing(result);
    const std::vector<LogLine> lines = log_.Lines();
    ASSERT_EQ(5u, lines.size()) << log_.Dump();
    EXPECT_EQ((LogLine{-1, kFunction,
                       "Error: Failed to sync data for filesystem containing [name]. Error "
                       "[Input/output error]"}),
              lines[3]);
    EXPECT_EQ((LogLine{4, kFunction, "Closed [name]. fd [33]"}), lines[4]);
}

TEST_F(Commit, OffsetAndCountAreNotLookedAt) {
    EXPECT_EQ(NFS3_OK, Run(UINT64_MAX, UINT32_MAX).status);
}

TEST_F(Commit, FillerClearsTheFlags) {
    COMMIT3res result{};
    result.resfail.file_wcc.before.attributes_follow = TRUE;
    result.resfail.file_wcc.after.attributes_follow = TRUE;
    EXPECT_EQ(TRUE, FillCommitFailRes(&result, NFS3ERR_IO));
    EXPECT_EQ(NFS3ERR_IO, result.status);
    CarriesNothing(result);
}

}  // namespace
