// SPDX-License-Identifier: Apache-2.0
//
// A companion service in a private tree, and raw connections to it.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <functional>
#include <string>
#include <thread>

#include "base/instance.h"
#include "base/sync.h"
#include "companion/PellService.h"
#include "companion/control_socket.h"
#include "tests/base/private_root.h"
#include "tests/support/log_capture.h"

namespace oxel::test {

class ControlTest : public testing::Test {
  protected:
    ControlTest() : socket_(root_.Paths().controlSocket) {
        EXPECT_TRUE(MakeDirectories(root_.Paths().runDir, 0755));
    }
    // Before the test's own members go, which handlers use.
    void TearDown() override {
        StopPellService();
        SetNetworkServiceSetupCB(nullptr);
    }
    void Start() { ASSERT_TRUE(StartPellService(socket_)); }

    // Asks through the client; a call that fails becomes a refusal.
    ControlReply Ask(const nlohmann::json& request) {
        ControlReply reply;
        if (!ControlCall(socket_, request, 0, &reply)) {
            reply.ok = false;
            reply.error = std::string("NO ANSWER: ") + strerror(errno);
        }
        return reply;
    }

    // Sends bytes as they are; whether the other end still takes all of them does not matter.
    static void Send(int fd, const std::string& bytes) { (void)SendAll(fd, bytes, Deadline()); }
    // The reply line without its newline; "CLOSED" when none came.
    static std::string ReadReply(int fd) {
        std::string line;
        return ReceiveLine(fd, 1u << 20, Deadline(), &line) == LineResult::Line ? line : "CLOSED";
    }
    UniqueFd Connect() const { return ConnectUnix(socket_, Deadline()); }
    std::string AskRaw(const std::string& bytes) {
        const UniqueFd fd = Connect();
        Send(fd.Get(), bytes);
        return ReadReply(fd.Get());
    }

    PrivateRoot root_;
    const std::string socket_;
};

// A handler that stays until it is let go.
struct SlowHandler {
    XoEvent release{true};
    std::atomic<int> started{0};
    ControlHandler Handler() {
        return [this](const nlohmann::json&) {
            ++started;
            release.wait();
            ControlReply reply;
            reply.body["slow"] = true;
            return reply;
        };
    }
    void WaitUntilStarted(int count) const {
        while (started < count) std::this_thread::yield();
    }
};

inline ControlHandler Constant(nlohmann::json body) {
    return [body](const nlohmann::json&) {
        ControlReply reply;
        reply.body = body;
        return reply;
    };
}

}  // namespace oxel::test
