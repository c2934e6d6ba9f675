// SPDX-License-Identifier: Apache-2.0
//
// Temporary trees, and the daemon's processes in them.
#include "tests/support/private_tree.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "base/store.h"

namespace oxel::test {

static constexpr size_t kShownLogBytesMax = 8000;

bool WaitUntil(const std::function<bool()>& condition, unsigned timeoutMs) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= end) return condition();
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

std::string ReadFile(const std::string& file) {
    std::ifstream in(file, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

static std::string FromEnvironment(const char* name) {
    const char* value = getenv(name);
    EXPECT_NE(value, nullptr) << name << " must name the program; run the tests with ctest";
    return value ? value : "/nonexistent";
}

std::string DaemonProgram() {
    return FromEnvironment("OXELNFSD");
}
std::string ControlProgram() {
    return FromEnvironment("OXELCTL");
}

bool SanitizerBuild() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return true;
#else
    return false;
#endif
}

bool HardenedRun() {
    return getenv("OXEL_TEST_HARDENED") != nullptr;
}

// At the end, so that the numbers of lines which tests know stay.
static void AddHardening(const PrivateTree& tree, const std::string& instance) {
    const std::string conf = ReadFile(tree.Path("etc/oxelnfsd/" + instance + ".conf"));
    if (conf.find("nHardened") == std::string::npos)
        tree.WriteConf(instance, conf + "\n[Oxel]\nnHardened = 1\n");
}

PrivateTree::PrivateTree() {
    char name[] = "/tmp/oxel_tree_XXXXXX";
    const char* made = mkdtemp(name);
    EXPECT_NE(made, nullptr) << strerror(errno);
    root_ = made ? made : "/nonexistent";
    // Callers without privileges must reach the shares.
    EXPECT_EQ(chmod(root_.c_str(), 0755), 0);
    MakeDir("etc/oxelnfsd");
}

PrivateTree::~PrivateTree() {
    std::error_code error;
    std::filesystem::remove_all(root_, error);
    EXPECT_FALSE(error) << root_ << ": " << error.message();
}

std::string PrivateTree::MakeDir(const std::string& name) const {
    std::filesystem::create_directories(Path(name));
    return Path(name);
}

std::string PrivateTree::Write(const std::string& name, const std::string& content) const {
    std::filesystem::create_directories(std::filesystem::path(Path(name)).parent_path());
    std::ofstream out(Path(name), std::ios::binary | std::ios::trunc);
    out << content;
    out.close();
    EXPECT_TRUE(out.good()) << Path(name);
    return Path(name);
}

// Forks and runs `command`; both outputs go to `outputFd` (or standard error only, when the
// standard output is to stay the test's).
static pid_t Spawn(const std::string& root, const std::vector<std::string>& command, int outputFd) {
    std::vector<char*> argv;
    for (const std::string& word : command) argv.push_back(const_cast<char*>(word.c_str()));
    argv.push_back(nullptr);
    setenv("OXEL_ROOT", root.c_str(), 1);
    unsetenv("OXEL_LOG");
    pid_t parent = getpid();
    pid_t pid = fork();
    if (pid == 0) {
        // A test that is killed leaves no daemon behind.
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) _exit(126);
        dup2(outputFd, STDOUT_FILENO);
        dup2(outputFd, STDERR_FILENO);
        execvp(argv[0], argv.data());
        dprintf(STDERR_FILENO, "%s: %s\n", argv[0], strerror(errno));
        _exit(127);
    }
    EXPECT_GT(pid, 0) << strerror(errno);
    unsetenv("OXEL_ROOT");
    return pid;
}

