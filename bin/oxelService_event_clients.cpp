// SPDX-License-Identifier: Apache-2.0
//
// Who is connected: taking clients in, and ending the connections of those who go or take too much.
#include <sys/epoll.h>

#include <algorithm>
#include <utility>

#include "bin/oxelService_accept.h"
#include "bin/oxelService_event_loop.h"

using Pause = EventConnection::Pause;

void EventLoop::TakeOver(oxel::UniqueFd socket, const AddressKey& address) {
    clients_.fetch_add(1, std::memory_order_relaxed);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        taken_.emplace_back(std::move(socket), address);
    }
    Wake();
}

void EventLoop::Leave(const AddressKey& address) {
    clients_.fetch_sub(1, std::memory_order_relaxed);
    service_.clients.Leave(address);
}

void EventLoop::Adopt(oxel::UniqueFd socket, const AddressKey& address) {
    // The library's own buffers are never used.
    static constexpr unsigned kLibraryBufferBytes = 4096;
    SVCXPRT* transport = MakeTransport(std::move(socket), kLibraryBufferBytes, kLibraryBufferBytes);
    EventConnection* connection =
        transport != nullptr
            ? EventConnection::Guard(transport, *this, address, limits_.record, buffers_)
            : nullptr;
    if (connection == nullptr) {
        if (transport != nullptr) SVC_DESTROY(transport);
        Leave(address);
        return;
    }
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
    connection->Flush();  // the answers to what it asked before
    (void)epoll_ctl(epoll_.Get(), EPOLL_CTL_DEL, connection->Descriptor(), nullptr);
    if (connection->ready) std::erase(ready_, connection);
    if (connection->pause != Pause::kNone) std::erase(paused_, connection);
    SetPause(connection, Pause::kNone);
    if (!connection->elsewhere) connection->input.Stop();  // else the buffer is in use
    CountBuffered(connection, 0);
    connections_[connection->place] = connections_.back();
    connections_[connection->place]->place = connection->place;
    connections_.pop_back();
    Leave(connection->From());
    connection->End();
}

void EventLoop::EndNoCall(EventConnection* connection) {
    End(connection, EndReason::kNotACall, "what it sent is no call");
}

void EventLoop::Sweep() {
    for (size_t i = connections_.size(); i > 0; --i) SweepOne(connections_[i - 1]);
    if (service_.waitingForMemory != 0 || BufferedTooMuch(0)) EndStalled();
    if (number_ == 0) SumEndsUp();
}

void EventLoop::SweepOne(EventConnection* connection) {
    const auto lasts = [this](int64_t since, uint32_t seconds) { return now_ - since >= seconds; };
    const auto after = [](uint32_t seconds) { return " for " + std::to_string(seconds) + " s"; };
    if (connection->pause == Pause::kForClient) {
        if (lasts(connection->blockedSince, limits_.sendSeconds))
            End(connection, EndReason::kSendTimeout,
                "replies were not taken" + after(limits_.sendSeconds));
    } else if (connection->pause != Pause::kNone || connection->ready || connection->elsewhere) {
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

// Memory is short: it is taken from those who have held theirs without a sign of life.
void EventLoop::EndStalled() {
    static constexpr int64_t kStalledSeconds = 1;
    const auto stalls = [this](const EventConnection* connection) {
        const int64_t longAgo = now_ - kStalledSeconds;
        switch (connection->pause) {
            case Pause::kForClient:
                return connection->blockedSince <= longAgo;
            case Pause::kForMemory:  // while it holds some: all of them may do so
                return connection->bufferedBytes != 0 && connection->activeSince <= longAgo;
            case Pause::kForRecord:
                return false;
            case Pause::kNone:
                break;
        }
        return !connection->elsewhere && connection->bufferedBytes != 0 &&
               connection->recordNumber == connection->input.Number() &&
               connection->recordSince <= longAgo;
    };
    for (size_t i = connections_.size(); i > 0; --i) {
        if (stalls(connections_[i - 1]))
            End(connections_[i - 1], EndReason::kBufferLimit,
                "more than " + std::to_string(limits_.bufferedBytes >> 20) + " MiB are buffered");
    }
}
