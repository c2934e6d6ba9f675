// SPDX-License-Identifier: Apache-2.0
//
// Accepting connections: what both kinds of receive loop have in common.
#pragma once

#include <rpc/rpc.h>

#include <functional>

#include "base/unique_fd.h"

// Accepts what waits on a non-blocking listening socket, at most as many as its backlog holds, and
// gives each to `adopt`. `flags` as for accept4(2), besides SOCK_CLOEXEC. Connections for which
// there is no descriptor are closed. Receive thread.
void AcceptWaiting(int listener, int flags, const std::function<void(oxel::UniqueFd)>& adopt);

// The library's transport for an accepted socket, which is the library's from here, with buffers of
// that many bytes. Null, and the socket closed, when its client has reset already or memory is
// short. A receive thread, under TransportTableLock().
SVCXPRT* MakeTransport(oxel::UniqueFd socket, unsigned sendBytes, unsigned receiveBytes);

// Takes a descriptor into reserve, to be given up for a moment when there is no other for a
// connection: one that is not accepted keeps the receive loop awake.
void KeepReserveDescriptor();
