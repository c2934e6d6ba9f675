// SPDX-License-Identifier: Apache-2.0
//
// Turns: whose it is, how long it may be, and what connections wait for in between.
#include "bin/oxelService_event_loop.h"

#include <sys/epoll.h>
#include <sys/socket.h>

#include <ctime>
#include <utility>

#include "backend/OxelServiceGlobals.h"
#include "base/log.h"
#include "base/perf_counter.h"
#include "bin/oxelService.h"
#include "bin/oxelService_accept.h"
#include "bin/oxelService_callinfo.h"
#include "bin/oxelService_carrier.h"
#include "bin/oxelService_transport.h"

using Pause = EventConnection::Pause;

namespace {

constexpr int kEventsAtOnce = 64;
constexpr int kSweepMs = 1000;
// What a connection may do before it is the others' turn.
constexpr unsigned kTurnCalls = 16;
constexpr size_t kTurnBytes = 256 << 10;
constexpr uint64_t kTurnNanoseconds = 500'000;
constexpr unsigned kTurnReads = 4;
// Replies that go out before the turn ends.
constexpr size_t kFlushBytes = 64 << 10;

int64_t CoarseSeconds() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return now.tv_sec;
}

}  // namespace

// The one loop of the process, which is never destroyed.
static EventLoop& Loop() {
    static auto* loop = new EventLoop;
    return *loop;
}

void EventLoop::Run() {
    limits_ = ClientLimits::FromSettings();
    buffers_ = std::make_unique<BufferPool>(limits_.record.bytes);
    epoll_.Reset(epoll_create1(EPOLL_CLOEXEC));
    const auto watch = [this](int fd, void* who) {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.ptr = who;
        if (epoll_ctl(epoll_.Get(), EPOLL_CTL_ADD, fd, &event) != 0)
            OXEL_LOG(-1, "Error: Descriptor [%d] cannot be watched. [%m]", fd);
    };
    watch(WakeDescriptor(), nullptr);
    watch(ListeningDescriptor(), this);
    leadership_.Run([this] { return Lead(); }, gWorkerPool.maxCount() + 2);
}

bool EventLoop::Lead() {
    now_ = CoarseSeconds();
    if (EventConnection* interrupted = std::exchange(current_, nullptr)) {
        // The thread that led before is held up in a call of this one. Others of the kind would
        // hold up one thread after the other until that call ends.
        pace_.LearnLong(handled_);
        interrupted->Flush();
        MakeReady(interrupted);
    }
    int64_t swept = now_;
    while (OxelServiceGlobals::exitProcess == 0) {
        Resume();
        epoll_event events[kEventsAtOnce];
        const int count =
            epoll_wait(epoll_.Get(), events, kEventsAtOnce, ready_.empty() ? kSweepMs : 0);
        now_ = CoarseSeconds();
        // Those that were ready before this round; who becomes ready in it waits for the next.
        size_t turns = ready_.size();
        for (int i = 0; i < count; ++i) {
            void* who = events[i].data.ptr;
            if (who == nullptr) {
                ClearWake();
            } else if (who == this) {
                AcceptWaiting(ListeningDescriptor(), SOCK_NONBLOCK,
                              [this](oxel::UniqueFd socket) { Adopt(std::move(socket)); });
            } else if (!OnEvent(static_cast<EventConnection*>(who), events[i].events)) {
                return false;
            }
        }
        for (; turns > 0 && !ready_.empty(); --turns) {
            EventConnection* next = ready_.front();
            ready_.pop_front();
            next->ready = false;
            if (!Turn(next)) return false;
        }
        PrintPerfStatsIfAsked();
        if (now_ != swept) {
            swept = now_;
            Sweep();
        }
    }
    return true;
}

bool EventLoop::OnEvent(EventConnection* connection, uint32_t events) {
    if (connection->pause == Pause::kForClient) {
        switch (connection->replies.Continue(connection->Descriptor())) {
            case ReplyQueue::Sent::kAll:
                connection->blockedSince = 0;
                MakeReady(connection);
                break;
            case ReplyQueue::Sent::kFailed:
                EndedByClient(connection);
                break;
            default:
                break;
        }
        return true;
    }
    if (connection->pause != Pause::kNone || connection->elsewhere) {
        if ((events & (EPOLLERR | EPOLLHUP)) != 0)
            EndedByClient(connection);
        else
            Poll(connection, 0);  // what it has sent must wait
        return true;
    }
    return connection->ready || Turn(connection);
}

bool EventLoop::Turn(EventConnection* connection) {
    connection->activeSince = now_;
    current_ = connection;
    turnTook_ = 0;
    connection->AddCall();  // another thread that leads may end it
    const bool leads = ServeRecords(connection);
    connection->Flush();
    if (leads) {
        current_ = nullptr;
    }
    if (leads && !connection->elsewhere) {
        CountBuffered(connection, connection->input.Begun() ? connection->bufferedBytes : 0);
        connection->input.Rest();
    }
    connection->Drop();
    // The record of the call that took so long is free again.
    if (!leads && somePaused_) WakeReceiveLoop();
    return leads;
}

