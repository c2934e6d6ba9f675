// SPDX-License-Identifier: Apache-2.0
//
// Turns: whose it is, how long it may be, and what connections wait for in between.
#include "bin/oxelService_event_loop.h"

#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
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
#include "net/CLuIPAddr.h"

using Pause = EventConnection::Pause;

namespace {

constexpr int kEventsAtOnce = 64;
constexpr int kSweepMs = 1000;
// What a connection may do before it is the others' turn.
constexpr unsigned kTurnCalls = 16;
constexpr size_t kTurnBytes = 256 << 10;
constexpr unsigned kTurnReads = 4;
// Replies that go out before the turn ends.
constexpr size_t kFlushBytes = 64 << 10;
// Records up to this size are not counted: connections are.
constexpr size_t kSmallRecordBytes = 16 << 10;
// Nor are buffers that were used for such only.
constexpr size_t kSmallBufferBytes = 24 << 10;

int64_t CoarseSeconds() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return now.tv_sec;
}

}  // namespace

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
    {
        XoCriticalSectionGuard lock(TransportTableLock());
        const int listener = ListeningDescriptor();
        if (listener >= 0) watch(listener, this);  // else a start that failed has closed it
    }
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
                // A start that fails may close the socket.
                XoCriticalSectionGuard lock(TransportTableLock());
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
    if (connection->pause != Pause::kNone) {
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
    connection->AddCall();  // another thread that leads may end it
    const bool leads = ServeRecords(connection);
    connection->Flush();
    if (leads) {
        current_ = nullptr;
        connection->input.Rest();
        CountHeld(connection);
    }
    connection->Drop();
    // Who leads now may wait for the call record that this thread has given back.
    if (!leads && somePaused_) WakeReceiveLoop();
    return leads;
}

bool EventLoop::ServeRecords(EventConnection* connection) {
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
        if (connection->replies.Blocked()) return true;  // Resume() pauses it
        if (calls++ == kTurnCalls || bytes >= kTurnBytes) {
            MakeReady(connection);
            return true;
        }
        if (!HasCallRecord(connection)) {
            PauseFor(Pause::kForRecord, connection);
            return true;
        }
        bytes += input.RecordBytes();
        const bool wasCall = connection->Dispatch();
        input.Consume();
        if (!wasCall) {
            End(connection, EndReason::kNotACall, "what it sent is no call");
            return true;
        }
        if (decoded_ != nullptr && !HandleHere(std::exchange(decoded_, nullptr))) return false;
        if (connection->replies.Queued() >= kFlushBytes) connection->Flush();
    }
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
    pace_.Learn(handled_, oxel::MonotonicNanoseconds() - began);
    return true;
}

