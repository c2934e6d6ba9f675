// SPDX-License-Identifier: Apache-2.0
//
// What clients cause in the log: how many lines, how long they are, and what stands in them.
#include "base/log_clients.h"

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "base/log.h"
#include "tests/base/private_root.h"
#include "tests/support/log_capture.h"

namespace {

std::atomic<time_t> gSeconds{1000000};

}  // namespace

// The coarse clock stands still but for what a test adds.
extern "C" int clock_gettime(clockid_t clock, timespec* now) noexcept {
    if (clock != CLOCK_MONOTONIC_COARSE)
        return static_cast<int>(syscall(SYS_clock_gettime, clock, now));
    now->tv_sec = gSeconds;
    now->tv_nsec = 0;
    return 0;
}

namespace oxel {

using test::LogCapture;

class LogOfClients : public testing::Test {
  protected:
    LogOfClients() { ClientsLog::Bound(true); }
    ~LogOfClients() override {
        ClientsLog::SumUp(true);
        ClientsLog::Bound(false);
    }
    // What the file says of a message of a client with this name in it.
    static std::string Written(const std::string& name) {
        test::PrivateRoot root;
        const std::string path = root.Path() + "/log";
        EXPECT_TRUE(LogWriter::Open(path.c_str(), 0));
        {
            const ClientsLog clients;
            OXEL_LOG(0, "name [%s]", name.c_str());
        }
        LogWriter::Open(nullptr, 0);
        gSeconds += 60;
        const std::string text = test::ReadFile(path);
        const size_t begin = text.find("name ["), end = text.rfind("]\n");
        if (begin == std::string::npos || end == std::string::npos) return text;
        return text.substr(begin + 6, end - begin - 6);
    }
};

TEST_F(LogOfClients, TenLinesOfAPlaceAreWrittenAMinuteAndTheOthersSummedUp) {
    LogCapture log;
    const ClientsLog clients;
    for (int i = 0; i < 1000; ++i) OXEL_LOG(-1, "Error: unknown procedure %d", i);
    EXPECT_EQ(log.Lines().size(), 10u);
    log.Clear();
    ClientsLog::SumUp();
    EXPECT_TRUE(log.Lines().empty()) << "the minute is not over";
    gSeconds += 60;
    ClientsLog::SumUp();
    ASSERT_EQ(log.Lines().size(), 1u);
    EXPECT_EQ(log.Lines()[0],
              (test::LogLine{-1, __PRETTY_FUNCTION__,
                             "Repeated 990 times more: Error: unknown procedure 9"}));
    gSeconds += 60;
    ClientsLog::SumUp();
    EXPECT_EQ(log.Lines().size(), 1u) << "once";
}

TEST_F(LogOfClients, TheNextMessageSumsTheMinuteBeforeUp) {
    LogCapture log;
    const ClientsLog clients;
    for (int i = 0; i < 16; ++i) {
        if (i == 15) {
            log.Clear();
            gSeconds += 60;
        }
        OXEL_LOG(0, "again");
    }
    ASSERT_EQ(log.Lines().size(), 2u);
    EXPECT_EQ(log.Lines()[0].text, "Repeated 5 times more: again");
    EXPECT_EQ(log.Lines()[1].text, "again");
}

TEST_F(LogOfClients, PlacesDoNotShareTheirLines) {
    LogCapture log;
    const ClientsLog clients;
    for (int i = 0; i < 20; ++i) {
        OXEL_LOG(-1, "one text");
        OXEL_LOG(-1, "one text");
    }
    EXPECT_EQ(log.Count(-1, "one text"), 20u);
}

TEST_F(LogOfClients, WhatTheDaemonSaysByItselfIsWrittenEachTime) {
    LogCapture log;
    { const ClientsLog clients; }
    for (int i = 0; i < 500; ++i) OXEL_LOG(1, "Share [%d] is added.", i);
    EXPECT_EQ(log.Lines().size(), 500u);
}

TEST_F(LogOfClients, TracesAreWrittenEachTime) {
    LogCapture log(4);
    const ClientsLog clients;
    for (int i = 0; i < 50; ++i) OXEL_LOG(2, "a trace");
    EXPECT_EQ(log.Lines().size(), 50u);
}

TEST_F(LogOfClients, UnboundEachMessageIsWrittenWhole) {
    ClientsLog::Bound(false);
    LogCapture log;
    const ClientsLog clients;
    const std::string name(5000, 'n');
    for (int i = 0; i < 50; ++i) OXEL_LOG(-1, "name [%s]", name.c_str());
    EXPECT_EQ(log.Count(-1, "name [" + name + "]"), 50u);
}

TEST_F(LogOfClients, ErrnoIsKeptWhetherALineIsWrittenOrNot) {
    LogCapture log;
    const ClientsLog clients;
    for (int i = 0; i < 12; ++i) {
        errno = ESTALE;
        OXEL_LOG(-1, "%m");
        EXPECT_EQ(errno, ESTALE);
    }
    EXPECT_EQ(log.Count(-1, "Stale file handle"), 10u);
}

TEST_F(LogOfClients, LongNamesAreCutAndTheirLengthIsTold) {
    const std::string written = Written(std::string(60000, 'n'));
    EXPECT_NE(written.find("... [60007 bytes"), std::string::npos) << written.substr(1000);
    EXPECT_LT(written.size(), 1200u);
}

// An escaped name is four times as long, and no longer.
TEST_F(LogOfClients, LinesAreShortWhateverANameIsMadeOf) {
    EXPECT_LT(Written(std::string(60000, '\n')).size(), 5000u);
    EXPECT_LT(Written(std::string(60000, '\xff')).size(), 5000u);
}

TEST_F(LogOfClients, TextOfOtherAlphabetsPassesAndNothingElse) {
    EXPECT_EQ(Written("gr\xc3\xbc\xc3\x9f \xe6\x97\xa5\xe6\x9c\xac \xf0\x9f\x8c\xb3"),
              "gr\xc3\xbc\xc3\x9f \xe6\x97\xa5\xe6\x9c\xac \xf0\x9f\x8c\xb3");
    EXPECT_EQ(Written("a\nb\rc\x1b[2J\x7f"), R"(a\x0ab\x0dc\x1b[2J\x7f)");
    // Next line, the begin of a terminal's command, line and paragraph separators.
    EXPECT_EQ(Written("a\xc2\x85z"), R"(a\xc2\x85z)");
    EXPECT_EQ(Written("a\xc2\x9b"
                      "2J"),
              R"(a\xc2\x9b2J)");
    EXPECT_EQ(Written("a\xe2\x80\xa8z\xe2\x80\xa9"), R"(a\xe2\x80\xa8z\xe2\x80\xa9)");
    // What turns the direction of what follows.
    EXPECT_EQ(Written("a\xe2\x80\xae"
                      "b\xe2\x81\xa6"),
              R"(a\xe2\x80\xaeb\xe2\x81\xa6)");
    // No UTF-8: a lone byte of eight-bit terminals' commands, half a character, an overlong
    // newline, a surrogate, and what is beyond all characters.
    EXPECT_EQ(Written("a\x9b"
                      "2J"),
              R"(a\x9b2J)");
    EXPECT_EQ(Written("\xe6\x97"), R"(\xe6\x97)");
    EXPECT_EQ(Written("\xc0\x8a"), R"(\xc0\x8a)");
    EXPECT_EQ(Written("\xed\xa0\x80"), R"(\xed\xa0\x80)");
    EXPECT_EQ(Written("\xf4\x90\x80\x80"), R"(\xf4\x90\x80\x80)");
}

TEST_F(LogOfClients, AnExampleInASumCannotForgeALineEither) {
    test::PrivateRoot root;
    const std::string path = root.Path() + "/log";
    ASSERT_TRUE(LogWriter::Open(path.c_str(), 0));
    {
        const ClientsLog clients;
        for (int i = 0; i < 20; ++i) OXEL_LOG(-1, "name [%s]", "a\nb\xc2\x85");
    }
    ClientsLog::SumUp(true);
    LogWriter::Open(nullptr, 0);
    const std::string text = test::ReadFile(path);
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 11);
    EXPECT_NE(text.find("Repeated 10 times more: name [a\\x0ab\\xc2\\x85]\n"), std::string::npos)
        << text;
}

TEST_F(LogOfClients, ManyThreadsLoseNoCount) {
    LogCapture log;
    constexpr unsigned kThreads = 4, kEach = 2000;
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < kThreads; ++t)
        threads.emplace_back([] {
            const ClientsLog clients;
            for (unsigned i = 0; i < kEach; ++i) OXEL_LOG(-1, "of many threads");
        });
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(log.Lines().size(), 10u);
    ClientsLog::SumUp(true);
    EXPECT_TRUE(log.Has(-1, "Repeated 7990 times more: of many threads")) << log.Dump();
}

}  // namespace oxel
