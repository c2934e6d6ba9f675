// SPDX-License-Identifier: Apache-2.0
//
// The daemon's process: one function a verb, its request and its answer as a table.
#include "ctl/verbs.h"

#include <cstdio>
#include <nlohmann/json.hpp>

#include "ctl/ask.h"
#include "ctl/output.h"

namespace oxel::ctl {

using nlohmann::json;

ExitCode Status(const Settings& settings) {
    return Ask(settings, {{"verb", "status"}}, kAnswerMs, [](const json& body) {
        const json records = body.value("records", json::object());
        PrintTable({
            {"pid", Shown(body, "pid")},
            {"version", Shown(body, "version")},
            {"up", ShownDuration(body, "uptimeSeconds")},
            {"state", Shown(body, "state") + " (" + Shown(body, "stateText") + ")"},
            {"NFS port", Shown(body, "nfsPort")},
            {"MOUNT port", Shown(body, "mountPort")},
            {"handler threads", Shown(body, "handlerThreads")},
            {"call records",
             Shown(records, "inUse") + " of " + Shown(records, "total") + " in use"},
            {"connections", Shown(body, "connections")},
            {"log level", Shown(body, "logLevel")},
            {"hardened", Shown(body, "hardened")},
        });
    });
}

ExitCode Perf(const Settings& settings) {
    return Ask(settings, {{"verb", "perf"}}, kAnswerMs, [](const json& body) {
        if (body.value("accounting", json(true)) == json(false)) {
            printf("Accounting is off: there are no counters to write.\n");
        } else {
            printf("The counters go to the daemon's log.\n");
        }
    });
}

ExitCode LogLevel(const Settings& settings) {
    json request = {{"verb", "log-level"}};
    if (settings.level) request["level"] = *settings.level;
    return Ask(settings, request, kAnswerMs, [](const json& body) {
        PrintTable({{"log level", Shown(body, "logLevel")}});
    });
}

ExitCode StartNetwork(const Settings& settings) {
    const json request = {{"verb", "start-network"}, {"register", settings.registerPortMapper}};
    return Ask(settings, request, kAsLongAsItTakes, [](const json& body) {
        PrintTable({
            {"services started", Shown(body, "servicesStarted")},
            {"registered with the port mapper", Shown(body, "portMapperRegistered")},
        });
    });
}

ExitCode Stop(const Settings& settings) {
    return Ask(settings, {{"verb", "stop"}}, kAnswerMs,
               [](const json&) { printf("The daemon stops.\n"); });
}

}  // namespace oxel::ctl
