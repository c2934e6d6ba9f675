// SPDX-License-Identifier: Apache-2.0
//
// Where calls are counted. Meters are made when something is first counted in them and live as long
// as the process: shares are as many as an administrator writes down. Clients are as many as like
// to connect, so those that have been gone longest are forgotten.
#include "bin/oxelService_account.h"

#include <algorithm>
#include <map>
#include <memory>
#include <new>
#include <utility>

#include "base/perf_counter.h"
#include "base/repeat_limit.h"
#include "base/sync.h"
#include "bin/oxelService_callinfo.h"
#include "bin/oxelService_connection.h"
#include "mount3/mount3proc.h"
#include "net/CLuIPAddr.h"
#include "nfs3/nfs3proc.h"

// ---- Shares ----

namespace {

// The meters of one share, made as its procedures are called.
struct ShareAccount {
    explicit ShareAccount(uint32_t shareId, std::string sharePath)
        : id(shareId), path(std::move(sharePath)) {}
    const uint32_t id;
    const std::string path;
    std::array<std::atomic<CallMeter*>, kNfs3ProcedureCount> procedures{};
};

// The meter in `place`, made when there is none; null when memory is short.
CallMeter* MeterIn(std::atomic<CallMeter*>& place) {
    CallMeter* meter = place.load(std::memory_order_acquire);
    if (meter != nullptr) return meter;
    std::unique_ptr<CallMeter> made(new (std::nothrow) CallMeter);
    if (!made) return nullptr;
    if (place.compare_exchange_strong(meter, made.get(), std::memory_order_acq_rel))
        return made.release();
    return meter;  // another thread's
}

// Found without a lock: a share keeps its place for good. Id 0 is for calls that name no share, and
// for those of shares that came when the table was full.
class ShareTable {
  public:
    ShareAccount* Find(uint32_t id, const Export* share) {
        for (size_t i = id % kPlaces, probes = 0; probes < kProbes;
             i = (i + 1) % kPlaces, ++probes) {
            ShareAccount* account = places_[i].load(std::memory_order_acquire);
            if (account == nullptr) return Insert(i, id, share);
            if (account->id == id) return account;
        }
        return id == 0 ? nullptr : Find(0, nullptr);
    }

    std::vector<ShareAccount*> All() const {
        std::vector<ShareAccount*> all;
        for (const auto& place : places_)
            if (ShareAccount* account = place.load(std::memory_order_acquire))
                all.push_back(account);
        return all;
    }

  private:
    static constexpr size_t kPlaces = 8192, kProbes = 64;

    ShareAccount* Insert(size_t at, uint32_t id, const Export* share) {
        std::unique_ptr<ShareAccount> made;
        try {
            made = std::make_unique<ShareAccount>(id, share != nullptr ? share->GetPath() : "");
        } catch (const std::bad_alloc&) {
            return nullptr;
        }
        ShareAccount* none = nullptr;
        if (places_[at].compare_exchange_strong(none, made.get(), std::memory_order_acq_rel))
            return made.release();
        // Another share has come in between, or the same one.
        return Find(id, share);
    }

    std::array<std::atomic<ShareAccount*>, kPlaces> places_{};
};

constinit ShareTable gShares;

std::array<std::atomic<CallMeter*>, kMount3ProcedureCount> gMountMeters{};

std::array<std::atomic<uint64_t>, kRejections> gRejections{};

bool IsNfs(const ProcedureRow* row) {
    return row >= Nfsv3Handlers && row < Nfsv3Handlers + kNfs3ProcedureCount;
}

}  // namespace

// ---- Clients ----

namespace {

// Clients without connections that are remembered.
constexpr size_t kGoneClientsMost = 1024;

struct ClientRegistry {
    XoCriticalSection mutex;
    std::map<std::string, std::unique_ptr<ClientAccount>> clients GUARDED_BY(mutex);
    size_t gone GUARDED_BY(mutex) = 0;  // of them without connections
};

ClientRegistry& Clients() {
    static auto* registry = new ClientRegistry;
    return *registry;
}

void ForgetOldest(ClientRegistry& registry) REQUIRES(registry.mutex) {
    auto oldest = registry.clients.end();
    for (auto i = registry.clients.begin(); i != registry.clients.end(); ++i)
        if (i->second->connections == 0 && (oldest == registry.clients.end() ||
                                            i->second->lastSeconds < oldest->second->lastSeconds))
            oldest = i;
    if (oldest == registry.clients.end()) return;
    registry.clients.erase(oldest);
    --registry.gone;
}

}  // namespace

