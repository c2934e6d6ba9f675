// SPDX-License-Identifier: Apache-2.0
//
// Events. The setter notifies while it holds the lock, so that a waiter may destroy the event as
// soon as its wait returns: whoever starts a thread keeps the event on its own stack.
#include "base/sync.h"

#include <chrono>

void XoEvent::set() {
    std::lock_guard<std::mutex> lock(mutex_);
    set_ = true;
    if (manualReset_) {
        changed_.notify_all();
    } else {
        changed_.notify_one();
    }
}

void XoEvent::reset() {
    std::lock_guard<std::mutex> lock(mutex_);
    set_ = false;
}

void XoEvent::wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return set_; });
    if (!manualReset_) set_ = false;
}

bool XoEvent::wait(uint32_t milliseconds) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!changed_.wait_for(lock, std::chrono::milliseconds(milliseconds), [this] { return set_; }))
        return false;
    if (!manualReset_) set_ = false;
    return true;
}
