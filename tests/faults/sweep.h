// SPDX-License-Identifier: Apache-2.0
//
// What the tests that run the whole work have in common: a file from before all faults, and at the
// end nothing lost and nothing left open.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "tests/faults/workload.h"

namespace oxel::test {

class SweepTest : public FaultTest, public testing::WithParamInterface<Mode> {
  protected:
    void SetUp() override;
    void TearDown() override;

    // A file that no call touches is on the disk, and is read, as it was written.
    void VerifyAnchor();
    Runner::Hits OneRound(const std::function<FaultPlan()>& choose,
                          Round::Work work = Round::Work::kAll);
    // Rounds with the first, the second, ... call of every client's call hit, until there is none.
    void EveryCall(FaultPlan plan);

    Totals totals_;
    std::unique_ptr<Runner> runner_;

  private:
    static constexpr uint32_t kCallsMost = 200;  // of one client's call into the contract
    void WriteAnchor();

    std::string anchor_, anchorHandle_;
    uint64_t rounds_ = 0;
    size_t descriptors_ = 0;
};

#define FAULTS_IN_ALL_MODES(suite)                                                       \
    INSTANTIATE_TEST_SUITE_P(Modes, suite,                                               \
                             testing::Values(Mode::kManyThreads, Mode::kOneThread,       \
                                             Mode::kHardened, Mode::kHardenedOneThread), \
                             testing::PrintToStringParamName())

}  // namespace oxel::test
