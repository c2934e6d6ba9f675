// SPDX-License-Identifier: Apache-2.0
//
// The event-driven carrier's connections: the RPC library's transport of an accepted socket with
// operations of our own, what has come of its next record, and the replies that wait for it.
#pragma once

#include <rpc/rpc.h>

#include <array>
#include <cstdint>
#include <string>

#include "bin/oxelService_connection.h"
#include "bin/oxelService_records.h"
#include "bin/oxelService_replies.h"

class EventLoop;
using AddressKey = std::array<unsigned char, 16>;  // as access rules compare addresses

// All but what says otherwise: for the thread that receives.
class EventConnection : public Connection {
  public:
    // Takes charge of a transport made for a non-blocking socket. Null when memory is short.
    static EventConnection* Guard(SVCXPRT* transport, EventLoop& loop, const AddressKey& address,
                                  const RecordBounds& bounds, BufferPool& pool);
    static EventConnection* Of(const SVCXPRT* transport) {
        return static_cast<EventConnection*>(Connection::Of(transport));
    }

    // Has the library dispatch the record that `input` has found. By one thread at a time, which
    // may be another one while `elsewhere` is set.
    void Dispatch();
    // Whether what Dispatch() was given last was no call.
    bool WasNoCall() const { return notACall_; }
    // Whether the record that `input` has found is for MOUNT.
    bool IsMountCall();
    // Sends what is queued. Any thread that has a reference.
    void Flush();
    using Connection::CallsInFlight;
    using Connection::Descriptor;
    using Connection::End;
    bool Ended() const { return Dead(); }
    const std::string& Address() const { return address_; }
    const AddressKey& From() const { return from_; }
    EventLoop& Loop() const { return loop_; }

    RecordReader input;
    ReplyQueue replies;

    // What the loop keeps of it.
    enum class Pause : uint8_t {
        kNone,
        kForRecord,  // no call record is free for it
        kForMemory,  // its next record is large, and much is buffered already
        kForClient,  // it does not take its replies
    };
    Pause pause = Pause::kNone;
    uint64_t pausedSince = 0;    // nanoseconds; while it is paused for a call record
    bool elsewhere = false;      // its record is being dispatched on another thread
    bool ready = false;          // has its turn without being polled
    uint32_t events = 0;         // that the socket is polled for
    uint64_t recordNumber = 0;   // that recordSince is about
    int64_t recordSince = 0;     // seconds; when the record under way was first found unfinished
    int64_t activeSince = 0;     // seconds; its last turn
    int64_t blockedSince = 0;    // seconds; while it is paused for its client
    uint64_t bufferedBytes = 0;  // of its record under way, as counted by the loop
    size_t place = 0;            // among the loop's connections

  private:
    EventConnection(SVCXPRT* transport, EventLoop& loop, const AddressKey& address,
                    const RecordBounds& bounds, BufferPool& pool);
    static bool_t Receive(SVCXPRT* transport, rpc_msg* message);
    static xprt_stat Stat(SVCXPRT* transport);
    static bool_t GetArguments(SVCXPRT* transport, xdrproc_t decode, void* arguments);
    static bool_t FreeArguments(SVCXPRT* transport, xdrproc_t decode, void* arguments);
    static bool_t Reply(SVCXPRT* transport, rpc_msg* message);
    static void Destroy(SVCXPRT* transport);
    static const TransportOperations kOperations;
    bool Report(ReplyQueue::Sent sent);

    EventLoop& loop_;
    XDR decoder_{};
    bool notACall_ = false;
    const std::string address_;
    const AddressKey from_;
};
