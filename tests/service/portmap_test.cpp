// SPDX-License-Identifier: Apache-2.0
//
// Registration with the port mapper, in a network of its own: without one, what is said; with one,
// what it then knows.
#include <gtest/gtest.h>
#include <rpc/rpcb_clnt.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "bin/oxelService.h"
#include "private_network.h"
#include "private_root.h"
#include "rpc_wire.h"
#include "tests/support/log_capture.h"

using oxel::test::LogCapture;
using oxel::test::LogLine;
using oxel::test::PrivateRoot;

namespace {

const std::string kUnregisterOs = "bool_t UnRegisterWithPortMapperOS(const RPCServiceArgs*)";
const std::string kUnregister = "bool UnRegisterWithPortMapper(const RPCServiceArgs*)";
const std::string kRegisterOs = "bool_t RegisterWithPortMapperOS(const RPCServiceArgs*)";
const std::string kRegister = "bool RegisterWithPortMapper(const RPCServiceArgs*)";
const std::string kSweep = "void RegisterAllServicesWithPortMapper()";

constexpr uint32_t kNfs = 100003, kMount = 100005;

std::string Which(uint32_t program, uint32_t version) {
    return "Prog [" + std::to_string(program) + "] Version [" + std::to_string(version) + "]";
}

std::vector<LogLine> operator+(std::vector<LogLine> first, const std::vector<LogLine>& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

std::vector<LogLine> Unregistered(uint32_t program, uint32_t version) {
    const std::string which = Which(program, version);
    return {{1, kUnregisterOs, "Will unregister " + which},
            {-1, kUnregisterOs, "rpcb_unset() failed. Cannot unregister " + which},
            {-1, kUnregister, "UnRegisterWithPortMapperOS() failed. " + which}};
}

// A port mapper in this process's private network, which ends with it.
class PortMapper {
  public:
    PortMapper() {
        const char* file = "/usr/sbin/rpcbind";
        if (!std::filesystem::exists(file)) file = "/sbin/rpcbind";
        pid_ = fork();
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            execl(file, "rpcbind", "-f", nullptr);
            _exit(127);
        }
        running_ = pid_ > 0;
        // It answers once its socket is there and taken care of; the child's alarm bounds this.
        while (running_ && !Answers() && waitpid(pid_, nullptr, WNOHANG) == 0)
            std::this_thread::yield();
        running_ = running_ && Answers();
    }
    ~PortMapper() {
        if (pid_ <= 0) return;
        kill(pid_, SIGTERM);
        waitpid(pid_, nullptr, 0);
    }
    bool IsRunning() const { return running_; }
    // The port that clients are told; 0 when the service is not known.
    static int PortOf(uint32_t program, uint32_t version, const char* netid = "tcp") {
        netconfig* entry = getnetconfigent(netid);
        EXPECT_NE(entry, nullptr);
        char buffer[128];
        netbuf address{sizeof buffer, 0, buffer};
        const bool found = rpcb_getaddr(program, version, entry, &address,
                                        std::string(netid) == "tcp6" ? "::1" : "127.0.0.1") != 0;
        freenetconfigent(entry);
        if (!found) return 0;
        return ntohs(reinterpret_cast<sockaddr_in*>(buffer)->sin_port);
    }

  private:
    static bool Answers() {
        const std::filesystem::path socket = "/run/rpcbind.sock";
        if (!std::filesystem::exists(socket)) return false;
        return PortOf(100000, 4) == 111;
    }
    pid_t pid_ = 0;
    bool running_ = false;
};

}  // namespace

TEST_IN_CHILD(PortMap, SweepOfNoServicesMarksTheDaemonRegistered) {
    ENTER_PRIVATE_NETWORK_OR_SKIP();
    LogCapture log;
    RegisterAllServicesWithPortMapper();
    EXPECT_EQ(
        log.Lines(),
        (std::vector<LogLine>{{1, kSweep, "Will register all [0] services with port mapper."}}))
        << log.Dump();
    EXPECT_TRUE(OxelServiceGlobals::portMapperRegistered);
}