// The one loop of the process, whose members' storage is never freed.
static EventLoop& Loop() {
    static auto* loop = new EventLoop;
    return *loop;
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

void EventLoop::Adopt(oxel::UniqueFd socket) {
    sockaddr_storage peer{};
    socklen_t length = sizeof peer;
    if (getpeername(socket.Get(), reinterpret_cast<sockaddr*>(&peer), &length) != 0) return;
    const CLuIPAddr address(reinterpret_cast<sockaddr*>(&peer), length);
    std::array<unsigned char, 16> key;
    std::copy_n(XOIPAddr(address).bytes(), key.size(), key.begin());
    const auto known = perAddress_.find(key);

    if (Connection::Count() >= limits_.connections) {
        CountEnd(EndReason::kConnectionLimit, address.GetAddressString(),
                 "more than " + std::to_string(limits_.connections) + " connections");
        return;
    }
    if (known != perAddress_.end() && known->second >= limits_.connectionsPerAddress) {
        CountEnd(EndReason::kAddressLimit, address.GetAddressString(),
                 "more than " + std::to_string(limits_.connectionsPerAddress) +
                     " connections from this address");
        return;
    }
    // The library's own buffers are never used.
    static constexpr unsigned kLibraryBufferBytes = 4096;
    SVCXPRT* transport = MakeTransport(std::move(socket), kLibraryBufferBytes, kLibraryBufferBytes);
    if (transport == nullptr) return;
    EventConnection* connection =
        EventConnection::Guard(transport, *this, limits_.record, *buffers_);
    if (connection == nullptr) {
        SVC_DESTROY(transport);
        return;
    }
    ++perAddress_[key];
    connection->place = connections_.size();
    connections_.push_back(connection);
    connection->activeSince = now_;
    connection->events = EPOLLIN;
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.ptr = connection;
    if (epoll_ctl(epoll_.Get(), EPOLL_CTL_ADD, connection->Descriptor(), &event) != 0)
        End(connection, EndReason::kConnectionLimit, "it cannot be watched");
}

void EventLoop::End(EventConnection* connection, EndReason reason, const std::string& text) {
    CountEnd(reason, connection->Address(), text);
    // The answers to what it asked before.
    connection->Flush();
    (void)epoll_ctl(epoll_.Get(), EPOLL_CTL_DEL, connection->Descriptor(), nullptr);
    if (connection->ready) std::erase(ready_, connection);
    if (connection->pause != Pause::kNone) std::erase(paused_, connection);
    connections_[connection->place] = connections_.back();
    connections_[connection->place]->place = connection->place;
    connections_.pop_back();
    CountBuffered(connection, 0);
    const auto address = perAddress_.find(connection->AddressKey());
    if (--address->second == 0) perAddress_.erase(address);
    connection->input.Discard();
    connection->End();
}

void EventLoop::Poll(EventConnection* connection, uint32_t events) {
    if (connection->events == events) return;
    connection->events = events;
    epoll_event event{};
    event.events = events;
    event.data.ptr = connection;
    (void)epoll_ctl(epoll_.Get(), EPOLL_CTL_MOD, connection->Descriptor(), &event);
}

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

void EventLoop::Resume() {
    std::vector<EventConnection*> blocked;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        blocked.swap(blocked_);
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
    for (size_t left = paused_.size(); left > 0; --left) {
        EventConnection* connection = paused_.front();
        paused_.pop_front();
        const bool goesOn = connection->pause == Pause::kForRecord ? HasCallRecord(connection)
                                                                   : HasMemory(connection);
        if (goesOn)
            MakeReady(connection);
        else
            paused_.push_back(connection);
    }
    if (paused_.empty()) somePaused_ = false;
}

// A connection may have as many calls under way as records are left for the others: whoever has
// many gets no more until those who have few have theirs.
bool EventLoop::HasCallRecord(const EventConnection* connection) const {
    const uint32_t own = connection == current_ ? 1 : 0;  // the turn's own reference
    return connection->CallsInFlight() - own < gCallInfoPool.Free();
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

void EventLoop::Sweep() {
    for (size_t i = connections_.size(); i > 0; --i) SweepOne(connections_[i - 1]);
    const bool forMemory = std::any_of(paused_.begin(), paused_.end(), [](auto* connection) {
        return connection->pause == Pause::kForMemory;
    });
    if (forMemory || BufferedTooMuch(0)) EndLongestStalled();
    SumEndsUp();
}

void EventLoop::SweepOne(EventConnection* connection) {
    const auto lasts = [this](int64_t since, uint32_t seconds) { return now_ - since >= seconds; };
    const auto after = [](uint32_t seconds) { return " for " + std::to_string(seconds) + " s"; };
    if (connection->pause == Pause::kForClient) {
        if (lasts(connection->blockedSince, limits_.sendSeconds))
            End(connection, EndReason::kSendTimeout,
                "replies were not taken" + after(limits_.sendSeconds));
    } else if (connection->pause != Pause::kNone || connection->ready) {
        // It waits for the daemon.
    } else if (connection->input.Begun()) {
        if (connection->recordNumber != connection->input.Number()) {
            connection->recordNumber = connection->input.Number();
            connection->recordSince = now_;
        } else if (lasts(connection->recordSince, limits_.recordSeconds)) {
            End(connection, EndReason::kRecordTimeout,
                "a record was not complete after " + std::to_string(limits_.recordSeconds) + " s");
        }
    } else if (connection->CallsInFlight() != 0) {
        connection->activeSince = now_;
    } else if (lasts(connection->activeSince, limits_.idleSeconds)) {
        End(connection, EndReason::kIdle, "idle" + after(limits_.idleSeconds));
    }
}

// Since when a connection has held memory without a sign of life.
static int64_t StalledSince(const EventConnection* connection) {
    if (connection->pause == Pause::kForClient) return connection->blockedSince;
    const bool stalls = connection->pause == Pause::kNone && connection->bufferedBytes != 0 &&
                        connection->recordNumber == connection->input.Number();
    return stalls ? connection->recordSince : INT64_MAX;
}

// Since when a connection has held memory and waited for more.
static int64_t HeldSince(const EventConnection* connection) {
    const bool holds = connection->pause == Pause::kForMemory && connection->bufferedBytes != 0;
    return holds ? connection->activeSince : INT64_MAX;
}

// Whether all memory is held by those who wait for more: nobody else will give any back.
bool EventLoop::AllHoldersWait() const {
    uint64_t held = 0;
    for (const EventConnection* connection : connections_)
        if (connection->pause == Pause::kForMemory) held += connection->bufferedBytes;
    return held == buffered_ + ReplyQueue::BytesBlocked();
}

// Memory is short: it is taken from those who have held theirs longest without a sign of life.
void EventLoop::EndLongestStalled() {
    static constexpr int64_t kStalledSeconds = 2;
    do {
        const auto since = AllHoldersWait() ? HeldSince : StalledSince;
        const auto oldest =
            std::min_element(connections_.begin(), connections_.end(),
                             [&](auto* one, auto* other) { return since(one) < since(other); });
        if (oldest == connections_.end() || since(*oldest) > now_ - kStalledSeconds) return;
        End(*oldest, EndReason::kBufferLimit,
            "more than " + std::to_string(limits_.bufferedBytes >> 20) + " MiB are buffered");
    } while (BufferedTooMuch(limits_.record.bytes));
}

namespace {

class Event : public Carrier {
  public:
    void Receive() override { Loop().Run(); }
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
