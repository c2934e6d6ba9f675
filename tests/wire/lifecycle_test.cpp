// SPDX-License-Identifier: Apache-2.0
//
// The daemon's process: command line, start-up messages, stores with broken lines, signals, and
// what a second copy meets.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>

#include "tests/support/nfs_client.h"
#include "tests/support/private_tree.h"
#include "tests/support/rpc_client.h"

namespace oxel::test {
namespace {

class Lifecycle : public testing::Test {
  protected:
    void SetUp() override {
        tree_.MakeDir("share");
        WriteConf("");
        tree_.WriteExports("wire", "/share -dir=" + tree_.Path("share") + ",id=7 *(rw,insecure)\n");
    }
    void WriteConf(const std::string& lines) {
        tree_.WriteConf("wire", "[Oxel]\nnNfs3Port = 0\n" + lines);
    }
    bool Serves() {
        NfsClient client(daemon_.Port());
        uint32_t status = 1;
        client.MountShare("/share", &status);
        return status == 0;
    }
    // The exit code of a daemon that is expected to end at once.
    int RunDaemon(std::vector<std::string> arguments, std::string* output) {
        arguments.insert(arguments.begin(), DaemonProgram());
        return RunProgram(tree_.Root(), arguments, output);
    }
    nlohmann::json Status() {
        std::string output;
        EXPECT_EQ(daemon_.Control({"--json", "status"}, &output), 0) << output;
        return nlohmann::json::parse(output, nullptr, false);
    }

