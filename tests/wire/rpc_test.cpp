// SPDX-License-Identifier: Apache-2.0
//
// The RPC layer on the wire: versions, credentials, verifiers, records and fragments.
#include <gtest/gtest.h>

#include <map>
#include <random>

#include "tests/wire/wire_fixture.h"

namespace oxel::test {
namespace {

// accept_stat and reject_stat values (RFC 5531 section 9).
constexpr uint32_t kProgramUnavailable = 1, kProcedureUnavailable = 3, kGarbageArguments = 4;
constexpr uint32_t kAuthError = 1, kAuthBadCredential = 1, kAuthRejectedCredential = 2,
                   kAuthTooWeak = 5;

std::string DeniedAuth(uint32_t xid, uint32_t authStat) {
    return XdrWriter().U32(xid).U32(1).U32(1).U32(kAuthError).U32(authStat).Bytes();
}

using Rpc = WireTest;

TEST_P(Rpc, NullNeedsNoCredential) {
    RpcConnection connection(Port());
    RpcCall call;
    call.xid = 0xfeedbeef;
    EXPECT_EQ(Hex(connection.CallRaw(call)), Hex(SuccessReply(0xfeedbeef, "")));
    call.program = kMountProgram;
    for (uint32_t version : {1u, 2u, 3u}) {
        call.version = version;
        EXPECT_EQ(Hex(connection.CallRaw(call)), Hex(SuccessReply(0xfeedbeef, "")));
    }
}

TEST_P(Rpc, EveryOtherNfsProcedureNeedsAuthUnix) {
    RpcConnection connection(Port());
    const char* names[] = {"NULL3",     "GETATTR3", "SETATTR3",     "LOOKUP3", "ACCESS3",
                           "READLINK3", "READ3",    "WRITE3",       "CREATE3", "MKDIR3",
                           "SYMLINK3",  "MKNOD3",   "REMOVE3",      "RMDIR3",  "RENAME3",
                           "LINK3",     "READDIR3", "READDIRPLUS3", "FSSTAT3", "FSINFO3",
                           "PATHCONF3", "COMMIT3"};
    for (uint32_t procedure = 1; procedure <= 21; ++procedure) {
        RpcCall call;
        call.xid = procedure;
        call.procedure = procedure;
        EXPECT_EQ(Hex(connection.CallRaw(call)), Hex(DeniedAuth(procedure, kAuthTooWeak)));
    }
    // Hardened, one message has ten lines a minute.
    const uint32_t said = IsHardened(GetParam()) ? 10 : 21;
    for (uint32_t procedure = 1; procedure <= said; ++procedure) {
        EXPECT_TRUE(daemon_.WaitForLog(std::string("Error: Auth_NULL not accepted for proc [") +
                                       names[procedure] + "]."));
    }
    ExpectServing();
}

TEST_P(Rpc, ManyWeakCallsUseUpNothing) {
    RpcConnection connection(Port());
    for (uint32_t i = 0; i < 60; ++i) {
        RpcCall call;
        call.xid = i;
        call.procedure = nfs::kGetattr;
        ASSERT_EQ(connection.CallRaw(call), DeniedAuth(i, kAuthTooWeak));
    }
    ExpectServing();
}

TEST_P(Rpc, OtherFlavoursAreRejected) {
    RpcConnection connection(Port());
    RpcCall call;
    call.credentialFlavour = 390003;
    EXPECT_EQ(Hex(connection.CallRaw(call)), Hex(DeniedAuth(1, kAuthRejectedCredential)));
    // A credential that is no credential: a machine name longer than 255 bytes.
    call.credentialFlavour = kAuthUnix;
    call.credential = UnixCredential(0, 0, {}, std::string(300, 'm'));
    EXPECT_EQ(Hex(connection.CallRaw(call)), Hex(DeniedAuth(1, kAuthBadCredential)));
    // 17 groups are one more than AUTH_UNIX has.
    call.credential = UnixCredential(0, 0, std::vector<uint32_t>(17, 5));
    EXPECT_EQ(Hex(connection.CallRaw(call)), Hex(DeniedAuth(1, kAuthBadCredential)));
    call.credential = UnixCredential(0, 0, std::vector<uint32_t>(16, 5));
    EXPECT_EQ(Hex(connection.CallRaw(call)), Hex(SuccessReply(1, "")));
    ExpectServing();
}

TEST_P(Rpc, UnknownProceduresAreUnavailable) {
    RpcConnection connection(Port());
    RpcCall call;
    for (uint32_t procedure : {22u, 0xffffffffu, 0x80000000u}) {
        call.procedure = procedure;
        EXPECT_EQ(Hex(connection.CallRaw(call)), Hex(AcceptedReply(1, kProcedureUnavailable)));
        EXPECT_TRUE(daemon_.WaitForLog("Error: unknown procedure " +
                                       std::to_string(static_cast<int32_t>(procedure))));
    }
    call.program = kMountProgram;
    for (uint32_t procedure : {6u, 0xffffffffu}) {
        call.procedure = procedure;
        EXPECT_EQ(Hex(connection.CallRaw(call)), Hex(AcceptedReply(1, kProcedureUnavailable)));
        EXPECT_TRUE(daemon_.WaitForLog("Error: : unknown procedure " +
                                       std::to_string(static_cast<int32_t>(procedure))));
    }
}

TEST_P(Rpc, OtherNfsVersionsAreAMismatch) {
    RpcConnection connection(Port());
    RpcCall call;
    for (uint32_t version : {0u, 2u, 4u}) {
        call.version = version;
        EXPECT_EQ(Hex(connection.CallRaw(call)), Hex(MismatchReply(1, 3, 3))) << version;
    }
    call.program = kMountProgram;
    for (uint32_t version : {0u, 4u}) {
        call.version = version;
        EXPECT_EQ(Hex(connection.CallRaw(call)), Hex(MismatchReply(1, 1, 3))) << version;
    }
}

TEST_P(Rpc, OtherProgramsAreUnavailable) {
    RpcConnection connection(Port());
    RpcCall call;
    for (uint32_t program : {0u, 100000u, 100021u, 0xffffffffu}) {
        call.program = program;
        EXPECT_EQ(Hex(connection.CallRaw(call)), Hex(AcceptedReply(1, kProgramUnavailable)));
    }
}

TEST_P(Rpc, AnotherRpcVersionEndsItsConnectionOnly) {
    RpcConnection connection(Port()), other(Port());
    RpcCall call;
    EXPECT_EQ(other.CallRaw(call), SuccessReply(1, ""));
    call.rpcVersion = 3;
    ASSERT_TRUE(connection.Send(Record(call.Message())));
    EXPECT_TRUE(connection.ClosedByPeer());
    call.rpcVersion = 2;
    EXPECT_EQ(other.CallRaw(call), SuccessReply(1, ""));
}

TEST_P(Rpc, TransactionIdsComeBack) {
    NfsClient client(Port());
    const std::string root = client.MountShare("/rw");
    for (uint32_t xid : {0u, 1u, 0x7fffffffu, 0x80000000u, 0xffffffffu}) {
        RpcCall call = client.Nfs(nfs::kGetattr, XdrWriter().Opaque(root).Bytes());
        call.xid = xid;
        RpcReply reply = client.Connection().Call(call);
        EXPECT_TRUE(reply.Success());
        EXPECT_EQ(reply.xid, xid);
    }
}

TEST_P(Rpc, AnAuthUnixVerifierComesBack) {
    NfsClient client(Port());
    const std::string root = client.MountShare("/rw");
    for (size_t length : {0u, 1u, 4u, 399u, 400u}) {
        RpcCall call = client.Nfs(nfs::kGetattr, XdrWriter().Opaque(root).Bytes());
        std::string verifier;
        for (size_t i = 0; i < length; ++i) verifier.push_back(static_cast<char>(i * 7 + 1));
        call.verifier = verifier;
        call.verifierFlavour = length == 0 ? kAuthNone : 4711;
        RpcReply reply = client.Connection().Call(call);
        EXPECT_TRUE(reply.Success());
        EXPECT_EQ(reply.verifierFlavour, call.verifierFlavour);
        EXPECT_EQ(Hex(reply.verifier), Hex(verifier));
        EXPECT_EQ(reply.results.size(), 4u + 84u);
    }
    // The next call's own, empty verifier, not the one before.
    RpcReply reply = client.Connection().Call(client.Nfs(nfs::kNull, ""));
    EXPECT_EQ(reply.verifier, "");
}

TEST_P(Rpc, VerifiersOfPipelinedCallsStayWithTheirCalls) {
    NfsClient client(Port());
    const std::string root = client.MountShare("/rw");
    std::string bytes;
    for (uint32_t i = 0; i < 50; ++i) {
        RpcCall call = client.Nfs(nfs::kGetattr, XdrWriter().Opaque(root).Bytes());
        call.xid = i;
        call.verifierFlavour = 4711;
        call.verifier = std::string(8 + i * 4, static_cast<char>('A' + i % 26));
        bytes += Record(call.Message());
    }
    ASSERT_TRUE(client.Connection().Send(bytes));
    for (uint32_t i = 0; i < 50; ++i) {
        std::optional<std::string> message = client.Connection().Receive();
        ASSERT_TRUE(message.has_value());
        RpcReply reply = ParseReply(*message);
        EXPECT_EQ(reply.verifier,
                  std::string(8 + reply.xid * 4, static_cast<char>('A' + reply.xid % 26)));
    }
}

TEST_P(Rpc, AVerifierOfMoreThan400BytesEndsTheConnection) {
    RpcConnection connection(Port());
    RpcCall call;
    call.verifier = std::string(404, 'v');
    ASSERT_TRUE(connection.Send(Record(call.Message())));
    EXPECT_TRUE(connection.ClosedByPeer());
    ExpectServing();
}

TEST_P(Rpc, ARecordMayComeInManyFragments) {
    NfsClient client(Port());
    const std::string root = client.MountShare("/rw");
    const Attributes expected = ExpectedAttributes(tree_.Path("rw"));
    for (size_t fragment : {1u, 3u, 4u, 7u, 64u}) {
        RpcCall call = client.Nfs(nfs::kGetattr, XdrWriter().Opaque(root).Bytes());
        ASSERT_TRUE(client.Connection().Send(Record(call.Message(), fragment)));
        std::optional<std::string> message = client.Connection().Receive();
        ASSERT_TRUE(message.has_value()) << fragment;
        EXPECT_EQ(Hex(*message),
                  Hex(SuccessReply(call.xid, StatusWord(0) + AttributesBytes(expected))));
    }
}

TEST_P(Rpc, CallsInOneSegmentAreAllAnswered) {
    NfsClient client(Port());
    const std::string root = client.MountShare("/rw");
    std::map<uint32_t, std::string> expected;
    std::string bytes;
    const std::string attributes = AttributesBytes(ExpectedAttributes(tree_.Path("rw")));
    for (uint32_t i = 0; i < 200; ++i) {
        RpcCall call = i % 2 == 0 ? client.Nfs(nfs::kGetattr, XdrWriter().Opaque(root).Bytes())
                                  : client.Nfs(nfs::kNull, "");
        expected[call.xid] =
            SuccessReply(call.xid, i % 2 == 0 ? StatusWord(0) + attributes : std::string());
        bytes += Record(call.Message());
    }
    ASSERT_TRUE(client.Connection().Send(bytes));
    while (!expected.empty()) {
        std::optional<std::string> message = client.Connection().Receive();
        ASSERT_TRUE(message.has_value()) << expected.size() << " replies are missing";
        auto it = expected.find(XdrReader(*message).U32());
        ASSERT_NE(it, expected.end());
        EXPECT_EQ(Hex(*message), Hex(it->second));
        expected.erase(it);
    }
}

TEST_P(Rpc, ArgumentsThatDoNotDecodeAreGarbage) {
    NfsClient client(Port());
    const std::string root = client.MountShare("/rw");
    for (uint32_t procedure = 1; procedure <= 21; ++procedure) {
        RpcCall call = client.Nfs(procedure, XdrWriter().U32(0x7fffffff).Bytes());
        EXPECT_EQ(Hex(client.Connection().CallRaw(call)),
                  Hex(AcceptedReply(call.xid, kGarbageArguments)))
            << procedure;
        // Hardened, one message has ten lines a minute.
        if (IsHardened(GetParam()) && procedure > 10) continue;
        EXPECT_TRUE(daemon_.WaitForLog("Error: Args Decode Failed. procNum [" +
                                       std::to_string(procedure) + "]"));
    }
    for (uint32_t procedure : {mnt::kMnt, mnt::kUmnt}) {
        RpcCall call = client.Mount(procedure, XdrWriter().U32(5000).Bytes());
        EXPECT_EQ(Hex(client.Connection().CallRaw(call)),
                  Hex(AcceptedReply(call.xid, kGarbageArguments)));
        EXPECT_TRUE(daemon_.WaitForLog("Error: : Args Decode Failed. procNum [" +
                                       std::to_string(procedure) + "]"));
    }
    // The connection is still good.
    EXPECT_EQ(client.GetAttributes(root).type, 2u);
}

TEST_P(Rpc, ManyUndecodableCallsUseUpNothing) {
    NfsClient client(Port());
    for (int i = 0; i < 60; ++i) {
        RpcCall call = client.Nfs(nfs::kLookup, "");
        ASSERT_EQ(client.Connection().CallRaw(call), AcceptedReply(call.xid, kGarbageArguments));
    }
    ExpectServing();
}

TEST_P(Rpc, StringsOfMoreThan4096BytesAreGarbage) {
    NfsClient client(Port());
    const std::string root = client.MountShare("/rw");
    uint32_t status = 0;
    client.Lookup(root, std::string(4096, 'n'), &status);
    EXPECT_EQ(status, 63u);  // it decodes, and is too long for the file system
    RpcCall call = client.Nfs(nfs::kLookup, DirectoryName(root, std::string(4097, 'n')));
    EXPECT_EQ(client.Connection().CallRaw(call), AcceptedReply(call.xid, kGarbageArguments));
    call = client.Mount(mnt::kMnt, XdrWriter().Opaque(std::string(4097, '/')).Bytes());
    EXPECT_EQ(client.Connection().CallRaw(call), AcceptedReply(call.xid, kGarbageArguments));
    client.MountShare("/" + std::string(4095, 'x'), &status);
    EXPECT_EQ(status, 2u);
}

TEST_P(Rpc, ExtraBytesAfterTheArgumentsAreIgnored) {
    NfsClient client(Port());
    const std::string root = client.MountShare("/rw");
    RpcCall call =
        client.Nfs(nfs::kGetattr, XdrWriter().Opaque(root).Raw(std::string(1000, 'x')).Bytes());
    EXPECT_TRUE(client.Connection().Call(call).Success());
    EXPECT_EQ(client.GetAttributes(root).type, 2u);
}

TEST_P(Rpc, AReplyInsteadOfACallDoesNoHarm) {
    RpcConnection connection(Port());
    RpcCall call;
    call.messageType = 1;
    ASSERT_TRUE(connection.Send(Record(call.Message())));
    EXPECT_TRUE(connection.ClosedByPeer());
    ExpectServing();
}

TEST_P(Rpc, GarbageRecordsEndTheirConnectionsOnly) {
    NfsClient steady(Port());
    const std::string root = steady.MountShare("/rw");
    std::mt19937 random(20260103);
    for (int round = 0; round < 60; ++round) {
        RpcConnection connection(Port());
        std::string bytes;
        for (size_t i = 1 + random() % 300; i > 0; --i)
            bytes.push_back(static_cast<char>(random()));
        // Whole records of garbage, or raw bytes whose first four are taken for a record mark.
        connection.Send(round % 2 == 0 ? Record(bytes) : bytes);
        if (round % 3 == 0)
            connection.Reset();
        else
            connection.Close();
        ASSERT_EQ(steady.GetAttributes(root).type, 2u) << round;
    }
}

TEST_P(Rpc, EmptyRecordsAndFragmentsDoNoHarm) {
    for (const std::string& bytes :
         {XdrWriter().U32(0x80000000u).Bytes(), XdrWriter().U32(0).U32(0).U32(0x80000000u).Bytes(),
          XdrWriter().U32(0).Bytes() + Record(RpcCall().Message())}) {
        RpcConnection connection(Port());
        ASSERT_TRUE(connection.Send(bytes));
        connection.CloseSending();
        EXPECT_TRUE(connection.ClosedByPeer());
        ExpectServing();
    }
}

OXEL_ALL_MODES(Rpc);

// A call of an unknown procedure keeps its record for good. Hardened, it gives it back.
class UnknownProcedures : public WireTest {
  protected:
    void SendUnknown(int count) {
        RpcConnection connection(Port());
        for (int i = 0; i < count; ++i) {
            RpcCall call;
            call.procedure = 22;
            ASSERT_EQ(connection.CallRaw(call), AcceptedReply(1, kProcedureUnavailable)) << i;
        }
    }
};

TEST_P(UnknownProcedures, TwentyFiveOfThemBlockTheService) {
    SendUnknown(24);
    ExpectServing();
    SendUnknown(1);
    RpcConnection connection(Port());
    ASSERT_TRUE(connection.Send(Record(RpcCall().Message())));
    EXPECT_TRUE(connection.Silent(300));
    // Also blocked, the daemon can be ended; that it cannot answer is what this test is about.
    daemon_.Kill();
}

OXEL_DEFAULT_MODES(UnknownProcedures);

using HardenedUnknownProcedures = UnknownProcedures;

TEST_P(HardenedUnknownProcedures, AreHarmless) {
    SendUnknown(60);
    ExpectServing();
}

OXEL_HARDENED_MODES(HardenedUnknownProcedures);

}  // namespace
}  // namespace oxel::test
