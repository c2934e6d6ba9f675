// SPDX-License-Identifier: Apache-2.0
//
// Which thread receives. The one that leads reads calls and handles the quick ones itself, so that
// most calls see one thread only. When it is held up in one of them (by a disk that does not
// answer, say) the thread that watches it takes its place within a few milliseconds, and the others
// are served on.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>

#include "base/sync.h"

class Leadership {
  public:
    // Leads until it is over (true), or until Finish() has said that another thread leads (false).
    using Lead = std::function<bool()>;
    // Has `lead` run on one thread at a time, first on the calling one. Others, at most
    // `threadsMost` in all, are made when they are needed; they end by themselves. Returns when
    // `lead` is over; this object, and what `lead` uses, must outlive AllEnded().
    // Threads that it makes are called "<name>-2" and so on.
    void Run(Lead lead, unsigned threadsMost, const std::string& name = "NFS");
    // Whether every thread but the one that called Run() has ended.
    bool AllEnded() EXCLUDES(mutex_);
    // Whether somebody watches the leader or is about to, and would take its place: a leader that
    // is held up with nobody behind it holds everybody up. By the thread that leads; holds until
    // Begin().
    bool Watched() const { return deputies_.load(std::memory_order_relaxed) != 0; }

    // Around work that may take long; by the thread that leads. What the leader has written before
    // is seen by whoever takes its place.
    uint64_t Begin();
    // False: the place was taken meanwhile.
    bool Finish(uint64_t work);

  private:
    void Member(bool leads);
    // Waits until the leader is held up and takes its place; false when it is over.
    bool Watch() EXCLUDES(mutex_);
    void StartWatcherIfNone() EXCLUDES(mutex_);
    void SayOver() EXCLUDES(mutex_);

    Lead lead_;
    unsigned threadsMost_ = 0;
    std::string name_;

    // Odd while the leader is at a piece of work, a number of its own for each piece.
    std::atomic<uint64_t> work_{0};
    std::atomic<bool> watcherSleeps_{false};
    std::atomic<bool> over_{false};
    XoEvent wakeWatcher_;

    XoCriticalSection mutex_;
    oxel::Condition changed_;
    // Threads that neither lead nor are held up; written under mutex_.
    std::atomic<unsigned> deputies_{0};
    bool watched_ GUARDED_BY(mutex_) = false;
    unsigned threads_ GUARDED_BY(mutex_) = 0;  // besides the one that called Run()
};
