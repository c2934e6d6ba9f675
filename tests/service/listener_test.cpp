// SPDX-License-Identifier: Apache-2.0
//
// Bringing the services up on one socket: what is bound, registered, published and said; that a
// start that failed leaves nothing behind; and the receive loop from start to end.
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/syscall.h>

#include <cstddef>
#include <filesystem>
#include <string>
#include <vector>

#include "base/store.h"
#include "bin/oxelService.h"
#include "private_network.h"
#include "private_root.h"
#include "rpc_wire.h"
#include "tests/support/log_capture.h"

using oxel::UniqueFd;
using oxel::test::LogCapture;
using oxel::test::LogLine;
using oxel::test::PrivateRoot;
using oxel::test::RpcClient;

namespace {

const std::string kStart = "OxelServiceStatus StartTcpService(RPCServiceArgs*)";
constexpr uint32_t kNfs = 100003, kMount = 100005;

RPCServiceArgs NfsAt(uint16_t port) {
    return RPCServiceArgs(kNfs, port, 3, NfsDispatcher(), false, -1);
}

// Somebody else's service on a port of this machine.
class OtherService {
  public:
    OtherService() : fd_(socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in6 address{};
        address.sin6_family = AF_INET6;
        socklen_t length = sizeof address;
        EXPECT_EQ(bind(fd_.Get(), reinterpret_cast<sockaddr*>(&address), length), 0);
        EXPECT_EQ(listen(fd_.Get(), 1), 0);
        EXPECT_EQ(getsockname(fd_.Get(), reinterpret_cast<sockaddr*>(&address), &length), 0);
        port_ = ntohs(address.sin6_port);
    }
    uint16_t port() const { return port_; }
    void Close() { fd_.Reset(); }

