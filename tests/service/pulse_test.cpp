// SPDX-License-Identifier: Apache-2.0
//
// The receive loops' pulses: who is noticed for standing still, and who may.
#include "bin/oxelService_pulse.h"

#include <gtest/gtest.h>

namespace {

TEST(Pulse, LoopsThatWereNeverRunAreNotMissed) {
    PulseWatch watch;
    EXPECT_TRUE(watch.AllAlive());
    EXPECT_TRUE(watch.AllAlive());
}

TEST(Pulse, ALoopIsAliveWhenItHasTurnedSinceItWasLookedAt) {
    PulseWatch watch;
    LoopPulse& pulse = PulseOf(2);
    pulse.Beat();
    EXPECT_TRUE(watch.AllAlive());
    EXPECT_FALSE(watch.AllAlive());
    EXPECT_EQ(watch.StandsStill(), 2u);
    pulse.Beat();
    EXPECT_TRUE(watch.AllAlive());
}

TEST(Pulse, OneLoopThatStandsStillIsNoticedAmongOthersThatTurn) {
    PulseWatch watch;
    PulseOf(0).Beat();
    PulseOf(7).Beat();
    PulseOf(2).Beat();
    EXPECT_TRUE(watch.AllAlive());
    PulseOf(0).Beat();
    PulseOf(2).Beat();
    EXPECT_FALSE(watch.AllAlive());
    EXPECT_EQ(watch.StandsStill(), 7u);
    // The others' turns are not forgotten meanwhile.
    PulseOf(7).Beat();
    EXPECT_TRUE(watch.AllAlive());
}

TEST(Pulse, ALoopThatMayWaitIsAlive) {
    PulseWatch watch;
    for (unsigned loop = 0; loop < kReceiveLoopsMax; ++loop) PulseOf(loop).Beat();
    EXPECT_TRUE(watch.AllAlive());
    for (unsigned loop = 1; loop < kReceiveLoopsMax; ++loop) PulseOf(loop).Beat();
    {
        const LoopPulse::MayWait waits(PulseOf(0));
        EXPECT_TRUE(watch.AllAlive());
    }
    for (unsigned loop = 1; loop < kReceiveLoopsMax; ++loop) PulseOf(loop).Beat();
    EXPECT_FALSE(watch.AllAlive());
    const LoopPulse::MayWait doesNot(PulseOf(0), false);
    EXPECT_FALSE(watch.AllAlive());
}

TEST(Pulse, CallsOfAllLoopsAreCounted) {
    const uint64_t before = CallsReceived();
    PulseOf(0).CallReceived();
    PulseOf(5).CallReceived();
    PulseOf(5).CallReceived();
    EXPECT_EQ(CallsReceived(), before + 3);
}

}  // namespace
