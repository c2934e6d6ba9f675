// SPDX-License-Identifier: Apache-2.0
//
// The log writer: what a line looks like, what passes into it, and the file's life.
#include "base/log.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <filesystem>
#include <regex>
#include <set>
#include <sstream>
#include <thread>
#include <vector>

#include "base/unique_fd.h"
#include "tests/base/private_root.h"
#include "tests/support/log_capture.h"

namespace oxel {

using test::LogCapture;
using test::ReadFile;

static std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    return lines;
}

// Logs into a file of its own at level 1.
class Log : public testing::Test {
  protected:
    Log() : path_(root_.Path() + "/log") {
        EXPECT_TRUE(LogWriter::Open(path_.c_str(), 0));
        LogWriter::SetLevel(1);
    }
    ~Log() override {
        LogWriter::SetLevel(1);
        LogWriter::Open(nullptr, 0);
    }
    std::string Written() const { return ReadFile(path_); }
    // The only line's message, without its end.
    std::string Message() const {
        const std::string text = Written();
        const size_t signatureEnd = text.find("():");
        const size_t blank = text.find(' ', signatureEnd);
        if (signatureEnd == std::string::npos || !text.ends_with('\n')) return "NO LINE: " + text;
        return text.substr(blank + 1, text.size() - blank - 2);
    }

    test::PrivateRoot root_;
    const std::string path_;
};

TEST_F(Log, LineHasTimePidThreadLevelSignatureLineAndMessage) {
    const time_t before = time(nullptr);
    OXEL_LOG(-1, "Port [%d] is [%s]", 2049, "taken");
    const int line = __LINE__ - 1;
    const time_t after = time(nullptr);
    std::smatch match;
    const std::string text = Written();
    static const std::regex kLine(
        R"((\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d)\.\d{6}Z (\d+) \[main\] L-1 (.*):(\d+) (.*)\n)");
    ASSERT_TRUE(std::regex_match(text, match, kLine)) << text;
    std::set<std::string> possible;
    for (time_t second = before; second <= after; ++second) {
        char stamp[32];
        tm utc;
        strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%S", gmtime_r(&second, &utc));
        possible.insert(stamp);
    }
    EXPECT_EQ(possible.count(match[1]), 1u) << match[1];
    EXPECT_EQ(match[2], std::to_string(getpid()));
    EXPECT_EQ(match[3], __PRETTY_FUNCTION__);
    EXPECT_EQ(match[4], std::to_string(line));
    EXPECT_EQ(match[5], "Port [2049] is [taken]");
}

TEST_F(Log, LevelAboveTheCurrentOneIsNotWritten) {
    OXEL_LOG(2, "two");
    EXPECT_EQ(Written(), "");
    LogWriter::SetLevel(2);
    OXEL_LOG(2, "two");
    EXPECT_EQ(Message(), "two");
}

TEST_F(Log, ErrorsAndWarningsAreAlwaysWritten) {
    LogWriter::SetLevel(0);
    OXEL_LOG(1, "information");
    OXEL_LOG(0, "warning");
    OXEL_LOG(-1, "error");
    const auto lines = Lines(Written());
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_NE(lines[0].find(" L0 "), std::string::npos);
    EXPECT_NE(lines[1].find(" L-1 "), std::string::npos);
}

TEST_F(Log, ArgumentsOfALevelThatIsOffAreNotEvaluated) {
    int evaluated = 0;
    OXEL_LOG(4, "%d", ++evaluated);
    EXPECT_EQ(evaluated, 0);
}

TEST_F(Log, ControlCharactersOfArgumentsAreEscaped) {
    OXEL_LOG(1, "name [%s]", "a\nb\r\x01\x1f\x7f\tz");
    EXPECT_EQ(Message(), R"(name [a\x0ab\x0d\x01\x1f\x7f\x09z])");
}

TEST_F(Log, ClientCannotForgeALine) {
    OXEL_LOG(1, "name [%s]", "x\n2026-01-01T00:00:00.000000Z 1 [main] L1 int main():1 forged");
    EXPECT_EQ(Lines(Written()).size(), 1u);
}

TEST_F(Log, ControlCharactersOfTheFormatPass) {
    OXEL_LOG(1, "a\tb [%s]", "\r");
    EXPECT_EQ(Message(), "a\tb [\\x0d]");
}

TEST_F(Log, BytesOfOtherAlphabetsPass) {
    OXEL_LOG(1, "%s", "\xc3\xbc \xff");
    EXPECT_EQ(Message(), "\xc3\xbc \xff");
}

