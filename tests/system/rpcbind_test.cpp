// SPDX-License-Identifier: Apache-2.0
//
// The port mapper: a real rpcbind in network and mount namespaces of the test's own, so that the
// host's registrations are neither seen nor touched.
#include <gtest/gtest.h>
#include <net/if.h>
#include <netconfig.h>
#include <netinet/in.h>
#include <rpc/rpc.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "tests/support/nfs_client.h"
#include "tests/support/private_tree.h"
#include "tests/support/rpc_client.h"

namespace oxel::test {
namespace {

// Puts the process into its namespaces, once; the reason when that is forbidden here.
std::string EnterNamespaces() {
    static const std::string outcome = [] {
        auto failed = [](const char* step) { return std::string(step) + ": " + strerror(errno); };
        if (unshare(CLONE_NEWNET | CLONE_NEWNS) != 0) return failed("unshare");
        if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
            return failed("making mounts private");
        if (mount("tmpfs", "/run", "tmpfs", 0, nullptr) != 0) return failed("mounting /run");
        const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        ifreq loopback{};
        strcpy(loopback.ifr_name, "lo");
        loopback.ifr_flags = IFF_UP | IFF_RUNNING;
        if (ioctl(fd, SIOCSIFFLAGS, &loopback) != 0) return failed("bringing lo up");
        close(fd);
        return std::string();
    }();
    return outcome;
}

// A registration as "program version transport port".
using Registrations = std::set<std::string>;

class Rpcbind : public testing::Test {
  protected:
    void SetUp() override {
        const std::string reason = EnterNamespaces();
        if (!reason.empty())
            GTEST_SKIP() << "network and mount namespaces are not allowed here: " << reason;
        tree_.MakeDir("share");
        tree_.WriteExports("wire", "/share -dir=" + tree_.Path("share") + " *(rw,insecure)\n");
    }
    void TearDown() override {
        if (daemon_.Running()) {
            EXPECT_EQ(daemon_.Stop(), 0);
        }
        if (rpcbind_ <= 0) return;
        kill(rpcbind_, SIGTERM);
        waitpid(rpcbind_, nullptr, 0);
    }

    void StartRpcbind() {
        rpcbind_ = fork();
        if (rpcbind_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            execlp("rpcbind", "rpcbind", "-f", nullptr);
            _exit(127);
        }
        ASSERT_TRUE(WaitUntil([this] { return !Registered(100000).empty(); }))
            << "rpcbind does not answer; is the package installed?";
    }
    // What rpcbind says of a program.
    Registrations Registered(unsigned program) {
        std::string output;
        if (RunProgram(tree_.Root(), {"rpcinfo"}, &output) != 0) return {};
        Registrations found;
        std::stringstream lines(output);
        for (std::string line; std::getline(lines, line);) {
            std::stringstream words(line);
            unsigned number = 0, version = 0;
            std::string transport, address;
            if (!(words >> number >> version >> transport >> address) || number != program)
                continue;
            // A universal address ends in the port's two bytes.
            const size_t low = address.rfind('.'), high = address.rfind('.', low - 1);
            int port = 0;
            if (low != std::string::npos && high != std::string::npos)
                port =
                    std::stoi(address.substr(high + 1)) * 256 + std::stoi(address.substr(low + 1));
            found.insert(std::to_string(version) + " " + transport + " " + std::to_string(port));
        }
        return found;
    }
    // All versions on all transports at one port.
    static Registrations At(std::initializer_list<int> versions,
                            std::initializer_list<const char*> transports, int port) {
        Registrations all;
        for (int version : versions)
            for (const char* transport : transports)
                all.insert(std::to_string(version) + " " + transport + " " + std::to_string(port));
        return all;
    }
    void Register(unsigned program, unsigned version, const char* transport, uint16_t port) {
        netconfig* entry = getnetconfigent(transport);
        ASSERT_NE(entry, nullptr);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        netbuf buffer{sizeof address, sizeof address, &address};
        EXPECT_TRUE(rpcb_set(program, version, entry, &buffer));
        freenetconfigent(entry);
    }
    nlohmann::json Status() {
        std::string output;
        EXPECT_EQ(daemon_.Control({"--json", "status"}, &output), 0) << output;
        return nlohmann::json::parse(output, nullptr, false);
    }

