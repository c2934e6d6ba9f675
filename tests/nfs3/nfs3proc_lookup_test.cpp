// SPDX-License-Identifier: Apache-2.0
//
// LOOKUP.
#include "tests/nfs3/nfs3proc_fixture.h"

using namespace oxel::test;
using testing::_;
using testing::ElementsAre;
using testing::InSequence;
using testing::IsEmpty;
using testing::Return;

namespace {

constexpr const char* kFunction = "bool_t Handle_LOOKUP3(CallInfo3*)";

class Lookup : public ProcTest {
  protected:
    Lookup() {
        ON_CALL(*object_, FindChild).WillByDefault(Return(child_));
        ON_CALL(*object_, Stat).WillByDefault(StatGives(FileStat(S_IFDIR | 0755)));
        struct stat st = FileStat(S_IFREG | 0600);
        st.st_ino = 4712;
        ON_CALL(*child_, Stat).WillByDefault(StatGives(st));
    }
    LOOKUP3res& Run(const char* name) {
        name_ = name;
        call_.arguments().lookup.what.dir = handle_;
        call_.arguments().lookup.what.name = name_.data();
        EXPECT_EQ(TRUE, Handle_LOOKUP3(&call_));
        return call_.result.lookup;
    }

    std::string name_;
    const nfs_fh3 childHandle_ = MakeHandle(kTestModuleType, kTestShareId, 0x22, 20);
    boost::shared_ptr<NiceBkEndProc> child_ =
        boost::make_shared<NiceBkEndProc>("/srv/share/dir/name/child", childHandle_);
};

TEST_F(Lookup, GivesHandleAndAttributesOfChildAndDirectory) {
    InSequence order;
    EXPECT_CALL(*object_, FindChild(OnObject(object_.get()), "child")).WillOnce(Return(child_));
    EXPECT_CALL(*child_, GetFileHandle);
    EXPECT_CALL(*child_, Stat(OnObject(child_.get()), "/srv/share/dir/name/child", _));
    EXPECT_CALL(*object_, Stat(OnObject(object_.get()), "/srv/share/dir/name", _));
    const LOOKUP3res& result = Run("child");
    EXPECT_EQ(NFS3_OK, result.status);
    EXPECT_THAT(result.resok.object, IsHandle(childHandle_));
    EXPECT_EQ(TRUE, result.resok.obj_attributes.attributes_follow);
    EXPECT_EQ(4712u, result.resok.obj_attributes.attributes.fileid);
    EXPECT_EQ(TRUE, result.resok.dir_attributes.attributes_follow);
    EXPECT_EQ(NF3DIR, result.resok.dir_attributes.attributes.type);
    EXPECT_EQ(4711u, result.resok.dir_attributes.attributes.fileid);
    EXPECT_THAT(log_.AtLevel(4), ElementsAre(LogLine{4, kFunction, "Lookup for [child]"},
                                             LogLine{4, kValidateFunction, "fh [handle text]"},
                                             LogLine{4, kFunction, "fh [handle text]"}));
    EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(Lookup, TheNewHandleIsWhatTheTraceShows) {
    EXPECT_CALL(*module_, GetHandleString(IsHandle(handle_))).WillOnce(Return("the directory"));
    EXPECT_CALL(*module_, GetHandleString(IsHandle(childHandle_))).WillOnce(Return("the child"));
    Run("child");
    EXPECT_TRUE(log_.Has(4, "fh [the child]")) << log_.Dump();
}

TEST_F(Lookup, EmptyNameIsInvalidEvenUnderAStaleHandle) {
    ObjectIsGone();
    EXPECT_CALL(*module_, GetExportForHandle).Times(0);
    const LOOKUP3res& result = Run("");
    EXPECT_EQ(NFS3ERR_INVAL, result.status);
    EXPECT_EQ(FALSE, result.resfail.dir_attributes.attributes_follow);
    EXPECT_THAT(log_.Lines(),
                ElementsAre(LogLine{4, kFunction, "Lookup for []"},
                            LogLine{-1, kFunction, "Error: Client sent empty name to look."}));
}

TEST_F(Lookup, DotAndDotDotGoToTheBackEndAsTheyStand) {
    EXPECT_CALL(*object_, FindChild(_, ".")).WillOnce(Return(object_));
    EXPECT_EQ(NFS3_OK, Run(".").status);
    EXPECT_CALL(*object_, FindChild(_, "..")).WillOnce(Return(child_));
    EXPECT_EQ(NFS3_OK, Run("..").status);
}

TEST_F(Lookup, MissingNameIsNoentWithAMessageOfLevel2) {
    EXPECT_CALL(*object_, FindChild).WillOnce(FailWith(ENOENT, BkEndProcPtr()));
    const LOOKUP3res& result = Run("absent");
    EXPECT_EQ(NFS3ERR_NOENT, result.status);
    EXPECT_EQ(FALSE, result.resfail.dir_attributes.attributes_follow);
    EXPECT_THAT(log_.AtLevel(2),
                ElementsAre(LogLine{2, kFunction,
                                    "FindChild() failed [absent] under [/srv/share/dir/name]. err "
                                    "[2]"}));
    EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(Lookup, OtherFailuresOfFindChildAreTheirErrno) {
    EXPECT_CALL(*object_, FindChild).WillOnce(FailWith(ENAMETOOLONG, BkEndProcPtr()));
    EXPECT_EQ(NFS3ERR_NAMETOOLONG, Run("long").status);
}

TEST_F(Lookup, FailedStatOfTheChildIsItsErrnoAndSendsNoAttributes) {
    EXPECT_CALL(*child_, Stat).WillOnce(FailWith(EACCES, -1));
    EXPECT_CALL(*object_, Stat).Times(0);
    const LOOKUP3res& result = Run("child");
    EXPECT_EQ(NFS3ERR_ACCES, result.status);
    EXPECT_EQ(FALSE, result.resfail.dir_attributes.attributes_follow);
    EXPECT_THAT(
        log_.AtLevel(2),
        ElementsAre(LogLine{2, kFunction, "stat() failed. [/srv/share/dir/name/child] err [13]"}));
}

TEST_F(Lookup, DirectoryAttributesAreAnnouncedEvenWithoutAny) {
    EXPECT_CALL(*object_, Stat).WillOnce(FailWith(EIO, -1));
    const LOOKUP3res& result = Run("child");
    EXPECT_EQ(NFS3_OK, result.status);
    EXPECT_EQ(TRUE, result.resok.dir_attributes.attributes_follow);
    EXPECT_EQ(0u, result.resok.dir_attributes.attributes.fileid);
}

TEST_F(Lookup, IsServedFromAReadOnlyShare) {
    ON_CALL(*share_, IsWritable).WillByDefault(Return(0u));
    EXPECT_EQ(NFS3_OK, Run("child").status);
}

TEST_F(Lookup, RefusedClientGetsAccess) {
    ClientIsRefused();
    const LOOKUP3res& result = Run("child");
    EXPECT_EQ(NFS3ERR_ACCES, result.status);
    EXPECT_EQ(FALSE, result.resfail.dir_attributes.attributes_follow);
    EXPECT_THAT(Errors(), ElementsAre(RefusalLine()));
}

TEST_F(Lookup, DirectoryHandleWithoutAnObjectIsStale) {
    ObjectIsGone();
    const LOOKUP3res& result = Run("child");
    EXPECT_EQ(NFS3ERR_STALE, result.status);
    EXPECT_EQ(FALSE, result.resfail.dir_attributes.attributes_follow);
    EXPECT_THAT(Errors(), ElementsAre(LogLine{-1, kFunction,
                                              "Error: Looking for [child]. Stale File Handle. FH "
                                              "[] IP [192.0.2.7]"}));
}

TEST_F(Lookup, FillerClearsTheFlag) {
    LOOKUP3res result{};
    result.resfail.dir_attributes.attributes_follow = TRUE;
    EXPECT_EQ(TRUE, FillLOOKUP3FailRes(&result, NFS3ERR_IO));
    EXPECT_EQ(NFS3ERR_IO, result.status);
    EXPECT_EQ(FALSE, result.resfail.dir_attributes.attributes_follow);
}

}  // namespace
