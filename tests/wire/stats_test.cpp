// SPDX-License-Identifier: Apache-2.0
//
// What the daemon tells of its clients' calls, held against the calls that were made.
#include <gtest/gtest.h>

#include <map>
#include <nlohmann/json.hpp>
#include <string>

#include "tests/wire/wire_fixture.h"

namespace oxel::test {
namespace {

using nlohmann::json;

class Stats : public WireTest {
  protected:
    void SetUp() override {
        WireTest::SetUp();
        tree_.Write("rw/f", std::string(3000, 'x'));
    }

    json Ask(const std::vector<std::string>& verb) {
        std::vector<std::string> arguments = verb;
        arguments.emplace_back("--json");
        std::string output;
        EXPECT_EQ(daemon_.Control(arguments, &output), 0) << output;
        return json::parse(output, nullptr, false);
    }
    // A reply is on its way before its call is counted: asks until `count` calls are.
    json StatsOf(uint64_t count) {
        json stats;
        EXPECT_TRUE(WaitUntil([&] {
            stats = Ask({"stats"});
            uint64_t calls = 0;
            for (const json& one : stats["procedures"]) calls += one["calls"].get<uint64_t>();
            return calls >= count;
        })) << stats.dump(1);
        return stats;
    }
    static json Entry(const json& list, const char* member, const std::string& name) {
        for (const json& one : list)
            if (one[member] == name) return one;
        return json::object();
    }
    std::string Table(const std::vector<std::string>& verb) {
        std::string output;
        EXPECT_EQ(daemon_.Control(verb, &output), 0) << output;
        return output;
    }

