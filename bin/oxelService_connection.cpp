// SPDX-License-Identifier: Apache-2.0
//
// The guard that each accepted connection gets.
#include "bin/oxelService_connection.h"

#include <sys/socket.h>

#include <cerrno>
#include <new>

#include "bin/oxelService_account.h"
#include "bin/oxelService_descriptors.h"
#include "bin/oxelService_transport.h"
#include "net/CLuIPAddr.h"

std::atomic<uint64_t> Connection::count_{0};
std::atomic<const TransportOperations*> Connection::libraryOperations_{nullptr};

Connection::Connection(SVCXPRT* transport)
    : transport_(transport), client_(EnterClient(CLuIPAddr(transport->xp_raddr))) {}

Connection::~Connection() {
    LeaveClient(client_);
}

Connection* Connection::Guard(SVCXPRT* transport) {
    Connection* guard = new (std::nothrow) Connection(transport);
    if (guard == nullptr) return nullptr;
    // Every accepted transport has the same table.
    static const TransportOperations operations = [&] {
        TransportOperations guarded = *transport->xp_ops;
        guarded.xp_reply = Reply;
        guarded.xp_destroy = Destroy;
        return guarded;
    }();
    guard->TakeCharge(&operations);
    return guard;
}

void Connection::TakeCharge(const TransportOperations* operations) {
    libraryOperations_.store(transport_->xp_ops, std::memory_order_relaxed);
    transport_->xp_p2 = this;
    transport_->xp_ops = operations;
    count_.fetch_add(1, std::memory_order_relaxed);
}

void Connection::Drop() {
    if (references_.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
    // The library's table no longer knows the transport, and the descriptor was open until now, so
    // its number cannot have gone to anybody else.
    transport_->xp_ops = libraryOperations_.load(std::memory_order_relaxed);
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
    if (guard->Dead()) {
        errno = EPIPE;
        return FALSE;
    }
    if (!libraryOperations_.load(std::memory_order_relaxed)->xp_reply(transport, message))
        return FALSE;
    // The library does not look at the result of the last write of a reply.
    return static_cast<tcp_conn*>(transport->xp_p1)->strm_stat != XPRT_DIED;
}

// What the library calls when it has done with a transport. Receive thread.
void Connection::Destroy(SVCXPRT* transport) {
    Of(transport)->End();
}

void Connection::End() {
    dead_.store(true, std::memory_order_release);
    xprt_unregister(transport_);
    // A sender that waits for this client's window gets its error now.
    (void)shutdown(transport_->xp_fd, SHUT_RDWR);
    Drop();
}
