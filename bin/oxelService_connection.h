// SPDX-License-Identifier: Apache-2.0
//
// The guard of an accepted connection. The RPC library destroys a transport and closes its
// descriptor as soon as the client is gone, while calls of that connection are still being handled:
// a late reply would read freed memory, or go to whoever got the descriptor's number next. The
// guard keeps both until the last call has let go, and keeps the replies of a connection apart.
#pragma once

#include <rpc/rpc.h>

#include <atomic>
#include <cstdint>
#include <type_traits>

#include "base/sync.h"

struct ClientAccount;

// The library's table of a transport's operations, whose name is hidden by the member of that name.
using TransportOperations = std::remove_const_t<std::remove_pointer_t<decltype(SVCXPRT::xp_ops)>>;

class Connection {
  public:
    // Takes charge of a transport that the library has just made for an accepted socket: the guard
    // hangs in the transport's unused xp_p2, and the transport's operations are replaced. Receive
    // thread. Null when memory is short; the transport is then as it was.
    static Connection* Guard(SVCXPRT* transport);
    // The guard of a transport or of a copy of one; null when it has none.
    static Connection* Of(const SVCXPRT* transport) {
        return static_cast<Connection*>(transport->xp_p2);
    }
    // Connections open now.
    static uint64_t Count() { return count_.load(std::memory_order_relaxed); }

    // One more call in flight. Only while the caller is sure of another reference (the receive
    // thread of the library's).
    void AddCall() { references_.fetch_add(1, std::memory_order_relaxed); }
    // The call is over; whoever drops the last reference destroys the transport and closes the
    // descriptor.
    void Drop();

    // The account of the client at the other end, for as long as there is a reference; or null.
    ClientAccount* Client() const { return client_; }

    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

  protected:
    explicit Connection(SVCXPRT* transport);
    virtual ~Connection();
    // Hangs the guard into its transport, whose operations become `operations`, which must outlive
    // every transport.
    void TakeCharge(const TransportOperations* operations);
    // The connection is over for the receive thread: no reply goes out any more, and the library's
    // reference is dropped.
    void End();

    int Descriptor() const { return transport_->xp_fd; }
    bool Dead() const { return dead_.load(std::memory_order_acquire); }
    // Besides the library's. Exact for the receive thread as an upper bound.
    uint32_t CallsInFlight() const { return references_.load(std::memory_order_relaxed) - 1; }

  private:
    static bool_t Reply(SVCXPRT* transport, rpc_msg* message);
    static void Destroy(SVCXPRT* transport);

    static std::atomic<uint64_t> count_;
    // What the library itself does with an accepted transport: one table for all of them.
    static std::atomic<const TransportOperations*> libraryOperations_;

    SVCXPRT* const transport_;
    ClientAccount* const client_;
    std::atomic<uint32_t> references_{1};  // the library's
    std::atomic<bool> dead_{false};
    // Held while one reply is encoded and sent, after a share's socket lock: two shares on one
    // connection are not kept apart by those.
    XoCriticalSection replyLock_;
};
