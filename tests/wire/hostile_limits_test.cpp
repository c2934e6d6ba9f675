// SPDX-License-Identifier: Apache-2.0
//
// The limits of hardened mode, made small: which connection each of them ends, what is logged and
// counted, and who is not ended.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <regex>

#include "tests/wire/hostile_fixture.h"

namespace oxel::test {
namespace {

constexpr const char* kReasons[] = {
    "recordTooLarge",  "tooManyFragments", "recordTimeout", "idle",     "sendTimeout",
    "connectionLimit", "addressLimit",     "bufferLimit",   "notACall", "byClient"};
constexpr uint32_t kTooLarge = 0x7fffffffu;

class HostileLimits : public HostileTest {
  protected:
    void SetUp() override {}
    static bool IsOpen(const RpcConnection& connection) {
        char byte;
        const ssize_t got = recv(connection.Descriptor(), &byte, 1, MSG_PEEK | MSG_DONTWAIT);
        return got > 0 || (got < 0 && errno == EAGAIN);
    }
    static size_t CountOpen(const Crowd& crowd) {
        size_t open = 0;
        for (const auto& connection : crowd) open += IsOpen(*connection) ? 1 : 0;
        return open;
    }
    void ExpectNothingElseEnded(const std::string& reason) {
        for (const char* other : kReasons) {
            if (other == reason || other == std::string("byClient")) continue;
            EXPECT_EQ(Ended(other), 0u) << other;
        }
    }
};

TEST_P(HostileLimits, ARecordMustBeCompleteInTime) {
    Start("nRecordSeconds = 1\n");
    const std::string record = Record(Getattr().Message());
    uint64_t count = 0;
    // Cut in the header, before the message, in it, and between two fragments.
    for (const std::string& part :
         {record.substr(0, 2), record.substr(0, 4), record.substr(0, record.size() - 1),
          XdrWriter().U32(4).U32(1).Bytes()}) {
        RpcConnection connection(Port());
        ASSERT_TRUE(connection.Send(part));
        EXPECT_TRUE(connection.ClosedByPeer());
        ExpectEnded("recordTimeout", ++count, "a record was not complete after 1 s");
    }
    ExpectNothingElseEnded("recordTimeout");
    ExpectServing();
}

// Bytes that come one after another do not prolong it.
TEST_P(HostileLimits, ATrickledRecordMustBeCompleteInTimeToo) {
    Start("nRecordSeconds = 1\n");
    RpcConnection connection(Port());
    const std::string record = Record(WriteOfTransferSize().Message());
    size_t at = 0;
    EXPECT_TRUE(WaitUntil([&] {
        SendWhatGoes(connection, record.substr(at++, 1));
        return !IsOpen(connection);
    }));
    EXPECT_LT(at, record.size());
    ExpectEnded("recordTimeout", 1, "a record was not complete after 1 s");
}

TEST_P(HostileLimits, AnIdleConnectionIsEnded) {
    Start("nIdleSeconds = 3\n");  // long enough to connect and call on a busy machine
    RpcConnection never(Port()), once(Port());
    EXPECT_EQ(once.CallRaw(Null()), SuccessReply(1, ""));
    EXPECT_TRUE(never.ClosedByPeer());
    EXPECT_TRUE(once.ClosedByPeer());
    // The connection that the test made its calls with is idle as well.
    ExpectEnded("idle", 3, "idle for 3 s");
    ExpectNothingElseEnded("idle");
    ExpectServing();
}

TEST_P(HostileLimits, RepliesMustBeTakenInTime) {
    Start("nSendSeconds = 1\n");
    const auto greedy = ConnectWithSmallWindow();
    std::string calls;
    for (int i = 0; i < 200; ++i) calls += Record(ReadOfTransferSize().Message());
    ASSERT_TRUE(greedy->Send(calls));
    ExpectEnded("sendTimeout", 1, "replies were not taken for 1 s");
    EXPECT_TRUE(greedy->ClosedByPeer());
    ExpectNothingElseEnded("sendTimeout");
    ExpectServing();
}

TEST_P(HostileLimits, MoreConnectionsThanAllowedAreNotServed) {
    Start("nMaxConnections = 5\n");
    Crowd crowd;
    for (int i = 0; i < 4; ++i) {  // and the test's own
        crowd.push_back(Connect());
        EXPECT_TRUE(Answers(*crowd.back()));
    }
    EXPECT_TRUE(Connect()->ClosedByPeer());
    ExpectEnded("connectionLimit", 1, "more than 5 connections");
    for (const auto& connection : crowd) EXPECT_TRUE(Answers(*connection));
    EXPECT_EQ(Status()["connections"], 5);
    // Whoever leaves makes room.
    crowd.pop_back();
    EXPECT_TRUE(WaitUntil([&] { return Status()["connections"] == 4; }));
    const auto newcomer = Connect();
    EXPECT_TRUE(Answers(*newcomer));
    ExpectNothingElseEnded("connectionLimit");
}

TEST_P(HostileLimits, MoreConnectionsOfOneAddressThanAllowedAreNotServed) {
    Start("nMaxConnectionsPerAddress = 3\n");
    Crowd crowd;
    for (int i = 0; i < 2; ++i) {  // and the test's own
        crowd.push_back(Connect());
        EXPECT_TRUE(Answers(*crowd.back()));
    }
    EXPECT_TRUE(Connect()->ClosedByPeer());
    ExpectEnded("addressLimit", 1, "more than 3 connections from this address");
    // Another address has its own count.
    for (int i = 0; i < 3; ++i) {
        crowd.push_back(std::make_unique<RpcConnection>(Port(), RpcConnection::Family::kIPv6));
        EXPECT_TRUE(Answers(*crowd.back()));
    }
    RpcConnection more(Port(), RpcConnection::Family::kIPv6);
    EXPECT_TRUE(more.ClosedByPeer());
    ExpectEnded("addressLimit", 2, "more than 3 connections from this address", "::1");
    for (const auto& connection : crowd) EXPECT_TRUE(Answers(*connection));
    crowd.clear();
    EXPECT_TRUE(WaitUntil([&] { return Status()["connections"] == 1; }));
    EXPECT_TRUE(Answers(*Connect()));
    ExpectNothingElseEnded("addressLimit");
}

TEST_P(HostileLimits, PartialRecordsOfAllTogetherAreBounded) {
    Start("nMaxBufferedMB = 1\n");
    constexpr size_t kPartBytes = 200000, kClients = 20, kRoomFor = (1 << 20) / kPartBytes;
    const std::string part = Record(WriteOfTransferSize().Message()).substr(0, kPartBytes);
    Crowd crowd;
    for (size_t i = 0; i < kClients; ++i) {
        crowd.push_back(Connect());
        (void)crowd.back()->Send(part);  // whoever is ended may not have it taken
    }
    // Each that is ended makes room for one that waited, which then has its own time to go on.
    constexpr unsigned kAllTurnsMs = 6 * kSaidMs;
    EXPECT_TRUE(WaitUntil([&] { return CountOpen(crowd) <= kRoomFor; }, kAllTurnsMs))
        << CountOpen(crowd);
    EXPECT_GE(Ended("bufferLimit"), kClients - kRoomFor);
    EXPECT_TRUE(daemon_.WaitForLog(
        "Ended the connection of [127.0.0.1]: more than 1 MiB are buffered.\n", kSaidMs));
    ExpectNothingElseEnded("bufferLimit");
    ExpectServing();
}

TEST_P(HostileLimits, RepliesThatNobodyTakesAreBounded) {
    Start("nMaxBufferedMB = 1\n");
    std::string calls;
    for (int i = 0; i < 20; ++i) calls += Record(ReadOfTransferSize().Message());
    Crowd crowd;
    for (int i = 0; i < 40; ++i) {
        crowd.push_back(ConnectWithSmallWindow());
        SendWhatGoes(*crowd.back(), calls);
    }
    EXPECT_TRUE(WaitUntil([&] { return Ended("bufferLimit") > 0; }, kSaidMs));
    EXPECT_TRUE(daemon_.WaitForLog(
        "Ended the connection of [127.0.0.1]: more than 1 MiB are buffered.\n", kSaidMs));
    ExpectNothingElseEnded("bufferLimit");
    ExpectServing();
}

// A client that takes its replies gets them all, however many times the limit they are.
TEST_P(HostileLimits, RepliesThatAreTakenMayBeManyTimesTheBufferLimit) {
    Start("nMaxBufferedMB = 2\n");
    RpcConnection connection(Port());
    constexpr int kCalls = 100, kAtOnce = 4;
    std::string calls;
    for (int i = 0; i < kAtOnce; ++i) calls += Record(ReadOfTransferSize().Message());
    for (int round = 0; round < kCalls / kAtOnce; ++round) {
        ASSERT_TRUE(connection.Send(calls));
        for (int i = 0; i < kAtOnce; ++i) {
            const auto message = connection.Receive();
            ASSERT_TRUE(message) << round;
            EXPECT_EQ(ParseReply(*message).results.size(), 4u + 4 + 4 + 4 + 4 + kTransferBytes);
        }
    }
    EXPECT_EQ(Ended("bufferLimit"), 0u);
}

TEST_P(HostileLimits, EveryReasonHasItsCounter) {
    Start("");
    const nlohmann::json ended = Status()["connectionsEnded"];
    EXPECT_EQ(ended.size(), std::size(kReasons)) << ended;
    for (const char* reason : kReasons) {
        ASSERT_TRUE(ended.contains(reason)) << reason;
        EXPECT_EQ(ended[reason], 0u) << reason;
    }
}

TEST_P(HostileLimits, ClientsThatLeaveAreCountedAndNotLogged) {
    Start("");
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(Answers(*Connect()));
    const auto reset = Connect();
    EXPECT_TRUE(Answers(*reset));
    reset->Reset();
    EXPECT_TRUE(WaitUntil([&] { return Ended("byClient") == 4; }, kSaidMs)) << Ended("byClient");
    ExpectNothingElseEnded("byClient");
    EXPECT_FALSE(daemon_.LogHas("Ended the connection"));
}

// An attacker cannot fill the log: ten lines of a reason in a minute, then a number at its end.
TEST_P(HostileLimits, TenEndsAMinuteAreLoggedAndTheOthersCounted) {
    Start("");
    constexpr unsigned kEnds = 40, kLinesAMinute = 10;
    for (unsigned i = 0; i < kEnds; ++i) {
        RpcConnection connection(Port());
        ASSERT_TRUE(connection.Send(XdrWriter().U32(kTooLarge).Bytes()));
        EXPECT_TRUE(connection.ClosedByPeer());
    }
    // Another reason has lines of its own.
    RpcConnection noCall(Port());
    ASSERT_TRUE(noCall.Send(Record("call")));
    ExpectEnded("notACall", 1, "what it sent is no call");
    EXPECT_EQ(Ended("recordTooLarge"), kEnds);

    const std::regex line(
        " L-1 [^\n]*Ended the connection of \\[127\\.0\\.0\\.1\\]: a record of "
        "2147483647 bytes is more than 270336\\.\n"),
        counted("(\\d+) more connections were ended because ");
    size_t lines = 0, more = 0;
    EXPECT_TRUE(WaitUntil([&] {
        const std::string log = daemon_.Log();
        using It = std::sregex_iterator;
        lines = static_cast<size_t>(std::distance(It(log.begin(), log.end(), line), It()));
        more = 0;
        for (It it(log.begin(), log.end(), counted); it != It(); ++it) more += std::stoul((*it)[1]);
        return lines + more >= kEnds;
    })) << lines
        << " lines, " << more << " counted";
    EXPECT_EQ(lines + more, kEnds);
    // Two minutes are touched when one ends meanwhile.
    EXPECT_GE(lines, kLinesAMinute);
    EXPECT_LE(lines, 2 * kLinesAMinute);
}

INSTANTIATE_TEST_SUITE_P(Modes, HostileLimits, testing::Values(Mode::kHardened),
                         testing::PrintToStringParamName());

}  // namespace
}  // namespace oxel::test
