// SPDX-License-Identifier: Apache-2.0
//
// What connections wait for between their turns: a call record, memory, their client, or the end of
// a MOUNT call.
#include <sys/epoll.h>

#include <algorithm>

#include "bin/oxelService.h"
#include "bin/oxelService_callinfo.h"
#include "bin/oxelService_event_loop.h"

using Pause = EventConnection::Pause;

namespace {

// Records up to this size are not counted: connections are.
constexpr size_t kSmallRecordBytes = 16 << 10;

}  // namespace

void EventLoop::MakeReady(EventConnection* connection) {
    connection->pause = Pause::kNone;
    connection->recordNumber = 0;  // its time does not run while the daemon makes it wait
    Poll(connection, EPOLLIN);
    if (connection->ready) return;
    connection->ready = true;
    ready_.push_back(connection);
}

void EventLoop::PauseFor(Pause reason, EventConnection* connection) {
    connection->pause = reason;
    paused_.push_back(connection);
    // Before Resume() looks: a handler thread that gives a record back after that sees it.
    somePaused_ = true;
}

void EventLoop::WaitForClient(EventConnection* connection) {
    connection->AddCall();
    {
        std::lock_guard<std::mutex> lock(mutex_);
        blocked_.push_back(connection);
    }
    WakeReceiveLoop();
}

void EventLoop::CameBack(EventConnection* connection) {
    connection->elsewhere = false;
    if (connection->Ended()) return;
    connection->input.Consume();
    if (connection->WasNoCall())
        EndNoCall(connection);
    else if (connection->pause == Pause::kNone)
        MakeReady(connection);
}

void EventLoop::Resume() {
    std::vector<EventConnection*> blocked, dispatched;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        blocked.swap(blocked_);
        dispatched.swap(dispatched_);
    }
    for (EventConnection* connection : dispatched) {
        CameBack(connection);
        connection->Drop();
        mountUnderWay_ = false;
        DispatchNextMount();
    }
    for (EventConnection* connection : blocked) {
        if (!connection->Ended()) {
            if (connection->ready) std::erase(ready_, connection);
            if (connection->pause != Pause::kNone) std::erase(paused_, connection);
            connection->ready = false;
            connection->pause = Pause::kForClient;
            connection->blockedSince = now_;
            Poll(connection, EPOLLOUT);
        }
        connection->Drop();
    }
    if (paused_.empty()) {
        if (somePaused_.load(std::memory_order_relaxed)) somePaused_ = false;
        return;
    }
    size_t free = gCallInfoPool.Free();
    for (size_t left = paused_.size(); left > 0; --left) {
        EventConnection* connection = paused_.front();
        paused_.pop_front();
        const bool forRecord = connection->pause == Pause::kForRecord;
        if (forRecord ? HasCallRecord(connection, free) : HasMemory(connection)) {
            MakeReady(connection);
            if (forRecord) --free;
        } else {
            paused_.push_back(connection);
        }
    }
}

// A connection may have as many calls under way as records are left for the others: whoever has
// many gets no more until those who have few have theirs.
bool EventLoop::HasCallRecord(const EventConnection* connection, size_t free) const {
    const uint32_t own = connection == current_ ? 1 : 0;  // the turn's own reference
    return connection->CallsInFlight() - own < free;
}

bool EventLoop::BufferedTooMuch(uint64_t more) const {
    return buffered_ + ReplyQueue::BytesBlocked() + more > limits_.bufferedBytes;
}

bool EventLoop::HasMemory(EventConnection* connection) {
    const uint64_t expected = connection->input.BytesExpected();
    if (expected <= kSmallRecordBytes || expected <= connection->bufferedBytes) return true;
    if (BufferedTooMuch(expected - connection->bufferedBytes)) return false;
    CountBuffered(connection, expected);
    return true;
}

void EventLoop::CountBuffered(EventConnection* connection, uint64_t bytes) {
    buffered_ += bytes - connection->bufferedBytes;
    connection->bufferedBytes = bytes;
}
