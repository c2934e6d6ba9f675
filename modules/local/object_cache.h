// SPDX-License-Identifier: Apache-2.0
//
// Objects that were resolved lately, by handle, so that a call on one of them needs no resolving.
#pragma once

#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>
#include <cstdint>
#include <memory>

#include "backend/LruCache.h"
#include "base/sync.h"
#include "modules/local/handle_codec.h"

namespace oxel::local {

class LocalObject;

struct ObjectKey {
    uint64_t share;  // ShareRoot::Serial
    ObjectId id;
    bool operator==(const ObjectKey&) const = default;
};
struct ObjectKeyHash {
    size_t operator()(const ObjectKey& key) const noexcept { return key.share ^ key.id.Hash(); }
};

// Any thread. Bounded: each object holds an open descriptor. What is found here may have been
// removed or renamed since; the finder checks.
class ObjectCache {
  public:
    static ObjectCache& Instance();

    boost::shared_ptr<LocalObject> Find(const ObjectKey& key);
    // The object of the share that has this inode number on the share's device: it is open, so the
    // number cannot have gone to another one. What is not found may still be cached.
    boost::shared_ptr<LocalObject> FindInode(uint64_t share, uint64_t inode);
    void Put(const boost::shared_ptr<LocalObject>& object);
    void Drop(const LocalObject& object);
    // Every object of a share that is no longer exported.
    void DropShare(uint64_t share);
    // Objects that no call has used since `beforeMs` (of NowMs): an open descriptor keeps a removed
    // file's blocks allocated.
    void DropIdle(int64_t beforeMs);
    // The half that was used least recently: the process is out of descriptors.
    void DropHalf();
    void Clear();
    size_t Count() const;

  private:
    ObjectCache();
    // Split by handle, so that threads seldom wait for each other.
    static constexpr size_t kShards = 16;
    using Shard = LruCache<ObjectKey, boost::shared_ptr<LocalObject>, ObjectKeyHash>;
    Shard& ShardOf(const ObjectKey& key) { return shards_[(key.id.Hash() >> 56) % kShards]; }
    Shard shards_[kShards];

    // The cached objects by inode number. A place for each that is taken over by the next one with
    // the same hash; weak, so that an object goes when the shards let it go.
    struct Place {
        uint64_t share = 0, inode = 0;
        boost::weak_ptr<LocalObject> object;
    };
    static size_t PlaceHash(uint64_t share, uint64_t inode);
    const size_t placesMask_;
    std::unique_ptr<Place[]> places_;  // each guarded by one of placeMutexes_
    XoCriticalSection placeMutexes_[kShards];
};

}  // namespace oxel::local
