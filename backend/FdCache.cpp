// SPDX-License-Identifier: Apache-2.0
//
// The cache of open descriptors. Nothing is closed while a lock is held: closing can wait for a
// disk or a network.
#include "backend/FdCache.h"

#include <time.h>

#include <algorithm>

FdCache gFdCache;

namespace {

int64_t NowMs() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

}  // namespace

size_t std::hash<CacheKey>::operator()(const CacheKey& key) const noexcept {
    uint64_t hash = key.generation;
    const auto mix = [&](uint64_t part) {
        hash = (hash ^ part) * 0x9e3779b97f4a7c15;
        hash ^= hash >> 32;
    };
    mix(key.device);
    mix(key.inode);
    mix(static_cast<uint64_t>(key.access));
    mix(uint64_t{key.uid} << 32 | key.gid);
    for (const gid_t group : key.groups) mix(group);
    return hash;
}

void FdCache::Init(int size) {
    XoCriticalSectionGuard guard(section_);
    capacity_ = size;
    entries_ = 0;
    list_.setSize(static_cast<unsigned long>(std::max(size, 0)));
}

int FdCache::Use(const std::shared_ptr<CachedFdItem>& item) {
    const int fd = item->fd.Get();
    if (inUse_.size() <= static_cast<size_t>(fd)) inUse_.resize(static_cast<size_t>(fd) + 1);
    auto& use = inUse_[static_cast<size_t>(fd)];
    if (use.second == 0) use.first = item;
    ++use.second;
    item->usedMs.store(NowMs(), std::memory_order_relaxed);
    return fd;
}

int FdCache::Acquire(const CacheKey& key) {
    std::shared_ptr<CachedFdItem> item;
    if (!list_.find(key, &item)) return -1;
    XoCriticalSectionGuard guard(section_);
    return Use(item);
}

int FdCache::Add(const CacheKey& key, oxel::UniqueFd fd) {
    // Declared first, so that they die after the section is left.
    std::vector<std::shared_ptr<CachedFdItem>> evicted;
    auto item = std::make_shared<CachedFdItem>(std::move(fd), OpenOn(key.device, key.inode));
    std::shared_ptr<CachedFdItem> known;
    XoCriticalSectionGuard guard(section_);
    if (list_.find(key, &known)) return Use(known);
    // In this order: a use that nobody has been told of would never be released.
    list_.insert(key, item, 1, &evicted);
    ++entries_;
    return Use(item);
}

bool FdCache::Release(int fd) {
    std::shared_ptr<CachedFdItem> last;
    XoCriticalSectionGuard guard(section_);
    if (fd < 0 || static_cast<size_t>(fd) >= inUse_.size()) return false;
    auto& use = inUse_[static_cast<size_t>(fd)];
    if (use.second == 0) return false;
    if (--use.second == 0) last = std::move(use.first);
    return true;
}

std::atomic<unsigned>& FdCache::OpenOn(uint64_t device, uint64_t inode) {
    const uint64_t hash = (inode ^ device << 40) * 0x9e3779b97f4a7c15;
    return openOn_[(hash >> 32) % kOpenOn];
}

void FdCache::Forget(uint64_t device, uint64_t inode) {
    if (OpenOn(device, inode).load() == 0) return;
    list_.eraseIf([&](const CacheKey& key, const auto&) {
        return key.inode == inode && key.device == device;
    });
}

void FdCache::Clear() {
    list_.eraseOldest(list_.count());
}

void FdCache::ForgetIdle(unsigned idleMs) {
    const int64_t before = NowMs() - int64_t{idleMs};
    list_.eraseIf([&](const CacheKey&, const std::shared_ptr<CachedFdItem>& item) {
        return item->usedMs.load(std::memory_order_relaxed) <= before;
    });
}

size_t FdCache::Count() const {
    return list_.count();
}
