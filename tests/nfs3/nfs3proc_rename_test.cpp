// SPDX-License-Identifier: Apache-2.0
//
// RENAME.
#include "tests/nfs3/nfs3proc_directory.h"

using namespace oxel::test;
using testing::_;
using testing::ElementsAre;
using testing::InSequence;
using testing::IsEmpty;
using testing::Return;

namespace {

constexpr const char* kFunction = "bool_t Handle_RENAME3(CallInfo3*)";
const std::string kToPath = "/srv/share/other";

// The context of one object and a share.
MATCHER_P3(IsContextIn, call, share, object, "") {
    return &arg->id == &call->identity && arg->exportPtr == share && arg->object.get() == object &&
           arg->secondObject == nullptr;
}

class Rename : public DirectoryTest {
  protected:
    Rename() {
        NameExists();
        ON_CALL(*module_, GetBkEndProc(_, IsHandle(toHandle_))).WillByDefault(Return(to_));
        struct stat st = FileStat(S_IFDIR | 0755);
        st.st_ino = 4713;
        ON_CALL(*to_, Stat).WillByDefault(StatGives(st));
    }
    ~Rename() override { testing::Mock::VerifyAndClear(to_.get()); }
    RENAME3res& Run(const nfs_fh3& to) {
        call_.arguments().rename.from = {handle_, name_};
        call_.arguments().rename.to = {to, toName_};
        EXPECT_EQ(TRUE, Handle_RENAME3(&call_));
        return call_.result.rename;
    }
    RENAME3res& Run() { return Run(toHandle_); }
    static void CarriesNothing(const RENAME3res& result) {
        DirectoryTest::CarriesNothing(result.resfail.fromdir_wcc);
        DirectoryTest::CarriesNothing(result.resfail.todir_wcc);
    }

