// SPDX-License-Identifier: Apache-2.0
//
// A day's work in short: clients that verify their data, clients that use every procedure, clients
// that come and go, some that mean harm, and reloads of the shares in between. Every answer is the
// right one, and the daemon uses no more in the end than in the middle. "make soak" runs it for
// half an hour and more; in between it shows that the load itself is sound.
#include <gtest/gtest.h>

#include <cstdlib>
#include <deque>
#include <nlohmann/json.hpp>
#include <thread>

#include "tests/support/modes.h"
#include "tests/support/private_tree.h"
#include "tests/system/integrity_worker.h"
#include "tests/system/soak_clients.h"
#include "tests/system/soak_watch.h"

namespace oxel::test {
namespace {

constexpr double kModes = 2, kSecondsDefault = 6;
constexpr unsigned kTreeClients = 3, kPassingClients = 2;
constexpr uint32_t kNoEntry = 2;

double SecondsOfAMode() {
    const char* given = getenv("OXEL_SOAK_SECONDS");
    return (given != nullptr ? atof(given) : kSecondsDefault) / kModes;
}

class Soak : public testing::TestWithParam<Mode> {
  protected:
    void SetUp() override {
        // What a sanitizer keeps of freed memory would hide what is not freed; and of the callers
        // of each allocation it keeps every combination for good, which never end where the RPC
        // library is among them.
        const char* given = getenv("ASAN_OPTIONS");
        setenv("ASAN_OPTIONS",
               ((given != nullptr ? std::string(given) + ":" : std::string()) +
                "quarantine_size_mb=4:thread_local_quarantine_size_kb=64:malloc_context_size=2")
                   .c_str(),
               1);
        tree_.MakeDir("share");
        tree_.MakeDir("extra");
        // Small enough to be turned over again and again.
        tree_.WriteConf("wire", "[Log]\nnLogLevel = 1\nnMaxSizeMB = 1\n[Oxel]\nnNfs3Port = 0\n" +
                                    ModeSettings(GetParam()));
        WriteShares(false);
        ASSERT_TRUE(daemon_.Start());
    }

    void WriteShares(bool extra) {
        tree_.WriteExports(
            "wire", "/share -dir=" + tree_.Path("share") + ",id=7 *(rw,no_root_squash,insecure)" +
                        (extra ? " 10.0.0.0/8(ro)" : "") + "\n" +
                        (extra ? "/extra -dir=" + tree_.Path("extra") + ",id=8 *(ro,insecure)\n"
                               : std::string()));
    }

    void Reload(SoakEnd end) {
        const auto pause = std::chrono::duration<double>(std::min(5.0, SecondsOfAMode() / 8));
        NfsClient client(daemon_.Port());
        for (bool extra = true; std::chrono::steady_clock::now() < end; extra = !extra) {
            WriteShares(extra);
            daemon_.Signal(SIGHUP);
            uint32_t status = 0;
            EXPECT_TRUE(WaitUntil([&] {
                (void)client.MountShare("/extra", &status);
                ++counts_.calls;
                return status == (extra ? 0 : kNoEntry) || HasFailure();
            })) << status;
            if (HasFailure()) return;
            ++counts_.reloads;
            std::this_thread::sleep_for(pause);
        }
    }

    static std::string Csv() {
        const char* directory = getenv("OXEL_SOAK_CSV");
        const bool hardened = IsHardened(GetParam());
        return directory == nullptr
                   ? std::string()
                   : std::string(directory) + (hardened ? "/hardened.csv" : "/default.csv");
    }

    PrivateTree tree_;
    Daemon daemon_{tree_};
    SoakCounts counts_;
};

TEST_P(Soak, MixedLoadIsAnsweredRightlyAndUsesNothingUp) {
    const uint64_t seed = IntegritySeed();
    Random random(seed);
    const uint16_t port = daemon_.Port();
    const std::string steady = UniqueBytes(random, 300000);
    tree_.Write("share/steady", steady);
    ASSERT_NO_FATAL_FAILURE(IntegrityClient::MakeSharedFiles(port));
    std::atomic<uint64_t> verifier{0};
    std::deque<IntegrityClient> files;
    for (unsigned i = 0; i < IntegrityClient::kClients; ++i) {
        files.emplace_back(port, seed, i, &verifier);
        files.back().MakeFiles();
    }
    std::deque<TreeClient> trees;
    for (unsigned i = 0; i < kTreeClients; ++i) trees.emplace_back(port, seed, i, &counts_);
    std::deque<PassingClient> passing;
    for (unsigned i = 0; i < kPassingClients; ++i)
        passing.emplace_back(port, seed + i, "steady", steady, &counts_);
    HostileClient hostile(port, seed, IsHardened(GetParam()), &counts_);

    const double seconds = SecondsOfAMode();
    const SoakEnd end = std::chrono::steady_clock::now() +
                        std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                            std::chrono::duration<double>(seconds));
    SoakWatch watch(daemon_, counts_, seconds, Csv());
    std::vector<std::thread> threads;
    const auto run = [&](auto& client) {
        threads.emplace_back([&client, end] { client.Run(end); });
    };
    for (auto& client : files) run(client);
    for (auto& client : trees) run(client);
    for (auto& client : passing) run(client);
    run(hostile);
    threads.emplace_back([&] { Reload(end); });
    for (std::thread& thread : threads) thread.join();
    watch.End();

    uint64_t operations = counts_.calls;
    for (IntegrityClient& client : files) {
        client.ExpectEverythingAsWritten(tree_.Path("share"));
        operations += client.Operations();
        counts_.bytesVerified += client.Bytes();
    }
    for (TreeClient& client : trees) client.ExpectEverythingAsMade(tree_.Path("share"));
    printf("%llu calls, %llu MiB verified, %llu connections, %llu hostile, %llu reloads\n",
           static_cast<unsigned long long>(operations),
           static_cast<unsigned long long>(counts_.bytesVerified >> 20),
           static_cast<unsigned long long>(counts_.connections),
           static_cast<unsigned long long>(counts_.hostile),
           static_cast<unsigned long long>(counts_.reloads));
    // Nobody's call holds a record any more.
    std::string output;
    EXPECT_TRUE(WaitUntil([&] {
        return daemon_.Control({"--json", "status"}, &output) == 0 &&
               nlohmann::json::parse(output, nullptr, false)["records"]["inUse"] == 0;
    })) << output;
    if (!HasFailure()) watch.ExpectFlat();
}

INSTANTIATE_TEST_SUITE_P(Modes, Soak, testing::Values(Mode::kManyThreads, Mode::kHardened),
                         testing::PrintToStringParamName());

}  // namespace
}  // namespace oxel::test
