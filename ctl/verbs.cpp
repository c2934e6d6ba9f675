// SPDX-License-Identifier: Apache-2.0
//
// One function a verb: its request, and its answer as a table.
#include "ctl/verbs.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <nlohmann/json.hpp>

#include "base/log.h"
#include "base/store.h"
#include "companion/PellService.h"
#include "ctl/output.h"

namespace oxel::ctl {

using nlohmann::json;

namespace {

constexpr unsigned kAnswerMs = 10000;
// Starting the services may take as long as a port stays occupied.
constexpr unsigned kAsLongAsItTakes = 0;

using Show = std::function<void(const json& body)>;

void PrintJson(const json& value) {
    printf("%s\n", value.dump(-1, ' ', false, json::error_handler_t::replace).c_str());
}

// What went wrong, and what to do about it.
std::string WhyNoDaemon(const Settings& settings, const std::string& socket, int error) {
    const std::string at = EscapeControl(socket);
    const std::string instance = EscapeControl(settings.instance);
    switch (error) {
        case ENOENT:
        case ECONNREFUSED:
            return "no daemon answers at " + at + ": is oxelnfsd running for instance " + instance +
                   "?";
        case EACCES:
        case EPERM:
            return "no access to " + at + ": run oxelctl as root or as the daemon's user";
        case ETIMEDOUT:
            return "the daemon at " + at + " does not answer in time; its log may say why";
        case EPROTO:
            return "what answers at " + at +
                   " does not speak oxelnfsd's language: is it a daemon "
                   "of another version?";
        default:
            return "no daemon answers at " + at + ": " + strerror(error);
    }
}

ExitCode Fail(const Settings& settings, ExitCode code, const std::string& why) {
    if (settings.json) PrintJson({{"error", why}});
    fprintf(stderr, "oxelctl: %s\n", why.c_str());
    return code;
}

ExitCode Ask(const Settings& settings, const json& request, unsigned timeoutMs, const Show& show) {
    const std::string socket = InstancePaths(settings.instance).controlSocket;
    ControlReply reply;
    if (!ControlCall(socket, request, timeoutMs, &reply))
        return Fail(settings, kNoDaemon, WhyNoDaemon(settings, socket, errno));
    if (!reply.ok) return Fail(settings, kRefused, EscapeControl(reply.error));
    if (settings.json) {
        PrintJson(reply.body);
    } else {
        show(reply.body);
    }
    return kDone;
}

}  // namespace

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
