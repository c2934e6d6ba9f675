// SPDX-License-Identifier: Apache-2.0
//
// Locks and events. Locks carry annotations, which std::mutex does not, so that clang sees who
// holds which.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <shared_mutex>

#include "base/thread_annotations.h"

namespace oxel {
class Condition;
}

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
    friend class oxel::Condition;
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

namespace oxel {

// What a thread waits for that holds a critical section. Waits return without cause, too: the
// caller looks in a loop, where clang sees that it holds the section (in a predicate it would not).
class Condition {
  public:
    // The section is released meanwhile.
    void wait(XoCriticalSection& section) REQUIRES(section);
    // False when the deadline has passed.
    bool waitUntil(XoCriticalSection& section, std::chrono::steady_clock::time_point deadline)
        REQUIRES(section);
    void notifyOne() { changed_.notify_one(); }
    void notifyAll() { changed_.notify_all(); }

  private:
    std::condition_variable changed_;
};

// A lock that threads share who only read; not recursive.
class CAPABILITY("mutex") SharedSection {
  public:
    SharedSection() = default;
    SharedSection(const SharedSection&) = delete;
    SharedSection& operator=(const SharedSection&) = delete;
    void enter() ACQUIRE() { mutex_.lock(); }
    void leave() RELEASE() { mutex_.unlock(); }
    void enterShared() ACQUIRE_SHARED() { mutex_.lock_shared(); }
    void leaveShared() RELEASE_SHARED() { mutex_.unlock_shared(); }

  private:
    std::shared_mutex mutex_;
};

// Holds a shared section, together with other readers or alone, for the length of a scope.
class SCOPED_CAPABILITY SharedGuard {
  public:
    explicit SharedGuard(SharedSection& section) ACQUIRE_SHARED(section) : section_(section) {
        section_.enterShared();
    }
    ~SharedGuard() RELEASE() { section_.leaveShared(); }
    SharedGuard(const SharedGuard&) = delete;
    SharedGuard& operator=(const SharedGuard&) = delete;

  private:
    SharedSection& section_;
};
class SCOPED_CAPABILITY ExclusiveGuard {
  public:
    explicit ExclusiveGuard(SharedSection& section) ACQUIRE(section) : section_(section) {
        section_.enter();
    }
    ~ExclusiveGuard() RELEASE() { section_.leave(); }
    ExclusiveGuard(const ExclusiveGuard&) = delete;
    ExclusiveGuard& operator=(const ExclusiveGuard&) = delete;

  private:
    SharedSection& section_;
};

}  // namespace oxel

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
    XoCriticalSection section_;
    oxel::Condition changed_;
    bool set_ GUARDED_BY(section_) = false;
};
using XoEventH = XoEvent;
