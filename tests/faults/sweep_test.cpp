// SPDX-License-Identifier: Apache-2.0
//
// Every call of a client's work with its first, its second, ... call into the back end going wrong,
// until none is hit any more: each is answered once and as it must be, the same call succeeds when
// the fault is gone, and nothing is lost or left open.
#include "tests/faults/sweep.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>

#include "tests/system/integrity_client.h"

namespace oxel::test {
namespace {

// Every errno that RFC 1813 has a status for, and others, which are told as they are.
constexpr int kErrnos[] = {EPERM,   ENOENT,    EIO,          ENXIO,  EACCES,   EEXIST,    EXDEV,
                           ENODEV,  ENOTDIR,   EISDIR,       EINVAL, EFBIG,    ENOSPC,    EROFS,
                           EMLINK,  ENOTEMPTY, ESTALE,       EDQUOT, EAGAIN,   ENOMEM,    EBUSY,
                           EMFILE,  EINTR,     ENAMETOOLONG, ELOOP,  ENOTCONN, ETIMEDOUT, EOVERFLOW,
                           ETXTBSY, ENOSYS,    10008,        9999};
constexpr Action kThrowing[] = {Action::kThrowBadAlloc, Action::kThrowRuntimeError,
                                Action::kThrowNumber};
constexpr uint64_t kDataOperations = Bit(Operation::kRead) | Bit(Operation::kWrite);

class Sweep : public SweepTest {};

TEST_P(Sweep, EveryCallFailsWithEio) {
    FaultPlan plan;
    plan.error = EIO;
    EveryCall(plan);
}

TEST_P(Sweep, EveryCallThrowsBadAlloc) {
    FaultPlan plan;
    plan.action = Action::kThrowBadAlloc;
    plan.operations = kAllOperations;
    EveryCall(plan);
}

// The other things that can be thrown, and the other errnos, each at one call in so many.
TEST_P(Sweep, CallsThrowAnythingElse) {
    uint32_t step = 0;
    for (uint32_t round = 1; round <= 12 && !HasFailure(); ++round) {
        (void)OneRound([&] {
            FaultPlan plan;
            plan.action = kThrowing[1 + step++ % 2];
            plan.operations = kAllOperations;
            plan.first = plan.last = round;
            return plan;
        });
    }
}

TEST_P(Sweep, CallsFailWithEveryErrno) {
    for (const int error : kErrnos) {
        uint32_t step = 0;
        (void)OneRound([&] {
            FaultPlan plan;
            plan.error = error;
            plan.first = plan.last = 3 + (step++ + static_cast<uint32_t>(error)) % 4;
            return plan;
        });
        if (HasFailure()) return;
    }
}

TEST_P(Sweep, EveryReadAndWriteComesShort) {
    for (const uint32_t bytes : {1u, 512u, 4095u, 0u}) {
        FaultPlan plan;
        plan.action = Action::kShort;
        plan.bytes = bytes;
        plan.operations = kDataOperations;
        EveryCall(plan);
    }
}

// $OXEL_SOAK_SECONDS of the above in any order, by $OXEL_SEED.
TEST_P(Sweep, AnythingGoesWrongForLong) {
    const double seconds = SoakSeconds(0.2);
    if (seconds <= 0) GTEST_SKIP() << "OXEL_SOAK_SECONDS is not set";
    Random random(IntegritySeed());
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (std::chrono::steady_clock::now() < end && !HasFailure()) {
        const auto work = Below(random, 3) == 0 ? Round::Work::kListings : Round::Work::kAll;
        const uint64_t most = work == Round::Work::kListings ? 60 : 16;
        (void)OneRound(
            [&] {
                FaultPlan plan;
                plan.first = plan.last = 1 + static_cast<uint32_t>(Below(random, most));
                plan.error = kErrnos[Below(random, std::size(kErrnos))];
                switch (Below(random, 4)) {
                    case 0:
                        plan.action = kThrowing[Below(random, 3)];
                        plan.operations = kAllOperations;
                        break;
                    case 1:
                        plan.action = Action::kShort;
                        plan.bytes = static_cast<uint32_t>(Below(random, 9001));
                        plan.error = 0;
                        plan.operations = kDataOperations;
                        plan.first = plan.last = 1 + plan.first % 3;
                        break;
                    default:
                        break;
                }
                return plan;
            },
            work);
        VerifyAnchor();
    }
}

FAULTS_IN_ALL_MODES(Sweep);

}  // namespace
}  // namespace oxel::test
