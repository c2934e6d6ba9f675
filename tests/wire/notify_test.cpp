// SPDX-License-Identifier: Apache-2.0
//
// The daemon under a service manager: what it tells about its start, its reloads and its end, the
// status line, and the signs of life that a watchdog waits for. The test is the manager.
#include <dirent.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <cstring>
#include <ctime>
#include <deque>
#include <functional>

#include "base/unique_fd.h"
#include "tests/support/modes.h"
#include "tests/support/private_tree.h"
#include "tests/support/rpc_client.h"

namespace oxel::test {
namespace {

constexpr char kSignOfLife[] = "WATCHDOG=1";
// For messages that never come.
constexpr int kPatienceMs = 60000;

bool Has(const std::string& message, const std::string& text) {
    return message.find(text) != std::string::npos;
}

uint64_t NumberAfter(const std::string& message, const std::string& word) {
    const size_t at = message.find(word);
    return at == std::string::npos ? 0 : strtoull(message.c_str() + at + word.size(), nullptr, 10);
}

uint64_t MonotonicMicroseconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000 + static_cast<uint64_t>(now.tv_nsec) / 1000;
}

// The manager's end of $NOTIFY_SOCKET.
class Manager {
  public:
    // `watchdogMs`: 0 for a manager that does not watch.
    Manager(const PrivateTree& tree, unsigned watchdogMs)
        : path_(tree.Path("notify")), socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        strncpy(address.sun_path, path_.c_str(), sizeof address.sun_path - 1);
        EXPECT_EQ(bind(socket_.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0)
            << strerror(errno);
        setenv("NOTIFY_SOCKET", path_.c_str(), 1);
        if (watchdogMs != 0) setenv("WATCHDOG_USEC", std::to_string(watchdogMs * 1000).c_str(), 1);
    }
    ~Manager() {
        unsetenv("NOTIFY_SOCKET");
        unsetenv("WATCHDOG_USEC");
    }

    // The next message; "" when none comes in that time.
    std::string Next(int timeoutMs = kPatienceMs) {
        pollfd input = {socket_.Get(), POLLIN, 0};
        if (poll(&input, 1, timeoutMs) != 1) return "";
        char bytes[4096];
        const ssize_t got = recv(socket_.Get(), bytes, sizeof bytes, 0);
        return std::string(bytes, got > 0 ? static_cast<size_t>(got) : 0);
    }
    // The next message with the text, those before it are gone; "" and a failure when none comes.
    std::string NextWith(const std::string& text) {
        std::string last;
        for (int messages = 0; messages < 1000; ++messages) {
            const std::string message = Next();
            if (message.empty()) break;
            if (Has(message, text)) return message;
            last = message;
        }
        ADD_FAILURE() << "no message with " << text << "; the last one was " << last;
        return "";
    }
    // Takes what has come.
    void Drain() {
        while (!Next(0).empty()) {
        }
    }
    // How many of the next messages are signs of life.
    int SignsOfLifeInNext(int messages) {
        int signs = 0;
        for (int i = 0; i < messages; ++i) {
            const std::string message = Next();
            EXPECT_NE(message, "") << "the daemon has fallen silent";
            if (Has(message, kSignOfLife)) ++signs;
        }
        return signs;
    }

  private:
    const std::string path_;
    const UniqueFd socket_;
};

// A thread of another process that stands still, as if it were held up for ever.
class StoppedThread {
  public:
    explicit StoppedThread(pid_t thread) : thread_(thread) {
        if (ptrace(PTRACE_SEIZE, thread, nullptr, nullptr) != 0) {
            error_ = errno;
            return;
        }
        EXPECT_EQ(ptrace(PTRACE_INTERRUPT, thread, nullptr, nullptr), 0) << strerror(errno);
        int status;
        EXPECT_EQ(waitpid(thread, &status, __WALL), thread) << strerror(errno);
    }
    ~StoppedThread() {
        if (error_ == 0) ptrace(PTRACE_DETACH, thread_, nullptr, nullptr);
    }
    int Error() const { return error_; }

