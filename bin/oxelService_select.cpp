// SPDX-License-Identifier: Apache-2.0
//
// The library's way of carrying bytes: select() tells who has sent something, the library reads
// from that connection until a record is whole, and three senders write the replies and wait for
// slow clients.
#include "bin/oxelService_select.h"

#include <sys/select.h>

#include <utility>

#include "backend/OxelServiceGlobals.h"
#include "base/log.h"
#include "bin/oxelService.h"
#include "bin/oxelService_accept.h"
#include "bin/oxelService_callinfo.h"
#include "bin/oxelService_carrier.h"
#include "bin/oxelService_connection.h"
#include "bin/oxelService_descriptors.h"
#include "bin/oxelService_pulse.h"
#include "bin/oxelService_transport.h"

static constexpr int kSelectSeconds = 2;

namespace {

TransportOperations gListenerOperations;
const TransportOperations* gLibraryListenerOperations = nullptr;

}  // namespace

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
    SVCXPRT* transport = MakeTransport(std::move(socket), gMaxRPCSendSize, gMaxRPCRecvSize);
    if (transport != nullptr && Connection::Guard(transport) == nullptr) SVC_DESTROY(transport);
}

// The listener's xp_recv. There is never a call to process.
static bool_t Accept(SVCXPRT* listener, rpc_msg*) {
    AcceptWaiting(listener->xp_fd, 0, AdoptConnection);
    return FALSE;
}

void GuardListener(SVCXPRT* listener) {
    if (gLibraryListenerOperations == nullptr) {
        gLibraryListenerOperations = listener->xp_ops;
        gListenerOperations = *listener->xp_ops;
        gListenerOperations.xp_recv = Accept;
    }
    listener->xp_ops = &gListenerOperations;
    KeepReserveDescriptor();  // while there still are descriptors
}

void UnguardListener(SVCXPRT* listener) {
    listener->xp_ops = gLibraryListenerOperations;
}

namespace {

class Select : public Carrier {
  public:
    void Receive() override {
        oxel::ReserveLowDescriptors();
        while (OxelServiceGlobals::exitProcess == 0) {
            pulse_.Beat();
            Wait();
            PrintPerfStatsIfAsked();
        }
    }

    CallInfo3* TakeRecord() override {
        pulse_.CallReceived();
        return gCallInfoPool.Pop();
    }

    SVCXPRT* Copy(SVCXPRT* transport, SVCXPRT* copy) override {
        if (copy == nullptr) return DupSVCXPRT(transport);
        return DupSVCXPRT(transport, copy) ? copy : nullptr;
    }

    bool Handle(CallInfo3* call) override { return gWorkerPool.doWork(HandleNFSRPC, call); }

    void Reply(CallInfo3* call) override {
        // Without a sender this thread sends.
        if (!gRPCSendPool.doWork(SendNFSRPC, call)) SendNFSRPC(call);
    }

  private:
    // Once: waits for something to read, and has the library read it.
    void Wait() {
        const int wake = WakeDescriptor();
        fd_set ready;
        int listener;
        {
            XoCriticalSectionGuard lock(TransportTableLock());
            ready = svc_fdset;
            listener = ListeningDescriptor();
        }
        if (wake >= 0 && wake < FD_SETSIZE) FD_SET(wake, &ready);
        timeval patience{kSelectSeconds, 0};
        if (select(FD_SETSIZE, &ready, nullptr, nullptr, &patience) <= 0) return;
        if (wake >= 0 && FD_ISSET(wake, &ready)) {
            ClearWake();
            FD_CLR(wake, &ready);
        }
        if (listener >= 0 && listener < FD_SETSIZE && FD_ISSET(listener, &ready)) {
            XoCriticalSectionGuard lock(TransportTableLock());
            svc_getreq_common(listener);
            FD_CLR(listener, &ready);
        }
        // Without the lock: a client in the middle of a record must not hold up a start.
        // It waits there for a client that has stopped in the middle of a record or takes no reply,
        // and for a call record; handling calls or MOUNT here, for a disk. A restart helps with
        // none of these.
        const LoopPulse::MayWait inTheLibrary(pulse_);
        svc_getreqset(&ready);
    }

    LoopPulse& pulse_ = PulseOf(0);
};

}  // namespace

Carrier& SelectCarrier() {
    static auto* carrier = new Select;
    return *carrier;
}
