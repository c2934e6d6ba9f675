// SPDX-License-Identifier: Apache-2.0
//
// The guard of an accepted connection: it outlives the client until the last call has let go, late
// replies reach nobody, and the replies of one connection never mix. And accepting when there are
// too many descriptors.
#include "bin/oxelService_connection.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/select.h>

#include <csignal>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "backend/FdCache.h"
#include "bin/oxelService_select.h"
#include "bin/oxelService_transport.h"
#include "private_root.h"
#include "rpc_wire.h"
#include "tests/support/log_capture.h"

using oxel::UniqueFd;
using oxel::test::IsOpen;
using oxel::test::LogCapture;
using oxel::test::RpcCall;
using oxel::test::RpcClient;
using oxel::test::RpcReply;
using oxel::test::ServedConnection;
using oxel::test::Word;

namespace {

constexpr uint32_t kProgram = 0x20000002;

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

struct Bytes {
    uint32_t count;
    char fill;
};
bool_t xdr_Fill(XDR* xdrs, Bytes* bytes) {
    std::string data(bytes->count, bytes->fill);
    return xdr_u_int(xdrs, &bytes->count) && xdr_opaque(xdrs, data.data(), bytes->count);
}
bool_t SendFill(SVCXPRT* transport, uint32_t count, char fill) {
    Bytes bytes{count, fill};
    return svc_sendreply(transport, reinterpret_cast<xdrproc_t>(xdr_Fill), &bytes);
}
// Whether the reply's payload is what SendFill sent.
bool IsFill(const RpcReply& reply, uint32_t count, char fill) {
    return reply.results == Word(count) + std::string(count, fill);
}

class ConnectionGuard : public testing::Test {
  protected:
    void SetUp() override {
        signal(SIGPIPE, SIG_IGN);
        ASSERT_EQ(Connection::Count(), 0u);
    }
    void TearDown() override { EXPECT_EQ(Connection::Count(), 0u); }

    static SVCXPRT* CopyFor(ServedConnection& connection, uint32_t xid) {
        EXPECT_TRUE(svc_reg(connection.transport, kProgram, 1, Dispatch, nullptr));
        SVCXPRT* copy = nullptr;
        OnCall() = [&](svc_req*, SVCXPRT* transport) { copy = DupSVCXPRT(transport); };
        connection.client.Send(Call(xid));
        connection.Serve();
        EXPECT_NE(copy, nullptr);
        return copy;
    }
};

// A guarded listening transport on loopback, served by hand.
class ListeningTransport {
  public:
    ListeningTransport() : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
        address_.sin_family = AF_INET;
        address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address_;
        EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr*>(&address_), length), 0);
        EXPECT_EQ(listen(fd_, 100), 0);
        EXPECT_EQ(getsockname(fd_, reinterpret_cast<sockaddr*>(&address_), &length), 0);
        transport_ = svc_tli_create(fd_, nullptr, nullptr, gMaxRPCSendSize, gMaxRPCRecvSize);
        EXPECT_NE(transport_, nullptr);
        GuardListener(transport_);
        EXPECT_TRUE(svc_reg(transport_, kProgram, 1, Dispatch, nullptr));
    }
    ~ListeningTransport() {
        UnguardListener(transport_);
        SVC_DESTROY(transport_);
    }

    // Connects a socket that exists already.
    void Connect(int client) const {
        ASSERT_EQ(connect(client, reinterpret_cast<const sockaddr*>(&address_), sizeof address_), 0)
            << strerror(errno);
    }
    RpcClient Connect() const {
        UniqueFd client(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        Connect(client.Get());
        return RpcClient(std::move(client));
    }
    void Serve() const { svc_getreq_common(fd_); }
    // Whether select() would come back for it at once.
    bool HasWork() const {
        pollfd readable{fd_, POLLIN, 0};
        return poll(&readable, 1, 0) == 1;
    }
    int fd() const { return fd_; }

  private:
    int fd_;  // the transport's
    sockaddr_in address_{};
    SVCXPRT* transport_;
};

// The descriptors that the library serves, but for `listener`.
std::vector<int> ServedDescriptors(int listener) {
    std::vector<int> served;
    for (int fd = 0; fd < FD_SETSIZE; ++fd)
        if (fd != listener && FD_ISSET(fd, &svc_fdset)) served.push_back(fd);
    return served;
}

// Ends the connections that the library still serves; their clients are gone.
void ServeAll(int listener) {
    for (const int fd : ServedDescriptors(listener)) svc_getreq_common(fd);
}

