// SPDX-License-Identifier: Apache-2.0
//
// The companion service: the control socket by which an administrator (oxelctl) looks at the daemon
// and asks it for things, among them to start its network services later.
#pragma once

#include <functional>
#include <nlohmann/json.hpp>
#include <string>

#include "base/perf_counter.h"  // gPerfFlag, gPrintPerfStats and LogAllPerfCounters

// Starts the network services on the companion's thread. The second argument asks for
// SetStartupArgs to be called with the outcome.
using NetworkServiceSetupCB = bool (*)(bool registerWithPortMapper, bool reportStartupArgs);

// Allows "start-network"; without a callback it is refused.
void SetNetworkServiceSetupCB(NetworkServiceSetupCB callback);
// The daemon tells what is still to be done: whether the network services are not started, and
// whether they are not registered with the port mapper. Shown by "start-network".
void SetStartupArgs(bool servicesNotStarted, bool portMapperNotRegistered);
// Closes the control socket and removes its file. Requests under way are finished first, at most
// one second. May be called without StartPellService, and again.
void StopPellService();

namespace oxel {

struct ControlReply {
    bool ok = true;
    std::string error;                               // when not ok: one line for a person
    nlohmann::json body = nlohmann::json::object();  // camelCase names
};

// Answers one request; called on a companion thread. An exception becomes a refusal with its text.
using ControlHandler = std::function<ControlReply(const nlohmann::json& request)>;

// Gives a verb its answer. Before StartPellService. "start-network" is the companion's own.
void SetControlHandler(const std::string& verb, ControlHandler handler);

// Listens on the Unix socket (mode 0600; a stale file is replaced). False with errno on failure.
bool StartPellService(const std::string& socketPath);

// The client side: sends one request and waits at most `timeoutMs` (0: as long as it takes) for the
// answer. False with errno when no daemon answers.
bool ControlCall(const std::string& socketPath, const nlohmann::json& request, unsigned timeoutMs,
                 ControlReply* reply);

}  // namespace oxel
