// SPDX-License-Identifier: Apache-2.0
//
// Check-in, named locks and the process's preparation.
#include "base/instance.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <thread>

#include "base/log.h"
#include "base/store.h"
#include "base/thread.h"
#include "tests/base/child_process.h"
#include "tests/base/private_root.h"
#include "tests/support/log_capture.h"

using oxel::test::BesideMe;
using oxel::test::ChildProcess;
using oxel::test::LogCapture;
using oxel::test::Outcome;
using oxel::test::PrivateRoot;
using oxel::test::ReadFile;
using oxel::test::RunProgram;
using oxel::test::WriteFile;

static mode_t ModeOf(const std::string& path) {
    struct stat status;
    return stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

static std::string Parent(const std::string& path) {
    return path.substr(0, path.find_last_of('/'));
}

TEST(MakeDirectories, ModesAreExactWhateverTheUmask) {
    const PrivateRoot root;
    const mode_t before = umask(077);
    EXPECT_TRUE(oxel::MakeDirectories(root.Path() + "/a/b/c", 0750));
    umask(before);
    EXPECT_EQ(ModeOf(root.Path() + "/a"), 0755u);
    EXPECT_EQ(ModeOf(root.Path() + "/a/b"), 0755u);
    EXPECT_EQ(ModeOf(root.Path() + "/a/b/c"), 0750u);
}

TEST(MakeDirectories, DirectoryThatIsThereKeepsItsMode) {
    const PrivateRoot root;
    ASSERT_TRUE(oxel::MakeDirectories(root.Path() + "/a", 0700));
    EXPECT_TRUE(oxel::MakeDirectories(root.Path() + "/a", 0755));
    EXPECT_EQ(ModeOf(root.Path() + "/a"), 0700u);
}

TEST(MakeDirectories, FileInTheWayIsAnError) {
    const PrivateRoot root;
    WriteFile(root.Path() + "/file", "x");
    EXPECT_FALSE(oxel::MakeDirectories(root.Path() + "/file", 0755));
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_FALSE(oxel::MakeDirectories(root.Path() + "/file/below", 0755));
    EXPECT_EQ(errno, ENOTDIR);
}

TEST(CheckIn, MakesTheDirectoryAndLeavesThePidInTheFile) {
    const PrivateRoot root;
    ChildProcess child({BesideMe("base_process"), "checkin"});
    EXPECT_EQ(child.ReadLine(), "1");
    EXPECT_EQ(ReadFile(root.Paths().instanceLock), std::to_string(child.Pid()) + "\n");
    EXPECT_EQ(ModeOf(root.Paths().runDir), 0755u);
}

TEST(CheckIn, SecondProcessIsRefusedUntilTheFirstHasEnded) {
    const PrivateRoot root;
    ChildProcess first({BesideMe("base_process"), "checkin"});
    ASSERT_EQ(first.ReadLine(), "1");
    const Outcome second = RunProgram({BesideMe("base_process"), "checkin"});
    EXPECT_EQ(second.output, "0\n");
    EXPECT_EQ(second.error, "") << "the caller says that it is running";
    EXPECT_EQ(ReadFile(root.Paths().instanceLock), std::to_string(first.Pid()) + "\n");
    first.Finish();
    const Outcome third = RunProgram({BesideMe("base_process"), "checkin"});
    EXPECT_EQ(third.output, "1\n") << "a lock file left behind locks nothing";
}

TEST(CheckIn, ShorterPidReplacesALongerText) {
    const PrivateRoot root;
    WriteFile(root.Paths().instanceLock, "123456789012345678901234567890\n");
    ChildProcess child({BesideMe("base_process"), "checkin"});
    ASSERT_EQ(child.ReadLine(), "1");
    EXPECT_EQ(ReadFile(root.Paths().instanceLock), std::to_string(child.Pid()) + "\n");
}

TEST(CheckIn, OneProcessMayCheckInAgain) {
    const PrivateRoot root("CheckInTwice");
    EXPECT_NE(uxsvc_checkin("oxelnfsd"), 0);
    EXPECT_NE(uxsvc_checkin("oxelnfsd"), 0);
}

static long NextStart() {
    return atol(RunProgram({BesideMe("base_process"), "start-time"}).output.c_str());
}

TEST(StartTime, TwoStartsWithinASecondDiffer) {
    const PrivateRoot root;
    const long begin = static_cast<long>(time(nullptr));
    long last = NextStart();
    EXPECT_GE(last, begin);
    EXPECT_LE(last, static_cast<long>(time(nullptr)));
    for (int i = 0; i < 5; ++i) {
        const long next = NextStart();
        EXPECT_GT(next, last);
        last = next;
    }
}

TEST(StartTime, AProcessThatEndsBeforeItsServiceStartsForgetsNothing) {
    const PrivateRoot root;
    NextStart();
    const long last = NextStart() + 1000;
    const timespec times[2] = {{last, 0}, {last, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, root.Paths().instanceLock.c_str(), times, 0), 0);
    RunProgram({BesideMe("base_process"), "checkin"});
    EXPECT_EQ(NextStart(), last + 1);
}

// The clock was ahead at the last start.
TEST(StartTime, AClockThatWasSetBackGivesNoNumberAgain) {
    const PrivateRoot root;
    NextStart();
    const time_t ahead = time(nullptr) + 86400;
    const timespec times[2] = {{ahead, 0}, {ahead, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, root.Paths().instanceLock.c_str(), times, 0), 0);
    EXPECT_EQ(NextStart(), ahead + 1);
    EXPECT_EQ(NextStart(), ahead + 2);
}

// The last start was noted with a clock that the number has no room for.
TEST(StartTime, AClockBeyondTheNumberIsNotCountedOnFrom) {
    const PrivateRoot root;
    const long begin = static_cast<long>(time(nullptr));
    NextStart();
    const timespec times[2] = {{int64_t{1} << 33, 0}, {int64_t{1} << 33, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, root.Paths().instanceLock.c_str(), times, 0), 0);
    const long last = NextStart();
    EXPECT_GE(last, begin);
    EXPECT_GT(NextStart(), last);
}

TEST(CheckIn, LockFileThatCannotBeMadeIsSaidOnStandardError) {
    const PrivateRoot root;
    WriteFile(root.Path() + "/run", "in the way");
    const Outcome outcome = RunProgram({BesideMe("base_process"), "checkin"});
    EXPECT_EQ(outcome.output, "0\n");
    EXPECT_NE(outcome.error.find(root.Paths().instanceLock + ": Not a directory"),
              std::string::npos)
        << outcome.error;
}

TEST(NamedMutex, ExcludesAnotherProcessUntilUnlocked) {
    const PrivateRoot root;
    XoNamedMutex mutex("Korvane-oxelnfsdServiceTest001");
    ASSERT_TRUE(mutex.lock());
    EXPECT_TRUE(
        std::filesystem::exists(root.Path() + "/run/oxelnfsd/Korvane-oxelnfsdServiceTest001.lock"));
    ChildProcess child({BesideMe("base_process"), "lock", "Korvane-oxelnfsdServiceTest001"});
    ChildProcess other({BesideMe("base_process"), "lock", "Korvane-oxelnfsdServiceTest002"});
    EXPECT_EQ(other.ReadLine(), "1") << "another name is another lock";
    mutex.unlock();
    EXPECT_EQ(child.ReadLine(), "1");
    child.Finish();
    EXPECT_TRUE(mutex.lock()) << "the end of a process releases its lock";
    mutex.unlock();
}

TEST(NamedMutex, WaitEndsWhenTheProcessIsToStop) {
    const PrivateRoot root;
    XoNamedMutex held("Name"), wanted("Name");
    ASSERT_TRUE(held.lock());
    int error = 0;
    std::thread waiter([&] {
        if (!wanted.lock()) error = errno;
    });
    oxel::WakeSleepers();
    waiter.join();
    oxel::ResetSleepers();
    EXPECT_EQ(error, EINTR);
}

TEST(NamedMutex, NameThatLeavesTheDirectoryIsRefused) {
    const PrivateRoot root;
    XoNamedMutex mutex("../x"), nameless("");
    EXPECT_FALSE(mutex.lock());
    EXPECT_EQ(errno, EINVAL);
    EXPECT_FALSE(nameless.lock());
}

TEST(BasicInit, PreparesDirectoriesLimitsSignalsAndLog) {
    const PrivateRoot root;
    WriteFile(root.Paths().conf, "[Log]\nnLogLevel = 3\nbroken\n");
    const Outcome outcome = RunProgram({BesideMe("base_process"), "initialise"});
    EXPECT_EQ(outcome.output, "1 descriptors 200 sigpipe ignored level 3\n");
    EXPECT_EQ(outcome.error, "");
    EXPECT_EQ(ModeOf(root.Paths().runDir), 0755u);
    EXPECT_EQ(ModeOf(root.Paths().stateDir), 0700u);
    EXPECT_EQ(ModeOf(Parent(root.Paths().stateDir)), 0755u);
    EXPECT_EQ(ModeOf(root.Paths().logDir), 0755u);
    const std::string log = ReadFile(root.Paths().log);
    EXPECT_NE(log.find(root.Paths().conf + ":3: "), std::string::npos)
        << "what is wrong with the store stands in the log";
}

TEST(BasicInit, LogLevelIsOneByDefaultAndFourAtMost) {
    const PrivateRoot root;
    EXPECT_NE(RunProgram({BesideMe("base_process"), "initialise"}).output.find("level 1"),
              std::string::npos);
    WriteFile(root.Paths().conf, "[Log]\nnLogLevel = 18446744073709551615\n");
    EXPECT_NE(RunProgram({BesideMe("base_process"), "initialise"}).output.find("level 4"),
              std::string::npos);
}

TEST(BasicInit, SizeOfTheLogIsTakenFromTheStore) {
    const PrivateRoot root;
    std::filesystem::create_directories(root.Paths().logDir);
    WriteFile(root.Paths().log, "");
    std::filesystem::resize_file(root.Paths().log, (1u << 20) + 1);
    WriteFile(root.Paths().conf, "[Log]\nnMaxSizeMB = 1\n");
    const Outcome outcome = RunProgram({BesideMe("base_process"), "events"});
    EXPECT_EQ(outcome.code, 0);
    EXPECT_TRUE(std::filesystem::exists(root.Paths().log + ".old"));
}

TEST(BasicInit, DirectoryThatCannotBeMadeIsSaid) {
    const PrivateRoot root;
    WriteFile(root.Path() + "/var", "in the way");
    const Outcome outcome = RunProgram({BesideMe("base_process"), "initialise"});
    EXPECT_EQ(outcome.output.substr(0, 2), "0 ");
    EXPECT_NE(outcome.error.find("Cannot make the directory " + root.Paths().stateDir),
              std::string::npos)
        << outcome.error;
}

TEST(BasicInit, LogThatCannotBeOpenedIsSaid) {
    const PrivateRoot root;
    std::filesystem::create_directories(root.Paths().log);
    const Outcome outcome = RunProgram({BesideMe("base_process"), "initialise"});
    EXPECT_EQ(outcome.output.substr(0, 2), "0 ");
    EXPECT_NE(outcome.error.find("Cannot open the log " + root.Paths().log + ": Is a directory"),
              std::string::npos)
        << outcome.error;
}

TEST(AdvancedInit, TellsTheServiceManager) {
    const PrivateRoot root;
    const std::string path = root.Path() + "/notify";
    const oxel::UniqueFd manager(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, path.c_str());
    ASSERT_EQ(bind(manager.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    setenv("NOTIFY_SOCKET", path.c_str(), 1);
    EXPECT_EQ(AdvancedInit(), 1);
    EXPECT_EQ(AdvancedInit(), 1) << "again, after the services could be started";
    unsetenv("NOTIFY_SOCKET");
    char text[64] = "";
    EXPECT_GT(recv(manager.Get(), text, sizeof text - 1, 0), 0);
    EXPECT_STREQ(text, "READY=1");
}

TEST(AdvancedInit, WithoutAManagerThereIsNothingToDo) {
    LogCapture capture;
    unsetenv("NOTIFY_SOCKET");
    EXPECT_EQ(AdvancedInit(), 1);
    EXPECT_TRUE(capture.Lines().empty());
}

TEST(AdvancedInit, ManagerThatIsGoneIsNoReasonToEnd) {
    LogCapture capture;
    setenv("NOTIFY_SOCKET", "/nonexistent/notify", 1);
    EXPECT_EQ(AdvancedInit(), 1);
    unsetenv("NOTIFY_SOCKET");
    EXPECT_EQ(capture.AtLevel(0).size(), 1u);
}
