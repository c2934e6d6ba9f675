// SPDX-License-Identifier: Apache-2.0
//
// A queue and its threads under one mutex. Sleeping threads stand on a stack, each with a futex of
// its own, so that the one that slept least (and whose stack is still in the caches) is woken, and
// nobody else.
//
// At most one thread is on its way to the queue at a time (`coming`). Adding an item wakes or makes
// a thread only when none is coming; a thread that takes an item and leaves others behind sends the
// next one. So a burst of items costs the adder one wake-up at most, and no wake-up is lost:
//     queue not empty  =>  a thread is coming, or every thread that may exist is at work
// holds whenever the mutex is free, and a thread that has worked looks at the queue before it
// sleeps.
#include "base/thread_pool.h"

#include <linux/futex.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <new>
#include <string>
#include <vector>

#include "base/log.h"
#include "base/thread.h"
#include "base/thread_annotations.h"

namespace {

// Spins a little before it sleeps: the critical sections of the pool are some 20 ns long.
class CAPABILITY("mutex") AdaptiveMutex {
  public:
    AdaptiveMutex() {
        pthread_mutexattr_t attributes;
        pthread_mutexattr_init(&attributes);
        pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ADAPTIVE_NP);
        pthread_mutex_init(&mutex_, &attributes);
        pthread_mutexattr_destroy(&attributes);
    }
    ~AdaptiveMutex() { pthread_mutex_destroy(&mutex_); }
    AdaptiveMutex(const AdaptiveMutex&) = delete;
    AdaptiveMutex& operator=(const AdaptiveMutex&) = delete;
    void Lock() ACQUIRE() { pthread_mutex_lock(&mutex_); }
    void Unlock() RELEASE() { pthread_mutex_unlock(&mutex_); }

  private:
    pthread_mutex_t mutex_;
};

class SCOPED_CAPABILITY Guard {
  public:
    explicit Guard(AdaptiveMutex& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.Lock(); }
    ~Guard() RELEASE() { mutex_.Unlock(); }
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;

  private:
    AdaptiveMutex& mutex_;
};

struct Item {
    void* (*work)(void*);
    void* argument;
};

// First in, first out; memory is kept, so a queue that has seen its peak allocates no more.
class ItemQueue {
  public:
    bool Empty() const { return count_ == 0; }
    size_t Size() const { return count_; }
    // std::bad_alloc passes through; the queue is then as before.
    void PushBack(const Item& item) {
        if (count_ == ring_.size()) Grow();
        ring_[(first_ + count_++) & (ring_.size() - 1)] = item;
    }
    Item PopFront() {
        const Item item = ring_[first_];
        first_ = (first_ + 1) & (ring_.size() - 1);
        --count_;
        return item;
    }
    void PopBack() { --count_; }

  private:
    void Grow() {
        std::vector<Item> ring(ring_.empty() ? 64 : 2 * ring_.size());
        for (size_t i = 0; i < count_; ++i) ring[i] = ring_[(first_ + i) & (ring_.size() - 1)];
        ring_.swap(ring);
        first_ = 0;
    }
    std::vector<Item> ring_;  // a power of two long, or empty
    size_t first_ = 0, count_ = 0;
};

long Futex(std::atomic<uint32_t>& word, int operation, uint32_t value, const timespec* timeout) {
    static_assert(sizeof(word) == sizeof(uint32_t));
    return syscall(SYS_futex, &word, operation | FUTEX_PRIVATE_FLAG, value, timeout, nullptr,
                   FUTEX_BITSET_MATCH_ANY);
}

// One place for a thread. Places are kept until the pool goes, so that waking one needs no lock.
struct Worker {
    unsigned number;  // from 1, as in the thread's name
    std::atomic<uint32_t> woken{0};
    pthread_t thread{};
    // Guarded by the pool's mutex.
    bool alive = false;
    bool asleep = false;  // on the stack of sleepers

    void Wake() {
        woken.store(1, std::memory_order_release);
        Futex(woken, FUTEX_WAKE, 1, nullptr);
    }
    // False when it was not woken until `deadline` (CLOCK_MONOTONIC).
    bool WaitUntil(const timespec& deadline) {
        while (woken.load(std::memory_order_acquire) == 0) {
            if (Futex(woken, FUTEX_WAIT_BITSET, 0, &deadline) != 0 && errno == ETIMEDOUT)
                return woken.load(std::memory_order_acquire) != 0;
        }
        return true;
    }
    void Wait() {
        while (woken.load(std::memory_order_acquire) == 0) Futex(woken, FUTEX_WAIT, 0, nullptr);
    }
};

