// SPDX-License-Identifier: Apache-2.0
//
// ACCESS and READLINK, and the releases that only say so.
#include "tests/nfs3/nfs3proc_fixture.h"

using namespace oxel::test;
using testing::_;
using testing::ElementsAre;
using testing::InSequence;
using testing::IsEmpty;
using testing::Return;

namespace {

// ---- ACCESS ----

class Access : public ProcTest {
  protected:
    static constexpr const char* kFunction = "bool_t Handle_ACCESS3(CallInfo3*)";
    ACCESS3res& Run(uint32_t asked = ACCESS3_READ) {
        call_.arguments().access = {handle_, asked};
        EXPECT_EQ(TRUE, Handle_ACCESS3(&call_));
        return call_.result.access;
    }
    void Grant(int read, int execute, int write) {
        InSequence order;
        EXPECT_CALL(*object_, Access(IsContextOf(&call_, object_.get()), kPath, 4))
            .WillOnce(Return(read));
        EXPECT_CALL(*object_, Access(_, kPath, 1)).WillOnce(Return(execute));
        EXPECT_CALL(*object_, Access(_, kPath, 2)).WillOnce(Return(write));
    }
};

TEST_F(Access, AskedOnlyForReadGrantsEverythingThatTheBackEndAllows) {
    Grant(0, 0, 0);
    const ACCESS3res& result = Run(ACCESS3_READ);
    EXPECT_EQ(NFS3_OK, result.status);
    EXPECT_EQ(0x3Fu, result.resok.access);
    EXPECT_EQ(TRUE, result.resok.obj_attributes.attributes_follow);
    EXPECT_EQ(4711u, result.resok.obj_attributes.attributes.fileid);
    EXPECT_THAT(log_.AtLevel(3),
                testing::IsSupersetOf({LogLine{3, kFunction, "requested access [0x1]"},
                                       LogLine{3, kFunction, "For [name]"},
                                       LogLine{3, kFunction, "Allowed permissions [3f]."}}));
    EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(Access, ReadIsBit1) {
    Grant(0, -1, -1);
    EXPECT_EQ(0x01u, Run(0x3f).resok.access);
}

TEST_F(Access, ExecuteIsLookupAndExecute) {
    Grant(-1, 0, -1);
    EXPECT_EQ(0x22u, Run(0x3f).resok.access);
}

TEST_F(Access, WriteIsModifyExtendAndDelete) {
    Grant(-1, -1, 0);
    EXPECT_EQ(0x1Cu, Run(0x3f).resok.access);
}

TEST_F(Access, NothingGrantedIsStillOk) {
    Grant(-1, -1, -1);
    const ACCESS3res& result = Run(0x3f);
    EXPECT_EQ(NFS3_OK, result.status);
    EXPECT_EQ(0u, result.resok.access);
    EXPECT_EQ(TRUE, result.resok.obj_attributes.attributes_follow);
}

TEST_F(Access, ReadOnlyShareKeepsTheWriteBitsThatTheBackEndGrants) {
    ON_CALL(*share_, IsWritable).WillByDefault(Return(0u));
    Grant(0, 0, 0);
    EXPECT_EQ(0x3Fu, Run(0x3f).resok.access);
}

TEST_F(Access, FailedStatStillAnnouncesAttributes) {
    Grant(0, -1, -1);
    EXPECT_CALL(*object_, Stat).WillOnce(FailWith(EIO, -1));
    const ACCESS3res& result = Run();
    EXPECT_EQ(NFS3_OK, result.status);
    EXPECT_EQ(TRUE, result.resok.obj_attributes.attributes_follow);
    EXPECT_EQ(0u, result.resok.obj_attributes.attributes.fileid);
}

TEST_F(Access, StatResultOfMinusOneTakesTheAttributesBack) {
    Grant(0, -1, -1);
    EXPECT_CALL(*object_, Stat).WillOnce(FailWith(-1, -1));
    const ACCESS3res& result = Run();
    EXPECT_EQ(NFS3_OK, result.status);
    EXPECT_EQ(FALSE, result.resok.obj_attributes.attributes_follow);
}

TEST_F(Access, RefusedClientGetsAccessWithoutAttributes) {
    ClientIsRefused();
    const ACCESS3res& result = Run();
    EXPECT_EQ(NFS3ERR_ACCES, result.status);
    EXPECT_EQ(FALSE, result.resfail.obj_attributes.attributes_follow);
}

TEST_F(Access, HandleWithoutAnObjectIsStaleWithoutAttributes) {
    ObjectIsGone();
    const ACCESS3res& result = Run();
    EXPECT_EQ(NFS3ERR_STALE, result.status);
    EXPECT_EQ(FALSE, result.resfail.obj_attributes.attributes_follow);
    EXPECT_THAT(Errors(), ElementsAre(LogLine{-1, kFunction, kStaleText}));
    EXPECT_TRUE(log_.Has(3, "requested access [0x1]")) << log_.Dump();
}

// ---- READLINK ----

class Readlink : public ProcTest {
  protected:
    static constexpr const char* kFunction = "bool_t Handle_READLINK3(CallInfo3*)";
    Readlink() { ON_CALL(*object_, Stat).WillByDefault(StatGives(FileStat(S_IFLNK | 0777))); }
    ~Readlink() override { Free_READLINK3(&call_); }
    READLINK3res& Run() {
        call_.arguments().readlink.symlink = handle_;
        EXPECT_EQ(TRUE, Handle_READLINK3(&call_));
        return call_.result.readlink;
    }
    static auto Target(std::string text) {
        return [text](OxelCtxt*, const std::string&, char* buffer, size_t capacity) {
            const size_t length = std::min(text.size(), capacity);
            std::memcpy(buffer, text.data(), length);
            return static_cast<ssize_t>(length);
        };
    }
};

TEST_F(Readlink, GivesTheTargetAndTheLinksAttributes) {
    EXPECT_CALL(*object_, ReadLink(IsContextOf(&call_, object_.get()), kPath, _, 4095))
        .WillOnce(Target("../other/place"));
    const READLINK3res& result = Run();
    EXPECT_EQ(NFS3_OK, result.status);
    EXPECT_STREQ("../other/place", result.resok.data);
    EXPECT_EQ(TRUE, result.resok.symlink_attributes.attributes_follow);
    EXPECT_EQ(NF3LNK, result.resok.symlink_attributes.attributes.type);
    EXPECT_TRUE(log_.Has(3, "For [name]")) << log_.Dump();
    EXPECT_TRUE(log_.Has(3, "[name] -> [../other/place] [../other/place] [4096]")) << log_.Dump();
    EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(Readlink, TargetOf4095BytesOrMoreIsCutTo4095) {
    EXPECT_CALL(*object_, ReadLink).WillOnce(Target(std::string(5000, 'x')));
    const READLINK3res& result = Run();
    EXPECT_EQ(NFS3_OK, result.status);
    EXPECT_EQ(std::string(4095, 'x'), result.resok.data);
}

TEST_F(Readlink, LengthBeyondTheBufferIsCutToIt) {
    EXPECT_CALL(*object_, ReadLink)
        .WillOnce([](OxelCtxt*, const std::string&, char* buffer, size_t capacity) {
            std::memset(buffer, 'y', capacity);
            return ssize_t{9000};
        });
    EXPECT_EQ(std::string(4095, 'y'), Run().resok.data);
}

TEST_F(Readlink, EmptyTargetIsAnEmptyText) {
    EXPECT_CALL(*object_, ReadLink).WillOnce(Return(0));
    EXPECT_STREQ("", Run().resok.data);
}

TEST_F(Readlink, FailedStatGivesTheTargetWithoutAttributes) {
    EXPECT_CALL(*object_, ReadLink).WillOnce(Target("t"));
    EXPECT_CALL(*object_, Stat).WillOnce(FailWith(EIO, -1));
    const READLINK3res& result = Run();
    EXPECT_EQ(NFS3_OK, result.status);
    EXPECT_STREQ("t", result.resok.data);
    EXPECT_EQ(FALSE, result.resok.symlink_attributes.attributes_follow);
}

TEST_F(Readlink, FailureIsItsErrnoAndCarriesAttributes) {
    EXPECT_CALL(*object_, ReadLink).WillOnce(FailWith(EINVAL, ssize_t{-1}));
    const READLINK3res& result = Run();
    EXPECT_EQ(NFS3ERR_INVAL, result.status);
    EXPECT_EQ(TRUE, result.resfail.symlink_attributes.attributes_follow);
    EXPECT_EQ(4711u, result.resfail.symlink_attributes.attributes.fileid);
    EXPECT_THAT(Errors(),
                ElementsAre(LogLine{-1, kFunction,
                                    "Error: Failed to get target of softlink [name]. [22:Invalid "
                                    "argument]"}));
}

TEST_F(Readlink, FailureAnnouncesAttributesEvenWithoutAny) {
    EXPECT_CALL(*object_, ReadLink).WillOnce(FailWith(EINVAL, ssize_t{-1}));
    EXPECT_CALL(*object_, Stat).WillOnce(FailWith(EIO, -1));
    const READLINK3res& result = Run();
    EXPECT_EQ(NFS3ERR_INVAL, result.status);
    EXPECT_EQ(TRUE, result.resfail.symlink_attributes.attributes_follow);
    EXPECT_EQ(0u, result.resfail.symlink_attributes.attributes.fileid);
}

TEST_F(Readlink, RefusedClientGetsAccess) {
    ClientIsRefused();
    const READLINK3res& result = Run();
    EXPECT_EQ(NFS3ERR_ACCES, result.status);
    EXPECT_EQ(FALSE, result.resfail.symlink_attributes.attributes_follow);
}

TEST_F(Readlink, HandleWithoutAnObjectIsStale) {
    ObjectIsGone();
    const READLINK3res& result = Run();
    EXPECT_EQ(NFS3ERR_STALE, result.status);
    EXPECT_EQ(FALSE, result.resfail.symlink_attributes.attributes_follow);
    EXPECT_THAT(Errors(), ElementsAre(LogLine{-1, kFunction, kStaleText}));
}

TEST_F(Readlink, FillerClearsTheFlag) {
    READLINK3res result{};
    result.resfail.symlink_attributes.attributes_follow = TRUE;
    EXPECT_EQ(TRUE, FillREADLINK3FailRes(&result, NFS3ERR_IO));
    EXPECT_EQ(NFS3ERR_IO, result.status);
    EXPECT_EQ(FALSE, result.resfail.symlink_attributes.attributes_follow);
}

TEST_F(Readlink, ReleaseFreesTheTargetOnceAndSaysSo) {
    EXPECT_CALL(*object_, ReadLink).WillOnce(Target("t"));
    Run();
    log_.Clear();
    EXPECT_EQ(TRUE, Free_READLINK3(&call_));
    EXPECT_EQ(nullptr, call_.result.readlink.resok.data);
    EXPECT_EQ(TRUE, Free_READLINK3(&call_));
    const LogLine line{4, "bool_t Free_READLINK3(CallInfo3*)", "Freed memory"};
    EXPECT_THAT(log_.Lines(), ElementsAre(line, line));
}

// ---- Releases that only say so ----

TEST_F(ProcTest, ReleasesOfGetattrSetattrLookupAndAccessOnlySaySo) {
    EXPECT_EQ(TRUE, Free_GETATTR3(&call_));
    EXPECT_EQ(TRUE, Free_SETATTR3(&call_));
    EXPECT_EQ(TRUE, Free_LOOKUP3(&call_));
    EXPECT_EQ(TRUE, Free_ACCESS3(&call_));
    EXPECT_THAT(log_.Lines(),
                ElementsAre(LogLine{4, "bool_t Free_GETATTR3(CallInfo3*)", "Freed memory"},
                            LogLine{4, "bool_t Free_SETATTR3(CallInfo3*)", "Freed memory"},
                            LogLine{4, "bool_t Free_LOOKUP3(CallInfo3*)", "Freed memory"},
                            LogLine{4, "bool_t Free_ACCESS3(CallInfo3*)", "Freed memory"}));
}

}  // namespace
