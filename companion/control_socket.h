// SPDX-License-Identifier: Apache-2.0
//
// Unix stream sockets as both ends of the control protocol use them: one line each way, every wait
// with a deadline.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>

#include "base/unique_fd.h"

namespace oxel {

// Until when an operation may wait; empty: as long as it takes.
using Deadline = std::optional<std::chrono::steady_clock::time_point>;
Deadline DeadlineAfterMs(unsigned milliseconds);

// Which file a listening socket made, so that its owner removes that one and no other.
struct SocketFile {
    std::string path;
    dev_t device = 0;
    ino_t inode = 0;
};

// A listening socket with mode 0600 whatever the umask. A socket file that nobody listens on is
// replaced. Empty with errno on failure: EADDRINUSE when somebody listens there, EEXIST when `path`
// is something other than a socket.
UniqueFd ListenUnix(const std::string& path, SocketFile* file);
// Removes the file if it is still the one that the socket made.
void RemoveSocketFile(const SocketFile& file);

// A connected, non-blocking socket; empty with errno on failure (EAGAIN: not until the deadline).
UniqueFd ConnectUnix(const std::string& path, const Deadline& deadline);

enum class LineResult {
    Line,      // a whole line came
    Closed,    // the peer closed before the line's end
    TooLong,   // more than the maximum came without a line's end
    TimedOut,  // the deadline passed
    Failed,    // errno says why
};

// Reads from a non-blocking socket up to a newline, which is left out of *line. What came before a
// failure stands in *line. Bytes behind the newline are dropped.
LineResult ReceiveLine(int fd, size_t bytesMax, const Deadline& deadline, std::string* line);

// Sends everything through a non-blocking socket. False with errno; ETIMEDOUT at the deadline.
bool SendAll(int fd, const std::string& text, const Deadline& deadline);

}  // namespace oxel
