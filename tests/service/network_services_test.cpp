// SPDX-License-Identifier: Apache-2.0
//
// All four services from start to end, with the receive loop on its own thread and clients on real
// sockets.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/select.h>

#include <csignal>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "base/perf_counter.h"
#include "base/store.h"
#include "base/thread.h"
#include "bin/oxelService.h"
#include "bin/oxelService_callinfo.h"
#include "companion/PellService.h"
#include "private_root.h"
#include "rpc_wire.h"
#include "tests/support/log_capture.h"

using oxel::UniqueFd;
using oxel::test::LogCapture;
using oxel::test::LogLine;
using oxel::test::PrivateRoot;
using oxel::test::RpcCall;
using oxel::test::RpcClient;
using oxel::test::RpcReply;

namespace {

constexpr uint32_t kNfs = 100003, kMount = 100005;
constexpr char kConf[] = "[Oxel]\nnNfs3Port = 0\nnAllowOtherNFSServers = 1\n";

RpcClient Connect(int family) {
    UniqueFd fd(socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in6 six{};
    sockaddr_in four{};
    six.sin6_family = AF_INET6;
    six.sin6_addr = in6addr_loopback;
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

RpcReply AskNull(RpcClient& client, uint32_t program, uint32_t version) {
    RpcCall call;
    call.xid = program + version;
    call.program = program;
    call.version = version;
    client.Send(call);
    const RpcReply reply = client.Expect();
    EXPECT_EQ(reply.xid, call.xid);
    return reply;
}

void Start() {
    signal(SIGPIPE, SIG_IGN);
    std::string failedStep;
    ASSERT_TRUE(StartNetworkServices(failedStep)) << failedStep;
    EXPECT_EQ(failedStep, "");
}

// Ends the receive loop, which is there for certain once it has answered.
void Stop() {
    RpcClient client = Connect(AF_INET);
    AskNull(client, kNfs, 3);
    RequestStop();
    EXPECT_TRUE(WaitForReceiveLoop(60000));
}

}  // namespace

TEST_IN_CHILD(NetworkServices, AllFourAnswerOnOneSocketOverIpv4AndIpv6) {
    PrivateRoot root(kConf);
    Start();
    EXPECT_EQ(OxelServiceGlobals::oxelStatus, OxelStarted);
    EXPECT_EQ(gServiceCount, 4u);
    EXPECT_NE(OxelServiceGlobals::nfsPort, 0);
    EXPECT_EQ(OxelServiceGlobals::mountPort, OxelServiceGlobals::nfsPort);
    ASSERT_EQ(gAllServiceParams.size(), 4u);
    std::vector<std::pair<uint32_t, uint32_t>> started;
    for (const RPCServiceArgs& service : gAllServiceParams) {
        started.emplace_back(service.program, service.version);
        EXPECT_EQ(service.port, OxelServiceGlobals::nfsPort);
    }
    EXPECT_EQ(started, (std::vector<std::pair<uint32_t, uint32_t>>{
                           {kNfs, 3}, {kMount, 3}, {kMount, 2}, {kMount, 1}}));
    for (const int family : {AF_INET, AF_INET6}) {
        RpcClient client = Connect(family);
        EXPECT_EQ(AskNull(client, kNfs, 3).accept, uint32_t{SUCCESS});
        for (const uint32_t version : {1, 2, 3})
            EXPECT_EQ(AskNull(client, kMount, version).accept, uint32_t{SUCCESS});
        const RpcReply old = AskNull(client, kNfs, 2);
        EXPECT_EQ(old.accept, uint32_t{PROG_MISMATCH});
        EXPECT_EQ(old.low, 3u);
        EXPECT_EQ(old.high, 3u);
        EXPECT_EQ(AskNull(client, 100021, 4).accept, uint32_t{PROG_UNAVAIL});
    }
    Stop();
}

TEST_IN_CHILD(NetworkServices, StartIsToldStepByStep) {
    PrivateRoot root(kConf);
    LogCapture log(1);
    Start();
    const std::string port = std::to_string(OxelServiceGlobals::nfsPort);
    const std::string thread = "void* StartRPCService(void*)";
    for (const LogLine& line : std::vector<LogLine>{
             {1, thread, "Program [100003] Version [3] Protocol [TCP] Port [0]"},
             {1, "bool StartNfs3Service(bool)", "Started NFS service. Port [" + port + "]."},
             {1, "bool StartNetworkServices(std::string&)",
              "Starting mount service as NFS service started successfully."},
             {1, thread, "Program [100005] Version [3] Protocol [TCP] Port [0]"},
             {1, "bool StartMount3Service(void*)", "Started Mount service. Port [" + port + "]."},
             {1, thread, "Program [100005] Version [2] Protocol [TCP] Port [" + port + "]"},
             {1, thread, "Program [100005] Version [1] Protocol [TCP] Port [" + port + "]"}}) {
        EXPECT_EQ(log.Count(line.level, line.text), 1u) << line.text << "\n" << log.Dump();
    }
    EXPECT_TRUE(log.AtLevel(-1).empty()) << log.Dump();
    Stop();
    EXPECT_TRUE(
        log.Has(1, "In SvcRun. This routine calls dispatcher upon receipt of protocol RPCs."));
    EXPECT_EQ(log.Lines().back(),
              (LogLine{1, "void* svcRun(void*)", "Returning from RPC service."}))
        << log.Dump();
}

TEST_IN_CHILD(NetworkServices, SecondStartDoesNothing) {
    PrivateRoot root(kConf);
    Start();
    LogCapture log;
    std::string failedStep;
    EXPECT_TRUE(StartNetworkServices(failedStep));
    EXPECT_EQ(gAllServiceParams.size(), 4u);
    EXPECT_EQ(gCallInfoPool.Total(), 25u);
    EXPECT_FALSE(log.Has(1, "InitializeNfs3Service SUCCESS.")) << log.Dump();
    Stop();
}

TEST_IN_CHILD(NetworkServices, TwoThreadsStartThemOnce) {
    PrivateRoot root(kConf);
    std::thread other(Start);
    Start();
    other.join();
    EXPECT_EQ(gServiceCount, 4u);
    EXPECT_EQ(gAllServiceParams.size(), 4u);
    Stop();
}

TEST_IN_CHILD(NetworkServices, EndOfTheLoopEndsTheCompanionService) {
    PrivateRoot root(kConf);
    const std::string socket = root.paths().controlSocket;
    std::filesystem::create_directories(root.paths().runDir);
    ASSERT_TRUE(oxel::StartPellService(socket));
    Start();
    EXPECT_TRUE(std::filesystem::exists(socket));
    Stop();
    EXPECT_FALSE(std::filesystem::exists(socket));
}

TEST_IN_CHILD(NetworkServices, LoopWritesTheCountersWhenAsked) {
    PrivateRoot root(kConf);
    Start();
    LogCapture log(1);
    RpcClient client = Connect(AF_INET);
    AskNull(client, kNfs, 3);
    gPerfFlag = true;
    gPrintPerfStats = true;
    WakeReceiveLoop();
    while (gPrintPerfStats) std::this_thread::yield();
    EXPECT_FALSE(log.Lines().empty());
    // Off, a request waits until accounting is on again.
    gPerfFlag = false;
    gPrintPerfStats = true;
    WakeReceiveLoop();
    AskNull(client, kNfs, 3);
    AskNull(client, kNfs, 3);
    EXPECT_TRUE(gPrintPerfStats);
    gPerfFlag = true;
    client.Close();
    Stop();
}

TEST_IN_CHILD(NetworkServices, AClientInTheMiddleOfARecordDoesNotHoldUpTheStart) {
    PrivateRoot root(kConf);
    signal(SIGPIPE, SIG_IGN);
    ASSERT_TRUE(InitializeNFSRPCThreadPool());
    InitializeNfs3Service();
    InitializeMount3Service();
    ASSERT_TRUE(StartNfs3Service(true));
    RpcClient client = Connect(AF_INET);
    RpcCall call;
    const std::string next = RpcCall{.xid = 2}.Bytes();
    client.Send(call.Bytes() + next.substr(0, 10));
    EXPECT_EQ(client.Expect().xid, 1u);
    // The loop reads on for the rest; the RPC library would give the client up after 35 seconds.
    EXPECT_TRUE(StartMount3Service(nullptr));
    client.Send(next.substr(10));
    EXPECT_EQ(client.Expect().xid, 2u);
    EXPECT_EQ(gServiceCount, 4u);
    Stop();
}

TEST_IN_CHILD(NetworkServices, LoopServesClientsThatComeGoAndReset) {
    PrivateRoot root(kConf);
    Start();
    for (int round = 0; round < 30; ++round) {
        RpcClient orderly = Connect(AF_INET), rude = Connect(AF_INET6), hasty = Connect(AF_INET);
        RpcCall call;
        rude.Send(call);
        rude.Reset();
        hasty.Reset();
        AskNull(orderly, kNfs, 3);
    }
    while (Connection::Count() != 0) std::this_thread::yield();
    Stop();
}

TEST_IN_CHILD(NetworkServices, CallsOnManyConnectionsAtOnceAreAllAnswered) {
    PrivateRoot root(kConf);
    Start();
    std::vector<std::thread> clients;
    for (int i = 0; i < 6; ++i) {
        clients.emplace_back([i] {
            RpcClient client = Connect(i % 2 == 0 ? AF_INET : AF_INET6);
            std::string calls;
            RpcCall call;
            for (call.xid = 1; call.xid <= 50; ++call.xid) calls += call.Bytes();
            client.Send(calls);
            std::vector<bool> answered(51);
            for (int n = 0; n < 50; ++n) {
                const RpcReply reply = client.Expect();
                ASSERT_LE(reply.xid, 50u);
                EXPECT_FALSE(answered[reply.xid]) << "twice";
                answered[reply.xid] = true;
            }
        });
    }
    for (std::thread& client : clients) client.join();
    Stop();
}

TEST_IN_CHILD(NetworkServices, ClientsAreServedHoweverManyFilesAreOpen) {
    rlimit limit;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    if (limit.rlim_max < 4096) GTEST_SKIP() << "this machine allows too few descriptors";
    limit.rlim_cur = 4096;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    PrivateRoot root(kConf);
    Start();
    RpcClient first = Connect(AF_INET);
    AskNull(first, kNfs, 3);
    std::vector<UniqueFd> files;
    for (int i = 0; i < 1500; ++i) files.emplace_back(open("/", O_PATH | O_CLOEXEC));
    for (int round = 0; round < 20; ++round) {
        std::vector<RpcClient> clients;
        for (int i = 0; i < 20; ++i) clients.push_back(Connect(AF_INET));
        for (RpcClient& client : clients)
            EXPECT_EQ(AskNull(client, kNfs, 3).accept, uint32_t{SUCCESS});
    }
    EXPECT_EQ(AskNull(first, kNfs, 3).accept, uint32_t{SUCCESS});
    Stop();
}

TEST_IN_CHILD(NetworkServices, FailedNfsStartIsToldAndWaitsUntilTheProcessIsToStop) {
    PrivateRoot root;
    InitializeNfs3Service();
    for (const bool retry : {true, false}) {
        OxelServiceGlobals::SetExitProcess(0);
        oxel::ResetSleepers();
        OxelServiceGlobals::SetNFSPort(1);
        OxelServiceGlobals::SetCoExistWithOtherNFSServers(true);
        if (geteuid() == 0 && seteuid(65534) != 0) GTEST_SKIP() << "cannot become nobody";
        std::vector<LogLine> lines;
        oxel::LogWriter::SetSink([&](const oxel::LogRecord& record) {
            lines.push_back({record.level, record.function, record.text});
            // What a signal would do while the start waits for its next try.
            if (lines.back().text == "Failed to Start NFS service.")
                OxelServiceGlobals::SetExitProcess(1);
        });
        EXPECT_EQ(StartNfs3Service(retry), !retry)
            << "without retries a failure is told as success";
        oxel::LogWriter::SetSink({});
        ASSERT_FALSE(lines.empty());
        EXPECT_EQ(lines.back(),
                  (LogLine{-1, "bool StartNfs3Service(bool)", "Failed to Start NFS service."}));
        EXPECT_EQ(OxelServiceGlobals::oxelStatus, OxelNoBind);
        EXPECT_EQ(gServiceCount, 0u);
    }
}

TEST_IN_CHILD(NetworkServices, StopWhileTheStartWaitsEndsItWithoutMountServices) {
    PrivateRoot root("[Oxel]\nnNfs3Port = 1\nnAllowOtherNFSServers = 1\n");
    if (geteuid() == 0) {
        std::filesystem::permissions(root.root(), std::filesystem::perms::all);
        if (seteuid(65534) != 0) GTEST_SKIP() << "cannot become nobody";
    }
    std::vector<LogLine> lines;
    oxel::LogWriter::SetSink([&](const oxel::LogRecord& record) {
        lines.push_back({record.level, record.function, record.text});
        if (lines.back().text == "Failed to Start NFS service.") RequestStop();
    });
    std::string failedStep;
    EXPECT_TRUE(StartNetworkServices(failedStep));
    oxel::LogWriter::SetSink({});
    EXPECT_EQ(failedStep, "StartNfs3Service");
    EXPECT_TRUE(OxelServiceGlobals::networkServicesStarted);
    EXPECT_EQ(lines.back(),
              (LogLine{-1, lines.back().function,
                       "Not starting mount service as NFS service failed to start."}));
    EXPECT_TRUE(WaitForReceiveLoop(0)) << "there is none to wait for";
}

TEST_IN_CHILD(NetworkServices, FailedMountStartIsToldAndDoesNotMakeTheLoopSpin) {
    PrivateRoot root(kConf);
    signal(SIGPIPE, SIG_IGN);
    // Somebody else in this process has MOUNT 3 already, on a socket of the same kind.
    CLuSocket other;
    ASSERT_FALSE(other.Create(AF_INET6));
    ASSERT_FALSE(other.Bind(CLuIPAddr()));
    ASSERT_FALSE(other.Listen(1));
    SVCXPRT* transport = svc_tli_create(other.GetDescriptor(), nullptr, nullptr, 0, 0);
    ASSERT_NE(transport, nullptr);
    ASSERT_TRUE(svc_reg(transport, kMount, 3, NfsDispatcher(), nullptr));
    oxel::test::ServedConnection connection;
    LogCapture log(1);
    Start();
    EXPECT_TRUE(log.Has(-1, "Error: Failed to start RPC service")) << log.Dump();
    EXPECT_TRUE(log.Has(-1, "Failed to Start mount service. Will exit."));
    EXPECT_EQ(OxelServiceGlobals::oxelStatus, OxelNoRegistration);
    EXPECT_EQ(OxelServiceGlobals::exitProcess, 0) << "in spite of its words";
    EXPECT_EQ(gServiceCount, 1u);
    // The socket that all share has gone with the failure, out of the library's sight as well.
    fd_set served = svc_fdset;
    FD_CLR(connection.fd, &served);
    FD_CLR(other.GetDescriptor(), &served);
    for (int fd = 0; fd < FD_SETSIZE; ++fd) EXPECT_FALSE(FD_ISSET(fd, &served)) << fd;
    // The connection that was there is served on.
    EXPECT_EQ(AskNull(connection.client, kNfs, 3).accept, uint32_t{SUCCESS});
    RequestStop();
    EXPECT_TRUE(WaitForReceiveLoop(60000));
}
