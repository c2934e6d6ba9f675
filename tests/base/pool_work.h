// SPDX-License-Identifier: Apache-2.0
//
// Work for the thread pool's tests.
#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <thread>

#include "base/sync.h"
#include "base/thread.h"
#include "base/thread_pool.h"

namespace oxel::test {

// Runs any function on the pool; the argument stays the caller's.
inline bool Do(XoThreadPool& pool, std::function<void()>& work) {
    return pool.doWork(
        [](void* opaque) -> void* {
            (*static_cast<std::function<void()>*>(opaque))();
            return nullptr;
        },
        &work);
}

// Returns when the condition holds; a condition that never comes to hold ends in the test's
// time-out.
inline void Until(const std::function<bool()>& condition) {
    while (!condition()) std::this_thread::yield();
}

// Work that takes a thread and keeps it until it is let go.
struct Hold {
    bool On(XoThreadPool& pool) { return Do(pool, work); }
    void LetGo() { release.set(); }

    XoEvent started{true}, release{true}, finished{true};
    std::string thread;  // after `started`
    std::function<void()> work = [this] {
        thread = ThreadName();
        started.set();
        release.wait();
        finished.set();
    };
};

}  // namespace oxel::test
