// SPDX-License-Identifier: Apache-2.0
//
// Every thread counts in an array of its own, which only it writes: an addition is a load and a
// store, no locked instruction. Readers add the arrays up. Starting anew leaves the arrays alone
// and remembers what they held, because a reset would race with the owner's addition.
#include "base/perf_counter.h"

#include <time.h>
#if defined(__x86_64__)
#include <x86intrin.h>
#endif

#include <algorithm>
#include <fstream>
#include <memory>
#include <new>

#include "base/log.h"
#include "base/sync.h"

std::atomic<bool> gPerfFlag{true};
std::atomic<bool> gPrintPerfStats{false};

namespace oxel {

namespace {

struct Slot {
    std::atomic<uint64_t> count{0}, nanoseconds{0}, bytes{0};
    std::atomic<uint64_t> nanosecondsMax{0};  // of `epoch` only
    std::atomic<uint64_t> epoch{0};
};

struct Sums {
    uint64_t count = 0, nanoseconds = 0, nanosecondsMax = 0, bytes = 0;
};

struct ThreadSlots {
    Slot slots[kPerfCounterIdMax];
};

struct Registry {
    XoCriticalSection mutex;
    std::vector<ThreadSlots*> threads GUARDED_BY(mutex);
    // Of threads that are gone; nanosecondsMax of the epoch in course.
    Sums ended[kPerfCounterIdMax] GUARDED_BY(mutex);
    // What counted before the counters were started anew.
    Sums base[kPerfCounterIdMax] GUARDED_BY(mutex);
};

// Never destroyed: threads may still count while the process ends.
Registry& TheRegistry() {
    static auto* registry = new Registry;
    return *registry;
}

std::atomic<uint64_t> gEpoch{1};
std::atomic<const char*> gNames[kPerfCounterIdMax];

void AddSlot(const Slot& slot, uint64_t epoch, Sums* sums) {
    sums->count += slot.count.load(std::memory_order_relaxed);
    sums->nanoseconds += slot.nanoseconds.load(std::memory_order_relaxed);
    sums->bytes += slot.bytes.load(std::memory_order_relaxed);
    if (slot.epoch.load(std::memory_order_relaxed) == epoch)
        sums->nanosecondsMax =
            std::max(sums->nanosecondsMax, slot.nanosecondsMax.load(std::memory_order_relaxed));
}

// The calling thread's array. A null pointer after the thread has begun to end.
struct Owner {
    ThreadSlots* slots = nullptr;
    bool ended = false;
};
thread_local Owner tlsOwner;

// Hands the array's sums over when its thread ends.
struct Keeper {
    Keeper() {
        auto slots = std::make_unique<ThreadSlots>();
        Registry& registry = TheRegistry();
        XoCriticalSectionGuard lock(registry.mutex);
        registry.threads.push_back(slots.get());
        tlsOwner.slots = slots.release();
    }
    ~Keeper() {
        Registry& registry = TheRegistry();
        XoCriticalSectionGuard lock(registry.mutex);
        const uint64_t epoch = gEpoch.load(std::memory_order_relaxed);
        for (unsigned id = 0; id < kPerfCounterIdMax; ++id)
            AddSlot(tlsOwner.slots->slots[id], epoch, &registry.ended[id]);
        std::erase(registry.threads, tlsOwner.slots);
        delete tlsOwner.slots;
        tlsOwner.slots = nullptr;
        tlsOwner.ended = true;
    }
};

ThreadSlots* MySlots() {
    if (tlsOwner.slots == nullptr && !tlsOwner.ended) {
        try {
            thread_local Keeper keeper;
            (void)keeper;  // its constructor has set tlsOwner.slots
        } catch (const std::bad_alloc&) {
            // Not counted; a later addition tries again.
        }
    }
    return tlsOwner.slots;
}

Sums TotalLocked(const Registry& registry, unsigned id, uint64_t epoch) REQUIRES(registry.mutex) {
    Sums sums = registry.ended[id];
    for (const ThreadSlots* thread : registry.threads) AddSlot(thread->slots[id], epoch, &sums);
    return sums;
}

// Adds up what counted since the last start; with `startAnew` the next reading begins from here.
std::vector<PerfTotals> Collect(bool startAnew) {
    std::vector<PerfTotals> all;
    Registry& registry = TheRegistry();
    XoCriticalSectionGuard lock(registry.mutex);
    const uint64_t epoch = gEpoch.load(std::memory_order_relaxed);
    for (unsigned id = 0; id < kPerfCounterIdMax; ++id) {
        const Sums total = TotalLocked(registry, id, epoch);
        Sums& base = registry.base[id];
        const char* name = gNames[id].load(std::memory_order_acquire);
        if (name != nullptr && total.count != base.count) {
            all.push_back({id, name, total.count - base.count, total.nanoseconds - base.nanoseconds,
                           total.nanosecondsMax, total.bytes - base.bytes});
        }
        if (startAnew) {
            base = total;
            registry.ended[id].nanosecondsMax = 0;
        }
    }
    if (startAnew) gEpoch.store(epoch + 1, std::memory_order_relaxed);
    return all;
}

template <typename T>
void AddOwned(std::atomic<T>& value, T more) {
    value.store(value.load(std::memory_order_relaxed) + more, std::memory_order_relaxed);
}

}  // namespace

namespace {

uint64_t ClockNanoseconds() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000u + static_cast<uint64_t>(now.tv_nsec);
}

#if defined(__x86_64__)

// Stages are timed a dozen times a call, and asking the clock made a tenth of a small call's cost.
// Where the kernel itself trusts the processor's counter, that is read instead, in units found out
// over the first moments of the process.
struct CounterClock {
    const bool trusted = [] {
        std::ifstream source("/sys/devices/system/clocksource/clocksource0/current_clocksource");
        std::string name;
        return source >> name && name == "tsc";
    }();
    const uint64_t ticks = __rdtsc();
    const uint64_t nanoseconds = ClockNanoseconds();
    std::atomic<uint64_t> nanosecondsPerTick{0};  // times 2^32; 0: not known yet
};
CounterClock gCounterClock;

constexpr uint64_t kCalibrationNanoseconds = 20'000'000;

#endif

}  // namespace

