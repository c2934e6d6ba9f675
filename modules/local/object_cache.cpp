// SPDX-License-Identifier: Apache-2.0
//
// The cache of resolved objects.
#include "modules/local/object_cache.h"

#include <sys/resource.h>

#include <algorithm>

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

ObjectCache::ObjectCache() {
    for (Shard& shard : shards_) shard.setSize(std::max(1ul, Bound() / kShards));
}

boost::shared_ptr<LocalObject> ObjectCache::Find(const ObjectKey& key) {
    boost::shared_ptr<LocalObject> object;
    ShardOf(key).find(key, &object);
    return object;
}

void ObjectCache::Put(const boost::shared_ptr<LocalObject>& object) {
    const ObjectKey key{object->Share().Serial(), object->Node().Id()};
    ShardOf(key).insert(key, object);
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
