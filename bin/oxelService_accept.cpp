// SPDX-License-Identifier: Apache-2.0
//
// Accepting connections, also when there are hardly any descriptors.
#include "bin/oxelService_accept.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "backend/FdCache.h"
#include "base/log.h"
#include "bin/oxelService_transport.h"

namespace {

oxel::UniqueFd gReserve;

constexpr int kBacklog = 100;
constexpr int kNoDescriptorPauseMs = 50;
constexpr rlim_t kDescriptorsForFiles = 64;

}  // namespace

void KeepReserveDescriptor() {
    if (!gReserve) gReserve.Reset(eventfd(0, EFD_CLOEXEC));
}

static void SayNoDescriptor(int error) {
    static bool said = false;
    if (said) return;
    said = true;
    OXEL_LOG(-1, "Error: No descriptor is left for a new connection. [%s]. Raise the limit.",
             strerror(error));
}

// Connections leave the last descriptors to the calls of those that are there: a file that cannot
// be opened for want of one looks to its client as if it were gone. What is kept open between calls
// gives way to a connection. Empty when there is no room.
static oxel::UniqueFd LeavingRoomForFiles(oxel::UniqueFd socket) {
    rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return socket;
    const rlim_t end = limit.rlim_cur - std::min(limit.rlim_cur / 4, kDescriptorsForFiles);
    if (static_cast<rlim_t>(socket.Get()) < end) return socket;
    gFdCache.Clear();
    oxel::UniqueFd lower(fcntl(socket.Get(), F_DUPFD_CLOEXEC, 0));
    if (lower && static_cast<rlim_t>(lower.Get()) < end) return lower;
    return oxel::UniqueFd();
}

static void RefuseWithoutDescriptor(int listener) {
    SayNoDescriptor(errno);
    gReserve.Reset();
    oxel::UniqueFd refused(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
    // Another thread was quicker to take the number: wait for one rather than ask without end.
    if (!refused) (void)poll(nullptr, 0, kNoDescriptorPauseMs);
    refused.Reset();
    KeepReserveDescriptor();
}

void AcceptWaiting(int listener, int flags, const std::function<void(oxel::UniqueFd)>& adopt) {
    KeepReserveDescriptor();
    // As many as the backlog holds, then calls have their turn.
    for (int accepted = 0; accepted < kBacklog; ++accepted) {
        oxel::UniqueFd socket(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | flags));
        if (socket) {
            socket = LeavingRoomForFiles(std::move(socket));
            if (socket)
                adopt(std::move(socket));
            else
                SayNoDescriptor(EMFILE);
        } else if (errno == EMFILE || errno == ENFILE) {
            RefuseWithoutDescriptor(listener);
            return;
        } else if (errno != EINTR && errno != ECONNABORTED) {
            return;
        }
    }
}

// Whether the library's table has a transport for the descriptor.
static bool IsRegistered(int fd) {
    return std::any_of(svc_pollfd, svc_pollfd + svc_max_pollfd,
                       [fd](const pollfd& entry) { return entry.fd == fd; });
}

SVCXPRT* MakeTransport(oxel::UniqueFd socket, unsigned sendBytes, unsigned receiveBytes) {
    // A client that has reset already has no peer address; the library would complain on standard
    // error and leave half a transport behind.
    sockaddr_storage peer{};
    socklen_t length = sizeof peer;
    if (getpeername(socket.Get(), reinterpret_cast<sockaddr*>(&peer), &length) != 0) return nullptr;
    int on = 1;
    (void)setsockopt(socket.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);

    SVCXPRT* transport = svc_fd_create(socket.Get(), sendBytes, receiveBytes);
    if (transport == nullptr && IsRegistered(socket.Get())) {
        // It failed after it had registered the descriptor. The library reads on, calls that have
        // come included (which the dispatchers leave alone), until it finds the end of the stream
        // and destroys what there is.
        const int fd = socket.Release();
        (void)shutdown(fd, SHUT_RDWR);
        while (IsRegistered(fd)) svc_getreq_common(fd);
        return nullptr;
    }
    if (transport == nullptr) return nullptr;
    (void)socket.Release();  // the library's from here
    XDR& stream = static_cast<tcp_conn*>(transport->xp_p1)->xdrs;
    if (stream.x_ops != nullptr) return transport;
    // The library has had no memory for the stream, does not look, and would call it at address 0.
    xdrmem_create(&stream, nullptr, 0, XDR_DECODE);
    SVC_DESTROY(transport);
    return nullptr;
}
