// SPDX-License-Identifier: Apache-2.0
//
// The daemon's process: its command line, its claim on the instance, what it starts, and how it
// ends. Each test runs the real program in a tree of its own.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "base/store.h"
#include "base/unique_fd.h"
#include "private_network.h"
#include "private_root.h"
#include "rpc_wire.h"

using oxel::InstancePaths;
using oxel::UniqueFd;
using oxel::test::PrivateRoot;
using testing::HasSubstr;
using testing::Not;

namespace {

const std::string kUsage = "Usage: oxelnfsd -cn <clientname> -vm <Instance>\n";

std::string ReadFile(const std::string& file) {
    std::ostringstream text;
    text << std::ifstream(file).rdbuf();
    return text.str();
}

// One run of the daemon. Ended, when the test did not do so, at the end of the scope.
class Daemon {
  public:
    explicit Daemon(const std::vector<std::string>& arguments) {
        const char* program = getenv("OXELNFSD");
        if (program == nullptr) {
            ADD_FAILURE() << "OXELNFSD does not name the daemon";
            return;
        }
        int ends[2];
        EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
        stderr_.Reset(ends[0]);
        UniqueFd writeEnd(ends[1]);
        std::vector<char*> argv = {const_cast<char*>(program)};
        for (const std::string& argument : arguments)
            argv.push_back(const_cast<char*>(argument.c_str()));
        argv.push_back(nullptr);
        pid_ = fork();
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            dup2(writeEnd.Get(), STDERR_FILENO);
            execv(program, argv.data());
            _exit(127);
        }
    }
    ~Daemon() {
        if (pid_ <= 0) return;
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }

    pid_t pid() const { return pid_; }
    void Signal(int number) const { ASSERT_EQ(kill(pid_, number), 0); }
    // Reads standard error until it holds `text`. False when the daemon ended before.
    bool Says(const std::string& text) {
        while (said_.find(text) == std::string::npos)
            if (!ReadMore()) return false;
        return true;
    }
    // Waits for the end; the exit code, or minus the signal.
    int End() {
        while (ReadMore()) {
        }
        int status = 0;
        EXPECT_EQ(waitpid(pid_, &status, 0), pid_);
        pid_ = 0;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }
    const std::string& said() const { return said_; }

  private:
    bool ReadMore() {
        char buffer[4096];
        const ssize_t got = read(stderr_.Get(), buffer, sizeof buffer);
        if (got <= 0) return false;
        said_.append(buffer, static_cast<size_t>(got));
        return true;
    }
    UniqueFd stderr_;
    pid_t pid_ = 0;
    std::string said_;
};

constexpr char kStarted[] = "Korvane-oxelnfsdService Lock acquired\n";

void ExpectUsage(const std::vector<std::string>& arguments) {
    const PrivateRoot root;
    Daemon daemon(arguments);
    EXPECT_EQ(daemon.End(), 1);
    EXPECT_EQ(daemon.said(), kUsage);
    EXPECT_TRUE(std::filesystem::is_empty(root.root())) << "it has written nothing";
}

// Runs with these arguments until it is up, then ends it; its log.
std::string LogOfARun(const std::vector<std::string>& arguments,
                      const std::string& instance = "Test") {
    Daemon daemon(arguments);
    EXPECT_TRUE(daemon.Says(kStarted)) << daemon.said();
    daemon.Signal(SIGTERM);
    EXPECT_EQ(daemon.End(), 0);
    return ReadFile(InstancePaths(instance).log);
}

constexpr char kWillStart[] = " PortMapper/Mount/NFS services will be started.";
constexpr char kWillNotStart[] =
    " PortMapper/Mount/NFS services will NOT be started as per UXA's request.";
constexpr char kSuccess[] = "InitializeNfs3Service SUCCESS.";

}  // namespace

TEST_IN_CHILD(MainUsage, ClientAndInstanceMustBeGiven) {
    ExpectUsage({});
    ExpectUsage({"-cn", "client"});
    ExpectUsage({"-vm", "Test"});
    ExpectUsage({"-cn", "", "-vm", "Test"});
    ExpectUsage({"-cn", "client", "-vm", ""});
    ExpectUsage({"-cn", "client", "-no_nfs", "-no_pm_reg"});
}

