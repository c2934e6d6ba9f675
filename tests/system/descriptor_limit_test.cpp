// SPDX-License-Identifier: Apache-2.0
//
// The daemon runs out of descriptors, by connections and by files at once, and has them again.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <memory>
#include <nlohmann/json.hpp>

#include "tests/support/modes.h"
#include "tests/support/private_tree.h"
#include "tests/support/process_watch.h"
#include "tests/system/integrity_client.h"

namespace oxel::test {
namespace {

constexpr rlim_t kLimit = 160;
constexpr unsigned kConnections = 300, kFiles = 150, kRounds = 2;

class DescriptorLimit : public testing::TestWithParam<Mode> {
  protected:
    void SetUp() override {
        for (unsigned i = 0; i < kFiles; ++i)
            tree_.Write("share/f" + std::to_string(i), "content " + std::to_string(i));
        tree_.WriteConf(
            "wire", "[Oxel]\nnNfs3Port = 0\noxelFdCacheSize = 1000\n" + ModeSettings(GetParam()));
        tree_.WriteExports(
            "wire", "/share -dir=" + tree_.Path("share") + ",id=7 *(rw,no_root_squash,insecure)\n");
        daemon_.SetWrapper({"prlimit", "--nofile=" + std::to_string(kLimit), "--"});
        ASSERT_TRUE(daemon_.Start());
    }
    // Reads, writes and makes files, more than there are descriptors.
    void UseFiles(Session& session, const std::string& root, unsigned round) {
        for (unsigned i = 0; i < kFiles; ++i) {
            const std::string name = "f" + std::to_string(i);
            const std::string handle = session.Client().Lookup(root, name);
            EXPECT_EQ(session.Client().Read(handle, 0, 100), "content " + std::to_string(i));
            const auto written =
                session.Call(nfs::kWrite, WriteArguments(handle, 0, kUnstable, "content"));
            ASSERT_TRUE(written.has_value());
            EXPECT_EQ(WriteResults(*written).status, 0u) << name;
        }
        const auto made =
            session.Call(nfs::kCreate, CreateArguments(root, "new" + std::to_string(round)));
        ASSERT_TRUE(made.has_value());
        EXPECT_EQ(MadeResults(*made).status, 0u);
        EXPECT_EQ(session.Client().ReadDirectoryPlus(root, 0, 1000, 4000).status, 0u);
    }
    // One after the other, so that the kernel's queue of those who wait is not what is full. Those
    // whom there is no room for are turned away; how many were served.
    unsigned ConnectAll(std::vector<std::unique_ptr<RpcConnection>>* crowd) {
        unsigned served = 0;
        for (unsigned i = 0; i < kConnections; ++i) {
            crowd->push_back(std::make_unique<RpcConnection>(daemon_.Port()));
            if (crowd->back()->Send(Record(RpcCall().Message())) && crowd->back()->Receive())
                ++served;
        }
        return served;
    }
    size_t Connections() {
        std::string output;
        if (daemon_.Control({"--json", "status"}, &output) != 0) return SIZE_MAX;
        return nlohmann::json::parse(output, nullptr, false)["connections"];
    }

    PrivateTree tree_;
    Daemon daemon_{tree_};
};

TEST_P(DescriptorLimit, WhoIsThereIsServedAndNewcomersAgainWhenOthersLeave) {
    Session steady(daemon_.Port());
    const std::string root = steady.Client().MountShare("/share");
    UseFiles(steady, root, 100);
    for (unsigned round = 0; round < kRounds; ++round) {
        std::vector<std::unique_ptr<RpcConnection>> crowd;
        const unsigned served = ConnectAll(&crowd);
        EXPECT_GT(served, 10u);
        EXPECT_LT(served, kLimit);
        ASSERT_NO_FATAL_FAILURE(UseFiles(steady, root, round));
        EXPECT_LE(OpenDescriptors(daemon_.Pid()), kLimit);
        crowd.clear();
        EXPECT_TRUE(WaitUntil([&] { return Connections() == 1; }));
        Session newcomer(daemon_.Port());
        EXPECT_EQ(newcomer.Client().MountShare("/share"), root);
        ASSERT_NO_FATAL_FAILURE(UseFiles(newcomer, root, round + 200));
        printf("%u of %u connections were served\n", served, kConnections);
    }
    EXPECT_TRUE(daemon_.LogHas("No descriptor is left for a new connection."));
}

// An administrator raises the limit of the running daemon.
TEST_P(DescriptorLimit, ALimitThatIsRaisedIsUsed) {
    Session steady(daemon_.Port());
    const std::string root = steady.Client().MountShare("/share");
    const rlimit more = {4096, 4096};
    if (prlimit(daemon_.Pid(), RLIMIT_NOFILE, &more, nullptr) != 0)
        GTEST_SKIP() << "limits of others may not be raised here";
    std::vector<std::unique_ptr<RpcConnection>> crowd;
    const unsigned served = ConnectAll(&crowd);
    printf("%u of %u connections were served\n", served, kConnections);
    EXPECT_GT(served, 10u);
    ASSERT_NO_FATAL_FAILURE(UseFiles(steady, root, 1));
}

OXEL_ALL_MODES(DescriptorLimit);

}  // namespace
}  // namespace oxel::test
