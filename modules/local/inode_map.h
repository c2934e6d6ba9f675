// SPDX-License-Identifier: Apache-2.0
//
// Where objects were last seen: from an inode number to the directory that holds it and the name
// there. What the map says is a hint that is verified wherever it is used, so an outdated record
// costs a search and nothing else. For the same reason a record is found by the inode number alone:
// the birth time that tells a re-used number apart stands in the handle, and the record of the
// number's new owner takes the place of the old one.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "backend/LruCache.h"

namespace oxel::local {

// One name of an object. An object with several hard links has the one that was seen last.
struct InodePlace {
    std::string parent;  // the directory's object id body, of the share's kind
    std::string name;
    bool operator==(const InodePlace&) const = default;
};

// Any thread.
class InodeMap {
  public:
    virtual ~InodeMap() = default;
    virtual bool Find(uint64_t inode, InodePlace* place) = 0;
    virtual void Put(uint64_t inode, const InodePlace& place) = 0;
    // Put that never pushes another record out; for what a search passes by.
    virtual void PutIfRoom(uint64_t inode, const InodePlace& place) = 0;
    virtual void Remove(uint64_t inode) = 0;
    // Makes what was put outlive the process. Only for PlacesBatch; Put does it by itself.
    virtual void Flush() noexcept {}
};

// While one lives, what its thread puts into maps is written together, at the end or when there is
// much of it: a page of a listing, or a search, knows many places at once.
class PlacesBatch {
  public:
    explicit PlacesBatch(InodeMap& map);
    ~PlacesBatch();
    PlacesBatch(const PlacesBatch&) = delete;
    PlacesBatch& operator=(const PlacesBatch&) = delete;

  private:
    InodeMap& map_;
};

// In memory, so lost with the process.
class MemoryInodeMap : public InodeMap {
  public:
    // `limit`: records kept; the least recently used give way. kUnbounded where handles resolve
    // through nothing but the map.
    static constexpr unsigned long kUnbounded = ~0ul;
    explicit MemoryInodeMap(unsigned long limit) : places_(limit) {}

    bool Find(uint64_t inode, InodePlace* place) override { return places_.find(inode, place); }
    void Put(uint64_t inode, const InodePlace& place) override { places_.insert(inode, place); }
    void PutIfRoom(uint64_t inode, const InodePlace& place) override {
        if (places_.count() < places_.limit()) places_.insert(inode, place);
    }
    void Remove(uint64_t inode) override { places_.erase(inode); }

  private:
    LruCache<uint64_t, InodePlace> places_;
};

// The map of a share whose handles resolve through nothing but the map: in the store that
// KeepPlacesIn named (local_module.h), which all shares of the process have in common, or in memory
// when none was named. `rootBody` is the object id body of the share's root: the same share id on
// another directory has other places.
std::unique_ptr<InodeMap> MakeLastingInodeMap(uint32_t shareId, std::string_view rootBody);

// Writes what could not be written before. To be called now and then, from any thread.
void FlushPlaces();

}  // namespace oxel::local
