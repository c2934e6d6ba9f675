// SPDX-License-Identifier: Apache-2.0
//
// MKDIR, and MKNOD, which makes nothing.
#include "tests/nfs3/nfs3proc_directory.h"

using namespace oxel::test;
using testing::_;
using testing::ElementsAre;
using testing::InSequence;
using testing::IsEmpty;
using testing::Return;

namespace {

class Mkdir : public DirectoryTest {
  protected:
    static constexpr const char* kFunction = "bool_t Handle_MKDIR3(CallInfo3*)";
    Mkdir() {
        struct stat st = FileStat(S_IFDIR | 0700);
        st.st_ino = kChildInode;
        ON_CALL(*child_, Stat).WillByDefault(StatGives(st));
        ON_CALL(*object_, CreateChildDir).WillByDefault(Return(child_));
        call_.arguments().mkdir.where = {handle_, name_};
    }
    MKDIR3res& Run() {
        EXPECT_EQ(TRUE, Handle_MKDIR3(&call_));
        return call_.result.mkdir;
    }
    void IsTheChild(const MKDIR3res& result) {
        EXPECT_EQ(NFS3_OK, result.status);
        EXPECT_EQ(TRUE, result.resok.obj.handle_follows);
        EXPECT_THAT(result.resok.obj.handle, IsHandle(childHandle_));
        EXPECT_EQ(TRUE, result.resok.obj_attributes.attributes_follow);
        EXPECT_EQ(kChildInode, result.resok.obj_attributes.attributes.fileid);
        CarriesNothing(result.resok.dir_wcc);
    }
};

TEST_F(Mkdir, LooksForTheNameMakesItAndGivesItToTheCaller) {
    call_.arguments().mkdir.attributes.mode = {TRUE, 0750};
    call_.result.mkdir.resok.dir_wcc.before.attributes_follow = TRUE;
    call_.result.mkdir.resok.dir_wcc.after.attributes_follow = TRUE;
    EXPECT_CALL(*object_, Stat).Times(0);  // no attributes of the directory are taken
    InSequence order;
    EXPECT_CALL(*object_, FindChild(OnObject(object_.get()), "new"));
    EXPECT_CALL(*object_, CreateChildDir(OnObject(object_.get()), "new", 0750))
        .WillOnce(Return(child_));
    EXPECT_CALL(*child_, Chmod(OnObject(child_.get()), kChildPath, 0750)).WillOnce(Return(0));
    EXPECT_CALL(*child_, Chown(IsContextOf(&call_, child_.get()), "/", 500, 501))
        .WillOnce(Return(0));
    IsTheChild(Run());
    EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(Mkdir, WithoutAModeItIsHexadecimal777) {
    EXPECT_CALL(*object_, CreateChildDir(_, _, 1911)).WillOnce(Return(child_));
    IsTheChild(Run());
}

TEST_F(Mkdir, ExistingNameIsAnsweredAsMadeWhateverItIs) {
    NameExists();
    ON_CALL(*child_, Stat).WillByDefault(StatGives([] {
        struct stat st = FileStat(S_IFREG | 0600);
        st.st_ino = kChildInode;
        return st;
    }()));
    EXPECT_CALL(*object_, CreateChildDir).Times(0);
    EXPECT_CALL(*child_, Chown(_, "/", 500, 501)).WillOnce(Return(0));
    const MKDIR3res& result = Run();
    IsTheChild(result);
    EXPECT_EQ(NF3REG, result.resok.obj_attributes.attributes.type);
    EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(Mkdir, SizeIsNotApplied) {
    call_.arguments().mkdir.attributes.size = {TRUE, 7};
    EXPECT_CALL(*child_, Truncate).Times(0);
    IsTheChild(Run());
}

TEST_F(Mkdir, AttributesThatCannotBeAppliedAreNoFailure) {
    call_.arguments().mkdir.attributes.mode = {TRUE, 0750};
    EXPECT_CALL(*child_, Chmod).WillOnce(FailWith(EPERM, -1));
    IsTheChild(Run());
}

TEST_F(Mkdir, FailedCreationIsItsErrno) {
    EXPECT_CALL(*object_, CreateChildDir).WillOnce(FailWith(EMLINK, BkEndProcPtr()));
    const MKDIR3res& result = Run();
    EXPECT_EQ(NFS3ERR_MLINK, result.status);
    CarriesNothing(result.resfail.dir_wcc);
    EXPECT_THAT(Errors(),
                ElementsAre(LogLine{-1, kFunction,
                                    "Error: CreateChildDir failed. Error [Too many links]"}));
}

TEST_F(Mkdir, FailedChangeOfOwnerFailsAndLeavesTheDirectory) {
    EXPECT_CALL(*child_, Chown).WillOnce(FailWith(EPERM, -1));
    EXPECT_CALL(*child_, RemoveDir).Times(0);
    const MKDIR3res& result = Run();
    EXPECT_EQ(NFS3ERR_PERM, result.status);
    CarriesNothing(result.resfail.dir_wcc);
    EXPECT_THAT(Errors(), ElementsAre(LogLine{-1, kFunction,
                                              "Error: Create failed. Failed to do chown . Error "
                                              "[Operation not permitted]"}));
}

TEST_F(Mkdir, FailedStatIsSaidAndTakesTheAttributesBack) {
    EXPECT_CALL(*child_, Stat).WillRepeatedly(FailWith(EIO, -1));
    const MKDIR3res& result = Run();
    EXPECT_EQ(NFS3_OK, result.status);
    EXPECT_EQ(TRUE, result.resok.obj.handle_follows);
    EXPECT_EQ(FALSE, result.resok.obj_attributes.attributes_follow);
    EXPECT_EQ((LogLine{-1, kFunction,
                       "Error: Failed to stat(/srv/share/dir/name/new). [5:Input/output error]"}),
              Errors().back());
}

TEST_F(Mkdir, MessageForAVanishedDirectoryLacksABracket) {
    ObjectIsGone();
    const MKDIR3res& result = Run();
    EXPECT_EQ(NFS3ERR_STALE, result.status);
    CarriesNothing(result.resfail.dir_wcc);
    EXPECT_THAT(Errors(), ElementsAre(LogLine{-1, kFunction,
                                              "Error: Creating [new. Parent Directory Not Found. "
                                              "FH [] IP [192.0.2.7]"}));
    EXPECT_TRUE(log_.Has(3, "Name = [new]"));
}

TEST_F(Mkdir, FillerClearsTheFlags) {
    MKDIR3res result{};
    result.resfail.dir_wcc.before.attributes_follow = TRUE;
    result.resfail.dir_wcc.after.attributes_follow = TRUE;
    EXPECT_EQ(TRUE, FillMkdirFailRes(&result, NFS3ERR_IO));
    EXPECT_EQ(NFS3ERR_IO, result.status);
    CarriesNothing(result.resfail.dir_wcc);
}

class Mknod : public DirectoryTest {
  protected:
    static constexpr const char* kFunction = "bool_t Handle_MKNOD3(CallInfo3*)";
    MKNOD3res& Run(ftype3 type) {
        call_.arguments().mknod.where = {handle_, name_};
        call_.arguments().mknod.what.type = type;
        EXPECT_EQ(TRUE, Handle_MKNOD3(&call_));
        CarriesNothing(call_.result.mknod.resfail.dir_wcc);
        return call_.result.mknod;
    }
    void NothingReachesTheBackEnd() {
        EXPECT_CALL(*module_, GetBkEndProc).Times(0);
        EXPECT_CALL(*object_, FindChild).Times(0);
        EXPECT_CALL(*object_, Stat).Times(0);
    }
};

TEST_F(Mknod, DevicesSocketsAndFifosAreNotSupported) {
    NothingReachesTheBackEnd();
    for (ftype3 type : {NF3BLK, NF3CHR, NF3SOCK, NF3FIFO})
        EXPECT_EQ(NFS3ERR_NOTSUPP, Run(type).status) << type;
    EXPECT_THAT(Errors(), IsEmpty());
    EXPECT_THAT(log_.AtLevel(0), IsEmpty());
    EXPECT_EQ(4u, log_.Count(3, "Name = [new]"));
}

TEST_F(Mknod, EveryOtherTypeIsABadTypeWithAWarningThatHasATab) {
    NothingReachesTheBackEnd();
    for (ftype3 type : {NF3REG, NF3DIR, NF3LNK, static_cast<ftype3>(0), static_cast<ftype3>(8),
                        static_cast<ftype3>(0xffffffff)}) {
        log_.Clear();
        EXPECT_EQ(NFS3ERR_BADTYPE, Run(type).status) << type;
        EXPECT_THAT(log_.AtLevel(0),
                    ElementsAre(LogLine{0, kFunction,
                                        "WARNING:\tShould Not Reached Here For Regular File"}));
    }
}

TEST_F(Mknod, FillerClearsTheFlags) {
    MKNOD3res result{};
    result.resfail.dir_wcc.before.attributes_follow = TRUE;
    result.resfail.dir_wcc.after.attributes_follow = TRUE;
    EXPECT_EQ(TRUE, FillMKNodFailRes(&result, NFS3ERR_IO));
    EXPECT_EQ(NFS3ERR_IO, result.status);
    CarriesNothing(result.resfail.dir_wcc);
}

}  // namespace
