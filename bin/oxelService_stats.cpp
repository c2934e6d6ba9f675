// SPDX-License-Identifier: Apache-2.0
//
// The control socket's answers about calls: what clients do, and how long it takes.
#include <cmath>
#include <map>
#include <string>

#include "backend/export_registry.h"
#include "bin/oxelService.h"
#include "bin/oxelService_account.h"
#include "bin/oxelService_callinfo.h"
#include "companion/PellService.h"
#include "companion/latency_figures.h"

using nlohmann::json;
using oxel::ControlReply;

namespace {

// To a tenth: what is behind that is noise.
double Microseconds(uint64_t nanoseconds) {
    return std::round(static_cast<double>(nanoseconds) / 100) / 10;
}

void AddLatency(const oxel::LatencyReading& latency, bool withBuckets, json* entry) {
    for (const oxel::LatencyFigure& figure : oxel::kLatencyFigures)
        (*entry)[figure.member] = Microseconds(figure.nanoseconds(latency));
    if (withBuckets) oxel::AddLatencyBuckets(latency, entry);
}

void AddMeter(const MeterReading& meter, bool withBuckets, json* entry) {
    (*entry)["calls"] = meter.Calls();
    json& errors = (*entry)["errors"] = json::object();
    for (const auto& [status, count] : meter.errors) errors[status] = count;
    (*entry)["bytesRead"] = meter.bytesRead;
    (*entry)["bytesWritten"] = meter.bytesWritten;
    AddLatency(meter.latency, withBuckets, entry);
}

const char* ProgramText(RpcProgram program) {
    return program == RpcProgram::kNfs ? "NFS" : "MOUNT";
}

json ByProcedure(const std::vector<ProcedureReading>& readings, bool withBuckets) {
    json list = json::array();
    // A procedure's readings lie apart, one for each share.
    std::map<std::pair<RpcProgram, int>, std::pair<std::string, MeterReading>> sums;
    for (const ProcedureReading& one : readings) {
        auto& [name, meter] = sums[{one.program, one.number}];
        name = one.procedure;
        meter.Add(one.meter);
    }
    for (const auto& [procedure, sum] : sums) {
        json entry = {{"program", ProgramText(procedure.first)}, {"procedure", sum.first}};
        AddMeter(sum.second, withBuckets, &entry);
        list.push_back(std::move(entry));
    }
    return list;
}

json ByShare(const std::vector<ProcedureReading>& readings, bool withBuckets) {
    std::map<uint32_t, std::pair<std::string, MeterReading>> sums;
    for (const ProcedureReading& one : readings) {
        if (one.shareId == 0) continue;
        auto& [path, meter] = sums[one.shareId];
        path = one.sharePath;
        meter.Add(one.meter);
    }
    json list = json::array();
    for (const auto& [id, sum] : sums) {
        json entry = {{"path", oxel::RegistryPathText(sum.first)}, {"id", id}};
        AddMeter(sum.second, withBuckets, &entry);
        list.push_back(std::move(entry));
    }
    return list;
}

json ByClient(const std::vector<ClientReading>& readings, bool withBuckets) {
    json list = json::array();
    for (const ClientReading& one : readings) {
        if (one.meter.Calls() == 0) continue;
        json entry = {{"client", one.address}};
        AddMeter(one.meter, withBuckets, &entry);
        list.push_back(std::move(entry));
    }
    return list;
}

ControlReply Stats(const json& request) {
    const auto asked = request.find("buckets");
    const bool withBuckets = asked != request.end() && *asked == json(true);
    const std::vector<ProcedureReading> procedures = ReadProcedures();
    ControlReply reply;
    reply.body = {{"procedures", ByProcedure(procedures, withBuckets)},
                  {"shares", ByShare(procedures, withBuckets)},
                  {"clients", ByClient(ReadClients(), withBuckets)}};
    for (const auto& [reason, count] : ReadRejections()) reply.body["rejected"][reason] = count;
    const oxel::LatencyReading waits = gCallInfoPool.Waits();
    json& waited = reply.body["waitedForRecord"] = {{"calls", waits.count}};
    AddLatency(waits, withBuckets, &waited);
    return reply;
}

ControlReply Clients(const json&) {
    const std::map<uint32_t, std::string> paths = ReadSharePaths();
    ControlReply reply;
    json& clients = reply.body["clients"] = json::array();
    for (const ClientReading& one : ReadClients()) {
        if (one.connections == 0) continue;
        json shares = json::array();
        for (const uint32_t id : one.shares)
            if (const auto path = paths.find(id); path != paths.end())
                shares.push_back(oxel::RegistryPathText(path->second));
        clients.push_back({{"client", one.address},
                           {"connections", one.connections},
                           {"calls", one.meter.Calls()},
                           {"errors", one.meter.Errors()},
                           {"bytesRead", one.meter.bytesRead},
                           {"bytesWritten", one.meter.bytesWritten},
                           {"inFlight", one.callsInFlight},
                           {"oldestMilliseconds", one.oldestNanoseconds / 1'000'000},
                           {"shares", std::move(shares)}});
    }
    return reply;
}

}  // namespace

void InstallCallControlHandlers() {
    oxel::SetControlHandler("stats", Stats);
    oxel::SetControlHandler("clients", Clients);
}
