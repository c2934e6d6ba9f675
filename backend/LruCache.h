// SPDX-License-Identifier: Apache-2.0
//
// A map with a bound that forgets what was used least recently.
#pragma once

#include <functional>
#include <list>
#include <unordered_map>
#include <utility>
#include <vector>

#include "base/sync.h"

// Any thread. Evicted and removed values are destroyed after the mutex is released, so a value's
// destructor may do I/O (close a descriptor) without holding others up.
template <typename Key, typename Value, typename Hash = std::hash<Key>>
class LruCache {
  public:
    explicit LruCache(unsigned long limit = 0) : limit_(limit) {}

    // Sets the limit. Entries are dropped, oldest first, while the total is NOT above the old
    // limit, which empties a cache that keeps its bound: setting the size starts the cache anew.
    void setSize(unsigned long limit) {
        std::vector<Value> dropped;
        XoCriticalSectionGuard lock(mutex_);
        while (!order_.empty() && total_ <= limit_) DropOldest(&dropped);
        limit_ = limit;
    }

    // A copy of the value, which becomes the most recently used.
    bool find(const Key& key, Value* out) {
        XoCriticalSectionGuard lock(mutex_);
        auto it = index_.find(key);
        if (it == index_.end()) return false;
        order_.splice(order_.begin(), order_, it->second);
        *out = it->second->value;
        return true;
    }

    // Runs `visit(value)` on the value, which becomes the most recently used; false when there is
    // none. The mutex is held meanwhile.
    template <typename Visit>
    bool with(const Key& key, Visit visit) {
        XoCriticalSectionGuard lock(mutex_);
        auto it = index_.find(key);
        if (it == index_.end()) return false;
        order_.splice(order_.begin(), order_, it->second);
        visit(it->second->value);
        return true;
    }

    // Puts or replaces; `size` counts against the limit. What no longer fits is dropped, oldest
    // first; a limit of 0 keeps nothing. A caller that holds a lock of its own takes what was
    // dropped through `out` and lets it die later.
    void insert(const Key& key, Value value, unsigned long size = 1,
                std::vector<Value>* out = nullptr) {
        std::vector<Value> own;
        std::vector<Value>& dropped = out != nullptr ? *out : own;
        XoCriticalSectionGuard lock(mutex_);
        EraseLocked(key, &dropped);
        order_.push_front(Entry{key, std::move(value), size});
        try {
            index_[key] = order_.begin();
        } catch (...) {
            order_.pop_front();
            throw;
        }
        total_ += size;
        while (!order_.empty() && total_ > limit_) DropOldest(&dropped);
    }

    bool erase(const Key& key) {
        std::vector<Value> dropped;
        XoCriticalSectionGuard lock(mutex_);
        return EraseLocked(key, &dropped);
    }

    // Removes every entry for which `match(key, value)` holds; the number removed. Linear.
    template <typename Match>
    size_t eraseIf(Match match) {
        std::vector<Value> dropped;
        XoCriticalSectionGuard lock(mutex_);
        for (auto it = order_.begin(); it != order_.end();) {
            auto next = std::next(it);
            if (match(it->key, it->value)) {
                dropped.push_back(std::move(it->value));
                total_ -= it->size;
                index_.erase(it->key);
                order_.erase(it);
            }
            it = next;
        }
        return dropped.size();
    }

    // Removes the `number` entries that were used least recently, or all there are.
    void eraseOldest(size_t number) {
        std::vector<Value> dropped;
        XoCriticalSectionGuard lock(mutex_);
        for (; number > 0 && !order_.empty(); --number) DropOldest(&dropped);
    }

    size_t count() const {
        XoCriticalSectionGuard lock(mutex_);
        return index_.size();
    }
    unsigned long total() const {
        XoCriticalSectionGuard lock(mutex_);
        return total_;
    }
    unsigned long limit() const {
        XoCriticalSectionGuard lock(mutex_);
        return limit_;
    }

  private:
    struct Entry {
        Key key;
        Value value;
        unsigned long size;
    };

    // Callers declare `dropped` before taking the lock, so that it dies after the unlock.
    void DropOldest(std::vector<Value>* dropped) REQUIRES(mutex_) {
        Entry& oldest = order_.back();
        dropped->push_back(std::move(oldest.value));
        total_ -= oldest.size;
        index_.erase(oldest.key);
        order_.pop_back();
    }

    bool EraseLocked(const Key& key, std::vector<Value>* dropped) REQUIRES(mutex_) {
        auto it = index_.find(key);
        if (it == index_.end()) return false;
        dropped->push_back(std::move(it->second->value));
        total_ -= it->second->size;
        order_.erase(it->second);
        index_.erase(it);
        return true;
    }

    mutable XoCriticalSection mutex_;
    std::list<Entry> order_ GUARDED_BY(mutex_);  // most recently used first
    std::unordered_map<Key, typename std::list<Entry>::iterator, Hash> index_ GUARDED_BY(mutex_);
    unsigned long limit_ GUARDED_BY(mutex_);
    unsigned long total_ GUARDED_BY(mutex_) = 0;
};
