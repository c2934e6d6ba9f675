// SPDX-License-Identifier: Apache-2.0
//
// The wall clock jumps while clients work, by hours and by decades, forwards and backwards: what
// lasts so long is counted with another clock, and a new life has a new write verifier whatever
// the clock says.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <thread>

#include "tests/support/modes.h"
#include "tests/support/private_tree.h"
#include "tests/system/integrity_worker.h"
#include "tests/system/shared_words.h"

namespace oxel::test {
namespace {

constexpr int64_t kHour = 3600, kYear = 365 * 24 * kHour;
// Beyond what 32 bits hold, and to before 1970.
constexpr int64_t kJumps[] = {1,           -1,          kHour,        -kHour,    0,      10 * kYear,
                              -20 * kYear, 200 * kYear, -100 * kYear, 0,         30,     -30,
                              kYear,       2 * kHour,   -kYear,       5 * kHour, -kHour, 0};

class ClockJumps : public testing::TestWithParam<Mode> {
  protected:
    void SetUp() override {
        tree_.MakeDir("share");
        tree_.WriteConf("wire", "[Oxel]\nnNfs3Port = 0\n" + ModeSettings(GetParam()));
        tree_.WriteExports(
            "wire", "/share -dir=" + tree_.Path("share") + ",id=7 *(rw,no_root_squash,insecure)\n");
        clock_ = std::make_unique<SharedWords>(tree_.Path("clock"));
        daemon_.SetWrapper(Preloading("OXEL_CLOCK_SHIFTER", "OXEL_CLOCK=" + tree_.Path("clock")));
    }
    void Jump(int64_t seconds) { clock_->Set(0, seconds); }
    uint64_t Verifier() {
        Session session(daemon_.Port());
        const std::string root = session.Client().MountShare("/share");
        const std::string file = session.Client().Lookup(root, "file");
        const Changed written =
            WriteResults(*session.Call(nfs::kWrite, WriteArguments(file, 0, kUnstable, "content")));
        EXPECT_EQ(written.status, 0u);
        return written.verifier;
    }

    PrivateTree tree_;
    Daemon daemon_{tree_};
    std::unique_ptr<SharedWords> clock_;
};

TEST_P(ClockJumps, ClientsWorkOnAndNobodyIsEnded) {
    ASSERT_TRUE(daemon_.Start());
    const uint16_t port = daemon_.Port();
    ASSERT_NO_FATAL_FAILURE(IntegrityClient::MakeSharedFiles(port));
    // One connection that only waits, one in the middle of a record: both have their time.
    NfsClient idle(port), slow(port);
    const std::string root = idle.MountShare("/share");
    const std::string record =
        Record(slow.Nfs(nfs::kGetattr, XdrWriter().Opaque(root).Bytes()).Message());
    if (IsHardened(GetParam())) {  // else it would hold everybody up
        ASSERT_TRUE(slow.Connection().Send(record.substr(0, 50)));
    }
    std::atomic<uint64_t> verifier{0};
    std::vector<std::unique_ptr<IntegrityClient>> clients;
    for (unsigned i = 0; i < 2; ++i) {
        clients.push_back(std::make_unique<IntegrityClient>(port, 7, i, &verifier));
        clients.back()->MakeFiles();
    }
    for (const int64_t jump : kJumps) {
        Jump(jump);
        std::vector<std::thread> threads;
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(20);
        for (auto& client : clients) threads.emplace_back([&] { client->Run(end); });
        for (std::thread& thread : threads) thread.join();
        std::string output;
        ASSERT_EQ(daemon_.Control({"--json", "status"}, &output), 0) << output;
        const auto status = nlohmann::json::parse(output, nullptr, false);
        // It has not run for long, whatever the clock says.
        EXPECT_GE(status["uptimeSeconds"], 0);
        EXPECT_LT(status["uptimeSeconds"], kHour);
        EXPECT_EQ(idle.MountShare("/share"), root);
        ASSERT_EQ(daemon_.Control({"mounts", "--json"}, &output), 0) << output;
        EXPECT_FALSE(nlohmann::json::parse(output, nullptr, false).is_discarded()) << output;
    }
    for (auto& client : clients) client->ExpectEverythingAsWritten(tree_.Path("share"));
    if (IsHardened(GetParam())) {
        ASSERT_TRUE(slow.Connection().Send(record.substr(50)));
        const auto message = slow.Connection().Receive();
        ASSERT_TRUE(message);
        EXPECT_TRUE(ParseReply(*message).Success());
        EXPECT_FALSE(daemon_.LogHas("Ended the connection of"));
    }
}

TEST_P(ClockJumps, NoTwoLivesHaveTheSameWriteVerifier) {
    tree_.Write("share/file", "content");
    std::set<uint64_t> verifiers;
    unsigned lives = 0;
    for (const int64_t jump : kJumps) {
        Jump(jump);
        ASSERT_TRUE(daemon_.Start());
        const uint64_t verifier = Verifier();
        EXPECT_TRUE(verifiers.insert(verifier).second) << "again " << verifier << " at " << jump;
        // Once it runs, the clock is nothing to it.
        Jump(jump - 1);
        EXPECT_EQ(Verifier(), verifier);
        ++lives;
        if (lives % 2 == 0)
            daemon_.Kill();
        else
            EXPECT_EQ(daemon_.Stop(), 0);
    }
    EXPECT_EQ(verifiers.size(), std::size(kJumps));
}

// More lives than seconds.
TEST_P(ClockJumps, LivesOfOneSecondDifferToo) {
    tree_.Write("share/file", "content");
    std::set<uint64_t> verifiers;
    for (size_t life = 1; life <= 8; ++life) {
        ASSERT_TRUE(daemon_.Start());
        verifiers.insert(Verifier());
        EXPECT_EQ(verifiers.size(), life);
        Jump(-static_cast<int64_t>(life));
        daemon_.Kill();
    }
}

INSTANTIATE_TEST_SUITE_P(Modes, ClockJumps, testing::Values(Mode::kManyThreads, Mode::kHardened),
                         testing::PrintToStringParamName());

}  // namespace
}  // namespace oxel::test
