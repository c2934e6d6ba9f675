// SPDX-License-Identifier: Apache-2.0
//
// The network services in hardened mode in a test's child process, with clients on real sockets and
// a share whose every answer the test chooses.
#pragma once

#include <atomic>
#include <csignal>
#include <functional>
#include <string>
#include <vector>

#include "base/sync.h"
#include "bin/oxelService_limits.h"
#include "nfs_service.h"

namespace oxel::test {

inline constexpr uint32_t kNfs = 100003, kMount = 100005;

class HardenedServices {
  public:
    // `settings`: more lines of section "Oxel".
    explicit HardenedServices(const std::string& settings = "")
        : root_("[Oxel]\nnHardened = 1\nnNfs3Port = 0\nnAllowOtherNFSServers = 1\n" + settings) {
        signal(SIGPIPE, SIG_IGN);
        std::string failedStep;
        EXPECT_TRUE(StartNetworkServices(failedStep)) << failedStep;
        EXPECT_TRUE(gHardened);
    }
    // Ends the receive loop and waits for the calls that are under way: what their handlers use
    // must be older than this.
    ~HardenedServices() {
        Stop();
        WaitForCalls();
    }
    static void Stop() {
        RequestStop();
        EXPECT_TRUE(WaitForReceiveLoop(60000));
    }
    static void WaitForCalls() {
        Eventually([] { return gCallInfoPool.Free() == gCallInfoPool.Total(); });
    }

    // A client; `receiveBytes`: of its receive buffer, when it is to be small.
    static RpcClient Connect(int family = AF_INET, int receiveBytes = 0) {
        UniqueFd fd(socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (receiveBytes != 0) {
            EXPECT_EQ(
                setsockopt(fd.Get(), SOL_SOCKET, SO_RCVBUF, &receiveBytes, sizeof receiveBytes), 0);
        }
        sockaddr_in6 six{};
        six.sin6_family = AF_INET6;
        six.sin6_addr = in6addr_loopback;
        sockaddr_in four{};
        four.sin_family = AF_INET;
        four.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        six.sin6_port = four.sin_port = htons(OxelServiceGlobals::nfsPort);
        EXPECT_EQ(family == AF_INET6
                      ? connect(fd.Get(), reinterpret_cast<sockaddr*>(&six), sizeof six)
                      : connect(fd.Get(), reinterpret_cast<sockaddr*>(&four), sizeof four),
                  0)
            << strerror(errno);
        return RpcClient(std::move(fd));
    }
    static RpcReply Ask(RpcClient& client, const RpcCall& call) {
        client.Send(call);
        const RpcReply reply = client.Expect();
        EXPECT_EQ(reply.xid, call.xid);
        return reply;
    }
    // Whether this client is served.
    static bool Answers(RpcClient& client) {
        const RpcReply reply = Ask(client, NfsService::Null(0x7777));
        return reply.status == MSG_ACCEPTED && reply.accept == SUCCESS;
    }
    // Whether somebody else is served.
    static bool Answers() {
        RpcClient client = Connect();
        return Answers(client);
    }
    static uint64_t Ended(EndReason reason) {
        return EndCounts()[static_cast<size_t>(reason)].second;
    }

  private:
    PrivateRoot root_;
};

// A gate in the share's GETATTR: calls wait in it until it is opened.
class Gate {
  public:
    explicit Gate(MockShare& share) {
        share.onStat = [this](OxelCtxt*) {
            ++waiting_;
            open_.wait();
            --waiting_;
        };
    }
    ~Gate() { Open(); }
    // From now on nobody waits any more.
    void Open() { open_.set(); }
    // Returns when so many calls wait in it at least.
    void WaitFor(unsigned calls) const {
        Eventually([&] { return waiting_ >= calls; });
    }
    unsigned Waiting() const { return waiting_; }

  private:
    XoEvent open_{true};
    std::atomic<unsigned> waiting_{0};
};

}  // namespace oxel::test
