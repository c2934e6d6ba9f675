// SPDX-License-Identifier: Apache-2.0
//
// Handles to shares: when a handle is stale, who is refused and with which words.
#include "tests/nfs3/nfs3proc_fixture.h"

using namespace oxel::test;
using testing::_;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Return;

namespace {

constexpr const char* kGetExportFunction = "void GetExport(const nfs_fh3&, ExportPtr&)";
constexpr const char* kReadOnlyFunction = "bool IsExportReadOnly(ExportPtr&)";

class Handles : public ProcTest {
  protected:
    nfsstat3 Validate(bool forWrite) {
        return ValidateAndAuthorize(handle_, call_.identity, fsm_, call_.exportPtr, forWrite);
    }
    FSMPtr fsm_;
};

TEST_F(Handles, ValidateGivesModuleAndShare) {
    EXPECT_EQ(NFS3_OK, Validate(kForRead));
    EXPECT_EQ(module_, fsm_);
    EXPECT_EQ(share_, call_.exportPtr);
    EXPECT_THAT(log_.Lines(), ElementsAre(LogLine{4, kValidateFunction, "fh [handle text]"}));
}

TEST_F(Handles, ValidateOfAnUnknownModuleTypeIsStaleAndNamesTypeShareAndLength) {
    nfs_fh3 unknown = MakeHandle(4242, 31, 0, 12);
    EXPECT_EQ(NFS3ERR_STALE,
              ValidateAndAuthorize(unknown, call_.identity, fsm_, call_.exportPtr, kForRead));
    EXPECT_EQ(nullptr, call_.exportPtr);
    EXPECT_THAT(log_.Lines(),
                ElementsAre(LogLine{-1, kValidateFunction,
                                    "FSM Not Found fsmType [4242] shareId [31] nfh_len [20]."}));
}

TEST_F(Handles, ValidateOfAHandleThatTheModuleRefusesIsStaleAndLeavesNoShare) {
    EXPECT_CALL(*module_, GetExportForHandle).WillOnce([this](const nfs_fh3&, ExportPtr& share) {
        share = share_;
        return false;
    });
    EXPECT_EQ(NFS3ERR_STALE, Validate(kForRead));
    EXPECT_EQ(nullptr, call_.exportPtr);
    EXPECT_THAT(log_.Lines(),
                ElementsAre(LogLine{-1, kValidateFunction, "Export not found for [handle text]."}));
}

TEST_F(Handles, ValidateIsStaleWhenTheModuleAnswersTrueWithoutAShare) {
    EXPECT_CALL(*module_, GetExportForHandle).WillOnce(Return(true));
    EXPECT_EQ(NFS3ERR_STALE, Validate(kForRead));
    EXPECT_THAT(Errors(),
                ElementsAre(LogLine{-1, kValidateFunction, "Export not found for [handle text]."}));
}

TEST_F(Handles, ValidateTrustsAShareThatIsSetEvenIfTheModuleWouldRefuseNow) {
    call_.exportPtr = share_;
    EXPECT_CALL(*module_, GetExportForHandle).Times(0);
    EXPECT_EQ(NFS3_OK, Validate(kForRead));
    EXPECT_EQ(share_, call_.exportPtr);
}

TEST_F(Handles, ValidateRefusesAWriteToAReadOnlyShareBeforeItLooksAtTheClient) {
    EXPECT_CALL(*share_, IsWritable).WillRepeatedly(Return(0u));
    EXPECT_CALL(*share_, IsClientAllowed).Times(0);
    EXPECT_EQ(NFS3ERR_ACCES, Validate(kForWrite));
    EXPECT_THAT(
        log_.Lines(),
        ElementsAre(LogLine{4, kValidateFunction, "fh [handle text]"},
                    LogLine{4, kReadOnlyFunction, "INFO: Share [/srv/share] is read-only"},
                    LogLine{-1, kValidateFunction, "Write Access denied for share [/srv/share]"}));
}

TEST_F(Handles, ValidateLetsAnAllowedClientReadAReadOnlyShare) {
    ON_CALL(*share_, IsWritable).WillByDefault(Return(0u));
    EXPECT_CALL(*share_, IsClientAllowed).WillOnce(Return(true));
    EXPECT_EQ(NFS3_OK, Validate(kForRead));
}

TEST_F(Handles, ValidateLetsAnAllowedClientWriteToAWritableShare) {
    EXPECT_EQ(NFS3_OK, Validate(kForWrite));
}

TEST_F(Handles, ValidateRefusesAClientThatTheShareDoesNotAllow) {
    EXPECT_CALL(*share_, IsClientAllowed(XOIPAddr(call_.identity.clientAddress), std::string()))
        .WillOnce(Return(false));
    EXPECT_EQ(NFS3ERR_ACCES, Validate(kForRead));
    EXPECT_THAT(Errors(), ElementsAre(RefusalLine()));
}

TEST_F(Handles, ValidateMakesNoHandleTextWhenNobodyReadsIt) {
    oxel::LogWriter::SetLevel(3);
    EXPECT_CALL(*module_, GetHandleString).Times(0);
    EXPECT_EQ(NFS3_OK, Validate(kForRead));
    EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(Handles, GetExportResolvesTheShareSilently) {
    ExportPtr share;
    GetExport(handle_, share);
    EXPECT_EQ(share_, share);
    EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(Handles, GetExportOfAnUnknownModuleTypeLeavesTheShareAsItIs) {
    const nfs_fh3 unknown = MakeHandle(4242, 31, 0, 12);
    const LogLine line{-1, kGetExportFunction,
                       "FSM Not Found fsmType [4242] shareId [31] nfh_len [20]."};
    ExportPtr share;
    GetExport(unknown, share);
    EXPECT_EQ(nullptr, share);
    EXPECT_THAT(log_.Lines(), ElementsAre(line));
    share = share_;
    GetExport(unknown, share);
    EXPECT_EQ(share_, share);
    EXPECT_THAT(log_.Lines(), ElementsAre(line, line));
}

TEST_F(Handles, GetExportKeepsAShareThatIsSet) {
    const ExportPtr other = boost::make_shared<NiceExport>("/other");
    ExportPtr share = other;
    EXPECT_CALL(*module_, GetExportForHandle).Times(0);
    GetExport(handle_, share);
    EXPECT_EQ(other, share);
}

TEST_F(Handles, GetExportLeavesNoShareWhenTheModuleFindsNone) {
    EXPECT_CALL(*module_, GetExportForHandle)
        .WillOnce(Return(true))
        .WillOnce([this](const nfs_fh3&, ExportPtr& share) {
            share = share_;
            return false;
        });
    const LogLine line{-1, kGetExportFunction, "Export not found for [handle text]."};
    ExportPtr share;
    GetExport(handle_, share);
    EXPECT_EQ(nullptr, share);
    GetExport(handle_, share);
    EXPECT_EQ(nullptr, share);
    EXPECT_THAT(log_.Lines(), ElementsAre(line, line));
}

TEST_F(Handles, EveryGetterResolvesTheFirstHandleOfItsArguments) {
    for (int procedure = 1; procedure < kNfs3ProcedureCount; ++procedure) {
        SCOPED_TRACE(Nfsv3Handlers[procedure].name);
        call_.ClearCall();
        call_.exportPtr.reset();
        std::memcpy(static_cast<void*>(&call_.arguments()), &handle_, sizeof handle_);
        Nfsv3Handlers[procedure].getExport(&call_);
        EXPECT_EQ(share_, call_.exportPtr);
    }
    EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(Handles, GetterOfRenameUsesTheSourceDirectoryAndThatOfLinkTheFile) {
    const nfs_fh3 unknown = MakeHandle(4242, 31);
    call_.arguments().rename.from.dir = handle_;
    call_.arguments().rename.to.dir = unknown;
    GetExport_RENAME3(&call_);
    EXPECT_EQ(share_, call_.exportPtr);

    call_.exportPtr.reset();
    call_.arguments().link.file = handle_;
    call_.arguments().link.link.dir = unknown;
    GetExport_LINK3(&call_);
    EXPECT_EQ(share_, call_.exportPtr);
}

TEST(Texts, HandleTextOfTheDaemonIsEmpty) {
    EXPECT_EQ("", FH2Str(MakeHandle(kTestModuleType, kTestShareId, 0x7f, 56)));
    EXPECT_EQ("", FH2Str(nfs_fh3{}));
}

TEST(Texts, ClientAddressIsNumericAndV4WhereItIsMapped) {
    EXPECT_EQ(kClientText, GetClientIPStr(ClientSocketAddress()));
    sockaddr_in6 address = ClientSocketAddress();
    inet_pton(AF_INET6, "2001:db8::5", &address.sin6_addr);
    EXPECT_EQ("2001:db8::5", GetClientIPStr(address));
}

TEST(Texts, BaseNameIsTheLastComponent) {
    EXPECT_EQ("name", BaseName("/srv/share/name"));
    EXPECT_EQ("name", BaseName("name"));
    EXPECT_EQ("name", BaseName("/name"));
    EXPECT_EQ("name", BaseName("/srv/name/"));
    EXPECT_EQ("/", BaseName("/"));
    EXPECT_EQ("", BaseName(""));
}

}  // namespace
