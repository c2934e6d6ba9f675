// SPDX-License-Identifier: Apache-2.0
//
// The cache of resolved objects.
#include "modules/local/object_cache.h"

#include <sys/resource.h>

#include <algorithm>
#include <bit>

#include "modules/local/object.h"
#include "modules/local/syscalls.h"

namespace oxel::local {
namespace {

constexpr unsigned long kObjectsMax = 16384;

// A quarter of the descriptors that the process may have; connections and open files need the rest.
unsigned long Bound() {
    rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return 256;
    return std::min<unsigned long>(kObjectsMax, limit.rlim_cur / 4);
}

}  // namespace

ObjectCache& ObjectCache::Instance() {
    static ObjectCache* instance = new ObjectCache;  // outlives every thread
    return *instance;
}

// Twice as many places as objects, so that few take another one's.
ObjectCache::ObjectCache()
    : placesMask_(std::bit_ceil(2 * Bound()) - 1), places_(new Place[placesMask_ + 1]) {
    for (Shard& shard : shards_) shard.setSize(std::max(1ul, Bound() / kShards));
}

size_t ObjectCache::PlaceHash(uint64_t share, uint64_t inode) {
    const uint64_t hash = (inode + (share << 56)) * 0x9e3779b97f4a7c15;
    return hash ^ hash >> 32;
}

boost::shared_ptr<LocalObject> ObjectCache::FindInode(uint64_t share, uint64_t inode) {
    const size_t hash = PlaceHash(share, inode);
    XoCriticalSectionGuard lock(placeMutexes_[hash % kShards]);
    const Place& place = places_[hash & placesMask_];
    if (place.inode != inode || place.share != share) return nullptr;
    return place.object.lock();
}

boost::shared_ptr<LocalObject> ObjectCache::Find(const ObjectKey& key) {
    boost::shared_ptr<LocalObject> object;
    ShardOf(key).find(key, &object);
    return object;
}

void ObjectCache::Put(const boost::shared_ptr<LocalObject>& object) {
    const ObjectKey key{object->Share().Serial(), object->Node().Id()};
    ShardOf(key).insert(key, object);
    if (object->Node().Device() != object->Share().Device() || !object->Node().IsOpen()) return;
    const uint64_t inode = object->Node().Inode();
    const size_t hash = PlaceHash(key.share, inode);
    boost::weak_ptr<LocalObject> before(object);  // dies after the lock
    XoCriticalSectionGuard lock(placeMutexes_[hash % kShards]);
    Place& place = places_[hash & placesMask_];
    place.share = key.share;
    place.inode = inode;
    place.object.swap(before);
}

void ObjectCache::Drop(const LocalObject& object) {
    const ObjectKey key{object.Share().Serial(), object.Node().Id()};
    ShardOf(key).erase(key);
}

void ObjectCache::DropShare(uint64_t share) {
    for (Shard& shard : shards_) {
        shard.eraseIf([&](const ObjectKey& key, const auto&) { return key.share == share; });
    }
}

void ObjectCache::DropIdle(int64_t beforeMs) {
    for (Shard& shard : shards_) {
        shard.eraseIf([&](const ObjectKey&, const boost::shared_ptr<LocalObject>& object) {
            return object->Node().UsedMs() < beforeMs;
        });
    }
}

void ObjectCache::DropHalf() {
    for (Shard& shard : shards_) shard.eraseOldest(shard.count() - shard.count() / 2);
}

void ObjectCache::Clear() {
    for (Shard& shard : shards_) shard.eraseOldest(shard.count());
}

size_t ObjectCache::Count() const {
    size_t count = 0;
    for (const Shard& shard : shards_) count += shard.count();
    return count;
}

}  // namespace oxel::local