    char toName_[5] = "name";
    const nfs_fh3 toHandle_ = MakeHandle(kTestModuleType, kTestShareId, 0x33);
    boost::shared_ptr<NiceBkEndProc> to_ = boost::make_shared<NiceBkEndProc>(kToPath, toHandle_);
};

TEST_F(Rename, PassesBareNamesAndBothDirectoriesToTheSourceObject) {
    InSequence order;
    EXPECT_CALL(*object_, Stat(IsContextOf(&call_, object_.get()), kPath, _));
    EXPECT_CALL(*object_, FindChild(IsContextOf(&call_, object_.get()), "new"))
        .WillOnce(Return(child_));
    EXPECT_CALL(*to_, Stat(IsContextOf(&call_, to_.get()), kToPath, _));
    EXPECT_CALL(*child_, Rename(IsContextOfBoth(&call_, object_.get(), to_.get()), "new", "name"))
        .WillOnce(Return(0));
    EXPECT_CALL(*object_, Stat(IsContextOf(&call_, object_.get()), kPath, _));
    EXPECT_CALL(*to_, Stat(IsContextOf(&call_, to_.get()), kToPath, _));
    const RENAME3res& result = Run();
    EXPECT_EQ(NFS3_OK, result.status);
    IsDirectoryBefore(result.resok.fromdir_wcc.before);
    IsDirectoryAfter(result.resok.fromdir_wcc.after);
    IsDirectoryBefore(result.resok.todir_wcc.before);
    EXPECT_EQ(TRUE, result.resok.todir_wcc.after.attributes_follow);
    EXPECT_EQ(4713u, result.resok.todir_wcc.after.attributes.fileid);
    EXPECT_THAT(Errors(), IsEmpty());
    EXPECT_TRUE(log_.Has(4, "From [/srv/share/dir/name/new] to [/srv/share/other/name]"))
        << log_.Dump();
}

TEST_F(Rename, WithinOneDirectory) {
    EXPECT_CALL(*child_,
                Rename(IsContextOfBoth(&call_, object_.get(), object_.get()), "new", "name"))
        .WillOnce(Return(0));
    const RENAME3res& result = Run(handle_);
    EXPECT_EQ(NFS3_OK, result.status);
    IsDirectoryAfter(result.resok.fromdir_wcc.after);
    IsDirectoryAfter(result.resok.todir_wcc.after);
}

TEST_F(Rename, MissingSourceIsNoent) {
    // Whatever the back end's reason is.
    EXPECT_CALL(*object_, FindChild).WillOnce(FailWith(EACCES, BkEndProcPtr()));
    EXPECT_CALL(*to_, Stat).Times(0);
    const RENAME3res& result = Run();
    EXPECT_EQ(NFS3ERR_NOENT, result.status);
    CarriesNothing(result);
    EXPECT_THAT(
        Errors(),
        ElementsAre(LogLine{-1, kFunction, "Error: Failed to rename. Source [new] not present."}));
}

TEST_F(Rename, FailureIsItsErrnoWithoutWccData) {
    EXPECT_CALL(*child_, Rename).WillOnce(FailWith(EEXIST, -1));
    const RENAME3res& result = Run();
    EXPECT_EQ(NFS3ERR_EXIST, result.status);
    CarriesNothing(result);
    EXPECT_THAT(Errors(),
                ElementsAre(LogLine{-1, kFunction, "Error: Failed to rename. [File exists]."}));
}

TEST_F(Rename, SourceDirectoryWithoutAttributesFails) {
    EXPECT_CALL(*object_, Stat).WillOnce(FailWith(EIO, -1));
    EXPECT_CALL(*object_, FindChild).Times(0);
    const RENAME3res& result = Run();
    EXPECT_EQ(NFS3ERR_IO, result.status);
    CarriesNothing(result);
    EXPECT_EQ((LogLine{-1, kFunction, "Error: [5:Input/output error]"}), Errors().back());
}

TEST_F(Rename, TargetDirectoryWithoutAttributesFails) {
    EXPECT_CALL(*to_, Stat).WillOnce(FailWith(EIO, -1));
    EXPECT_CALL(*child_, Rename).Times(0);
    const RENAME3res& result = Run();
    EXPECT_EQ(NFS3ERR_IO, result.status);
    CarriesNothing(result);
    EXPECT_EQ((LogLine{-1, kFunction, "Error: [5:Input/output error]"}), Errors().back());
}

TEST_F(Rename, AttributesThatCannotBeHadAfterwardsAreNotSent) {
    DirectoryStatFailsAtCall(2);
    const RENAME3res& from = Run();
    EXPECT_EQ(NFS3_OK, from.status);
    EXPECT_EQ(FALSE, from.resok.fromdir_wcc.after.attributes_follow);
    EXPECT_EQ(TRUE, from.resok.todir_wcc.after.attributes_follow);
    call_.ClearCall();
    EXPECT_CALL(*to_, Stat)
        .WillOnce(StatGives(FileStat(S_IFDIR | 0755)))
        .WillOnce(FailWith(EIO, -1));
    const RENAME3res& to = Run();
    EXPECT_EQ(NFS3_OK, to.status);
    EXPECT_EQ(TRUE, to.resok.fromdir_wcc.after.attributes_follow);
    EXPECT_EQ(FALSE, to.resok.todir_wcc.after.attributes_follow);
}

TEST_F(Rename, VanishedSourceDirectoryIsStale) {
    ON_CALL(*module_, GetBkEndProc(_, IsHandle(handle_))).WillByDefault(Return(BkEndProcPtr()));
    const RENAME3res& result = Run();
    EXPECT_EQ(NFS3ERR_STALE, result.status);
    CarriesNothing(result);
    EXPECT_THAT(Errors(), ElementsAre(LogLine{-1, kFunction,
                                              "Error: Renaming [new]. 'from' directory not found. "
                                              "FH [] IP [192.0.2.7]"}));
}

TEST_F(Rename, VanishedTargetDirectoryIsStaleAndNamesTheSource) {
    ON_CALL(*module_, GetBkEndProc(_, IsHandle(toHandle_))).WillByDefault(Return(BkEndProcPtr()));
    const RENAME3res& result = Run();
    EXPECT_EQ(NFS3ERR_STALE, result.status);
    CarriesNothing(result);
    EXPECT_THAT(Errors(), ElementsAre(LogLine{-1, kFunction,
                                              "Error: Renaming [new]. 'to' directory not found. FH "
                                              "[] IP [192.0.2.7]"}));
}

TEST_F(Rename, SourcesShareIsCheckedFirst) {
    ClientIsRefused();
    EXPECT_CALL(*module_, GetBkEndProc).Times(0);
    const RENAME3res& result = Run();
    EXPECT_EQ(NFS3ERR_ACCES, result.status);
    CarriesNothing(result);
    EXPECT_THAT(Errors(), ElementsAre(RefusalLine()));
}

TEST_F(Rename, FillerClearsTheFlagsOfBothDirectories) {
    RENAME3res result{};
    for (wcc_data* wcc : {&result.resfail.fromdir_wcc, &result.resfail.todir_wcc})
        wcc->before.attributes_follow = wcc->after.attributes_follow = TRUE;
    EXPECT_EQ(TRUE, FillRENAME3FailRes(&result, NFS3ERR_IO));
    EXPECT_EQ(NFS3ERR_IO, result.status);
    CarriesNothing(result);
}

// The target lies in another share, of another module.
class RenameBetweenShares : public Rename {
  protected:
    static constexpr FSModuleType kOtherType = kTestModuleType + 1;
    RenameBetweenShares() {
        FSMCache::SetFSM(kOtherType, otherModule_);
        ON_CALL(*otherModule_, GetExportForHandle)
            .WillByDefault([this](const nfs_fh3&, ExportPtr& share) {
                share = otherShare_;
                return true;
            });
        ON_CALL(*otherModule_, GetBkEndProc(_, IsHandle(otherHandle_))).WillByDefault(Return(to_));
        ON_CALL(*otherShare_, IsWritable).WillByDefault(Return(1u));
        ON_CALL(*otherShare_, IsClientAllowed).WillByDefault(Return(true));
    }
    ~RenameBetweenShares() override { FSMCache::SetFSM(kOtherType, FSMPtr()); }