    // 2 MNT, 3 GETATTR, 2 LOOKUP (one fails), 2 READ of 3000 bytes in all, 1 WRITE of 500: 10 calls
    // on /rw; 1 GETATTR on /second.
    static constexpr uint64_t kCalls = 11;
    void SomeCalls() {
        NfsClient client(Port());
        const std::string root = client.MountShare("/rw");
        const std::string second = client.MountShare("/second");
        (void)client.GetAttributes(root);
        const std::string file = client.Lookup(root, "f");
        uint32_t status = 0;
        (void)client.Lookup(root, "missing", &status);
        EXPECT_EQ(status, 2u);
        EXPECT_EQ(client.Read(file, 0, 2000).size(), 2000u);
        EXPECT_EQ(client.Read(file, 2000, 2000).size(), 1000u);
        EXPECT_EQ(client.Status(
                      client.Nfs(nfs::kWrite, WriteArguments(file, 0, 0, std::string(500, 'y')))),
                  0u);
        (void)client.GetAttributes(file);
        (void)client.GetAttributes(file);
        (void)client.GetAttributes(second);
    }
};

TEST_P(Stats, EveryCallIsCountedUnderItsProcedure) {
    SomeCalls();
    const json stats = StatsOf(kCalls);
    const json& procedures = stats["procedures"];
    EXPECT_EQ(procedures.size(), 5u) << procedures.dump(1);
    const std::map<std::string, uint64_t> expected = {
        {"GETATTR", 4}, {"LOOKUP", 2}, {"READ", 2}, {"WRITE", 1}, {"MNT", 2}};
    for (const auto& [name, calls] : expected) {
        const json entry = Entry(procedures, "procedure", name);
        EXPECT_EQ(entry["calls"], calls) << name;
        EXPECT_EQ(entry["program"], name == "MNT" ? "MOUNT" : "NFS");
        EXPECT_EQ(entry["errors"], name == "LOOKUP" ? json({{"NOENT", 1}}) : json::object());
        EXPECT_EQ(entry["bytesRead"], name == "READ" ? 3000 : 0);
        EXPECT_EQ(entry["bytesWritten"], name == "WRITE" ? 500 : 0);
        EXPECT_GT(entry["meanMicroseconds"], 0.0);
        EXPECT_LE(entry["p50Microseconds"], entry["p95Microseconds"]);
        EXPECT_LE(entry["p95Microseconds"], entry["p99Microseconds"]);
        EXPECT_LE(entry["p99Microseconds"], entry["maxMicroseconds"]);
    }
    EXPECT_EQ(stats["rejected"],
              (json{{"unknownProcedure", 0}, {"weakCredential", 0}, {"garbageArguments", 0}}));
    EXPECT_EQ(stats["waitedForRecord"]["calls"], 0);
}

TEST_P(Stats, EveryCallIsCountedUnderItsShareAndItsClient) {
    SomeCalls();
    const json stats = StatsOf(kCalls);
    EXPECT_EQ(stats["shares"].size(), 2u);
    const json rw = Entry(stats["shares"], "path", "/rw");
    EXPECT_EQ(rw["id"], 7);
    EXPECT_EQ(rw["calls"], 8);
    EXPECT_EQ(rw["errors"], (json{{"NOENT", 1}}));
    EXPECT_EQ(rw["bytesRead"], 3000);
    EXPECT_EQ(rw["bytesWritten"], 500);
    EXPECT_EQ(Entry(stats["shares"], "path", "/second")["calls"], 1);
    EXPECT_EQ(stats["clients"].size(), 1u);
    EXPECT_EQ(Entry(stats["clients"], "client", "127.0.0.1")["calls"], 11);
}

TEST_P(Stats, TablesForPeople) {
    EXPECT_EQ(Table({"stats"}), "No calls.\n");
    SomeCalls();
    (void)StatsOf(kCalls);
    const std::string table = Table({"stats"});
    EXPECT_EQ(table.rfind("procedure  calls  read", 0), 0u) << table;
    EXPECT_NE(table.find("\nREAD       2      2.93 KiB  -"), std::string::npos) << table;
    EXPECT_NE(table.find("NOENT 1\n"), std::string::npos) << table;
    EXPECT_NE(table.find("\nMOUNT MNT  2 "), std::string::npos) << table;
    const std::string shares = Table({"stats", "--by", "share"});
    EXPECT_EQ(shares.rfind("share    calls", 0), 0u) << shares;
    EXPECT_NE(shares.find("\n/rw      8  "), std::string::npos) << shares;
    const std::string clients = Table({"stats", "--by", "client"});
    EXPECT_NE(clients.find("\n127.0.0.1  11  "), std::string::npos) << clients;
}

TEST_P(Stats, CallsThatNoProcedureTakesAreTold) {
    NfsClient client(Port());
    const std::string root = client.MountShare("/rw");
    RpcCall unknown = client.Nfs(99, "");
    EXPECT_EQ(client.Connection().Call(unknown).acceptStat, 3u);
    RpcCall weak = client.Nfs(nfs::kGetattr, XdrWriter().Opaque(root).Bytes());
    weak.credentialFlavour = kAuthNone;
    weak.credential.clear();
    EXPECT_FALSE(client.Connection().Call(weak).accepted);
    EXPECT_EQ(client.Connection().Call(client.Nfs(nfs::kGetattr, "abc")).acceptStat, 4u);
    const json stats = StatsOf(1);
    EXPECT_EQ(stats["rejected"],
              (json{{"unknownProcedure", 1}, {"weakCredential", 1}, {"garbageArguments", 1}}));
    const std::string table = Table({"stats"});
    EXPECT_NE(table.find("Rejected: 1 (weakCredential)\n"), std::string::npos) << table;
}

TEST_P(Stats, ClientsAreThoseThatAreConnected) {
    EXPECT_EQ(Table({"clients"}), "No client is connected.\n");
    SomeCalls();
    NfsClient stays(Port()), too(Port());
    const std::string root = stays.MountShare("/ro");
    (void)stays.GetAttributes(root);
    (void)too.GetAttributes(root);
    json clients;
    // Those of SomeCalls() have gone, and the calls are counted.
    ASSERT_TRUE(WaitUntil([&] {
        clients = Ask({"clients"})["clients"];
        return clients.size() == 1 && clients[0]["connections"] == 2 &&
               clients[0]["calls"] == kCalls + 3;
    })) << clients.dump(1);
    EXPECT_EQ(clients[0], (json{{"client", "127.0.0.1"},
                                {"connections", 2},
                                {"calls", kCalls + 3},
                                {"errors", 1},
                                {"bytesRead", 3000},
                                {"bytesWritten", 500},
                                {"inFlight", 0},
                                {"oldestMilliseconds", 0},
                                {"shares", {"/rw", "/ro", "/second"}}}));
    const std::string table = Table({"clients"});
    EXPECT_EQ(table.rfind("client     connections  calls  errors  read", 0), 0u) << table;
    EXPECT_NE(table.find("\n127.0.0.1  2            14     1       2.93 KiB  500 B    0          "
                         "-       /rw /ro /second\n"),
              std::string::npos)
        << table;
}

OXEL_ALL_MODES(Stats);

}  // namespace
}  // namespace oxel::test
