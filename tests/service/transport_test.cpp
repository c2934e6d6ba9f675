// SPDX-License-Identifier: Apache-2.0
//
// Copies of a transport: what they take from the call, that they stay what they are while the
// library reads on, and that nothing of one reply reaches another.
#include "bin/oxelService_transport.h"

#include <gtest/gtest.h>
#include <rpc/svc_mt.h>
#include <sys/resource.h>
#include <sys/select.h>

#include <csignal>
#include <cstring>
#include <functional>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include "base/log.h"
#include "private_root.h"
#include "rpc_wire.h"
#include "tests/support/log_capture.h"

using oxel::test::IsOpen;
using oxel::test::LogCapture;
using oxel::test::RpcCall;
using oxel::test::RpcClient;
using oxel::test::RpcReply;
using oxel::test::ServedConnection;

namespace {

constexpr uint32_t kProgram = 0x20000001;

// What the registered service does with a call.
std::function<void(svc_req*, SVCXPRT*)>& OnCall() {
    static std::function<void(svc_req*, SVCXPRT*)> onCall;
    return onCall;
}
void Dispatch(svc_req* request, SVCXPRT* transport) {
    OnCall()(request, transport);
}

RpcCall Call(uint32_t xid) {
    RpcCall call;
    call.xid = xid;
    call.program = kProgram;
    call.version = 1;
    return call;
}

// Encodes a word, so that a reply can be told from another one.
bool_t xdr_Word(XDR* xdrs, uint32_t* word) {
    return xdr_u_int(xdrs, word);
}
const auto kXdrWord = reinterpret_cast<xdrproc_t>(xdr_Word);

struct Bytes {
    uint32_t count;
    char fill;
};
bool_t xdr_Fill(XDR* xdrs, Bytes* bytes) {
    std::string data(bytes->count, bytes->fill);
    return xdr_u_int(xdrs, &bytes->count) && xdr_opaque(xdrs, data.data(), bytes->count);
}
const auto kXdrFill = reinterpret_cast<xdrproc_t>(xdr_Fill);

bool_t Reply(SVCXPRT* copy, uint32_t word) {
    return svc_sendreply(copy, kXdrWord, &word);
}

tcp_conn* RecordOf(SVCXPRT* transport) {
    return static_cast<tcp_conn*>(transport->xp_p1);
}

class Transport : public testing::Test {
  protected:
    void SetUp() override {
        signal(SIGPIPE, SIG_IGN);
        ASSERT_TRUE(svc_reg(connection_.transport, kProgram, 1, Dispatch, nullptr));
    }
    void TearDown() override {
        for (SVCXPRT* copy : copies_) FreeSVCXPRT(copy);
        copies_.clear();
        if (IsServed(connection_)) connection_.End();
        EXPECT_EQ(Connection::Count(), 0u);
    }
    static bool IsServed(const ServedConnection& connection) {
        return FD_ISSET(connection.fd, &svc_fdset);
    }
    // Makes a copy for every call that has come on the connection.
    SVCXPRT* CopyFor(ServedConnection& connection, const RpcCall& call) {
        connection.client.Send(call);
        SVCXPRT* copy = nullptr;
        OnCall() = [&](svc_req*, SVCXPRT* transport) { copy = DupSVCXPRT(transport); };
        connection.Serve();
        EXPECT_NE(copy, nullptr);
        copies_.push_back(copy);
        return copy;
    }
    SVCXPRT* CopyFor(const RpcCall& call) { return CopyFor(connection_, call); }
    // Arms an existing copy for a call on the connection.
    static bool Rearm(SVCXPRT* copy, ServedConnection& connection, const RpcCall& call) {
        connection.client.Send(call);
        bool armed = false;
        OnCall() = [&](svc_req*, SVCXPRT* transport) { armed = DupSVCXPRT(transport, copy); };
        connection.Serve();
        return armed;
    }

    ServedConnection connection_;
    std::vector<SVCXPRT*> copies_;
};

}  // namespace

TEST_F(Transport, CopyAnswersWithItsCallsTransactionIdAfterLaterCallsWereRead) {
    SVCXPRT* first = CopyFor(Call(11));
    SVCXPRT* second = CopyFor(Call(22));
    ASSERT_TRUE(Reply(second, 222));
    ASSERT_TRUE(Reply(first, 111));
    RpcReply reply = connection_.client.Expect();
    EXPECT_EQ(reply.xid, 22u);
    EXPECT_EQ(reply.results, oxel::test::Word(222));
    reply = connection_.client.Expect();
    EXPECT_EQ(reply.xid, 11u);
    EXPECT_EQ(reply.accept, uint32_t{SUCCESS});
    EXPECT_EQ(reply.results, oxel::test::Word(111));
}

