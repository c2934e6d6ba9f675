// SPDX-License-Identifier: Apache-2.0
//
// Periodic callbacks, all on one thread named "TIMER".
#pragma once

#include <cstdint>

// What a timer task is for; one task per value.
enum OxelTimerTask : unsigned {
    OxelTimerTaskRegistry = 1,     // saves the export registry
    OxelTimerTaskThreadCount = 2,  // re-reads the handler thread count
    OxelTimerTaskIdleFiles = 3,    // closes what a module kept open and nobody used
};

using XOTimerErrno = int;  // 0: go on; anything else: the task is removed

class XoTimer {
  public:
    // Calls `callback(argument)` every `periodMs` milliseconds, first after one period. A task that
    // is registered again replaces the old one. `flags` is reserved, 0 or 1. 0 on success.
    static XOTimerErrno Register(OxelTimerTask task, XOTimerErrno (*callback)(void*),
                                 unsigned int periodMs, unsigned int flags, void* argument);
    // After this returns the task's callback is not running and will not be called again.
    static void Unregister(OxelTimerTask task);
};
