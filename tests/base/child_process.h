// SPDX-License-Identifier: Apache-2.0
//
// Starts a program and talks to it through pipes.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <string>
#include <vector>

#include "base/unique_fd.h"

extern char** environ;

namespace oxel::test {

// A program that lies beside the test program.
inline std::string BesideMe(const std::string& program) {
    char path[PATH_MAX];
    const ssize_t bytes = readlink("/proc/self/exe", path, sizeof path);
    const std::string self(path, bytes > 0 ? static_cast<size_t>(bytes) : 0);
    return self.substr(0, self.find_last_of('/') + 1) + program;
}

class ChildProcess {
  public:
    explicit ChildProcess(std::vector<std::string> arguments) {
        int in[2], out[2], err[2];
        if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0)
            abort();
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
        posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
        posix_spawn_file_actions_adddup2(&actions, err[1], STDERR_FILENO);
        std::vector<char*> argv;
        for (std::string& argument : arguments) argv.push_back(argument.data());
        argv.push_back(nullptr);
        started_ = posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ) == 0;
        posix_spawn_file_actions_destroy(&actions);
        close(in[0]);
        close(out[1]);
        close(err[1]);
        in_.Reset(in[1]);
        out_.Reset(out[0]);
        err_.Reset(err[0]);
    }
    ~ChildProcess() {
        if (started_) Finish();
    }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    bool Started() const { return started_; }
    pid_t Pid() const { return pid_; }

    // The next line of standard output, without its end; what there is when the output ends.
    std::string ReadLine() {
        std::string line;
        char c;
        while (read(out_.Get(), &c, 1) == 1 && c != '\n') line.push_back(c);
        return line;
    }

    // Ends its input, collects the rest of its output and waits for its end. -1 when a signal
    // ended it.
    int Finish() {
        in_.Reset();
        pollfd both[2] = {{out_.Get(), POLLIN, 0}, {err_.Get(), POLLIN, 0}};
        std::string* const texts[2] = {&output_, &error_};
        int open = 2;
        while (open > 0 && poll(both, 2, -1) > 0) {
            for (int i = 0; i < 2; ++i) {
                if (both[i].revents == 0) continue;
                char buffer[4096];
                const ssize_t bytes = read(both[i].fd, buffer, sizeof buffer);
                if (bytes > 0) {
                    texts[i]->append(buffer, static_cast<size_t>(bytes));
                } else {
                    both[i].fd = -1;
                    --open;
                }
            }
        }
        int status = 0;
        started_ = false;
        if (waitpid(pid_, &status, 0) != pid_ || !WIFEXITED(status)) return -1;
        return WEXITSTATUS(status);
    }
    // After Finish().
    const std::string& Output() const { return output_; }
    const std::string& Error() const { return error_; }

  private:
    bool started_ = false;
    pid_t pid_ = -1;
    UniqueFd in_, out_, err_;
    std::string output_, error_;
};

struct Outcome {
    int code;
    std::string output, error;
};

inline Outcome RunProgram(std::vector<std::string> arguments) {
    ChildProcess child(std::move(arguments));
    if (!child.Started()) return {-1, "", "cannot be started"};
    const int code = child.Finish();
    return {code, child.Output(), child.Error()};
}

}  // namespace oxel::test
