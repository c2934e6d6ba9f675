// SPDX-License-Identifier: Apache-2.0
//
// SYMLINK.
#include <cstdlib>

#include "nfs3/nfs3xdr.h"
#include "tests/nfs3/nfs3proc_directory.h"

using namespace oxel::test;
using testing::_;
using testing::ElementsAre;
using testing::InSequence;
using testing::IsEmpty;
using testing::Return;

namespace {

constexpr const char* kFunction = "bool_t Handle_SYMLINK3(CallInfo3*)";

class Symlink : public DirectoryTest {
  protected:
    Symlink() {
        call_.arguments().symlink.where = {handle_, name_};
        call_.arguments().symlink.symlink.symlink_data = strdup("../target");
        struct stat st = FileStat(S_IFLNK | 0777);
        st.st_ino = kChildInode;
        ON_CALL(*object_, Stat(_, kChildPath, _)).WillByDefault(StatGives(st));
        // Making the link makes its name.
        ON_CALL(*object_, CreateSymlink).WillByDefault([this](auto&&...) {
            NameExists();
            return 0;
        });
    }
    ~Symlink() override { Free_SYMLINK3(&call_); }
    SYMLINK3res& Run() {
        EXPECT_EQ(TRUE, Handle_SYMLINK3(&call_));
        return call_.result.symlink;
    }
    static void FailsWithBefore(const SYMLINK3res& result, int status) {
        EXPECT_EQ(status, result.status);
        IsDirectoryBefore(result.resfail.dir_wcc.before);
        EXPECT_EQ(FALSE, result.resfail.dir_wcc.after.attributes_follow);
    }
};

TEST_F(Symlink, MakesTheLinkThroughTheDirectoryAndFindsIt) {
    call_.arguments().symlink.symlink.symlink_attributes.mode = {TRUE, 0700};
    EXPECT_CALL(*object_, Chown).Times(0);
    EXPECT_CALL(*child_, Chown).Times(0);
    InSequence order;
    EXPECT_CALL(*object_, Stat(IsContextOf(&call_, object_.get()), kPath, _));
    EXPECT_CALL(*object_, FindChild(OnObject(object_.get()), "new"));
    EXPECT_CALL(*object_, CreateSymlink(OnObject(object_.get()), "../target", kChildPath));
    EXPECT_CALL(*object_, FindChild(OnObject(object_.get()), "new")).WillOnce(Return(child_));
    EXPECT_CALL(*object_, Chmod(OnObject(object_.get()), kChildPath, 0700)).WillOnce(Return(0));
    EXPECT_CALL(*object_, Stat(OnObject(object_.get()), kChildPath, _)).Times(2);
    EXPECT_CALL(*object_, Stat(OnObject(object_.get()), kPath, _));
    const SYMLINK3res& result = Run();
    EXPECT_EQ(NFS3_OK, result.status);
    EXPECT_EQ(TRUE, result.resok.obj.handle_follows);
    EXPECT_THAT(result.resok.obj.handle, IsHandle(childHandle_));
    EXPECT_EQ(TRUE, result.resok.obj_attributes.attributes_follow);
    EXPECT_EQ(NF3LNK, result.resok.obj_attributes.attributes.type);
    EXPECT_EQ(kChildInode, result.resok.obj_attributes.attributes.fileid);
    IsDirectoryBefore(result.resok.dir_wcc.before);
    IsDirectoryAfter(result.resok.dir_wcc.after);
    EXPECT_THAT(Errors(), IsEmpty());
    EXPECT_TRUE(log_.Has(3, "Name = [new]"));
}

TEST_F(Symlink, ExistingNameIsTheErrnoThatFindingItLeftWithTheAttributesFromBefore) {
    NameExists();
    EXPECT_CALL(*object_, CreateSymlink).Times(0);
    FailsWithBefore(Run(), NFS3ERR_EXIST);
    EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(Symlink, ExistingNameOfABackEndThatClearsErrnoIsInvalid) {
    EXPECT_CALL(*object_, FindChild).WillOnce(FailWith(0, BkEndProcPtr(child_)));
    FailsWithBefore(Run(), NFS3ERR_INVAL);
}

TEST_F(Symlink, FailedCreationIsItsErrnoWithTheAttributesFromBefore) {
    EXPECT_CALL(*object_, CreateSymlink).WillOnce(FailWith(ENOSPC, -1));
    FailsWithBefore(Run(), NFS3ERR_NOSPC);
    EXPECT_THAT(Errors(), ElementsAre(LogLine{-1, kFunction,
                                              "Error: Failed to create symlink "
                                              "[/srv/share/dir/name/new] to [../target]. [No space "
                                              "left on device]"}));
}

TEST_F(Symlink, LinkThatVanishesAtOnceIsItsErrnoWithTheAttributesFromBefore) {
    EXPECT_CALL(*object_, CreateSymlink).WillOnce(Return(0));
    FailsWithBefore(Run(), NFS3ERR_NOENT);
    EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(Symlink, DirectoryWithoutAttributesFailsWithoutWccData) {
    DirectoryStatFailsAtCall(1);
    EXPECT_CALL(*object_, FindChild).Times(0);
    const SYMLINK3res& result = Run();
    EXPECT_EQ(NFS3ERR_IO, result.status);
    CarriesNothing(result.resfail.dir_wcc);
}

TEST_F(Symlink, AttributesThatCannotBeAppliedAreNoFailure) {
    call_.arguments().symlink.symlink.symlink_attributes.mode = {TRUE, 0700};
    EXPECT_CALL(*object_, Chmod).WillOnce(FailWith(EOPNOTSUPP, -1));
    EXPECT_EQ(NFS3_OK, Run().status);
}

TEST_F(Symlink, SizeIsNotApplied) {
    call_.arguments().symlink.symlink.symlink_attributes.size = {TRUE, 7};
    EXPECT_CALL(*object_, Truncate).Times(0);
    EXPECT_EQ(NFS3_OK, Run().status);
}

TEST_F(Symlink, FailedStatOfTheLinkTakesItsAttributesBack) {
    EXPECT_CALL(*object_, Stat(_, kChildPath, _)).WillRepeatedly(FailWith(EIO, -1));
    EXPECT_CALL(*object_, Stat(_, kPath, _)).Times(2);
    const SYMLINK3res& result = Run();
    EXPECT_EQ(NFS3_OK, result.status);
    EXPECT_EQ(FALSE, result.resok.obj_attributes.attributes_follow);
    EXPECT_EQ(TRUE, result.resok.obj.handle_follows);
    IsDirectoryAfter(result.resok.dir_wcc.after);
}

TEST_F(Symlink, FailedStatOfTheDirectoryIsSaidAndTakesItsAttributesBack) {
    DirectoryStatFailsAtCall(2);
    const SYMLINK3res& result = Run();
    EXPECT_EQ(NFS3_OK, result.status);
    EXPECT_EQ(TRUE, result.resok.obj_attributes.attributes_follow);
    IsDirectoryBefore(result.resok.dir_wcc.before);
    EXPECT_EQ(FALSE, result.resok.dir_wcc.after.attributes_follow);
    EXPECT_EQ((LogLine{-1, kFunction,
                       "Error: Failed to stat(/srv/share/dir/name). [5:Input/output error]"}),
              Errors().back());
}

TEST_F(Symlink, VanishedDirectoryIsStale) {
    ObjectIsGone();
    const SYMLINK3res& result = Run();
    EXPECT_EQ(NFS3ERR_STALE, result.status);
    CarriesNothing(result.resfail.dir_wcc);
    EXPECT_THAT(Errors(), ElementsAre(LogLine{-1, kFunction,
                                              "Error: Creating [new]. Parent Directory Not Found. "
                                              "FH [] IP [192.0.2.7]"}));
}

TEST_F(Symlink, ReleaseFreesTheTargetAndSaysSo) {
    log_.Clear();
    EXPECT_EQ(TRUE, Free_SYMLINK3(&call_));
    EXPECT_EQ(nullptr, call_.arguments().symlink.symlink.symlink_data);
    EXPECT_THAT(log_.Lines(),
                ElementsAre(LogLine{4, "bool_t Free_SYMLINK3(CallInfo3*)", "Freed memory"}));
}

TEST_F(Symlink, ReleaseAfterTheArgumentsWereFreedFreesNothingTwice) {
    call_.arguments().symlink.where.name = strdup("new");
    XDR xdrs{};
    xdrs.x_op = XDR_FREE;
    ASSERT_TRUE(xdr_SYMLINK3args(&xdrs, &call_.arguments().symlink));
    EXPECT_EQ(TRUE, Free_SYMLINK3(&call_));
    EXPECT_EQ(TRUE, Free_SYMLINK3(&call_));
}

TEST_F(Symlink, FillerClearsTheFlags) {
    SYMLINK3res result{};
    result.resfail.dir_wcc.before.attributes_follow = TRUE;
    result.resfail.dir_wcc.after.attributes_follow = TRUE;
    EXPECT_EQ(TRUE, FillSymlink3FailRes(&result, NFS3ERR_IO));
    EXPECT_EQ(NFS3ERR_IO, result.status);
    CarriesNothing(result.resfail.dir_wcc);
}

}  // namespace
