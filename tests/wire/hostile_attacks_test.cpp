// SPDX-License-Identifier: Apache-2.0
//
// Attacks on a hardened daemon, each beside a well-behaved client that must be served all along.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <map>
#include <thread>

#include "tests/wire/hostile_fixture.h"

namespace oxel::test {
namespace {

constexpr uint32_t kProcedureUnavailable = 3;

// What the daemon may take besides what it may buffer: call records that had never been used,
// what the allocator keeps.
constexpr unsigned kBufferedMiBMax = 64, kSlackMiB = 32;
// 25 call records with room for the largest WRITE, and a READ's buffer each.
constexpr unsigned kRecordsMiB = 64;

// Many connections need descriptors in the test too.
class ManyDescriptors {
  public:
    explicit ManyDescriptors(rlim_t wanted) {
        EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &before_), 0);
        rlimit limit = before_;
        limit.rlim_cur = std::min(limit.rlim_max, std::max(before_.rlim_cur, wanted));
        EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
        enough_ = limit.rlim_cur >= wanted;
    }
    ~ManyDescriptors() { EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &before_), 0); }
    bool Enough() const { return enough_; }

  private:
    rlimit before_{};
    bool enough_ = false;
};

using HostileAttacks = HostileTest;

TEST_P(HostileAttacks, FiftyClientsThatNeverReadTheirLargeReplies) {
    Beside("never reading", kBufferedMiBMax + kRecordsMiB + kSlackMiB, [&](const auto& attacking) {
        Crowd crowd;
        for (int i = 0; i < 50; ++i) {
            crowd.push_back(ConnectWithSmallWindow());
            std::string calls;
            for (int n = 0; n < 200; ++n) calls += Record(ReadOfTransferSize().Message());
            SendWhatGoes(*crowd.back(), calls);
        }
        WaitWhile(attacking);
    });
}

TEST_P(HostileAttacks, OneThatStopsAfterTwoBytesOfARecord) {
    Beside("two bytes", kSlackMiB, [&](const auto& attacking) {
        const auto connection = Connect();
        EXPECT_EQ(SendWhatGoes(*connection, std::string("\x80\0", 2)), 2u);
        WaitWhile(attacking);
    });
}

