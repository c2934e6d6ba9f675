// SPDX-License-Identifier: Apache-2.0
//
// What carries the bytes of calls and replies. There are two: one reads and writes as the RPC
// library does (oxelService_select.cpp); the other, of the hardened mode, never waits for a client
// (oxelService_event.cpp). Dispatchers, records and handlers are the same above both.
#pragma once

#include <rpc/rpc.h>

#include "base/sync.h"

struct CallInfo3;

class Carrier {
  public:
    virtual ~Carrier() = default;
    // The receive loop: accepts, reads, and feeds every call to the dispatchers through the RPC
    // library, until the stop flag is set. Receive thread.
    virtual void Receive() = 0;
    // A record for the call that is being dispatched; blocks while there is none.
    virtual CallInfo3* TakeRecord() = 0;
    // A copy of an accepted transport for the call that was read from it last, kept with the record
    // from call to call: `copy` re-armed, or a new one when it is null. Null when memory is short.
    virtual SVCXPRT* Copy(SVCXPRT* transport, SVCXPRT* copy) = 0;
    // Has HandleNFSRPC() run for a call that is decoded. False when nobody can be had for it.
    virtual bool Handle(CallInfo3* call) = 0;
    // Has the reply of a call sent that was handled just now. Any handler thread.
    virtual void Reply(CallInfo3* call) = 0;
};

// The one in use: the library's way until InitializeHardenedMode() has read the settings.
Carrier& CarrierInUse();
Carrier& SelectCarrier();
Carrier& EventCarrier();

// ---- What both receive loops have around them (oxelService_listener.cpp) ----

// The listening socket; -1 when there is none. Under TransportTableLock().
int ListeningDescriptor();
// Held while listening transports are made or destroyed elsewhere: a new one must not accept before
// it is guarded.
XoCriticalSection& TransportTableLock();
// Becomes readable when the loop's present wait is to end; emptied by ClearWake().
int WakeDescriptor();
void ClearWake();
// Writes the performance counters to the log when that was asked for.
void PrintPerfStatsIfAsked();
