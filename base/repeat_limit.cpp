// SPDX-License-Identifier: Apache-2.0
#include "base/repeat_limit.h"

#include <ctime>

namespace oxel {

int64_t CoarseSeconds() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return now.tv_sec;
}

RepeatLimit::Verdict RepeatLimit::Count(int64_t now) {
    Minute minute = minute_.load(std::memory_order_relaxed);
    for (;;) {
        const bool isOver = now - minute.began >= kMinute;
        if (!isOver && minute.told >= kToldAMinute) {
            ++untold_;
            return {false, 0};
        }
        Minute next = isOver ? Minute{now, 0} : minute;
        ++next.told;
        if (minute_.compare_exchange_weak(minute, next))
            return {true, isOver ? untold_.exchange(0) : 0};
    }
}

uint64_t RepeatLimit::TakeUntold(int64_t now, bool atOnce) {
    if (untold_.load(std::memory_order_relaxed) == 0) return 0;
    if (!atOnce && now - minute_.load(std::memory_order_relaxed).began < kMinute) return 0;
    return untold_.exchange(0);
}

}  // namespace oxel
