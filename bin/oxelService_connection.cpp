// SPDX-License-Identifier: Apache-2.0
//
// Accepting connections, and the guard that each of them gets.
#include "bin/oxelService_connection.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#include "backend/FdCache.h"
#include "backend/OxelServiceGlobals.h"
#include "base/log.h"
#include "base/unique_fd.h"
#include "bin/oxelService_descriptors.h"
#include "bin/oxelService_transport.h"

std::atomic<uint64_t> Connection::count_{0};
TransportOperations Connection::guardedOperations_;
const TransportOperations* Connection::libraryOperations_ = nullptr;

Connection* Connection::Guard(SVCXPRT* transport) {
    Connection* guard = new (std::nothrow) Connection(transport);
    if (guard == nullptr) return nullptr;
    if (libraryOperations_ == nullptr) {  // every accepted transport has the same table
        libraryOperations_ = transport->xp_ops;
        guardedOperations_ = *transport->xp_ops;
        guardedOperations_.xp_reply = Reply;
        guardedOperations_.xp_destroy = Destroy;
    }
    transport->xp_p2 = guard;
    transport->xp_ops = &guardedOperations_;
    count_.fetch_add(1, std::memory_order_relaxed);
    return guard;
}

void Connection::Drop() {
    if (references_.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
    // The library's table no longer knows the transport, and the descriptor was open until now, so
    // its number cannot have gone to anybody else.
    transport_->xp_ops = libraryOperations_;
    transport_->xp_p2 = nullptr;
    transport_->xp_fd = oxel::GiveLowDescriptorBack(transport_->xp_fd);
    SVC_DESTROY(transport_);
    count_.fetch_sub(1, std::memory_order_relaxed);
    delete this;
}

// Every reply of a connection passes here: those of the senders through copies of the transport,
// those of MOUNT, and the library's own error replies.
bool_t Connection::Reply(SVCXPRT* transport, rpc_msg* message) {
    Connection* guard = Of(transport);
    XoCriticalSectionGuard lock(guard->replyLock_);
    if (guard->dead_.load(std::memory_order_acquire)) {
        errno = EPIPE;
        return FALSE;
    }
    if (!libraryOperations_->xp_reply(transport, message)) return FALSE;
    // The library does not look at the result of the last write of a reply.
    return static_cast<tcp_conn*>(transport->xp_p1)->strm_stat != XPRT_DIED;
}

// What the library calls when it has done with a transport. Receive thread.
void Connection::Destroy(SVCXPRT* transport) {
    Connection* guard = Of(transport);
    guard->dead_.store(true, std::memory_order_release);
    xprt_unregister(transport);
    // A sender that waits for this client's window gets its error now.
    (void)shutdown(transport->xp_fd, SHUT_RDWR);
    guard->Drop();
}

namespace {

TransportOperations gListenerOperations;
const TransportOperations* gLibraryListenerOperations = nullptr;

// A descriptor held in reserve: when the process has none left, it is given up for a moment to
// accept and close one connection, since one that is not accepted keeps select() returning.
oxel::UniqueFd gReserve;

constexpr int kNoDescriptorPauseMs = 50;
constexpr rlim_t kDescriptorsForFiles = 64;

}  // namespace

static void FillReserve() {
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
    FillReserve();
}

// Hands an accepted socket to the library and guards its transport.
static void AdoptConnection(oxel::UniqueFd accepted) {
    oxel::UniqueFd socket = oxel::AtLowDescriptor(std::move(accepted));
    if (socket.Get() >= FD_SETSIZE) {
        static bool said = false;
        if (!said) {
            said = true;
            OXEL_LOG(-1,
                     "Error: Refused a connection: descriptor [%d] is beyond what the receive "
                     "loop can watch (%d).",
                     socket.Get(), FD_SETSIZE);
        }
        return;
    }
    // A client that has reset already has no peer address; the library would complain on standard
    // error and leave half a transport behind.
    sockaddr_storage peer{};
    socklen_t length = sizeof peer;
    if (getpeername(socket.Get(), reinterpret_cast<sockaddr*>(&peer), &length) != 0) return;
    int on = 1;
    (void)setsockopt(socket.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);

    const int fd = socket.Get();
    SVCXPRT* transport = svc_fd_create(fd, gMaxRPCSendSize, gMaxRPCRecvSize);
    if (transport == nullptr) {
        // It may have failed after it registered the descriptor; the library then finds the reset
        // on its next read and closes it. The dispatchers ignore what has no guard.
        if (FD_ISSET(fd, &svc_fdset)) (void)socket.Release();
        return;
    }
    (void)socket.Release();  // the library's from here
    if (Connection::Guard(transport) == nullptr) SVC_DESTROY(transport);
}

// The listener's xp_recv: accepts what waits. There is never a call to process.
static bool_t Accept(SVCXPRT* listener, rpc_msg*) {
    FillReserve();
    // As many as the backlog holds, then calls have their turn.
    for (int accepted = 0; accepted < 100; ++accepted) {
        oxel::UniqueFd socket(accept4(listener->xp_fd, nullptr, nullptr, SOCK_CLOEXEC));
        if (socket) {
            socket = LeavingRoomForFiles(std::move(socket));
            if (socket)
                AdoptConnection(std::move(socket));
            else
                SayNoDescriptor(EMFILE);
        } else if (errno == EMFILE || errno == ENFILE) {
            RefuseWithoutDescriptor(listener->xp_fd);
            return FALSE;
        } else if (errno != EINTR && errno != ECONNABORTED) {
            return FALSE;
        }
    }
    return FALSE;
}

void GuardListener(SVCXPRT* listener) {
    if (gLibraryListenerOperations == nullptr) {
        gLibraryListenerOperations = listener->xp_ops;
        gListenerOperations = *listener->xp_ops;
        gListenerOperations.xp_recv = Accept;
    }
    listener->xp_ops = &gListenerOperations;
    FillReserve();  // while there still are descriptors
}

void UnguardListener(SVCXPRT* listener) {
    listener->xp_ops = gLibraryListenerOperations;
}
