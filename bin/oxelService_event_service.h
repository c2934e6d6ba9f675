// SPDX-License-Identifier: Apache-2.0
//
// The event-driven carrier: its receive loops and what they share. Each loop has its own
// connections, so that as many processors can receive as there are loops.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <vector>

#include "base/sync.h"
#include "base/unique_fd.h"
#include "bin/oxelService_carrier.h"
#include "bin/oxelService_event.h"
#include "bin/oxelService_limits.h"
#include "bin/oxelService_pace.h"

// How many connections there are, in all and from each address. Any thread.
class ClientTable {
  public:
    enum class Admitted { kYes, kTooMany, kTooManyFromAddress };
    Admitted Admit(const AddressKey& address, const ClientLimits& limits);
    // Once for each that was admitted.
    void Leave(const AddressKey& address);

  private:
    XoCriticalSection mutex_;
    std::map<AddressKey, uint32_t> perAddress_ GUARDED_BY(mutex_);
    uint32_t all_ GUARDED_BY(mutex_) = 0;
};

class EventService : public Carrier {
  public:
    EventService();
    ~EventService() override;

    void Receive() override;
    CallInfo3* TakeRecord() override;
    SVCXPRT* Copy(SVCXPRT* transport, SVCXPRT* copy) override;
    bool Handle(CallInfo3* call) override;
    void Reply(CallInfo3* call) override;

    // ---- For the loops ----

    const ClientLimits& Limits() const { return limits_; }
    // Takes a record for the dispatcher's next TakeRecord() on this thread. False when none is
    // free.
    static bool ReserveRecord();
    // Gives it back when the dispatcher did not need it.
    static void ReturnReserved();
    // A record has come free: loops that have connections waiting for one look again.
    void RecordIsFree();
    // Has the connection's record, a MOUNT call, dispatched on a handler thread, after those that
    // came before it, and tells its loop. MOUNT calls share one record, and MNT waits for the disk:
    // it brings the registry there.
    void DispatchMount(EventConnection* connection);
    // An accepted socket goes to the loop that has fewest connections.
    void TakeIn(oxel::UniqueFd socket);
    // The first loop was woken from outside.
    void WakeOtherLoops();

    CallPace pace;
    ClientTable clients;
    std::atomic<uint64_t> buffered{0};          // bytes of large records that are not whole
    std::atomic<uint32_t> waitingForMemory{0};  // connections
    std::atomic<uint64_t> heldByWaiting{0};     // bytes of `buffered` that are those connections'
    std::atomic<uint32_t> pausedLoops{0};       // that have connections waiting for a record

  private:
    static unsigned LoopsWanted();
    static void* ServeMounts(void* service);

    ClientLimits limits_;
    std::vector<std::unique_ptr<EventLoop>> loops_;  // constant while they run

    XoCriticalSection mutex_;
    oxel::Condition ended_;
    unsigned running_ GUARDED_BY(mutex_) = 0;                 // loops besides the first
    std::deque<EventConnection*> mounts_ GUARDED_BY(mutex_);  // with a reference each
    bool mountsAreServed_ GUARDED_BY(mutex_) = false;
};
