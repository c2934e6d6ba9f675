// SPDX-License-Identifier: Apache-2.0
//
// The client side of the control protocol.
#include <cerrno>

#include "companion/PellService.h"
#include "companion/control_socket.h"

namespace oxel {

namespace {

// Lists of shares and clients can be long; what is longer is no answer.
constexpr size_t kReplyBytesMax = 64u << 20;
// Values are copied and shown by functions that call themselves: a reply of brackets only must not
// use the stack up. The deepest that a daemon gives is 5.
constexpr int kReplyDepthMax = 32;

bool Fail(int error) {
    errno = error;
    return false;
}

// False when `text` is no reply.
bool ParseReply(const std::string& text, ControlReply* reply) {
    bool tooDeep = false;
    nlohmann::json parsed = nlohmann::json::parse(
        text,
        [&tooDeep](int depth, nlohmann::json::parse_event_t, const nlohmann::json&) {
            tooDeep = tooDeep || depth > kReplyDepthMax;
            return !tooDeep;
        },
        false);
    if (tooDeep || !parsed.is_object()) return false;
    const auto ok = parsed.find("ok");
    if (ok == parsed.end() || !ok->is_boolean()) return false;
    ControlReply result;
    result.ok = ok->get<bool>();
    if (const auto error = parsed.find("error"); error != parsed.end() && error->is_string())
        result.error = error->get<std::string>();
    parsed.erase("ok");
    parsed.erase("error");
    result.body = std::move(parsed);
    *reply = std::move(result);
    return true;
}

}  // namespace

bool ControlCall(const std::string& socketPath, const nlohmann::json& request, unsigned timeoutMs,
                 ControlReply* reply) {
    const Deadline deadline = timeoutMs == 0 ? Deadline() : DeadlineAfterMs(timeoutMs);
    const UniqueFd fd = ConnectUnix(socketPath, deadline);
    if (!fd) return errno == EAGAIN ? Fail(ETIMEDOUT) : false;
    const std::string text =
        request.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
    // A daemon that refuses before it has read everything closes its end, and its words are there
    // to be read all the same.
    if (!SendAll(fd.Get(), text, deadline) && errno != EPIPE && errno != ECONNRESET) return false;
    std::string line;
    switch (ReceiveLine(fd.Get(), kReplyBytesMax, deadline, &line)) {
        case LineResult::Line:
            return ParseReply(line, reply) || Fail(EPROTO);
        case LineResult::Closed:
            return Fail(line.empty() ? ECONNRESET : EPROTO);
        case LineResult::TooLong:
            return Fail(EMSGSIZE);
        case LineResult::TimedOut:
            return Fail(ETIMEDOUT);
        case LineResult::Failed:
            return false;
    }
    return Fail(EPROTO);
}

}  // namespace oxel
