// SPDX-License-Identifier: Apache-2.0
//
// What every verb needs: to ask the daemon, and to say how it went.
#pragma once

#include <functional>
#include <nlohmann/json.hpp>
#include <string>

#include "ctl/verbs.h"

namespace oxel::ctl {

inline constexpr unsigned kAnswerMs = 10000;
// Starting the services may take as long as a port stays occupied, a reload as long as name servers
// do not answer.
inline constexpr unsigned kAsLongAsItTakes = 0;

using Show = std::function<void(const nlohmann::json& body)>;

void PrintJson(const nlohmann::json& value);

// One member of a list of errors; line 0: the whole file.
nlohmann::json ErrorEntry(const std::string& file, int line, const std::string& reason);
// "file:line: reason" of one member of a list of errors; without the line where that is 0.
std::string ErrorLine(const nlohmann::json& error);

// Says on standard error, and with --json on standard output beside `details`, what went wrong.
ExitCode Fail(const Settings& settings, ExitCode code, const std::string& why,
              nlohmann::json details = nlohmann::json::object());

// Makes the request; *body is the answer of a daemon that has done it. Otherwise says why there is
// none.
ExitCode Request(const Settings& settings, const nlohmann::json& request, unsigned timeoutMs,
                 nlohmann::json* body);

// Makes the request and has `show` print the answer, unless it is to be JSON. A refusal's "errors"
// are shown line by line.
ExitCode Ask(const Settings& settings, const nlohmann::json& request, unsigned timeoutMs,
             const Show& show);

}  // namespace oxel::ctl