TEST_F(Transport, CopyKeepsItsCallsVerifierAfterLaterCallsWereRead) {
    RpcCall call = Call(1).WithUnix();
    call.verifierFlavor = 77;
    call.verifier = "verifier of 1";
    SVCXPRT* first = CopyFor(call);
    call = Call(2).WithUnix();
    call.verifierFlavor = 88;
    call.verifier = "another verifier, of 2";
    SVCXPRT* second = CopyFor(call);
    SVCXPRT* third = CopyFor(Call(3));

    ASSERT_TRUE(Reply(first, 0));
    RpcReply reply = connection_.client.Expect();
    EXPECT_EQ(reply.verifierFlavor, 77);
    EXPECT_EQ(reply.verifier, "verifier of 1");
    ASSERT_TRUE(Reply(second, 0));
    reply = connection_.client.Expect();
    EXPECT_EQ(reply.verifierFlavor, 88);
    EXPECT_EQ(reply.verifier, "another verifier, of 2");
    ASSERT_TRUE(Reply(third, 0));
    reply = connection_.client.Expect();
    EXPECT_EQ(reply.verifierFlavor, AUTH_NONE);
    EXPECT_EQ(reply.verifier, "");
}

TEST_F(Transport, VerifierOf400BytesIsCopiedNotPointedTo) {
    RpcCall call = Call(1).WithUnix();
    call.verifierFlavor = AUTH_UNIX;
    call.verifier.resize(MAX_AUTH_BYTES);
    std::iota(call.verifier.begin(), call.verifier.end(), '\0');
    SVCXPRT* copy = CopyFor(call);
    EXPECT_EQ(copy->xp_verf.oa_base, RecordOf(copy)->verf_body);
    EXPECT_EQ(copy->xp_verf.oa_length, 400u);
    ASSERT_TRUE(Reply(copy, 0));
    EXPECT_EQ(connection_.client.Expect().verifier, call.verifier);
}

TEST_F(Transport, ALongVerifierIsGoneFromACopyThatIsArmedAnew) {
    RpcCall call = Call(1).WithUnix();
    call.verifierFlavor = 9;
    call.verifier.assign(400, 'v');
    SVCXPRT* copy = CopyFor(call);
    ParkSVCXPRT(copy);
    ASSERT_TRUE(Rearm(copy, connection_, Call(2)));
    ASSERT_TRUE(Reply(copy, 0));
    const RpcReply reply = connection_.client.Expect();
    EXPECT_EQ(reply.verifierFlavor, AUTH_NONE);
    EXPECT_EQ(reply.verifier, "");
}

TEST_F(Transport, CopyHasAnExtensionRecordOfItsOwn) {
    SVCXPRT* copy = CopyFor(Call(1).WithUnix());
    ASSERT_NE(copy->xp_p3, nullptr);
    EXPECT_NE(copy->xp_p3, connection_.transport->xp_p3);
    EXPECT_EQ(SVCEXT(copy)->xp_auth.svc_ah_ops, SVCEXT(connection_.transport)->xp_auth.svc_ah_ops);
}

TEST_F(Transport, CopyTakesSocketPeerAndOperationsAndNothingElse) {
    SVCXPRT* source = connection_.transport;
    SVCXPRT* copy = CopyFor(Call(1));
    EXPECT_EQ(copy->xp_fd, source->xp_fd);
    EXPECT_EQ(copy->xp_port, source->xp_port);
    EXPECT_EQ(copy->xp_ops, source->xp_ops);
    EXPECT_EQ(copy->xp_addrlen, source->xp_addrlen);
    EXPECT_EQ(memcmp(&copy->xp_raddr, &source->xp_raddr, sizeof copy->xp_raddr), 0);
    EXPECT_EQ(copy->xp_ops2, nullptr);
    EXPECT_EQ(copy->xp_tp, nullptr);
    EXPECT_EQ(copy->xp_netid, nullptr);
    EXPECT_EQ(copy->xp_ltaddr.buf, nullptr);
    EXPECT_EQ(copy->xp_rtaddr.buf, nullptr);
    EXPECT_EQ(copy->xp_type, 0);
    ASSERT_NE(copy->xp_p1, nullptr);
    EXPECT_NE(copy->xp_p1, source->xp_p1);
    EXPECT_EQ(RecordOf(copy)->x_id, 1u);
}

TEST_F(Transport, NullSourceGivesNull) {
    EXPECT_EQ(DupSVCXPRT(nullptr), nullptr);
    EXPECT_EQ(DupTcpCon(nullptr, connection_.transport), nullptr);
    SVCXPRT withoutRecord{};
    EXPECT_EQ(DupSVCXPRT(&withoutRecord), nullptr);
    FreeSVCXPRT(nullptr);
    FreeTcpCon(nullptr);
    ParkSVCXPRT(nullptr);
}

