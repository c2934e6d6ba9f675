// SPDX-License-Identifier: Apache-2.0
//
// The client side against daemons that misbehave.
#include <gtest/gtest.h>
#include <poll.h>

#include "tests/companion/control_fixture.h"

namespace oxel::test {

class ControlClient : public ControlTest {
  protected:
    // Calls a listener that reads one request and sends `reply` as it is. The errno, 0 for success.
    int CallAgainst(const std::string& reply, ControlReply* out) {
        SocketFile file;
        const UniqueFd listener = ListenUnix(socket_, &file);
        EXPECT_TRUE(listener);
        std::thread daemon([&] {
            pollfd one = {listener.Get(), POLLIN, 0};
            (void)poll(&one, 1, -1);
            const UniqueFd fd(accept4(listener.Get(), nullptr, nullptr, SOCK_NONBLOCK));
            std::string request;
            EXPECT_EQ(ReceiveLine(fd.Get(), 65536, Deadline(), &request), LineResult::Line);
            Send(fd.Get(), reply);
        });
        const bool answered = ControlCall(socket_, {{"verb", "x"}}, 0, out);
        const int error = answered ? 0 : errno;
        daemon.join();
        RemoveSocketFile(file);
        return error;
    }
};

TEST_F(ControlClient, NoSocket) {
    ControlReply reply;
    EXPECT_FALSE(ControlCall(socket_, {{"verb", "x"}}, 1000, &reply));
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(ControlClient, NobodyListens) {
    SocketFile file;
    (void)ListenUnix(socket_, &file);
    ControlReply reply;
    EXPECT_FALSE(ControlCall(socket_, {{"verb", "x"}}, 1000, &reply));
    EXPECT_EQ(errno, ECONNREFUSED);
}

TEST_F(ControlClient, DaemonThatNeverAnswersIsGivenUp) {
    SocketFile file;
    const UniqueFd listener = ListenUnix(socket_, &file);
    ControlReply reply;
    EXPECT_FALSE(ControlCall(socket_, {{"verb", "x"}}, 20, &reply));
    EXPECT_EQ(errno, ETIMEDOUT);
}

TEST_F(ControlClient, DaemonThatNeverAcceptsIsGivenUp) {
    SocketFile file;
    const UniqueFd listener = ListenUnix(socket_, &file);
    std::vector<UniqueFd> waiting;
    int error = 0;
    for (int i = 0; i < 100 && error == 0; ++i) {  // until the backlog is full
        waiting.push_back(ConnectUnix(socket_, DeadlineAfterMs(1)));
        if (!waiting.back()) error = errno;
    }
    ASSERT_EQ(error, EAGAIN);
    ControlReply reply;
    EXPECT_FALSE(ControlCall(socket_, {{"verb", "x"}}, 20, &reply));
    EXPECT_EQ(errno, ETIMEDOUT);
}

TEST_F(ControlClient, WhatIsNoReplyIsAnError) {
    ControlReply reply;
    reply.error = "untouched";
    for (const char* text : {"garbage\n", "\n", "[]\n", "{}\n", "{\"ok\":1}\n", "{\"ok\":true"}) {
        EXPECT_EQ(CallAgainst(text, &reply), EPROTO) << text;
    }
    EXPECT_EQ(reply.error, "untouched");
}

// Whatever shows it would use its stack up.
TEST_F(ControlClient, AReplyOfNothingButBracketsIsAnError) {
    ControlReply reply;
    for (const size_t depth : {40u, 100000u}) {
        const std::string nested = std::string(depth, '[') + std::string(depth, ']');
        EXPECT_EQ(CallAgainst("{\"ok\":true,\"x\":" + nested + "}\n", &reply), EPROTO) << depth;
        EXPECT_EQ(CallAgainst(std::string(depth, '[') + "\n", &reply), EPROTO) << depth;
    }
    EXPECT_EQ(CallAgainst("{\"ok\":true,\"x\":[[[[7]]]]}\n", &reply), 0);
    EXPECT_EQ(reply.body["x"][0][0][0][0], 7);
}

TEST_F(ControlClient, DaemonThatEndsWithoutAWordIsAnError) {
    ControlReply reply;
    EXPECT_EQ(CallAgainst("", &reply), ECONNRESET);
}

TEST_F(ControlClient, ReplyIsTakenApart) {
    ControlReply reply;
    EXPECT_EQ(CallAgainst("{\"ok\":false,\"error\":\"no\",\"n\":1}\n", &reply), 0);
    EXPECT_FALSE(reply.ok);
    EXPECT_EQ(reply.error, "no");
    EXPECT_EQ(reply.body, (nlohmann::json{{"n", 1}}));
    EXPECT_EQ(CallAgainst("{\"ok\":true,\"error\":7}\n", &reply), 0);
    EXPECT_TRUE(reply.ok);
    EXPECT_EQ(reply.error, "");
}

TEST_F(ControlClient, LongReplyComesWhole) {
    ControlReply reply;
    const std::string text(3u << 20, 'x');
    EXPECT_EQ(CallAgainst("{\"ok\":true,\"x\":\"" + text + "\"}\n", &reply), 0);
    EXPECT_EQ(reply.body["x"], text);
}

}  // namespace oxel::test
