// SPDX-License-Identifier: Apache-2.0
//
// The daemon's answers on the control socket: what it is doing, and the few things it can be asked.
#include <unistd.h>

#include "base/log.h"
#include "base/perf_counter.h"
#include "base/repeat_limit.h"
#include "base/thread.h"
#include "bin/oxelService.h"
#include "bin/oxelService_callinfo.h"
#include "bin/oxelService_connection.h"
#include "bin/oxelService_limits.h"
#include "bin/version.h"
#include "companion/PellService.h"

using nlohmann::json;
using oxel::ControlReply;

const char* StateText(OxelServiceStatus state) {
    switch (state) {
        case OxelStarting:
            return "starting";
        case OxelStarted:
            return OxelServiceGlobals::networkServicesStarted ? "serving"
                                                              : "network services not started";
        case OxelNoSocket:
            return "no socket or no local address";
        case OxelNoRegistration:
            return "transport or registration failed; tried again every minute";
        case OxelNoBind:
            return "bind or listen failed; tried again every minute";
    }
    return "unknown";
}

static ControlReply Status(const json&) {
    // Not by the wall clock, which somebody may set.
    static const int64_t processStart = oxel::CoarseSeconds();
    const OxelServiceStatus state = OxelServiceGlobals::oxelStatus;
    const size_t total = gCallInfoPool.Total(), free = gCallInfoPool.Free();
    ControlReply reply;
    reply.body = {{"pid", getpid()},
                  {"version", kOxelVersion},
                  {"uptimeSeconds", oxel::CoarseSeconds() - processStart},
                  {"state", static_cast<int>(state)},
                  {"stateText", StateText(state)},
                  {"nfsPort", OxelServiceGlobals::nfsPort.load()},
                  {"mountPort", OxelServiceGlobals::mountPort.load()},
                  {"handlerThreads", gWorkerPool.threadCount()},
                  {"records", {{"total", total}, {"inUse", total - free}}},
                  {"connections", Connection::Count()},
                  {"logLevel", oxel::LogWriter::Level()},
                  {"hardened", gHardened.load()}};
    if (gHardened)
        for (const auto& [reason, count] : EndCounts())
            reply.body["connectionsEnded"][reason] = count;
    return reply;
}

static ControlReply LogLevel(const json& request) {
    ControlReply reply;
    if (const auto level = request.find("level"); level != request.end()) {
        if (!level->is_number_integer() || *level < 0 || *level > 4) {
            reply.ok = false;
            reply.error = "the log level is a number from 0 to 4";
            return reply;
        }
        oxel::LogWriter::SetLevel(level->get<int>());
    }
    reply.body["logLevel"] = oxel::LogWriter::Level();
    return reply;
}

// The receive loop writes the counters; one that is not running yet cannot.
static ControlReply Perf(const json&) {
    ControlReply reply;
    gPrintPerfStats = true;
    WakeReceiveLoop();
    reply.body["accounting"] = gPerfFlag.load();
    return reply;
}

static ControlReply Stop(const json&) {
    RequestStop();
    return ControlReply();
}

void RequestStop() {
    OxelServiceGlobals::SetExitProcess(1);
    WakeReceiveLoop();
}

void InstallControlHandlers() {
    (void)Status(json());  // remembers the start time
    oxel::SetControlHandler("status", Status);
    oxel::SetControlHandler("log-level", LogLevel);
    oxel::SetControlHandler("perf", Perf);
    oxel::SetControlHandler("stop", Stop);
    InstallShareControlHandlers();
    InstallCallControlHandlers();
}
