// SPDX-License-Identifier: Apache-2.0
//
// The daemon's answers on the control socket, asked through the socket.
#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>

#include "base/log.h"
#include "base/perf_counter.h"
#include "base/thread.h"
#include "bin/oxelService.h"
#include "bin/oxelService_callinfo.h"
#include "companion/PellService.h"
#include "private_root.h"
#include "rpc_wire.h"

using nlohmann::json;
using oxel::ControlReply;
using oxel::test::PrivateRoot;

namespace {

class Control {
  public:
    explicit Control(const std::string& conf = "") : root_(conf) {
        std::filesystem::create_directories(root_.paths().runDir);
        InstallControlHandlers();
        EXPECT_TRUE(oxel::StartPellService(root_.paths().controlSocket));
    }
    ~Control() { StopPellService(); }
    ControlReply Ask(const json& request) const {
        ControlReply reply;
        EXPECT_TRUE(oxel::ControlCall(root_.paths().controlSocket, request, 60000, &reply));
        return reply;
    }
    json Status() const {
        const ControlReply reply = Ask({{"verb", "status"}});
        EXPECT_TRUE(reply.ok) << reply.error;
        return reply.body;
    }

  private:
    PrivateRoot root_;
};

}  // namespace

TEST_IN_CHILD(Control, StatusBeforeTheServicesStart) {
    const Control control;
    const json status = control.Status();
    EXPECT_EQ(status["pid"], getpid());
    EXPECT_TRUE(status["version"].is_string());
    EXPECT_GE(status["uptimeSeconds"].get<int>(), 0);
    EXPECT_EQ(status["state"], 1);
    EXPECT_EQ(status["stateText"], "starting");
    EXPECT_EQ(status["nfsPort"], 0);
    EXPECT_EQ(status["mountPort"], 0);
    EXPECT_EQ(status["handlerThreads"], 0);
    EXPECT_EQ(status["records"]["total"], 0);
    EXPECT_EQ(status["records"]["inUse"], 0);
    EXPECT_EQ(status["connections"], 0);
    EXPECT_EQ(status["logLevel"], oxel::LogWriter::Level());
    EXPECT_EQ(status["hardened"], false);
}

TEST_IN_CHILD(Control, StatusOfAServingDaemon) {
    const Control control(
        "[Oxel]\nnNfs3Port = 0\nnAllowOtherNFSServers = 1\nnMaxNFSRPCThread = 3\nnHardened = 1\n");
    std::string failedStep;
    ASSERT_TRUE(StartNetworkServices(failedStep));
    const oxel::test::ServedConnection connection;
    CallInfo3* call = gCallInfoPool.Pop();
    const json status = control.Status();
    EXPECT_EQ(status["state"], 2);
    EXPECT_EQ(status["stateText"], "serving");
    EXPECT_EQ(status["nfsPort"], OxelServiceGlobals::nfsPort.load());
    EXPECT_EQ(status["mountPort"], OxelServiceGlobals::mountPort.load());
    EXPECT_EQ(status["handlerThreads"], gWorkerPool.threadCount());
    EXPECT_EQ(status["records"]["total"], 15);
    EXPECT_EQ(status["records"]["inUse"], 1);
    EXPECT_EQ(status["connections"], 1);
    EXPECT_EQ(status["hardened"], true);
    gCallInfoPool.Push(call);
    RequestStop();
    EXPECT_TRUE(WaitForReceiveLoop(60000));
}

TEST_IN_CHILD(Control, StateIsToldInWords) {
    const Control control;
    const auto text = [&](OxelServiceStatus state) {
        OxelServiceGlobals::SetOxelStatus(state);
        return control.Status()["stateText"].get<std::string>();
    };
    EXPECT_EQ(text(OxelStarted), "network services not started");
    EXPECT_EQ(text(OxelNoSocket), "no socket or no local address");
    EXPECT_NE(text(OxelNoRegistration).find("registration failed"), std::string::npos);
    EXPECT_NE(text(OxelNoBind).find("bind or listen failed"), std::string::npos);
}

TEST_IN_CHILD(Control, LogLevelIsShownAndSet) {
    const Control control;
    oxel::LogWriter::SetLevel(1);
    EXPECT_EQ(control.Ask({{"verb", "log-level"}}).body["logLevel"], 1);
    EXPECT_EQ(control.Ask({{"verb", "log-level"}, {"level", 4}}).body["logLevel"], 4);
    EXPECT_EQ(oxel::LogWriter::Level(), 4);
    EXPECT_EQ(control.Ask({{"verb", "log-level"}, {"level", 0}}).body["logLevel"], 0);
}

TEST_IN_CHILD(Control, LogLevelOutside0To4IsRefused) {
    const Control control;
    oxel::LogWriter::SetLevel(2);
    for (const json& level :
         {json(-1), json(5), json("1"), json(1.5), json(), json(18446744073709551615u)}) {
        const ControlReply reply = control.Ask({{"verb", "log-level"}, {"level", level}});
        EXPECT_FALSE(reply.ok) << level;
        EXPECT_EQ(reply.error, "the log level is a number from 0 to 4");
    }
    EXPECT_EQ(oxel::LogWriter::Level(), 2);
}

TEST_IN_CHILD(Control, PerfAsksTheReceiveLoopForTheCounters) {
    const Control control;
    gPerfFlag = true;
    EXPECT_EQ(control.Ask({{"verb", "perf"}}).body["accounting"], true);
    EXPECT_TRUE(gPrintPerfStats);
    gPerfFlag = false;
    EXPECT_EQ(control.Ask({{"verb", "perf"}}).body["accounting"], false);
}

TEST_IN_CHILD(Control, StopEndsTheProcessAsASignalDoes) {
    const Control control("[Oxel]\nnNfs3Port = 0\nnAllowOtherNFSServers = 1\n");
    std::string failedStep;
    ASSERT_TRUE(StartNetworkServices(failedStep));
    EXPECT_TRUE(control.Ask({{"verb", "stop"}}).ok);
    EXPECT_NE(OxelServiceGlobals::exitProcess, 0);
    EXPECT_FALSE(LUSLEEP(60000)) << "nobody sleeps on";
    EXPECT_TRUE(WaitForReceiveLoop(60000));
}

TEST_IN_CHILD(Control, UnknownVerbIsRefused) {
    const Control control;
    EXPECT_FALSE(control.Ask({{"verb", "make-coffee"}}).ok);
}
