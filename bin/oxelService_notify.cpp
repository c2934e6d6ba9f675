// SPDX-License-Identifier: Apache-2.0
//
// Status line and watchdog. On a thread of its own, neither on the road of a call nor on the
// timers' thread: that one waits for the disk when the registry is saved, and a daemon with a slow
// disk is alive.
#include "bin/oxelService_notify.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>

#include "backend/share_set.h"
#include "base/log.h"
#include "base/patience.h"
#include "base/perf_counter.h"
#include "base/service_manager.h"
#include "base/store.h"
#include "base/sync.h"
#include "base/thread.h"
#include "bin/oxelService.h"
#include "bin/oxelService_account.h"
#include "bin/oxelService_pulse.h"

namespace {

constexpr uint64_t kStatusMs = 5000;
// A sign of life is sent that often in the manager's time: one that comes too late because the
// machine is busy is not the only one.
constexpr uint64_t kSignsInTime = 4;

XoEvent gLook;  // look now
XoEvent gStoppingTold(true);
std::atomic<bool> gStopping{false};
// Once it runs; never destroyed: it may outlive main()'s statics.
std::atomic<XoThread*> gThread{nullptr};

uint64_t Milliseconds() {
    return oxel::MonotonicNanoseconds() / 1'000'000;
}

std::string Counted(uint64_t count, const char* one, const char* several) {
    return std::to_string(count) + " " + (count == 1 ? one : several);
}

// Whether the manager may be told that the daemon lives.
class Watchdog {
  public:
    explicit Watchdog(uint64_t watchedMs) : watchedMs_(watchedMs) {}

    bool Alive() {
        if (watchedMs_ == 0) return false;
        const uint64_t now = Milliseconds();
        // Until the services are there, loops may have to wait for the port mapper; that this
        // thread runs is enough.
        if (!OxelServiceGlobals::networkServicesStarted || pulses_.AllAlive()) {
            aliveAt_ = now;
            said_ = false;
            return true;
        }
        if (!said_ && now - aliveAt_ >= watchedMs_ / 2) {
            said_ = true;
            OXEL_LOG(-1,
                     "Error: Receive loop [%u] stands still. The service manager ends this process "
                     "when that takes more than [%llu] ms.",
                     pulses_.StandsStill() + 1, static_cast<unsigned long long>(watchedMs_));
        }
        return false;
    }

  private:
    const uint64_t watchedMs_;
    PulseWatch pulses_;
    uint64_t aliveAt_ = Milliseconds();
    bool said_ = false;
};

void* Notify(void*) {
    const oxel::PatientNew patient;
    const uint64_t watchedMs = oxel::WatchdogMicroseconds() / 1000;
    const uint64_t everyMs =
        watchedMs == 0 ? kStatusMs : std::clamp<uint64_t>(watchedMs / kSignsInTime, 1, kStatusMs);
    Watchdog watchdog(watchedMs);
    uint64_t callsThen = CallsReceived(), then = Milliseconds();
    uint64_t callsPerSecond = 0;
    while (!gStopping) {
        const uint64_t calls = CallsReceived(), now = Milliseconds();
        if (now - then >= 1000) {
            callsPerSecond = (calls - callsThen) * 1000 / (now - then);
            callsThen = calls;
            then = now;
        }
        oxel::TellStatus(StatusLine(callsPerSecond), watchdog.Alive());
        // A loop without anything to do is made to turn once, and will have when it is asked.
        if (watchedMs != 0) WakeReceiveLoop();
        (void)gLook.wait(static_cast<uint32_t>(everyMs));
    }
    oxel::TellStopping();
    gStoppingTold.set();
    return nullptr;
}

}  // namespace

std::string StatusLine(uint64_t callsPerSecond) {
    const OxelServiceStatus state = OxelServiceGlobals::oxelStatus;
    if (state != OxelStarted || !OxelServiceGlobals::networkServicesStarted)
        return StateText(state);
    const size_t shares = oxel::gShareSet.Count();
    const std::string port = std::to_string(OxelServiceGlobals::nfsPort.load());
    if (shares == 0)
        return "serving no share on port " + port + ": " +
               oxel::InstancePaths(XOPI_Focus::focus()).exports + " has none";
    return "serving " + Counted(shares, "share", "shares") + " on port " + port + ": " +
           Counted(ConnectedClients(), "client", "clients") + ", " +
           Counted(callsPerSecond, "call/s", "calls/s");
}

void StartNotifying() {
    if (!oxel::HasServiceManager()) return;
    static auto* thread = new XoThread;
    if (thread->start("NOTIFY", Notify, nullptr))
        gThread = thread;
    else
        OXEL_LOG(-1, "Error: No thread for the service manager. [%s]", strerror(errno));
}

void RefreshStatusLine() {
    gLook.set();
}

void StopNotifying(uint32_t milliseconds) {
    XoThread* const thread = gThread;
    if (thread == nullptr) return;
    gStopping = true;
    gLook.set();
    if (gStoppingTold.wait(milliseconds)) thread->join();  // else the manager finds out by itself
}
