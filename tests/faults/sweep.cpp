// SPDX-License-Identifier: Apache-2.0
//
// Rounds of the work, and what must hold after all of them.
#include "tests/faults/sweep.h"

#include "tests/support/process_watch.h"
#include "tests/system/integrity_client.h"

namespace oxel::test {

void SweepTest::SetUp() {
    StartDaemon(GetParam());
    if (HasFailure()) return;
    runner_ = std::make_unique<Runner>(daemon_.Port(), &faults_, &totals_);
    // By default MOUNT does not answer a call that ran out of memory.
    runner_->SetMountThrowsAreSilent(!IsHardened(GetParam()));
    WriteAnchor();
    FaultPlan none;
    none.first = UINT32_MAX;
    (void)OneRound([&] { return none; });  // brings up what stays
    descriptors_ = DescriptorsAtRest();
}

void SweepTest::TearDown() {
    if (!runner_ || HasFailure()) return;
    VerifyAnchor();
    ExpectNoRecordLost();
    size_t now = 0;
    EXPECT_TRUE(WaitUntil([&] { return (now = DescriptorsAtRest()) <= descriptors_; }))
        << now << " descriptors, " << descriptors_ << " before";
    totals_.Print(testing::UnitTest::GetInstance()->current_test_info()->name());
}

void SweepTest::WriteAnchor() {
    Random random(4711);
    anchor_ = UniqueBytes(random, 70001);
    NfsClient& client = runner_->Client();
    const Made made = MadeResults(
        client.Results(client.Nfs(nfs::kCreate, CreateArguments(runner_->Root(), "anchor"))));
    anchorHandle_ = made.handle;
    const Changed changed = WriteResults(client.Results(
        client.Nfs(nfs::kWrite, WriteArguments(made.handle, 0, kFileSync, anchor_))));
    EXPECT_EQ(changed.count, anchor_.size());
}

void SweepTest::VerifyAnchor() {
    EXPECT_EQ(Difference(anchor_, ReadFile(Local("anchor"))), "");
    EXPECT_EQ(Difference(anchor_, runner_->Client().Read(anchorHandle_, 0, 80000)), "");
    totals_.bytesVerified += 2 * anchor_.size();
}

Runner::Hits SweepTest::OneRound(const std::function<FaultPlan()>& choose, Round::Work work) {
    const std::string name = "round " + std::to_string(++rounds_);
    Round round(runner_->Root(), name, tree_.Path("share"), rounds_, &totals_);
    return runner_->Run(round.Steps(work), choose);
}

void SweepTest::EveryCall(FaultPlan plan) {
    Round::Work work = Round::Work::kAll;
    for (uint32_t call = 1; call <= kCallsMost; ++call) {
        plan.first = plan.last = call;
        const Runner::Hits hits = OneRound([&] { return plan; }, work);
        VerifyAnchor();
        if (hits.all == 0 || HasFailure()) return;
        if (hits.all == hits.ofListings) work = Round::Work::kListings;
    }
    ADD_FAILURE() << "the calls never come to an end";
}

}  // namespace oxel::test
