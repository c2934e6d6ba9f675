// SPDX-License-Identifier: Apache-2.0
//
// Applying a client's settable attributes: order, guard, the crossed times, and what a failure of
// each step does.
#include <sys/time.h>

#include "tests/nfs3/nfs3proc_fixture.h"

using namespace oxel::test;
using testing::_;
using testing::ElementsAre;
using testing::InSequence;
using testing::IsEmpty;
using testing::IsSupersetOf;
using testing::Return;

namespace {

constexpr const char* kApplyFunction =
    "nfsstat3 ApplySattr(OxelCtxt*, sattr3*, const std::string&, ftype3, bool, nfstime3*)";
constexpr const char* kDumpFunction = "void Dumpsattr3(sattr3&)";

enum class OnError { kFail, kCarryOn };

MATCHER_P2(IsTime, seconds, microseconds, "") {
    return arg.tv_sec == seconds && arg.tv_usec == microseconds;
}
// Between two readings of the clock.
MATCHER_P(IsNowSince, before, "") {
    struct timeval after;
    gettimeofday(&after, nullptr);
    return !timercmp(&arg, &before, <) && !timercmp(&after, &arg, <);
}

class Sattr : public ProcTest {
  protected:
    nfsstat3 Apply(OnError onError = OnError::kFail, nfstime3* guard = nullptr,
                   ftype3 type = NF3REG) {
        return ApplySattr(&ctxt_, &wish_, kPath, type, onError == OnError::kFail, guard);
    }
    void WishAll() {
        wish_.mode = {TRUE, 0640};
        wish_.uid = {TRUE, 7};
        wish_.gid = {TRUE, 8};
        wish_.size = {TRUE, 123};
        wish_.atime = {SET_TO_CLIENT_TIME, {11, 5999}};
        wish_.mtime = {SET_TO_CLIENT_TIME, {22, 999999999}};
    }

