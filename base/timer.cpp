// SPDX-License-Identifier: Apache-2.0
//
// The timer thread: sleeps until the next task is due and runs it without a lock held. It starts
// with the first task and stays for the life of the process.
#include "base/timer.h"

#include <cerrno>
#include <chrono>
#include <map>
#include <optional>

#include "base/patience.h"
#include "base/sync.h"
#include "base/thread.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Task {
    XOTimerErrno (*callback)(void*);
    void* argument;
    Clock::duration period;
    Clock::time_point due;
    uint64_t generation;  // tells a task from one that replaced it
};

class TimerThread {
  public:
    XOTimerErrno Register(OxelTimerTask id, XOTimerErrno (*callback)(void*), unsigned int periodMs,
                          void* argument) {
        XoCriticalSectionGuard lock(mutex_);
        if (!started_) {
            if (!thread_.start("TIMER", &TimerThread::Run, this)) return errno;
            started_ = true;
        }
        const auto period = std::chrono::milliseconds(periodMs);
        tasks_[id] = Task{callback, argument, period, Clock::now() + period, ++generation_};
        changed_.notifyAll();
        return 0;
    }

    void Unregister(OxelTimerTask id) {
        XoCriticalSectionGuard lock(mutex_);
        tasks_.erase(id);
        if (started_ && pthread_equal(pthread_self(), timer_)) return;
        while (running_ == id) finished_.wait(mutex_);
    }

  private:
    static void* Run(void* self) {
        static_cast<TimerThread*>(self)->Loop();
        return nullptr;
    }

    [[noreturn]] void Loop() {
        // Nobody is told of a task that could not be done; it waits for memory.
        const oxel::PatientNew patient;
        XoCriticalSectionGuard lock(mutex_);
        timer_ = pthread_self();
        for (;;) {
            auto next = tasks_.end();
            for (auto task = tasks_.begin(); task != tasks_.end(); ++task) {
                if (next == tasks_.end() || task->second.due < next->second.due) next = task;
            }
            if (next == tasks_.end()) {
                changed_.wait(mutex_);
            } else if (const auto due = next->second.due; Clock::now() < due) {
                (void)changed_.waitUntil(mutex_, due);
            } else {
                RunTask(next->first, next->second);
            }
        }
    }

    void RunTask(OxelTimerTask id, Task task) REQUIRES(mutex_) {
        running_ = id;
        mutex_.leave();
        const XOTimerErrno result = task.callback(task.argument);
        mutex_.enter();
        running_.reset();
        finished_.notifyAll();
        const auto found = tasks_.find(id);
        if (found == tasks_.end() || found->second.generation != task.generation) return;
        if (result != 0) {
            tasks_.erase(found);
        } else {
            // Periods that went by during a long run are skipped, not made up for.
            found->second.due = std::max(task.due + task.period, Clock::now());
        }
    }

    XoCriticalSection mutex_;
    oxel::Condition changed_, finished_;
    std::map<OxelTimerTask, Task> tasks_ GUARDED_BY(mutex_);
    std::optional<OxelTimerTask> running_ GUARDED_BY(mutex_);
    uint64_t generation_ GUARDED_BY(mutex_) = 0;
    XoThread thread_ GUARDED_BY(mutex_);
    pthread_t timer_ GUARDED_BY(mutex_){};
    bool started_ GUARDED_BY(mutex_) = false;
};

// Never destroyed: its thread runs until the process ends.
TimerThread& TheTimer() {
    static auto* timer = new TimerThread;
    return *timer;
}

}  // namespace

XOTimerErrno XoTimer::Register(OxelTimerTask task, XOTimerErrno (*callback)(void*),
                               unsigned int periodMs, unsigned int flags, void* argument) {
    if (callback == nullptr || periodMs == 0 || flags > 1) return EINVAL;
    return TheTimer().Register(task, callback, periodMs, argument);
}

void XoTimer::Unregister(OxelTimerTask task) {
    TheTimer().Unregister(task);
}
