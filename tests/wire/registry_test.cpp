// SPDX-License-Identifier: Apache-2.0
//
// What the daemon remembers of mounts, when it is killed in the middle of writing it.
#include <gtest/gtest.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <thread>

#include "tests/support/nfs_client.h"
#include "tests/support/private_tree.h"

namespace oxel::test {
namespace {

using nlohmann::json;

constexpr int kShares = 40;
constexpr int kRounds = 20;

class Registry : public testing::Test {
  protected:
    void SetUp() override {
        const std::string directory = tree_.MakeDir("share");
        tree_.WriteConf("wire", "[Oxel]\nnNfs3Port = 0\n");
        std::string lines;
        for (int id = 1; id <= kShares; ++id)
            lines +=
                Name(id) + " -dir=" + directory + ",id=" + std::to_string(id) + " *(rw,insecure)\n";
        tree_.WriteExports("wire", lines);
    }
    static std::string Name(int id) { return "/s" + std::to_string(id); }
    // MNT over a connection that may end at any moment; whether the daemon said that it is done.
    static bool MountOnce(RpcConnection& connection, int id) {
        RpcCall call;
        call.xid = static_cast<uint32_t>(id);
        call.program = kMountProgram;
        call.procedure = mnt::kMnt;
        call.arguments = XdrWriter().Opaque(Name(id)).Bytes();
        if (!connection.Send(Record(call.Message()))) return false;
        const std::optional<std::string> reply = connection.Receive();
        if (!reply) return false;
        EXPECT_EQ(XdrReader(ParseReply(*reply).results).U32(), 0u);
        return true;
    }
    json Mounts() {
        std::string output;
        EXPECT_EQ(daemon_.Control({"mounts", "--json"}, &output), 0) << output;
        return json::parse(output, nullptr, false);
    }
    static time_t Seconds(const std::string& text) {
        struct tm parts = {};
        EXPECT_NE(strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &parts), nullptr) << text;
        return timegm(&parts);
    }

    PrivateTree tree_;
    Daemon daemon_{tree_};
    const std::string file_ = tree_.Path("var/lib/oxelnfsd/wire/registry.json");
};

TEST_F(Registry, AKilledDaemonLosesNoMountThatItAnswered) {
    std::map<int, time_t> answered;  // by share, the time before the call
    for (int round = 0; round < kRounds; ++round) {
        ASSERT_TRUE(daemon_.Start());
        std::atomic<int> count{0};
        std::thread client([&] {
            RpcConnection connection(daemon_.Port());
            for (int n = 0;; ++n) {
                const int id = n % kShares + 1;
                const time_t before = time(nullptr);
                if (!MountOnce(connection, id)) break;
                answered[id] = before;
                ++count;
            }
        });
        // Another moment each round; the client goes on while the signal is under way.
        EXPECT_TRUE(WaitUntil([&] { return count > round; }));
        daemon_.Kill();
        client.join();

        const json registry = json::parse(ReadFile(file_), nullptr, false);
        ASSERT_TRUE(registry.is_object()) << "round " << round << ": " << ReadFile(file_);
        ASSERT_EQ(registry["shares"].size(), size_t{kShares});
        for (const json& share : registry["shares"]) {
            const auto known = answered.find(share["id"].get<int>());
            if (known == answered.end()) continue;
            ASSERT_EQ(share["mounts"].size(), 1u) << share;
            EXPECT_GE(Seconds(share["mounts"][0]["lastMount"]), known->second) << share;
            EXPECT_GE(Seconds(share["lastAccess"]), known->second) << share;
        }
    }
    ASSERT_TRUE(daemon_.Start());
    EXPECT_FALSE(daemon_.LogHas("] is damaged."));
    EXPECT_GE(Mounts()["mounts"].size(), answered.size());
    EXPECT_NE(access((file_ + ".tmp").c_str(), F_OK), 0);
}

TEST_F(Registry, ADamagedFileIsPutAsideAndTheDaemonServes) {
    for (const std::string& damage : {std::string(), std::string("{\"version\":1,\"sha"),
                                      std::string(100, '\0'), std::string("[[[[")}) {
        tree_.Write("var/lib/oxelnfsd/wire/registry.json", damage);
        ASSERT_TRUE(daemon_.Start());
        EXPECT_TRUE(daemon_.LogHas("The registry of mounts [" + file_ +
                                   "] is damaged. Starting with an empty one; the old file is "
                                   "kept as [" +
                                   file_ + ".corrupt]."));
        EXPECT_EQ(ReadFile(file_ + ".corrupt"), damage);
        EXPECT_EQ(Mounts(), (json{{"mounts", json::array()}}));
        RpcConnection connection(daemon_.Port());
        EXPECT_TRUE(MountOnce(connection, 1));
        EXPECT_EQ(Mounts()["mounts"].size(), 1u);
        EXPECT_TRUE(json::parse(ReadFile(file_), nullptr, false).is_object());
        ASSERT_EQ(daemon_.Stop(), 0);
    }
}

}  // namespace
}  // namespace oxel::test