TEST_IN_CHILD(MainUsage, OptionWithoutItsValueIsAnError) {
    ExpectUsage({"-cn"});
    ExpectUsage({"-vm"});
    ExpectUsage({"-cn", "client", "-vm"});
    ExpectUsage({"-vm", "Test", "-cn"});
    // "-vm" is the client's name here, so no instance is given.
    ExpectUsage({"-cn", "-vm", "Test"});
}

TEST_IN_CHILD(MainUsage, NamesThatAreNoFileNamesAreErrors) {
    for (const std::string& name : {std::string("a/b"), std::string("."), std::string(".."),
                                    std::string("/"), std::string("a\nb"), std::string("a\x7f"),
                                    std::string("\x1b[1m"), std::string(65, 'x')}) {
        ExpectUsage({"-cn", "client", "-vm", name});
        ExpectUsage({"-cn", name, "-vm", "Test"});
    }
}

TEST_IN_CHILD(MainUsage, NamesOf64BytesWithBlanksAndUtf8AreFine) {
    const PrivateRoot root;
    std::string name = "Jörg's server ";
    name.resize(64, 'x');
    EXPECT_THAT(LogOfARun({"-cn", name, "-vm", name, "-no_nfs"}, name), HasSubstr(kWillNotStart));
}

TEST_IN_CHILD(MainStart, SaysWhatItDoesInThisOrder) {
    const PrivateRoot root;
    Daemon daemon({"-cn", "client", "-vm", "Test", "-no_nfs"});
    ASSERT_TRUE(daemon.Says(kStarted)) << daemon.said();
    daemon.Signal(SIGTERM);
    EXPECT_EQ(daemon.End(), 0);
    EXPECT_EQ(daemon.said(),
              "Starting oxelnfsd.\n"
              "Acquired oxelnfsd instance lock.\n"
              "Going to acquire Korvane-oxelnfsdService Lock\n"
              "Korvane-oxelnfsdService Lock acquired\n"
              "oxelnfsd exiting.\n");
    const std::string log = ReadFile(root.paths().log);
    EXPECT_THAT(log, HasSubstr("[main] Lev main: Starting oxelnfsd.\n"));
    EXPECT_THAT(log, HasSubstr("[main] Lev RegisterService: Acquired oxelnfsd instance lock.\n"));
    EXPECT_THAT(log, HasSubstr("Lev main: oxelnfsd exiting.\n"));
}

TEST_IN_CHILD(MainStart, OptionsAreRecognisedInAnyCase) {
    const PrivateRoot root;
    const std::string log = LogOfARun({"-CN", "client", "-Vm", "Test", "-NO_NFS"});
    EXPECT_THAT(log, HasSubstr("L1 int main(int, char**):"));
    EXPECT_THAT(log, HasSubstr("Oxel/nNoNetworkServices is not set."));
    EXPECT_THAT(log, HasSubstr(kWillNotStart));
}

TEST_IN_CHILD(MainStart, UnknownArgumentsAreIgnored) {
    const PrivateRoot root;
    EXPECT_THAT(LogOfARun({"whatever", "-x", "-cn", "client", "--", "-vm", "Test", "-no_nfs", ""}),
                HasSubstr(kWillNotStart));
}

TEST_IN_CHILD(MainStart, InstanceNamedLikeAnOptionActsAsTheOptionToo) {
    const PrivateRoot root;
    const std::string log = LogOfARun({"-cn", "client", "-vm", "-no_nfs"}, "-no_nfs");
    EXPECT_THAT(log, HasSubstr(kWillNotStart));
    EXPECT_TRUE(std::filesystem::exists(InstancePaths("-no_nfs").instanceLock));
}

TEST_IN_CHILD(MainStart, ClientNamedLikeAnOptionIsJustAName) {
    const PrivateRoot root("[Oxel]\nnNfs3Port = 0\n");
    EXPECT_THAT(LogOfARun({"-cn", "-no_nfs", "-vm", "Test", "-no_pm_reg"}), HasSubstr(kWillStart));
}

