// SPDX-License-Identifier: Apache-2.0
#include "fuzz/call_input.h"

#include <rpc/rpc.h>

#include <algorithm>
#include <cerrno>
#include <string>

#include "backend/OxelServiceGlobals.h"
#include "fuzz/memory_module.h"

namespace oxel::fuzz {

namespace {

constexpr uint32_t kNfs = 100003, kMount = 100005;
constexpr size_t kCallsMax = 12;
constexpr uint8_t kOtherUser = 0x20, kWithVerifier = 0x40, kWholeRecord = 0x80;
constexpr uint32_t kRead = 6, kReaddir = 16, kReaddirplus = 17;
// A listing without entries: status, attributes, verifier, no entry, and whether it is the end.
constexpr size_t kEmptyListing = 108;

InputCall Right(uint8_t kind, std::string arguments, uint32_t xid) {
    InputCall call;
    call.headerIsRight = true;
    const uint32_t number = kind & 0x1f;
    call.program = number < 22 || number == 31 ? kNfs : kMount;
    call.version = 3;
    if (number < 22) {
        call.procedure = number;
    } else if (number < 28) {
        call.procedure = number - 22;
    } else if (number < 31) {
        call.version = number == 30 ? 2 : 1;
        call.procedure = number == 28 ? 5 : 3;  // EXPORT, UMNT
    }
    call.message = Words({xid, CALL, RPC_MSG_VERSION, call.program, call.version, call.procedure});
    if (number == 31) {
        call.message += Words({AUTH_NONE, 0});
    } else {
        const uint32_t user = (kind & kOtherUser) != 0 ? 1000 : 0;
        call.message += Words({AUTH_UNIX, 32, 1, 4}) + "fuzz" + Words({user, user, 2, 4, 24});
    }
    if ((kind & kWithVerifier) != 0)
        call.message += Words({4711, 8}) + "verifier";
    else
        call.message += Words({AUTH_NONE, 0});
    call.message += arguments;
    call.arguments = std::move(arguments);
    return call;
}

// By default a call of an unknown procedure keeps its record for good; the target would stop.
bool KeepsItsRecord(const std::string& message) {
    return message.size() >= 24 && WordAt(message, 12) == kNfs && WordAt(message, 16) == 3 &&
           WordAt(message, 20) > 21;
}

}  // namespace

Input Input::Parse(const uint8_t* data, size_t size) {
    static constexpr int kErrors[] = {EIO, ENOSPC, EACCES, ENOENT, ESTALE, ENOMEM, EDQUOT, 0};
    static constexpr unsigned kFragments[] = {0, 1, 7, 64};
    Input input;
    if (size < 3) return input;
    input.libraryWay = (data[0] & 1) != 0;
    input.threads = (data[0] & 3) == 3;
    input.fragmentBytes = kFragments[data[0] >> 2 & 3];
    input.failing = data[1];
    input.error = kErrors[data[2] % std::size(kErrors)];
    for (size_t at = 3; size - at >= 3 && input.calls.size() < kCallsMax;) {
        const uint8_t kind = data[at];
        const size_t bytes =
            std::min<size_t>(size - at - 3, static_cast<size_t>(data[at + 1] << 8 | data[at + 2]));
        std::string body(reinterpret_cast<const char*>(data) + at + 3, bytes);
        at += 3 + bytes;
        const uint32_t xid = 0x10000000u + static_cast<uint32_t>(input.calls.size());
        if ((kind & kWholeRecord) == 0) {
            input.calls.push_back(Right(kind, std::move(body), xid));
        } else if (!input.libraryWay || !KeepsItsRecord(body)) {
            input.calls.emplace_back();
            input.calls.back().message = std::move(body);
        }
    }
    return input;
}

std::string Input::Record(const std::string& message) const {
    // Records of more fragments than that are refused.
    constexpr size_t kFragmentsMax = 1000;
    const bool whole = fragmentBytes == 0 || message.size() / fragmentBytes > kFragmentsMax;
    const size_t most = whole ? message.size() : fragmentBytes;
    std::string record;
    size_t at = 0;
    do {
        const size_t bytes = std::min(most, message.size() - at);
        const bool last = at + bytes == message.size();
        record += Words({static_cast<uint32_t>(bytes) | (last ? 0x80000000u : 0)});
        record.append(message, at, bytes);
        at += bytes;
    } while (at < message.size());
    return record;
}

static size_t HandleBytes(const std::string& arguments) {
    return 4 + (WordAt(arguments, 0) + 3) / 4 * 4;
}

static void CheckRead(const std::string& arguments, const std::string& results) {
    const uint32_t asked = WordAt(arguments, HandleBytes(arguments) + 8);
    const size_t at = WordAt(results, 4) == 0 ? 8 : 8 + 84;
    const uint32_t count = WordAt(results, at), length = WordAt(results, at + 8);
    Demand(count == length, "READ's count is not its data's");
    Demand(count <= asked && count <= NFS3_MAXBUF_SIZE, "READ gives more than was asked for");
    Demand(results.size() == at + 12 + (size_t{length} + 3) / 4 * 4,
           "READ's reply has another length");
}

void CheckReply(const InputCall& call, const std::string& reply) {
    Demand(WordAt(reply, 0) == WordAt(call.message, 0), "a reply to another call");
    Demand(WordAt(reply, 8) == MSG_ACCEPTED, "a call whose header is right is denied");
    const size_t at = 12 + 8 + (WordAt(reply, 16) + 3) / 4 * 4;
    Demand(reply.size() >= at + 4, "a reply that ends in its header");
    const uint32_t accepted = WordAt(reply, at);
    if (accepted == GARBAGE_ARGS) {
        Demand(reply.size() == at + 4, "a refusal with results");
        return;
    }
    Demand(accepted == SUCCESS, "a call whose header is right is refused");
    const std::string results = reply.substr(at + 4);
    if (call.program != kNfs || call.procedure == 0) return;
    Demand(results.size() >= 4, "a reply without a status");
    if (WordAt(results, 0) != 0) return;
    const size_t behind = HandleBytes(call.arguments);
    if (call.procedure == kRead) {
        CheckRead(call.arguments, results);
    } else if (call.procedure == kReaddir) {
        const size_t asked = WordAt(call.arguments, behind + 16);
        Demand(results.size() <= std::max(asked, kEmptyListing), "READDIR gives more than asked");
    } else if (call.procedure == kReaddirplus) {
        const size_t asked = WordAt(call.arguments, behind + 20);
        Demand(results.size() <= std::max(asked, kEmptyListing), "READDIRPLUS gives too much");
    }
}

}  // namespace oxel::fuzz
