// SPDX-License-Identifier: Apache-2.0
//
// Calls that are wrong above their arguments: programs, versions and procedures, credentials and
// verifiers, messages cut short or with words exchanged, and transaction ids used twice.
#include <gtest/gtest.h>

#include <map>
#include <set>

#include "tests/wire/hostile_fixture.h"

namespace oxel::test {
namespace {

// accept_stat and reject_stat values (RFC 5531 section 9).
constexpr uint32_t kProgramUnavailable = 1, kProcedureUnavailable = 3, kGarbageArguments = 4;
constexpr uint32_t kAuthError = 1, kAuthBadCredential = 1, kAuthRejectedCredential = 2,
                   kAuthTooWeak = 5;
constexpr uint32_t kExist = 17;
constexpr size_t kProcedureAt = 20;  // in a call message

std::string Denied(uint32_t xid, uint32_t authStat) {
    return XdrWriter().U32(xid).U32(1).U32(1).U32(kAuthError).U32(authStat).Bytes();
}

class HostileCalls : public HostileTest {
  protected:
    void TearDown() override {
        printf("TRIED %u bad inputs\n", tried_);
        HostileTest::TearDown();
    }
    // Sends a record. Either one reply comes with the same transaction id, and the connection goes
    // on, or the connection is ended.
    void ExpectOneReplyOrTheEnd(const std::string& message) {
        ++tried_;
        if (!good_) good_ = Connect();
        ASSERT_TRUE(good_->Send(Record(message)));
        const auto reply = good_->Receive();
        if (!reply) {
            ASSERT_TRUE(good_->ClosedByPeer()) << Hex(message);
            good_.reset();
            return;
        }
        ASSERT_EQ(Hex(reply->substr(0, 8)), Hex(message.substr(0, 4) + StatusWord(1)))
            << Hex(message);
    }
    // One good call of each procedure.
    std::vector<RpcCall> OneOfEach() {
        const std::string root = XdrWriter().Opaque(root_).Bytes();
        const std::string big = XdrWriter().Opaque(big_).Bytes();
        const std::string noChange = SetAttributes().Bytes();
        const auto name = [&](const char* text) { return DirectoryName(root_, text); };
        const std::string cookie = XdrWriter().U64(0).U64(0).Bytes();
        return {
            maker_->Nfs(nfs::kGetattr, root),
            maker_->Nfs(nfs::kSetattr, big + noChange + StatusWord(0)),
            maker_->Nfs(nfs::kLookup, name("big")),
            maker_->Nfs(nfs::kAccess, root + StatusWord(63)),
            maker_->Nfs(nfs::kReadlink, root),
            maker_->Nfs(nfs::kRead, ReadArguments(big_, 0, 100)),
            maker_->Nfs(nfs::kWrite, WriteArguments(big_, 0, 0, "data")),
            maker_->Nfs(nfs::kCreate, name("new") + StatusWord(0) + noChange),
            maker_->Nfs(nfs::kMkdir, name("dir") + noChange),
            maker_->Nfs(nfs::kSymlink, name("link") + noChange + XdrWriter().Opaque("to").Bytes()),
            maker_->Nfs(nfs::kMknod, name("fifo") + StatusWord(7) + noChange),
            maker_->Nfs(nfs::kRemove, name("gone")),
            maker_->Nfs(nfs::kRmdir, name("gone")),
            maker_->Nfs(nfs::kRename, name("none") + name("other")),
            maker_->Nfs(nfs::kLink, big + name("hard")),
            maker_->Nfs(nfs::kReaddir, root + cookie + StatusWord(4096)),
            maker_->Nfs(nfs::kReaddirplus, root + cookie + StatusWord(4096) + StatusWord(8192)),
            maker_->Nfs(nfs::kFsstat, root),
            maker_->Nfs(nfs::kFsinfo, root),
            maker_->Nfs(nfs::kPathconf, root),
            maker_->Nfs(nfs::kCommit, big + cookie.substr(0, 8) + StatusWord(0)),
            maker_->Mount(mnt::kMnt, XdrWriter().Opaque("/rw").Bytes()),
            maker_->Mount(mnt::kUmnt, XdrWriter().Opaque("/rw").Bytes()),
        };
    }
    std::unique_ptr<RpcConnection> good_;
    unsigned tried_ = 0;
};

// What a call without arguments is answered with.
std::string ExpectedAnswer(const RpcCall& call) {
    const auto mismatch = [&](uint32_t low, uint32_t high) {
        return MismatchReply(call.xid, low, high);
    };
    const std::string unavailable = AcceptedReply(call.xid, kProcedureUnavailable);
    if (call.program == kNfsProgram) {
        if (call.version != 3) return mismatch(3, 3);
        if (call.procedure > 21) return unavailable;
        if (call.procedure == 0) return SuccessReply(call.xid, "");
        if (call.credentialFlavour == kAuthNone) return Denied(call.xid, kAuthTooWeak);
        return AcceptedReply(call.xid, kGarbageArguments);
    }
    if (call.program != kMountProgram) return AcceptedReply(call.xid, kProgramUnavailable);
    if (call.version < 1 || call.version > 3) return mismatch(1, 3);
    const std::set<uint32_t> served =
        call.version == 1 ? std::set<uint32_t>{0, 3, 5} : std::set<uint32_t>{0, 3};
    if (call.version != 3 && served.count(call.procedure) == 0) return mismatch(3, 3);
    if (call.procedure > 5) return unavailable;
    if (call.procedure == mnt::kMnt || call.procedure == mnt::kUmnt)
        return AcceptedReply(call.xid, kGarbageArguments);
    if (call.procedure == mnt::kDump) return SuccessReply(call.xid, XdrWriter().U32(0).Bytes());
    return SuccessReply(call.xid, "");  // EXPORT's list comes behind it
}

TEST_P(HostileCalls, EveryCombinationOfProgramVersionAndProcedureHasItsAnswer) {
    RpcConnection connection(Port());
    RpcCall call;
    // Each unknown procedure of NFS keeps a record by default; these are few enough.
    for (const uint32_t program :
         {0u, 99999u, 100000u, kNfsProgram, 100004u, kMountProgram, 100227u, ~0u})
        for (const uint32_t version : {0u, 1u, 2u, 3u, 4u, 0x80000000u, ~0u})
            for (const uint32_t procedure :
                 {0u, 1u, 2u, 3u, 4u, 5u, 6u, 21u, 22u, 0x80000000u, ~0u})
                for (const uint32_t flavour : {kAuthNone, kAuthUnix}) {
                    ++call.xid;
                    call.program = program;
                    call.version = version;
                    call.procedure = procedure;
                    call.credentialFlavour = flavour;
                    call.credential = flavour == kAuthNone ? "" : UnixCredential(0, 0);
                    ++tried_;
                    const std::string answer = connection.CallRaw(call);
                    const std::string expected = ExpectedAnswer(call);
                    ASSERT_EQ(Hex(answer.substr(0, expected.size())), Hex(expected))
                        << program << " " << version << " " << procedure;
                }
    ExpectServing();
}

// The library answers those of a wrong version itself only when they are whole calls of version 2.
TEST_P(HostileCalls, AnotherRpcVersionOrMessageTypeEndsItsConnection) {
    for (const uint32_t word : {0u, 1u, 3u, 0x80000000u, ~0u}) {
        RpcCall version = Null(), type = Null();
        version.rpcVersion = word;
        type.messageType = word == 0 ? 2 : word;
        for (const RpcCall& call : {version, type}) {
            ++tried_;
            RpcConnection connection(Port());
            ASSERT_TRUE(connection.Send(Record(call.Message())));
            EXPECT_TRUE(connection.ClosedByPeer()) << word;
        }
    }
    ExpectServing();
}

TEST_P(HostileCalls, UnixCredentialsThatDoNotAddUpAreBad) {
    const std::string words =
        XdrWriter().U32(1).U32(0).U32(7).U32(8).Bytes();  // stamp, no name, ids
    const std::string head = XdrWriter().U32(1).Bytes();
    std::vector<std::string> bad = {
        "", head, words, words + StatusWord(1), words + StatusWord(17) + std::string(68, 'g'),
        words + StatusWord(~0u), words + StatusWord(0x40000000u), words + StatusWord(0x80000001u),
        head + StatusWord(~0u) + std::string(20, 'm'), head + StatusWord(0xfffffffcu),
        head + StatusWord(256) + std::string(256, 'm') + std::string(12, '\0'),
        head + StatusWord(0x80000000u) + std::string(12, '\0'),
        // Cut inside the machine's name, and inside the groups.
        UnixCredential(0, 0, {1, 2, 3}, "machine").substr(0, 12),
        UnixCredential(0, 0, {1, 2, 3}, "machine").substr(0, 32)};
    for (size_t i = 0; i < bad.size(); ++i) {
        ++tried_;
        RpcCall call = Getattr();
        call.credential = bad[i];
        RpcConnection connection(Port());
        EXPECT_EQ(Hex(connection.CallRaw(call)), Hex(Denied(call.xid, kAuthBadCredential))) << i;
        EXPECT_TRUE(Answers(connection)) << i;
    }
    // Bytes behind a whole one are nobody's.
    RpcCall call = Getattr();
    call.credential += std::string(400 - call.credential.size(), 'x');
    EXPECT_TRUE(maker_->Connection().Call(call).Success());
}

TEST_P(HostileCalls, ShortCredentialsAreRejected) {
    for (const std::string& body : {std::string(), std::string("abcd"), std::string(400, 'a')}) {
        ++tried_;
        RpcCall call = Getattr();
        call.credentialFlavour = 2;
        call.credential = body;
        EXPECT_EQ(Hex(maker_->Connection().CallRaw(call)),
                  Hex(Denied(call.xid, kAuthRejectedCredential)));
    }
}

TEST_P(HostileCalls, CredentialsAndVerifiersOfMoreThan400BytesEndTheirConnections) {
    const auto head = [](const RpcCall& call) { return call.Message().substr(0, 24); };
    for (const uint32_t length : {401u, 404u, 65536u, 0x7fffffffu, 0x80000000u, 0xfffffffdu, ~0u}) {
        const std::string announced = XdrWriter().U32(length).Raw(std::string(8000, 'x')).Bytes();
        for (const std::string& message :
             {head(Null()) + StatusWord(kAuthUnix) + announced,
              head(Null()) + StatusWord(kAuthNone) + StatusWord(0) + StatusWord(7) + announced}) {
            ++tried_;
            RpcConnection connection(Port());
            ASSERT_TRUE(connection.Send(Record(message)));
            EXPECT_TRUE(connection.ClosedByPeer()) << length;
        }
    }
    ExpectServing();
}

TEST_P(HostileCalls, ACallCutShortAnywhereIsRefusedOrEndsItsConnection) {
    for (const RpcCall& call : OneOfEach()) {
        const std::string message = call.Message();
        for (size_t bytes = 4; bytes < message.size(); bytes += bytes % 5 == 0 ? 3 : 1)
            ASSERT_NO_FATAL_FAILURE(ExpectOneReplyOrTheEnd(message.substr(0, bytes)));
    }
    ExpectServing();
}

TEST_P(HostileCalls, ACallWithAnyWordExchangedIsAnsweredOrEndsItsConnection) {
    for (const RpcCall& call : OneOfEach()) {
        const std::string message = call.Message();
        for (size_t at = 0; at + 4 <= message.size(); at += 4) {
            // An unknown procedure keeps its record by default.
            if (at == kProcedureAt && !IsHardened(GetParam())) continue;
            for (const uint32_t word : {0u, 1u, 2u, 401u, 0x7fffffffu, 0x80000000u, ~0u}) {
                std::string changed = message;
                changed.replace(at, 4, XdrWriter().U32(word).Bytes());
                ASSERT_NO_FATAL_FAILURE(ExpectOneReplyOrTheEnd(changed)) << at;
            }
        }
    }
    ExpectServing();
}

// The daemon keeps no replies: what a transaction id was used for before, or is used for now, makes
// no difference to a call.
TEST_P(HostileCalls, ATransactionIdTwiceInFlightIsTwoCalls) {
    RpcConnection connection(Port());
    RpcCall getattr = Getattr(), null = Null();
    getattr.xid = null.xid = 77;
    std::string calls;
    for (int i = 0; i < 20; ++i) calls += Record(getattr.Message()) + Record(null.Message());
    tried_ += 20;
    ASSERT_TRUE(connection.Send(calls));
    std::map<std::string, int> replies;
    for (int i = 0; i < 40; ++i) {
        const auto message = connection.Receive();
        ASSERT_TRUE(message) << i;
        ++replies[*message];
    }
    const std::string attributes =
        StatusWord(0) + AttributesBytes(ExpectedAttributes(tree_.Path("rw")));
    EXPECT_EQ(replies[SuccessReply(77, "")], 20);
    EXPECT_EQ(replies[SuccessReply(77, attributes)], 20);
}

TEST_P(HostileCalls, ATransactionIdUsedAgainIsAnotherCall) {
    RpcCall call = maker_->Nfs(
        nfs::kCreate, DirectoryName(root_, "guarded") + StatusWord(1) + SetAttributes().Bytes());
    EXPECT_EQ(maker_->Status(call), 0u);
    EXPECT_EQ(maker_->Status(call), kExist);
    RpcCall other = Getattr();
    other.xid = call.xid;
    EXPECT_EQ(maker_->Status(other), 0u);
    // The same from another port.
    RpcConnection elsewhere(Port());
    EXPECT_EQ(XdrReader(elsewhere.Call(call).results).U32(), kExist);
    tried_ += 3;
}

TEST_P(HostileCalls, AClientThatComesAgainInMidCallIsServedAndHalfACallDoesNothing) {
    const RpcCall call =
        maker_->Nfs(nfs::kWrite, WriteArguments(big_, 0, 2, std::string(9000, 'n')));
    const std::string record = Record(call.Message());
    for (const size_t bytes : {size_t{2}, size_t{60}, record.size() / 2, record.size() - 1}) {
        ++tried_;
        RpcConnection broken(Port());
        ASSERT_TRUE(broken.Send(record.substr(0, bytes)));
        broken.Reset();
        EXPECT_EQ(maker_->GetAttributes(big_).size, 4u * kTransferBytes);
        EXPECT_EQ(ReadFile(tree_.Path("rw/big"))[0], 'b');
    }
    RpcConnection again(Port());
    EXPECT_TRUE(again.Call(call).Success());
    EXPECT_EQ(ReadFile(tree_.Path("rw/big")).substr(0, 9001), std::string(9000, 'n') + "b");
}

OXEL_ALL_MODES(HostileCalls);

}  // namespace
}  // namespace oxel::test