    PrivateTree tree_;
    Daemon daemon_{tree_};
    pid_t rpcbind_ = -1;
};

TEST_F(Rpcbind, AllServicesAreRegisteredAtTheStandardPort) {
    ASSERT_NO_FATAL_FAILURE(StartRpcbind());
    ASSERT_TRUE(daemon_.Start({}));
    EXPECT_EQ(daemon_.Port(), 2049);
    EXPECT_EQ(Registered(100003), At({3}, {"tcp", "tcp6"}, 2049));
    EXPECT_EQ(Registered(100005), At({1, 2, 3}, {"tcp", "tcp6"}, 2049));
    EXPECT_TRUE(daemon_.LogHas("CoExist with other NFS Servers [false]"));
    EXPECT_TRUE(daemon_.LogHas("No NfsPort given in registry. Defaulting to [2049]"));
    for (auto family : {RpcConnection::Family::kIPv4, RpcConnection::Family::kIPv6}) {
        RpcConnection connection(2049, family);
        EXPECT_EQ(connection.CallRaw(RpcCall()), SuccessReply(1, ""));
    }
}

TEST_F(Rpcbind, StaleRegistrationsAreRemoved) {
    ASSERT_NO_FATAL_FAILURE(StartRpcbind());
    Register(100003, 3, "tcp", 4242);
    Register(100005, 1, "tcp", 4243);
    Register(100005, 3, "udp", 4244);
    ASSERT_EQ(Registered(100005), (Registrations{"1 tcp 4243", "3 udp 4244"}));
    tree_.WriteConf("wire", "[Oxel]\nnNfs3Port = 0\n");
    ASSERT_TRUE(daemon_.Start({}));
    EXPECT_EQ(Registered(100003), At({3}, {"tcp", "tcp6"}, daemon_.Port()));
    EXPECT_EQ(Registered(100005), At({1, 2, 3}, {"tcp", "tcp6"}, daemon_.Port()));
}

TEST_F(Rpcbind, ARestartReplacesWhatTheKilledDaemonLeft) {
    ASSERT_NO_FATAL_FAILURE(StartRpcbind());
    tree_.WriteConf("wire", "[Oxel]\nnNfs3Port = 0\n");
    ASSERT_TRUE(daemon_.Start({}));
    daemon_.Kill();
    ASSERT_TRUE(daemon_.Start({}));
    EXPECT_EQ(Registered(100003), At({3}, {"tcp", "tcp6"}, daemon_.Port()));
    EXPECT_EQ(Registered(100005), At({1, 2, 3}, {"tcp", "tcp6"}, daemon_.Port()));
}

TEST_F(Rpcbind, CoexistenceRegistersNothingUntilItIsAskedTo) {
    ASSERT_NO_FATAL_FAILURE(StartRpcbind());
    Register(100003, 3, "tcp", 4242);
    tree_.WriteConf("wire", "[Oxel]\nnNfs3Port = 0\n");
    ASSERT_TRUE(daemon_.Start({"-no_pm_reg"}));
    EXPECT_EQ(Registered(100003), (Registrations{"3 tcp 4242"})) << "the other server's";
    EXPECT_TRUE(Registered(100005).empty());

    std::string output;
    EXPECT_EQ(daemon_.Control({"start-network", "--register"}, &output), 0) << output;
    EXPECT_EQ(Registered(100003), At({3}, {"tcp"}, daemon_.Port()));
    EXPECT_EQ(Registered(100005), At({1, 2, 3}, {"tcp"}, daemon_.Port()));
    EXPECT_TRUE(daemon_.LogHas("Will register all [4] services with port mapper."));
    // A second sweep does nothing.
    const size_t before = daemon_.Log().size();
    EXPECT_EQ(daemon_.Control({"start-network", "--register"}, &output), 0) << output;
    EXPECT_EQ(daemon_.Log().find("Will register", before), std::string::npos);
}

TEST_F(Rpcbind, StartNetworkIsRefusedWithoutTheOptionsThatAllowIt) {
    ASSERT_NO_FATAL_FAILURE(StartRpcbind());
    ASSERT_TRUE(daemon_.Start({}));
    std::string output;
    EXPECT_EQ(daemon_.Control({"start-network", "--register"}, &output), 1) << output;
}

TEST_F(Rpcbind, WithoutAPortMapperTheStartIsTriedAgainLater) {
    daemon_.Launch({});
    ASSERT_TRUE(daemon_.WaitForLog("Failed to Start NFS service."));
    EXPECT_TRUE(daemon_.LogHas("rpcb_unset() failed. Cannot unregister Prog [100003] Version [3]"));
    EXPECT_TRUE(daemon_.LogHas("UnRegisterWithPortMapperOS() failed. Prog [100003] Version [3]"));
    EXPECT_TRUE(daemon_.LogHas("svc_reg() failed.Program [100003] Vers [3] IPv4 ["));
    EXPECT_TRUE(daemon_.LogHas("Error: Failed to start RPC service"));
    EXPECT_EQ(Status()["state"], 5);
    // The wait for the next try ends with the process.
    EXPECT_EQ(daemon_.Stop(), 0);
}

TEST_F(Rpcbind, WithoutAPortMapperTheSweepSaysSoAndCompletes) {
    tree_.WriteConf("wire", "[Oxel]\nnNfs3Port = 0\n");
    ASSERT_TRUE(daemon_.Start({"-no_pm_reg"}));
    std::string output;
    EXPECT_EQ(daemon_.Control({"start-network", "--register"}, &output), 0) << output;
    EXPECT_TRUE(daemon_.LogHas("Will register all [4] services with port mapper."));
    const std::string port = std::to_string(static_cast<int16_t>(daemon_.Port()));
    for (const char* service : {"Prog [100003] Version [3]", "Prog [100005] Version [3]",
                                "Prog [100005] Version [2]", "Prog [100005] Version [1]"})
        EXPECT_TRUE(daemon_.LogHas(std::string("pmap_set() failed. ") + service + " [TCP] port [" +
                                   port + "]"))
            << service;
}

TEST_F(Rpcbind, AnOccupiedPortIsSaidAndTriedAgainLater) {
    ASSERT_NO_FATAL_FAILURE(StartRpcbind());
    const int taken = socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_port = htons(2049);
    ASSERT_EQ(bind(taken, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(taken, 1), 0);
    daemon_.Launch({});
    ASSERT_TRUE(daemon_.WaitForLog("Failed to Start NFS service."));
    EXPECT_TRUE(daemon_.LogHas("Info: Port [2049] already in use. Err [98] \n"));
    EXPECT_TRUE(daemon_.LogHas(
        "Error: Failed to bind on standard port. Cannot co-exist with other NFS service"));
    EXPECT_TRUE(daemon_.LogHas("Failed to . Error [Port already occupied]"));
    EXPECT_EQ(Status()["state"], 6);
    EXPECT_EQ(daemon_.Stop(), 0);
    close(taken);
}

}  // namespace
}  // namespace oxel::test
