// SPDX-License-Identifier: Apache-2.0
//
// Who is connected: taking clients in, and ending the connections of those who go or take too much.
#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <utility>

#include "bin/oxelService_accept.h"
#include "bin/oxelService_event_loop.h"
#include "net/CLuIPAddr.h"

using Pause = EventConnection::Pause;

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
    connection->Flush();  // the answers to what it asked before
    (void)epoll_ctl(epoll_.Get(), EPOLL_CTL_DEL, connection->Descriptor(), nullptr);
    if (connection->ready) std::erase(ready_, connection);
    if (connection->pause != Pause::kNone) std::erase(paused_, connection);
    if (connection->elsewhere)
        std::erase(mounts_, connection);  // the buffer may be in use
    else
        connection->input.Stop();
    connections_[connection->place] = connections_.back();
    connections_[connection->place]->place = connection->place;
    connections_.pop_back();
    CountBuffered(connection, 0);
    const auto address = perAddress_.find(connection->AddressKey());
    if (--address->second == 0) perAddress_.erase(address);
    connection->End();
}

void EventLoop::EndNoCall(EventConnection* connection) {
    End(connection, EndReason::kNotACall, "what it sent is no call");
}

void EventLoop::Sweep() {
    for (size_t i = connections_.size(); i > 0; --i) SweepOne(connections_[i - 1]);
    const bool forMemory = std::any_of(paused_.begin(), paused_.end(), [](auto* connection) {
        return connection->pause == Pause::kForMemory;
    });
    if (forMemory || BufferedTooMuch(0)) EndStalled();
    SumEndsUp();
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
    } else if (connection->CallsInFlight() == 0 &&
               lasts(connection->activeSince, limits_.idleSeconds)) {
        End(connection, EndReason::kIdle, "idle" + after(limits_.idleSeconds));
    }
}

// Memory is short: it is taken from those who have held theirs without a sign of life.
void EventLoop::EndStalled() {
    static constexpr int64_t kStalledSeconds = 1;
    const auto stalls = [this](const EventConnection* connection) {
        const int64_t longAgo = now_ - kStalledSeconds;
        if (connection->pause == Pause::kForClient) return connection->blockedSince <= longAgo;
        return connection->pause == Pause::kNone && !connection->elsewhere &&
               connection->bufferedBytes != 0 &&
               connection->recordNumber == connection->input.Number() &&
               connection->recordSince <= longAgo;
    };
    for (size_t i = connections_.size(); i > 0; --i) {
        if (stalls(connections_[i - 1]))
            End(connections_[i - 1], EndReason::kBufferLimit,
                "more than " + std::to_string(limits_.bufferedBytes >> 20) + " MiB are buffered");
    }
}
