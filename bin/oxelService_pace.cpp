// SPDX-License-Identifier: Apache-2.0
//
// The account of how long calls take.
#include "bin/oxelService_pace.h"

#include <algorithm>

#include "bin/oxelService_callinfo.h"

namespace {

constexpr int kWrite = 7, kReaddir = 16, kReaddirplus = 17;
constexpr unsigned kSyncWrite = 31;  // no procedure has this number

}  // namespace

CallPace::Kind CallPace::KindOf(CallInfo3* call) {
    const CallArguments3& arguments = call->arguments();
    auto procedure = static_cast<unsigned>(call->procedure);
    if (call->procedure == kWrite && arguments.write.stable != UNSTABLE) procedure = kSyncWrite;
    // Every procedure's arguments but NULL's, whose area is zero, begin with a handle.
    const unsigned share = arguments.getattr.object.shareId % kShares;
    return {static_cast<uint16_t>(share * kProcedures + procedure),
            call->procedure == kReaddir || call->procedure == kReaddirplus};
}

// Two threads that write a score at once lose one step: no harm.
void CallPace::Learn(Kind kind, uint64_t nanoseconds) {
    if (nanoseconds > (kind.listing ? kLongListingNanoseconds : kLongNanoseconds)) {
        LearnLong(kind);
        return;
    }
    std::atomic<uint8_t>& score = scores_[kind.slot];
    const uint8_t before = score.load(std::memory_order_relaxed);
    if (before != 0) score.store(static_cast<uint8_t>(before - 1), std::memory_order_relaxed);
}

void CallPace::LearnLong(Kind kind) {
    std::atomic<uint8_t>& score = scores_[kind.slot];
    const uint8_t before = score.load(std::memory_order_relaxed);
    score.store(static_cast<uint8_t>(std::min<int>(before + kLongCall, kMost)),
                std::memory_order_relaxed);
}