static int ExitCode(int status) {
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int RunProgram(const std::string& root, const std::vector<std::string>& command,
               std::string* output, unsigned timeoutMs) {
    char name[] = "/tmp/oxel_output_XXXXXX";
    int fd = mkostemp(name, O_CLOEXEC | O_APPEND);
    EXPECT_GE(fd, 0) << strerror(errno);
    pid_t pid = Spawn(root, command, fd);
    int status = 0, code = -1;
    if (WaitUntil([&] { return waitpid(pid, &status, WNOHANG) == pid; }, timeoutMs)) {
        code = ExitCode(status);
    } else {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
    }
    if (output) *output = ReadFile(name);
    close(fd);
    unlink(name);
    return code;
}

Daemon::Daemon(const PrivateTree& tree, std::string instance)
    : tree_(tree), instance_(std::move(instance)) {}

Daemon::~Daemon() {
    if (Running()) {
        EXPECT_EQ(Stop(), 0) << "the daemon did not stop as it should";
    }
    CheckStandardError();
    if (testing::Test::HasFailure()) {
        std::string log = Log();
        if (log.size() > kShownLogBytesMax) log.erase(0, log.size() - kShownLogBytesMax);
        std::string said = StandardError();
        if (said.size() > kShownLogBytesMax) said.erase(0, said.size() - kShownLogBytesMax);
        fprintf(stderr,
                "--- the daemon's log ends with\n%s\n--- its standard error ends with\n%s\n",
                log.c_str(), said.c_str());
    }
}

void Daemon::Launch(const std::vector<std::string>& arguments) {
    ASSERT_FALSE(Running());
    if (HardenedRun()) AddHardening(tree_, instance_);
    unlink(tree_.Path("run/oxelnfsd/" + instance_ + "/runtime.conf").c_str());
    int fd = open(tree_.Path(instance_ + ".stderr").c_str(),
                  O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0) << strerror(errno);
    std::vector<std::string> command = wrapper_;
    command.push_back(DaemonProgram());
    command.insert(command.end(), {"-cn", "test", "-vm", instance_});
    command.insert(command.end(), arguments.begin(), arguments.end());
    port_ = 0;
    pid_ = Spawn(tree_.Root(), command, fd);
    close(fd);
}

uint16_t Daemon::PublishedPort(const std::string& key) const {
    StoreNumbers numbers =
        ReadStoreFile(tree_.Path("run/oxelnfsd/" + instance_ + "/runtime.conf"), nullptr);
    auto it = numbers.find({"Runtime", key});
    return it == numbers.end() ? 0 : static_cast<uint16_t>(it->second);
}

bool Daemon::Start(const std::vector<std::string>& arguments) {
    const size_t logBefore = Log().size();
    Launch(arguments);
    // The lock is taken when all services are up; the port is published before.
    bool serves = WaitUntil([&] {
        return !Running() ||
               Log().find("Korvane-oxelnfsdService Lock acquired", logBefore) != std::string::npos;
    });
    port_ = PublishedPort("NfsServerPort_v4");
    if (serves && pid_ > 0 && port_ != 0 && PublishedPort("MountServerPort_v4") == port_)
        return true;
    ADD_FAILURE() << "the daemon does not serve; port " << port_ << ", "
                  << (pid_ > 0 ? "running" : "ended with " + std::to_string(lastExit_));
    return false;
}

int Daemon::Reap(int status) {
    pid_ = -1;
    lastExit_ = ExitCode(status);
    return lastExit_;
}

bool Daemon::Running() {
    int status = 0;
    if (pid_ > 0 && waitpid(pid_, &status, WNOHANG) == pid_) {
        Reap(status);
        EXPECT_EQ(lastExit_, 0) << "the daemon ended by itself";
    }
    return pid_ > 0;
}

int Daemon::WaitForExit(unsigned timeoutMs) {
    int status = 0;
    if (pid_ <= 0) return lastExit_;
    if (!WaitUntil([&] { return waitpid(pid_, &status, WNOHANG) == pid_; }, timeoutMs)) {
        ADD_FAILURE() << "the daemon does not end";
        Kill();
        return -1;
    }
    return Reap(status);
}

void Daemon::Signal(int number) const {
    ASSERT_GT(pid_, 0);
    ASSERT_EQ(kill(pid_, number), 0) << strerror(errno);
}

int Daemon::Stop() {
    Signal(SIGTERM);
    return WaitForExit();
}

void Daemon::Kill() {
    if (pid_ <= 0) return;
    Signal(SIGKILL);
    int status = 0;
    waitpid(pid_, &status, 0);
    Reap(status);
}

std::string Daemon::Log() const {
    return ReadFile(tree_.Path("var/log/oxelnfsd/" + instance_ + ".log"));
}

bool Daemon::LogHas(const std::string& text) const {
    return Log().find(text) != std::string::npos;
}

bool Daemon::WaitForLog(const std::string& text, unsigned timeoutMs) const {
    return WaitUntil([&] { return LogHas(text); }, timeoutMs);
}

std::string Daemon::StandardError() const {
    return ReadFile(tree_.Path(instance_ + ".stderr"));
}

std::string Daemon::RuntimeConf() const {
    return ReadFile(tree_.Path("run/oxelnfsd/" + instance_ + "/runtime.conf"));
}

int Daemon::Control(const std::vector<std::string>& arguments, std::string* output) const {
    std::vector<std::string> command = wrapper_;
    command.insert(command.end(), {ControlProgram(), "-vm", instance_});
    command.insert(command.end(), arguments.begin(), arguments.end());
    return RunProgram(tree_.Root(), command, output);
}

void Daemon::CheckStandardError() {
    const std::string said = StandardError();
    for (const char* word : {"Sanitizer", "runtime error"})
        EXPECT_EQ(said.find(word), std::string::npos)
            << "a sanitizer's report:\n"
            << said.substr(said.find(word) == std::string::npos ? 0 : said.find(word), 6000);
}

}  // namespace oxel::test
