// SPDX-License-Identifier: Apache-2.0
//
// A transport's operations over memory: the library decodes from a whole record and encodes into a
// queue, and never touches the socket.
#include "bin/oxelService_event.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <new>

#include "backend/OxelServiceGlobals.h"
#include "base/patience.h"
#include "bin/oxelService_event_loop.h"
#include "bin/oxelService_transport.h"
#include "net/CLuIPAddr.h"

const TransportOperations EventConnection::kOperations = {Receive, Stat,          GetArguments,
                                                          Reply,   FreeArguments, Destroy};

EventConnection::EventConnection(SVCXPRT* transport, EventLoop& loop, const AddressKey& address,
                                 const RecordBounds& bounds, BufferPool& pool)
    : Connection(transport),
      input(bounds, pool),
      loop_(loop),
      address_(CLuIPAddr(transport->xp_raddr).GetAddressString()),
      from_(address) {}

EventConnection* EventConnection::Guard(SVCXPRT* transport, EventLoop& loop,
                                        const AddressKey& address, const RecordBounds& bounds,
                                        BufferPool& pool) {
    try {
        auto* connection = new EventConnection(transport, loop, address, bounds, pool);
        connection->TakeCharge(&kOperations);
        return connection;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

void EventConnection::Dispatch() {
    const oxel::ImpatientNew impatient;
    svc_getreq_common(Descriptor());
}

bool EventConnection::IsMountCall() {
    // | xid | CALL | RPC version | program | (RFC 5531 section 9)
    static constexpr size_t kProgramAt = 12;
    uint32_t program;
    if (input.RecordBytes() < kProgramAt + sizeof program) return false;
    memcpy(&program, input.Record() + kProgramAt, sizeof program);
    return ntohl(program) == OxelServiceGlobals::mountProgram;
}

bool_t EventConnection::Receive(SVCXPRT* transport, rpc_msg* message) {
    EventConnection* self = Of(transport);
    xdrmem_create(&self->decoder_, self->input.Record(),
                  static_cast<u_int>(self->input.RecordBytes()), XDR_DECODE);
    if (!xdr_callmsg(&self->decoder_, message)) {
        self->notACall_ = true;
        return FALSE;
    }
    static_cast<tcp_conn*>(transport->xp_p1)->x_id = message->rm_xid;
    // The library would keep a context for each RPCSEC_GSS client, and for nobody's benefit: no
    // procedure takes another flavour than these two.
    const int flavor = message->rm_call.cb_cred.oa_flavor;
    if (flavor == AUTH_NONE || flavor == AUTH_UNIX) return TRUE;
    svcerr_auth(transport, AUTH_REJECTEDCRED);
    return FALSE;
}

// The loop has each record dispatched by itself.
xprt_stat EventConnection::Stat(SVCXPRT*) {
    return XPRT_IDLE;
}

bool_t EventConnection::GetArguments(SVCXPRT* transport, xdrproc_t decode, void* arguments) {
    return (*decode)(&Of(transport)->decoder_, arguments) ? TRUE : FALSE;
}

bool_t EventConnection::FreeArguments(SVCXPRT*, xdrproc_t decode, void* arguments) {
    XDR xdrs{};
    xdrs.x_op = XDR_FREE;
    return (*decode)(&xdrs, arguments);
}

// Every reply passes here: of handlers through copies of the transport, of MOUNT, and the library's
// own error replies.
bool_t EventConnection::Reply(SVCXPRT* transport, rpc_msg* message) {
    EventConnection* self = Of(transport);
    if (self->Dead()) {
        errno = EPIPE;
        return FALSE;
    }
    message->rm_xid = static_cast<const tcp_conn*>(transport->xp_p1)->x_id;
    return self->Report(self->replies.Put(self->Descriptor(), message)) ? TRUE : FALSE;
}

void EventConnection::Destroy(SVCXPRT* transport) {
    Of(transport)->End();
}

void EventConnection::Flush() {
    (void)Report(replies.Flush(Descriptor()));
}

// False when the reply will never reach the client.
bool EventConnection::Report(ReplyQueue::Sent sent) {
    switch (sent) {
        case ReplyQueue::Sent::kBlocked:
            loop_.WaitForClient(this);
            return true;
        case ReplyQueue::Sent::kFailed: {
            const int error = errno;
            // The thread that receives finds the end of the stream.
            (void)shutdown(Descriptor(), SHUT_RDWR);
            errno = error;
            return false;
        }
        case ReplyQueue::Sent::kEncode:
            errno = ENOMEM;
            return false;
        default:
            return true;
    }
}
