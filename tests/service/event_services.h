// SPDX-License-Identifier: Apache-2.0
//
// The network services in hardened mode in a test's child process, with clients on real sockets and
// a share whose every answer the test chooses.
#pragma once

#include <netinet/tcp.h>

#include <csignal>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "base/sync.h"
#include "bin/oxelService_limits.h"
#include "nfs_service.h"

namespace oxel::test {

inline constexpr uint32_t kNfs = 100003, kMount = 100005;

// GETATTR as some user, of an object in a share of that number (any is MockShare's). The numbers
// below 64 are kinds of calls of their own, and the first call of a kind is taken for a quick one.
inline RpcCall GetattrOf(uint32_t share, uint32_t uid, uint32_t xid) {
    RpcCall call = NfsService::Getattr(xid);
    call.arguments.replace(8, 4, Word(share));
    return call.WithUnix(uid);
}

class HardenedServices {
  public:
    // `settings`: more lines of section "Oxel". With one receive loop unless they say otherwise:
    // the last of two equal keys wins.
    explicit HardenedServices(const std::string& settings = "")
        : root_(
              "[Oxel]\nnHardened = 1\nnNfs3Port = 0\nnAllowOtherNFSServers = 1\n"
              "nReceiveThreads = 1\n" +
              settings) {
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
        const int on = 1;  // what is sent later does not wait for what was sent before
        EXPECT_EQ(setsockopt(fd.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on), 0);
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
    // As above, however slow NULL calls have been until now: by a call of a kind that there was
    // none of. Forty times at most.
    static bool AnswersAnew() {
        static uint32_t share = 20;
        RpcClient client = Connect();
        const RpcReply reply = Ask(client, GetattrOf(share++, 0, 0x7778));
        return share < 64 && reply.status == MSG_ACCEPTED && reply.accept == SUCCESS;
    }
    static uint64_t Ended(EndReason reason) {
        return EndCounts()[static_cast<size_t>(reason)].second;
    }

  private:
    PrivateRoot root_;
};

// A gate in GETATTR: calls of users other than root wait in it until it is opened.
class Gate {
  public:
    static constexpr uint32_t kHeldUser = 1;

    explicit Gate(MockShare& share) {
        share.onStat = [this](OxelCtxt* ctxt) {
            if (ctxt->id.uid == 0) return;
            Note(ThreadName());
            open_.wait();
        };
    }
    ~Gate() { Open(); }
    // From now on nobody waits any more.
    void Open() { open_.set(); }
    // Returns when so many calls have come to it at least.
    void WaitFor(size_t calls) {
        Eventually([&] { return Threads().size() >= calls; });
    }
    // Those of the calls that have come to it.
    std::vector<std::string> Threads() {
        std::lock_guard<std::mutex> lock(mutex_);
        return threads_;
    }
    static RpcCall Held(uint32_t xid, uint32_t share = 1) {
        return GetattrOf(share, kHeldUser, xid);
    }

  private:
    void Note(const std::string& thread) {
        std::lock_guard<std::mutex> lock(mutex_);
        threads_.push_back(thread);
    }
    XoEvent open_{true};
    std::mutex mutex_;
    std::vector<std::string> threads_;  // guarded by mutex_
};

}  // namespace oxel::test
