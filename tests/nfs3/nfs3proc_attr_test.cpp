// SPDX-License-Identifier: Apache-2.0
//
// GETATTR and SETATTR.
#include "tests/nfs3/nfs3proc_fixture.h"

using namespace oxel::test;
using testing::_;
using testing::ElementsAre;
using testing::InSequence;
using testing::IsEmpty;
using testing::Return;

namespace {

LogLine StatFailure(int err) {
    return {-1, kNfsStatFunction,
            "Error: Failed to stat [" + kPath + "]. [" + std::to_string(err) + ":" + strerror(err) +
                "]"};
}

// ---- GETATTR ----

class Getattr : public ProcTest {
  protected:
    static constexpr const char* kFunction = "bool_t Handle_GETATTR3(CallInfo3*)";
    GETATTR3res& Run() {
        call_.arguments().getattr.object = handle_;
        EXPECT_EQ(TRUE, Handle_GETATTR3(&call_));
        return call_.result.getattr;
    }
};

TEST_F(Getattr, GivesTheObjectsAttributes) {
    EXPECT_CALL(*object_, Stat(IsContextOf(&call_, object_.get()), kPath, _))
        .WillOnce(StatGives(FileStat(S_IFREG | 0644)));
    const GETATTR3res& result = Run();
    EXPECT_EQ(NFS3_OK, result.status);
    EXPECT_EQ(NF3REG, result.resok.obj_attributes.type);
    EXPECT_EQ(4711u, result.resok.obj_attributes.fileid);
    EXPECT_EQ(5000u, result.resok.obj_attributes.size);
    EXPECT_EQ(0u, result.resok.obj_attributes.mtime.nseconds);
    EXPECT_EQ(share_, call_.exportPtr);
    EXPECT_TRUE(log_.Has(3, "For [name]")) << log_.Dump();
    EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(Getattr, IsServedFromAReadOnlyShare) {
    ON_CALL(*share_, IsWritable).WillByDefault(Return(0u));
    EXPECT_EQ(NFS3_OK, Run().status);
}

TEST_F(Getattr, RefusedClientGetsAccess) {
    ClientIsRefused();
    EXPECT_CALL(*module_, GetBkEndProc).Times(0);
    EXPECT_EQ(NFS3ERR_ACCES, Run().status);
    EXPECT_THAT(Errors(), ElementsAre(RefusalLine()));
}

TEST_F(Getattr, HandleWithoutAnObjectIsStale) {
    ObjectIsGone();
    EXPECT_EQ(NFS3ERR_STALE, Run().status);
    EXPECT_THAT(Errors(), ElementsAre(LogLine{-1, kFunction, kStaleText}));
}

TEST_F(Getattr, FailedStatIsItsErrno) {
    EXPECT_CALL(*object_, Stat).WillOnce(FailWith(EACCES, -1));
    EXPECT_EQ(NFS3ERR_ACCES, Run().status);
    EXPECT_THAT(Errors(), ElementsAre(StatFailure(EACCES)));
}

TEST_F(Getattr, FillerStoresTheStatusOnly) {
    GETATTR3res result{};
    result.resok.obj_attributes.size = 3;
    EXPECT_EQ(TRUE, FillGETATTR3FailRes(&result, NFS3ERR_IO));
    EXPECT_EQ(NFS3ERR_IO, result.status);
    EXPECT_EQ(3u, result.resok.obj_attributes.size);
}

// ---- SETATTR ----

class Setattr : public ProcTest {
  protected:
    static constexpr const char* kFunction = "bool_t Handle_SETATTR3(CallInfo3*)";
    Setattr() { args_.object = handle_; }
    SETATTR3res& Run() {
        EXPECT_EQ(TRUE, Handle_SETATTR3(&call_));
        return call_.result.setattr;
    }
    SETATTR3args& args_ = call_.arguments().setattr;
};

TEST_F(Setattr, SendsTheAttributesBeforeAndAfter) {
    args_.new_attributes.mode = {TRUE, 0600};
    struct stat after = FileStat(S_IFREG | 0600);
    after.st_ctime = 4000;
    InSequence order;
    EXPECT_CALL(*object_, Stat(IsContextOf(&call_, object_.get()), kPath, _))
        .WillOnce(StatGives(FileStat(S_IFREG | 0644)));
    EXPECT_CALL(*object_, Chmod(_, kPath, 0600)).WillOnce(Return(0));
    EXPECT_CALL(*object_, Stat(_, kPath, _)).Times(2).WillRepeatedly(StatGives(after));
    const SETATTR3res& result = Run();
    EXPECT_EQ(NFS3_OK, result.status);
    const wcc_data& wcc = result.resok.obj_wcc;
    EXPECT_EQ(TRUE, wcc.before.attributes_follow);
    EXPECT_EQ(5000u, wcc.before.attributes.size);
    EXPECT_EQ(3000u, wcc.before.attributes.ctime.seconds);
    EXPECT_EQ(TRUE, wcc.after.attributes_follow);
    EXPECT_EQ(4000u, wcc.after.attributes.ctime.seconds);
    EXPECT_EQ(0600u, wcc.after.attributes.mode);
    EXPECT_TRUE(log_.Has(3, "For [name]")) << log_.Dump();
    EXPECT_TRUE(log_.Has(3,
                         "mode [Set to : 180] uid [Dont set: 0] gid [Dont set: 0] size [Dont "
                         "set: 0]"))
        << log_.Dump();
    EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(Setattr, ReadOnlyShareRefusesIt) {
    ON_CALL(*share_, IsWritable).WillByDefault(Return(0u));
    EXPECT_CALL(*object_, Stat).Times(0);
    const SETATTR3res& result = Run();
    EXPECT_EQ(NFS3ERR_ACCES, result.status);
    EXPECT_EQ(FALSE, result.resfail.obj_wcc.before.attributes_follow);
    EXPECT_EQ(FALSE, result.resfail.obj_wcc.after.attributes_follow);
    EXPECT_THAT(Errors(), ElementsAre(LogLine{-1, kValidateFunction,
                                              "Write Access denied for share [/srv/share]"}));
}

TEST_F(Setattr, HandleWithoutAnObjectIsStale) {
    ObjectIsGone();
    const SETATTR3res& result = Run();
    EXPECT_EQ(NFS3ERR_STALE, result.status);
    EXPECT_EQ(FALSE, result.resfail.obj_wcc.before.attributes_follow);
    EXPECT_EQ(FALSE, result.resfail.obj_wcc.after.attributes_follow);
    EXPECT_THAT(Errors(), ElementsAre(LogLine{-1, kFunction, kStaleText}));
}

TEST_F(Setattr, FailedFirstStatEndsTheCall) {
    args_.new_attributes.mode = {TRUE, 0600};
    EXPECT_CALL(*object_, Stat).WillOnce(FailWith(ENOENT, -1));
    EXPECT_CALL(*object_, Chmod).Times(0);
    const SETATTR3res& result = Run();
    EXPECT_EQ(NFS3ERR_NOENT, result.status);
    EXPECT_EQ(FALSE, result.resfail.obj_wcc.before.attributes_follow);
    EXPECT_EQ(FALSE, result.resfail.obj_wcc.after.attributes_follow);
}

TEST_F(Setattr, FailedChangeIsTheStatusAndSendsTheAttributesBefore) {
    args_.new_attributes.mode = {TRUE, 0600};
    EXPECT_CALL(*object_, Chmod).WillOnce(FailWith(EPERM, -1));
    const SETATTR3res& result = Run();
    EXPECT_EQ(NFS3ERR_PERM, result.status);
    EXPECT_EQ(TRUE, result.resfail.obj_wcc.before.attributes_follow);
    EXPECT_EQ(5000u, result.resfail.obj_wcc.before.attributes.size);
    EXPECT_EQ(FALSE, result.resfail.obj_wcc.after.attributes_follow);
}

TEST_F(Setattr, FailedLastStatOnlyLosesTheAttributesAfter) {
    EXPECT_CALL(*object_, Stat)
        .WillOnce(StatGives(FileStat(S_IFREG | 0644)))
        .WillOnce(StatGives(FileStat(S_IFREG | 0644)))
        .WillOnce(FailWith(EIO, -1));
    const SETATTR3res& result = Run();
    EXPECT_EQ(NFS3_OK, result.status);
    EXPECT_EQ(TRUE, result.resok.obj_wcc.before.attributes_follow);
    EXPECT_EQ(FALSE, result.resok.obj_wcc.after.attributes_follow);
    EXPECT_THAT(Errors(), ElementsAre(StatFailure(EIO),
                                      LogLine{-1, kFunction,
                                              "Error: Failed to stat(). [5:Input/output error]"}));
}

TEST_F(Setattr, GuardOlderThanTheObjectSucceedsAndLeavesTheTimes) {
    args_.new_attributes.atime = {SET_TO_CLIENT_TIME, {1, 0}};
    args_.new_attributes.mtime = {SET_TO_CLIENT_TIME, {1, 0}};
    args_.guard = {TRUE, {2999, 0}};
    EXPECT_CALL(*object_, SetTimes).Times(0);
    EXPECT_EQ(NFS3_OK, Run().status);
}

TEST_F(Setattr, GuardThatIsNotCheckedIsNone) {
    args_.new_attributes.atime = {SET_TO_CLIENT_TIME, {1, 0}};
    args_.new_attributes.mtime = {SET_TO_CLIENT_TIME, {1, 0}};
    args_.guard = {FALSE, {2999, 0}};
    EXPECT_CALL(*object_, SetTimes).WillOnce(Return(0));
    EXPECT_EQ(NFS3_OK, Run().status);
}

TEST_F(Setattr, SizeOfADirectoryIsTriedAndItsFailureReported) {
    ON_CALL(*object_, Stat).WillByDefault(StatGives(FileStat(S_IFDIR | 0755)));
    args_.new_attributes.size = {TRUE, 0};
    EXPECT_CALL(*object_, Truncate(_, kPath, 0)).WillOnce(FailWith(EISDIR, -1));
    EXPECT_EQ(NFS3ERR_ISDIR, Run().status);
}

TEST_F(Setattr, UserAloneChangesNothing) {
    args_.new_attributes.uid = {TRUE, 3};
    EXPECT_CALL(*object_, Chown).Times(0);
    EXPECT_EQ(NFS3_OK, Run().status);
}

TEST_F(Setattr, FillerClearsBothFlags) {
    SETATTR3res result{};
    result.resfail.obj_wcc.before.attributes_follow = TRUE;
    result.resfail.obj_wcc.after.attributes_follow = TRUE;
    EXPECT_EQ(TRUE, FillSETATTR3FailRes(&result, NFS3ERR_IO));
    EXPECT_EQ(NFS3ERR_IO, result.status);
    EXPECT_EQ(FALSE, result.resfail.obj_wcc.before.attributes_follow);
    EXPECT_EQ(FALSE, result.resfail.obj_wcc.after.attributes_follow);
}

}  // namespace
