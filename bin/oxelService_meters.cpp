// SPDX-License-Identifier: Apache-2.0
//
// Counting calls' outcomes.
#include "bin/oxelService_meters.h"

#include <utility>

#include "bin/oxelService_callinfo.h"
#include "nfs3/nfs3proc.h"

namespace {

constexpr int32_t kFirstLargeStatus = NFS3ERR_BADHANDLE;

struct StatusName {
    int32_t status;
    const char* name;
};

// MOUNT's statuses are the same numbers (RFC 1813 section 5.1.5).
constexpr StatusName kStatusNames[] = {
    {kCallThrew, "SYSTEM_ERR"},
    {NFS3ERR_PERM, "PERM"},
    {NFS3ERR_NOENT, "NOENT"},
    {NFS3ERR_IO, "IO"},
    {NFS3ERR_NXIO, "NXIO"},
    {NFS3ERR_ACCES, "ACCES"},
    {NFS3ERR_EXIST, "EXIST"},
    {NFS3ERR_XDEV, "XDEV"},
    {NFS3ERR_NODEV, "NODEV"},
    {NFS3ERR_NOTDIR, "NOTDIR"},
    {NFS3ERR_ISDIR, "ISDIR"},
    {NFS3ERR_INVAL, "INVAL"},
    {NFS3ERR_FBIG, "FBIG"},
    {NFS3ERR_NOSPC, "NOSPC"},
    {NFS3ERR_ROFS, "ROFS"},
    {NFS3ERR_MLINK, "MLINK"},
    {NFS3ERR_NAMETOOLONG, "NAMETOOLONG"},
    {NFS3ERR_NOTEMPTY, "NOTEMPTY"},
    {NFS3ERR_DQUOT, "DQUOT"},
    {NFS3ERR_STALE, "STALE"},
    {NFS3ERR_REMOTE, "REMOTE"},
    {NFS3ERR_BADHANDLE, "BADHANDLE"},
    {NFS3ERR_NOT_SYNC, "NOT_SYNC"},
    {NFS3ERR_BAD_COOKIE, "BAD_COOKIE"},
    {NFS3ERR_NOTSUPP, "NOTSUPP"},
    {NFS3ERR_TOOSMALL, "TOOSMALL"},
    {NFS3ERR_SERVERFAULT, "SERVERFAULT"},
    {NFS3ERR_BADTYPE, "BADTYPE"},
    {NFS3ERR_JUKEBOX, "JUKEBOX"},
};

template <typename T>
void Increase(std::atomic<T>& counter, T by) {
    counter.fetch_add(by, std::memory_order_relaxed);
}

}  // namespace

uint64_t MeterReading::Errors() const {
    uint64_t sum = 0;
    for (const auto& [status, count] : errors) sum += count;
    return sum;
}

void MeterReading::Add(const MeterReading& other) {
    latency.Add(other.latency);
    bytesRead += other.bytesRead;
    bytesWritten += other.bytesWritten;
    for (const auto& [status, count] : other.errors) errors[status] += count;
}

size_t CallMeter::PlaceOf(int32_t outcome) {
    static_assert(kCallThrew == -1);
    if (outcome >= kCallThrew && outcome < static_cast<int32_t>(kSmall) - 1)
        return static_cast<size_t>(int64_t{outcome} + 1);
    if (outcome >= kFirstLargeStatus && outcome <= NFS3ERR_JUKEBOX)
        return kSmall + static_cast<size_t>(int64_t{outcome} - kFirstLargeStatus);
    return kPlaces - 1;
}

void CallMeter::Add(const CallInfo3* call, int32_t outcome, uint64_t nanoseconds) {
    latency_.Add(nanoseconds);
    if (outcome != NFS3_OK) {
        Increase(outcomes_[PlaceOf(outcome)], uint64_t{1});
    } else if (call->row == &Nfsv3Handlers[NFSPROC3_READ]) {
        Increase(bytesRead_, uint64_t{call->result.read.resok.count});
    } else if (call->row == &Nfsv3Handlers[NFSPROC3_WRITE]) {
        Increase(bytesWritten_, uint64_t{call->result.write.resok.count});
    }
}

MeterReading CallMeter::Read() const {
    MeterReading reading;
    reading.latency = latency_.Read();
    reading.bytesRead = bytesRead_.load(std::memory_order_relaxed);
    reading.bytesWritten = bytesWritten_.load(std::memory_order_relaxed);
    std::array<uint64_t, kPlaces> left;
    for (size_t i = 0; i < kPlaces; ++i) left[i] = outcomes_[i].load(std::memory_order_relaxed);
    for (const StatusName& known : kStatusNames)
        if (const uint64_t count = std::exchange(left[PlaceOf(known.status)], 0); count != 0)
            reading.errors[known.name] = count;
    uint64_t others = 0;
    for (const uint64_t count : left) others += count;
    if (others != 0) reading.errors["other"] = others;
    return reading;
}