TEST_F(Log, LongMessageIsWhole) {
    const std::string longText(100000, 'x');
    OXEL_LOG(1, "<%s>", longText.c_str());
    EXPECT_EQ(Message(), "<" + longText + ">");
}

TEST_F(Log, LongMessageFullOfControlCharactersIsWhole) {
    std::string expected;
    for (int i = 0; i < 5000; ++i) expected += "\\x02";
    OXEL_LOG(1, "%s", std::string(5000, '\x02').c_str());
    EXPECT_EQ(Message(), expected);
}

// Around the length where a message stops to fit into the first buffer.
TEST_F(Log, MessagesOfEveryLengthAroundTheBuffersAreWhole) {
    for (size_t length = 900; length <= 1100; ++length) {
        OXEL_LOG(1, "%s", std::string(length, 'y').c_str());
        ASSERT_EQ(Message(), std::string(length, 'y'));
        ASSERT_EQ(truncate(path_.c_str(), 0), 0);
    }
}

TEST_F(Log, EmptyMessageIsALine) {
    OXEL_LOG(1, "%s", "");
    EXPECT_EQ(Message(), "");
}

TEST_F(Log, ErrnoIsKept) {
    errno = ESTALE;
    OXEL_LOG(1, "%m");
    EXPECT_EQ(errno, ESTALE);
    EXPECT_EQ(Message(), "Stale file handle");
}

TEST_F(Log, EveryLineIsOneWrite) {
    int sockets[2];  // each write is one message here
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0, sockets), 0);
    const UniqueFd reader(sockets[0]), writer(sockets[1]);
    const UniqueFd before(dup(STDERR_FILENO));
    dup2(writer.Get(), STDERR_FILENO);
    EXPECT_TRUE(LogWriter::Open("", 0));
    OXEL_LOG(1, "one %s", "a\nb");
    OXEL_LOG(1, "two");
    dup2(before.Get(), STDERR_FILENO);
    char message[512];
    const ssize_t first = recv(reader.Get(), message, sizeof message, 0);
    ASSERT_GT(first, 0);
    EXPECT_TRUE(std::string(message, static_cast<size_t>(first)).ends_with(" one a\\x0ab\n"));
    const ssize_t second = recv(reader.Get(), message, sizeof message, 0);
    ASSERT_GT(second, 0);
    EXPECT_TRUE(std::string(message, static_cast<size_t>(second)).ends_with(" two\n"));
    EXPECT_LT(recv(reader.Get(), message, sizeof message, 0), 0) << "nothing more was written";
}

TEST_F(Log, IsAppendedTo) {
    OXEL_LOG(1, "first");
    EXPECT_TRUE(LogWriter::Open(path_.c_str(), 0));
    OXEL_LOG(1, "second");
    EXPECT_EQ(Lines(Written()).size(), 2u);
}

TEST_F(Log, GoesOnWhereItWasWhenAnotherFileCannotBeOpened) {
    EXPECT_FALSE(LogWriter::Open((root_.Path() + "/none/log").c_str(), 0));
    EXPECT_EQ(errno, ENOENT);
    OXEL_LOG(1, "still here");
    EXPECT_EQ(Message(), "still here");
}

TEST_F(Log, ReopenMakesTheFileAnewAfterItWasMovedAway) {
    OXEL_LOG(1, "old");
    std::filesystem::rename(path_, path_ + ".moved");
    OXEL_LOG(1, "old too");
    EXPECT_TRUE(LogWriter::Reopen());
    OXEL_LOG(1, "new");
    EXPECT_EQ(Lines(ReadFile(path_ + ".moved")).size(), 2u);
    EXPECT_EQ(Message(), "new");
}

TEST_F(Log, ReopenThatFailsKeepsTheFileThatIsOpen) {
    OXEL_LOG(1, "before");
    std::filesystem::create_directory(root_.Path() + "/away");
    std::filesystem::rename(path_, root_.Path() + "/away/log");
    std::filesystem::create_directory(path_);
    EXPECT_FALSE(LogWriter::Reopen());
    EXPECT_EQ(errno, EISDIR);
    OXEL_LOG(1, "after");
    EXPECT_EQ(Lines(ReadFile(root_.Path() + "/away/log")).size(), 2u);
}

