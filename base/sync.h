// SPDX-License-Identifier: Apache-2.0
//
// Locks and events.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "base/thread_annotations.h"

// A lock that one thread holds at a time; not recursive.
class CAPABILITY("mutex") XoCriticalSection {
  public:
    XoCriticalSection() = default;
    XoCriticalSection(const XoCriticalSection&) = delete;
    XoCriticalSection& operator=(const XoCriticalSection&) = delete;
    void enter() ACQUIRE() { mutex_.lock(); }
    void leave() RELEASE() { mutex_.unlock(); }
    bool tryEnter() TRY_ACQUIRE(true) { return mutex_.try_lock(); }

  private:
    std::mutex mutex_;
};

// Holds a critical section for the length of a scope.
class SCOPED_CAPABILITY XoCriticalSectionGuard {
  public:
    explicit XoCriticalSectionGuard(XoCriticalSection& section) ACQUIRE(section)
        : section_(section) {
        section_.enter();
    }
    ~XoCriticalSectionGuard() RELEASE() { section_.leave(); }
    XoCriticalSectionGuard(const XoCriticalSectionGuard&) = delete;
    XoCriticalSectionGuard& operator=(const XoCriticalSectionGuard&) = delete;

  private:
    XoCriticalSection& section_;
};

// The two "H" names are the heap-friendly forms of the same things.
using XoCriticalSectionH = XoCriticalSection;

// A signal between threads. An automatic event wakes one waiter and resets; a manual one stays set.
class XoEvent {
  public:
    explicit XoEvent(bool manualReset = false) : manualReset_(manualReset) {}
    XoEvent(const XoEvent&) = delete;
    XoEvent& operator=(const XoEvent&) = delete;
    void set();
    void reset();
    void wait();
    // False when `milliseconds` went by without the event.
    bool wait(uint32_t milliseconds);

  private:
    const bool manualReset_;
    std::mutex mutex_;
    std::condition_variable changed_;
    bool set_ = false;  // guarded by mutex_
};
using XoEventH = XoEvent;