  private:
    const pid_t thread_;
    int error_ = 0;
};

// The thread of that name; 0 when there is none.
pid_t ThreadNamed(pid_t process, const std::string& name) {
    const std::string tasks = "/proc/" + std::to_string(process) + "/task";
    pid_t found = 0;
    DIR* directory = opendir(tasks.c_str());
    while (const dirent* entry = directory ? readdir(directory) : nullptr)
        if (ReadFile(tasks + "/" + entry->d_name + "/comm") == name + "\n")
            found = atoi(entry->d_name);
    if (directory != nullptr) closedir(directory);
    return found;
}

class Notify : public testing::TestWithParam<Mode> {
  protected:
    void SetUp() override {
        tree_.MakeDir("share");
        tree_.WriteConf("wire", "[Oxel]\nnNfs3Port = 0\n" + ModeSettings(GetParam()));
        WriteShares(1);
    }
    void WriteShares(int count) {
        std::string lines;
        for (int i = 1; i <= count; ++i)
            lines +=
                "/share" + std::to_string(i) + " -dir=" + tree_.Path("share") + " *(insecure)\n";
        tree_.WriteExports("wire", lines);
    }
    std::string Serving(const std::string& shares) {
        return "STATUS=serving " + shares + " on port " + std::to_string(daemon_.Port()) + ": ";
    }

