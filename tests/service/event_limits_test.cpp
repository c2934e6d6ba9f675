// SPDX-License-Identifier: Apache-2.0
//
// What hardened mode bounds: connections, records, time and memory. The clock is the test's.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "bin/oxelService_replies.h"
#include "event_services.h"
#include "loop_clock.h"

using oxel::UniqueFd;
using oxel::test::Eventually;
using oxel::test::Gate;
using oxel::test::HardenedServices;
using oxel::test::LogCapture;
using oxel::test::MockShare;
using oxel::test::NfsService;
using oxel::test::RpcCall;
using oxel::test::RpcClient;
using oxel::test::Word;

namespace {

constexpr uint32_t kLast = 0x80000000u;

// A NULL call of so many bytes, all told but the mark: nobody looks at what is behind its header.
std::string LongNull(size_t bytes, uint32_t xid = 1) {
    const std::string header = NfsService::Null(xid).Bytes().substr(4);
    return header + std::string(bytes - header.size(), 'x');
}
std::string Record(const std::string& body) {
    return Word(kLast | static_cast<uint32_t>(body.size())) + body;
}

// The services, and a client that is served all the time.
class Bounded {
  public:
    explicit Bounded(const std::string& settings = "")
        : services_(settings), other_(services_.Connect()) {
        Settle();
    }
    // Returns when the loop has done what came until now, and has looked at its clock.
    void Settle() {
        for (int i = 0; i < 4; ++i) EXPECT_TRUE(HardenedServices::Answers(other_));
    }
    void Pass(time_t seconds) {
        oxel::test::Pass(seconds);
        Settle();
    }
    // A client in the middle of a record, whose first bytes are `begun`.
    RpcClient InARecord(const std::string& begun) {
        RpcClient client = HardenedServices::Connect();
        client.Send(NfsService::Null(9).Bytes() + begun);
        EXPECT_EQ(client.Expect().xid, 9u);
        Settle();
        return client;
    }
    static uint64_t Ended(EndReason reason) { return HardenedServices::Ended(reason); }

  private:
    HardenedServices services_;
    RpcClient other_;
};

// From another address of this host.
RpcClient ConnectFrom(const char* address) {
    UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in end{};
    end.sin_family = AF_INET;
    EXPECT_EQ(inet_pton(AF_INET, address, &end.sin_addr), 1);
    EXPECT_EQ(bind(fd.Get(), reinterpret_cast<sockaddr*>(&end), sizeof end), 0);
    end.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    end.sin_port = htons(OxelServiceGlobals::nfsPort);
    EXPECT_EQ(connect(fd.Get(), reinterpret_cast<sockaddr*>(&end), sizeof end), 0);
    return RpcClient(std::move(fd));
}

}  // namespace

TEST_IN_CHILD(EventLimits, ConnectionsBeyondTheirNumberAreRefused) {
    HardenedServices services("nMaxConnections = 3\n");
    LogCapture log(0);
    std::vector<RpcClient> clients;
    for (int i = 0; i < 3; ++i) {
        clients.push_back(services.Connect());
        EXPECT_TRUE(services.Answers(clients.back()));
    }
    for (int i = 0; i < 5; ++i) EXPECT_TRUE(services.Connect().AtEnd());
    EXPECT_EQ(services.Ended(EndReason::kConnectionLimit), 5u);
    EXPECT_EQ(log.Count(-1, "Ended the connection of [127.0.0.1]: more than 3 connections."), 5u);
    for (RpcClient& client : clients) EXPECT_TRUE(services.Answers(client));
    clients.pop_back();
    Eventually([] { return Connection::Count() == 2; });
    EXPECT_TRUE(services.Answers());
}