TEST_IN_CHILD(MainStart, StoreSayingStartOverridesTheCommandLine) {
    const PrivateRoot root("[Oxel]\nnNoNetworkServices = 0\nnNfs3Port = 0\n");
    const std::string log = LogOfARun({"-cn", "c", "-vm", "Test", "-no_nfs", "-no_pm_reg"});
    EXPECT_THAT(log, HasSubstr("Oxel/nNoNetworkServices set to [0]. PortMapper/Mount/NFS services "
                               "will be started."));
    EXPECT_THAT(log, HasSubstr(kSuccess));
    EXPECT_THAT(ReadFile(root.paths().runtimeConf), HasSubstr("NfsServerPort_v4 = "));
}

TEST_IN_CHILD(MainStart, StoreSayingNoOverridesTheCommandLine) {
    const PrivateRoot root("[Oxel]\nnNoNetworkServices = 7\n");
    const std::string log = LogOfARun({"-cn", "c", "-vm", "Test"});
    EXPECT_THAT(log, HasSubstr("Oxel/nNoNetworkServices set to [7]. PortMapper/Mount/NFS services "
                               "will not be started."));
    EXPECT_THAT(log, Not(HasSubstr(kSuccess)));
    EXPECT_FALSE(std::filesystem::exists(root.paths().runtimeConf));
}

TEST_IN_CHILD(MainStart, NoPmRegAloneStartsTheServicesWithCoExistence) {
    const PrivateRoot root("[Oxel]\nnNfs3Port = 0\n");
    const std::string log = LogOfARun({"-cn", "c", "-vm", "Test", "-no_pm_reg"});
    EXPECT_THAT(log, HasSubstr(kWillStart));
    EXPECT_THAT(log, HasSubstr("CoExist with other NFS Servers [true]"));
    EXPECT_THAT(log, HasSubstr("ALLOW_NATIVE_NFS [true]. Not creating netconf."));
    EXPECT_THAT(log, Not(HasSubstr("Will unregister")));
}

TEST_IN_CHILD(MainStart, LeadsItsOwnProcessGroup) {
    const PrivateRoot root;
    Daemon daemon({"-cn", "client", "-vm", "Test", "-no_nfs"});
    ASSERT_TRUE(daemon.Says(kStarted));
    EXPECT_EQ(getpgid(daemon.pid()), daemon.pid());
    EXPECT_EQ(ReadFile(root.paths().instanceLock), std::to_string(daemon.pid()) + "\n");
}

TEST_IN_CHILD(MainStart, SecondProcessOfAnInstanceIsRefusedBeforeItTouchesTheNetwork) {
    const PrivateRoot root("[Oxel]\nnNfs3Port = 0\n");
    const std::vector<std::string> arguments = {"-cn", "c", "-vm", "Test", "-no_pm_reg"};
    Daemon first(arguments);
    ASSERT_TRUE(first.Says(kStarted)) << first.said();
    const std::string published = ReadFile(root.paths().runtimeConf);
    const std::string log = ReadFile(root.paths().log);
    Daemon second(arguments);
    EXPECT_EQ(second.End(), 1);
    EXPECT_EQ(second.said(),
              "Starting oxelnfsd.\n"
              "oxelnfsd is already running in this instance [Test]\n"
              "oxelnfsd is already running\n");
    EXPECT_EQ(ReadFile(root.paths().runtimeConf), published);
    EXPECT_EQ(ReadFile(root.paths().log), log) << "the log is the first one's";
    EXPECT_EQ(ReadFile(root.paths().instanceLock), std::to_string(first.pid()) + "\n");
    first.Signal(SIGTERM);
    EXPECT_EQ(first.End(), 0);
}

TEST_IN_CHILD(MainStart, TwoInstancesRunBesideEachOther) {
    const PrivateRoot root;
    Daemon first({"-cn", "c", "-vm", "One", "-no_nfs"}),
        second({"-cn", "c", "-vm", "Two", "-no_nfs"});
    EXPECT_TRUE(first.Says(kStarted)) << first.said();
    EXPECT_TRUE(second.Says(kStarted)) << second.said();
}

