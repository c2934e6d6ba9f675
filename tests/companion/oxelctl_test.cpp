// SPDX-License-Identifier: Apache-2.0
//
// The real oxelctl against a companion service in this process.
#include <gtest/gtest.h>

#include <utility>
#include <vector>

#include "tests/companion/oxelctl_fixture.h"

namespace oxel::test {

using nlohmann::json;

static json StatusBody() {
    return {
        {"pid", 4711},       {"version", "0.1.0"},     {"uptimeSeconds", 93784},
        {"state", 2},        {"stateText", "serving"}, {"nfsPort", 2049},
        {"mountPort", 2049}, {"handlerThreads", 5},    {"records", {{"total", 25}, {"inUse", 3}}},
        {"connections", 2},  {"logLevel", 1},          {"hardened", true}};
}

TEST_F(Oxelctl, StatusIsATableForPeople) {
    Handle("status", StatusBody());
    Start();
    const Outcome outcome = RunHere({"status"});
    EXPECT_EQ(outcome.code, 0);
    EXPECT_EQ(outcome.error, "");
    EXPECT_EQ(outcome.output,
              "pid              4711\n"
              "version          0.1.0\n"
              "up               1 day 02:03:04\n"
              "state            2 (serving)\n"
              "NFS port         2049\n"
              "MOUNT port       2049\n"
              "handler threads  5\n"
              "call records     3 of 25 in use\n"
              "connections      2\n"
              "log level        1\n"
              "hardened         yes\n");
    EXPECT_EQ(LastRequest(), (json{{"verb", "status"}}));
}

TEST_F(Oxelctl, StatusInJsonIsWhatTheDaemonSaid) {
    Handle("status", StatusBody());
    Start();
    const Outcome outcome = RunHere({"--json", "status"});
    EXPECT_EQ(outcome.code, 0);
    EXPECT_EQ(json::parse(outcome.output), StatusBody());
}

// From a daemon of another version.
TEST_F(Oxelctl, StatusWithMissingAndStrangeMembersIsStillATable) {
    Handle("status", {{"uptimeSeconds", "long"},
                      {"version", "a\nb"},
                      {"records", 7},
                      {"hardened", nullptr},
                      {"connections", json::array({1})}});
    Start();
    const Outcome outcome = RunHere({"status"});
    EXPECT_EQ(outcome.code, 0);
    EXPECT_NE(outcome.output.find("pid              -\n"), std::string::npos);
    EXPECT_NE(outcome.output.find("up               -\n"), std::string::npos);
    EXPECT_NE(outcome.output.find("version          a\\x0ab\n"), std::string::npos);
    EXPECT_NE(outcome.output.find("call records     - of - in use\n"), std::string::npos);
    EXPECT_NE(outcome.output.find("connections      [1]\n"), std::string::npos);
}

TEST_F(Oxelctl, UptimeOfDaysAndSeconds) {
    for (const auto& [seconds, text] :
         std::vector<std::pair<long, std::string>>{{0, "00:00:00"},
                                                   {86399, "23:59:59"},
                                                   {86400, "1 day 00:00:00"},
                                                   {200000, "2 days 07:33:20"},
                                                   {-5, "-"}}) {
        Handle("status", {{"uptimeSeconds", seconds}});
        if (seconds == 0) Start();
        EXPECT_NE(RunHere({"status"}).output.find("up               " + text + "\n"),
                  std::string::npos)
            << seconds;
    }
}

TEST_F(Oxelctl, LogLevelIsShownAndSet) {
    Handle("log-level", {{"logLevel", 3}});
    Start();
    Outcome outcome = RunHere({"log-level"});
    EXPECT_EQ(outcome.code, 0);
    EXPECT_EQ(outcome.output, "log level  3\n");
    EXPECT_EQ(LastRequest(), (json{{"verb", "log-level"}}));
    outcome = RunHere({"log-level", "3"});
    EXPECT_EQ(outcome.code, 0);
    EXPECT_EQ(LastRequest(), (json{{"verb", "log-level"}, {"level", 3}}));
    EXPECT_EQ(json::parse(RunHere({"log-level", "--json"}).output), (json{{"logLevel", 3}}));
}

TEST_F(Oxelctl, PerfSaysWhereTheCountersGo) {
    Handle("perf", {{"accounting", true}});
    Start();
    EXPECT_EQ(RunHere({"perf"}).output, "The counters go to the daemon's log.\n");
    Handle("perf", {{"accounting", false}});
    EXPECT_EQ(RunHere({"perf"}).output, "Accounting is off: there are no counters to write.\n");
}

TEST_F(Oxelctl, StopAsksOnce) {
    Handle("stop", json::object());
    Start();
    const Outcome outcome = RunHere({"stop"});
    EXPECT_EQ(outcome.code, 0);
    EXPECT_EQ(LastRequest(), (json{{"verb", "stop"}}));
    EXPECT_EQ(RunHere({"stop", "--json"}).output, "{}\n");
}

static bool StartWithoutRegistering(bool registerWithPortMapper, bool) {
    SetStartupArgs(false, !registerWithPortMapper);
    return true;
}

TEST_F(Oxelctl, StartNetworkTellsWhatIsStarted) {
    LogCapture capture;
    SetNetworkServiceSetupCB(StartWithoutRegistering);
    Start();
    Outcome outcome = RunHere({"start-network"});
    EXPECT_EQ(outcome.code, 0);
    EXPECT_EQ(outcome.output,
              "services started                 yes\n"
              "registered with the port mapper  no\n");
    outcome = RunHere({"start-network", "--register", "--json"});
    EXPECT_EQ(json::parse(outcome.output),
              (json{{"servicesStarted", true}, {"portMapperRegistered", true}}));
}

TEST_F(Oxelctl, RefusalIsExitCodeOneWithTheDaemonsWords) {
    Start();
    Outcome outcome = RunHere({"start-network"});
    EXPECT_EQ(outcome.code, 1);
    EXPECT_EQ(outcome.output, "");
    EXPECT_EQ(outcome.error.substr(0, 22), "oxelctl: this daemon s");
    outcome = RunHere({"start-network", "--json"});
    EXPECT_EQ(outcome.code, 1);
    EXPECT_TRUE(json::parse(outcome.output)["error"].is_string());
}

TEST_F(Oxelctl, WithoutADaemonItSaysWhereItLookedAndWhatToCheck) {
    const Outcome outcome = RunHere({"status"});
    EXPECT_EQ(outcome.code, 3);
    EXPECT_EQ(outcome.output, "");
    EXPECT_EQ(outcome.error, "oxelctl: no daemon answers at " + socket_ +
                                 ": is oxelnfsd running for instance Test001?\n");
    EXPECT_EQ(RunHere({"stop", "--json"}).code, 3);
}

TEST_F(Oxelctl, DaemonThatDiedWithoutRemovingItsSocketDoesNotAnswerEither) {
    SocketFile file;
    (void)ListenUnix(socket_, &file);
    EXPECT_EQ(RunHere({"status"}).code, 3);
}

TEST_F(Oxelctl, InstanceIsInstance001UnlessGiven) {
    const Outcome outcome = Run({"status"});
    EXPECT_EQ(outcome.code, 3);
    EXPECT_NE(outcome.error.find("/run/oxelnfsd/Instance001/control.sock"), std::string::npos);
}

TEST_F(Oxelctl, InstanceMayStandAnywhereInAnyCase) {
    Handle("status", StatusBody());
    Start();
    for (const std::vector<std::string>& arguments :
         std::vector<std::vector<std::string>>{{"-vm", "Test001", "status"},
                                               {"-VM", "Test001", "status"},
                                               {"status", "-vm", "Test001"},
                                               {"--json", "-vm", "Test001", "status"},
                                               {"--vm", "Test001", "status"}}) {
        EXPECT_EQ(Run(arguments).code, 0) << arguments[0] << " " << arguments[1];
    }
}

TEST_F(Oxelctl, InstanceNameMayLookLikeAnOption) {
    const Outcome outcome = Run({"-vm", "-no_nfs", "status"});
    EXPECT_EQ(outcome.code, 3);
    EXPECT_NE(outcome.error.find("/-no_nfs/control.sock"), std::string::npos);
}

TEST_F(Oxelctl, WrongUsageIsExitCodeTwoAndSaysWhatIsWrong) {
    for (const auto& [arguments, words] :
         std::vector<std::pair<std::vector<std::string>, std::string>>{
             {{}, "what is to be done?"},
             {{"frobnicate"}, "no such verb: frobnicate"},
             {{"a\nb"}, "no such verb: a\\x0ab"},
             {{"--frob", "status"}, "--frob"},
             {{"status", "more"}, "more"},
             {{"log-level", "5"}, "5"},
             {{"log-level", "-1"}, "-1"},
             {{"log-level", "high"}, "high"},
             {{"log-level", "1", "2"}, "2"},
             {{"start-network", "--registre"}, "--registre"},
             {{"status", "-vm"}, "an instance name must follow"},
             {{"-vm", "", "status"}, "an instance name has 1 to 64 bytes"},
             {{"-vm", "a/b", "status"}, "an instance name has 1 to 64 bytes"},
             {{"-vm", "..", "status"}, "an instance name has 1 to 64 bytes"},
             {{"--vm", "a/b", "status"}, "an instance name has 1 to 64 bytes"}}) {
        const Outcome outcome = Run(arguments);
        EXPECT_EQ(outcome.code, 2) << words;
        EXPECT_EQ(outcome.output, "") << words;
        EXPECT_NE(outcome.error.find(words), std::string::npos) << outcome.error;
    }
}

TEST_F(Oxelctl, HelpListsTheVerbsAndTheExitCodes) {
    const Outcome outcome = Run({"--help"});
    EXPECT_EQ(outcome.code, 0);
    EXPECT_EQ(outcome.error, "");
    for (const char* words :
         {"-vm INSTANCE", "--json", "\n  status ", "\n  perf ", "\n  log-level ",
          "\n  start-network ", "\n  stop ", "\n  check ", "\n  exports ", "\n  mounts ",
          "\n  reload ", "3 no daemon answers"}) {
        EXPECT_NE(outcome.output.find(words), std::string::npos) << words;
    }
    EXPECT_EQ(Run({"log-level", "--help"}).code, 0);
}

}  // namespace oxel::test
