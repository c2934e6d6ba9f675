// SPDX-License-Identifier: Apache-2.0
//
// The call record's areas and the pool of call records. The two large areas (arguments with WRITE's
// data, READ's buffer) are mapped, not allocated: their pages cost nothing until a call uses them.
#include "bin/oxelService_callinfo.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <iterator>
#include <new>
#include <type_traits>

#include "base/perf_counter.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#endif

// Both areas are cleared with memset and given to C routines.
static_assert(std::is_trivially_copyable_v<CallArguments3>);
static_assert(std::is_trivially_copyable_v<CallResult3>);
// ClearCall zeroes these for every call: what is large belongs behind them, not into them.
static_assert(sizeof(CallArguments3) <= 1024 && sizeof(CallResult3) <= 1024);
static_assert(alignof(CallArguments3) == 16);

void (*CallInfo3::freeTransportCopy)(SVCXPRT*) = nullptr;

namespace {

uint64_t RoundedToPages(uint64_t bytes) {
    static const auto page = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
    return (bytes + page - 1) / page * page;
}

// An area of its own pages, followed by a page that cannot be touched, so that an overrun is a
// crash and never another call's data. Null when memory is short.
//
//   | bytes ... | rounding | guard |
void* MapArea(uint64_t bytes) {
    const uint64_t usable = RoundedToPages(bytes);
    const uint64_t guard = RoundedToPages(1);
    if (usable < bytes || usable + guard < usable) return nullptr;
    void* area = mmap(nullptr, usable + guard, PROT_NONE,
                      MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (area == MAP_FAILED) return nullptr;
    if (mprotect(area, usable, PROT_READ | PROT_WRITE) != 0) {
        munmap(area, usable + guard);
        return nullptr;
    }
    // Neighbouring areas would otherwise share huge pages, and the first touch of a record's
    // arguments would clear 2 MiB.
    (void)madvise(area, usable, MADV_NOHUGEPAGE);  // only a saving
#if defined(__SANITIZE_ADDRESS__)
    ASAN_POISON_MEMORY_REGION(static_cast<char*>(area) + bytes, usable - bytes);
#endif
    return area;
}

void UnmapArea(void* area, uint64_t bytes) {
    if (area == nullptr) return;
#if defined(__SANITIZE_ADDRESS__)
    ASAN_UNPOISON_MEMORY_REGION(area, RoundedToPages(bytes));
#endif
    munmap(area, RoundedToPages(bytes) + RoundedToPages(1));
}

}  // namespace

CallInfo3::CallInfo3() {
    FitArgumentArea();
    ZeroCall();
}

CallInfo3::~CallInfo3() {
    if (transportCopy != nullptr && freeTransportCopy != nullptr) freeTransportCopy(transportCopy);
    UnmapArea(arguments_, argumentBytes_);
    UnmapArea(readBuffer_, readBufferBytes_);
}

void CallInfo3::Reset() noexcept {
    transport = nullptr;
    row = nullptr;
    exportPtr.reset();
    replyBytes = 0;
    ZeroCall();
    clear_ = true;
}

void CallInfo3::ClearCall() {
    if (!clear_) ZeroCall();
    clear_ = false;
    FitArgumentArea();
}

void CallInfo3::ZeroCall() noexcept {
    procedure = 0;
    memset(&result, 0, sizeof(result));
    memset(static_cast<void*>(arguments_), 0, sizeof(CallArguments3));
}

// The decoder of WRITE takes WriteAreaBytes() for granted, and the pool is filled before the
// transfer size is known.
void CallInfo3::FitArgumentArea() {
    const uint64_t wanted = sizeof(CallArguments3) + WriteAreaBytes();
    if (argumentBytes_ >= wanted) return;
    void* area = MapArea(wanted);  // zero
    if (area == nullptr) throw std::bad_alloc();
    UnmapArea(arguments_, argumentBytes_);
    arguments_ = static_cast<CallArguments3*>(area);
    argumentBytes_ = wanted;
}

char* CallInfo3::ReadBuffer(uint64_t bytes) {
    if (readBufferBytes_ < bytes) {
        // Room for every later READ too: pages that are not used cost nothing.
        const uint64_t wanted = bytes > NFS3_MAXBUF_SIZE ? bytes : NFS3_MAXBUF_SIZE + 1;
        void* area = MapArea(wanted);
        if (area == nullptr) return nullptr;
        UnmapArea(readBuffer_, readBufferBytes_);
        readBuffer_ = static_cast<char*>(area);
        readBufferBytes_ = wanted;
    }
    return readBuffer_;
}

void CallInfo3::SetMachineName(const char* name) {
    if (name == nullptr) {
        identity.machineName = nullptr;
        return;
    }
    const size_t length = strnlen(name, sizeof(machineName_) - 1);
    memcpy(machineName_, name, length);
    machineName_[length] = '\0';
    identity.machineName = machineName_;
}

template <typename T>
TMemPool<T>::~TMemPool() {
    for (T* record : free_) delete record;
}

template <typename T>
void TMemPool<T>::Init(int count) {
    XoCriticalSectionGuard hold(lock_);
    all_.reserve(all_.size() + static_cast<size_t>(count));
    for (int i = 0; i < count; ++i) {
        auto record = std::make_unique<T>();
        free_.push_back(record.get());
        all_.push_back(record.release());  // the list owns it now
    }
}

// The event is a hint for those who wait. It keeps no count: two records given back before the
// first waiter runs set it once, so a waiter that leaves records behind passes the hint on (in
// Pop).
template <typename T>
void TMemPool<T>::Push(T* record) {
    lock_.enter();
    if (spareNodes_.empty()) {
        try {
            spareNodes_.push_back(nullptr);
        } catch (...) {
            lock_.leave();
            throw;
        }
    }
    spareNodes_.front() = record;
    free_.splice(free_.end(), spareNodes_, spareNodes_.begin());
    const bool someoneWaits = waiters_ != 0;
    lock_.leave();
    if (someoneWaits) available_.set();
}

template <typename T>
T* TMemPool<T>::Take(typename std::list<T*>::iterator node) {
    T* record = *node;
    spareNodes_.splice(spareNodes_.end(), free_, node);
    return record;
}

template <typename T>
T* TMemPool<T>::Pop() {
    lock_.enter();
    const uint64_t began = free_.empty() ? oxel::MonotonicNanoseconds() : 0;
    while (free_.empty()) {
        ++waiters_;
        lock_.leave();
        available_.wait();
        lock_.enter();
        --waiters_;
    }
    T* record = Take(free_.begin());
    const bool passOn = waiters_ != 0 && !free_.empty();
    lock_.leave();
    if (passOn) available_.set();
    if (began != 0) CountWait(oxel::MonotonicNanoseconds() - began);
    return record;
}

template <typename T>
T* TMemPool<T>::TryPopRecent() {
    XoCriticalSectionGuard hold(lock_);
    return free_.empty() ? nullptr : Take(std::prev(free_.end()));
}

template <typename T>
size_t TMemPool<T>::Total() const {
    XoCriticalSectionGuard hold(lock_);
    return all_.size();
}

template <typename T>
size_t TMemPool<T>::Free() const {
    XoCriticalSectionGuard hold(lock_);
    return free_.size();
}

template <typename T>
std::vector<const T*> TMemPool<T>::All() const {
    XoCriticalSectionGuard hold(lock_);
    return all_;
}

template class TMemPool<CallInfo3>;

TMemPool<CallInfo3>& gCallInfoPool = *new TMemPool<CallInfo3>;
