// SPDX-License-Identifier: Apache-2.0
//
// Sockets of the control protocol. A socket address holds some 100 bytes of path only; longer paths
// are reached through a descriptor of their directory.
#include "companion/control_socket.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

namespace oxel {

namespace {

constexpr int kBacklog = 16;
constexpr mode_t kSocketMode = 0600;

// A path as socket address. Holds the directory open that a long path is reached through.
class UnixAddress {
  public:
    // False with errno.
    bool Set(const std::string& path) {
        address_ = {};
        address_.sun_family = AF_UNIX;
        std::string shortPath = path;
        if (path.size() >= sizeof address_.sun_path) {
            const size_t slash = path.find_last_of('/');
            const std::string directory = slash == std::string::npos ? "." : path.substr(0, slash);
            directory_.Reset(open(directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
            if (!directory_) return false;
            shortPath = "/proc/self/fd/" + std::to_string(directory_.Get()) + "/" +
                        path.substr(slash == std::string::npos ? 0 : slash + 1);
        }
        if (path.empty() || shortPath.size() >= sizeof address_.sun_path) {
            errno = path.empty() ? ENOENT : ENAMETOOLONG;
            return false;
        }
        memcpy(address_.sun_path, shortPath.data(), shortPath.size());
        return true;
    }
    const sockaddr* Get() const { return reinterpret_cast<const sockaddr*>(&address_); }
    socklen_t Length() const { return sizeof address_; }

  private:
    sockaddr_un address_;
    UniqueFd directory_;
};

UniqueFd UnixSocket(int flags) {
    return UniqueFd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | flags, 0));
}

// Clears the way for a new socket file. False with errno when it is not to be cleared.
bool RemoveStaleFile(const std::string& path, const UnixAddress& address) {
    struct stat status;
    if (lstat(path.c_str(), &status) != 0) return errno == ENOENT;
    if (!S_ISSOCK(status.st_mode)) {
        errno = EEXIST;
        return false;
    }
    const UniqueFd probe = UnixSocket(SOCK_NONBLOCK);
    if (!probe) return false;
    // A full backlog (EAGAIN) has a listener too.
    if (connect(probe.Get(), address.Get(), address.Length()) == 0 || errno == EAGAIN) {
        errno = EADDRINUSE;
        return false;
    }
    return unlink(path.c_str()) == 0 || errno == ENOENT;
}

// How long poll() may wait; -1 is for ever.
int PollMs(const Deadline& deadline) {
    if (!deadline) return -1;
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(*deadline - std::chrono::steady_clock::now());
    return static_cast<int>(std::clamp<int64_t>(left.count(), 0, INT_MAX));
}

// False with errno; ETIMEDOUT at the deadline.
bool WaitFor(int fd, short events, const Deadline& deadline) {
    for (;;) {
        pollfd one = {fd, events, 0};
        const int ready = poll(&one, 1, PollMs(deadline));
        if (ready > 0) return true;
        if (ready < 0 && errno == EINTR) continue;
        if (ready == 0) errno = ETIMEDOUT;
        return false;
    }
}

}  // namespace

Deadline DeadlineAfterMs(unsigned milliseconds) {
    return std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
}

UniqueFd ListenUnix(const std::string& path, SocketFile* file) {
    UnixAddress address;
    if (!address.Set(path) || !RemoveStaleFile(path, address)) return UniqueFd();
    UniqueFd fd = UnixSocket(SOCK_NONBLOCK);
    // The mode that a socket has when it is bound is the file's, less the umask; chmod then makes
    // it exact. Nobody can connect before listen().
    if (!fd || fchmod(fd.Get(), kSocketMode) != 0 ||
        bind(fd.Get(), address.Get(), address.Length()) != 0)
        return UniqueFd();
    struct stat status;
    if (chmod(path.c_str(), kSocketMode) != 0 || lstat(path.c_str(), &status) != 0 ||
        listen(fd.Get(), kBacklog) != 0) {
        const int savedErrno = errno;
        (void)unlink(path.c_str());
        errno = savedErrno;
        return UniqueFd();
    }
    *file = {path, status.st_dev, status.st_ino};
    return fd;
}

void RemoveSocketFile(const SocketFile& file) {
    struct stat status;
    if (lstat(file.path.c_str(), &status) == 0 && status.st_dev == file.device &&
        status.st_ino == file.inode)
        (void)unlink(file.path.c_str());  // a file left behind is replaced by the next start
}

UniqueFd ConnectUnix(const std::string& path, const Deadline& deadline) {
    UnixAddress address;
    if (!address.Set(path)) return UniqueFd();
    UniqueFd fd = UnixSocket(0);
    if (!fd) return UniqueFd();
    // Connecting waits only when the listener's backlog is full.
    const int waitMs = deadline ? std::max(PollMs(deadline), 1) : 0;
    const timeval timeout = {waitMs / 1000, waitMs % 1000 * 1000L};
    if (setsockopt(fd.Get(), SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout) != 0)
        return UniqueFd();
    int result = 0;
    do {
        result = connect(fd.Get(), address.Get(), address.Length());
    } while (result != 0 && errno == EINTR);
    if (result != 0 || fcntl(fd.Get(), F_SETFL, O_NONBLOCK) != 0) return UniqueFd();
    return fd;
}

LineResult ReceiveLine(int fd, size_t bytesMax, const Deadline& deadline, std::string* line) {
    line->clear();
    char buffer[4096];
    for (;;) {
        if (!WaitFor(fd, POLLIN, deadline))
            return errno == ETIMEDOUT ? LineResult::TimedOut : LineResult::Failed;
        const ssize_t bytes = recv(fd, buffer, sizeof buffer, 0);
        if (bytes == 0) return LineResult::Closed;
        if (bytes < 0) {
            if (errno == EINTR || errno == EAGAIN) continue;
            return LineResult::Failed;
        }
        const char* const end =
            static_cast<const char*>(memchr(buffer, '\n', static_cast<size_t>(bytes)));
        line->append(buffer, end == nullptr ? static_cast<size_t>(bytes)
                                            : static_cast<size_t>(end - buffer));
        if (line->size() > bytesMax) return LineResult::TooLong;
        if (end != nullptr) return LineResult::Line;
    }
}

bool SendAll(int fd, const std::string& text, const Deadline& deadline) {
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t bytes = send(fd, text.data() + done, text.size() - done, MSG_NOSIGNAL);
        if (bytes >= 0) {
            done += static_cast<size_t>(bytes);
        } else if (errno == EAGAIN) {
            if (!WaitFor(fd, POLLOUT, deadline)) return false;
        } else if (errno != EINTR) {
            return false;
        }
    }
    return true;
}

}  // namespace oxel
