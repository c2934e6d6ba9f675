// SPDX-License-Identifier: Apache-2.0
//
// Threads with names that the log shows, and sleeping that the end of the process interrupts.
#pragma once

#include <pthread.h>

#include <cstdint>
#include <string>

class XoThread {
  public:
    XoThread() = default;
    XoThread(const XoThread&) = delete;
    XoThread& operator=(const XoThread&) = delete;
    // The thread is detached if nobody joined it.
    ~XoThread();
    // Starts `body(argument)`. False with errno when the system gives no thread.
    bool start(const char* name, void* (*body)(void*), void* argument);
    void join();

  private:
    pthread_t thread_{};
    bool running_ = false;
};

namespace oxel {

// The calling thread's name as the log shows it ("main" when never set); also given to the kernel.
void SetThreadName(const std::string& name);
const char* ThreadName();

// The process-wide stop wake-up: after WakeSleepers() every present and future sleep returns at
// once. Any thread, but not a signal handler.
void WakeSleepers();
// For tests: sleeps work again.
void ResetSleepers();

// True when the whole time went by, false when the process is to stop. Use through LUSLEEP.
bool SleepUntilStop(uint32_t milliseconds, const char* file, int line);

}  // namespace oxel

#define LUSLEEP(milliseconds) ::oxel::SleepUntilStop((milliseconds), __FILE__, __LINE__)
