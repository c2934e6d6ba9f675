// SPDX-License-Identifier: Apache-2.0
//
// The table of the receive loops' pulses, and looking at it.
#include "bin/oxelService_pulse.h"

static LoopPulse gPulses[kReceiveLoopsMax];

LoopPulse& PulseOf(unsigned loop) {
    return gPulses[loop];
}

uint64_t CallsReceived() {
    uint64_t calls = 0;
    for (const LoopPulse& pulse : gPulses) calls += pulse.Calls();
    return calls;
}

bool PulseWatch::AllAlive() {
    uint64_t turns[kReceiveLoopsMax];
    for (unsigned loop = 0; loop < kReceiveLoopsMax; ++loop) {
        turns[loop] = gPulses[loop].Turns();
        if (turns[loop] == 0 || turns[loop] != seen_[loop] || gPulses[loop].Waits()) continue;
        standsStill_ = loop;
        return false;
    }
    for (unsigned loop = 0; loop < kReceiveLoopsMax; ++loop) seen_[loop] = turns[loop];
    return true;
}
