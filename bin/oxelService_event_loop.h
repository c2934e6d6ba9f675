// SPDX-License-Identifier: Apache-2.0
//
// An event-driven receive loop. One thread leads: it reads whole records, has them dispatched, and
// handles the quick calls itself; slow ones go to the handler threads. Connections have bounded
// turns, one after the other, and none of them is ever waited for.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <string>
#include <utility>
#include <vector>

#include "base/sync.h"
#include "base/unique_fd.h"
#include "bin/oxelService_event.h"
#include "bin/oxelService_event_service.h"
#include "bin/oxelService_leader.h"
#include "bin/oxelService_pulse.h"

struct CallInfo3;

class EventLoop {
  public:
    // The first loop, number 0, accepts, and is woken by WakeReceiveLoop().
    EventLoop(EventService& service, unsigned number);
    // False, and logged, when the system has no descriptors for it.
    bool Open();
    // Serves until the stop flag is set.
    void Run();

    // ---- Any thread ----

    void Wake();
    void WakeIfPaused();
    // Connections that it has or is about to have.
    size_t Clients() const { return clients_.load(std::memory_order_relaxed); }
    // An accepted socket whose client is admitted.
    void TakeOver(oxel::UniqueFd socket, const AddressKey& address);
    // The connection's client does not take its replies. The caller has a reference.
    void WaitForClient(EventConnection* connection);
    // The connection's MOUNT call is done. Takes the caller's reference.
    void MountIsDone(EventConnection* connection);

    // Takes a decoded call from the dispatcher. False when no thread can be had for it. By the
    // thread that leads.
    bool Handle(CallInfo3* call);

  private:
    // Everything down to `mutex_` is for the thread that leads.
    bool Lead();
    bool OnEvent(EventConnection* connection, uint32_t events);
    // All of these give false when another thread leads now: nothing may be touched then.
    bool Turn(EventConnection* connection);
    bool ServeRecords(EventConnection* connection);
    bool HandleHere(CallInfo3* call);
    static void* HandleThere(void* record);

    void Adopt(oxel::UniqueFd socket, const AddressKey& address);
    void Leave(const AddressKey& address);
    void End(EventConnection* connection, EndReason reason, const std::string& text);
    void EndedByClient(EventConnection* connection) { End(connection, EndReason::kByClient, ""); }
    void EndNoCall(EventConnection* connection);
    // It has no turn, and waits for none.
    void TakeOut(EventConnection* connection);
    void Poll(EventConnection* connection, uint32_t events);
    void MakeReady(EventConnection* connection);
    void PauseFor(EventConnection::Pause reason, EventConnection* connection);
    void SetPause(EventConnection* connection, EventConnection::Pause reason);
    void SetSomePaused(bool somePaused);
    // Takes what other threads have for the loop.
    void TakeNews();
    void CameBack(EventConnection* connection);
    // Gives those a turn again that have what they were paused for.
    void Resume();
    // Whether a connection may have one of that many free call records.
    bool HasCallRecord(const EventConnection* connection, size_t free) const;
    // Whether the record under way may be read on; counts its bytes then.
    bool HasMemory(EventConnection* connection);
    void CountBuffered(EventConnection* connection, uint64_t bytes);
    void CountHeld(EventConnection* connection);
    bool BufferedTooMuch(uint64_t more) const;
    void Sweep();
    void SweepOne(EventConnection* connection);
    void EndStalled();

    EventService& service_;
    const unsigned number_;
    LoopPulse& pulse_;
    const ClientLimits& limits_;
    BufferPool buffers_;
    oxel::UniqueFd epoll_, wake_;
    std::vector<EventConnection*> connections_;
    std::deque<EventConnection*> ready_;
    std::deque<EventConnection*> paused_;  // for a call record, or for memory
    EventConnection* current_ = nullptr;   // whose turn it is
    CallInfo3* decoded_ = nullptr;         // to be handled here
    CallPace::Kind handled_{};             // what that is
    uint64_t turnTook_ = 0;                // nanoseconds that calls have taken in this turn
    int64_t now_ = 0, swept_ = 0;          // seconds

    Leadership leadership_;

    std::atomic<size_t> clients_{0};
    std::atomic<bool> somePaused_{false};
    XoCriticalSection mutex_;
    std::vector<std::pair<oxel::UniqueFd, AddressKey>> taken_ GUARDED_BY(mutex_);
    // Connections with a reference each: whose clients do not take their replies, and whose MOUNT
    // call is done.
    std::vector<EventConnection*> blocked_ GUARDED_BY(mutex_);
    std::vector<EventConnection*> answered_ GUARDED_BY(mutex_);
};
