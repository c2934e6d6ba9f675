// SPDX-License-Identifier: Apache-2.0
//
// The end of the companion service.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "tests/companion/control_fixture.h"

namespace oxel::test {

class PellServiceStop : public ControlTest {};

TEST_F(PellServiceStop, MayBeCalledWithoutAStartAndAgain) {
    StopPellService();
    StopPellService();
    Start();
    StopPellService();
    StopPellService();
}

TEST_F(PellServiceStop, RemovesTheSocketFileAndAnswersNobody) {
    Start();
    StopPellService();
    EXPECT_FALSE(std::filesystem::exists(socket_));
    ControlReply reply;
    EXPECT_FALSE(ControlCall(socket_, {{"verb", "status"}}, 0, &reply));
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(PellServiceStop, LeavesTheSocketOfASuccessorAlone) {
    Start();
    std::filesystem::remove(socket_);
    SocketFile file;
    const UniqueFd successor = ListenUnix(socket_, &file);
    ASSERT_TRUE(successor);
    StopPellService();
    EXPECT_TRUE(std::filesystem::exists(socket_));
}

TEST_F(PellServiceStop, MayBeStartedAgain) {
    SetControlHandler("status", Constant({{"state", 2}}));
    for (int i = 0; i < 20; ++i) {
        Start();
        EXPECT_EQ(Ask({{"verb", "status"}}).body["state"], 2);
        StopPellService();
    }
}

TEST_F(PellServiceStop, RequestUnderWayIsFinishedFirst) {
    SlowHandler slow;
    SetControlHandler("slow", slow.Handler());
    Start();
    ControlReply reply;
    std::thread asker([&] { reply = Ask({{"verb", "slow"}}); });
    slow.WaitUntilStarted(1);
    std::thread stopper(StopPellService);
    // The stop has begun when the file is gone.
    while (std::filesystem::exists(socket_)) std::this_thread::yield();
    slow.release.set();
    stopper.join();
    asker.join();
    EXPECT_TRUE(reply.ok);
    EXPECT_EQ(reply.body["slow"], true);
}

// "start-network" may take minutes.
TEST_F(PellServiceStop, RequestThatDoesNotFinishIsNotWaitedForForEver) {
    SlowHandler slow;
    SetControlHandler("slow", slow.Handler());
    Start();
    std::thread asker([&] { EXPECT_TRUE(Ask({{"verb", "slow"}}).ok) << "its answer still comes"; });
    slow.WaitUntilStarted(1);
    StopPellService();
    slow.release.set();
    asker.join();
}

TEST_F(PellServiceStop, ClientThatHasNotFinishedAskingIsCutOff) {
    Start();
    const UniqueFd silent = Connect(), half = Connect();
    Send(half.Get(), "{\"verb\":");
    StopPellService();
    EXPECT_EQ(ReadReply(half.Get()), "CLOSED");
    EXPECT_EQ(ReadReply(silent.Get()), "CLOSED");
}

TEST_F(PellServiceStop, HandlerMayStopTheServiceAndItsAnswerStillComes) {
    SetControlHandler("stop", [](const nlohmann::json&) {
        StopPellService();
        ControlReply reply;
        reply.body["stopped"] = true;
        return reply;
    });
    Start();
    EXPECT_EQ(Ask({{"verb", "stop"}}).body["stopped"], true);
    EXPECT_FALSE(std::filesystem::exists(socket_));
}

TEST_F(PellServiceStop, SeveralThreadsMayStopItAtOnce) {
    SetControlHandler("status", Constant({}));
    for (int round = 0; round < 20; ++round) {
        Start();
        std::thread stoppers[3];
        for (std::thread& stopper : stoppers) stopper = std::thread(StopPellService);
        ControlReply reply;
        (void)ControlCall(socket_, {{"verb", "status"}}, 0, &reply);  // answered or not
        for (std::thread& stopper : stoppers) stopper.join();
    }
}

}  // namespace oxel::test