void LimitDescriptors(rlim_t most) {
    rlimit limit;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    limit.rlim_cur = most;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0) << strerror(errno);
}

}  // namespace

TEST_F(ConnectionGuard, ClosedByItsClientItIsKeptUntilTheLastCallLetsGo) {
    ServedConnection connection;
    SVCXPRT* first = CopyFor(connection, 1);
    SVCXPRT* second = CopyFor(connection, 2);
    connection.End();
    EXPECT_FALSE(FD_ISSET(connection.fd, &svc_fdset)) << "the receive loop is through with it";
    EXPECT_TRUE(IsOpen(connection.fd));
    EXPECT_EQ(Connection::Count(), 1u);
    FreeSVCXPRT(first);
    EXPECT_TRUE(IsOpen(connection.fd));
    FreeSVCXPRT(second);
    EXPECT_FALSE(IsOpen(connection.fd));
    EXPECT_EQ(Connection::Count(), 0u);
}

TEST_F(ConnectionGuard, WithoutCallsItGoesWithItsClient) {
    ServedConnection connection;
    EXPECT_EQ(Connection::Count(), 1u);
    connection.End();
    EXPECT_FALSE(IsOpen(connection.fd));
    EXPECT_EQ(Connection::Count(), 0u);
}

TEST_F(ConnectionGuard, LateReplyFailsWithEpipe) {
    ServedConnection connection;
    SVCXPRT* copy = CopyFor(connection, 1);
    connection.End();
    errno = 0;
    EXPECT_FALSE(SendFill(copy, 100, 'a'));
    EXPECT_EQ(errno, EPIPE);
    FreeSVCXPRT(copy);
}

TEST_F(ConnectionGuard, LateReplyReachesNoOtherOwnerOfADescriptorNumber) {
    ServedConnection connection;
    SVCXPRT* copy = CopyFor(connection, 1);
    connection.End();
    // Whoever opens something now gets the lowest numbers that are free.
    std::vector<std::pair<UniqueFd, UniqueFd>> others;
    for (int i = 0; i < 8; ++i) {
        others.push_back(oxel::test::TcpPair());
        EXPECT_NE(others.back().first.Get(), connection.fd);
        EXPECT_NE(others.back().second.Get(), connection.fd);
    }
    EXPECT_FALSE(SendFill(copy, 100, 'a'));
    FreeSVCXPRT(copy);
    // Now the number may be had.
    others.push_back(oxel::test::TcpPair());
    for (auto& [client, server] : others) {
        char byte;
        EXPECT_EQ(recv(client.Get(), &byte, 1, MSG_DONTWAIT), -1);
        EXPECT_EQ(recv(server.Get(), &byte, 1, MSG_DONTWAIT), -1);
    }
}

TEST_F(ConnectionGuard, LateReplyDoesNotReadWhatTheLibraryFreed) {
    // The sanitizers see it if it does: many connections come and go between call and reply.
    ServedConnection connection;
    RpcCall call = Call(1).WithUnix();
    call.verifier = "a verifier";
    ASSERT_TRUE(svc_reg(connection.transport, kProgram, 1, Dispatch, nullptr));
    SVCXPRT* copy = nullptr;
    OnCall() = [&](svc_req*, SVCXPRT* transport) { copy = DupSVCXPRT(transport); };
    connection.client.Send(call);
    connection.Serve();
    ASSERT_NE(copy, nullptr);
    connection.End();
    for (int i = 0; i < 10; ++i) ServedConnection().End();
    EXPECT_FALSE(SendFill(copy, 100, 'a'));
    svcerr_systemerr(copy);
    ParkSVCXPRT(copy);
    FreeSVCXPRT(copy);
}

TEST_F(ConnectionGuard, AnEndedConnectionWakesASenderThatWaitsForItsClient) {
    ServedConnection connection;
    SVCXPRT* copy = CopyFor(connection, 1);
    std::thread sender([&] {
        // Far more than the sockets hold, and the client reads no more than the first word.
        EXPECT_FALSE(SendFill(copy, 64 << 20, 'w'));
    });
    char word[4];
    ASSERT_EQ(recv(connection.client.fd(), word, sizeof word, MSG_WAITALL), 4);
    SVC_DESTROY(connection.transport);
    sender.join();
    FreeSVCXPRT(copy);
    EXPECT_FALSE(IsOpen(connection.fd));
}