TEST_IN_CHILD(EventLimits, ConnectionsOfOneAddressBeyondTheirNumberAreRefused) {
    HardenedServices services("nMaxConnectionsPerAddress = 2\n");
    for (int round = 0; round < 3; ++round) {
        RpcClient one = services.Connect(), two = services.Connect();
        EXPECT_TRUE(services.Answers(one));
        EXPECT_TRUE(services.Answers(two));
        EXPECT_TRUE(services.Connect().AtEnd());
        EXPECT_EQ(services.Ended(EndReason::kAddressLimit), uint64_t(round) + 1);
        RpcClient six = services.Connect(AF_INET6), other = ConnectFrom("127.0.0.2");
        EXPECT_TRUE(services.Answers(six));
        EXPECT_TRUE(services.Answers(other));
        one.Close();
        two.Reset();
        Eventually([] { return Connection::Count() == 2; });
    }
}

TEST_IN_CHILD(EventLimits, ARecordThatIsTooLongEndsItsConnection) {
    Bounded bounded;
    LogCapture log(0);
    RpcClient client = HardenedServices::Connect();
    client.Send(NfsService::Null(1).Bytes() + Word(0x7fffffff) + "some");
    EXPECT_EQ(client.Expect().xid, 1u);
    EXPECT_TRUE(client.AtEnd());
    EXPECT_EQ(bounded.Ended(EndReason::kRecordTooLarge), 1u);
    EXPECT_TRUE(log.Has(-1,
                        "Ended the connection of [127.0.0.1]: a record of 2147483647 bytes is more "
                        "than 270336."))
        << log.Dump();
    bounded.Settle();
}

TEST_IN_CHILD(EventLimits, ARecordOfTooManyFragmentsEndsItsConnection) {
    Bounded bounded;
    RpcClient client = HardenedServices::Connect();
    client.Send(std::string(4 * 1024, '\0'));
    EXPECT_TRUE(client.AtEnd());
    EXPECT_EQ(bounded.Ended(EndReason::kTooManyFragments), 1u);
    bounded.Settle();
}

TEST_IN_CHILD(EventLimits, TheLongestRecordIsServed) {
    HardenedServices services;
    RpcClient client = services.Connect();
    for (uint32_t xid = 1; xid <= 5; ++xid) {
        client.Send(Record(LongNull(270336, xid)));
        EXPECT_EQ(client.Expect().xid, xid);
    }
}

TEST_IN_CHILD(EventLimits, ARecordThatIsNotWholeInTimeEndsItsConnection) {
    Bounded bounded;
    const std::string call = NfsService::Null(7).Bytes();
    RpcClient stalls = bounded.InARecord(call.substr(0, 9)),
              trickles = bounded.InARecord(call.substr(0, 1)),
              ends = bounded.InARecord(call.substr(0, 40));
    bounded.Pass(1);
    for (int i = 0; i < 20; ++i) {
        bounded.Pass(2);
        trickles.Send(call.substr(1 + i, 1));
    }
    ends.Send(call.substr(40));
    EXPECT_EQ(ends.Expect().xid, 7u);
    bounded.Pass(19);
    EXPECT_EQ(bounded.Ended(EndReason::kRecordTimeout), 0u);
    bounded.Pass(1);
    EXPECT_EQ(bounded.Ended(EndReason::kRecordTimeout), 2u);
    EXPECT_TRUE(stalls.AtEnd());
    EXPECT_TRUE(trickles.AtEnd());
    EXPECT_TRUE(HardenedServices::Answers(ends));
}

TEST_IN_CHILD(EventLimits, EachRecordHasItsOwnTime) {
    Bounded bounded;
    RpcClient client = bounded.InARecord(NfsService::Null(1).Bytes().substr(0, 20));
    for (uint32_t xid = 1; xid <= 5; ++xid) {
        bounded.Pass(1);
        bounded.Pass(50);
        client.Send(NfsService::Null(xid).Bytes().substr(20) +
                    NfsService::Null(xid + 1).Bytes().substr(0, 20));
        EXPECT_EQ(client.Expect().xid, xid);
        bounded.Settle();
    }
    EXPECT_EQ(bounded.Ended(EndReason::kRecordTimeout), 0u);
}

