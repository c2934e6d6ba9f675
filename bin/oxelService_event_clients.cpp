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
        XoCriticalSectionGuard lock(mutex_);
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
    SVCXPRT* transport;
    {
        // The library's table of transports grows in here, and is looked at.
        XoCriticalSectionGuard lock(TransportTableLock());
        transport = MakeTransport(std::move(socket), kLibraryBufferBytes, kLibraryBufferBytes);
    }
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
    TakeOut(connection);
    SetPause(connection, Pause::kNone);
    if (!connection->elsewhere) connection->input.Discard();  // else the buffer is in use
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
    if (number_ == 0) SumUpForClients();
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

namespace {

// Since when a connection has held memory without a sign of life.
int64_t StalledSince(const EventConnection* connection) {
    if (connection->pause == Pause::kForClient) return connection->blockedSince;
    const bool stalls = connection->pause == Pause::kNone && !connection->elsewhere &&
                        connection->bufferedBytes != 0 &&
                        connection->recordNumber == connection->input.Number();
    return stalls ? connection->recordSince : INT64_MAX;
}

// Since when a connection has held memory and waited for more.
int64_t HeldSince(const EventConnection* connection) {
    const bool holds = connection->pause == Pause::kForMemory && connection->bufferedBytes != 0;
    return holds ? connection->activeSince : INT64_MAX;
}

}  // namespace

// Memory is short: it is taken from those who have held theirs longest without a sign of life, or,
// when all that is held is held by those who wait for more, from these. One for each that waits.
void EventLoop::EndStalled() {
    static constexpr int64_t kStalledSeconds = 1;
    uint32_t wanted = std::max<uint32_t>(1, service_.waitingForMemory);
    const auto oldestBy = [this](int64_t (*since)(const EventConnection*)) -> EventConnection* {
        const auto oldest =
            std::min_element(connections_.begin(), connections_.end(),
                             [&](auto* one, auto* other) { return since(one) < since(other); });
        const bool longAgo =
            oldest != connections_.end() && since(*oldest) <= now_ - kStalledSeconds;
        return longAgo ? *oldest : nullptr;
    };
    do {
        const bool allWait =
            service_.heldByWaiting == service_.buffered + ReplyQueue::BytesBlocked();
        EventConnection* oldest = oldestBy(allWait ? HeldSince : StalledSince);
        if (oldest == nullptr) return;
        End(oldest, EndReason::kBufferLimit,
            "more than " + std::to_string(limits_.bufferedBytes >> 20) + " MiB are buffered");
        --wanted;
    } while ((wanted > 0 && service_.waitingForMemory != 0) || BufferedTooMuch(0));
}
