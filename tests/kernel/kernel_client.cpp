// SPDX-License-Identifier: Apache-2.0
//
// The kernel's process, and the two pipes over which its first process (init.sh) is told what to
// run.
#include "tests/kernel/kernel_client.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "tests/service/private_network.h"
#include "tests/support/private_tree.h"

namespace oxel::test {

static constexpr unsigned kBootSecondsMax = 180;
// Beyond what a script was given, until its end must have been told.
static constexpr unsigned kAnswerSecondsMax = 60;

std::string EnterKernelNetwork() {
    static const std::string outcome = [] {
        if (!EnterPrivateNetwork()) return std::string("no namespaces: ") + strerror(errno);
        if (access("/dev/net/tun", R_OK | W_OK) != 0)
            return std::string("/dev/net/tun: ") + strerror(errno);
        std::string said;
        for (const std::string& step : {std::string("tuntap add oxel0 mode tap"),
                                        "addr add " + std::string(kHostAddress) + "/24 dev oxel0",
                                        std::string("link set oxel0 up")}) {
            if (RunProgram("/", {"/bin/sh", "-c", "ip " + step}, &said) != 0)
                return "ip " + step + ": " + said;
        }
        return std::string();
    }();
    return outcome;
}

KernelClient::KernelClient(std::string folder, std::vector<Variable> environment)
    : folder_(std::move(folder)), environment_(std::move(environment)) {
    std::filesystem::create_directories(folder_ + "/guest");
}

KernelClient::~KernelClient() {
    commands_.Reset();  // its first process powers it off
    int status;
    if (pid_ > 0 && !WaitUntil([&] { return waitpid(pid_, &status, WNOHANG) == pid_; }, 30000)) {
        kill(pid_, SIGKILL);  // and with it everything in its process namespace
        waitpid(pid_, &status, 0);
    }
    if (testing::Test::HasFailure())
        fprintf(stderr, "--- the kernel said\n%s\n", Messages().c_str());
}

void KernelClient::Exec(int commandFd, int answerFd) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    setpgid(0, 0);  // a Ctrl-C in the terminal is the test's
    const std::string log = folder_ + "/guest/kernel.log";
    const int logFd = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const int nothing = open("/dev/null", O_RDONLY);
    // The program's numbers are fixed; 10 and 11 are free of those that are moved.
    const int command = fcntl(commandFd, F_DUPFD, 20), answer = fcntl(answerFd, F_DUPFD, 20);
    dup2(nothing, STDIN_FILENO);
    dup2(logFd, STDOUT_FILENO);
    dup2(logFd, STDERR_FILENO);
    dup2(command, 10);
    dup2(answer, 11);
    setenv("TMPDIR", folder_.c_str(), 1);
    const std::string source = getenv("OXEL_SOURCE_DIR");
    std::vector<std::string> words = {
        // A process namespace of its own: with its first process everything in it ends.
        "unshare", "--pid", "--fork", "--kill-child", "--mount-proc",  //
        "linux.uml", "mem=1536M", "root=/dev/root", "rootfstype=hostfs", "rootflags=/", "ro",
        "init=" + source + "/tests/kernel/init.sh",
        "vec0:transport=tap,ifname=oxel0,depth=128,gro=1", "con=null", "con0=null,fd:1",
        "con1=fd:10,fd:11", "umid=guest", "uml_dir=" + folder_ + "/guest", "quiet",
        // Words that the kernel does not know go into its first process's environment.
        "OXEL_FOLDER=" + folder_, "OXEL_SOURCE_DIR=" + source,
        "OXEL_ADDRESS=" + std::string(kGuestAddress), "OXEL_SERVER=" + std::string(kHostAddress)};
    for (const Variable& variable : environment_)
        words.push_back(variable.name + "=" + variable.value);
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    execvp(argv[0], argv.data());
    dprintf(STDERR_FILENO, "%s: %s\n", argv[0], strerror(errno));
    _exit(127);
}

bool KernelClient::Boot() {
    int command[2], answer[2];
    if (pipe2(command, O_CLOEXEC) != 0 || pipe2(answer, O_CLOEXEC) != 0) return false;
    pid_ = fork();
    if (pid_ == 0) Exec(command[0], answer[1]);
    close(command[0]);
    close(answer[1]);
    commands_ = UniqueFd(command[1]);
    answers_ = UniqueFd(answer[0]);
    std::string line;
    while (NextAnswer(&line, kBootSecondsMax))
        if (line == "ready") return true;
    ADD_FAILURE() << "the kernel does not boot:\n" << Messages();
    return false;
}

bool KernelClient::NextAnswer(std::string* line, unsigned secondsMax) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(secondsMax);
    for (;;) {
        const size_t newline = unread_.find('\n');
        if (newline != std::string::npos) {
            *line = unread_.substr(0, newline);
            unread_.erase(0, newline + 1);
            return true;
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            end - std::chrono::steady_clock::now());
        pollfd input = {answers_.Get(), POLLIN, 0};
        const int waitMs = std::max(0, static_cast<int>(left.count()));
        if (poll(&input, 1, waitMs) <= 0) return false;
        char bytes[512];
        const ssize_t got = read(answers_.Get(), bytes, sizeof bytes);
        if (got <= 0) return false;
        for (const char byte : std::string(bytes, static_cast<size_t>(got)))
            if (byte != '\r') unread_ += byte;
    }
}

std::string KernelClient::FileOf(unsigned id, const char* kind) const {
    return folder_ + "/guest/" + std::to_string(id) + "." + kind;
}

unsigned KernelClient::Start(const std::string& script, unsigned secondsMax) {
    const unsigned id = ++lastId_;
    std::ofstream(FileOf(id, "sh")) << script;
    const std::string line = std::to_string(id) + " " + std::to_string(secondsMax) + "\n";
    EXPECT_EQ(write(commands_.Get(), line.data(), line.size()), static_cast<ssize_t>(line.size()));
    secondsMax_[id] = secondsMax;
    return id;
}

KernelClient::Outcome KernelClient::Wait(unsigned id) {
    while (exitCodes_.count(id) == 0)
        if (!NoteEnd(secondsMax_[id] + kAnswerSecondsMax)) exitCodes_[id] = -1;
    return {exitCodes_[id], ReadFile(FileOf(id, "out"))};
}

bool KernelClient::HasEnded(unsigned id) {
    while (exitCodes_.count(id) == 0)
        if (!NoteEnd(0)) return false;
    return true;
}

bool KernelClient::NoteEnd(unsigned secondsMax) {
    std::string line;
    unsigned ended;
    int code;
    if (!NextAnswer(&line, secondsMax)) return false;
    if (sscanf(line.c_str(), "ended %u %d", &ended, &code) == 2) exitCodes_[ended] = code;
    return true;
}

KernelClient::Outcome KernelClient::Run(const std::string& script, unsigned secondsMax) {
    return Wait(Start(script, secondsMax));
}

std::string KernelClient::Messages() const {
    return ReadFile(folder_ + "/guest/kernel.log");
}

}  // namespace oxel::test