    PrivateTree tree_;
    Daemon daemon_{tree_};
};

TEST_P(Notify, ReadyIsToldOnceAllServicesAnswer) {
    Manager manager(tree_, 0);
    ASSERT_TRUE(daemon_.Start());
    EXPECT_EQ(manager.NextWith("READY=1"), "READY=1");
    EXPECT_EQ(manager.NextWith("STATUS=serving"), Serving("1 share") + "0 clients, 0 calls/s");
    EXPECT_NE(ThreadNamed(daemon_.Pid(), "NOTIFY"), 0);
}

TEST_P(Notify, StatusLineCountsClientsAndCalls) {
    Manager manager(tree_, 1000);
    ASSERT_TRUE(daemon_.Start());
    RpcConnection connection(daemon_.Port());
    uint64_t rate = 0;
    ASSERT_TRUE(WaitUntil([&] {
        for (int i = 0; i < 100; ++i) {
            RpcCall call;
            call.xid = static_cast<uint32_t>(i);
            EXPECT_TRUE(connection.Call(call).Success());
        }
        const std::string message = manager.Next(0);
        rate = std::max(rate, NumberAfter(message, ": 1 client, "));
        return rate >= 2;
    }));
    connection.Close();
    ASSERT_TRUE(WaitUntil([&] { return Has(manager.Next(), ": 0 clients, 0 calls/s"); }));
}

TEST_P(Notify, WhoSharesNothingIsToldWhere) {
    tree_.WriteExports("wire", "# nothing yet\n");
    Manager manager(tree_, 0);
    ASSERT_TRUE(daemon_.Start());
    EXPECT_EQ(manager.NextWith("STATUS=serving"),
              "STATUS=serving no share on port " + std::to_string(daemon_.Port()) + ": " +
                  tree_.Path("etc/oxelnfsd/wire.exports") + " has none");
}

TEST_P(Notify, ReloadIsToldFromItsBeginningToItsEnd) {
    Manager manager(tree_, 0);
    ASSERT_TRUE(daemon_.Start());
    manager.NextWith("READY=1");
    const std::function<void()> ways[] = {[&] { daemon_.Signal(SIGHUP); },
                                          [&] {
                                              std::string output;
                                              EXPECT_EQ(daemon_.Control({"reload"}, &output), 0)
                                                  << output;
                                          }};
    int shares = 1;
    for (const auto& reload : ways) {
        WriteShares(++shares);
        const uint64_t before = MonotonicMicroseconds();
        reload();
        const std::string begun = manager.NextWith("RELOADING=1");
        const uint64_t at = NumberAfter(begun, "MONOTONIC_USEC=");
        EXPECT_GE(at, before);
        EXPECT_LE(at, MonotonicMicroseconds());
        EXPECT_TRUE(Has(begun, "STATUS=reading the shares anew")) << begun;
        EXPECT_EQ(manager.NextWith("READY=1"), "READY=1");
        manager.NextWith(Serving(std::to_string(shares) + " shares"));
    }
}

TEST_P(Notify, ReloadThatIsRefusedIsToldAsOneThatIsOver) {
    Manager manager(tree_, 0);
    ASSERT_TRUE(daemon_.Start());
    manager.NextWith("READY=1");
    tree_.WriteExports("wire", "relative *(rw)\n");
    std::string output;
    EXPECT_EQ(daemon_.Control({"reload"}, &output), 1) << output;
    manager.NextWith("RELOADING=1");
    manager.NextWith("READY=1");
    EXPECT_TRUE(Has(manager.NextWith("STATUS="), Serving("1 share")));
}

TEST_P(Notify, TheEndIsToldAndNothingAfterIt) {
    Manager manager(tree_, 400);
    ASSERT_TRUE(daemon_.Start());
    manager.NextWith("READY=1");
    EXPECT_EQ(daemon_.Stop(), 0);
    EXPECT_EQ(manager.NextWith("STOPPING=1"), "STOPPING=1\nSTATUS=stopping");
    EXPECT_EQ(manager.Next(0), "");
}

TEST_P(Notify, ADaemonThatServesNothingYetSaysSoAndLives) {
    Manager manager(tree_, 400);
    daemon_.Launch({"-no_nfs", "-no_pm_reg"});
    manager.NextWith("READY=1");
    manager.NextWith("STATUS=network services not started\nWATCHDOG=1");
    std::string output;
    EXPECT_EQ(daemon_.Control({"start-network"}, &output), 0) << output;
    manager.NextWith("STATUS=serving 1 share");
    EXPECT_GE(manager.SignsOfLifeInNext(10), 1);
}

TEST_P(Notify, AnIdleDaemonGivesSignsOfLife) {
    Manager manager(tree_, 400);
    ASSERT_TRUE(daemon_.Start());
    manager.NextWith("READY=1");
    // Each loop turns within a quarter of that time, or on a busy machine within two.
    EXPECT_GE(manager.SignsOfLifeInNext(12), 3);
}

TEST_P(Notify, WithoutAWatchdogThereAreNoSignsOfLife) {
    Manager manager(tree_, 0);
    ASSERT_TRUE(daemon_.Start());
    EXPECT_FALSE(Has(manager.NextWith("STATUS=serving"), kSignOfLife));
}

// A loop that stands still is not told to live, though everything else of the daemon goes on.
TEST_P(Notify, AReceiveLoopThatStandsStillGivesNoSignOfLife) {
    Manager manager(tree_, 400);
    ASSERT_TRUE(daemon_.Start());
    manager.NextWith("READY=1");
    manager.NextWith(kSignOfLife);
    const pid_t receiver = ThreadNamed(daemon_.Pid(), "NFS");
    ASSERT_NE(receiver, 0);
    bool silent = false;
    // It may be stopped where it may wait: inside the library, by default.
    for (int attempt = 0; attempt < 20 && !silent; ++attempt) {
        const StoppedThread stopped(receiver);
        if (stopped.Error() == EPERM) GTEST_SKIP() << "processes may not be traced here";
        ASSERT_EQ(stopped.Error(), 0) << strerror(stopped.Error());
        manager.Drain();
        manager.SignsOfLifeInNext(2);  // for turns before
        silent = manager.SignsOfLifeInNext(8) == 0;
    }
    EXPECT_TRUE(silent);
    EXPECT_TRUE(daemon_.WaitForLog("Error: Receive loop [1] stands still."));
    manager.NextWith(kSignOfLife);
}

// By default everybody waits for a client that stops in the middle of a record. That is the
// client's doing: the daemon lives, and a restart would change nothing.
TEST_P(Notify, AClientThatStallsIsNoReasonForARestart) {
    Manager manager(tree_, 400);
    ASSERT_TRUE(daemon_.Start());
    RpcConnection stalls(daemon_.Port()), waits(daemon_.Port());
    const std::string record = Record(RpcCall().Message());
    ASSERT_TRUE(waits.Call(RpcCall()).Success());
    ASSERT_TRUE(stalls.Send(record.substr(0, record.size() / 2)));
    if (!IsHardened(GetParam())) {
        ASSERT_TRUE(
            WaitUntil([&] { return waits.Send(record) && !waits.Receive(1000).has_value(); }));
    }
    manager.Drain();
    EXPECT_GE(manager.SignsOfLifeInNext(12), 3);
}

INSTANTIATE_TEST_SUITE_P(Modes, Notify,
                         testing::Values(Mode::kManyThreads, Mode::kOneThread, Mode::kHardened,
                                         Mode::kHardenedOneThread),
                         testing::PrintToStringParamName());

TEST(NotifyNobody, WithoutAServiceManagerThereIsNoThreadForIt) {
    PrivateTree tree;
    tree.WriteConf("wire", "[Oxel]\nnNfs3Port = 0\n");
    tree.WriteExports("wire", "");
    Daemon daemon(tree);
    ASSERT_TRUE(daemon.Start());
    EXPECT_EQ(ThreadNamed(daemon.Pid(), "NOTIFY"), 0);
}

}  // namespace
}  // namespace oxel::test
