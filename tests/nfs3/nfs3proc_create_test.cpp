// SPDX-License-Identifier: Apache-2.0
//
// CREATE.
#include "tests/nfs3/nfs3proc_directory.h"

using namespace oxel::test;
using testing::_;
using testing::ElementsAre;
using testing::InSequence;
using testing::IsEmpty;
using testing::Return;

namespace {

constexpr const char* kFunction = "bool_t Handle_CREATE3(CallInfo3*)";
constexpr const char* kDumpFunction = "void DumpDiropArgs(FSMPtr&, diropargs3*)";

class Create : public DirectoryTest {
  protected:
    Create() { ON_CALL(*object_, CreateChild).WillByDefault(Return(child_)); }

    CREATE3args& Args(createmode3 mode) {
        CREATE3args& args = call_.arguments().create;
        args = {};
        args.where = {handle_, name_};
        args.how.mode = mode;
        return args;
    }
    CREATE3res& Run(createmode3 mode) {
        Args(mode);
        return Run();
    }
    CREATE3res& Run() {
        EXPECT_EQ(TRUE, Handle_CREATE3(&call_));
        return call_.result.create;
    }
    void IsTheChild(const CREATE3res& result) {
        EXPECT_EQ(NFS3_OK, result.status);
        EXPECT_EQ(TRUE, result.resok.obj.handle_follows);
        EXPECT_THAT(result.resok.obj.handle, IsHandle(childHandle_));
        EXPECT_EQ(TRUE, result.resok.obj_attributes.attributes_follow);
        EXPECT_EQ(kChildInode, result.resok.obj_attributes.attributes.fileid);
    }
    void IsExist(const CREATE3res& result) {
        EXPECT_EQ(NFS3ERR_EXIST, result.status);
        CarriesNothing(result.resfail.dir_wcc);
        EXPECT_THAT(Errors(), ElementsAre(LogLine{-1, kFunction,
                                                  "Error: Object to be CREATED is already present. "
                                                  "Cant overwrite."}));
    }
};

TEST_F(Create, LooksForTheNameMakesItAndGivesItToTheCaller) {
    InSequence order;
    EXPECT_CALL(*object_, Stat(IsContextOf(&call_, object_.get()), kPath, _));
    EXPECT_CALL(*object_, FindChild(OnObject(object_.get()), "new"));
    EXPECT_CALL(*object_, CreateChild(OnObject(object_.get()), "new", 0x442, 0x777))
        .WillOnce(Return(child_));
    EXPECT_CALL(*child_, Stat(OnObject(child_.get()), kChildPath, _));  // before setting times
    EXPECT_CALL(*child_, Chown(IsContextOf(&call_, child_.get()), "/", 500, 501))
        .WillOnce(Return(0));
    EXPECT_CALL(*child_, Stat(OnObject(child_.get()), kChildPath, _));
    EXPECT_CALL(*object_, Stat(OnObject(object_.get()), kPath, _));
    const CREATE3res& result = Run(UNCHECKED);
    IsTheChild(result);
    IsDirectoryAfter(result.resok.dir_wcc.after);
    EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(Create, BeforeIsAnnouncedWithZeroAttributes) {
    const CREATE3res& result = Run(GUARDED);
    const pre_op_attr& before = result.resok.dir_wcc.before;
    EXPECT_EQ(TRUE, before.attributes_follow);
    EXPECT_EQ(0u, before.attributes.size);
    EXPECT_EQ(0u, before.attributes.mtime.seconds);
    EXPECT_EQ(0u, before.attributes.ctime.seconds);
}

TEST_F(Create, FlagsByMode) {
    EXPECT_CALL(*object_, CreateChild(_, _, 0x442, _)).WillOnce(Return(child_));
    Run(UNCHECKED);
    EXPECT_CALL(*object_, CreateChild(_, _, 0x40, _)).WillOnce(Return(child_));
    Run(GUARDED);
    EXPECT_CALL(*object_, CreateChild(_, _, 0xC0, _)).WillOnce(Return(child_));
    Run(EXCLUSIVE);
}

TEST_F(Create, ModeIsTheClients) {
    EXPECT_CALL(*object_, CreateChild(_, _, _, 0640)).WillOnce(Return(child_));
    EXPECT_CALL(*child_, Chmod(_, kChildPath, 0640));
    Args(GUARDED).how.obj_attributes.mode = {TRUE, 0640};
    IsTheChild(Run());
}

TEST_F(Create, WithoutAModeItIsHexadecimal777) {
    EXPECT_CALL(*object_, CreateChild(_, _, _, 1911)).WillOnce(Return(child_));
    EXPECT_CALL(*child_, Chmod).Times(0);
    Args(UNCHECKED).how.obj_attributes.mode = {FALSE, 0640};
    IsTheChild(Run());
}

TEST_F(Create, ExclusiveVerifierWhoseFirstWordIsOneGivesTheModeWithItsSecond) {
    CREATE3args& args = Args(EXCLUSIVE);
    args.how.verf = {1, 0604};
    EXPECT_CALL(*object_, CreateChild(_, _, 0xC0, 0604)).WillOnce(Return(child_));
    IsTheChild(Run());
}

TEST_F(Create, ExclusiveVerifierWhoseFirstWordIsNotOneGivesNoMode) {
    CREATE3args& args = Args(EXCLUSIVE);
    args.how.verf = {2, 0604};
    EXPECT_CALL(*object_, CreateChild(_, _, 0xC0, 0x777)).WillOnce(Return(child_));
    IsTheChild(Run());
}

TEST_F(Create, ExclusiveAppliesNoAttributes) {
    CREATE3args& args = Args(EXCLUSIVE);
    args.how.verf = {1, 0604};
    EXPECT_CALL(*child_, Chmod).Times(0);
    EXPECT_CALL(*child_, SetTimes).Times(0);
    EXPECT_CALL(*child_, Truncate).Times(0);
    EXPECT_CALL(*child_, Chown(_, "/", 500, 501)).WillOnce(Return(0));
    IsTheChild(Run());
}

TEST_F(Create, UncheckedOfAnExistingFileKeepsItAppliesTheAttributesAndTakesItOver) {
    NameExists();
    EXPECT_CALL(*object_, CreateChild).Times(0);
    EXPECT_CALL(*child_, Truncate).Times(0);
    EXPECT_CALL(*child_, Chmod(OnObject(child_.get()), kChildPath, 0600)).WillOnce(Return(0));
    EXPECT_CALL(*child_, Chown(_, "/", 500, 501)).WillOnce(Return(0));
    Args(UNCHECKED).how.obj_attributes.mode = {TRUE, 0600};
    IsTheChild(Run());
}

TEST_F(Create, UncheckedOfAnExistingFileAppliesASizeThatIsAskedFor) {
    NameExists();
    EXPECT_CALL(*child_, Truncate(OnObject(child_.get()), kChildPath, 7)).WillOnce(Return(0));
    Args(UNCHECKED).how.obj_attributes.size = {TRUE, 7};
    IsTheChild(Run());
}

TEST_F(Create, GuardedOfAnExistingNameIsExistWithoutWccData) {
    NameExists();
    EXPECT_CALL(*object_, CreateChild).Times(0);
    EXPECT_CALL(*child_, Chown).Times(0);
    IsExist(Run(GUARDED));
}

// GUARDED used to open the file that it could not find, empty it and give it to the caller.
TEST_F(Create, NameThatCouldNotBeLookedForIsNotTakenForNew) {
    for (const createmode3 mode : {GUARDED, EXCLUSIVE}) {
        log_.Clear();
        call_.ClearCall();
        EXPECT_CALL(*object_, FindChild).WillOnce(FailWith(EIO, BkEndProcPtr()));
        EXPECT_CALL(*object_, CreateChild).Times(0);
        const CREATE3res& result = Run(mode);
        EXPECT_EQ(NFS3ERR_IO, result.status);
        CarriesNothing(result.resfail.dir_wcc);
        EXPECT_THAT(Errors(),
                    ElementsAre(LogLine{-1, kFunction,
                                        "Error: Create failed. Error [Input/output error]"}));
        testing::Mock::VerifyAndClearExpectations(object_.get());
    }
}

TEST_F(Create, UncheckedLeavesItToTheCreationToFindTheName) {
    EXPECT_CALL(*object_, FindChild).WillOnce(FailWith(EIO, BkEndProcPtr()));
    EXPECT_CALL(*object_, CreateChild).WillOnce(Return(child_));
    IsTheChild(Run(UNCHECKED));
}

TEST_F(Create, RepeatedExclusiveWithTheSameVerifierIsExist) {
    Args(EXCLUSIVE).how.verf = {0xaaaa, 0xbbbb};
    IsTheChild(Run());
    NameExists();
    log_.Clear();
    call_.ClearCall();
    EXPECT_CALL(*object_, CreateChild).Times(0);
    Args(EXCLUSIVE).how.verf = {0xaaaa, 0xbbbb};
    IsExist(Run());
}

TEST_F(Create, AttributesThatCannotBeAppliedAreNoFailure) {
    EXPECT_CALL(*child_, Chmod).WillOnce(FailWith(EPERM, -1));
    EXPECT_CALL(*child_, Truncate).WillOnce(FailWith(EFBIG, -1));
    CREATE3args& args = Args(GUARDED);
    args.how.obj_attributes.mode = {TRUE, 0600};
    args.how.obj_attributes.size = {TRUE, 7};
    IsTheChild(Run());
    EXPECT_EQ(2u, Errors().size()) << log_.Dump();
}

TEST_F(Create, FailedCreationIsItsErrno) {
    EXPECT_CALL(*object_, CreateChild).WillOnce(FailWith(ENOSPC, BkEndProcPtr()));
    const CREATE3res& result = Run(GUARDED);
    EXPECT_EQ(NFS3ERR_NOSPC, result.status);
    CarriesNothing(result.resfail.dir_wcc);
    EXPECT_THAT(Errors(), ElementsAre(LogLine{-1, kFunction,
                                              "Error: Create failed. Error [No space left on "
                                              "device]"}));
}

TEST_F(Create, FailedChangeOfOwnerFailsAndLeavesTheFile) {
    EXPECT_CALL(*child_, Chown).WillOnce(FailWith(EPERM, 1));  // any number but 0
    EXPECT_CALL(*child_, Unlink).Times(0);
    const CREATE3res& result = Run(UNCHECKED);
    EXPECT_EQ(NFS3ERR_PERM, result.status);
    CarriesNothing(result.resfail.dir_wcc);
    EXPECT_THAT(Errors(), ElementsAre(LogLine{-1, kFunction,
                                              "Error: Create failed. Failed to do chown . Error "
                                              "[Operation not permitted]"}));
}

TEST_F(Create, DirectoryWithoutAttributesFailsBeforeTheNameIsLookedFor) {
    DirectoryStatFailsAtCall(1);
    EXPECT_CALL(*object_, FindChild).Times(0);
    const CREATE3res& result = Run(UNCHECKED);
    EXPECT_EQ(NFS3ERR_IO, result.status);
    CarriesNothing(result.resfail.dir_wcc);
}

TEST_F(Create, FailedStatOfTheFileTakesItsAttributesBack) {
    EXPECT_CALL(*child_, Stat).WillRepeatedly(FailWith(EIO, -1));
    const CREATE3res& result = Run(EXCLUSIVE);
    EXPECT_EQ(NFS3_OK, result.status);
    EXPECT_EQ(FALSE, result.resok.obj_attributes.attributes_follow);
    IsDirectoryAfter(result.resok.dir_wcc.after);
    EXPECT_THAT(result.resok.obj.handle, IsHandle(childHandle_));
}

TEST_F(Create, FailedStatOfTheDirectoryTakesTheFilesAttributesBackNotItsOwn) {
    DirectoryStatFailsAtCall(2);
    const CREATE3res& result = Run(UNCHECKED);
    EXPECT_EQ(NFS3_OK, result.status);
    EXPECT_EQ(FALSE, result.resok.obj_attributes.attributes_follow);
    EXPECT_EQ(TRUE, result.resok.dir_wcc.after.attributes_follow);
    EXPECT_EQ(0u, result.resok.dir_wcc.after.attributes.fileid);
    EXPECT_EQ(TRUE, result.resok.obj.handle_follows);
}

TEST_F(Create, VanishedDirectoryIsStale) {
    ObjectIsGone();
    const CREATE3res& result = Run(UNCHECKED);
    EXPECT_EQ(NFS3ERR_STALE, result.status);
    CarriesNothing(result.resfail.dir_wcc);
    EXPECT_THAT(Errors(), ElementsAre(LogLine{-1, kFunction,
                                              "Error: Creating [new]. Parent Directory Not Found. "
                                              "FH [] IP [192.0.2.7]"}));
}

TEST_F(Create, ImpossibleModeIsSaidAndGoesOnAsIfTheNameMayExist) {
    NameExists();
    const CREATE3res& result = Run(static_cast<createmode3>(0x1f));
    IsTheChild(result);
    EXPECT_THAT(Errors(), ElementsAre(LogLine{-1, kFunction, "Error: Invalid flags. [1f]."}));
}

TEST_F(Create, TracesNameModeAndAttributes) {
    ObjectIsGone();
    Run(GUARDED);
    const std::vector<LogLine> lines = log_.Lines();
    ASSERT_EQ(7u, lines.size()) << log_.Dump();
    EXPECT_EQ((LogLine{4, kDumpFunction, "fh [handle text]"}), lines[1]);
    EXPECT_EQ((LogLine{3, kDumpFunction, "Name = [new]"}), lines[2]);
    EXPECT_EQ((LogLine{3, kFunction, "mode = GUARDED"}), lines[3]);
    EXPECT_EQ("void Dumpsattr3(sattr3&)", lines[4].function);
    EXPECT_EQ("void Dumpsattr3(sattr3&)", lines[5].function);
    log_.Clear();
    Run(UNCHECKED);
    EXPECT_TRUE(log_.Has(3, "mode = UNCHECKED")) << log_.Dump();
}

TEST_F(Create, TracesTheVerifierAsOneNumber) {
    ObjectIsGone();
    Args(EXCLUSIVE).how.verf = {1, 2};
    Run();
    const std::vector<LogLine> lines = log_.Lines();
    ASSERT_EQ(5u, lines.size()) << log_.Dump();
    EXPECT_EQ((LogLine{3, kFunction, "mode = EXCLUSIVE verf = 4294967298"}), lines[3]);
}

TEST_F(Create, DumpDiropArgsGoesByTheLevel) {
    FSMPtr module = module_;
    diropargs3 args{handle_, name_};
    oxel::LogWriter::SetLevel(3);
    EXPECT_CALL(*module_, GetHandleString).Times(0);
    DumpDiropArgs(module, &args);
    EXPECT_THAT(log_.Lines(), ElementsAre(LogLine{3, kDumpFunction, "Name = [new]"}));
    log_.Clear();
    oxel::LogWriter::SetLevel(2);
    DumpDiropArgs(module, &args);
    EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(Create, FillerClearsTheFlags) {
    CREATE3res result{};
    result.resfail.dir_wcc.before.attributes_follow = TRUE;
    result.resfail.dir_wcc.after.attributes_follow = TRUE;
    EXPECT_EQ(TRUE, FillCreateFailRes(&result, NFS3ERR_IO));
    EXPECT_EQ(NFS3ERR_IO, result.status);
    CarriesNothing(result.resfail.dir_wcc);
}

}  // namespace
