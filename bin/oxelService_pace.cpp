// SPDX-License-Identifier: Apache-2.0
//
// The account of how long calls take.
#include "bin/oxelService_pace.h"

#include <algorithm>

#include "backend/OxelServiceGlobals.h"
#include "bin/oxelService_callinfo.h"
#include "nfs3/nfs3proc.h"

namespace {

constexpr unsigned kSyncWrite = 31;  // no procedure has this number

// What takes longer than this waits for something, or might as well run beside other calls.
constexpr uint32_t kLongNanoseconds = 200'000;
constexpr uint32_t kLongListingNanoseconds = 2'000'000;
// Copying takes its time without waiting: some GB/s.
constexpr uint32_t kNanosecondsPerByte = 2;
constexpr uint32_t kLargestCopy = 1u << 30;

uint32_t LongFor(uint32_t bytes) {
    return kLongNanoseconds + std::min(bytes, kLargestCopy) * kNanosecondsPerByte;
}

}  // namespace

CallPace::Kind CallPace::KindOf(CallInfo3* call) {
    const CallArguments3& arguments = call->arguments();
    auto procedure = static_cast<unsigned>(call->procedure);
    uint32_t longNanoseconds = kLongNanoseconds;
    switch (call->procedure) {
        case NFSPROC3_READ:
            longNanoseconds = LongFor(
                static_cast<uint32_t>(std::min<uint64_t>(arguments.read.count, NFS3_MAXBUF_SIZE)));
            break;
        case NFSPROC3_WRITE:
            if (arguments.write.stable != UNSTABLE) procedure = kSyncWrite;
            longNanoseconds = LongFor(arguments.write.count);
            break;
        case NFSPROC3_READDIR:
        case NFSPROC3_READDIRPLUS:
            longNanoseconds = kLongListingNanoseconds;
            break;
        default:
            break;
    }
    // Every procedure's arguments but NULL's, whose area is zero, begin with a handle.
    const unsigned share = arguments.getattr.object.shareId % kShares;
    return {static_cast<uint16_t>(share * kProcedures + procedure), longNanoseconds};
}

// Two threads that write a score at once lose one step: no harm.
void CallPace::Learn(Kind kind, uint64_t nanoseconds) {
    if (nanoseconds > kind.longNanoseconds) {
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
