// SPDX-License-Identifier: Apache-2.0
//
// REMOVE and RMDIR.
#include <cerrno>
#include <cstring>

#include "tests/nfs3/nfs3proc_directory.h"

using namespace oxel::test;
using testing::_;
using testing::ElementsAre;
using testing::InSequence;
using testing::IsEmpty;
using testing::Return;

namespace {

class Remove : public DirectoryTest {
  protected:
    static constexpr const char* kFunction = "bool_t Handle_REMOVE3(CallInfo3*)";
    REMOVE3res& Run() {
        call_.arguments().remove.object = {handle_, name_};
        EXPECT_EQ(TRUE, Handle_REMOVE3(&call_));
        return call_.result.remove;
    }
};

TEST_F(Remove, UnlinksTheChildWithBothObjectsInTheContext) {
    InSequence order;
    EXPECT_CALL(*object_, Stat(IsContextOf(&call_, object_.get()), kPath, _));
    EXPECT_CALL(*object_, FindChild(IsContextOf(&call_, object_.get()), "new"))
        .WillOnce(Return(child_));
    EXPECT_CALL(*child_, Unlink(IsContextOfBoth(&call_, child_.get(), object_.get()), kChildPath))
        .WillOnce(Return(0));
    EXPECT_CALL(*object_, Stat(IsContextOf(&call_, object_.get()), kPath, _));
    const REMOVE3res& result = Run();
    EXPECT_EQ(NFS3_OK, result.status);
    IsDirectoryBefore(result.resok.dir_wcc.before);
    IsDirectoryAfter(result.resok.dir_wcc.after);
    EXPECT_THAT(Errors(), IsEmpty());
    EXPECT_EQ((LogLine{4, kFunction, "Request to delete [/srv/share/dir/name/new]."}),
              log_.AtLevel(4).back());
}

TEST_F(Remove, MissingNameSucceedsWithWccData) {
    EXPECT_CALL(*child_, Unlink).Times(0);
    const REMOVE3res& result = Run();
    EXPECT_EQ(NFS3_OK, result.status);
    IsDirectoryBefore(result.resok.dir_wcc.before);
    IsDirectoryAfter(result.resok.dir_wcc.after);
    EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(Remove, ANameThatCouldNotBeLookedForIsNotMissing) {
    for (const int error : {EACCES, EMFILE, EIO}) {
        call_.ClearCall();
        EXPECT_CALL(*object_, FindChild).WillOnce(FailWith(error, BkEndProcPtr()));
        const REMOVE3res& result = Run();
        EXPECT_EQ(SysErrToNFSErr(error, true), result.status);
        IsDirectoryBefore(result.resfail.dir_wcc.before);
        EXPECT_EQ(FALSE, result.resfail.dir_wcc.after.attributes_follow);
        EXPECT_EQ((LogLine{-1, kFunction,
                           "Error: Failed unlink [/srv/share/dir/name/new] [" +
                               std::to_string(error) + ":" + strerror(error) + "]"}),
                  Errors().back());
    }
}

TEST_F(Remove, ABackEndThatGivesNoReasonMeansThatNothingIsThere) {
    for (const bool zero : {false, true}) {
        call_.ClearCall();
        errno = EACCES;
        EXPECT_CALL(*object_, FindChild).WillOnce([zero](auto&&...) {
            if (zero) errno = 0;
            return BkEndProcPtr();
        });
        EXPECT_EQ(NFS3_OK, Run().status);
    }
}

TEST_F(Remove, AttributesThatCannotBeHadAfterwardsAreAnnouncedAllTheSame) {
    NameExists();
    DirectoryStatFailsAtCall(2);
    const REMOVE3res& result = Run();
    EXPECT_EQ(NFS3_OK, result.status);
    EXPECT_EQ(TRUE, result.resok.dir_wcc.after.attributes_follow);
    EXPECT_EQ(0u, result.resok.dir_wcc.after.attributes.fileid);
}

TEST_F(Remove, FailureIsItsErrnoWithTheAttributesFromBeforeOnly) {
    NameExists();
    EXPECT_CALL(*child_, Unlink).WillOnce(FailWith(EACCES, -1));
    EXPECT_CALL(*object_, Stat(_, kPath, _)).Times(2);
    const REMOVE3res& result = Run();
    EXPECT_EQ(NFS3ERR_ACCES, result.status);
    IsDirectoryBefore(result.resfail.dir_wcc.before);
    EXPECT_EQ(FALSE, result.resfail.dir_wcc.after.attributes_follow);
    EXPECT_THAT(Errors(), ElementsAre(LogLine{-1, kFunction,
                                              "Error: Failed unlink [/srv/share/dir/name/new] "
                                              "[13:Permission denied]"}));
}

TEST_F(Remove, DirectoryWithoutAttributesFails) {
    DirectoryStatFailsAtCall(1);
    EXPECT_CALL(*object_, FindChild).Times(0);
    const REMOVE3res& result = Run();
    EXPECT_EQ(NFS3ERR_IO, result.status);
    CarriesNothing(result.resfail.dir_wcc);
    EXPECT_EQ((LogLine{-1, kFunction, "Error: [5:Input/output error]"}), Errors().back());
}

TEST_F(Remove, VanishedDirectoryIsStale) {
    ObjectIsGone();
    const REMOVE3res& result = Run();
    EXPECT_EQ(NFS3ERR_STALE, result.status);
    CarriesNothing(result.resfail.dir_wcc);
    EXPECT_THAT(Errors(), ElementsAre(LogLine{-1, kFunction,
                                              "Error: Removing [new]. Parent Directory Not Found. "
                                              "FH [] IP [192.0.2.7]"}));
}

TEST_F(Remove, FillerClearsTheFlags) {
    REMOVE3res result{};
    result.resfail.dir_wcc.before.attributes_follow = TRUE;
    result.resfail.dir_wcc.after.attributes_follow = TRUE;
    EXPECT_EQ(TRUE, FillREMOVE3FailRes(&result, NFS3ERR_IO));
    EXPECT_EQ(NFS3ERR_IO, result.status);
    CarriesNothing(result.resfail.dir_wcc);
}

class Rmdir : public DirectoryTest {
  protected:
    static constexpr const char* kFunction = "bool_t Handle_RMDIR3(CallInfo3*)";
    RMDIR3res& Run() {
        call_.arguments().rmdir.object = {handle_, name_};
        EXPECT_EQ(TRUE, Handle_RMDIR3(&call_));
        return call_.result.rmdir;
    }
};

TEST_F(Rmdir, RemovesTheChildWithTheDirectorysContext) {
    InSequence order;
    EXPECT_CALL(*object_, Stat(IsContextOf(&call_, object_.get()), kPath, _));
    EXPECT_CALL(*object_, FindChild(IsContextOf(&call_, object_.get()), "new"))
        .WillOnce(Return(child_));
    EXPECT_CALL(*child_, RemoveDir(IsContextOf(&call_, object_.get()), kChildPath))
        .WillOnce(Return(0));
    EXPECT_CALL(*object_, Stat(IsContextOf(&call_, object_.get()), kPath, _));
    const RMDIR3res& result = Run();
    EXPECT_EQ(NFS3_OK, result.status);
    IsDirectoryBefore(result.resok.dir_wcc.before);
    IsDirectoryAfter(result.resok.dir_wcc.after);
    EXPECT_THAT(Errors(), IsEmpty());
    EXPECT_EQ((LogLine{4, kFunction, "Request to delete [/srv/share/dir/name/new]."}),
              log_.AtLevel(4).back());
}

TEST_F(Rmdir, MissingNameSucceedsWithWccData) {
    EXPECT_CALL(*child_, RemoveDir).Times(0);
    const RMDIR3res& result = Run();
    EXPECT_EQ(NFS3_OK, result.status);
    IsDirectoryBefore(result.resok.dir_wcc.before);
    IsDirectoryAfter(result.resok.dir_wcc.after);
    EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(Rmdir, ANameThatCouldNotBeLookedForIsNotMissing) {
    EXPECT_CALL(*object_, FindChild).WillOnce(FailWith(EACCES, BkEndProcPtr()));
    EXPECT_CALL(*object_, Stat(_, kPath, _)).Times(3);
    const RMDIR3res& result = Run();
    EXPECT_EQ(NFS3ERR_ACCES, result.status);
    IsDirectoryBefore(result.resfail.dir_wcc.before);
    IsDirectoryAfter(result.resfail.dir_wcc.after);
    EXPECT_THAT(Errors(), ElementsAre(LogLine{-1, kFunction,
                                              "Error: Failed to delete [/srv/share/dir/name/new] "
                                              "[13:Permission denied]"}));
}

TEST_F(Rmdir, AttributesThatCannotBeHadAfterwardsAreNotSent) {
    for (bool exists : {false, true}) {
        if (exists) NameExists();
        call_.ClearCall();
        directoryStats_ = 0;
        DirectoryStatFailsAtCall(2);
        const RMDIR3res& result = Run();
        EXPECT_EQ(NFS3_OK, result.status);
        IsDirectoryBefore(result.resok.dir_wcc.before);
        EXPECT_EQ(FALSE, result.resok.dir_wcc.after.attributes_follow);
    }
}

TEST_F(Rmdir, FailureIsItsErrnoWithWccDataTakenTwice) {
    NameExists();
    EXPECT_CALL(*child_, RemoveDir).WillOnce(FailWith(ENOTEMPTY, -1));
    EXPECT_CALL(*object_, Stat(_, kPath, _)).Times(3);
    const RMDIR3res& result = Run();
    EXPECT_EQ(NFS3ERR_NOTEMPTY, result.status);
    IsDirectoryBefore(result.resfail.dir_wcc.before);
    IsDirectoryAfter(result.resfail.dir_wcc.after);
    EXPECT_THAT(Errors(), ElementsAre(LogLine{-1, kFunction,
                                              "Error: Failed to delete [/srv/share/dir/name/new] "
                                              "[39:Directory not empty]"}));
}

TEST_F(Rmdir, OfTheTwoReadingsAfterAFailureTheSecondDecides) {
    NameExists();
    ON_CALL(*child_, RemoveDir).WillByDefault(FailWith(ENOTEMPTY, -1));
    DirectoryStatFailsAtCall(2);
    IsDirectoryAfter(Run().resfail.dir_wcc.after);
    call_.ClearCall();
    directoryStats_ = 0;
    DirectoryStatFailsAtCall(3);
    const RMDIR3res& result = Run();
    EXPECT_EQ(NFS3ERR_NOTEMPTY, result.status);
    EXPECT_EQ(FALSE, result.resfail.dir_wcc.after.attributes_follow);
}

TEST_F(Rmdir, DirectoryWithoutAttributesFails) {
    DirectoryStatFailsAtCall(1);
    EXPECT_CALL(*object_, FindChild).Times(0);
    const RMDIR3res& result = Run();
    EXPECT_EQ(NFS3ERR_IO, result.status);
    CarriesNothing(result.resfail.dir_wcc);
    EXPECT_EQ((LogLine{-1, kFunction, "Error: [5:Input/output error]"}), Errors().back());
}

TEST_F(Rmdir, VanishedDirectoryIsStale) {
    ObjectIsGone();
    const RMDIR3res& result = Run();
    EXPECT_EQ(NFS3ERR_STALE, result.status);
    CarriesNothing(result.resfail.dir_wcc);
    EXPECT_THAT(Errors(), ElementsAre(LogLine{-1, kFunction,
                                              "Error: Removing [new]. Parent Directory Not Found. "
                                              "FH [] IP [192.0.2.7]"}));
}

TEST_F(Rmdir, FillerClearsTheFlags) {
    RMDIR3res result{};
    result.resfail.dir_wcc.before.attributes_follow = TRUE;
    result.resfail.dir_wcc.after.attributes_follow = TRUE;
    EXPECT_EQ(TRUE, FillRMDIR3FailRes(&result, NFS3ERR_IO));
    EXPECT_EQ(NFS3ERR_IO, result.status);
    CarriesNothing(result.resfail.dir_wcc);
}

}  // namespace
