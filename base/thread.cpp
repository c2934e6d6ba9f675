// SPDX-License-Identifier: Apache-2.0
//
// Named threads and the process-wide stop wake-up.
#include "base/thread.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>

#include "base/log.h"
#include "base/sync.h"

namespace oxel {

namespace {

constexpr size_t kThreadNameBytes = 32;
// The kernel's limit, the terminating zero included.
constexpr size_t kKernelNameBytes = 16;

thread_local char tlsName[kThreadNameBytes] = "main";

struct Sleepers {
    XoCriticalSection section;
    oxel::Condition stopped;
    bool stop GUARDED_BY(section) = false;
};

// Never destroyed: threads may still sleep while the process ends.
Sleepers& TheSleepers() {
    static auto* sleepers = new Sleepers;
    return *sleepers;
}

struct StartInfo {
    std::string name;
    void* (*body)(void*);
    void* argument;
};

void* Trampoline(void* opaque) {
    std::unique_ptr<StartInfo> info(static_cast<StartInfo*>(opaque));
    SetThreadName(info->name);
    auto* const body = info->body;
    void* const argument = info->argument;
    info.reset();
    return body(argument);
}

}  // namespace

void SetThreadName(const std::string& name) {
    const size_t bytes = std::min(name.size(), kThreadNameBytes - 1);
    memcpy(tlsName, name.data(), bytes);
    tlsName[bytes] = '\0';
    char kernelName[kKernelNameBytes];
    const size_t kernelBytes = std::min(bytes, kKernelNameBytes - 1);
    memcpy(kernelName, tlsName, kernelBytes);
    kernelName[kernelBytes] = '\0';
    // Only for people who look at the process; the log has the full name.
    (void)pthread_setname_np(pthread_self(), kernelName);
}

const char* ThreadName() {
    return tlsName;
}

void WakeSleepers() {
    Sleepers& sleepers = TheSleepers();
    XoCriticalSectionGuard lock(sleepers.section);
    sleepers.stop = true;
    sleepers.stopped.notifyAll();
}

void ResetSleepers() {
    Sleepers& sleepers = TheSleepers();
    XoCriticalSectionGuard lock(sleepers.section);
    sleepers.stop = false;
}

bool SleepUntilStop(uint32_t milliseconds, const char* file, int line) {
    OXEL_LOG(4, "Sleeping %u ms at %s:%d", milliseconds, file, line);
    Sleepers& sleepers = TheSleepers();
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    XoCriticalSectionGuard lock(sleepers.section);
    while (!sleepers.stop && sleepers.stopped.waitUntil(sleepers.section, deadline)) {
    }
    return !sleepers.stop;
}

}  // namespace oxel

XoThread::~XoThread() {
    if (running_) (void)pthread_detach(thread_);  // fails only for a thread that is not ours
}

bool XoThread::start(const char* name, void* (*body)(void*), void* argument) {
    if (running_) {
        errno = EBUSY;
        return false;
    }
    auto info = std::make_unique<oxel::StartInfo>(oxel::StartInfo{name, body, argument});
    const int error = pthread_create(&thread_, nullptr, oxel::Trampoline, info.get());
    if (error != 0) {
        errno = error;
        return false;
    }
    (void)info.release();  // the new thread frees it
    running_ = true;
    return true;
}

void XoThread::join() {
    if (!running_) return;
    (void)pthread_join(thread_, nullptr);  // the bodies' results are not used
    running_ = false;
}
