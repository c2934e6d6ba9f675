// SPDX-License-Identifier: Apache-2.0
//
// How many handler threads and call records there are, and that the threads' number can be changed
// while the daemon runs.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "bin/oxelService.h"
#include "bin/oxelService_callinfo.h"
#include "private_root.h"
#include "tests/support/log_capture.h"

using oxel::test::LogCapture;
using oxel::test::LogLine;
using oxel::test::PrivateRoot;

namespace {

const std::string kSetUp = "bool InitializeNFSRPCThreadPool()";
const std::string kTimer = "XOTimerErrno ReadRegistryForRPCThreadCnt(void*)";

std::string Count(const std::string& number) {
    return "[Oxel]\nnMaxNFSRPCThread = " + number + "\n";
}

// Sets the pools up with this store; its messages.
std::vector<LogLine> SetUpWith(const std::string& conf) {
    const PrivateRoot root(conf);
    LogCapture log;
    EXPECT_TRUE(InitializeNFSRPCThreadPool());
    return log.Lines();
}

// What the timer says when it re-reads this store.
std::vector<LogLine> ReReadWith(const PrivateRoot& root, const std::string& conf) {
    root.WriteConf(conf);
    LogCapture log;
    EXPECT_EQ(ReadRegistryForRPCThreadCnt(&gWorkerPool), 0);
    return log.Lines();
}

}  // namespace

TEST_IN_CHILD(HandlerThreads, WithoutTheKeyThereAre5ThreadsAtMostAnd25Records) {
    EXPECT_EQ(
        SetUpWith(""),
        (std::vector<LogLine>{{1, kSetUp,
                               "INFO: Max NFS RPC handler thread count not set in registry. So "
                               "setting it to [5]."}}));
    EXPECT_EQ(gWorkerPool.maxCount(), 5u);
    EXPECT_EQ(gWorkerPool.threadCount(), 1u);
    EXPECT_EQ(gCallInfoPool.Total(), 25u);
    EXPECT_EQ(gCallInfoPool.Free(), 25u);
}

TEST_IN_CHILD(HandlerThreads, ThereAreThreeSendersWhateverTheKeySays) {
    SetUpWith(Count("40"));
    EXPECT_EQ(gRPCSendPool.maxCount(), 3u);
    EXPECT_EQ(gRPCSendPool.threadCount(), 3u);
}

TEST_IN_CHILD(HandlerThreads, CountOf0Becomes1) {
    EXPECT_EQ(SetUpWith(Count("0")),
              (std::vector<LogLine>{{1, kSetUp,
                                     "INFO: Max NFS RPC handler thread count [0] must be => "
                                     "[1]. So setting to [1],"}}));
    EXPECT_EQ(gWorkerPool.maxCount(), 1u);
    EXPECT_EQ(gCallInfoPool.Total(), 5u);
}

TEST_IN_CHILD(HandlerThreads, CountOf101Becomes100) {
    EXPECT_EQ(SetUpWith(Count("101")),
              (std::vector<LogLine>{{1, kSetUp,
                                     "INFO: Max NFS RPC handler thread count [101] must be "
                                     "=< [100]. So setting to [100],"}}));
    EXPECT_EQ(gWorkerPool.maxCount(), 100u);
    EXPECT_EQ(gCallInfoPool.Total(), 500u);
}

TEST_IN_CHILD(HandlerThreads, CountsFrom1To100AreTakenWithoutAMessage) {
    EXPECT_EQ(SetUpWith(Count("100")), std::vector<LogLine>{});
    EXPECT_EQ(gWorkerPool.maxCount(), 100u);
}

TEST_IN_CHILD(HandlerThreads, CountOf1IsTakenWithoutAMessage) {
    EXPECT_EQ(SetUpWith(Count("1")), std::vector<LogLine>{});
    EXPECT_EQ(gWorkerPool.maxCount(), 1u);
    EXPECT_EQ(gCallInfoPool.Total(), 5u);
}

TEST_IN_CHILD(HandlerThreads, ChangeWhileRunningMovesTheMaximumAndNotTheRecords) {
    SetUpWith(Count("2"));
    PrivateRoot root;
    EXPECT_EQ(
        ReReadWith(root, Count("9")),
        (std::vector<LogLine>{{4, kTimer, "INFO: Max NFS RPC handler thread count set to [9]"}}));
    EXPECT_EQ(gWorkerPool.maxCount(), 9u);
    EXPECT_EQ(gCallInfoPool.Total(), 10u);
}

TEST_IN_CHILD(HandlerThreads, KeyThatWentAwayMeans5) {
    SetUpWith(Count("2"));
    PrivateRoot root;
    EXPECT_EQ(ReReadWith(root, "# nothing\n"),
              (std::vector<LogLine>{
                  {4, kTimer, "INFO: Max NFS RPC handler thread count not set in registry"},
                  {4, kTimer, "INFO: Max NFS RPC handler thread count set to [5]"}}));
    EXPECT_EQ(gWorkerPool.maxCount(), 5u);
    EXPECT_EQ(gCallInfoPool.Total(), 10u);
}

TEST_IN_CHILD(HandlerThreads, ChangeTo0Becomes1) {
    SetUpWith(Count("2"));
    PrivateRoot root;
    EXPECT_EQ(
        ReReadWith(root, Count("0")),
        (std::vector<LogLine>{{1, kTimer,
                               "INFO: Max NFS RPC handler thread count [0] must be => [1]. "
                               "So setting to [1]."},
                              {4, kTimer, "INFO: Max NFS RPC handler thread count set to [1]"}}));
    EXPECT_EQ(gWorkerPool.maxCount(), 1u);
}

TEST_IN_CHILD(HandlerThreads, ChangeTo4000000000Becomes100) {
    SetUpWith(Count("2"));
    PrivateRoot root;
    EXPECT_EQ(
        ReReadWith(root, Count("4000000000")),
        (std::vector<LogLine>{{1, kTimer,
                               "INFO: Max NFS RPC handler thread  count [4000000000] must be "
                               "=< [100]. So setting to [100]."},
                              {4, kTimer, "INFO: Max NFS RPC handler thread count set to [100]"}}));
    EXPECT_EQ(gWorkerPool.maxCount(), 100u);
}

TEST_IN_CHILD(HandlerThreads, APoolThatCannotChangeIsAnError) {
    PrivateRoot root;
    EXPECT_EQ(ReReadWith(root, Count("7")),
              (std::vector<LogLine>{
                  {-1, kTimer, "ERROR: Failed to set maximum RPC handler thread count to [7]"}}));
}
