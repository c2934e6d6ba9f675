// SPDX-License-Identifier: Apache-2.0
//
// Which calls are taken for quick: those whose kind has lately been so.
#include "bin/oxelService_pace.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "bin/oxelService_callinfo.h"

namespace {

constexpr uint64_t kQuick = 10'000, kLong = 300'000, kLongForAListing = 3'000'000;
constexpr int kGetattr = 1, kRead = 6, kWrite = 7, kReaddir = 16, kReaddirplus = 17, kCommit = 21;

class Pace : public testing::Test {
  protected:
    CallPace::Kind Kind(int procedure, uint32_t share = 1, stable_how stable = UNSTABLE) {
        call_.ClearCall();
        call_.procedure = procedure;
        // Every procedure's arguments begin with a handle.
        call_.arguments().getattr.object.shareId = share;
        if (procedure == kWrite) call_.arguments().write.stable = stable;
        return CallPace::KindOf(&call_);
    }
    void Long(CallPace::Kind kind, int times = 1) {
        for (int i = 0; i < times; ++i) pace_.Learn(kind, kLongForAListing);
    }
    void Quick(CallPace::Kind kind, int times = 1) {
        for (int i = 0; i < times; ++i) pace_.Learn(kind, kQuick);
    }
    bool IsQuick(CallPace::Kind kind) const { return pace_.IsQuick(kind); }

    CallPace pace_;

  private:
    CallInfo3 call_;
};

}  // namespace

TEST_F(Pace, EveryKindIsQuickAtFirst) {
    for (int procedure = 0; procedure < 22; ++procedure)
        for (uint32_t share = 0; share < 200; ++share) EXPECT_TRUE(IsQuick(Kind(procedure, share)));
    EXPECT_TRUE(IsQuick(Kind(kWrite, 1, FILE_SYNC)));
}

TEST_F(Pace, OneLongCallMakesItsKindSlow) {
    Long(Kind(kRead));
    EXPECT_FALSE(IsQuick(Kind(kRead)));
}

TEST_F(Pace, ACallThatIsTakingLongMakesItsKindSlowBeforeItEnds) {
    pace_.LearnLong(Kind(kRead));
    EXPECT_FALSE(IsQuick(Kind(kRead)));
}

TEST_F(Pace, QuickCallsMakeAKindQuickAgain) {
    Long(Kind(kRead));
    int calls = 0;
    for (; !IsQuick(Kind(kRead)) && calls < 1000; ++calls) Quick(Kind(kRead));
    EXPECT_LE(calls, 8);
    EXPECT_GE(calls, 1);
}

TEST_F(Pace, AKindThatWasSlowForLongIsQuickAgainSoon) {
    Long(Kind(kRead), 1000);
    int calls = 0;
    for (; !IsQuick(Kind(kRead)) && calls < 1000; ++calls) Quick(Kind(kRead));
    EXPECT_GT(calls, 1) << "but not at the first";
    EXPECT_LE(calls, 32);
}

TEST_F(Pace, OneLongCallInEightKeepsAKindSlow) {
    for (int round = 0; round < 50; ++round) {
        Long(Kind(kRead));
        Quick(Kind(kRead), 7);
    }
    Long(Kind(kRead));
    EXPECT_FALSE(IsQuick(Kind(kRead)));
    Quick(Kind(kRead), 7);
    EXPECT_FALSE(IsQuick(Kind(kRead)));
}

TEST_F(Pace, ProceduresAreApart) {
    Long(Kind(kRead), 5);
    for (int procedure = 0; procedure < 22; ++procedure)
        EXPECT_EQ(IsQuick(Kind(procedure)), procedure != kRead) << procedure;
}

TEST_F(Pace, SharesAreApart) {
    Long(Kind(kRead, 3), 5);
    EXPECT_FALSE(IsQuick(Kind(kRead, 3)));
    for (const uint32_t share : {0u, 1u, 2u, 4u, 63u}) EXPECT_TRUE(IsQuick(Kind(kRead, share)));
}

TEST_F(Pace, WritesThatSyncAreApartFromThoseThatDoNot) {
    Long(Kind(kWrite, 1, FILE_SYNC), 5);
    EXPECT_FALSE(IsQuick(Kind(kWrite, 1, FILE_SYNC)));
    EXPECT_FALSE(IsQuick(Kind(kWrite, 1, DATA_SYNC)));
    EXPECT_TRUE(IsQuick(Kind(kWrite, 1, UNSTABLE)));
    EXPECT_TRUE(IsQuick(Kind(kCommit)));
    EXPECT_TRUE(IsQuick(Kind(kWrite, 2, FILE_SYNC)));
}

TEST_F(Pace, ListingsMayTakeLongerThanOtherCalls) {
    for (const int listing : {kReaddir, kReaddirplus}) {
        for (int i = 0; i < 20; ++i) pace_.Learn(Kind(listing), kLong);
        EXPECT_TRUE(IsQuick(Kind(listing)));
        Long(Kind(listing));
        EXPECT_FALSE(IsQuick(Kind(listing)));
    }
    pace_.Learn(Kind(kGetattr), kLong);
    EXPECT_FALSE(IsQuick(Kind(kGetattr)));
}

TEST_F(Pace, ShareIdsOfAnySizeHaveAPlace) {
    for (const uint32_t share : {64u, 0x7fffffffu, 0xffffffffu}) {
        Long(Kind(kCommit, share), 3);
        EXPECT_FALSE(IsQuick(Kind(kCommit, share)));
        Quick(Kind(kCommit, share), 1000);
        EXPECT_TRUE(IsQuick(Kind(kCommit, share)));
    }
}

TEST_F(Pace, QuickCallsOfAQuickKindChangeNothing) {
    Quick(Kind(kGetattr), 1000);
    EXPECT_TRUE(IsQuick(Kind(kGetattr)));
    Long(Kind(kGetattr));
    EXPECT_FALSE(IsQuick(Kind(kGetattr))) << "no credit is kept";
}
