// SPDX-License-Identifier: Apache-2.0
//
// Turns: whose it is, how long it may be, and what connections wait for in between.
#include "bin/oxelService_event_loop.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <string>
#include <utility>

#include "backend/OxelServiceGlobals.h"
#include "base/log.h"
#include "base/patience.h"
#include "base/perf_counter.h"
#include "base/repeat_limit.h"
#include "base/thread.h"
#include "bin/oxelService.h"
#include "bin/oxelService_accept.h"
#include "bin/oxelService_callinfo.h"
#include "bin/oxelService_carrier.h"

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

// A share whose disk does not answer holds one thread up for each procedure, until calls of that
// kind are known to be long. They are made only then.
constexpr unsigned kThreadsMost = 22 + 10;

}  // namespace

EventLoop::EventLoop(EventService& service, unsigned number)
    : service_(service),
      number_(number),
      pulse_(PulseOf(number)),
      limits_(service.Limits()),
      buffers_(service.Limits().record.bytes) {}

bool EventLoop::Open() {
    epoll_.Reset(epoll_create1(EPOLL_CLOEXEC));
    wake_.Reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    const auto watch = [this](int fd, void* who) {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.ptr = who;
        return epoll_ctl(epoll_.Get(), EPOLL_CTL_ADD, fd, &event) == 0;
    };
    bool opened = epoll_ && wake_ && watch(wake_.Get(), &wake_);
    if (number_ == 0) {
        XoCriticalSectionGuard lock(TransportTableLock());
        // A start that failed has closed the listener.
        const int listener = ListeningDescriptor();
        opened =
            opened && watch(WakeDescriptor(), nullptr) && (listener < 0 || watch(listener, this));
    }
    if (!opened) OXEL_LOG(-1, "Error: Receive loop [%u] cannot be opened. [%m]", number_ + 1);
    return opened;
}

void EventLoop::Run() {
    const std::string name = number_ == 0 ? "NFS" : "NFS" + std::to_string(number_ + 1);
    oxel::SetThreadName(name);
    leadership_.Run([this] { return Lead(); }, kThreadsMost, name);
}

void EventLoop::Wake() {
    (void)eventfd_write(wake_.Get(), 1);
}

bool EventLoop::Lead() {
    // Everybody's connections hang on this thread.
    const oxel::PatientNew patient;
    now_ = oxel::CoarseSeconds();
    if (EventConnection* interrupted = std::exchange(current_, nullptr)) {
        // The thread that led before is held up in a call of this one. Others of the kind would
        // hold up one thread after the other until that call ends.
        service_.pace.LearnLong(handled_);
        interrupted->Flush();
        MakeReady(interrupted);
    }
    while (OxelServiceGlobals::exitProcess == 0) {
        pulse_.Beat();
        TakeNews();
        Resume();
        epoll_event events[kEventsAtOnce];
        const int count =
            epoll_wait(epoll_.Get(), events, kEventsAtOnce, ready_.empty() ? kSweepMs : 0);
        now_ = oxel::CoarseSeconds();
        // Those that were ready before this round; who becomes ready in it waits for the next.
        size_t turns = ready_.size();
        for (int i = 0; i < count; ++i) {
            void* who = events[i].data.ptr;
            if (who == &wake_) {
                eventfd_t written;
                (void)eventfd_read(wake_.Get(), &written);  // emptied; TakeNews() finds what it was
            } else if (who == nullptr) {
                ClearWake();
                service_.WakeOtherLoops();
            } else if (who == this) {
                // A start that fails may close the listener.
                XoCriticalSectionGuard lock(TransportTableLock());
                AcceptWaiting(ListeningDescriptor(), SOCK_NONBLOCK, [this](oxel::UniqueFd socket) {
                    service_.TakeIn(std::move(socket));
                });
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
        if (number_ == 0) PrintPerfStatsIfAsked();
        if (now_ != swept_) {
            swept_ = now_;
            Sweep();
        }
    }
    return true;
}

bool EventLoop::OnEvent(EventConnection* connection, uint32_t events) {
    if (connection->pause == Pause::kForClient) {
        switch (connection->replies.Continue(connection->Descriptor())) {
            case ReplyQueue::Sent::kAll:
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
        if (!connection->elsewhere) {
            connection->input.Rest();
            CountHeld(connection);
        }
    }
    connection->Drop();
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
                switch (
                    input.Fill(connection->Descriptor(), BufferedTooMuch(limits_.record.bytes)
                                                             ? RecordReader::Guess::kSmall
                                                             : RecordReader::Guess::kLikeTheLast)) {
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
        if (connection->replies.Blocked()) return true;  // TakeNews() pauses it
        if (calls++ == kTurnCalls || bytes >= kTurnBytes || turnTook_ >= kTurnNanoseconds) {
            MakeReady(connection);
            return true;
        }
        if (connection->IsMountCall()) {
            connection->elsewhere = true;
            service_.DispatchMount(connection);
            return true;
        }
        if (!HasCallRecord(connection, gCallInfoPool.Free()) || !EventService::ReserveRecord()) {
            PauseFor(Pause::kForRecord, connection);
            return true;
        }
        bytes += input.RecordBytes();
        pulse_.CallReceived();
        {
            // Without handler threads the call is handled in there, and waits for its disk.
            const LoopPulse::MayWait handledHere(pulse_, !gMultiThreadRPCHandling);
            connection->Dispatch();
        }
        EventService::ReturnReserved();
        input.Consume();
        if (connection->WasNoCall()) {
            EndNoCall(connection);
            return true;
        }
        if (decoded_ != nullptr && !HandleHere(std::exchange(decoded_, nullptr))) return false;
        if (connection->replies.Queued() >= kFlushBytes) connection->Flush();
    }
}

bool EventLoop::Handle(CallInfo3* call) {
    const CallPace::Kind kind = CallPace::KindOf(call);
    // With all handler threads at work, maybe for a disk that does not answer, a call that was
    // taken for a slow one by chance would wait for them.
    const bool quick = service_.pace.IsQuick(kind) ||
                       (service_.pace.MayBeQuick(kind) && gWorkerPool.queued() != 0);
    // The last thread that can receive handles nothing: all the others are held up already.
    if (quick && leadership_.Watched()) {
        decoded_ = call;  // once the library is done with the record
        handled_ = kind;
        return true;
    }
    return gWorkerPool.doWork(HandleThere, call);
}

bool EventLoop::HandleHere(CallInfo3* call) {
    const uint64_t began = oxel::MonotonicNanoseconds();
    const uint64_t work = leadership_.Begin();
    {
        const oxel::ImpatientNew impatient;
        HandleNFSRPC(call);
    }
    service_.RecordIsFree();
    if (!leadership_.Finish(work)) return false;
    const uint64_t took = oxel::MonotonicNanoseconds() - began;
    service_.pace.Learn(handled_, took);
    turnTook_ += took;
    return true;
}

// On a handler thread.
void* EventLoop::HandleThere(void* record) {
    auto* call = static_cast<CallInfo3*>(record);
    EventConnection* connection = EventConnection::Of(call->transport);
    connection->AddCall();  // the call's own reference goes with the call
    EventService& service = connection->Loop().service_;
    const CallPace::Kind kind = CallPace::KindOf(call);
    const uint64_t began = oxel::MonotonicNanoseconds();
    HandleNFSRPC(call);
    const oxel::PatientNew patient;
    service.pace.Learn(kind, oxel::MonotonicNanoseconds() - began);
    connection->Flush();
    connection->Drop();
    service.RecordIsFree();
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