TEST_IN_CHILD(EventLimits, AnIdleConnectionIsEnded) {
    Bounded bounded;
    RpcClient idle = HardenedServices::Connect(), silent = HardenedServices::Connect();
    EXPECT_TRUE(HardenedServices::Answers(idle));
    bounded.Settle();
    bounded.Pass(599);
    EXPECT_EQ(bounded.Ended(EndReason::kIdle), 0u);
    bounded.Pass(1);
    EXPECT_EQ(bounded.Ended(EndReason::kIdle), 2u);
    EXPECT_TRUE(idle.AtEnd());
    EXPECT_TRUE(silent.AtEnd());
}

TEST_IN_CHILD(EventLimits, AConnectionWithACallUnderWayIsNotIdle) {
    MockShare share;
    Gate gate(share);
    Bounded bounded;
    RpcClient client = HardenedServices::Connect();
    client.Send(Gate::Held(1));
    gate.WaitFor(1);
    for (int i = 0; i < 3; ++i) bounded.Pass(500);
    gate.Open();
    EXPECT_EQ(client.Expect().xid, 1u);
    HardenedServices::WaitForCalls();
    bounded.Pass(500);
    EXPECT_EQ(bounded.Ended(EndReason::kIdle), 0u) << "nor is it right after the call";
    Eventually([&] {
        bounded.Pass(100);
        return bounded.Ended(EndReason::kIdle) == 1;
    });
    EXPECT_TRUE(client.AtEnd());
}

TEST_IN_CHILD(EventLimits, AClientThatDoesNotTakeItsRepliesIsEnded) {
    MockShare share;
    ON_CALL(*share.object, Open).WillByDefault(testing::Return(1000));
    ON_CALL(*share.object, Read)
        .WillByDefault([](OxelCtxt*, int, void* buffer, uint64_t, uint32_t count) {
            memset(buffer, 'r', count);
            return static_cast<ssize_t>(count);
        });
    Bounded bounded;
    RpcClient client = HardenedServices::Connect(AF_INET, 4096);
    RpcCall read = NfsService::Getattr(1);
    read.procedure = 6;
    read.arguments += Word(0) + Word(0) + Word(262144);
    std::string calls;
    for (read.xid = 1; read.xid <= 60; ++read.xid) calls += read.Bytes();
    client.Send(calls);
    Eventually([] { return ReplyQueue::BytesBlocked() > 0; });
    HardenedServices::WaitForCalls();
    bounded.Settle();
    bounded.Pass(59);
    EXPECT_EQ(bounded.Ended(EndReason::kSendTimeout), 0u);
    bounded.Pass(1);
    EXPECT_EQ(bounded.Ended(EndReason::kSendTimeout), 1u);
    Eventually([] { return ReplyQueue::BytesBlocked() == 0; });
}

TEST_IN_CHILD(EventLimits, LargeRecordsBeyondTheMemoryWaitUntilStalledOnesAreEnded) {
    Bounded bounded("nMaxBufferedMB = 1\nnRecordSeconds = 100000\n");
    std::vector<RpcClient> stalled;
    for (int i = 0; i < 3; ++i) {
        stalled.push_back(bounded.InARecord(Word(kLast | 270000) + "b"));
        stalled.back().Send("egun");  // the rest is made room for now
        bounded.Settle();
        bounded.Pass(1);
    }
    RpcClient waits = HardenedServices::Connect();
    std::thread sends([&] { waits.Send(Record(LongNull(270000, 5))); });
    bounded.Settle();
    EXPECT_EQ(bounded.Ended(EndReason::kBufferLimit), 0u) << "small calls are served meanwhile";
    Eventually([&] {
        bounded.Pass(1);
        return bounded.Ended(EndReason::kBufferLimit) != 0;
    });
    EXPECT_EQ(waits.Expect().xid, 5u);
    sends.join();
    EXPECT_EQ(bounded.Ended(EndReason::kBufferLimit), 1u) << "no more than it takes";
    EXPECT_TRUE(stalled[0].AtEnd()) << "who has stalled longest";
    stalled[2].Send(LongNull(270000, 6).substr(5));
    stalled.clear();
    bounded.Settle();
}

