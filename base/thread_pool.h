// SPDX-License-Identifier: Apache-2.0
//
// A named pool of threads with a queue. The maximum can be changed while it runs.
#pragma once

#include <cstddef>
#include <memory>

class XoThreadPool {
  public:
    XoThreadPool();
    ~XoThreadPool();  // ends the threads after the work that is queued
    XoThreadPool(const XoThreadPool&) = delete;
    XoThreadPool& operator=(const XoThreadPool&) = delete;

    // Threads are named "<name>-<n>". A thread above `threadsMin` that found nothing to do for
    // `idleSeconds` ends. False when not even the first `threadsAtStart` threads could be made, or
    // when the numbers make no sense (min > max, max == 0).
    bool initThreadPool(const char* name, unsigned long idleSeconds, unsigned long threadsMin,
                        unsigned int threadsMax, unsigned int threadsAtStart);

    // Queues `work(argument)`; items start in the order in which they came. Never blocks for a free
    // thread. False when the pool is not initialised. The pool takes nothing of `argument` over.
    // An exception that leaves `work` ends the process, as for any thread: work handles its own.
    bool doWork(void* (*work)(void*), void* argument);

    // From now on at most `threadsMax` (>= 1) threads; surplus ones end when they next look for
    // work. False when 0 or not initialised.
    bool setMaxCount(unsigned int threadsMax);

    unsigned int maxCount() const;
    unsigned int threadCount() const;  // now alive
    unsigned int idleCount() const;    // of these, asleep for want of work
    size_t queued() const;             // waiting for a thread

  private:
    struct State;
    std::shared_ptr<State> state_;
};
