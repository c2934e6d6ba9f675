// SPDX-License-Identifier: Apache-2.0
//
// LINK.
#include "tests/nfs3/nfs3proc_directory.h"

using namespace oxel::test;
using testing::_;
using testing::ElementsAre;
using testing::InSequence;
using testing::IsEmpty;
using testing::Return;

namespace {

constexpr const char* kFunction = "bool_t Handle_LINK3(CallInfo3*)";
const std::string kFilePath = "/srv/share/file";

// The object behind the fixture's handle is the new link's directory.
class Link : public DirectoryTest {
  protected:
    Link() {
        ON_CALL(*module_, GetBkEndProc(_, IsHandle(fileHandle_))).WillByDefault(Return(file_));
        // Stat of the file goes through the directory's object, too.
        struct stat st = FileStat(S_IFREG | 0600);
        st.st_ino = 4714;
        ON_CALL(*object_, Stat(_, kFilePath, _)).WillByDefault(StatGives(st));
    }
    LINK3res& Run() {
        call_.arguments().link.file = fileHandle_;
        call_.arguments().link.link = {handle_, name_};
        EXPECT_EQ(TRUE, Handle_LINK3(&call_));
        return call_.result.link;
    }
    static void FailsWithoutWcc(const LINK3res& result, int status) {
        EXPECT_EQ(status, result.status);
        EXPECT_EQ(FALSE, result.resfail.file_attributes.attributes_follow);
        CarriesNothing(result.resfail.linkdir_wcc);
    }

    const nfs_fh3 fileHandle_ = MakeHandle(kTestModuleType, kTestShareId, 0x55);
    boost::shared_ptr<NiceBkEndProc> file_ =
        boost::make_shared<NiceBkEndProc>(kFilePath, fileHandle_);
};

TEST_F(Link, LinksThroughTheDirectory) {
    InSequence order;
    EXPECT_CALL(*object_, Stat(IsContextOf(&call_, object_.get()), kPath, _));
    EXPECT_CALL(*object_, HardLink(IsContextOf(&call_, object_.get()), kFilePath, kChildPath))
        .WillOnce(Return(0));
    EXPECT_CALL(*object_, Stat(IsContextOf(&call_, object_.get()), kFilePath, _));
    EXPECT_CALL(*object_, Stat(IsContextOf(&call_, object_.get()), kPath, _));
    const LINK3res& result = Run();
    EXPECT_EQ(NFS3_OK, result.status);
    EXPECT_EQ(TRUE, result.resok.file_attributes.attributes_follow);
    EXPECT_EQ(4714u, result.resok.file_attributes.attributes.fileid);
    IsDirectoryBefore(result.resok.linkdir_wcc.before);
    IsDirectoryAfter(result.resok.linkdir_wcc.after);
    EXPECT_THAT(Errors(), IsEmpty());
    EXPECT_TRUE(log_.Has(3, "Name = [new]")) << log_.Dump();
}

TEST_F(Link, OnlyTheDirectorysHandleIsValidated) {
    EXPECT_CALL(*module_, GetExportForHandle(IsHandle(handle_), _))
        .WillOnce([this](const nfs_fh3&, ExportPtr& share) {
            share = share_;
            return true;
        });
    EXPECT_CALL(*share_, IsWritable).WillOnce(Return(1u));
    EXPECT_CALL(*share_, IsClientAllowed).WillOnce(Return(true));
    EXPECT_CALL(*module_, GetBkEndProc(testing::Eq(ExportPtr(share_)), IsHandle(handle_)));
    EXPECT_CALL(*module_, GetBkEndProc(testing::Eq(ExportPtr(share_)), IsHandle(fileHandle_)));
    EXPECT_EQ(NFS3_OK, Run().status);
}

TEST_F(Link, AttributesThatCannotBeHadAfterwardsAreNotSent) {
    EXPECT_CALL(*object_, Stat(_, kFilePath, _)).WillOnce(FailWith(EIO, -1));
    EXPECT_CALL(*object_, Stat(_, kPath, _))
        .WillOnce(StatGives(FileStat(S_IFDIR | 0755)))
        .WillOnce(FailWith(EIO, -1));
    const LINK3res& result = Run();
    EXPECT_EQ(NFS3_OK, result.status);
    EXPECT_EQ(FALSE, result.resok.file_attributes.attributes_follow);
    IsDirectoryBefore(result.resok.linkdir_wcc.before);
    EXPECT_EQ(FALSE, result.resok.linkdir_wcc.after.attributes_follow);
}

TEST_F(Link, FailureIsItsErrnoWithWccData) {
    EXPECT_CALL(*object_, HardLink).WillOnce(FailWith(EMLINK, -1));
    const LINK3res& result = Run();
    EXPECT_EQ(NFS3ERR_MLINK, result.status);
    EXPECT_EQ(FALSE, result.resfail.file_attributes.attributes_follow);
    IsDirectoryBefore(result.resfail.linkdir_wcc.before);
    IsDirectoryAfter(result.resfail.linkdir_wcc.after);
    EXPECT_THAT(Errors(), ElementsAre(LogLine{-1, kFunction,
                                              "Error: Failed to create hardlink "
                                              "[/srv/share/dir/name/new] to [/srv/share/file]. "
                                              "[Too many links]"}));
}

TEST_F(Link, FailureWithoutTheDirectorysAttributesCarriesThoseFromBefore) {
    EXPECT_CALL(*object_, HardLink).WillOnce(FailWith(EMLINK, -1));
    DirectoryStatFailsAtCall(2);
    const LINK3res& result = Run();
    EXPECT_EQ(NFS3ERR_MLINK, result.status);
    IsDirectoryBefore(result.resfail.linkdir_wcc.before);
    EXPECT_EQ(FALSE, result.resfail.linkdir_wcc.after.attributes_follow);
}

TEST_F(Link, DirectoryWithoutAttributesFailsWithoutWccData) {
    DirectoryStatFailsAtCall(1);
    EXPECT_CALL(*object_, HardLink).Times(0);
    FailsWithoutWcc(Run(), NFS3ERR_IO);
}

TEST_F(Link, VanishedFileIsStale) {
    ON_CALL(*module_, GetBkEndProc(_, IsHandle(fileHandle_))).WillByDefault(Return(BkEndProcPtr()));
    EXPECT_CALL(*object_, Stat).Times(0);
    FailsWithoutWcc(Run(), NFS3ERR_STALE);
    EXPECT_THAT(Errors(), ElementsAre(LogLine{-1, kFunction,
                                              "Error: Target is not found. FH [] IP [192.0.2.7]"}));
}

TEST_F(Link, VanishedDirectoryIsStale) {
    ObjectIsGone();
    FailsWithoutWcc(Run(), NFS3ERR_STALE);
    EXPECT_THAT(Errors(), ElementsAre(LogLine{-1, kFunction,
                                              "Error: Creating link [new]. Parent directory not "
                                              "found. FH [] IP [192.0.2.7]"}));
}

TEST_F(Link, FillerClearsTheFlagsOfTheDirectory) {
    LINK3res result{};
    result.resfail.linkdir_wcc.before.attributes_follow = TRUE;
    result.resfail.linkdir_wcc.after.attributes_follow = TRUE;
    EXPECT_EQ(TRUE, FillLink3FailRes(&result, NFS3ERR_IO));
    FailsWithoutWcc(result, NFS3ERR_IO);
}

}  // namespace
