// SPDX-License-Identifier: Apache-2.0
//
// Sending the work's calls with a fault for each, and judging the answers.
#include <gtest/gtest.h>

#include <optional>

#include "tests/faults/workload.h"

namespace oxel::test {
namespace {

constexpr uint32_t kSystemError = 5;  // accept_stat, RFC 5531 section 9

bool Throws(Action action) {
    return action == Action::kThrowBadAlloc || action == Action::kThrowRuntimeError ||
           action == Action::kThrowNumber;
}

// Programs and procedures whose results begin with a status.
bool HasStatus(const CallKind& kind) {
    if (kind.program == kMountProgram) return kind.procedure == mnt::kMnt;
    return kind.procedure != nfs::kNull;
}
uint32_t StatusIn(const CallKind& kind, const RpcReply& reply) {
    return HasStatus(kind) ? XdrReader(reply.results).U32() : 0;
}

}  // namespace

Runner::Runner(uint16_t port, Faults* faults, Totals* totals)
    : client_(port), faults_(faults), totals_(totals) {
    root_ = client_.MountShare("/share");
}

RpcReply Runner::Call(const Step& step, bool mayBeSilent, bool* silent) {
    const RpcCall call = step.kind.program == kMountProgram
                             ? client_.Mount(step.kind.procedure, step.arguments())
                             : client_.Nfs(step.kind.procedure, step.arguments());
    RpcConnection& connection = client_.Connection();
    EXPECT_TRUE(connection.Send(Record(call.Message())));
    // Calls of MOUNT are answered one after the other: when the next one has its reply, this one
    // has none to come.
    const RpcCall next = client_.Mount(mnt::kNull, "");
    if (mayBeSilent) (void)connection.Send(Record(next.Message()));
    const std::optional<std::string> message = connection.Receive();
    if (!message) {
        ADD_FAILURE() << step.name << " has no reply";
        return RpcReply();
    }
    RpcReply reply = ParseReply(*message);
    ++totals_->rpcCalls;
    *silent = mayBeSilent && reply.xid == next.xid;
    EXPECT_TRUE(*silent || reply.xid == call.xid) << step.name << ": another call's reply";
    if (mayBeSilent && !*silent) {
        const std::optional<std::string> other = connection.Receive();
        EXPECT_TRUE(other && ParseReply(*other).xid == next.xid);
    }
    return reply;
}

void Runner::ExpectNoMoreReplies() {
    const RpcCall call = client_.Nfs(nfs::kNull, "");
    const RpcReply reply = ParseReply(client_.Connection().CallRaw(call));
    EXPECT_EQ(reply.xid, call.xid) << "a call was answered twice";
}

Runner::Hits Runner::Run(const std::vector<Step>& steps, const std::function<FaultPlan()>& choose) {
    Hits hits;
    const uint64_t callsBefore = faults_->CallsInAll();
    for (const Step& step : steps) {
        const FaultPlan plan = choose();
        if (Try(step, plan)) {
            ++hits.all;
            hits.ofListings +=
                step.kind.program == kNfsProgram &&
                (step.kind.procedure == nfs::kReaddir || step.kind.procedure == nfs::kReaddirplus);
        }
        if (testing::Test::HasFailure()) {
            ADD_FAILURE() << "in " << step.name << ", action " << static_cast<int>(plan.action)
                          << ", call " << plan.first << ", error " << plan.error << ", bytes "
                          << plan.bytes << ", hits " << faults_->Hits() << " in "
                          << kOperationNames[static_cast<int>(faults_->HitOperation())];
            break;
        }
    }
    ExpectNoMoreReplies();
    totals_->faults += hits.all;
    totals_->contractCalls += faults_->CallsInAll() - callsBefore;
    return hits;
}

bool Runner::Try(const Step& step, const FaultPlan& plan) {
    const Faults::Counts before = faults_->AllCalls();
    faults_->Arm(plan);
    bool silent = false;
    const bool mayBeSilent = mountThrowsAreSilent_ && step.kind.program == kMountProgram;
    const RpcReply reply = Call(step, mayBeSilent, &silent);
    const bool hit = faults_->Hits() != 0;
    faults_->Disarm();
    if (!hit) {
        EXPECT_FALSE(silent) << "no reply";
        EXPECT_TRUE(reply.Success()) << "accept_stat " << reply.acceptStat;
        EXPECT_EQ(StatusIn(step.kind, reply), step.kind.ok);
        if (testing::Test::HasFailure()) return false;
        step.check(reply.results, true);
        if (step.verify) step.verify();
        return false;
    }
    const Operation operation = faults_->HitOperation();
    const uint32_t nth = faults_->HitCall() - before[static_cast<uint32_t>(operation)];
    if (Throws(plan.action)) {
        if (mayBeSilent)
            EXPECT_TRUE(silent) << "a call of MOUNT that ran out of memory was answered";
        else
            EXPECT_TRUE(reply.accepted && reply.acceptStat == kSystemError)
                << "accept_stat " << reply.acceptStat;
    } else {
        EXPECT_TRUE(reply.Success()) << "accept_stat " << reply.acceptStat;
        uint32_t expected = step.kind.ok;
        if (plan.action == Action::kFail || plan.error != 0)
            expected = StatusAfterFault(step.kind, operation, nth, plan.error);
        else if (operation == Operation::kWrite && plan.bytes == 0)
            expected = 5;  // a disk that takes nothing and says nothing
        EXPECT_EQ(StatusIn(step.kind, reply), expected)
            << kOperationNames[static_cast<int>(operation)] << " number " << nth;
        if (testing::Test::HasFailure()) return true;
        if (expected == step.kind.ok) step.check(reply.results, false);
    }
    Again(step, step.done && step.done());
    return true;
}

void Runner::Again(const Step& step, bool wasDone) {
    bool silent = false;
    const RpcReply reply = Call(step, false, &silent);
    EXPECT_TRUE(reply.Success()) << "again: accept_stat " << reply.acceptStat;
    const uint32_t status = StatusIn(step.kind, reply);
    const uint32_t expected = wasDone ? step.statusWhenDone : step.kind.ok;
    EXPECT_EQ(status, expected) << "again";
    if (testing::Test::HasFailure()) return;
    if (status == step.kind.ok) step.check(reply.results, true);
    if (step.verify) step.verify();
}

}  // namespace oxel::test
