// SPDX-License-Identifier: Apache-2.0
//
// What connections wait for between their turns: a call record, memory, their client, or the end of
// a MOUNT call.
#include <sys/epoll.h>

#include <algorithm>
#include <utility>

#include "base/patience.h"
#include "base/perf_counter.h"
#include "bin/oxelService.h"
#include "bin/oxelService_callinfo.h"
#include "bin/oxelService_event_loop.h"

using Pause = EventConnection::Pause;

namespace {

// Records up to this size are not counted: connections are.
constexpr size_t kSmallRecordBytes = 16 << 10;
// Nor are buffers that were used for such only.
constexpr size_t kSmallBufferBytes = 24 << 10;

}  // namespace

void EventLoop::SetPause(EventConnection* connection, Pause reason) {
    if (connection->pause == Pause::kForMemory) {
        --service_.waitingForMemory;
        service_.heldByWaiting -= connection->bufferedBytes;
    } else if (connection->pause == Pause::kForRecord) {
        gCallInfoPool.CountWait(oxel::MonotonicNanoseconds() - connection->pausedSince);
    }
    if (reason == Pause::kForMemory) {
        ++service_.waitingForMemory;
        service_.heldByWaiting += connection->bufferedBytes;
    } else if (reason == Pause::kForRecord) {
        connection->pausedSince = oxel::MonotonicNanoseconds();
    }
    connection->pause = reason;
}

void EventLoop::SetSomePaused(bool somePaused) {
    if (somePaused_.load(std::memory_order_relaxed) == somePaused) return;
    somePaused_ = somePaused;
    if (somePaused)
        ++service_.pausedLoops;
    else
        --service_.pausedLoops;
}

void EventLoop::WakeIfPaused() {
    if (somePaused_) Wake();
}

void EventLoop::MakeReady(EventConnection* connection) {
    SetPause(connection, Pause::kNone);
    connection->recordNumber = 0;  // its time does not run while the daemon makes it wait
    Poll(connection, EPOLLIN);
    if (connection->ready) return;
    connection->ready = true;
    ready_.push_back(connection);
}

void EventLoop::PauseFor(Pause reason, EventConnection* connection) {
    SetPause(connection, reason);
    paused_.push_back(connection);
    // Before Resume() looks: whoever gives a record back after that sees it.
    SetSomePaused(true);
}

void EventLoop::TakeOut(EventConnection* connection) {
    if (connection->ready) std::erase(ready_, connection);
    if (connection->pause != Pause::kNone) std::erase(paused_, connection);
    connection->ready = false;
}

void EventLoop::WaitForClient(EventConnection* connection) {
    connection->AddCall();
    {
        const oxel::PatientNew patient;
        XoCriticalSectionGuard lock(mutex_);
        blocked_.push_back(connection);
    }
    Wake();
}

void EventLoop::MountIsDone(EventConnection* connection) {
    {
        const oxel::PatientNew patient;
        XoCriticalSectionGuard lock(mutex_);
        answered_.push_back(connection);
    }
    Wake();
}

void EventLoop::TakeNews() {
    decltype(taken_) taken;
    std::vector<EventConnection*> blocked, answered;
    {
        XoCriticalSectionGuard lock(mutex_);
        taken.swap(taken_);
        blocked.swap(blocked_);
        answered.swap(answered_);
    }
    for (auto& [socket, address] : taken) Adopt(std::move(socket), address);
    for (EventConnection* connection : answered) {
        CameBack(connection);
        connection->Drop();
    }
    for (EventConnection* connection : blocked) {
        if (!connection->Ended()) {
            TakeOut(connection);
            SetPause(connection, Pause::kForClient);
            connection->blockedSince = now_;
            Poll(connection, EPOLLOUT);
        }
        connection->Drop();
    }
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
    SetSomePaused(!paused_.empty());
    if (paused_.empty()) return;
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
    return service_.buffered + ReplyQueue::BytesBlocked() + more > limits_.bufferedBytes;
}

bool EventLoop::HasMemory(EventConnection* connection) {
    const uint64_t expected = connection->input.BytesExpected();
    if (expected <= kSmallRecordBytes || expected <= connection->bufferedBytes) return true;
    if (BufferedTooMuch(expected - connection->bufferedBytes)) return false;
    CountBuffered(connection, expected);
    return true;
}

void EventLoop::CountBuffered(EventConnection* connection, uint64_t bytes) {
    if (bytes == connection->bufferedBytes) return;
    service_.buffered += bytes - connection->bufferedBytes;
    if (connection->pause == Pause::kForMemory)
        service_.heldByWaiting += bytes - connection->bufferedBytes;
    connection->bufferedBytes = bytes;
}

// What a connection keeps until its next turn: its record under way, be it whole by now, and the
// buffer that this is in.
void EventLoop::CountHeld(EventConnection* connection) {
    RecordReader& input = connection->input;
    if (input.BytesHeld() > kSmallBufferBytes && BufferedTooMuch(limits_.record.bytes))
        input.Shrink();
    uint64_t held = input.BytesHeld();
    if (held <= kSmallBufferBytes) held = 0;
    // As far as HasMemory() has granted it.
    uint64_t expected = std::min<uint64_t>(input.BytesExpected(), connection->bufferedBytes);
    if (expected <= kSmallRecordBytes) expected = 0;
    CountBuffered(connection, std::max(held, expected));
}
