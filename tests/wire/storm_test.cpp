// SPDX-License-Identifier: Apache-2.0
//
// Many clients, clients that vanish, clients that do not read: nobody gets another's bytes, nothing
// is used up, and the daemon serves on.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <random>
#include <thread>

#include "tests/wire/wire_fixture.h"

namespace oxel::test {
namespace {

constexpr uint32_t kTransferBytes = 262144;

// Bytes that tell their file and offset, so that a piece of another reply is noticed.
std::string Content(unsigned file, size_t length) {
    std::string bytes(length, '\0');
    for (size_t i = 0; i + 4 <= length; i += 4) {
        const uint32_t word = file * 0x01000193u ^ static_cast<uint32_t>(i) * 2654435761u;
        std::copy_n(reinterpret_cast<const char*>(&word), 4, &bytes[i]);
    }
    return bytes;
}

class Storm : public WireTest {
  protected:
    // No call holds a record any more.
    void ExpectNothingUsedUp() {
        std::string output;
        EXPECT_TRUE(WaitUntil([&] {
            return daemon_.Control({"--json", "status"}, &output) == 0 &&
                   nlohmann::json::parse(output, nullptr, false)["records"]["inUse"] == 0;
        })) << output;
    }
    const int rounds_ = SanitizerBuild() ? 20 : 60;
};

TEST_P(Storm, RepliesOfTwoSharesOnOneConnectionStayWhole) {
    const std::string contents[] = {Content(1, 4 * kTransferBytes), Content(2, 4 * kTransferBytes)};
    tree_.Write("rw/big", contents[0]);
    tree_.Write("second/big", contents[1]);
    NfsClient client(Port());
    const std::string handles[] = {client.Lookup(client.MountShare("/rw"), "big"),
                                   client.Lookup(client.MountShare("/second"), "big")};
    struct Wanted {
        unsigned file;
        uint64_t offset;
        uint32_t count;
    };
    std::map<uint32_t, Wanted> wanted;
    std::string small;
    std::mt19937 random(20260104);
    // Sent from another thread, since the replies must be read meanwhile.
    std::string bytes;
    for (int i = 0; i < rounds_ * 6; ++i) {
        const unsigned file = static_cast<unsigned>(i) % 2;
        const uint64_t offset = random() % (3 * kTransferBytes);
        const uint32_t count = i % 5 == 0 ? 1 + random() % 100 : kTransferBytes;
        RpcCall call = client.Nfs(nfs::kRead, ReadArguments(handles[file], offset, count));
        wanted[call.xid] = {file, offset, count};
        bytes += Record(call.Message());
        bytes += Record(client.Nfs(nfs::kNull, "").Message());  // a reply of no share in between
    }
    std::thread sender([&] { EXPECT_TRUE(client.Connection().Send(bytes)); });
    for (int replies = rounds_ * 12; replies > 0; --replies) {
        std::optional<std::string> message = client.Connection().Receive();
        if (!message.has_value()) {
            ADD_FAILURE() << replies << " replies are missing";
            client.Connection().CloseSending();
            break;
        }
        RpcReply reply = ParseReply(*message);
        auto it = wanted.find(reply.xid);
        if (it == wanted.end()) {
            EXPECT_EQ(reply.results, "");
            continue;
        }
        XdrReader reader(reply.results);
        EXPECT_EQ(reader.U32(), 0u);
        EXPECT_FALSE(reader.Bool());
        EXPECT_EQ(reader.U32(), it->second.count);
        reader.U32();
        EXPECT_TRUE(reader.Opaque() ==
                    contents[it->second.file].substr(it->second.offset, it->second.count));
        wanted.erase(it);
    }
    sender.join();
    EXPECT_TRUE(wanted.empty());
    ExpectNothingUsedUp();
}

TEST_P(Storm, ClientsThatLeaveWithCallsInFlightHarmNobody) {
    const std::string content = Content(1, kTransferBytes);
    tree_.Write("rw/big", content);
    NfsClient steady(Port());
    const std::string handle = steady.Lookup(steady.MountShare("/rw"), "big");
    for (int round = 0; round < rounds_; ++round) {
        NfsClient leaver(Port());
        std::string bytes;
        for (int i = 0; i < 10; ++i)
            bytes +=
                Record(leaver.Nfs(nfs::kRead, ReadArguments(handle, 0, kTransferBytes)).Message());
        EXPECT_TRUE(leaver.Connection().Send(bytes));
        if (round % 3 == 1) leaver.Connection().Receive();
        if (round % 2 == 0)
            leaver.Connection().Reset();
        else
            leaver.Connection().Close();
        // A newcomer may get the descriptor's number; it must get its own bytes only.
        NfsClient newcomer(Port());
        EXPECT_TRUE(newcomer.Read(handle, 4, 1000) == content.substr(4, 1000));
    }
    EXPECT_TRUE(steady.Read(handle, 0, kTransferBytes) == content);
    ExpectNothingUsedUp();
}

TEST_P(Storm, ConnectSendResetDoesNotStopTheService) {
    NfsClient steady(Port());
    const std::string root = steady.MountShare("/rw");
    std::mt19937 random(20260105);
    for (int round = 0; round < rounds_ * 4; ++round) {
        NfsClient hit(Port());
        const std::string record =
            Record(hit.Nfs(nfs::kGetattr, XdrWriter().Opaque(root).Bytes()).Message());
        // Whole calls, and calls cut anywhere.
        hit.Connection().Send(round % 4 == 0 ? record.substr(0, random() % record.size())
                                             : record + record);
        if (round % 5 == 0)
            hit.Connection().Close();
        else
            hit.Connection().Reset();
        if (round % 10 == 0) {
            EXPECT_EQ(steady.GetAttributes(root).type, 2u);
        }
    }
    EXPECT_EQ(steady.GetAttributes(root).type, 2u);
    ExpectServing();
    ExpectNothingUsedUp();
}

TEST_P(Storm, ManyClientsWorkAtOnce) {
    const std::string content = Content(3, 100000);
    tree_.Write("rw/file", content);
    std::string handle;
    {
        NfsClient client(Port());
        handle = client.Lookup(client.MountShare("/rw"), "file");
    }
    std::vector<std::thread> threads;
    for (unsigned n = 0; n < 8; ++n) {
        threads.emplace_back([&, n] {
            NfsClient client(Port());
            std::mt19937 random(n);
            for (int i = 0; i < rounds_; ++i) {
                const uint64_t offset = random() % 90000;
                EXPECT_TRUE(client.Read(handle, offset, 5000) == content.substr(offset, 5000));
                EXPECT_EQ(client.GetAttributes(handle).size, content.size());
                EXPECT_EQ(client.ReadDirectoryPlus(client.MountShare("/rw"), 0, 8000, 8000)
                              .entries.size(),
                          3u);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    ExpectNothingUsedUp();
}

TEST_P(Storm, MoreConnectionsThanSelectCanWatchDoNotStopTheService) {
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    if (limit.rlim_max < 2048) GTEST_SKIP() << "this host allows too few descriptors";
    const rlimit before = limit;
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 4096);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    {
        NfsClient steady(Port());
        const std::string root = steady.MountShare("/rw");
        std::vector<std::unique_ptr<RpcConnection>> crowd;
        for (int i = 0; i < 1100; ++i) crowd.push_back(std::make_unique<RpcConnection>(Port()));
        // The hardened loop does not watch with select(), which ends at descriptor 1023.
        if (IsHardened(GetParam())) {
            EXPECT_EQ(crowd.back()->CallRaw(RpcCall()), SuccessReply(1, ""));
        } else {
            EXPECT_TRUE(crowd.back()->ClosedByPeer());
        }
        EXPECT_EQ(crowd[500]->CallRaw(RpcCall()), SuccessReply(1, ""));
        EXPECT_EQ(steady.GetAttributes(root).type, 2u);
    }
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_TRUE(WaitUntil([&] {
        std::string output;
        return daemon_.Control({"--json", "status"}, &output) == 0 &&
               nlohmann::json::parse(output, nullptr, false)["connections"] == 0;
    }));
    ExpectServing();
}

OXEL_ALL_MODES(Storm);

// What hardening must not change, and what it bounds.
using Hardened = Storm;

TEST_P(Hardened, ARecordBeyondTheBoundEndsItsConnection) {
    RpcConnection connection(Port());
    ASSERT_TRUE(connection.Send(XdrWriter().U32(0xffffffffu).Bytes()));
    const std::string more(65536, 'x');
    for (int i = 0; i < 2000; ++i)
        if (!connection.Send(more)) break;
    EXPECT_TRUE(connection.ClosedByPeer());
    ExpectServing();
}

TEST_P(Hardened, OrdinaryCallsGetOrdinaryAnswers) {
    tree_.Write("rw/file", Content(1, 3 * kTransferBytes));
    NfsClient client(Port());
    const std::string root = client.MountShare("/rw");
    const std::string handle = client.Lookup(root, "file");
    EXPECT_EQ(AttributesBytes(client.GetAttributes(handle)),
              AttributesBytes(ExpectedAttributes(tree_.Path("rw/file"))));
    EXPECT_TRUE(client.Read(handle, 0, kTransferBytes) ==
                Content(1, 3 * kTransferBytes).substr(0, kTransferBytes));
    EXPECT_EQ(client.Status(client.Nfs(
                  nfs::kWrite, WriteArguments(handle, 0, 2, std::string(kTransferBytes, 'w')))),
              0u);
    for (size_t fragment : {1u, 1000u}) {
        RpcCall call = client.Nfs(nfs::kGetattr, XdrWriter().Opaque(root).Bytes());
        ASSERT_TRUE(client.Connection().Send(Record(call.Message(), fragment)));
        EXPECT_TRUE(client.Connection().Receive().has_value());
    }
    ExpectNothingUsedUp();
}

OXEL_HARDENED_MODES(Hardened);

}  // namespace
}  // namespace oxel::test