timespec DeadlineIn(unsigned long seconds) {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    constexpr unsigned long kForever = 1000000000;
    now.tv_sec += static_cast<time_t>(std::min(seconds, kForever));
    return now;
}

}  // namespace

struct XoThreadPool::State {
    struct Start {
        std::shared_ptr<State> state;
        Worker* worker;
    };

    // Constant after initThreadPool.
    std::string name;
    unsigned long idleSeconds = 0;
    unsigned long threadsMin = 0;

    AdaptiveMutex mutex;
    unsigned int threadsMax GUARDED_BY(mutex) = 0;
    ItemQueue queue GUARDED_BY(mutex);
    std::vector<std::unique_ptr<Worker>> workers GUARDED_BY(mutex);  // [n - 1] is number n
    std::vector<Worker*> sleepers GUARDED_BY(mutex);                 // the last one slept least
    unsigned int alive GUARDED_BY(mutex) = 0;
    unsigned int coming GUARDED_BY(mutex) = 0;  // woken or made, not yet at the queue
    bool stopping GUARDED_BY(mutex) = false;

    static void* Run(void* opaque);
    void Loop(const std::shared_ptr<State>& self, Worker& me);
    // Puts the calling thread to sleep; the mutex is released meanwhile. False when it slept for
    // idleSeconds and may end; true when somebody sent it to the queue.
    bool Sleep(Worker& me) REQUIRES(mutex);
    // Runs what is queued, then ends and joins the threads.
    void Stop();
    // Makes a thread, which is then coming. False with errno when there can be none.
    bool MakeThread(const std::shared_ptr<State>& self) REQUIRES(mutex);
    // Takes the thread that slept least off the stack, as coming. The caller wakes it, after it has
    // released the mutex.
    Worker* ClaimSleeper() REQUIRES(mutex);
    // Called with items in the queue: sees to it that somebody is coming for them, if anybody can.
    // The result, if any, must be woken.
    Worker* SendOne(const std::shared_ptr<State>& self) REQUIRES(mutex);
};

bool XoThreadPool::State::MakeThread(const std::shared_ptr<State>& self) {
    try {
        Worker* free = nullptr;
        for (const auto& worker : workers) {
            if (!worker->alive) {
                free = worker.get();
                break;
            }
        }
        if (free == nullptr) {
            workers.push_back(std::make_unique<Worker>());
            free = workers.back().get();
            free->number = static_cast<unsigned>(workers.size());
        }
        sleepers.reserve(workers.size());  // so that going to sleep cannot fail
        auto start = std::make_unique<Start>(Start{self, free});
        const int error = pthread_create(&free->thread, nullptr, &State::Run, start.get());
        if (error != 0) {
            errno = error;
            return false;
        }
        (void)start.release();  // the new thread frees it
        free->alive = true;
        ++alive;
        ++coming;
        return true;
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return false;
    }
}

Worker* XoThreadPool::State::ClaimSleeper() {
    Worker* worker = sleepers.back();
    sleepers.pop_back();
    worker->asleep = false;
    ++coming;
    return worker;
}

Worker* XoThreadPool::State::SendOne(const std::shared_ptr<State>& self) {
    if (coming != 0) return nullptr;
    if (!sleepers.empty()) return ClaimSleeper();
    // A thread that cannot be made now is one less: those that work look at the queue again.
    if (alive < threadsMax && !stopping) (void)MakeThread(self);
    return nullptr;
}

void* XoThreadPool::State::Run(void* opaque) {
    const std::unique_ptr<Start> start(static_cast<Start*>(opaque));
    oxel::SetThreadName(start->state->name + "-" + std::to_string(start->worker->number));
    start->state->Loop(start->state, *start->worker);
    return nullptr;
}

bool XoThreadPool::State::Sleep(Worker& me) {
    me.woken.store(0, std::memory_order_relaxed);
    me.asleep = true;
    sleepers.push_back(&me);
    // Threads are made only while nobody sleeps, so who may not end now may not end later either.
    const bool mayEnd = alive > threadsMin;
    mutex.Unlock();
    bool woken = false;
    if (mayEnd) {
        woken = me.WaitUntil(DeadlineIn(idleSeconds));
    } else {
        me.Wait();
        woken = true;
    }
    mutex.Lock();
    if (woken) return true;
    if (me.asleep) {
        me.asleep = false;
        std::erase(sleepers, &me);
        return false;
    }
    // Somebody has taken this thread off the stack just now and is about to wake it. That wake-up
    // is used up here; left over, it would end a later sleep.
    mutex.Unlock();
    me.Wait();
    mutex.Lock();
    return true;
}

