// SPDX-License-Identifier: Apache-2.0
//
// Several processes of oxel_probe at once.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <vector>

#include "tests/kernel/probe.h"

namespace oxel::test {

// Runs `work` in `count` processes at once; what each returned (0 to 255).
inline std::vector<int> InProcesses(unsigned count, const std::function<int(unsigned)>& work) {
    int start[2];
    DEMAND(pipe(start) == 0);
    std::vector<pid_t> children;
    for (unsigned i = 0; i < count; ++i) {
        children.push_back(fork());
        DEMAND(children.back() >= 0);
        if (children.back() == 0) {
            close(start[1]);
            char nothing;
            DEMAND(read(start[0], &nothing, 1) == 0);
            const int result = work(i);
            fflush(stdout);
            _exit(result);
        }
    }
    close(start[0]);
    close(start[1]);  // all of them go on
    std::vector<int> results;
    for (const pid_t child : children) {
        int status;
        DEMAND(waitpid(child, &status, 0) == child && WIFEXITED(status));
        results.push_back(WEXITSTATUS(status));
    }
    return results;
}

}  // namespace oxel::test
