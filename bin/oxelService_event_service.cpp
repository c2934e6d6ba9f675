// SPDX-License-Identifier: Apache-2.0
//
// Starting and ending the loops, and what passes between them.
#include "bin/oxelService_event_service.h"

#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

#include "base/log.h"
#include "base/patience.h"
#include "base/store.h"
#include "base/thread.h"
#include "bin/oxelService.h"
#include "bin/oxelService_callinfo.h"
#include "bin/oxelService_event_loop.h"
#include "bin/oxelService_transport.h"
#include "net/CLuIPAddr.h"

namespace {

constexpr std::chrono::seconds kEndPatience{1};

// The record for the dispatcher that this thread is about to call.
thread_local CallInfo3* tReserved = nullptr;

}  // namespace

ClientTable::Admitted ClientTable::Admit(const AddressKey& address, const ClientLimits& limits) {
    XoCriticalSectionGuard lock(mutex_);
    if (all_ >= limits.connections) return Admitted::kTooMany;
    const auto known = perAddress_.find(address);
    if (known != perAddress_.end() && known->second >= limits.connectionsPerAddress)
        return Admitted::kTooManyFromAddress;
    ++perAddress_[address];
    ++all_;
    return Admitted::kYes;
}

void ClientTable::Leave(const AddressKey& address) {
    XoCriticalSectionGuard lock(mutex_);
    const auto known = perAddress_.find(address);
    if (--known->second == 0) perAddress_.erase(known);
    --all_;
}

EventService::EventService() = default;
EventService::~EventService() = default;

// "nReceiveThreads", or one for each processor. With everything on one thread there is one.
unsigned EventService::LoopsWanted() {
    if (!gMultiThreadRPCHandling) return 1;
    unsigned wanted = 0;
    if (!XOPlatformInfo().getNumber("Oxel", "nReceiveThreads", &wanted) || wanted == 0)
        wanted = std::max(1u, std::thread::hardware_concurrency());
    return std::min(wanted, kReceiveLoopsMax);
}

void EventService::Receive() {
    limits_ = ClientLimits::FromSettings();
    const unsigned wanted = LoopsWanted();
    for (unsigned i = 0; i < wanted; ++i) {
        auto loop = std::make_unique<EventLoop>(*this, i);
        if (!loop->Open()) break;
        loops_.push_back(std::move(loop));
    }
    if (loops_.empty()) return;
    for (size_t i = 1; i < loops_.size(); ++i) {
        try {
            std::thread([this, loop = loops_[i].get()] {
                loop->Run();
                XoCriticalSectionGuard lock(mutex_);
                --running_;
                ended_.notifyAll();
            }).detach();
        } catch (const std::system_error&) {
            OXEL_LOG(-1, "Error: No thread for receive loop [%zu] of [%zu].", i + 1, loops_.size());
            loops_.resize(i);
            break;
        }
        XoCriticalSectionGuard lock(mutex_);
        ++running_;
    }
    loops_.front()->Run();
    WakeOtherLoops();
    const auto deadline = std::chrono::steady_clock::now() + kEndPatience;
    XoCriticalSectionGuard lock(mutex_);
    // One that is held up in a call ends with the process.
    while (running_ != 0 && ended_.waitUntil(mutex_, deadline)) {
    }
}

bool EventService::ReserveRecord() {
    tReserved = gCallInfoPool.TryPopRecent();
    return tReserved != nullptr;
}

void EventService::ReturnReserved() {
    if (tReserved != nullptr) gCallInfoPool.Push(std::exchange(tReserved, nullptr));
}

CallInfo3* EventService::TakeRecord() {
    return std::exchange(tReserved, nullptr);
}

SVCXPRT* EventService::Copy(SVCXPRT* transport, SVCXPRT* copy) {
    return DupWithoutStream(transport, copy);
}

bool EventService::Handle(CallInfo3* call) {
    return EventConnection::Of(call->transport)->Loop().Handle(call);
}

// A connection's queue keeps its replies apart, and no thread waits in it.
void EventService::Reply(CallInfo3* call) {
    SendWithoutShareLock(call);
}

void EventService::RecordIsFree() {
    if (pausedLoops == 0) return;
    for (const auto& loop : loops_) loop->WakeIfPaused();
}

void EventService::WakeOtherLoops() {
    for (size_t i = 1; i < loops_.size(); ++i) loops_[i]->Wake();
}

void EventService::DispatchMount(EventConnection* connection) {
    connection->AddCall();
    {
        XoCriticalSectionGuard lock(mutex_);
        mounts_.push_back(connection);
        if (std::exchange(mountsAreServed_, true)) return;
    }
    // Without a handler thread it is done here.
    if (!gWorkerPool.doWork(ServeMounts, this)) ServeMounts(this);
}

void* EventService::ServeMounts(void* service) {
    const oxel::PatientNew patient;
    auto* self = static_cast<EventService*>(service);
    for (;;) {
        EventConnection* connection;
        {
            XoCriticalSectionGuard lock(self->mutex_);
            if (self->mounts_.empty()) {
                self->mountsAreServed_ = false;
                return nullptr;
            }
            connection = self->mounts_.front();
            self->mounts_.pop_front();
        }
        connection->Dispatch();
        connection->Flush();
        connection->Loop().MountIsDone(connection);
    }
}

void EventService::TakeIn(oxel::UniqueFd socket) {
    sockaddr_storage peer{};
    socklen_t length = sizeof peer;
    if (getpeername(socket.Get(), reinterpret_cast<sockaddr*>(&peer), &length) != 0) return;
    const CLuIPAddr address(reinterpret_cast<sockaddr*>(&peer), length);
    AddressKey key;
    std::copy_n(XOIPAddr(address).bytes(), key.size(), key.begin());
    switch (clients.Admit(key, limits_)) {
        case ClientTable::Admitted::kTooMany:
            CountEnd(EndReason::kConnectionLimit, address.GetAddressString(),
                     "more than " + std::to_string(limits_.connections) + " connections");
            return;
        case ClientTable::Admitted::kTooManyFromAddress:
            CountEnd(EndReason::kAddressLimit, address.GetAddressString(),
                     "more than " + std::to_string(limits_.connectionsPerAddress) +
                         " connections from this address");
            return;
        case ClientTable::Admitted::kYes:
            break;
    }
    const auto idlest = std::min_element(
        loops_.begin(), loops_.end(),
        [](const auto& one, const auto& other) { return one->Clients() < other->Clients(); });
    (*idlest)->TakeOver(std::move(socket), key);
}

Carrier& EventCarrier() {
    static auto* service = new EventService;  // never destroyed: calls may outlive the loops
    return *service;
}
