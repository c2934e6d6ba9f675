// SPDX-License-Identifier: Apache-2.0
//
// One request to the daemon: the call, the answer, and what to say when there is none.
#include "ctl/ask.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/log.h"
#include "base/store.h"
#include "companion/PellService.h"
#include "ctl/output.h"

namespace oxel::ctl {

using nlohmann::json;

namespace {

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

}  // namespace

void PrintJson(const json& value) {
    printf("%s\n", value.dump(-1, ' ', false, json::error_handler_t::replace).c_str());
}

json ErrorEntry(const std::string& file, int line, const std::string& reason) {
    return {{"file", file}, {"line", line}, {"reason", reason}};
}

std::string ErrorLine(const json& error) {
    const auto line = error.find("line");
    std::string text = Shown(error, "file") + ":";
    if (line != error.end() && line->is_number_integer() && *line > 0)
        text += std::to_string(line->get<int64_t>()) + ":";
    return text + " " + Shown(error, "reason");
}

ExitCode Fail(const Settings& settings, ExitCode code, const std::string& why, json details) {
    if (settings.json) {
        json answer = details.is_object() ? std::move(details) : json::object();
        answer["error"] = why;
        PrintJson(answer);
        (void)fflush(stdout);
    }
    (void)fprintf(stderr, "oxelctl: %s\n", why.c_str());
    return code;
}

ExitCode Request(const Settings& settings, const json& request, unsigned timeoutMs, json* body) {
    const std::string socket = InstancePaths(settings.instance).controlSocket;
    ControlReply reply;
    if (!ControlCall(socket, request, timeoutMs, &reply))
        return Fail(settings, kNoDaemon, WhyNoDaemon(settings, socket, errno));
    if (!reply.ok) {
        const ExitCode code = Fail(settings, kRefused, EscapeControl(reply.error), reply.body);
        for (const json& error : Listed(reply.body, "errors"))
            (void)fprintf(stderr, "%s\n", ErrorLine(error).c_str());
        return code;
    }
    *body = std::move(reply.body);
    return kDone;
}

ExitCode Ask(const Settings& settings, const json& request, unsigned timeoutMs, const Show& show) {
    json body;
    if (const ExitCode code = Request(settings, request, timeoutMs, &body); code != kDone)
        return code;
    if (settings.json) {
        PrintJson(body);
    } else {
        show(body);
    }
    return kDone;
}

}  // namespace oxel::ctl
