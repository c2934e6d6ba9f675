// SPDX-License-Identifier: Apache-2.0
//
// The Linux kernel's own NFS client: Debian's user-mode-linux runs a kernel as an ordinary process,
// on a network that leads to this test and nowhere else. Scripts run in it and use the mounted
// shares; their output and exit codes come back.
#pragma once

#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

#include "base/unique_fd.h"

namespace oxel::test {

// The two ends of the network between the test, with the daemon, and the kernel.
inline constexpr char kHostAddress[] = "10.99.0.1", kGuestAddress[] = "10.99.0.2";

// Puts this process into namespaces of its own, with loopback and the host's end of that network.
// "" when it is there, otherwise why this system does not allow it. Before the first thread.
std::string EnterKernelNetwork();

class KernelClient {
  public:
    struct Outcome {
        int exitCode;  // of the script; 124 when its time was over, -1 when the kernel is gone
        std::string output;
    };
    struct Variable {
        std::string name, value;
    };

    // Scripts find `folder` at /run/host, where they may write. `environment`: for all scripts.
    KernelClient(std::string folder, std::vector<Variable> environment);
    ~KernelClient();
    KernelClient(const KernelClient&) = delete;
    KernelClient& operator=(const KernelClient&) = delete;

    // True when its first process is ready for scripts.
    bool Boot();
    // The text is run by bash, as root of that kernel. The time is for what hangs.
    Outcome Run(const std::string& script, unsigned secondsMax = 300);
    // The same in two steps, for scripts during which the test has something else to do.
    unsigned Start(const std::string& script, unsigned secondsMax = 300);
    Outcome Wait(unsigned id);
    // Whether it has ended, without waiting for it.
    bool HasEnded(unsigned id);

    // What the kernel itself said.
    std::string Messages() const;

  private:
    void Exec(int commandFd, int answerFd);
    // One line of the first process, or false after a time that says that it is gone.
    bool NextAnswer(std::string* line, unsigned secondsMax);
    // Takes note of the next script that ends; false when none does in that time.
    bool NoteEnd(unsigned secondsMax);
    std::string FileOf(unsigned id, const char* kind) const;

    const std::string folder_;
    const std::vector<Variable> environment_;
    pid_t pid_ = -1;
    UniqueFd commands_, answers_;
    std::string unread_;
    unsigned lastId_ = 0;
    std::map<unsigned, unsigned> secondsMax_;  // of every script
    std::map<unsigned, int> exitCodes_;        // of those that have ended
};

}  // namespace oxel::test