// Records whose later fragments ask for more memory than there is, each holding some already.
TEST_IN_CHILD(EventLimits, RecordsThatWaitForEachOthersMemoryDoNotWaitForEver) {
    Bounded bounded("nMaxBufferedMB = 1\nnRecordSeconds = 100000\n");
    constexpr size_t kFirst = 200000, kSecond = 70000;
    const std::string call = LongNull(kFirst + kSecond);
    std::vector<RpcClient> clients;
    for (int i = 0; i < 5; ++i) {
        clients.push_back(bounded.InARecord(Word(kFirst) + call.substr(0, 1)));
        clients.back().Send(call.substr(1, kFirst - 2));
        bounded.Settle();
    }
    for (RpcClient& client : clients) {
        client.Send(call.substr(kFirst - 1, 1) + Word(kLast | kSecond) + "x");
        bounded.Settle();
    }
    for (RpcClient& client : clients) {
        client.Send(call.substr(kFirst + 1, 10));
        bounded.Settle();
    }
    RpcClient waits = HardenedServices::Connect();
    std::thread sends([&] { waits.Send(Record(LongNull(270000, 5))); });
    // One after the other is ended, until there is room.
    Eventually([&] {
        bounded.Pass(1);
        return !waits.Silent();
    });
    EXPECT_EQ(waits.Expect().xid, 5u);
    sends.join();
}

// A buffer that a large record was in takes its memory, whatever little there is in it now.
TEST_IN_CHILD(EventLimits, BuffersOfLargeRecordsCountAsLongAsTheyAreHeld) {
    Bounded bounded("nMaxBufferedMB = 1\nnRecordSeconds = 100000\n");
    std::vector<RpcClient> clients;
    for (int i = 0; i < 5; ++i) {
        clients.push_back(HardenedServices::Connect());
        for (uint32_t xid = 1; xid <= 2; ++xid) {
            clients.back().Send(Record(LongNull(200000, xid)));
            EXPECT_EQ(clients.back().Expect().xid, xid);
        }
        clients.back().Send("\x80");  // of another record
        bounded.Settle();
    }
    RpcClient waits = HardenedServices::Connect();
    std::thread sends([&] { waits.Send(Record(LongNull(270000, 5))); });
    Eventually([&] {
        bounded.Pass(1);
        return !waits.Silent();
    });
    EXPECT_EQ(waits.Expect().xid, 5u);
    sends.join();
    EXPECT_GE(bounded.Ended(EndReason::kBufferLimit), 1u);
    EXPECT_LT(bounded.Ended(EndReason::kBufferLimit), 5u) << "no more than it takes";
}

// Clients at work do not keep the memory of their large records from others.
TEST_IN_CHILD(EventLimits, BuffersOfLargeRecordsAreGivenUpWhenMemoryIsShort) {
    Bounded bounded("nMaxBufferedMB = 1\n");
    std::vector<RpcClient> clients;
    for (int i = 0; i < 5; ++i) {
        clients.push_back(HardenedServices::Connect());
        clients.back().Send(Record(LongNull(200000, 1)));
        EXPECT_EQ(clients.back().Expect().xid, 1u);
        clients.back().Send(NfsService::Null(2).Bytes().substr(0, 1));
        bounded.Settle();
    }
    RpcClient waits = HardenedServices::Connect();
    std::thread sends([&] { waits.Send(Record(LongNull(270000, 5))); });
    for (RpcClient& client : clients) {
        client.Send(NfsService::Null(2).Bytes().substr(1) + "\x80");
        EXPECT_EQ(client.Expect().xid, 2u);
    }
    EXPECT_EQ(waits.Expect().xid, 5u);
    sends.join();
    EXPECT_EQ(bounded.Ended(EndReason::kBufferLimit), 0u);
}

TEST_IN_CHILD(EventLimits, ARecordThatIsLargerThanTheMemoryIsServedAllTheSame) {
    Bounded bounded("nMaxBufferedMB = 1\nnMaxBufSize = 2048\n");
    RpcClient client = HardenedServices::Connect();
    std::thread sends([&] { client.Send(Record(LongNull(2 << 20, 5))); });
    EXPECT_EQ(client.Expect().xid, 5u);
    sends.join();
}