bool EventLoop::ServeRecords(EventConnection* connection) {
    if (connection->elsewhere) return true;
    RecordReader& input = connection->input;
    unsigned calls = 0, reads = 0;
    size_t bytes = 0;
    bool drained = false;
    for (;;) {
        switch (input.Look()) {
            case RecordReader::Found::kTooLong:
                End(connection, EndReason::kRecordTooLarge,
                    "a record of " + std::to_string(input.BytesExpected()) +
                        " bytes is more than " + std::to_string(limits_.record.bytes));
                return true;
            case RecordReader::Found::kTooManyFragments:
                End(connection, EndReason::kTooManyFragments,
                    "a record in more than " + std::to_string(limits_.record.fragments) +
                        " fragments");
                return true;
            case RecordReader::Found::kPartial:
                if (drained || reads++ == kTurnReads) return true;  // polled for more
                if (!HasMemory(connection)) {
                    PauseFor(Pause::kForMemory, connection);
                    return true;
                }
                switch (input.Fill(connection->Descriptor())) {
                    case RecordReader::Filled::kEnd:
                        EndedByClient(connection);
                        return true;
                    case RecordReader::Filled::kNoMemory:
                        End(connection, EndReason::kBufferLimit, "memory is short");
                        return true;
                    case RecordReader::Filled::kAll:
                        drained = true;
                        break;
                    case RecordReader::Filled::kMore:
                        break;
                }
                continue;
            case RecordReader::Found::kRecord:
                break;
        }
        if (connection->replies.Blocked()) return true;  // Resume() pauses it
        if (calls++ == kTurnCalls || bytes >= kTurnBytes || turnTook_ >= kTurnNanoseconds) {
            MakeReady(connection);
            return true;
        }
        if (!HasCallRecord(connection, gCallInfoPool.Free())) {
            PauseFor(Pause::kForRecord, connection);
            return true;
        }
        if (connection->IsMountCall()) {
            DispatchThere(connection);
            return true;
        }
        bytes += input.RecordBytes();
        connection->Dispatch();
        input.Consume();
        if (connection->WasNoCall()) {
            EndNoCall(connection);
            return true;
        }
        if (decoded_ != nullptr && !HandleHere(std::exchange(decoded_, nullptr))) return false;
        if (connection->replies.Queued() >= kFlushBytes) connection->Flush();
    }
}

// MOUNT calls share one record, and MNT waits for the disk: it brings the registry there.
void EventLoop::DispatchThere(EventConnection* connection) {
    connection->elsewhere = true;
    mounts_.push_back(connection);
    if (!mountUnderWay_) DispatchNextMount();
}

void EventLoop::DispatchNextMount() {
    if (mounts_.empty()) return;
    EventConnection* connection = mounts_.front();
    mounts_.pop_front();
    connection->AddCall();
    mountUnderWay_ = true;
    // Without a handler thread it is done here; Resume() finds it.
    if (!gWorkerPool.doWork(DispatchMount, connection)) DispatchMount(connection);
}

// On a handler thread.
void* EventLoop::DispatchMount(void* record) {
    auto* connection = static_cast<EventConnection*>(record);
    connection->Dispatch();
    connection->Flush();
    EventLoop& loop = Loop();
    {
        std::lock_guard<std::mutex> lock(loop.mutex_);
        loop.dispatched_.push_back(connection);
    }
    WakeReceiveLoop();
    return nullptr;
}

bool EventLoop::Handle(CallInfo3* call) {
    // The last thread that can receive handles nothing: all the others are held up already.
    if (leadership_.Watched() && pace_.IsQuick(CallPace::KindOf(call))) {
        decoded_ = call;  // once the library is done with the record
        return true;
    }
    return gWorkerPool.doWork(HandleThere, call);
}

bool EventLoop::HandleHere(CallInfo3* call) {
    handled_ = CallPace::KindOf(call);
    const uint64_t began = oxel::MonotonicNanoseconds();
    const uint64_t work = leadership_.Begin();
    HandleNFSRPC(call);
    if (!leadership_.Finish(work)) return false;
    const uint64_t took = oxel::MonotonicNanoseconds() - began;
    pace_.Learn(handled_, took);
    turnTook_ += took;
    return true;
}

// On a handler thread.
void* EventLoop::HandleThere(void* record) {
    auto* call = static_cast<CallInfo3*>(record);
    EventConnection* connection = EventConnection::Of(call->transport);
    connection->AddCall();  // the call's own reference goes with the call
    const CallPace::Kind kind = CallPace::KindOf(call);
    const uint64_t began = oxel::MonotonicNanoseconds();
    HandleNFSRPC(call);
    Loop().pace_.Learn(kind, oxel::MonotonicNanoseconds() - began);
    connection->Flush();
    connection->Drop();
    if (Loop().somePaused_) WakeReceiveLoop();
    return nullptr;
}

void EventLoop::Poll(EventConnection* connection, uint32_t events) {
    if (connection->events == events) return;
    connection->events = events;
    epoll_event event{};
    event.events = events;
    event.data.ptr = connection;
    (void)epoll_ctl(epoll_.Get(), EPOLL_CTL_MOD, connection->Descriptor(), &event);
}

namespace {

class Event : public Carrier {
  public:
    void Receive() override { Loop().Run(); }
    // There is one: the loop has looked.
    CallInfo3* TakeRecord() override { return gCallInfoPool.PopRecent(); }
    SVCXPRT* Copy(SVCXPRT* transport, SVCXPRT* copy) override {
        return DupWithoutStream(transport, copy);
    }
    bool Handle(CallInfo3* call) override { return Loop().Handle(call); }
    // A connection's queue keeps its replies apart, and no thread waits in it.
    void Reply(CallInfo3* call) override { SendWithoutShareLock(call); }
};

}  // namespace

Carrier& EventCarrier() {
    static auto* carrier = new Event;
    return *carrier;
}
