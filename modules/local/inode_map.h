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
#include "modules/local/handle_codec.h"

namespace oxel::local {

// One name of an object. An object with several hard links has the one that was seen last.
struct InodePlace {
    std::string parent;  // the directory's object id body, of the share's kind
    std::string name;
    bool operator==(const InodePlace&) const = default;
};

// The object id that was made for an object, with the birth time that tells the object from a later
// owner of its inode number. Both times 0: none is known.
struct InodeId {
    int64_t birthSeconds = 0;
    uint32_t birthNanoseconds = 0;
    ObjectId id;
};

// Any thread.
class InodeMap {
  public:
    virtual ~InodeMap() = default;
    // A map of a share with kernel handles remembers object ids too, which saves asking the kernel.
    // True when one is known for the number; *placed is what IsPut says.
    virtual bool FindId(uint64_t inode, std::string_view parent, std::string_view name,
                        InodeId* known, bool* placed) {
        (void)inode, (void)parent, (void)name, (void)known, (void)placed;
        return false;
    }
    // The id of an object whose place has been put.
    virtual void PutId(uint64_t inode, const InodeId& known) { (void)inode, (void)known; }
    virtual bool Find(uint64_t inode, InodePlace* place) = 0;
    virtual void Put(uint64_t inode, const InodePlace& place) = 0;
    // Whether Put would change nothing. May be false where only Put itself finds out.
    virtual bool IsPut(uint64_t inode, std::string_view parent, std::string_view name) {
        (void)inode, (void)parent, (void)name;
        return false;
    }
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
    explicit MemoryInodeMap(unsigned long limit) : records_(limit) {}

    bool Find(uint64_t inode, InodePlace* place) override {
        return records_.with(inode, [&](const Record& record) { *place = record.place; });
    }
    void Put(uint64_t inode, const InodePlace& place) override {
        if (records_.with(inode, [&](Record& record) { record.Move(place.parent, place.name); }))
            return;
        records_.insert(inode, Record{place, {}});
    }
    bool IsPut(uint64_t inode, std::string_view parent, std::string_view name) override {
        bool is = false;
        records_.with(inode, [&](const Record& record) { is = record.IsAt(parent, name); });
        return is;
    }
    void PutIfRoom(uint64_t inode, const InodePlace& place) override {
        if (records_.count() < records_.limit()) Put(inode, place);
    }
    void Remove(uint64_t inode) override { records_.erase(inode); }
    bool FindId(uint64_t inode, std::string_view parent, std::string_view name, InodeId* known,
                bool* placed) override;
    void PutId(uint64_t inode, const InodeId& known) override {
        records_.with(inode, [&](Record& record) { record.known = known; });
    }

  private:
    struct Record {
        InodePlace place;
        InodeId known;
        bool IsAt(std::string_view parent, std::string_view name) const {
            return place.name == name && place.parent == parent;
        }
        void Move(std::string_view parent, std::string_view name) {
            if (place.parent != parent) place.parent = parent;
            if (place.name != name) place.name = name;
        }
    };
    LruCache<uint64_t, Record> records_;
};

// The map of a share whose handles resolve through nothing but the map: in the store that
// KeepPlacesIn named (local_module.h), which all shares of the process have in common, or in memory
// when none was named. `rootBody` is the object id body of the share's root: the same share id on
// another directory has other places.
std::unique_ptr<InodeMap> MakeLastingInodeMap(uint32_t shareId, std::string_view rootBody);

// Writes what could not be written before. To be called now and then, from any thread.
void FlushPlaces();

}  // namespace oxel::local
