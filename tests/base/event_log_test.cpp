// SPDX-License-Identifier: Apache-2.0
//
// The event log: what goes to the log and what to standard error.
#include "base/event_log.h"

#include <gtest/gtest.h>

#include <regex>

#include "base/thread.h"
#include "tests/base/child_process.h"
#include "tests/base/private_root.h"
#include "tests/support/log_capture.h"

using oxel::test::BesideMe;
using oxel::test::LogCapture;
using oxel::test::LogLine;
using oxel::test::Outcome;
using oxel::test::PrivateRoot;
using oxel::test::RunProgram;

static const char kPrefix[] = R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z \d+ \[main\] )";

TEST(EventLog, LineHasTheCallersFunctionAndNoLineNumber) {
    LogCapture capture;
    EvDebug::Debug("RegisterService", "lock [%s]", "I1");
    ASSERT_EQ(capture.Lines().size(), 1u);
    EXPECT_EQ(capture.Lines()[0], (LogLine{oxel::kLogLevelEvent, "RegisterService", "lock [I1]"}));
}

TEST(EventLog, IsWrittenWhateverTheLevel) {
    LogCapture capture(0);
    EvDebug::Debug("main", "x");
    EXPECT_EQ(capture.Lines().size(), 1u);
}

TEST(EventLog, MajorEventHasItsCodeInHexadecimal) {
    LogCapture capture;
    EvEvent event;
    event.MajorEvent(1526726887, 0, 256);
    ASSERT_EQ(capture.AtLevel(-1).size(), 1u);
    EXPECT_NE(capture.AtLevel(-1)[0].text.find("0x5B0000E7"), std::string::npos);
}

TEST(EventLog, MajorEventAfterDisconnectIsNotRecorded) {
    LogCapture capture;
    EvEvent event;
    event.disconnect();
    event.MajorEvent(1, 0, 0);
    EXPECT_TRUE(capture.Lines().empty());
}

TEST(EventLog, InitializeSucceeds) {
    EXPECT_EQ(EvEvent::initialize(2, 0x1A90B226, 0, nullptr, ""), 1);
    EvEvent::terminate();
}

TEST(EventLog, DebugWaitReturnsAtOnceWithoutTheEnvironmentVariable) {
    LogCapture capture;
    unsetenv("OXEL_DEBUG_WAIT");
    EvDebug::debugWait("oxelnfs");
    setenv("OXEL_DEBUG_WAIT", "other", 1);
    EvDebug::debugWait("oxelnfs");
    unsetenv("OXEL_DEBUG_WAIT");
    EXPECT_TRUE(capture.Lines().empty());
}

TEST(EventLog, DebugWaitWaitsForTheProgramThatIsNamed) {
    LogCapture capture(1);
    setenv("OXEL_DEBUG_WAIT", "oxelnfs", 1);
    oxel::WakeSleepers();  // the wait ends with the process
    EvDebug::debugWait("oxelnfs");
    oxel::ResetSleepers();
    unsetenv("OXEL_DEBUG_WAIT");
    EXPECT_EQ(capture.Lines().size(), 1u) << "it says that it waits";
}

// What a person sees who starts the daemon with the wrong arguments.
TEST(EventLog, UsageLineStandsAloneOnStandardError) {
    const PrivateRoot root;
    for (const bool logOnStandardError : {false, true}) {
        if (logOnStandardError) setenv("OXEL_LOG", "stderr", 1);
        const Outcome outcome = RunProgram({BesideMe("base_process"), "usage"});
        unsetenv("OXEL_LOG");
        EXPECT_EQ(outcome.error, "Usage: oxelnfsd -cn <clientname> -vm <Instance>\n");
        EXPECT_EQ(outcome.output, "");
    }
}

TEST(EventLog, EventsOfBeforeTheLogIsOpenedWaitForIt) {
    const PrivateRoot root;
    const Outcome outcome = RunProgram({BesideMe("base_process"), "events"});
    EXPECT_EQ(outcome.code, 0);
    EXPECT_EQ(outcome.error, "Starting oxel\\x0anfsd.\nRunning.\n");
    const std::regex expected(std::string(kPrefix) + R"(Lev main: Starting oxel\\x0anfsd\.\n)" +
                              kPrefix + R"(Lev main: Running\.\n)");
    const std::string log = oxel::test::ReadFile(root.Paths().log);
    EXPECT_TRUE(std::regex_match(log, expected)) << log;
}

TEST(EventLog, LogOnStandardErrorHasEachEventAsALogLine) {
    const PrivateRoot root;
    setenv("OXEL_LOG", "stderr", 1);
    const Outcome outcome = RunProgram({BesideMe("base_process"), "events"});
    unsetenv("OXEL_LOG");
    const std::regex expected(std::string(R"(Starting oxel\\x0anfsd\.\n)") + kPrefix +
                              R"(Lev main: Starting oxel\\x0anfsd\.\n)" + kPrefix +
                              R"(Lev main: Running\.\n)");
    EXPECT_TRUE(std::regex_match(outcome.error, expected)) << outcome.error;
    EXPECT_FALSE(std::filesystem::exists(root.Paths().log));
}

TEST(EventLog, ErrorNamesTheStepThatFailed) {
    const PrivateRoot root;
    const Outcome outcome = RunProgram({BesideMe("base_process"), "fatal"});
    EXPECT_TRUE(outcome.error.ends_with("\nBasicInit: Fatal\n")) << outcome.error;
    EXPECT_NE(outcome.error.find("0x5B0000E7"), std::string::npos)
        << "without a log the major event goes to standard error";
}
