// SPDX-License-Identifier: Apache-2.0
//
// Conditions and events. An event's setter notifies while it holds the lock, so that a waiter may
// destroy the event as soon as its wait returns: whoever starts a thread keeps the event on its own
// stack.
#include "base/sync.h"

namespace oxel {

void Condition::wait(XoCriticalSection& section) {
    std::unique_lock<std::mutex> lock(section.mutex_, std::adopt_lock);
    changed_.wait(lock);
    (void)lock.release();  // stays the caller's
}

bool Condition::waitUntil(XoCriticalSection& section,
                          std::chrono::steady_clock::time_point deadline) {
    std::unique_lock<std::mutex> lock(section.mutex_, std::adopt_lock);
    const bool inTime = changed_.wait_until(lock, deadline) == std::cv_status::no_timeout;
    (void)lock.release();  // stays the caller's
    return inTime;
}

}  // namespace oxel

void XoEvent::set() {
    XoCriticalSectionGuard lock(section_);
    set_ = true;
    if (manualReset_) {
        changed_.notifyAll();
    } else {
        changed_.notifyOne();
    }
}

void XoEvent::reset() {
    XoCriticalSectionGuard lock(section_);
    set_ = false;
}

void XoEvent::wait() {
    XoCriticalSectionGuard lock(section_);
    while (!set_) changed_.wait(section_);
    if (!manualReset_) set_ = false;
}

bool XoEvent::wait(uint32_t milliseconds) {
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    XoCriticalSectionGuard lock(section_);
    while (!set_ && changed_.waitUntil(section_, deadline)) {
    }
    if (!set_) return false;
    if (!manualReset_) set_ = false;
    return true;
}