TEST_F(ConnectionGuard, RepliesOfTwoThreadsOnOneConnectionNeverMix) {
    constexpr int kRepliesEach = 12;
    constexpr uint32_t kBytes = 1500000;  // three fragments
    ServedConnection connection;
    std::vector<SVCXPRT*> copies = {CopyFor(connection, 1), CopyFor(connection, 2)};
    std::vector<std::thread> senders;
    for (SVCXPRT* copy : copies) {
        const char fill = copy == copies[0] ? '1' : '2';
        senders.emplace_back([copy, fill] {
            for (int i = 0; i < kRepliesEach; ++i) EXPECT_TRUE(SendFill(copy, kBytes, fill));
        });
    }
    std::map<uint32_t, int> counts;
    bool whole = true;
    for (int i = 0; i < 2 * kRepliesEach && whole; ++i) {
        const RpcReply reply = connection.client.Expect();
        whole = reply.xid == 1 || reply.xid == 2;
        whole = whole && IsFill(reply, kBytes, reply.xid == 1 ? '1' : '2');
        EXPECT_TRUE(whole) << "reply " << i;
        ++counts[reply.xid];
    }
    if (!whole) connection.client.Close();  // the senders must not wait for ever
    for (std::thread& sender : senders) sender.join();
    EXPECT_EQ(counts[1], kRepliesEach);
    EXPECT_EQ(counts[2], kRepliesEach);
    for (SVCXPRT* copy : copies) FreeSVCXPRT(copy);
    connection.End();
}

TEST_F(ConnectionGuard, TheLibrarysOwnErrorRepliesDoNotMixWithASendersReply) {
    constexpr int kErrors = 200;
    constexpr uint32_t kBytes = 32 << 20;  // it is under way for as long as there are errors
    ServedConnection connection;
    SVCXPRT* copy = CopyFor(connection, 1);
    std::string calls;
    RpcCall unknown = Call(1000);
    unknown.program = kProgram + 1;
    for (int i = 0; i < kErrors; ++i, ++unknown.xid) calls += unknown.Bytes();
    connection.client.Send(calls);

    std::thread sender([copy] { EXPECT_TRUE(SendFill(copy, kBytes, 's')); });
    char first;
    ASSERT_EQ(recv(connection.client.fd(), &first, 1, MSG_PEEK), 1);
    std::map<uint32_t, int> counts;
    std::thread reader([&] {
        for (int i = 0; i < 1 + kErrors; ++i) {
            const std::optional<RpcReply> reply = connection.client.Receive();
            const bool whole = reply && (reply->xid == 1 ? IsFill(*reply, kBytes, 's')
                                                         : reply->accept == PROG_UNAVAIL &&
                                                               reply->results.empty());
            EXPECT_TRUE(whole) << "reply " << i;
            if (!whole) return connection.client.Close();
            ++counts[reply->xid == 1 ? 1 : 2];
        }
    });
    connection.Serve();  // reads all of them: the library goes on while there are more
    sender.join();
    reader.join();
    EXPECT_EQ(counts[1], 1);
    EXPECT_EQ(counts[2], kErrors);
    FreeSVCXPRT(copy);
    if (FD_ISSET(connection.fd, &svc_fdset)) connection.End();
}

TEST_F(ConnectionGuard, ManyConnectionsEndedInAnyOrderLeaveNothingBehind) {
    std::vector<std::unique_ptr<ServedConnection>> connections;
    std::vector<SVCXPRT*> copies;
    for (uint32_t i = 0; i < 20; ++i) {
        connections.push_back(std::make_unique<ServedConnection>());
        copies.push_back(CopyFor(*connections.back(), i));
    }
    EXPECT_EQ(Connection::Count(), 20u);
    for (size_t i = 0; i < connections.size(); i += 2) connections[i]->End();
    for (size_t i = 1; i < copies.size(); i += 2) FreeSVCXPRT(copies[i]);
    EXPECT_EQ(Connection::Count(), 20u);
    for (size_t i = 0; i < copies.size(); i += 2) FreeSVCXPRT(copies[i]);
    EXPECT_EQ(Connection::Count(), 10u);
    for (size_t i = 1; i < connections.size(); i += 2) connections[i]->End();
    EXPECT_EQ(Connection::Count(), 0u);
    for (const auto& connection : connections) EXPECT_FALSE(IsOpen(connection->fd));
}

