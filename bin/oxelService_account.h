// SPDX-License-Identifier: Apache-2.0
//
// The account of calls, by procedure and share and by client. Always on; a call costs it two
// readings of the clock and a few additions.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "base/latency_histogram.h"
#include "bin/oxelService_meters.h"

struct CallInfo3;
class CLuIPAddr;

// ---- Clients ----

// One address that has connections, or had them lately. Lives at least as long as its connections.
struct ClientAccount {
    explicit ClientAccount(std::string text) : address(std::move(text)) {}
    const std::string address;
    CallMeter meter;
    std::atomic<uint32_t> connections{0};
    std::atomic<int64_t> lastSeconds{0};  // of CoarseSeconds(); when a connection came or went

    // The shares that it has used, the most recent kShares; any thread.
    static constexpr size_t kShares = 16;
    void Used(uint32_t shareId);
    std::vector<uint32_t> SharesUsed() const;

  private:
    std::array<std::atomic<uint32_t>, kShares> shares_{};  // 0: none
    std::atomic<uint32_t> next_{0};
};

// The account of a new connection's client; null when memory is short (its calls are counted
// elsewhere only). To be left once for each that was entered.
ClientAccount* EnterClient(const CLuIPAddr& address);
void LeaveClient(ClientAccount* client);
// How many addresses have connections now.
size_t ConnectedClients();

// ---- Calls ----

// A call is being dispatched, on a record that is its own from now on.
void BeginCall(CallInfo3* call, ClientAccount* client);
// It ended without reaching a handler, or was counted. Before its record goes back.
void ForgetCall(CallInfo3* call);
// Its reply has been encoded, or there is none; result and share are still there. Counts it.
void EndCall(CallInfo3* call, int32_t outcome);
// The outcome that stands in the result of a call that was handled; 0 for procedures without one.
int32_t OutcomeOf(const CallInfo3* call);

// Calls that no procedure's handler has seen.
enum class Rejection : unsigned { kUnknownProcedure, kWeakCredential, kGarbageArguments };
inline constexpr size_t kRejections = 3;
void CountRejection(Rejection reason);

// ---- Readings: a copy of all that is counted; any thread ----

enum class RpcProgram : uint8_t { kNfs, kMount };

struct ProcedureReading {
    RpcProgram program;
    int number;             // of the procedure in its program
    std::string procedure;  // "GETATTR"
    uint32_t shareId;       // 0: the call named no share that there is
    std::string sharePath;  // as it was when the share was first used; empty for 0
    MeterReading meter;
};

struct ClientReading {
    std::string address;
    uint32_t connections = 0;
    uint32_t callsInFlight = 0;
    uint64_t oldestNanoseconds = 0;  // age of the oldest of those; 0 when there is none
    std::vector<uint32_t> shares;    // ids
    MeterReading meter;
};

// Only those that were called.
std::vector<ProcedureReading> ReadProcedures();
// The paths of all shares that were used, by id, as they were when the share was first used.
std::map<uint32_t, std::string> ReadSharePaths();
std::vector<ClientReading> ReadClients();
// The age of the oldest call that is under way, in nanoseconds; 0 when there is none.
uint64_t ReadOldestCall();
// How often each reason rejected a call, under its name in JSON.
std::array<std::pair<const char*, uint64_t>, kRejections> ReadRejections();