void XoThreadPool::State::Loop(const std::shared_ptr<State>& self, Worker& me) {
    mutex.Lock();
    --coming;
    for (;;) {
        if (alive > threadsMax && !stopping) break;
        if (!queue.Empty()) {
            const Item item = queue.PopFront();
            Worker* const next = queue.Empty() ? nullptr : SendOne(self);
            mutex.Unlock();
            if (next != nullptr) next->Wake();
            (void)item.work(item.argument);  // the result has no taker
            mutex.Lock();
            continue;
        }
        if (stopping) break;
        if (Sleep(me)) {
            --coming;
        } else if (alive > threadsMin && queue.Empty()) {
            break;
        }
    }
    Worker* next = nullptr;
    if (!stopping) {  // else Stop() joins it
        (void)pthread_detach(pthread_self());
        me.alive = false;
        --alive;
        if (!queue.Empty()) next = SendOne(self);
    }
    mutex.Unlock();
    if (next != nullptr) next->Wake();
}

void XoThreadPool::State::Stop() {
    std::vector<Worker*> wake;
    std::vector<pthread_t> threads;
    {
        Guard guard(mutex);
        stopping = true;
        while (!sleepers.empty()) wake.push_back(ClaimSleeper());
        for (const auto& worker : workers) {
            if (worker->alive) threads.push_back(worker->thread);
        }
    }
    for (Worker* worker : wake) worker->Wake();
    for (const pthread_t thread : threads) {
        if (pthread_equal(thread, pthread_self())) {
            (void)pthread_detach(thread);  // a pool that its own work destroys
        } else {
            (void)pthread_join(thread, nullptr);
        }
    }
}

XoThreadPool::XoThreadPool() : state_(std::make_shared<State>()) {}

XoThreadPool::~XoThreadPool() {
    state_->Stop();
}

bool XoThreadPool::initThreadPool(const char* name, unsigned long idleSeconds,
                                  unsigned long threadsMin, unsigned int threadsMax,
                                  unsigned int threadsAtStart) {
    if (threadsMax == 0 || threadsMin > threadsMax || threadsAtStart > threadsMax) return false;
    bool made = true;
    {
        Guard guard(state_->mutex);
        if (state_->threadsMax != 0) return false;
        state_->name = name;
        state_->idleSeconds = idleSeconds;
        state_->threadsMin = threadsMin;
        state_->threadsMax = threadsMax;
        while (made && state_->alive < threadsAtStart) made = state_->MakeThread(state_);
    }
    if (made) return true;
    OXEL_LOG(-1, "Thread pool %s: no thread: %m", name);
    state_->Stop();
    state_ = std::make_shared<State>();
    return false;
}

bool XoThreadPool::doWork(void* (*work)(void*), void* argument) {
    State& state = *state_;
    Worker* next = nullptr;
    {
        Guard guard(state.mutex);
        if (state.threadsMax == 0) return false;
        try {
            state.queue.PushBack({work, argument});
        } catch (const std::bad_alloc&) {
            return false;
        }
        next = state.SendOne(state_);
        if (state.alive == 0) {
            // The threads had all ended idle and no new one can be had: nobody would come.
            state.queue.PopBack();
            return false;
        }
    }
    if (next != nullptr) next->Wake();
    return true;
}

bool XoThreadPool::setMaxCount(unsigned int threadsMax) {
    State& state = *state_;
    std::vector<Worker*> wake;
    {
        Guard guard(state.mutex);
        if (threadsMax == 0 || state.threadsMax == 0) return false;
        state.threadsMax = threadsMax;
        // Surplus threads that sleep are woken to find out; those at work find out after it.
        while (!state.sleepers.empty() && wake.size() + threadsMax < state.alive)
            wake.push_back(state.ClaimSleeper());
        if (!state.queue.Empty()) {
            if (Worker* next = state.SendOne(state_)) wake.push_back(next);
        }
    }
    for (Worker* worker : wake) worker->Wake();
    return true;
}

unsigned int XoThreadPool::maxCount() const {
    Guard guard(state_->mutex);
    return state_->threadsMax;
}

unsigned int XoThreadPool::threadCount() const {
    Guard guard(state_->mutex);
    return state_->alive;
}

unsigned int XoThreadPool::idleCount() const {
    Guard guard(state_->mutex);
    return static_cast<unsigned int>(state_->sleepers.size());
}

size_t XoThreadPool::queued() const {
    Guard guard(state_->mutex);
    return state_->queue.Size();
}
