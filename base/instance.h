// SPDX-License-Identifier: Apache-2.0
//
// One process serves one instance: check-in, the named lock, and what must be ready before and
// after the network services start.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "base/unique_fd.h"

// Claims the instance in focus for this process: an exclusive flock on the instance's lock file,
// with the pid as text inside, held until the process ends. Non-zero when this process holds it;
// 0 when another process does, or (said on standard error) when the file cannot be made.
int uxsvc_checkin(const char* service);

// Makes the instance's directories (state directory 0700, others 0755), raises RLIMIT_NOFILE to its
// hard limit, ignores SIGPIPE, opens the log with section "Log"'s settings. 1 on success.
// Must run before the first call into the RPC library, which remembers the descriptor limit.
int BasicInit();

// Tells the service manager, if there is one, that the process is up. Also called after a failed
// start of the network services, so that a manager with a start time-out does not end a daemon
// that waits for its port. May be called again. 1 on success.
int AdvancedInit();

// An exclusive lock by name between processes, an flock on a file in the run directory.
class XoNamedMutex {
  public:
    explicit XoNamedMutex(const std::string& name);
    // Blocks until this process has the lock. False with errno when the file cannot be opened, or
    // EINTR when the process is to stop (oxel::WakeSleepers) while another one has the lock.
    bool lock();
    void unlock();

  private:
    std::string name_;
    oxel::UniqueFd fd_;
};

namespace oxel {

// The time now in seconds, or the next second that no start of this instance has had: clients tell
// one life of the server from another by this number, and a server that has ended can be back
// within the second, or be started with the clock set back. Kept as the time of the lock file, so
// that it holds as long as the run directory does. Without a check-in it is the time now.
uint32_t NewStartTime();

// Makes `path` with `mode` (whatever the umask) and what is missing above it with 0755. True when
// the directory is there already, whatever its mode. False with errno.
bool MakeDirectories(const std::string& path, mode_t mode);

}  // namespace oxel
