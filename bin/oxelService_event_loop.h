// SPDX-License-Identifier: Apache-2.0
//
// The event-driven receive loop. One thread leads: it accepts, reads whole records, has them
// dispatched, and handles the quick calls itself; slow ones go to the handler threads. Connections
// have bounded turns, one after the other, and none of them is ever waited for.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "bin/oxelService_event.h"
#include "bin/oxelService_leader.h"
#include "bin/oxelService_limits.h"
#include "bin/oxelService_pace.h"

struct CallInfo3;

class EventLoop {
  public:
    // Serves until the stop flag is set.
    void Run();
    // Takes a decoded call from the dispatcher. False when no thread can be had for it. By the
    // thread that leads.
    bool Handle(CallInfo3* call);
    // The connection's client does not take its replies. Any thread that has a reference.
    void WaitForClient(EventConnection* connection);

  private:
    // Everything down to `mutex_` is for the thread that leads.
    bool Lead();
    bool OnEvent(EventConnection* connection, uint32_t events);
    // All of these give false when another thread leads now: nothing may be touched then.
    bool Turn(EventConnection* connection);
    bool ServeRecords(EventConnection* connection);
    bool HandleHere(CallInfo3* call);
    static void* HandleThere(void* record);
    // Has the connection's record, a MOUNT call, dispatched on a handler thread, after those that
    // came before it.
    void DispatchThere(EventConnection* connection);
    void DispatchNextMount();
    static void* DispatchMount(void* connection);
    void CameBack(EventConnection* connection);

    void Adopt(oxel::UniqueFd socket);
    void End(EventConnection* connection, EndReason reason, const std::string& text);
    void EndedByClient(EventConnection* connection) { End(connection, EndReason::kByClient, ""); }
    void EndNoCall(EventConnection* connection);
    void Poll(EventConnection* connection, uint32_t events);
    void MakeReady(EventConnection* connection);
    void PauseFor(EventConnection::Pause reason, EventConnection* connection);
    // Gives those a turn again that have what they were paused for.
    void Resume();
    // Whether a connection may have one of that many free call records.
    bool HasCallRecord(const EventConnection* connection, size_t free) const;
    // Whether the record under way may be read on; counts its bytes then.
    bool HasMemory(EventConnection* connection);
    void CountBuffered(EventConnection* connection, uint64_t bytes);
    bool BufferedTooMuch(uint64_t more) const;
    void Sweep();
    void SweepOne(EventConnection* connection);
    void EndStalled();

    ClientLimits limits_;
    std::unique_ptr<BufferPool> buffers_;
    oxel::UniqueFd epoll_;
    std::vector<EventConnection*> connections_;
    std::map<std::array<unsigned char, 16>, uint32_t> perAddress_;
    std::deque<EventConnection*> ready_;
    std::deque<EventConnection*> paused_;  // for a call record, or for memory
    std::deque<EventConnection*> mounts_;  // whose MOUNT calls wait for those before them
    bool mountUnderWay_ = false;
    EventConnection* current_ = nullptr;  // whose turn it is
    CallInfo3* decoded_ = nullptr;        // to be handled here
    uint64_t turnTook_ = 0;               // nanoseconds that calls have taken in this turn
    uint64_t buffered_ = 0;               // bytes of large records that are not whole
    int64_t now_ = 0;                     // seconds
    CallPace::Kind handled_{};            // what is handled here now

    Leadership leadership_;
    CallPace pace_;

    std::atomic<bool> somePaused_{false};  // handler threads wake the loop then
    std::mutex mutex_;
    // Guarded by mutex_; each with a reference.
    std::vector<EventConnection*> blocked_;     // whose clients do not take their replies
    std::vector<EventConnection*> dispatched_;  // whose MOUNT call is done
};
