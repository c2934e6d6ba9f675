// SPDX-License-Identifier: Apache-2.0
//
// Where objects were last seen: from an inode number to the directory that holds it and the name
// there. What the map says is a hint that is verified wherever it is used, so an outdated record
// costs a search and nothing else.
#pragma once

#include <cstdint>
#include <string>

#include "backend/LruCache.h"

namespace oxel::local {

// One name of an object. An object with several hard links has the one that was seen last.
struct InodePlace {
    std::string parent;  // the directory's object id body, of the share's kind
    std::string name;
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

}  // namespace oxel::local