    OxelCtxt ctxt_{call_.identity, share_, object_};
    sattr3 wish_{};
};

TEST_F(Sattr, NothingWishedOnlyStatsTheObject) {
    EXPECT_CALL(*object_, Chmod).Times(0);
    EXPECT_CALL(*object_, Chown).Times(0);
    EXPECT_CALL(*object_, Stat(&ctxt_, kPath, _));
    EXPECT_CALL(*object_, SetTimes).Times(0);
    EXPECT_CALL(*object_, Truncate).Times(0);
    EXPECT_EQ(NFS3_OK, Apply());
    EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(Sattr, EverythingIsAppliedInOrderModeOwnerTimesSize) {
    WishAll();
    InSequence order;
    EXPECT_CALL(*object_, Chmod(&ctxt_, kPath, 0640));
    EXPECT_CALL(*object_, Chown(&ctxt_, kPath, 7, 8));
    EXPECT_CALL(*object_, Stat(&ctxt_, kPath, _));
    EXPECT_CALL(*object_, SetTimes(&ctxt_, kPath, IsTime(11, 5), IsTime(22, 999999)));
    EXPECT_CALL(*object_, Truncate(&ctxt_, kPath, 123));
    EXPECT_EQ(NFS3_OK, Apply());
    EXPECT_THAT(log_.Lines(),
                ElementsAre(LogLine{4, kApplyFunction, "uid [7] gid [8]"},
                            LogLine{4, kApplyFunction, "Setting atime to [11 : 5]"},
                            LogLine{4, kApplyFunction, "Setting mtime to [22 : 999999]"},
                            LogLine{3, kApplyFunction,
                                    "Successfully resized [/srv/share/dir/name] to [123] bytes."}));
}

TEST_F(Sattr, UserOrGroupAloneChangesNothing) {
    EXPECT_CALL(*object_, Chown).Times(0);
    wish_.uid = {TRUE, 7};
    EXPECT_EQ(NFS3_OK, Apply());
    wish_.uid = {FALSE, 0};
    wish_.gid = {TRUE, 8};
    EXPECT_EQ(NFS3_OK, Apply());
    EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(Sattr, UserAndGroupTogetherChownOnce) {
    wish_.uid = {TRUE, 0};
    wish_.gid = {TRUE, 0xffffffff};
    EXPECT_CALL(*object_, Chown(&ctxt_, kPath, 0, 0xffffffff));
    EXPECT_EQ(NFS3_OK, Apply());
    EXPECT_THAT(log_.Lines(), ElementsAre(LogLine{4, kApplyFunction, "uid [0] gid [-1]"}));
}

// ---- Times ----

TEST_F(Sattr, ClientMtimeAloneSetsTheAtimeToNowAndLeavesTheMtime) {
    wish_.mtime = {SET_TO_CLIENT_TIME, {22, 0}};
    struct timeval before;
    gettimeofday(&before, nullptr);
    EXPECT_CALL(*object_, SetTimes(_, _, IsNowSince(before), IsTime(2000, 0)));
    EXPECT_EQ(NFS3_OK, Apply());
}

TEST_F(Sattr, ServerMtimeAloneSetsTheAtimeToNowAndLeavesTheMtime) {
    wish_.mtime = {SET_TO_SERVER_TIME, {22, 0}};
    struct timeval before;
    gettimeofday(&before, nullptr);
    EXPECT_CALL(*object_, SetTimes(_, _, IsNowSince(before), IsTime(2000, 0)));
    EXPECT_EQ(NFS3_OK, Apply());
}

TEST_F(Sattr, ClientAtimeAloneSetsTheMtimeToNowAndLeavesTheAtime) {
    wish_.atime = {SET_TO_CLIENT_TIME, {11, 0}};
    struct timeval before;
    gettimeofday(&before, nullptr);
    EXPECT_CALL(*object_, SetTimes(_, _, IsTime(1000, 0), IsNowSince(before)));
    EXPECT_EQ(NFS3_OK, Apply());
}

TEST_F(Sattr, ServerAtimeAndClientMtimeEachTakeTheirOwnSource) {
    wish_.atime = {SET_TO_SERVER_TIME, {11, 0}};
    wish_.mtime = {SET_TO_CLIENT_TIME, {22, 7000}};
    struct timeval before;
    gettimeofday(&before, nullptr);
    EXPECT_CALL(*object_, SetTimes(_, _, IsNowSince(before), IsTime(22, 7)));
    EXPECT_EQ(NFS3_OK, Apply());
}

TEST_F(Sattr, ClientAtimeAndServerMtimeEachTakeTheirOwnSource) {
    wish_.atime = {SET_TO_CLIENT_TIME, {11, 7000}};
    wish_.mtime = {SET_TO_SERVER_TIME, {22, 0}};
    struct timeval before;
    gettimeofday(&before, nullptr);
    EXPECT_CALL(*object_, SetTimes(_, _, IsTime(11, 7), IsNowSince(before)));
    EXPECT_EQ(NFS3_OK, Apply());
}

TEST_F(Sattr, TimesThatStayAreGivenWithoutMicroseconds) {
    struct stat st = FileStat(S_IFREG | 0600);
    st.st_mtim.tv_nsec = 555555555;
    EXPECT_CALL(*object_, Stat).WillOnce(StatGives(st));
    wish_.mtime = {SET_TO_CLIENT_TIME, {22, 0}};
    EXPECT_CALL(*object_, SetTimes(_, _, _, IsTime(2000, 0)));
    EXPECT_EQ(NFS3_OK, Apply());
}

// ---- Guard ----

TEST_F(Sattr, GuardOlderThanTheObjectLeavesTheTimesAndAppliesTheRest) {
    WishAll();
    nfstime3 guard{2999, 999999999};
    EXPECT_CALL(*object_, Chmod);
    EXPECT_CALL(*object_, Chown);
    EXPECT_CALL(*object_, SetTimes).Times(0);
    EXPECT_CALL(*object_, Truncate);
    EXPECT_EQ(NFS3_OK, Apply(OnError::kFail, &guard));
}

TEST_F(Sattr, GuardOfTheSameOrALaterSecondLetsTheTimesChange) {
    WishAll();
    struct stat st = FileStat(S_IFREG | 0600);
    st.st_ctim.tv_nsec = 999999999;  // nanoseconds are not compared
    ON_CALL(*object_, Stat).WillByDefault(StatGives(st));
    EXPECT_CALL(*object_, SetTimes(_, _, IsTime(11, 5), IsTime(22, 999999))).Times(2);
    nfstime3 same{3000, 0};
    EXPECT_EQ(NFS3_OK, Apply(OnError::kFail, &same));
    nfstime3 later{3001, 0};
    EXPECT_EQ(NFS3_OK, Apply(OnError::kFail, &later));
}

// ---- Size ----

TEST_F(Sattr, SizeIsForRegularFilesOnly) {
    wish_.size = {TRUE, 5};
    EXPECT_CALL(*object_, Truncate).Times(0);
    EXPECT_EQ(NFS3_OK, Apply(OnError::kFail, nullptr, NF3DIR));
    EXPECT_EQ(NFS3_OK, Apply(OnError::kFail, nullptr, NF3LNK));
}

TEST_F(Sattr, SizeThatIsNotSetIsNotApplied) {
    wish_.size = {FALSE, 5};
    EXPECT_CALL(*object_, Truncate).Times(0);
    EXPECT_EQ(NFS3_OK, Apply());
}

// ---- Failures ----

TEST_F(Sattr, FailedChmodEndsTheStrictForm) {
    WishAll();
    EXPECT_CALL(*object_, Chmod).WillOnce(FailWith(EPERM, -1));
    EXPECT_CALL(*object_, Chown).Times(0);
    EXPECT_CALL(*object_, Stat).Times(0);
    EXPECT_EQ(NFS3ERR_PERM, Apply());
    EXPECT_THAT(log_.Lines(), ElementsAre(LogLine{-1, kApplyFunction,
                                                  "Error: Failed to chmod [/srv/share/dir/name]. "
                                                  "[Operation not permitted]"}));
}

TEST_F(Sattr, FailedChownEndsTheStrictForm) {
    WishAll();
    EXPECT_CALL(*object_, Chown).WillOnce(FailWith(EDQUOT, -1));
    EXPECT_CALL(*object_, Stat).Times(0);
    EXPECT_EQ(EDQUOT, Apply());
    EXPECT_THAT(log_.Lines(), ElementsAre(LogLine{-1, kApplyFunction,
                                                  "Error: Failed to chown [/srv/share/dir/name]. "
                                                  "[Disk quota exceeded]"}));
}

TEST_F(Sattr, FailedStatEndsTheStrictForm) {
    WishAll();
    EXPECT_CALL(*object_, Stat).WillOnce(FailWith(EIO, -1));
    EXPECT_CALL(*object_, SetTimes).Times(0);
    EXPECT_CALL(*object_, Truncate).Times(0);
    EXPECT_EQ(NFS3ERR_IO, Apply());
    EXPECT_THAT(Errors(), ElementsAre(LogLine{-1, kApplyFunction,
                                              "Error: Failed to stat [/srv/share/dir/name]. "
                                              "[Input/output error]"}));
}

TEST_F(Sattr, FailedSetTimesEndsTheStrictForm) {
    WishAll();
    EXPECT_CALL(*object_, SetTimes).WillOnce(FailWith(EROFS, 1));
    EXPECT_CALL(*object_, Truncate).Times(0);
    EXPECT_EQ(NFS3ERR_ROFS, Apply());
    EXPECT_THAT(Errors(), ElementsAre(LogLine{-1, kApplyFunction,
                                              "Error: Failed to set time stamps. Error [Read-only "
                                              "file system]"}));
}

TEST_F(Sattr, FailedTruncateEndsTheStrictForm) {
    WishAll();
    EXPECT_CALL(*object_, Truncate).WillOnce(FailWith(EISDIR, 1));
    EXPECT_EQ(NFS3ERR_ISDIR, Apply());
    EXPECT_THAT(Errors(), ElementsAre(LogLine{-1, kApplyFunction,
                                              "Error: Failed to truncate. Error [Is a "
                                              "directory]"}));
    EXPECT_THAT(log_.AtLevel(3), IsEmpty());
}

TEST_F(Sattr, TheLenientFormSaysEveryFailureAndSucceeds) {
    WishAll();
    InSequence order;
    EXPECT_CALL(*object_, Chmod).WillOnce(FailWith(EPERM, -1));
    EXPECT_CALL(*object_, Chown).WillOnce(FailWith(EPERM, -1));
    EXPECT_CALL(*object_, Stat).WillOnce(FailWith(EIO, -1));
    EXPECT_CALL(*object_, SetTimes(_, _, IsTime(11, 5), IsTime(22, 999999)))
        .WillOnce(FailWith(EACCES, -1));
    EXPECT_CALL(*object_, Truncate).WillOnce(FailWith(EFBIG, -1));
    EXPECT_EQ(NFS3_OK, Apply(OnError::kCarryOn));
    EXPECT_THAT(
        Errors(),
        ElementsAre(
            LogLine{-1, kApplyFunction,
                    "Error: Failed to chmod [/srv/share/dir/name]. [Operation not permitted]"},
            LogLine{-1, kApplyFunction,
                    "Error: Failed to chown [/srv/share/dir/name]. [Operation not permitted]"},
            LogLine{-1, kApplyFunction,
                    "Error: Failed to stat [/srv/share/dir/name]. [Input/output error]"},
            LogLine{-1, kApplyFunction,
                    "Error: Failed to set time stamps. Error [Permission denied]"},
            LogLine{-1, kApplyFunction, "Error: Failed to truncate. Error [File too large]"}));
    EXPECT_TRUE(log_.Has(4, "uid [7] gid [8]")) << log_.Dump();
}

TEST_F(Sattr, WithoutAStatATimeThatIsToStayIsUnknownSoNoTimeIsSet) {
    wish_.mtime = {SET_TO_CLIENT_TIME, {22, 0}};
    EXPECT_CALL(*object_, Stat).WillOnce(FailWith(EIO, -1));
    EXPECT_CALL(*object_, SetTimes).Times(0);
    EXPECT_EQ(NFS3_OK, Apply(OnError::kCarryOn));
}

TEST_F(Sattr, ErrnoZeroAfterAFailureIsInvalid) {
    wish_.mode = {TRUE, 0640};
    EXPECT_CALL(*object_, Chmod).WillOnce(FailWith(0, -1));
    EXPECT_EQ(NFS3ERR_INVAL, Apply());
    EXPECT_TRUE(log_.Has(-1, "SysErrToNFSErr: Received error code 0")) << log_.Dump();
}

// ---- The trace of a request ----

TEST_F(Sattr, DumpShowsWhatIsSet) {
    WishAll();
    wish_.size.size = uint64_t{1} << 40;
    Dumpsattr3(wish_);
    EXPECT_THAT(
        log_.Lines(),
        ElementsAre(LogLine{3, kDumpFunction,
                            "mode [Set to : 1a0] uid [Set to : 7] gid [Set to : 8] size [Set to : "
                            "1099511627776]"},
                    LogLine{3, kDumpFunction,
                            "time [Set to Client Time: {11 5999}] mtime [Set to Client Time: {22 "
                            "999999999}]"}));
}

TEST_F(Sattr, DumpShowsWhatIsNotSet) {
    Dumpsattr3(wish_);
    EXPECT_THAT(
        log_.Lines(),
        ElementsAre(
            LogLine{3, kDumpFunction,
                    "mode [Dont set: 0] uid [Dont set: 0] gid [Dont set: 0] size [Dont "
                    "set: 0]"},
            LogLine{3, kDumpFunction, "time [Dont Change: {0 0}] mtime [Dont Change: {0 0}]"}));
}

TEST_F(Sattr, DumpLabelsBothTimesAfterTheAtime) {
    wish_.atime = {SET_TO_SERVER_TIME, {1, 2}};
    wish_.mtime = {SET_TO_CLIENT_TIME, {3, 4}};
    Dumpsattr3(wish_);
    EXPECT_TRUE(log_.Has(3, "time [Set to server time: {1 2}] mtime [Set to server time: {3 4}]"))
        << log_.Dump();
}

}  // namespace