  private:
    UniqueFd fd_;
    uint16_t port_ = 0;
};

unsigned long Published(const char* key) {
    unsigned long port = 0;
    EXPECT_NE(XOPlatformInfo().getNumber("Runtime", key, &port), 0) << key;
    return port;
}

RpcClient Connect(int family, uint16_t port) {
    UniqueFd fd(socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in6 six{};
    sockaddr_in four{};
    six.sin6_family = AF_INET6;
    six.sin6_addr = in6addr_loopback;
    four.sin_family = AF_INET;
    four.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    six.sin6_port = four.sin_port = htons(port);
    EXPECT_EQ(family == AF_INET6
                  ? connect(fd.Get(), reinterpret_cast<sockaddr*>(&six), sizeof six)
                  : connect(fd.Get(), reinterpret_cast<sockaddr*>(&four), sizeof four),
              0)
        << strerror(errno);
    return RpcClient(std::move(fd));
}

// Nothing is left for select() to fail or return on, and whoever waits for the start goes on.
void ExpectFailedStartLeftNothing(RPCServiceArgs& args) {
    EXPECT_FALSE(args.started);
    EXPECT_TRUE(args.doneEvent.wait(0));
    fd_set served = svc_fdset;
    timeval now{};
    for (int fd = 0; fd < FD_SETSIZE; ++fd)
        EXPECT_FALSE(FD_ISSET(fd, &svc_fdset)) << "descriptor " << fd;
    EXPECT_EQ(select(FD_SETSIZE, &served, nullptr, nullptr, &now), 0);
    EXPECT_TRUE(gAllServiceParams.empty());
    EXPECT_EQ(gServiceCount, 0u);
}

std::string Text(uint16_t number) {
    return std::to_string(number);
}

// The lines that the port mapper's absence brings for one service.
std::vector<LogLine> Unregistered(uint32_t program, uint32_t version) {
    const std::string which =
        "Prog [" + std::to_string(program) + "] Version [" + std::to_string(version) + "]";
    return {
        {1, "bool_t UnRegisterWithPortMapperOS(const RPCServiceArgs*)", "Will unregister " + which},
        {-1, "bool_t UnRegisterWithPortMapperOS(const RPCServiceArgs*)",
         "rpcb_unset() failed. Cannot unregister " + which},
        {-1, "bool UnRegisterWithPortMapper(const RPCServiceArgs*)",
         "UnRegisterWithPortMapperOS() failed. " + which},
    };
}

std::vector<LogLine> operator+(std::vector<LogLine> first, const std::vector<LogLine>& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

}  // namespace

TEST_IN_CHILD(StartTcp, FreePortIsBoundAndPublished) {
    PrivateRoot root;
    OxelServiceGlobals::SetCoExistWithOtherNFSServers(true);
    RPCServiceArgs args = NfsAt(0);
    LogCapture log;
    EXPECT_EQ(StartTcpService(&args), OxelStarted);
    EXPECT_TRUE(args.started);
    EXPECT_TRUE(args.doneEvent.wait(0));
    EXPECT_NE(args.port, 0);
    EXPECT_EQ(Published("NfsServerPort_v4"), args.port);
    EXPECT_EQ(log.Lines(),
              (std::vector<LogLine>{
                  {1, kStart, "INFO: Bind Successful on port [" + Text(args.port) + "]"},
                  {1, kStart, "ALLOW_NATIVE_NFS [true]. Not creating netconf."},
                  {1, kStart,
                   "TCP RPC Service Registered for Program [100003] Version [3] Protocol [TCP]"},
              }))
        << log.Dump();
    ASSERT_EQ(gAllServiceParams.size(), 1u);
    const RPCServiceArgs& kept = gAllServiceParams[0];
    EXPECT_EQ(kept.program, kNfs);
    EXPECT_EQ(kept.version, 3u);
    EXPECT_EQ(kept.port, args.port);
    EXPECT_FALSE(kept.mountFlag);
    EXPECT_EQ(kept.dispatcher, NfsDispatcher());
    EXPECT_TRUE(oxel::test::IsOpen(kept.socket));
    const int flags = fcntl(kept.socket, F_GETFL);
    EXPECT_NE(flags & O_NONBLOCK, 0) << "an aborted connect must not hang the accept";
}

TEST_IN_CHILD(StartTcp, LaterServicesShareTheSocketAndReportItsPort) {
    PrivateRoot root;
    OxelServiceGlobals::SetCoExistWithOtherNFSServers(true);
    RPCServiceArgs nfs = NfsAt(0);
    ASSERT_EQ(StartTcpService(&nfs), OxelStarted);
    RPCServiceArgs mount(kMount, 1, 3, MountDispatcher(), true, -1);
    LogCapture log;
    ASSERT_EQ(StartTcpService(&mount), OxelStarted);
    EXPECT_EQ(mount.port, nfs.port);
    EXPECT_EQ(Published("MountServerPort_v4"), nfs.port);
    EXPECT_EQ(log.Lines(),
              (std::vector<LogLine>{
                  {1, kStart,
                   "TCP RPC Service Registered for Program [100005] Version [3] Protocol [TCP]"}}))
        << log.Dump();
    ASSERT_EQ(gAllServiceParams.size(), 2u);
    EXPECT_EQ(gAllServiceParams[1].socket, gAllServiceParams[0].socket);
    EXPECT_FALSE(gAllServiceParams[1].mountFlag);
}

TEST_IN_CHILD(StartTcp, BusyPortWithCoExistenceMeansAnotherPort) {
    PrivateRoot root;
    OxelServiceGlobals::SetCoExistWithOtherNFSServers(true);
    const OtherService other;
    RPCServiceArgs args = NfsAt(other.port());
    LogCapture log;
    EXPECT_EQ(StartTcpService(&args), OxelStarted);
    EXPECT_NE(args.port, 0);
    EXPECT_NE(args.port, other.port());
    EXPECT_EQ(Published("NfsServerPort_v4"), args.port);
    EXPECT_EQ(log.Lines(),
              (std::vector<LogLine>{
                  {1, kStart, "Info: Port [" + Text(other.port()) + "] already in use. Err [98] "},
                  {1, kStart, "INFO: Bind Successful on port [" + Text(args.port) + "]"},
                  {1, kStart, "ALLOW_NATIVE_NFS [true]. Not creating netconf."},
                  {1, kStart,
                   "TCP RPC Service Registered for Program [100003] Version [3] Protocol [TCP]"},
              }))
        << log.Dump();
}

TEST_IN_CHILD(StartTcp, BusyPortWithoutCoExistenceIsStatus6) {
    ENTER_PRIVATE_NETWORK_OR_SKIP();
    PrivateRoot root;
    OtherService other;
    RPCServiceArgs args = NfsAt(other.port());
    {
        LogCapture log;
        EXPECT_EQ(StartTcpService(&args), OxelNoBind);
        EXPECT_EQ(int{OxelNoBind}, 6);
        EXPECT_EQ(log.Lines(),
                  Unregistered(kNfs, 3) +
                      (std::vector<LogLine>{
                          {1, kStart,
                           "Info: Port [" + Text(other.port()) + "] already in use. Err [98] "},
                          {-1, kStart,
                           "Error: Failed to bind on standard port. Cannot co-exist with other "
                           "NFS service"},
                          {-1, kStart, "Failed to . Error [Port already occupied]"},
                      }))
            << log.Dump();
    }
    ExpectFailedStartLeftNothing(args);
    unsigned long port = 0;
    EXPECT_EQ(XOPlatformInfo().getNumber("Runtime", "NfsServerPort_v4", &port), 0);
}

TEST_IN_CHILD(StartTcp, AnyOtherBindErrorIsStatus6) {
    PrivateRoot root;
    if (geteuid() == 0 && seteuid(65534) != 0) GTEST_SKIP() << "cannot become nobody";
    OxelServiceGlobals::SetCoExistWithOtherNFSServers(true);
    RPCServiceArgs args = NfsAt(1);
    LogCapture log;
    EXPECT_EQ(StartTcpService(&args), OxelNoBind);
    EXPECT_EQ(log.Lines(), (std::vector<LogLine>{
                               {1, kStart, "Error: Bind failed. Port [1] Err [13] "},
                               {-1, kStart, "Failed to . Error [Bind failed]"},
                           }))
        << log.Dump();
    ExpectFailedStartLeftNothing(args);
}

TEST_IN_CHILD(StartTcp, WithoutASocketIsStatus4) {
    PrivateRoot root;
    OxelServiceGlobals::SetCoExistWithOtherNFSServers(true);
    RPCServiceArgs args = NfsAt(0);
    LogCapture log;
    rlimit before;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none{0, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    EXPECT_EQ(StartTcpService(&args), OxelNoSocket);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_EQ(int{OxelNoSocket}, 4);
    EXPECT_EQ(log.Lines(),
              (std::vector<LogLine>{
                  {-1, kStart, "Error: failed to obtain a socket. Program [100003] Vers [3]"}}))
        << log.Dump();
    ExpectFailedStartLeftNothing(args);
}

TEST_IN_CHILD(StartTcp, WithoutThePortMapperRegistrationIsStatus5) {
    ENTER_PRIVATE_NETWORK_OR_SKIP();
    PrivateRoot root;
    RPCServiceArgs args = NfsAt(0);
    LogCapture log;
    EXPECT_EQ(StartTcpService(&args), OxelNoRegistration);
    EXPECT_EQ(int{OxelNoRegistration}, 5);
    const std::vector<LogLine> errors = log.AtLevel(-1);
    ASSERT_EQ(errors.size(), 3u) << log.Dump();
    EXPECT_EQ(errors[2].function, kStart);
    EXPECT_TRUE(errors[2].text.starts_with("svc_reg() failed.Program [100003] Vers [3] IPv4 ["))
        << errors[2].text;
    ExpectFailedStartLeftNothing(args);
}

TEST_IN_CHILD(StartTcp, AfterAFailedStartTheNextOneBindsThePortAnew) {
    ENTER_PRIVATE_NETWORK_OR_SKIP();
    PrivateRoot root;
    RPCServiceArgs first = NfsAt(2049);
    ASSERT_EQ(StartTcpService(&first), OxelNoRegistration);
    OxelServiceGlobals::SetCoExistWithOtherNFSServers(true);
    RPCServiceArgs second = NfsAt(2049);
    ASSERT_EQ(StartTcpService(&second), OxelStarted);
    EXPECT_EQ(second.port, 2049);
    EXPECT_EQ(gAllServiceParams.size(), 1u);
}

TEST_IN_CHILD(StartTcp, WithoutNetconfigIsStatus5) {
    ENTER_PRIVATE_NETWORK_OR_SKIP();
    ASSERT_TRUE(oxel::test::Cover("/etc/netconfig", ""));
    PrivateRoot root;
    RPCServiceArgs args = NfsAt(0);
    LogCapture log;
    EXPECT_EQ(StartTcpService(&args), OxelNoRegistration);
    const LogLine last = log.Lines().back();
    EXPECT_EQ(last.level, -1);
    EXPECT_EQ(last.function, kStart);
    EXPECT_TRUE(
        last.text.starts_with("Failed to get TCP-IP4 netconfig Program [100003] Vers [3] ["))
        << log.Dump();
    ExpectFailedStartLeftNothing(args);
}

TEST_IN_CHILD(StartTcp, WithoutNetconfigOfIpv6IsStatus5Too) {
    ENTER_PRIVATE_NETWORK_OR_SKIP();
    ASSERT_TRUE(oxel::test::Cover("/etc/netconfig", "tcp tpi_cots_ord v inet tcp - -\n"));
    PrivateRoot root;
    RPCServiceArgs args = NfsAt(0);
    LogCapture log;
    EXPECT_EQ(StartTcpService(&args), OxelNoRegistration);
    EXPECT_TRUE(log.Lines().back().text.starts_with(
        "Failed to get TCP-IP6 netconfig Program [100003] Vers [3] ["))
        << log.Dump();
    ExpectFailedStartLeftNothing(args);
}

TEST_IN_CHILD(StartTcp, HostWithoutIpv6IsServedOverIpv4) {
    // socket(AF_INET6, ...) fails from here on.
    sock_filter program[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_socket, 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[0])),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, AF_INET6, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EAFNOSUPPORT),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog filter{sizeof program / sizeof *program, program};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
        prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) != 0)
        GTEST_SKIP() << "system calls cannot be filtered here: " << strerror(errno);
    ASSERT_EQ(socket(AF_INET6, SOCK_STREAM, 0), -1);

    PrivateRoot root;
    OxelServiceGlobals::SetCoExistWithOtherNFSServers(true);
    RPCServiceArgs args = NfsAt(0);
    ASSERT_EQ(StartTcpService(&args), OxelStarted);
    RpcClient client = Connect(AF_INET, args.port);
}

TEST_IN_CHILD(StartTcp, PortsOfOtherProgramsAreNotPublished) {
    PrivateRoot root;
    SaveServicePort(100021, 4045);
    EXPECT_FALSE(std::filesystem::exists(root.paths().runtimeConf));
    SaveServicePort(kNfs, 65535);
    SaveServicePort(kMount, 1);
    EXPECT_EQ(Published("NfsServerPort_v4"), 65535u);
    EXPECT_EQ(Published("MountServerPort_v4"), 1u);
}

TEST_IN_CHILD(StartTcp, ArgumentsAreCopiedWithAFreshEvent) {
    RPCServiceArgs args(1, 2, 3, NfsDispatcher(), true, 4);
    EXPECT_TRUE(args.started);
    args.doneEvent.set();
    args.started = false;
    const RPCServiceArgs copy(args);
    EXPECT_EQ(copy.program, 1u);
    EXPECT_EQ(copy.port, 2);
    EXPECT_EQ(copy.version, 3u);
    EXPECT_TRUE(copy.mountFlag);
    EXPECT_EQ(copy.socket, 4);
    EXPECT_TRUE(copy.started);
    EXPECT_FALSE(const_cast<RPCServiceArgs&>(copy).doneEvent.wait(0));
}
