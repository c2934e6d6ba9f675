// SPDX-License-Identifier: Apache-2.0
//
// Copies of an accepted connection's transport, so that a reply can be sent from another thread
// while the receive thread goes on reading from the connection. A copy shares the socket and has an
// output stream, a transaction id and a verifier of its own.
#pragma once

#include <rpc/rpc.h>

#include <cstdint>

// The stream transport's connection record as the RPC library lays it out (xp_p1 of an accepted
// transport). The library's later members are never looked at; CheckTransportLayout() verifies the
// others against the library in use.
struct tcp_conn {
    xprt_stat strm_stat;
    uint32_t x_id;  // of the call read last; in a copy: of the call to answer
    XDR xdrs;       // record stream
    char verf_body[MAX_AUTH_BYTES];
};

// A new copy of `source`, an accepted transport, for the call read from it last. The copy counts as
// a call on the connection's guard. Null for a null source and when memory is short.
SVCXPRT* DupSVCXPRT(SVCXPRT* source);
// Arms an existing copy for another call, keeping its stream. Whether it has a stream (memory).
bool DupSVCXPRT(SVCXPRT* source, SVCXPRT* copy);
// A copy without a stream, for transports whose replies are not encoded into one: `copy` armed for
// another call, or a new one when it is null. Null when memory is short.
SVCXPRT* DupWithoutStream(SVCXPRT* source, SVCXPRT* copy);
tcp_conn* DupTcpCon(tcp_conn* source, SVCXPRT* owner);
bool DupTcpCon(tcp_conn* source, SVCXPRT* owner, tcp_conn* copy);

// The call is over: lets go of the connection and keeps the copy for the next call, with its stream
// unless a write on it failed (it would send the old reply's bytes ahead of the next).
void ParkSVCXPRT(SVCXPRT* copy);
// Lets go of the connection and frees the copy. It neither closes nor unregisters anything.
void FreeSVCXPRT(SVCXPRT* copy);
void FreeTcpCon(tcp_conn* connection);

// The stream's writer; `handle` is the copy. `length`, or -1 after marking the copy's stream dead.
int mywritetcp(void* handle, void* buffer, int length);

// Sends a NULL call through a transport of the library's on a socket pair and verifies that
// transaction id and stream are where tcp_conn has them. Once, before the first listener.
bool CheckTransportLayout();
