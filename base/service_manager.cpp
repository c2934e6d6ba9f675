// SPDX-License-Identifier: Apache-2.0
//
// Messages to the service manager.
#include "base/service_manager.h"

#include <systemd/sd-daemon.h>

#include <cinttypes>
#include <cstdlib>
#include <ctime>

#include "base/sync.h"

namespace oxel {

namespace {

// What has been told. A manager that hears READY=1 believes it, so the end of a reload must not be
// told before the start has ended, or after the end of the process has begun.
struct Told {
    XoCriticalSection mutex;
    bool ready GUARDED_BY(mutex) = false;
    bool stopping GUARDED_BY(mutex) = false;
    unsigned reloads GUARDED_BY(mutex) = 0;
};

// Never destroyed: threads may still tell something while the process ends.
Told& WhatIsTold() {
    static auto* told = new Told;
    return *told;
}

uint64_t MonotonicMicroseconds() {
    timespec now{};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);  // cannot fail for this clock
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000 +
           static_cast<uint64_t>(now.tv_nsec) / 1000;
}

}  // namespace

bool HasServiceManager() {
    return getenv("NOTIFY_SOCKET") != nullptr;
}

uint64_t WatchdogMicroseconds() {
    uint64_t microseconds = 0;
    return sd_watchdog_enabled(0, &microseconds) > 0 ? microseconds : 0;
}

int TellReady() {
    Told& told = WhatIsTold();
    XoCriticalSectionGuard lock(told.mutex);
    if (told.stopping) return 0;
    told.ready = true;
    const int result = sd_notify(0, "READY=1");
    return result < 0 ? result : 0;
}

// From here on what cannot be told is not worth a word: TellReady()'s caller has said it.

void TellStatus(const std::string& status, bool alive) {
    Told& told = WhatIsTold();
    XoCriticalSectionGuard lock(told.mutex);
    if (told.stopping) return;
    (void)sd_notify(0, ("STATUS=" + status + (alive ? "\nWATCHDOG=1" : "")).c_str());
}

void TellStopping() {
    Told& told = WhatIsTold();
    XoCriticalSectionGuard lock(told.mutex);
    if (told.stopping) return;
    told.stopping = true;
    (void)sd_notify(0, "STOPPING=1\nSTATUS=stopping");
}

Reloading::Reloading() {
    if (!HasServiceManager()) return;
    Told& told = WhatIsTold();
    XoCriticalSectionGuard lock(told.mutex);
    if (!told.ready || told.stopping) return;
    counted_ = true;
    // The time is how a manager tells this reload from the one before.
    if (told.reloads++ == 0)
        (void)sd_notifyf(0,
                         "RELOADING=1\nMONOTONIC_USEC=%" PRIu64 "\nSTATUS=reading the shares anew",
                         MonotonicMicroseconds());
}

Reloading::~Reloading() {
    if (!counted_) return;
    Told& told = WhatIsTold();
    XoCriticalSectionGuard lock(told.mutex);
    if (--told.reloads == 0 && !told.stopping) (void)sd_notify(0, "READY=1");
}

}  // namespace oxel