TEST_F(ConnectionGuard, LastCallMayEndOnAnotherThreadWhileNewClientsCome) {
    ListeningTransport listener;
    std::vector<RpcClient> clients;
    for (int round = 0; round < 20; ++round) {
        ServedConnection connection;
        SVCXPRT* copy = CopyFor(connection, 1);
        connection.End();
        std::thread last([copy] { FreeSVCXPRT(copy); });
        clients.push_back(listener.Connect());
        listener.Serve();
        last.join();
    }
    EXPECT_EQ(Connection::Count(), 20u);
    clients.clear();
    ServeAll(listener.fd());
}

TEST_F(ConnectionGuard, ListenerGuardsWhatItAccepts) {
    ListeningTransport listener;
    RpcClient client = listener.Connect();
    listener.Serve();
    EXPECT_EQ(Connection::Count(), 1u);
    const std::vector<int> served = ServedDescriptors(listener.fd());
    ASSERT_EQ(served.size(), 1u);
    bool guarded = false;
    OnCall() = [&](svc_req*, SVCXPRT* transport) {
        guarded = Connection::Of(transport) != nullptr;
        EXPECT_TRUE(SendFill(transport, 0, ' '));
    };
    client.Send(Call(5));
    svc_getreq_common(served[0]);
    EXPECT_TRUE(guarded);
    EXPECT_EQ(client.Expect().xid, 5u);

    int on = 0;
    socklen_t length = sizeof on;
    ASSERT_EQ(getsockopt(served[0], IPPROTO_TCP, TCP_NODELAY, &on, &length), 0);
    EXPECT_NE(on, 0) << "replies are not to wait for each other";
    EXPECT_NE(fcntl(served[0], F_GETFD) & FD_CLOEXEC, 0);
    client.Close();
    ServeAll(listener.fd());
}

TEST_F(ConnectionGuard, ListenerAcceptsAllWhoWait) {
    ListeningTransport listener;
    std::vector<RpcClient> clients;
    for (int i = 0; i < 30; ++i) clients.push_back(listener.Connect());
    listener.Serve();
    EXPECT_EQ(Connection::Count(), 30u);
    EXPECT_FALSE(listener.HasWork());
    listener.Serve();  // nobody waits: it returns
    clients.clear();
    ServeAll(listener.fd());
}

TEST_F(ConnectionGuard, ClientThatResetBeforeItWasAcceptedLeavesNothing) {
    ListeningTransport listener;
    testing::internal::CaptureStderr();
    for (int i = 0; i < 5; ++i) listener.Connect().Reset();
    RpcClient patient = listener.Connect();
    listener.Serve();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(ServedDescriptors(listener.fd()).size(), 1u);
    EXPECT_EQ(Connection::Count(), 1u);
    patient.Close();
    ServeAll(listener.fd());
}

TEST_F(ConnectionGuard, ClientThatResetAfterItWasAcceptedLeavesNothing) {
    ListeningTransport listener;
    RpcClient client = listener.Connect();
    listener.Serve();
    client.Reset();
    ServeAll(listener.fd());
    EXPECT_TRUE(ServedDescriptors(listener.fd()).empty());
}

TEST_IN_CHILD(ConnectionLimits, DescriptorsFrom1024OnAreRefusedAndToldOnce) {
    rlimit limit;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    if (limit.rlim_max < 1100) GTEST_SKIP() << "no more than " << limit.rlim_max << " descriptors";
    LimitDescriptors(1100);
    ListeningTransport listener;
    LogCapture log;
    std::vector<UniqueFd> fill;
    do {
        fill.emplace_back(fcntl(listener.fd(), F_DUPFD_CLOEXEC, 3));
    } while (fill.back().Get() < FD_SETSIZE + 2);

    RpcClient first = listener.Connect(), second = listener.Connect();
    const int number = second.fd() + 1;  // the lowest that is free
    listener.Serve();
    EXPECT_TRUE(first.AtEnd());
    EXPECT_TRUE(second.AtEnd());
    EXPECT_FALSE(listener.HasWork());
    EXPECT_EQ(Connection::Count(), 0u);
    const std::vector<oxel::test::LogLine> errors = log.AtLevel(-1);
    ASSERT_EQ(errors.size(), 1u) << log.Dump();
    EXPECT_EQ(errors[0].text, "Error: Refused a connection: descriptor [" + std::to_string(number) +
                                  "] is beyond what the receive loop can watch (1024).");

    fill.erase(fill.begin(), fill.begin() + 4);
    RpcClient third = listener.Connect();
    listener.Serve();
    EXPECT_EQ(Connection::Count(), 1u) << "with room again clients are served again";
}