void ClientAccount::Used(uint32_t shareId) {
    for (const auto& share : shares_)
        if (share.load(std::memory_order_relaxed) == shareId) return;
    const uint32_t at = next_.fetch_add(1, std::memory_order_relaxed) % kShares;
    shares_[at].store(shareId, std::memory_order_relaxed);
}

std::vector<uint32_t> ClientAccount::SharesUsed() const {
    std::vector<uint32_t> used;
    for (const auto& share : shares_)
        if (const uint32_t id = share.load(std::memory_order_relaxed); id != 0) used.push_back(id);
    // Two threads that note a share at once note it twice.
    std::sort(used.begin(), used.end());
    used.erase(std::unique(used.begin(), used.end()), used.end());
    return used;
}

ClientAccount* EnterClient(const CLuIPAddr& address) {
    try {
        ClientRegistry& registry = Clients();
        std::string text = address.GetAddressString();
        XoCriticalSectionGuard lock(registry.mutex);
        ClientAccount* account;
        if (const auto known = registry.clients.find(text); known != registry.clients.end()) {
            account = known->second.get();
            if (account->connections == 0) --registry.gone;
        } else {
            auto made = std::make_unique<ClientAccount>(text);
            account = made.get();
            registry.clients.emplace(std::move(text), std::move(made));
        }
        ++account->connections;
        account->lastSeconds = oxel::CoarseSeconds();
        return account;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

void LeaveClient(ClientAccount* client) {
    if (client == nullptr) return;
    ClientRegistry& registry = Clients();
    XoCriticalSectionGuard lock(registry.mutex);
    client->lastSeconds = oxel::CoarseSeconds();
    if (--client->connections != 0) return;
    if (++registry.gone > kGoneClientsMost) ForgetOldest(registry);
}

size_t ConnectedClients() {
    ClientRegistry& registry = Clients();
    XoCriticalSectionGuard lock(registry.mutex);
    return registry.clients.size() - registry.gone;
}

// ---- Calls ----

void BeginCall(CallInfo3* call, ClientAccount* client) {
    call->client.store(client, std::memory_order_relaxed);
    call->began.store(oxel::MonotonicNanoseconds(), std::memory_order_relaxed);
}

void ForgetCall(CallInfo3* call) {
    call->began.store(0, std::memory_order_relaxed);
    call->client.store(nullptr, std::memory_order_relaxed);
}

int32_t OutcomeOf(const CallInfo3* call) {
    if (IsNfs(call->row))
        // All results but NULL's, which is zero, begin with the status.
        return call->result.getattr.status;
    if (call->row == &Mountv3Handlers[MOUNTPROC3_MNT])
        return static_cast<int32_t>(call->result.mnt.fhs_status);
    return NFS3_OK;
}

void EndCall(CallInfo3* call, int32_t outcome) {
    const uint64_t began = call->began.load(std::memory_order_relaxed);
    if (began == 0) return;
    const uint64_t took = oxel::MonotonicNanoseconds() - began;
    ClientAccount* client = call->client.load(std::memory_order_relaxed);
    std::atomic<CallMeter*>* place = nullptr;
    if (IsNfs(call->row)) {
        // The first handle's share, which is the one that was resolved.
        const uint32_t shareId = call->exportPtr ? call->arguments().getattr.object.shareId : 0;
        if (ShareAccount* share = gShares.Find(shareId, call->exportPtr.get()))
            place = &share->procedures[static_cast<size_t>(call->row - Nfsv3Handlers)];
        if (client != nullptr && shareId != 0) client->Used(shareId);
    } else {
        place = &gMountMeters[static_cast<size_t>(call->row - Mountv3Handlers)];
    }
    if (place != nullptr)
        if (CallMeter* meter = MeterIn(*place)) meter->Add(call, outcome, took);
    if (client != nullptr) client->meter.Add(call, outcome, took);
    ForgetCall(call);
}

void CountRejection(Rejection reason) {
    gRejections[static_cast<unsigned>(reason)].fetch_add(1, std::memory_order_relaxed);
}

// ---- Readings ----

std::vector<ProcedureReading> ReadProcedures() {
    std::vector<ProcedureReading> all;
    const auto add = [&all](RpcProgram program, int number, const ProcedureRow& row,
                            const ShareAccount* share, const std::atomic<CallMeter*>& place) {
        const CallMeter* meter = place.load(std::memory_order_acquire);
        if (meter == nullptr) return;
        std::string name = row.name;
        if (name.ends_with('3')) name.pop_back();  // the protocol's version
        ProcedureReading reading{program, number, std::move(name), 0, "", meter->Read()};
        if (share != nullptr) {
            reading.shareId = share->id;
            reading.sharePath = share->path;
        }
        all.push_back(std::move(reading));
    };
    for (const ShareAccount* share : gShares.All())
        for (int i = 0; i < kNfs3ProcedureCount; ++i)
            add(RpcProgram::kNfs, i, Nfsv3Handlers[i], share,
                share->procedures[static_cast<size_t>(i)]);
    for (int i = 0; i < kMount3ProcedureCount; ++i)
        add(RpcProgram::kMount, i, Mountv3Handlers[i], nullptr,
            gMountMeters[static_cast<size_t>(i)]);
    return all;
}

std::map<uint32_t, std::string> ReadSharePaths() {
    std::map<uint32_t, std::string> paths;
    for (const ShareAccount* share : gShares.All()) paths[share->id] = share->path;
    return paths;
}

namespace {

struct InFlight {
    uint32_t calls = 0;
    uint64_t oldestNanoseconds = 0;  // its age
};

// Who has calls in flight. A record may be given to another call while it is looked at: its client
// is to be compared with those that there are, and never followed.
std::map<const ClientAccount*, InFlight> ReadInFlight() {
    std::map<const ClientAccount*, InFlight> inFlight;
    const uint64_t now = oxel::MonotonicNanoseconds();
    for (const CallInfo3* call : gCallInfoPool.All()) {
        const uint64_t began = call->began.load(std::memory_order_relaxed);
        if (began == 0) continue;
        InFlight& one = inFlight[call->client.load(std::memory_order_relaxed)];
        ++one.calls;
        if (began < now) one.oldestNanoseconds = std::max(one.oldestNanoseconds, now - began);
    }
    return inFlight;
}

}  // namespace

uint64_t ReadOldestCall() {
    uint64_t oldest = 0;
    for (const auto& [client, calls] : ReadInFlight())
        oldest = std::max(oldest, calls.oldestNanoseconds);
    return oldest;
}

std::vector<ClientReading> ReadClients() {
    const std::map<const ClientAccount*, InFlight> inFlight = ReadInFlight();
    std::vector<ClientReading> all;
    ClientRegistry& registry = Clients();
    XoCriticalSectionGuard lock(registry.mutex);
    for (const auto& [address, account] : registry.clients) {
        ClientReading reading;
        reading.address = address;
        reading.connections = account->connections;
        if (const auto found = inFlight.find(account.get()); found != inFlight.end()) {
            reading.callsInFlight = found->second.calls;
            reading.oldestNanoseconds = found->second.oldestNanoseconds;
        }
        reading.shares = account->SharesUsed();
        reading.meter = account->meter.Read();
        all.push_back(std::move(reading));
    }
    return all;
}

std::array<std::pair<const char*, uint64_t>, kRejections> ReadRejections() {
    static constexpr const char* kNames[kRejections] = {"unknownProcedure", "weakCredential",
                                                        "garbageArguments"};
    std::array<std::pair<const char*, uint64_t>, kRejections> counts;
    for (size_t i = 0; i < kRejections; ++i)
        counts[i] = {kNames[i], gRejections[i].load(std::memory_order_relaxed)};
    return counts;
}