TEST_IN_CHILD(MainStart, AfterAKilledProcessTheInstanceIsFreeAgain) {
    const PrivateRoot root;
    const std::vector<std::string> arguments = {"-cn", "c", "-vm", "Test", "-no_nfs"};
    Daemon first(arguments);
    ASSERT_TRUE(first.Says(kStarted));
    first.Signal(SIGKILL);
    EXPECT_EQ(first.End(), -SIGKILL);
    Daemon second(arguments);
    EXPECT_TRUE(second.Says(kStarted)) << second.said();
}

TEST_IN_CHILD(MainStart, WithoutALogDirectoryBasicInitIsFatal) {
    const PrivateRoot root;
    PrivateRoot::Write(root.root() + "/var/log", "a file");
    Daemon daemon({"-cn", "c", "-vm", "Test", "-no_nfs"});
    EXPECT_EQ(daemon.End(), 1);
    EXPECT_THAT(daemon.said(), HasSubstr("BasicInit: Fatal\n"));
    EXPECT_THAT(daemon.said(), Not(HasSubstr("exiting")));
}

TEST_IN_CHILD(MainStart, WithoutAHandleKeyNothingCanBeServed) {
    const PrivateRoot root;
    std::filesystem::create_directories(root.paths().handleKey);
    Daemon daemon({"-cn", "c", "-vm", "Test", "-no_nfs"});
    EXPECT_EQ(daemon.End(), 1);
    EXPECT_THAT(daemon.said(), HasSubstr("InitializeFileSystemModules: Fatal\n"));
    EXPECT_THAT(ReadFile(root.paths().log), HasSubstr("Major event 0x5B0000E7"));
}

TEST_IN_CHILD(MainEnd, SigtermAndSigintEndItWithCode0) {
    for (const int number : {SIGTERM, SIGINT}) {
        const PrivateRoot root("[Oxel]\nnNfs3Port = 0\n");
        Daemon daemon({"-cn", "c", "-vm", "Test", "-no_pm_reg"});
        ASSERT_TRUE(daemon.Says(kStarted)) << daemon.said();
        EXPECT_TRUE(std::filesystem::exists(root.paths().controlSocket));
        daemon.Signal(number);
        EXPECT_EQ(daemon.End(), 0);
        EXPECT_TRUE(daemon.said().ends_with("oxelnfsd exiting.\n")) << daemon.said();
        EXPECT_FALSE(std::filesystem::exists(root.paths().controlSocket));
        EXPECT_THAT(ReadFile(root.paths().log), HasSubstr("Returning from RPC service."));
        UniqueFd lock(open(root.paths().NamedLock("Korvane-oxelnfsdServiceTest").c_str(),
                           O_RDWR | O_CLOEXEC));
        ASSERT_TRUE(lock);
        EXPECT_EQ(flock(lock.Get(), LOCK_EX | LOCK_NB), 0) << "the named lock is free";
    }
}