TEST_IN_CHILD(PortMap, SecondSweepDoesAndSaysNothing) {
    ENTER_PRIVATE_NETWORK_OR_SKIP();
    RegisterAllServicesWithPortMapper();
    gAllServiceParams.emplace_back(kNfs, 2049, 3, NfsDispatcher(), false, -1);
    LogCapture log;
    RegisterAllServicesWithPortMapper();
    EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

TEST_IN_CHILD(PortMap, WithoutAPortMapperEachServiceIsToldAndTheSweepGoesOn) {
    ENTER_PRIVATE_NETWORK_OR_SKIP();
    CLuSocket socket;
    ASSERT_FALSE(socket.Create(AF_INET6));
    ASSERT_FALSE(socket.Bind(CLuIPAddr()));
    ASSERT_FALSE(socket.Listen(1));
    const int fd = socket.GetDescriptor();
    gAllServiceParams.emplace_back(kNfs, 2049, 3, NfsDispatcher(), false, fd);
    gAllServiceParams.emplace_back(kMount, 40000, 1, MountDispatcher(), false, fd);
    const auto failed = [fd](uint32_t program, uint32_t version, const std::string& port) {
        const std::string which = Which(program, version);
        return Unregistered(program, version) +
               (std::vector<LogLine>{
                   {1, kRegisterOs, "Will register " + which},
                   {4, kRegisterOs, "sock [" + std::to_string(fd) + "]"},
                   {4, kRegisterOs, "addr_len [28]"},
                   {-1, kRegister, "pmap_set() failed. " + which + " [TCP] port [" + port + "]"}});
    };
    LogCapture log;
    RegisterAllServicesWithPortMapper();
    EXPECT_EQ(
        log.Lines(),
        (std::vector<LogLine>{{1, kSweep, "Will register all [2] services with port mapper."}}) +
            failed(kNfs, 3, "2049") +
            failed(kMount, 1, "-25536"))  // the message has a signed 16-bit number
        << log.Dump();
    EXPECT_TRUE(OxelServiceGlobals::portMapperRegistered);
}

TEST_IN_CHILD(PortMap, SocketThatHasNoAddressIsTold) {
    ENTER_PRIVATE_NETWORK_OR_SKIP();
    const RPCServiceArgs args(kNfs, 2049, 3, NfsDispatcher(), false, -1);
    LogCapture log;
    EXPECT_FALSE(RegisterWithPortMapper(&args));
    EXPECT_EQ(log.Lines(),
              (std::vector<LogLine>{
                  {1, kRegisterOs, "Will register " + Which(kNfs, 3)},
                  {4, kRegisterOs, "sock [-1]"},
                  {-1, kRegisterOs,
                   "getsockname failed. Cannot register with port mapper. Err [Bad file "
                   "descriptor]"},
                  {-1, kRegister, "pmap_set() failed. " + Which(kNfs, 3) + " [TCP] port [2049]"}}))
        << log.Dump();
}

TEST_IN_CHILD(PortMap, MissingNetconfigIsToldInTheWordsOfUnregistering) {
    ENTER_PRIVATE_NETWORK_OR_SKIP();
    ASSERT_TRUE(oxel::test::Cover("/etc/netconfig", ""));
    const RPCServiceArgs args(kNfs, 2049, 3, NfsDispatcher(), false, -1);
    LogCapture log;
    EXPECT_FALSE(RegisterWithPortMapper(&args));
    EXPECT_EQ(
        log.Lines(),
        (std::vector<LogLine>{
            {1, kRegisterOs, "Will register " + Which(kNfs, 3)},
            {-1, kRegisterOs, "getnetconfigent() failed. Cannot unregister " + Which(kNfs, 3)},
            {-1, kRegister, "pmap_set() failed. " + Which(kNfs, 3) + " [TCP] port [2049]"}}))
        << log.Dump();
}

TEST_IN_CHILD(PortMap, StaleRegistrationIsRemoved) {
    ENTER_PRIVATE_NETWORK_OR_SKIP();
    const RPCServiceArgs args(kNfs, 2049, 3, NfsDispatcher(), false, -1);
    LogCapture log;
    EXPECT_FALSE(UnRegisterWithPortMapper(&args));
    EXPECT_EQ(log.Lines(), Unregistered(kNfs, 3)) << log.Dump();
}

TEST_IN_CHILD(PortMap, SweepRegistersAllServicesAtTheirSocketsPort) {
    ENTER_PRIVATE_NETWORK_OR_SKIP();
    oxel::LogWriter::SetLevel(0);
    const PortMapper mapper;
    if (!mapper.IsRunning()) GTEST_SKIP() << "no rpcbind can be run here";
    PrivateRoot root("[Oxel]\nnAllowOtherNFSServers = 1\nnNfs3Port = 0\n");
    std::string failedStep;
    ASSERT_TRUE(StartNetworkServices(failedStep));
    EXPECT_EQ(mapper.PortOf(kNfs, 3), 0) << "co-existing, nothing is registered by itself";
    RegisterAllServicesWithPortMapper();
    EXPECT_NE(OxelServiceGlobals::nfsPort, 0);
    EXPECT_EQ(mapper.PortOf(kNfs, 3), OxelServiceGlobals::nfsPort);
    EXPECT_EQ(mapper.PortOf(kMount, 1), OxelServiceGlobals::nfsPort);
    EXPECT_EQ(mapper.PortOf(kMount, 2), OxelServiceGlobals::nfsPort);
    EXPECT_EQ(mapper.PortOf(kMount, 3), OxelServiceGlobals::nfsPort);
}

TEST_IN_CHILD(PortMap, StartRegistersBothTransportsAndReplacesWhatWasStale) {
    ENTER_PRIVATE_NETWORK_OR_SKIP();
    const PortMapper mapper;
    if (!mapper.IsRunning()) GTEST_SKIP() << "no rpcbind can be run here";
    // An earlier daemon's registration at another port.
    netconfig* entry = getnetconfigent("tcp");
    sockaddr_in stale{};
    stale.sin_family = AF_INET;
    stale.sin_port = htons(3333);
    netbuf address{sizeof stale, sizeof stale, &stale};
    ASSERT_TRUE(rpcb_set(kNfs, 3, entry, &address));
    freenetconfigent(entry);
    ASSERT_EQ(mapper.PortOf(kNfs, 3), 3333);

    PrivateRoot root("[Oxel]\nnNfs3Port = 2049\n");
    LogCapture log(1);
    std::string failedStep;
    ASSERT_TRUE(StartNetworkServices(failedStep));
    EXPECT_EQ(OxelServiceGlobals::oxelStatus, OxelStarted) << log.Dump();
    for (const char* netid : {"tcp", "tcp6"}) {
        EXPECT_EQ(mapper.PortOf(kNfs, 3, netid), 2049) << netid;
        for (const uint32_t version : {1, 2, 3})
            EXPECT_EQ(mapper.PortOf(kMount, version, netid), 2049) << netid << " " << version;
    }
}
