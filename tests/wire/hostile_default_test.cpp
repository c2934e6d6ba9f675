// SPDX-License-Identifier: Apache-2.0
//
// What the same hostile clients do to a daemon that is not hardened: one receive thread, which
// waits for the rest of a record, and replies that are written while others wait. These are the
// reasons for hardened mode; whoever runs without it must find it as it was.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <utility>

#include "tests/wire/hostile_fixture.h"

namespace oxel::test {
namespace {

constexpr uint32_t kRpcsecGss = 6;
// RFC 5531 section 9.
constexpr uint32_t kAuthError = 1, kAuthBadCredential = 1, kAuthFailed = 7,
                   kGssCredentialProblem = 13;
// An answer that comes does so much sooner, and what is not answered never is.
constexpr int kSilentMs = 500;

class HostileDefault : public HostileTest {
  protected:
    // A new client that waits for its answer: nobody is served any more. However much is under way
    // before it comes to that.
    std::unique_ptr<RpcConnection> FirstOneNotServed() {
        std::unique_ptr<RpcConnection> waiting;
        EXPECT_TRUE(WaitUntil([&] {
            waiting = Connect();
            return waiting->Send(Record(Null().Message())) && !waiting->Receive(kSilentMs);
        }));
        return waiting;
    }
    static bool AnswerComes(RpcConnection& waiting) {
        return waiting.Receive().value_or("") == SuccessReply(1, "");
    }
    // Bytes that open a record which does not end.
    std::string HalfACall() {
        const std::string record = Record(Getattr().Message());
        return record.substr(0, record.size() / 2);
    }
};

TEST_P(HostileDefault, AClientThatStopsInsideARecordHoldsEverybodyUntilItLeaves) {
    for (const std::string& part : {std::string("\x80\0", 2), HalfACall(),
                                    Record(WriteOfTransferSize().Message()).substr(0, 100000)}) {
        auto staller = Connect();
        ASSERT_TRUE(staller->Send(part));
        const auto waiting = FirstOneNotServed();
        staller.reset();
        EXPECT_TRUE(AnswerComes(*waiting)) << part.size();
    }
    ExpectServing();
}

TEST_P(HostileDefault, AClientThatTricklesHoldsEverybodyUntilItsRecordIsComplete) {
    const RpcCall call = Getattr();
    const std::string record = Record(call.Message());
    const auto trickler = Connect();
    size_t at = record.size() / 2;
    ASSERT_TRUE(trickler->Send(record.substr(0, at)));
    const auto waiting = FirstOneNotServed();
    for (; at < record.size() - 1; ++at) ASSERT_TRUE(trickler->Send(record.substr(at, 1)));
    EXPECT_TRUE(waiting->Silent(kSilentMs));
    ASSERT_TRUE(trickler->Send(record.substr(at)));
    EXPECT_TRUE(AnswerComes(*waiting));
    const auto message = trickler->Receive();
    ASSERT_TRUE(message);
    EXPECT_TRUE(ParseReply(*message).Success());
}

TEST_P(HostileDefault, ClientsThatStopInsideARecordHoldEverybodyOneAfterTheOther) {
    auto first = Connect(), second = Connect();
    ASSERT_TRUE(first->Send(HalfACall()));
    ASSERT_TRUE(second->Send(HalfACall()));
    const auto waiting = FirstOneNotServed();
    // Whichever holds the receive thread, the other takes over. Who waits already may be served in
    // between.
    first.reset();
    const auto waitingToo = FirstOneNotServed();
    second.reset();
    EXPECT_TRUE(AnswerComes(*waiting));
    EXPECT_TRUE(AnswerComes(*waitingToo));
}

TEST_P(HostileDefault, ClientsThatNeverReadTheirRepliesHoldEverybodyUntilTheyLeave) {
    Crowd crowd;
    std::string calls;
    for (int n = 0; n < 200; ++n) calls += Record(ReadOfTransferSize().Message());
    for (int i = 0; i < 3; ++i) {
        crowd.push_back(ConnectWithSmallWindow());
        SendWhatGoes(*crowd.back(), calls);
    }
    const auto waiting = FirstOneNotServed();
    for (const auto& connection : crowd) connection->Reset();
    EXPECT_TRUE(AnswerComes(*waiting));
    ExpectServing();
}

TEST_P(HostileDefault, ErrorRepliesThatNobodyReadsHoldEverybodyUntilTheClientLeaves) {
    RpcCall call;
    call.program = 100021;
    std::string calls;
    while (calls.size() < (1 << 20)) calls += Record(call.Message());
    const auto flood = ConnectWithSmallWindow();
    std::atomic<bool> over{false};
    std::thread sender([&] {
        for (size_t at = 0; !over;) {
            const size_t sent = SendWhatGoes(*flood, calls.substr(at));
            at = (at + sent) % calls.size();
            if (sent == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    const auto waiting = FirstOneNotServed();
    over = true;
    sender.join();
    flood->Reset();
    EXPECT_TRUE(AnswerComes(*waiting));
    ExpectServing();
}

// The call at its beginning is answered; then the receive thread waits for the end.
TEST_P(HostileDefault, ARecordOfTwoGibibytesIsReadAsLongAsItComes) {
    for (const uint32_t last : {0u, kLastFragmentBit}) {
        const auto connection = Connect();
        ASSERT_TRUE(
            connection->Send(XdrWriter().U32(0x7fffffffu | last).Bytes() + Null().Message()));
        EXPECT_EQ(connection->Receive().value_or(""), SuccessReply(1, ""));
        const std::string piece(65536, 'x');
        for (int i = 0; i < 160; ++i) ASSERT_TRUE(connection->Send(piece)) << i;
        const auto waiting = FirstOneNotServed();
        connection->Reset();
        EXPECT_TRUE(AnswerComes(*waiting));
    }
    ExpectServing();
}

TEST_P(HostileDefault, AnEmptyFragmentEndsItsConnection) {
    RpcConnection connection(Port());
    ASSERT_TRUE(connection.Send(XdrWriter().U32(0).Bytes() + Record(Null().Message())));
    EXPECT_TRUE(connection.ClosedByPeer());
    ExpectServing();
}

TEST_P(HostileDefault, ARecordMayComeInAnyNumberOfFragments) {
    RpcCall call = Getattr();
    call.arguments.append(20000, '\0');
    RpcConnection connection(Port());
    ASSERT_TRUE(connection.Send(Record(call.Message(), 2)));
    const auto message = connection.Receive();
    ASSERT_TRUE(message);
    EXPECT_TRUE(ParseReply(*message).Success());
}

TEST_P(HostileDefault, WhatIsNoRpcEndsItsConnection) {
    // Taken for a record of more than a gibibyte: enough of it must come to see that it is no call.
    for (const std::string& text :
         {std::string("GET / HTTP/1.0\r\n\r\n"), "GET / HTTP/1.1\r\nA: " + std::string(8000, 'a'),
          std::string("\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03", 11) +
              std::string(506, 'r')}) {
        RpcConnection connection(Port());
        ASSERT_TRUE(connection.Send(text));
        EXPECT_TRUE(connection.ClosedByPeer());
    }
    ExpectServing();
}

TEST_P(HostileDefault, ATextTooShortToBeSeenThroughHoldsEverybodyUntilItsSenderLeaves) {
    auto connection = Connect();
    ASSERT_TRUE(connection->Send("QUIT\r\n"));
    const auto waiting = FirstOneNotServed();
    connection.reset();
    EXPECT_TRUE(AnswerComes(*waiting));
}

// Hardened, all of them are rejected alike.
TEST_P(HostileDefault, GssCredentialsAreDeniedWithTheLibrarysReasons) {
    RpcConnection connection(Port());
    RpcCall call = Getattr();
    call.credentialFlavour = kRpcsecGss;
    const std::pair<std::string, uint32_t> rows[] = {
        // A context's creation beside a call, one that nobody has created, and none at all.
        {XdrWriter().U32(1).U32(1).U32(0).U32(1).U32(0).Bytes(), kAuthFailed},
        {XdrWriter().U32(1).U32(0).U32(7).U32(3).Opaque("context1").Bytes(), kGssCredentialProblem},
        {"", kAuthBadCredential},
        {std::string(400, '\xff'), kAuthBadCredential}};
    for (const auto& [credential, reason] : rows) {
        call.credential = credential;
        EXPECT_EQ(Hex(connection.CallRaw(call)),
                  Hex(XdrWriter().U32(call.xid).U32(1).U32(1).U32(kAuthError).U32(reason).Bytes()));
        EXPECT_TRUE(Answers(connection));
    }
}

OXEL_DEFAULT_MODES(HostileDefault);

// Once is enough for what takes the library's own time-out, which is about half a minute.
using HostileDefaultTimeOut = HostileDefault;

TEST_P(HostileDefaultTimeOut, AClientThatStopsInsideARecordIsEndedAfterTheLibrarysTimeOut) {
    RpcConnection staller(Port());
    ASSERT_TRUE(staller.Send(HalfACall()));
    const auto waiting = FirstOneNotServed();
    EXPECT_EQ(waiting->Receive(4 * RpcConnection::kTimeoutMs).value_or(""), SuccessReply(1, ""));
    EXPECT_TRUE(staller.ClosedByPeer());
    ExpectServing();
}

INSTANTIATE_TEST_SUITE_P(Modes, HostileDefaultTimeOut, testing::Values(Mode::kManyThreads),
                         testing::PrintToStringParamName());

// Attacks that do no harm even so.
using HarmlessAttacks = HostileTest;

TEST_P(HarmlessAttacks, AStormOfConnectsClosesAndResets) {
    // Some hundred connections at once where the daemon has to wait for a processor, each with the
    // library's buffers; thousands come, so that one that leaked would be more.
    constexpr unsigned kAtOnceMiB = 192;
    Beside(
        "default: connect storm", kAtOnceMiB,
        [&](const auto& attacking) {
            const std::string record = Record(Getattr().Message());
            for (unsigned round = 0; attacking(); ++round) {
                const auto connection = Connect();
                if (round % 2 == 1) SendWhatGoes(*connection, record);
                if (round % 3 == 0)
                    connection->Close();
                else
                    connection->Reset();
            }
        },
        2000);
}

TEST_P(HarmlessAttacks, NineHundredIdleConnections) {
    Beside("default: 900 idle", 64, [&](const auto& attacking) {
        Crowd crowd;
        for (int i = 0; i < 900; ++i) crowd.push_back(Connect());
        EXPECT_TRUE(Answers(*crowd.back()));
        WaitWhile(attacking);
    });
}

OXEL_DEFAULT_MODES(HarmlessAttacks);

}  // namespace
}  // namespace oxel::test