TEST_F(Transport, RearmingKeepsTheStream) {
    SVCXPRT* copy = CopyFor(Call(1));
    void* record = copy->xp_p1;
    void* stream = RecordOf(copy)->xdrs.x_private;
    for (uint32_t xid = 2; xid < 6; ++xid) {
        ASSERT_TRUE(Reply(copy, xid));
        ParkSVCXPRT(copy);
        EXPECT_EQ(copy->xp_fd, -1);
        ASSERT_TRUE(Rearm(copy, connection_, Call(xid)));
        EXPECT_EQ(copy->xp_p1, record);
        EXPECT_EQ(RecordOf(copy)->xdrs.x_private, stream);
        EXPECT_EQ(RecordOf(copy)->x_id, xid);
        EXPECT_EQ(connection_.client.Expect().xid, xid - 1);
    }
}

TEST_F(Transport, ArmingFillsACopyThatTheCallerSupplied) {
    SVCXPRT* copy = CopyFor(Call(1));
    FreeTcpCon(RecordOf(copy));
    copy->xp_p1 = nullptr;
    if (Connection* guard = Connection::Of(copy)) guard->Drop();
    copy->xp_p2 = nullptr;
    ASSERT_TRUE(Rearm(copy, connection_, Call(2)));
    ASSERT_NE(copy->xp_p1, nullptr);
    ASSERT_TRUE(Reply(copy, 5));
    EXPECT_EQ(connection_.client.Expect().xid, 2u);
}

TEST_F(Transport, FailedWriteMarksTheCopyDeadAndNotTheConnection) {
    SVCXPRT* copy = CopyFor(Call(1));
    ASSERT_EQ(shutdown(connection_.fd, SHUT_WR), 0);
    errno = 0;
    EXPECT_FALSE(Reply(copy, 1));
    EXPECT_EQ(errno, EPIPE);
    EXPECT_EQ(RecordOf(copy)->strm_stat, XPRT_DIED);
    EXPECT_NE(RecordOf(connection_.transport)->strm_stat, XPRT_DIED);
}

TEST_F(Transport, ReplyToAPeerThatHasClosedFailsAndTheCopyCanBeFreed) {
    SVCXPRT* copy = CopyFor(Call(1));
    connection_.client.Reset();
    EXPECT_FALSE(Reply(copy, 1));
    EXPECT_EQ(RecordOf(copy)->strm_stat, XPRT_DIED);
    connection_.Serve();  // the library finds the reset
    EXPECT_FALSE(IsServed(connection_));
    EXPECT_TRUE(IsOpen(connection_.fd));
    FreeSVCXPRT(copy);
    copies_.clear();
    EXPECT_FALSE(IsOpen(connection_.fd));
}

TEST_F(Transport, NothingOfAFailedReplyGoesOutAheadOfTheNext) {
    SVCXPRT* copy = CopyFor(Call(1));
    ASSERT_EQ(shutdown(connection_.fd, SHUT_WR), 0);
    ASSERT_FALSE(Reply(copy, 1));
    ParkSVCXPRT(copy);
    EXPECT_EQ(copy->xp_p1, nullptr) << "the stream with the old bytes is gone";

    ServedConnection other;
    ASSERT_TRUE(Rearm(copy, other, Call(2)));
    EXPECT_EQ(RecordOf(copy)->strm_stat, XPRT_IDLE);
    ASSERT_TRUE(Reply(copy, 222));
    const RpcReply reply = other.client.Expect();
    EXPECT_EQ(reply.xid, 2u);
    EXPECT_EQ(reply.results, oxel::test::Word(222));
    EXPECT_TRUE(other.client.Silent());
    ParkSVCXPRT(copy);
    other.End();
}

TEST_F(Transport, ReplyBeyondTheSendBufferGoesOutInFragments) {
    const uint32_t before = gMaxRPCSendSize;
    gMaxRPCSendSize = 4096;
    SVCXPRT* copy = CopyFor(Call(1));
    gMaxRPCSendSize = before;
    Bytes bytes{20000, 'x'};
    ASSERT_TRUE(svc_sendreply(copy, kXdrFill, &bytes));
    const RpcReply reply = connection_.client.Expect();
    EXPECT_GT(reply.fragments, 1u);
    EXPECT_EQ(reply.results, oxel::test::Word(20000) + std::string(20000, 'x'));
}

TEST_F(Transport, ReplyUpToTheSendBufferIsOneFragment) {
    SVCXPRT* copy = CopyFor(Call(1));
    Bytes bytes{256 << 10, 'y'};
    std::thread sender([&] { EXPECT_TRUE(svc_sendreply(copy, kXdrFill, &bytes)); });
    const RpcReply reply = connection_.client.Expect();
    sender.join();
    EXPECT_EQ(reply.fragments, 1u);
    EXPECT_EQ(reply.results.size(), 4u + (256 << 10));
}