TEST_IN_CHILD(MainEnd, ServesUntilThen) {
    const PrivateRoot root("[Oxel]\nnNfs3Port = 0\n");
    Daemon daemon({"-cn", "c", "-vm", "Test", "-no_pm_reg"});
    ASSERT_TRUE(daemon.Says(kStarted)) << daemon.said();
    unsigned long port = 0;
    ASSERT_NE(XOPlatformInfo().getNumber("Runtime", "NfsServerPort_v4", &port), 0);
    UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    ASSERT_EQ(connect(fd.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    oxel::test::RpcClient client(std::move(fd));
    oxel::test::RpcCall call;
    client.Send(call);
    EXPECT_EQ(client.Expect().xid, 1u);
    // A client that is there, and one in the middle of a record, keep nobody from ending.
    client.Send(call.Bytes().substr(0, 10));
    daemon.Signal(SIGTERM);
    EXPECT_EQ(daemon.End(), 0);
    EXPECT_TRUE(client.AtEnd());
}

TEST_IN_CHILD(MainEnd, SignalWhileAnotherProcessHasTheNamedLockEndsIt) {
    const PrivateRoot root;
    const std::string file = root.paths().NamedLock("Korvane-oxelnfsdServiceTest");
    PrivateRoot::Write(file, "");
    UniqueFd lock(open(file.c_str(), O_RDWR | O_CLOEXEC));
    ASSERT_EQ(flock(lock.Get(), LOCK_EX | LOCK_NB), 0);
    Daemon daemon({"-cn", "c", "-vm", "Test", "-no_nfs"});
    ASSERT_TRUE(daemon.Says("Going to acquire Korvane-oxelnfsdService Lock\n")) << daemon.said();
    daemon.Signal(SIGTERM);
    EXPECT_EQ(daemon.End(), 0);
    EXPECT_THAT(daemon.said(), Not(HasSubstr(kStarted)));
    EXPECT_TRUE(daemon.said().ends_with("oxelnfsd exiting.\n")) << daemon.said();
}

TEST_IN_CHILD(MainEnd, NamedLockIsWaitedFor) {
    const PrivateRoot root;
    const std::string file = root.paths().NamedLock("Korvane-oxelnfsdServiceTest");
    PrivateRoot::Write(file, "");
    UniqueFd lock(open(file.c_str(), O_RDWR | O_CLOEXEC));
    ASSERT_EQ(flock(lock.Get(), LOCK_EX | LOCK_NB), 0);
    Daemon daemon({"-cn", "c", "-vm", "Test", "-no_nfs"});
    ASSERT_TRUE(daemon.Says("Going to acquire Korvane-oxelnfsdService Lock\n")) << daemon.said();
    lock.Reset();
    EXPECT_TRUE(daemon.Says(kStarted)) << daemon.said();
}

TEST_IN_CHILD(MainEnd, SignalWhileTheNfsStartWaitsForItsPortEndsIt) {
    ENTER_PRIVATE_NETWORK_OR_SKIP();
    const PrivateRoot root("[Oxel]\nnNfs3Port = 2049\n");
    UniqueFd other(socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_port = htons(2049);
    ASSERT_EQ(bind(other.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(other.Get(), 1), 0);
    Daemon daemon({"-cn", "c", "-vm", "Test"});
    while (ReadFile(root.paths().log).find("Failed to Start NFS service.") == std::string::npos)
        std::this_thread::yield();
    daemon.Signal(SIGTERM);
    EXPECT_EQ(daemon.End(), 0);
    EXPECT_TRUE(daemon.said().ends_with("oxelnfsd exiting.\n")) << daemon.said();
    const std::string log = ReadFile(root.paths().log);
    EXPECT_THAT(log, HasSubstr("Failed to . Error [Port already occupied]"));
    EXPECT_THAT(log, HasSubstr("Not starting mount service as NFS service failed to start."));
}

TEST_IN_CHILD(MainEnd, SignalWhileThePortMapperDoesNotAnswerEndsIt) {
    ENTER_PRIVATE_NETWORK_OR_SKIP();
    // It takes the connection, and that is all.
    UniqueFd mapper(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, "/run/rpcbind.sock");
    ASSERT_EQ(bind(mapper.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(mapper.Get(), 10), 0);
    const PrivateRoot root;
    Daemon daemon({"-cn", "c", "-vm", "Test"});
    UniqueFd asked(accept4(mapper.Get(), nullptr, nullptr, SOCK_CLOEXEC));
    ASSERT_TRUE(asked);
    daemon.Signal(SIGTERM);
    EXPECT_EQ(daemon.End(), 0);
    EXPECT_TRUE(daemon.said().ends_with("oxelnfsd exiting.\n")) << daemon.said();
    EXPECT_FALSE(std::filesystem::exists(root.paths().controlSocket));
}

TEST_IN_CHILD(MainEnd, SighupReopensTheLogAndPipesThatBreakAreIgnored) {
    const PrivateRoot root;
    Daemon daemon({"-cn", "c", "-vm", "Test", "-no_nfs"});
    ASSERT_TRUE(daemon.Says(kStarted)) << daemon.said();
    const std::string moved = root.paths().log + ".1";
    std::filesystem::rename(root.paths().log, moved);
    daemon.Signal(SIGPIPE);
    daemon.Signal(SIGHUP);
    while (!std::filesystem::exists(root.paths().log)) std::this_thread::yield();
    daemon.Signal(SIGTERM);
    EXPECT_EQ(daemon.End(), 0);
    EXPECT_THAT(ReadFile(root.paths().log), HasSubstr("oxelnfsd exiting."));
    EXPECT_THAT(ReadFile(moved), Not(HasSubstr("oxelnfsd exiting.")));
}