    PrivateTree tree_;
    Daemon daemon_{tree_};
};

// Each share keeps descriptors; the receive loop by default can watch low ones only.
TEST_F(Lifecycle, ManySharesLeaveConnectionsTheirDescriptors) {
    std::string exports;
    for (int i = 1; i <= 1200; ++i)
        exports += "/share" + std::to_string(i) + " -dir=" + tree_.Path("share") +
                   ",id=" + std::to_string(i) + " *(rw,insecure)\n";
    tree_.WriteExports("wire", exports);
    ASSERT_TRUE(daemon_.Start());
    for (const char* share : {"/share1", "/share1200"}) {
        NfsClient client(daemon_.Port());
        uint32_t status = 1;
        client.MountShare(share, &status);
        EXPECT_EQ(status, 0u) << share;
    }
}

TEST_F(Lifecycle, StartUpSaysEveryStepInOrder) {
    ASSERT_TRUE(daemon_.Start());
    const std::string port = std::to_string(daemon_.Port());
    const std::string log = daemon_.Log();
    const std::string steps[] = {
        "Starting oxelnfsd.",
        "Acquired oxelnfsd instance lock.",
        "Oxel/nNoNetworkServices is not set.",
        " PortMapper/Mount/NFS services will be started.",
        "INFO: Max NFS RPC handler thread count not set in registry. So setting it to [5].",
        "No NFS Program given in registry. Defaulting to [100003]",
        "MAX Buf Size not set. Defaulting to [256 KB].",
        "Multi Threaded RPC handling [Enabled]",
        "Dummy Reads and Writes [Disabled]",
        "Windows NFS Client Support [Disabled]",
        "oxel FD Cache Size [100]",
        "CoExist with other NFS Servers [true]",
        "InitializeNfs3Service SUCCESS.",
        "No Mount Program given in registry. Defaulting to [100005]",
        "Mount Program Number [100005]",
        "Mount Port [0]",
        "Program [100003] Version [3] Protocol [TCP] Port [0]",
        "INFO: Bind Successful on port [" + port + "]",
        "ALLOW_NATIVE_NFS [true]. Not creating netconf.",
        "TCP RPC Service Registered for Program [100003] Version [3] Protocol [TCP]",
        "Started NFS service. Port [" + port + "].",
        "Starting mount service as NFS service started successfully.",
        "TCP RPC Service Registered for Program [100005] Version [3] Protocol [TCP]",
        "Started Mount service. Port [" + port + "].",
        "TCP RPC Service Registered for Program [100005] Version [2] Protocol [TCP]",
        "TCP RPC Service Registered for Program [100005] Version [1] Protocol [TCP]",
        "Going to acquire Korvane-oxelnfsdService Lock",
        "Korvane-oxelnfsdService Lock acquired"};
    size_t at = 0;
    for (const std::string& step : steps) {
        const size_t found = log.find(" " + step + "\n", at);
        EXPECT_NE(found, std::string::npos) << step;
        if (found != std::string::npos) at = found;
    }
    EXPECT_NE(
        log.find(" In SvcRun. This routine calls dispatcher upon receipt of protocol RPCs.\n"),
        std::string::npos);
    EXPECT_EQ(log.find("given in registry. Defaulting to [2049]"), std::string::npos);
}

TEST_F(Lifecycle, LogLinesHaveTimePidThreadLevelAndFunction) {
    ASSERT_TRUE(daemon_.Start());
    const std::string pid = std::to_string(daemon_.Pid());
    ASSERT_EQ(daemon_.Stop(), 0);
    const std::regex line("[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{6}Z " +
                          pid + " \\[[^\\]]+\\] L(-?[0-9]|ev) .+");
    std::stringstream log(daemon_.Log());
    int lines = 0;
    for (std::string text; std::getline(log, text); ++lines)
        EXPECT_TRUE(std::regex_match(text, line)) << text;
    EXPECT_GT(lines, 20);
    EXPECT_TRUE(std::regex_search(
        daemon_.Log(),
        std::regex(" L1 bool InitializeNfs3Service\\(\\):[0-9]+ InitializeNfs3Service "
                   "SUCCESS\\.\n")));
    EXPECT_TRUE(std::regex_search(
        daemon_.Log(),
        std::regex(" L1 OxelServiceStatus StartTcpService\\(RPCServiceArgs\\*\\):[0-9]+ TCP RPC")));
    EXPECT_TRUE(std::regex_search(daemon_.Log(),
                                  std::regex(" L1 int main\\(int, char\\*\\*\\):[0-9]+ Oxel/")));
    EXPECT_TRUE(std::regex_search(daemon_.Log(), std::regex("Lev main:? Starting oxelnfsd\\.\n")));
    EXPECT_NE(daemon_.StandardError().find("Starting oxelnfsd."), std::string::npos);
}

TEST_F(Lifecycle, TheBoundPortIsPublished) {
    ASSERT_TRUE(daemon_.Start());
    const std::string runtime = daemon_.RuntimeConf();
    const std::string port = std::to_string(daemon_.Port());
    EXPECT_NE(runtime.find("[Runtime]"), std::string::npos);
    EXPECT_TRUE(std::regex_search(runtime, std::regex("NfsServerPort_v4 *= *" + port + "\n")));
    EXPECT_TRUE(std::regex_search(runtime, std::regex("MountServerPort_v4 *= *" + port + "\n")));
}

TEST_F(Lifecycle, TermAndIntEndTheProcessWithCode0) {
    for (int number : {SIGTERM, SIGINT}) {
        ASSERT_TRUE(daemon_.Start());
        daemon_.Signal(number);
        EXPECT_EQ(daemon_.WaitForExit(), 0);
        const std::string log = daemon_.Log();
        EXPECT_NE(log.find("Returning from RPC service."), std::string::npos);
        EXPECT_NE(log.find("oxelnfsd exiting.\n"), std::string::npos);
        struct stat status;
        EXPECT_NE(stat(tree_.Path("run/oxelnfsd/wire/control.sock").c_str(), &status), 0);
    }
}

TEST_F(Lifecycle, TermEndsADaemonThatClientsAreConnectedTo) {
    ASSERT_TRUE(daemon_.Start());
    NfsClient client(daemon_.Port());
    client.MountShare("/share");
    RpcConnection half(daemon_.Port());
    half.Send("\x80");
    EXPECT_EQ(daemon_.Stop(), 0);
    EXPECT_TRUE(client.Connection().ClosedByPeer());
}

TEST_F(Lifecycle, ASecondCopyOfAnInstanceEndsWithCode1) {
    ASSERT_TRUE(daemon_.Start());
    std::string output;
    EXPECT_EQ(RunDaemon({"-cn", "test", "-vm", "wire", "-no_pm_reg"}, &output), 1);
    EXPECT_NE(output.find("oxelnfsd is already running in this instance [wire]"), std::string::npos)
        << output;
    EXPECT_NE(output.find("oxelnfsd is already running\n"), std::string::npos) << output;
    EXPECT_TRUE(Serves());
    EXPECT_EQ(std::stoi(ReadFile(tree_.Path("run/oxelnfsd/wire/oxelnfsd.lock"))), daemon_.Pid());
}

TEST_F(Lifecycle, TwoInstancesRunBesideEachOther) {
    tree_.WriteConf("other", "[Oxel]\nnNfs3Port = 0\n");
    tree_.WriteExports("other", "/elsewhere -dir=" + tree_.Path("share") + " *(insecure)\n");
    Daemon other(tree_, "other");
    ASSERT_TRUE(daemon_.Start());
    ASSERT_TRUE(other.Start());
    EXPECT_NE(daemon_.Port(), other.Port());
    EXPECT_TRUE(Serves());
    NfsClient client(other.Port());
    EXPECT_NE(client.MountShare("/elsewhere"), "");
    EXPECT_EQ(other.Stop(), 0);
    EXPECT_TRUE(Serves());
}

TEST_F(Lifecycle, AKilledDaemonStartsAgain) {
    ASSERT_TRUE(daemon_.Start());
    daemon_.Kill();
    ASSERT_TRUE(daemon_.Start());
    EXPECT_TRUE(Serves());
}

TEST_F(Lifecycle, UsageErrorsEndWithCode1AndTheUsageLine) {
    const std::vector<std::vector<std::string>> rows = {
        {},
        {"-cn", "test"},
        {"-vm", "wire"},
        {"-cn", "", "-vm", "wire"},
        {"-vm", "wire", "-cn"},
        {"-cn", "test", "-vm"},
        {"-cn", "test", "-vm", ""},
        {"-cn", "test", "-vm", "a/b"},
        {"-cn", "test", "-vm", ".."},
        {"-cn", "test", "-vm", "."},
        {"-cn", "test", "-vm", "a\nb"},
        {"-cn", "test", "-vm", std::string(65, 'i')},
        {"-cn", std::string(65, 'c'), "-vm", "wire"},
        {"-cn", "a/b", "-vm", "wire"}};
    for (const auto& row : rows) {
        std::string output;
        EXPECT_EQ(RunDaemon(row, &output), 1) << (row.empty() ? "" : row.back());
        EXPECT_NE(output.find("Usage: oxelnfsd -cn <clientname> -vm <Instance>"), std::string::npos)
            << output;
    }
}

TEST_F(Lifecycle, OptionsAreCaseInsensitiveAndOthersAreIgnored) {
    ASSERT_TRUE(daemon_.Start({"-NO_PM_REG", "-nonsense", "-CN", "again"}));
    EXPECT_TRUE(daemon_.LogHas("CoExist with other NFS Servers [true]"));
    EXPECT_TRUE(Serves());
}

TEST_F(Lifecycle, NoNfsWaitsForTheAdministrator) {
    daemon_.Launch({"-no_nfs", "-no_pm_reg"});
    ASSERT_TRUE(daemon_.WaitForLog("Korvane-oxelnfsdService Lock acquired"));
    EXPECT_TRUE(
        daemon_.LogHas(" PortMapper/Mount/NFS services will NOT be started as per UXA's request."));
    EXPECT_EQ(Status()["state"], 2);
    EXPECT_FALSE(daemon_.LogHas("Started NFS service."));
    std::string output;
    EXPECT_EQ(daemon_.Control({"start-network"}, &output), 0) << output;
    EXPECT_TRUE(daemon_.WaitForLog("Started Mount service. Port ["));
    // Asked again, there is nothing to do.
    EXPECT_EQ(daemon_.Control({"start-network"}, &output), 0) << output;
    RpcConnection connection(Status()["nfsPort"].get<uint16_t>());
    EXPECT_EQ(connection.CallRaw(RpcCall()), SuccessReply(1, ""));
}

TEST_F(Lifecycle, TheStoreDecidesAgainstTheCommandLine) {
    WriteConf("nNoNetworkServices = 0\nnAllowOtherNFSServers = 1\n");
    ASSERT_TRUE(daemon_.Start({"-no_nfs"}));
    EXPECT_TRUE(daemon_.LogHas(
        "Oxel/nNoNetworkServices set to [0]. PortMapper/Mount/NFS services will be started."));
    EXPECT_TRUE(Serves());
    ASSERT_EQ(daemon_.Stop(), 0);
    WriteConf("nNoNetworkServices = 1\n");
    daemon_.Launch({"-no_pm_reg"});
    EXPECT_TRUE(daemon_.WaitForLog(
        "Oxel/nNoNetworkServices set to [1]. PortMapper/Mount/NFS services will not be started."));
}

TEST_F(Lifecycle, SettingsOfTheStoreAreSaidAndUsed) {
    WriteConf(
        "nNfs3Program = 200003\nnMount3Program = 200000\nnMaxBufSize = 2048\n"
        "nDisableMultiThreadRPC = 1\nnEnableDummyReadsAndWrites = 1\n"
        "nEnableWindowsNFSClientSupport = 1\noxelFdCacheSize = 7\nnMaxNFSRPCThread = 101\n");
    ASSERT_TRUE(daemon_.Start());
    for (const char* text :
         {"MAX buf size set to [2048 KB]",
          "Error: MAX buf size cannot be > [1024 KB]. Resetting to default value [256 KB].",
          "Multi Threaded RPC handling [Disabled]", "Dummy Reads and Writes [Enabled]",
          "Windows NFS Client Support [Enabled]", "oxel FD Cache Size [7]",
          "INFO: Max NFS RPC handler thread count [101] must be =< [100]. So setting to [100],",
          "Mount Program Number [100005]"})
        EXPECT_TRUE(daemon_.LogHas(text)) << text;
    RpcConnection connection(daemon_.Port());
    RpcCall call;
    call.program = 200003;
    EXPECT_EQ(connection.CallRaw(call), SuccessReply(1, ""));
    call.program = kNfsProgram;
    EXPECT_EQ(connection.CallRaw(call), AcceptedReply(1, 1));
}

TEST_F(Lifecycle, BrokenLinesAreReportedAndTheRestIsServed) {
    tree_.WriteConf("wire",
                    "[Oxel]\nnNfs3Port = 0\nthis is no line\nnMaxBufSize = many\n"
                    "oxelFdCacheSize = 12\n");
    tree_.WriteExports("wire", "/bad -dir=" + tree_.Path("share") + " *(rww)\n" +
                                   "/share -dir=" + tree_.Path("share") + ",id=7 *(rw,insecure)\n" +
                                   "/gone -dir=" + tree_.Path("gone") + "\n");
    ASSERT_TRUE(daemon_.Start());
    EXPECT_TRUE(daemon_.LogHas("wire.conf:3"));
    EXPECT_TRUE(daemon_.LogHas("wire.conf:4"));
    EXPECT_TRUE(daemon_.LogHas("MAX Buf Size not set. Defaulting to [256 KB]."));
    EXPECT_TRUE(daemon_.LogHas("oxel FD Cache Size [12]"));
    EXPECT_TRUE(daemon_.LogHas("wire.exports:1: unknown option 'rww'; did you mean 'rw'?"));
    EXPECT_TRUE(
        daemon_.LogHas("wire.exports:3: directory '" + tree_.Path("gone") + "' does not exist"));
    EXPECT_TRUE(Serves());
    // The tool says the same of the files, with a daemon or without; what a reload would do is told
    // behind that.
    std::string output;
    EXPECT_EQ(daemon_.Control({"check"}, &output), 1);
    ASSERT_EQ(daemon_.Stop(), 0);
    std::string without;
    EXPECT_EQ(daemon_.Control({"check"}, &without), 1);
    const auto ofTheFiles = [](const std::string& text) {
        return text.substr(0, std::min(text.find("The daemon says"), text.find("No daemon runs")));
    };
    EXPECT_EQ(ofTheFiles(output), ofTheFiles(without));
    EXPECT_NE(output.find("The daemon says: a reload would change nothing: 2 errors in the exports "
                          "file.\n"),
              std::string::npos)
        << output;
    EXPECT_NE(without.find("No daemon runs for instance wire.\n"), std::string::npos) << without;
    for (const char* text :
         {"wire.conf:3: ", "wire.conf:4: ", "wire.exports:1: unknown option 'rww'",
          "wire.exports:3: directory '", "oxelctl: 4 errors\n"})
        EXPECT_NE(output.find(text), std::string::npos) << text << " in " << output;
}

TEST_F(Lifecycle, FilesWithoutErrorsAreFoundGood) {
    std::string output;
    EXPECT_EQ(daemon_.Control({"check"}, &output), 0) << output;
    EXPECT_EQ(output.substr(0, 4), "ok: ") << output;
}

TEST_F(Lifecycle, WithoutAnyFilesTheDaemonServesNoShares) {
    unlink(tree_.Path("etc/oxelnfsd/wire.exports").c_str());
    ASSERT_TRUE(daemon_.Start());
    NfsClient client(daemon_.Port());
    EXPECT_EQ(Hex(client.Results(client.Mount(mnt::kExport, ""))), "00000000");
}

TEST_F(Lifecycle, AHangUpReopensTheLogAndReloadsTheShares) {
    ASSERT_TRUE(daemon_.Start());
    const std::string log = tree_.Path("var/log/oxelnfsd/wire.log");
    ASSERT_EQ(rename(log.c_str(), (log + ".moved").c_str()), 0);
    tree_.WriteExports("wire", "/share -dir=" + tree_.Path("share") + ",id=7 *(rw,insecure)\n" +
                                   "/more -dir=" + tree_.Path("share") + ",id=8 *(insecure)\n");
    daemon_.Signal(SIGHUP);
    ASSERT_TRUE(daemon_.WaitForLog("Share [/more] id [8] is added.\n"));
    EXPECT_EQ(ReadFile(log + ".moved").find("/more"), std::string::npos);
    NfsClient client(daemon_.Port());
    const std::string root = client.MountShare("/share");
    EXPECT_EQ(client.GetAttributes(root).type, 2u);
    EXPECT_TRUE(daemon_.WaitForLog("Request to mount [/share]."));
}

TEST_F(Lifecycle, AnotherServersPortIsLeftToIt) {
    int taken = socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(taken, 0);
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    socklen_t length = sizeof address;
    ASSERT_EQ(bind(taken, reinterpret_cast<sockaddr*>(&address), length), 0);
    ASSERT_EQ(listen(taken, 1), 0);
    ASSERT_EQ(getsockname(taken, reinterpret_cast<sockaddr*>(&address), &length), 0);
    const int port = ntohs(address.sin6_port);
    tree_.WriteConf("wire", "[Oxel]\nnNfs3Port = " + std::to_string(port) + "\n");
    ASSERT_TRUE(daemon_.Start());
    EXPECT_NE(daemon_.Port(), port);
    EXPECT_TRUE(
        daemon_.LogHas("Info: Port [" + std::to_string(port) + "] already in use. Err [98] "));
    EXPECT_TRUE(Serves());
    close(taken);
}

TEST_F(Lifecycle, StatusTellsTheRunningDaemon) {
    ASSERT_TRUE(daemon_.Start());
    NfsClient client(daemon_.Port());
    client.MountShare("/share");
    const nlohmann::json status = Status();
    EXPECT_EQ(status["pid"], daemon_.Pid());
    EXPECT_EQ(status["state"], 2);
    EXPECT_EQ(status["nfsPort"], daemon_.Port());
    EXPECT_EQ(status["mountPort"], daemon_.Port());
    EXPECT_GE(status["handlerThreads"], 1);
    EXPECT_LE(status["handlerThreads"], 5);
    EXPECT_EQ(status["records"]["total"], 25);
    EXPECT_EQ(status["records"]["inUse"], 0);
    EXPECT_EQ(status["connections"], 1);
    EXPECT_EQ(status["logLevel"], 1);
    EXPECT_EQ(status["hardened"], HardenedRun());
    EXPECT_TRUE(status["uptimeSeconds"].is_number());
    EXPECT_TRUE(status["version"].is_string());
}

TEST_F(Lifecycle, StopOfTheControlToolEndsTheDaemon) {
    ASSERT_TRUE(daemon_.Start());
    std::string output;
    EXPECT_EQ(daemon_.Control({"stop"}, &output), 0) << output;
    EXPECT_EQ(daemon_.WaitForExit(), 0);
    EXPECT_EQ(daemon_.Control({"status"}, &output), 3) << output;
}

TEST_F(Lifecycle, AShortenedRegistryDoesNotStopTheStart) {
    tree_.Write("var/lib/oxelnfsd/wire/registry.json", "{\"version\":1,\"sha");
    ASSERT_TRUE(daemon_.Start());
    EXPECT_TRUE(daemon_.LogHas("] is damaged. Starting with an empty one;"));
    EXPECT_TRUE(Serves());
}

}  // namespace
}  // namespace oxel::test
