// SPDX-License-Identifier: Apache-2.0
//
// Clients write, resize, read and commit at random, each against a mirror of its files in memory:
// every byte that is read, over NFS or on the disk, is the one that was written there last.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <thread>

#include "tests/support/modes.h"
#include "tests/support/private_tree.h"
#include "tests/system/integrity_worker.h"

namespace oxel::test {
namespace {

class Integrity : public testing::TestWithParam<Mode> {
  protected:
    void StartDaemon(const std::string& conf) {
        tree_.MakeDir("share");
        tree_.WriteConf("wire", "[Oxel]\nnNfs3Port = 0\n" + conf);
        tree_.WriteExports(
            "wire", "/share -dir=" + tree_.Path("share") + ",id=7 *(rw,no_root_squash,insecure)\n");
        ASSERT_TRUE(daemon_.Start());
    }

    void WriteAndRead(double share) {
        const uint64_t seed = IntegritySeed();
        ASSERT_NO_FATAL_FAILURE(IntegrityClient::MakeSharedFiles(daemon_.Port()));
        std::atomic<uint64_t> verifier{0};
        std::deque<IntegrityClient> clients;
        for (unsigned i = 0; i < IntegrityClient::kClients; ++i) {
            clients.emplace_back(daemon_.Port(), seed, i, &verifier);
            clients.back().MakeFiles();
        }
        const auto end = IntegrityEnd(share);
        std::vector<std::thread> threads;
        for (IntegrityClient& client : clients)
            threads.emplace_back([&client, end] { client.Run(end); });
        for (std::thread& thread : threads) thread.join();
        uint64_t operations = 0, bytes = 0;
        for (IntegrityClient& client : clients) {
            client.ExpectEverythingAsWritten(tree_.Path("share"));
            operations += client.Operations();
            bytes += client.Bytes();
        }
        printf("%llu operations, %llu MiB\n", static_cast<unsigned long long>(operations),
               static_cast<unsigned long long>(bytes >> 20));
        EXPECT_GT(operations, 0u);
    }

    PrivateTree tree_;
    Daemon daemon_{tree_};
};

TEST_P(Integrity, WhatIsReadIsWhatWasWrittenLast) {
    // With one thread, descriptors come and go with every call besides.
    const bool oneThread = IsOneThread(GetParam());
    ASSERT_NO_FATAL_FAILURE(
        StartDaemon(ModeSettings(GetParam()) + (oneThread ? "oxelFdCacheSize = 1\n" : "")));
    WriteAndRead(oneThread ? 0.1 : 0.2);
}

OXEL_ALL_MODES(Integrity);

}  // namespace
}  // namespace oxel::test