uint64_t MonotonicNanoseconds() {
#if defined(__x86_64__)
    CounterClock& counter = gCounterClock;
    using Wide = unsigned __int128;
    if (const uint64_t unit = counter.nanosecondsPerTick.load(std::memory_order_relaxed))
        return counter.nanoseconds +
               static_cast<uint64_t>((Wide{__rdtsc() - counter.ticks} * unit) >> 32);
    const uint64_t now = ClockNanoseconds();
    const uint64_t passed = now - counter.nanoseconds;
    if (counter.trusted && passed > kCalibrationNanoseconds)
        counter.nanosecondsPerTick.store(
            static_cast<uint64_t>((Wide{passed} << 32) / (__rdtsc() - counter.ticks)),
            std::memory_order_relaxed);
    return now;
#else
    return ClockNanoseconds();
#endif
}

void PerfAdd(const char* name, unsigned id, uint64_t nanoseconds, uint64_t bytes) {
    if (id >= kPerfCounterIdMax) return;
    ThreadSlots* mine = MySlots();
    if (mine == nullptr) return;  // the thread is ending, or memory is short
    if (gNames[id].load(std::memory_order_relaxed) == nullptr) {
        const char* none = nullptr;
        gNames[id].compare_exchange_strong(none, name, std::memory_order_release,
                                           std::memory_order_relaxed);
    }
    Slot& slot = mine->slots[id];
    const uint64_t epoch = gEpoch.load(std::memory_order_relaxed);
    if (slot.epoch.load(std::memory_order_relaxed) != epoch) {
        slot.nanosecondsMax.store(nanoseconds, std::memory_order_relaxed);
        slot.epoch.store(epoch, std::memory_order_relaxed);
    } else if (slot.nanosecondsMax.load(std::memory_order_relaxed) < nanoseconds) {
        slot.nanosecondsMax.store(nanoseconds, std::memory_order_relaxed);
    }
    AddOwned(slot.nanoseconds, nanoseconds);
    AddOwned(slot.bytes, bytes);
    AddOwned(slot.count, uint64_t{1});
}

std::vector<PerfTotals> PerfSnapshot() {
    return Collect(false);
}

}  // namespace oxel

void ThrdPerfCounter::start(const char*, unsigned id) {
    if (id < oxel::kPerfCounterIdMax) started_[id] = oxel::MonotonicNanoseconds();
}

void ThrdPerfCounter::stop(const char* name, unsigned id) {
    if (id >= oxel::kPerfCounterIdMax || started_[id] == 0) return;
    oxel::PerfAdd(name, id, oxel::MonotonicNanoseconds() - started_[id], 0);
    started_[id] = 0;
}

void LogAllPerfCounters() {
    for (const oxel::PerfTotals& one : oxel::Collect(true)) {
        OXEL_LOG(1,
                 "Counter [%u:%s] count [%lu] total [%lu us] mean [%lu ns] max [%lu ns] "
                 "bytes [%lu]",
                 one.id, one.name.c_str(), one.count, one.nanoseconds / 1000,
                 one.nanoseconds / one.count, one.nanosecondsMax, one.bytes);
    }
}