    const nfs_fh3 otherHandle_ = MakeHandle(kOtherType, 5, 0x44);
    boost::shared_ptr<NiceFSM> otherModule_ = boost::make_shared<NiceFSM>();
    boost::shared_ptr<NiceExport> otherShare_ = boost::make_shared<NiceExport>("/srv/other");
};

TEST_F(RenameBetweenShares, ReachesTheBackEndWhoseErrnoDecides) {
    EXPECT_CALL(*otherModule_,
                GetBkEndProc(testing::Eq(ExportPtr(otherShare_)), IsHandle(otherHandle_)));
    EXPECT_CALL(*to_, Stat(IsContextIn(&call_, ExportPtr(otherShare_), to_.get()), kToPath, _));
    EXPECT_CALL(*child_, Rename(IsContextOfBoth(&call_, object_.get(), to_.get()), "new", "name"))
        .WillOnce(FailWith(EXDEV, -1));
    const RENAME3res& result = Run(otherHandle_);
    EXPECT_EQ(NFS3ERR_XDEV, result.status);
    CarriesNothing(result);
}

TEST_F(RenameBetweenShares, TheCallKeepsTheSourcesShare) {
    EXPECT_EQ(NFS3_OK, Run(otherHandle_).status);
    EXPECT_EQ(ExportPtr(share_), call_.exportPtr);
}

TEST_F(RenameBetweenShares, ReadOnlyTargetIsRefusedThoughTheSourceIsWritable) {
    ON_CALL(*otherShare_, IsWritable).WillByDefault(Return(0u));
    EXPECT_CALL(*child_, Rename).Times(0);
    const RENAME3res& result = Run(otherHandle_);
    EXPECT_EQ(NFS3ERR_ACCES, result.status);
    CarriesNothing(result);
    EXPECT_THAT(Errors(), ElementsAre(LogLine{-1, kValidateFunction,
                                              "Write Access denied for share [/srv/other]"}));
    EXPECT_EQ(ExportPtr(share_), call_.exportPtr);
}

TEST_F(RenameBetweenShares, ClientOfTheSourceAloneIsRefused) {
    ON_CALL(*otherShare_, IsClientAllowed).WillByDefault(Return(false));
    EXPECT_EQ(NFS3ERR_ACCES, Run(otherHandle_).status);
    EXPECT_THAT(Errors(), ElementsAre(RefusalLine()));
}

}  // namespace