TEST_P(HostileAttacks, OneThatTricklesByteAfterByte) {
    Beside("trickle", kSlackMiB, [&](const auto& attacking) {
        const auto connection = Connect();
        const std::string record = Record(Getattr().Message());
        // The pause is the attack. A whole record takes longer than the test.
        for (size_t at = 0; at < record.size() && attacking(); ++at) {
            SendWhatGoes(*connection, record.substr(at, 1));
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
    });
}

TEST_P(HostileAttacks, TenThatSendHalfAWrite) {
    Beside("half a WRITE", kSlackMiB, [&](const auto& attacking) {
        const std::string record = Record(WriteOfTransferSize().Message());
        Crowd crowd;
        for (int i = 0; i < 10; ++i) {
            crowd.push_back(Connect());
            EXPECT_TRUE(crowd.back()->Send(record.substr(0, record.size() / 2)));
        }
        WaitWhile(attacking);
    });
}

TEST_P(HostileAttacks, RecordsOfTwoGibibytes) {
    Beside("2 GiB records", kSlackMiB, [&](const auto& attacking) {
        const std::string piece(65536, 'x');
        unsigned round = 0;
        do {
            const auto connection = Connect();
            const uint32_t last = round++ % 2 == 0 ? 0 : kLastFragmentBit;
            std::string bytes = XdrWriter().U32(0x7fffffffu | last).Bytes();
            while (SendWhatGoes(*connection, bytes) == bytes.size() && attacking()) bytes = piece;
            EXPECT_TRUE(connection->ClosedByPeer());
        } while (attacking());
    });
}

TEST_P(HostileAttacks, FragmentsWithoutEndAndWithoutBytes) {
    Beside("empty fragments", kSlackMiB, [&](const auto& attacking) {
        const std::string piece(65536, '\0');  // 16,384 fragments of no bytes, none the last
        do {
            const auto connection = Connect();
            while (SendWhatGoes(*connection, piece) == piece.size() && attacking()) continue;
            EXPECT_TRUE(connection->ClosedByPeer());
        } while (attacking());
    });
}

TEST_P(HostileAttacks, FifteenHundredIdleConnections) {
    const ManyDescriptors descriptors(4000);
    if (!descriptors.Enough()) GTEST_SKIP() << "this host allows too few descriptors";
    Beside("1,500 idle", 64, [&](const auto& attacking) {
        Crowd crowd;
        for (int i = 0; i < 1500; ++i) crowd.push_back(Connect());
        // Each of them would be served.
        for (size_t i = 0; i < crowd.size(); i += 100) EXPECT_TRUE(Answers(*crowd[i])) << i;
        EXPECT_TRUE(Answers(*crowd.back()));
        WaitWhile(attacking);
    });
}

TEST_P(HostileAttacks, AStormOfConnectsClosesAndResets) {
    Beside(
        "connect storm", 2 * kSlackMiB,
        [&](const auto& attacking) {
            const std::string record = Record(Getattr().Message());
            for (unsigned round = 0; attacking(); ++round) {
                const auto connection = Connect();
                if (round % 3 == 1) SendWhatGoes(*connection, record);
                if (round % 3 == 2) SendWhatGoes(*connection, record.substr(0, 20));
                if (round % 2 == 0)
                    connection->Reset();
                else
                    connection->Close();
            }
        },
        2000);
}

TEST_P(HostileAttacks, AFloodOfUnknownProgramsWhoseAnswersNobodyReads) {
    Beside("flood of unknown programs", kBufferedMiBMax + kSlackMiB, [&](const auto& attacking) {
        RpcCall call;
        call.program = 100021;
        std::string calls;
        for (int i = 0; i < 1000; ++i) calls += Record(call.Message());
        Crowd crowd;
        std::vector<size_t> at;  // in `calls`: a record is never cut
        for (int i = 0; i < 8; ++i) {
            crowd.push_back(ConnectWithSmallWindow());
            at.push_back(0);
        }
        while (attacking()) {
            size_t sent = 0;
            for (size_t i = 0; i < crowd.size(); ++i) {
                const size_t count = SendWhatGoes(*crowd[i], calls.substr(at[i]));
                at[i] = (at[i] + count) % calls.size();
                sent += count;
            }
            // Nobody takes anything: what they wait for is the end of the attack.
            if (sent == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
}

TEST_P(HostileAttacks, TwentyFiveThousandUnknownProcedures) {
    RpcCall call;
    call.procedure = 22;
    const std::string reply = AcceptedReply(1, kProcedureUnavailable);
    RpcConnection few(Port());
    for (int i = 0; i < 25; ++i) ASSERT_EQ(few.CallRaw(call), reply) << i;
    ExpectServing();
    few.Close();
    Beside("25,000 unknown procedures", kSlackMiB, [&](const auto& attacking) {
        const auto connection = Connect();
        constexpr int kAtOnce = 100;
        std::string calls;
        for (int i = 0; i < kAtOnce; ++i) calls += Record(call.Message());
        for (int sent = 0; sent < 25000; sent += kAtOnce) {
            ASSERT_TRUE(connection->Send(calls));
            for (int i = 0; i < kAtOnce; ++i) {
                const auto message = connection->Receive();
                ASSERT_TRUE(message) << sent;
                ASSERT_EQ(*message, reply) << sent;
            }
        }
        WaitWhile(attacking);
    });
}

TEST_P(HostileAttacks, AClientWithAThousandCallsInFlight) {
    Beside("1,000 in flight", kRecordsMiB + kSlackMiB, [&](const auto& attacking) {
        const auto connection = Connect();
        const std::string results =
            XdrWriter().U32(0).Raw(AttributesBytes(ExpectedAttributes(tree_.Path("rw")))).Bytes();
        do {
            std::map<uint32_t, std::string> expected;
            std::string calls;
            for (int i = 0; i < 1000; ++i) {
                const RpcCall call = Getattr();
                expected[call.xid] = SuccessReply(call.xid, results);
                calls += Record(call.Message());
            }
            std::thread sender([&] { EXPECT_TRUE(connection->Send(calls)); });
            while (!expected.empty()) {
                const auto message = connection->Receive();
                EXPECT_TRUE(message) << expected.size() << " replies are missing";
                if (!message) break;
                const auto it = expected.find(XdrReader(*message).U32());
                EXPECT_TRUE(it != expected.end() && *message == it->second) << Hex(*message);
                if (it == expected.end()) break;
                expected.erase(it);
            }
            sender.join();
        } while (attacking());
    });
}

TEST_P(HostileAttacks, ClientsThatSpeakSomethingElse) {
    Beside("no RPC", kSlackMiB, [&](const auto& attacking) {
        const std::string hello("\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03", 11);
        do {
            for (const std::string& bytes :
                 {std::string("GET / HTTP/1.1\r\nHost: nfs\r\n\r\n"), hello + std::string(506, 'r'),
                  std::string("SSH-2.0-client\r\n")}) {
                const auto connection = Connect();
                SendWhatGoes(*connection, bytes);
                EXPECT_TRUE(connection->ClosedByPeer());
            }
        } while (attacking());
    });
}

OXEL_HARDENED_MODES(HostileAttacks);

}  // namespace
}  // namespace oxel::test
