// SPDX-License-Identifier: Apache-2.0
//
// Open descriptors that are kept between calls.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "backend/LruCache.h"
#include "base/sync.h"
#include "base/unique_fd.h"

// One kept descriptor: what it is open on, how, and with whose rights it was opened. Descriptors
// are never shared between callers whose rights differ.
struct CacheKey {
    uint64_t device;
    uint64_t inode;
    uint64_t generation;  // tells a re-used inode number from the object that had it before
    int access;           // O_RDONLY, O_WRONLY or O_RDWR
    uid_t uid;
    gid_t gid;
    std::vector<gid_t> groups;
    bool operator==(const CacheKey& other) const = default;
};
template <>
struct std::hash<CacheKey> {
    size_t operator()(const CacheKey& key) const noexcept;
};

// Closed when the last holder lets go: the cache, or a call that uses it.
struct CachedFdItem {
    CachedFdItem(oxel::UniqueFd descriptor, std::atomic<unsigned>& openOn)
        : fd(std::move(descriptor)), count(openOn) {
        count.fetch_add(1);
    }
    ~CachedFdItem() { count.fetch_sub(1); }
    CachedFdItem(const CachedFdItem&) = delete;
    CachedFdItem& operator=(const CachedFdItem&) = delete;
    oxel::UniqueFd fd;
    std::atomic<unsigned>& count;    // of those that are open on the object
    std::atomic<int64_t> usedMs{0};  // of a clock that never goes back
};

// Any thread. Bounded by the capacity; descriptors in use by a call stay open past eviction until
// the call releases them.
class FdCache {
  public:
    // Stores the capacity (0 or negative: nothing is kept), sets the entry counter to 0 and resizes
    // the list, which empties it.
    void Init(int size);

    // A kept descriptor for the key, or -1. A caller that got one must Release() it.
    int Acquire(const CacheKey& key);
    // Hands a freshly opened descriptor over; it counts as acquired by the caller. Returns the
    // descriptor to use, which another thread may have put there first.
    int Add(const CacheKey& key, oxel::UniqueFd fd);
    // Ends one use. False when the cache does not know the descriptor.
    bool Release(int fd);
    // Forgets every descriptor of an object: after removal, rename over it, truncation by others,
    // chmod or chown. Uses that are under way keep theirs.
    void Forget(uint64_t device, uint64_t inode);
    // Forgets everything (EMFILE: room for what cannot be opened otherwise).
    void Clear();
    // Forgets what no call has used for that long: the blocks of a removed file stay allocated
    // while it is open.
    void ForgetIdle(unsigned idleMs);
    size_t Count() const;

  private:
    int Use(const std::shared_ptr<CachedFdItem>& item) REQUIRES(section_);
    // Counts the descriptors that are open on an object, or on others with the same hash.
    std::atomic<unsigned>& OpenOn(uint64_t device, uint64_t inode);

    // Most of the objects that are removed or changed have no descriptor here; this tells without a
    // walk through the list.
    static constexpr size_t kOpenOn = 4096;
    std::atomic<unsigned> openOn_[kOpenOn] = {};

    mutable XoCriticalSection section_;
    int capacity_ GUARDED_BY(section_) = 0;
    unsigned long entries_ GUARDED_BY(section_) = 0;  // descriptors added since Init
    LruCache<CacheKey, std::shared_ptr<CachedFdItem>> list_;
    // Descriptors acquired by calls, by their number, with how often.
    std::vector<std::pair<std::shared_ptr<CachedFdItem>, unsigned>> inUse_ GUARDED_BY(section_);
};

extern FdCache gFdCache;