TEST_F(Transport, WriterWritesEverythingOrMarksTheStreamDead) {
    SVCXPRT* copy = CopyFor(Call(1));
    char bytes[] = "abcdefgh";
    EXPECT_EQ(mywritetcp(copy, bytes, 8), 8);
    EXPECT_EQ(mywritetcp(copy, bytes, 0), 0);
    char got[8];
    ASSERT_EQ(recv(connection_.client.fd(), got, sizeof got, MSG_WAITALL), 8);
    EXPECT_EQ(memcmp(got, bytes, 8), 0);
    ASSERT_EQ(shutdown(connection_.fd, SHUT_WR), 0);
    EXPECT_EQ(mywritetcp(copy, bytes, 8), -1);
    EXPECT_EQ(RecordOf(copy)->strm_stat, XPRT_DIED);
}

TEST_F(Transport, ParkLetsGoOfTheConnection) {
    SVCXPRT* copy = CopyFor(Call(1));
    connection_.End();
    EXPECT_EQ(Connection::Count(), 1u);
    EXPECT_TRUE(IsOpen(connection_.fd));
    ParkSVCXPRT(copy);
    EXPECT_EQ(Connection::Count(), 0u);
    EXPECT_FALSE(IsOpen(connection_.fd));
    ParkSVCXPRT(copy);  // parked already: nothing more to let go of
    EXPECT_EQ(Connection::Count(), 0u);
}

TEST_F(Transport, FreeLetsGoOfTheConnection) {
    SVCXPRT* copy = CopyFor(Call(1));
    connection_.End();
    EXPECT_EQ(Connection::Count(), 1u);
    FreeSVCXPRT(copy);
    copies_.clear();
    EXPECT_EQ(Connection::Count(), 0u);
    EXPECT_FALSE(IsOpen(connection_.fd));
}

TEST_F(Transport, FreeOfACopyNeitherClosesNorUnregistersALivingConnection) {
    SVCXPRT* copy = CopyFor(Call(1));
    FreeSVCXPRT(copy);
    copies_.clear();
    EXPECT_TRUE(IsOpen(connection_.fd));
    EXPECT_TRUE(IsServed(connection_));
    SVCXPRT* next = CopyFor(Call(2));
    ASSERT_TRUE(Reply(next, 2));
    EXPECT_EQ(connection_.client.Expect().xid, 2u);
}

// The limit on memory is the sanitizers' own business.
#if !OXEL_TEST_SANITIZED
TEST_IN_CHILD(TransportMemory, WithoutMemoryForAStreamThereIsNoCopyAndLaterThereIsOne) {
    ServedConnection connection;
    ASSERT_TRUE(svc_reg(connection.transport, kProgram, 1, Dispatch, nullptr));
    const uint32_t before = gMaxRPCSendSize;
    SVCXPRT* copy = connection.transport;
    SVCXPRT* parked = nullptr;
    bool armed = true;
    OnCall() = [&](svc_req*, SVCXPRT* transport) { parked = DupSVCXPRT(transport); };
    connection.client.Send(Call(1));
    connection.Serve();
    ASSERT_NE(parked, nullptr);
    FreeTcpCon(RecordOf(parked));
    parked->xp_p1 = nullptr;
    ParkSVCXPRT(parked);

    rlimit limit;
    ASSERT_EQ(getrlimit(RLIMIT_AS, &limit), 0);
    const rlimit little{512u << 20, limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_AS, &little), 0);
    gMaxRPCSendSize = 1u << 30;
    OnCall() = [&](svc_req*, SVCXPRT* transport) {
        copy = DupSVCXPRT(transport);
        armed = DupSVCXPRT(transport, parked);
    };
    connection.client.Send(Call(2));
    connection.Serve();
    EXPECT_EQ(copy, nullptr);
    EXPECT_FALSE(armed);
    EXPECT_EQ(parked->xp_p2, nullptr) << "it holds no connection";

    gMaxRPCSendSize = before;
    OnCall() = [&](svc_req*, SVCXPRT* transport) { armed = DupSVCXPRT(transport, parked); };
    connection.client.Send(Call(3));
    connection.Serve();
    ASSERT_TRUE(armed);
    ASSERT_TRUE(Reply(parked, 3));
    EXPECT_EQ(connection.client.Expect().xid, 3u);
}
#endif

TEST(TransportLayout, TheInstalledLibraryKeepsItsConnectionsAsTheCopyExpects) {
    const fd_set before = svc_fdset;
    LogCapture log;
    EXPECT_TRUE(CheckTransportLayout());
    EXPECT_TRUE(log.Lines().empty()) << log.Dump();
    EXPECT_EQ(memcmp(&before, &svc_fdset, sizeof before), 0) << "it leaves nothing behind";
}