TEST_IN_CHILD(ConnectionLimits, WithoutDescriptorsClientsAreRefusedAndTheListenerComesToRest) {
    LimitDescriptors(100);
    ListeningTransport listener;
    LogCapture log;
    RpcClient first = listener.Connect(), second = listener.Connect();
    std::vector<UniqueFd> fill;
    for (;;) {
        UniqueFd one(fcntl(listener.fd(), F_DUPFD_CLOEXEC, 3));
        if (!one) break;
        fill.push_back(std::move(one));
    }
    ASSERT_EQ(errno, EMFILE);
    for (int i = 0; i < 2; ++i) {
        ASSERT_TRUE(listener.HasWork());
        listener.Serve();
    }
    EXPECT_FALSE(listener.HasWork()) << "select() would come back for ever";
    EXPECT_TRUE(first.AtEnd());
    EXPECT_TRUE(second.AtEnd());
    EXPECT_EQ(Connection::Count(), 0u);
    EXPECT_EQ(log.Count(-1,
                        "Error: No descriptor is left for a new connection. [Too many open "
                        "files]. Raise the limit."),
              1u)
        << log.Dump();

    fill.resize(fill.size() - 40);
    RpcClient third = listener.Connect();
    listener.Serve();
    EXPECT_EQ(Connection::Count(), 1u) << "with room again clients are served again";
}

// A file that cannot be opened for want of a descriptor looks to its client as if it were gone.
TEST_IN_CHILD(ConnectionLimits, TheLastDescriptorsAreLeftToFiles) {
    LimitDescriptors(100);
    ListeningTransport listener;
    LogCapture log;
    std::vector<UniqueFd> fill;
    do {
        fill.emplace_back(fcntl(listener.fd(), F_DUPFD_CLOEXEC, 3));
    } while (fill.back().Get() < 73);
    RpcClient first = listener.Connect();  // is 74
    listener.Serve();
    EXPECT_TRUE(first.AtEnd());
    EXPECT_EQ(Connection::Count(), 0u);
    EXPECT_EQ(log.AtLevel(-1).size(), 1u) << log.Dump();
    fill.resize(fill.size() - 2);
    RpcClient second = listener.Connect();
    listener.Serve();
    EXPECT_EQ(Connection::Count(), 1u);
}

TEST_IN_CHILD(ConnectionLimits, CachedDescriptorsGiveWayToAConnection) {
    LimitDescriptors(100);
    ListeningTransport listener;
    gFdCache.Init(100);
    int last = 0;
    for (unsigned i = 0; last < 80; ++i) {
        UniqueFd file(open("/dev/null", O_RDONLY | O_CLOEXEC));
        ASSERT_TRUE(file);
        last = gFdCache.Add(CacheKey{1, i, 0, O_RDONLY, 0, 0, {}}, std::move(file));
        ASSERT_TRUE(gFdCache.Release(last));
    }
    RpcClient client = listener.Connect();
    listener.Serve();
    EXPECT_EQ(Connection::Count(), 1u);
    EXPECT_EQ(gFdCache.Count(), 0u);
    ASSERT_EQ(ServedDescriptors(listener.fd()).size(), 1u);
    EXPECT_LT(ServedDescriptors(listener.fd())[0], 75);
}

TEST_IN_CHILD(ConnectionLimits, AReserveThatWasLostIsTakenAgain) {
    LimitDescriptors(100);
    ListeningTransport listener;
    LogCapture log;
    RpcClient first = listener.Connect();
    std::vector<UniqueFd> fill;
    for (;;) {
        UniqueFd one(fcntl(listener.fd(), F_DUPFD_CLOEXEC, 3));
        if (!one) break;
        fill.push_back(std::move(one));
    }
    // The limit falls below what is open: not even the number that is given up can be had again.
    LimitDescriptors(3);
    listener.Serve();
    EXPECT_EQ(Connection::Count(), 0u);
    EXPECT_TRUE(listener.HasWork()) << "it could not even be refused";
    LimitDescriptors(100);
    fill.resize(fill.size() - 40);
    listener.Serve();  // accepts the first, and has its reserve again
    EXPECT_EQ(Connection::Count(), 1u);
    RpcClient second = listener.Connect();
    for (;;) {
        UniqueFd one(fcntl(listener.fd(), F_DUPFD_CLOEXEC, 3));
        if (!one) break;
        fill.push_back(std::move(one));
    }
    listener.Serve();
    EXPECT_FALSE(listener.HasWork());
    EXPECT_TRUE(second.AtEnd());
    EXPECT_EQ(Connection::Count(), 1u);
}
