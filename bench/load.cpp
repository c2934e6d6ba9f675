// SPDX-License-Identifier: Apache-2.0
#include "bench/load.h"

#include <sys/epoll.h>
#include <sys/resource.h>
#include <time.h>

#include <algorithm>
#include <stdexcept>

namespace bench {
namespace {

constexpr int kPatienceMs = 30000;

void Watch(int poller, int operation, Connection* connection, uint32_t events) {
    epoll_event event{};
    event.events = events;
    event.data.ptr = connection;
    if (epoll_ctl(poller, operation, connection->Fd(), &event) != 0)
        throw std::runtime_error("epoll_ctl");
}

}  // namespace

int64_t NowNs() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000000000 + now.tv_nsec;
}

Load::Load(const Options& options, Workload* workload)
    : options_(options), workload_(workload), poller_(epoll_create1(EPOLL_CLOEXEC)) {
    rlimit files;
    if (getrlimit(RLIMIT_NOFILE, &files) == 0) {
        files.rlim_cur = files.rlim_max;
        (void)setrlimit(RLIMIT_NOFILE, &files);
    }
    for (unsigned i = 0; i < options.connections; ++i) {
        connections_.push_back(std::make_unique<Connection>(options.port, i, i * options.depth,
                                                            options.depth, workload->BytesKept()));
        Watch(poller_.Get(), EPOLL_CTL_ADD, connections_.back().get(), EPOLLIN);
    }
}

std::unique_ptr<Histogram> Load::Run(double seconds) {
    return Pump(NowNs() + static_cast<int64_t>(seconds * 1e9), options_.depth);
}

std::unique_ptr<Histogram> Load::RunOnce() {
    return Pump(0, 1);
}

std::unique_ptr<Histogram> Load::Pump(int64_t endNs, unsigned depth) {
    durations_ = std::make_unique<Histogram>();
    endNs_ = endNs;
    for (const auto& connection : connections_) {
        for (unsigned i = 0; i < depth; ++i)
            Start(connection.get(), &connection->Slots()[i], NowNs());
        Send(connection.get());
    }
    std::vector<epoll_event> events(std::min<size_t>(connections_.size(), 256));
    while (inFlight_ > 0) {
        const int ready =
            epoll_wait(poller_.Get(), events.data(), static_cast<int>(events.size()), kPatienceMs);
        if (ready == 0) throw std::runtime_error("the server has not answered for 30 s");
        for (int i = 0; i < ready; ++i) {
            const epoll_event& event = events[static_cast<size_t>(i)];
            auto* connection = static_cast<Connection*>(event.data.ptr);
            if ((event.events & ~uint32_t{EPOLLOUT}) != 0) Receive(connection);
            Send(connection);
        }
    }
    return std::move(durations_);
}

void Load::Start(Connection* connection, Slot* slot, int64_t nowNs) {
    workload_->Next(slot);
    connection->Queue(slot, nowNs);
    ++inFlight_;
}

void Load::Send(Connection* connection) {
    const bool left = !connection->Flush();
    if (left == connection->waitsToSend) return;
    connection->waitsToSend = left;
    Watch(poller_.Get(), EPOLL_CTL_MOD, connection, left ? EPOLLIN | EPOLLOUT : EPOLLIN);
}

// The replies of one read have come at the same time, and their successors go out together.
void Load::Receive(Connection* connection) {
    if (!connection->Fill()) throw std::runtime_error("the server closed a connection");
    const int64_t nowNs = NowNs();
    Reader reply({});
    while (Slot* slot = connection->NextReply(&reply)) {
        --inFlight_;
        durations_->Add(nowNs - slot->sentNs);
        workload_->Check(slot, &reply, nowNs);
        if (nowNs < endNs_ || !workload_->MayStop(*slot)) Start(connection, slot, nowNs);
    }
}

}  // namespace bench