TEST_F(Log, FileIsRenamedWhenItHasGrownPastTheSize) {
    EXPECT_TRUE(LogWriter::Open(path_.c_str(), 1));
    const std::string big(300000, 'x');
    for (int i = 0; i < 4; ++i) OXEL_LOG(1, "%d %s", i, big.c_str());  // 1.2 MB: past 1 MiB
    EXPECT_FALSE(std::filesystem::exists(path_ + ".old"));
    OXEL_LOG(1, "the first of the new file");
    EXPECT_EQ(Message(), "the first of the new file");
    EXPECT_EQ(Lines(ReadFile(path_ + ".old")).size(), 4u);
}

TEST_F(Log, SizeOfAnEarlierRunCounts) {
    std::filesystem::resize_file(path_, (1u << 20) + 1);
    EXPECT_TRUE(LogWriter::Open(path_.c_str(), 1));
    OXEL_LOG(1, "new");
    EXPECT_EQ(Message(), "new");
    EXPECT_EQ(std::filesystem::file_size(path_ + ".old"), (1u << 20) + 1);
}

TEST_F(Log, OneOldFileIsKept) {
    EXPECT_TRUE(LogWriter::Open(path_.c_str(), 1));
    const std::string big((1u << 20) + 1, 'x');
    for (int i = 0; i < 3; ++i) OXEL_LOG(1, "%d%s", i, big.c_str());
    EXPECT_EQ(Message(), "2" + big);
    EXPECT_NE(ReadFile(path_ + ".old").find(" 1xx"), std::string::npos);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(root_.Path()), {}), 2);
}

TEST_F(Log, RotationThatFailsLosesNothing) {
    std::filesystem::create_directory(path_ + ".old");
    test::WriteFile(path_ + ".old/x", "in the way");
    EXPECT_TRUE(LogWriter::Open(path_.c_str(), 1));
    const std::string big((1u << 20) + 1, 'x');
    OXEL_LOG(1, "%s", big.c_str());
    OXEL_LOG(1, "next");
    EXPECT_EQ(Lines(Written()).size(), 2u);
}

TEST_F(Log, ZeroSizeMeansNoRotation) {
    const std::string big((1u << 20) + 1, 'x');
    for (int i = 0; i < 3; ++i) OXEL_LOG(1, "%s", big.c_str());
    EXPECT_EQ(Lines(Written()).size(), 3u);
}

TEST_F(Log, ManyThreadsWriteWholeLinesWhileTheFileRotates) {
    constexpr int kThreads = 4, kLines = 400;
    EXPECT_TRUE(LogWriter::Open(path_.c_str(), 1));
    const std::string big(1000, 'x');
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kLines; ++i) OXEL_LOG(1, "%d-%d %s.", t, i, big.c_str());
        });
    }
    for (int i = 0; i < 20; ++i) EXPECT_TRUE(LogWriter::Reopen());
    for (std::thread& thread : threads) thread.join();
    std::vector<std::string> lines = Lines(Written());
    for (const std::string& line : Lines(ReadFile(path_ + ".old"))) lines.push_back(line);
    EXPECT_EQ(lines.size(), static_cast<size_t>(kThreads * kLines));
    for (const std::string& line : lines) EXPECT_TRUE(line.ends_with(big + ".")) << line;
}

TEST_F(Log, SinkTakesMessagesInsteadOfTheFile) {
    {
        LogCapture capture(1);
        OXEL_LOG(1, "to the %s", "sink\n");
        OXEL_LOG(2, "above the level");
        const auto lines = capture.Lines();
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0].level, 1);
        EXPECT_EQ(lines[0].function, __PRETTY_FUNCTION__);
        EXPECT_EQ(lines[0].text, "to the sink\n") << "as it was said";
    }
    OXEL_LOG(1, "to the file");
    EXPECT_EQ(Message(), "to the file");
}

TEST_F(Log, SinkThatThrowsDoesNotHurtTheLogger) {
    LogWriter::SetSink([](const LogRecord&) { throw 1; });
    OXEL_LOG(1, "x");
    LogWriter::SetSink({});
    EXPECT_EQ(Written(), "");
}

TEST(EscapeControl, EscapesWhatIsNotKept) {
    EXPECT_EQ(EscapeControl("plain"), "plain");
    EXPECT_EQ(EscapeControl(std::string("a\0b", 3)), "a\\x00b");
    EXPECT_EQ(EscapeControl("\t\n"), "\\x09\\x0a");
    EXPECT_EQ(EscapeControl("\t\n", "\n"), "\\x09\n");
    EXPECT_EQ(EscapeControl("\x7f\x1f", "\x7f"), "\x7f\\x1f");
}

}  // namespace oxel
