// SPDX-License-Identifier: Apache-2.0
//
// The limits' settings, and the account of ended connections.
#include "bin/oxelService_limits.h"

#include <algorithm>
#include <atomic>

#include "backend/OxelServiceGlobals.h"
#include "base/log.h"
#include "base/log_clients.h"
#include "base/repeat_limit.h"
#include "base/store.h"
#include "base/sync.h"

ClientLimits ClientLimits::FromSettings() {
    static constexpr size_t kHeaderBytes = 8 << 10;
    static constexpr size_t kFragmentBytes = 256;
    // RENAME and SYMLINK have two names or a path, however small transfers are.
    static constexpr uint64_t kSmallestBound = 16 << 10;
    // Some of the largest transfers under way are no attack.
    static constexpr uint64_t kTransfersBuffered = 16;
    ClientLimits limits;
    limits.bufferedBytes = std::max(limits.bufferedBytes, kTransfersBuffered * NFS3_MAXBUF_SIZE);
    XOPlatformInfo store;
    const auto read = [&store](const char* key, auto* value, unsigned unit) {
        unsigned number = 0;
        if (store.getNumber("Oxel", key, &number) && number != 0)
            *value = static_cast<std::remove_pointer_t<decltype(value)>>(number) * unit;
    };
    read("nMaxConnections", &limits.connections, 1);
    read("nMaxConnectionsPerAddress", &limits.connectionsPerAddress, 1);
    read("nRecordSeconds", &limits.recordSeconds, 1);
    read("nIdleSeconds", &limits.idleSeconds, 1);
    read("nSendSeconds", &limits.sendSeconds, 1);
    read("nMaxBufferedMB", &limits.bufferedBytes, 1u << 20);
    limits.record.bytes = std::max(NFS3_MAXBUF_SIZE + kHeaderBytes, kSmallestBound);
    limits.record.fragments =
        std::max(limits.record.fragments, static_cast<unsigned>(NFS3_MAXBUF_SIZE / kFragmentBytes));
    // One that is larger would be waited for without end.
    limits.bufferedBytes = std::max<uint64_t>(limits.bufferedBytes, limits.record.bytes);
    return limits;
}

namespace {

XoCriticalSection gMutex;

struct Account {
    const char* name;
    std::atomic<uint64_t> count{0};
    oxel::RepeatLimit limit GUARDED_BY(gMutex);
    std::string text GUARDED_BY(gMutex);  // of the last one
};

// In the order of EndReason.
Account gAccounts[kEndReasons] = {
    {"byClient"},    {"recordTooLarge"},  {"tooManyFragments"}, {"recordTimeout"}, {"idle"},
    {"sendTimeout"}, {"connectionLimit"}, {"addressLimit"},     {"bufferLimit"},   {"notACall"},
};

}  // namespace

static void SayUntold(const Account& account, uint64_t untold) REQUIRES(gMutex) {
    if (untold != 0)
        OXEL_LOG(-1, "%llu more connections were ended because %s.",
                 static_cast<unsigned long long>(untold), account.text.c_str());
}

void CountEnd(EndReason reason, const std::string& address, const std::string& text) {
    Account& account = gAccounts[static_cast<unsigned>(reason)];
    account.count.fetch_add(1, std::memory_order_relaxed);
    if (reason == EndReason::kByClient) {
        OXEL_LOG(3, "The client at [%s] has ended its connection.", address.c_str());
        return;
    }
    XoCriticalSectionGuard lock(gMutex);
    const oxel::RepeatLimit::Verdict verdict = account.limit.Count(oxel::CoarseSeconds());
    SayUntold(account, verdict.untold);
    account.text = text;
    if (verdict.tell)
        OXEL_LOG(-1, "Ended the connection of [%s]: %s.", address.c_str(), text.c_str());
}

void SumUpForClients(bool atOnce) {
    oxel::ClientsLog::SumUp(atOnce);
    XoCriticalSectionGuard lock(gMutex);
    for (Account& account : gAccounts)
        SayUntold(account, account.limit.TakeUntold(oxel::CoarseSeconds(), atOnce));
}

std::array<std::pair<const char*, uint64_t>, kEndReasons> EndCounts() {
    std::array<std::pair<const char*, uint64_t>, kEndReasons> counts;
    for (size_t i = 0; i < kEndReasons; ++i)
        counts[i] = {gAccounts[i].name, gAccounts[i].count.load(std::memory_order_relaxed)};
    return counts;
}
