// SPDX-License-Identifier: Apache-2.0
//
// The map that outlives the process: its records' form, and when they are written.
#include "modules/local/inode_map.h"

#include <cerrno>
#include <cstring>

#include "base/sync.h"
#include "modules/local/handle_codec.h"
#include "modules/local/inode_map_store.h"
#include "modules/local/local_module.h"
#include "modules/local/names.h"

namespace oxel::local {
namespace {

// Records that a batch gathers before they are written anyway.
constexpr size_t kBatchMax = 1000;

thread_local int batchDepth = 0;

// The one store of the process. It stays open when the last share that uses it goes: the next one
// may be opened while the end of the last one is still under way.
struct Keeper {
    XoCriticalSection mutex;
    std::string directory GUARDED_BY(mutex);  // empty: none
    std::shared_ptr<InodeStore> store GUARDED_BY(mutex);
    std::weak_ptr<InodeStore> before GUARDED_BY(mutex);  // of an earlier KeepPlacesIn

    std::shared_ptr<InodeStore> Get() {
        XoCriticalSectionGuard lock(mutex);
        if (directory.empty() || store) return store;
        store = before.lock();
        if (!store || store->Directory() != directory) store = InodeStore::Open(directory);
        return store;
    }
    std::shared_ptr<InodeStore> IfOpen() {
        XoCriticalSectionGuard lock(mutex);
        return store;
    }
};
Keeper& keeper() {
    static Keeper* instance = new Keeper;  // outlives every thread
    return *instance;
}

// FNV-1a. Two shares with the same number would mix up their hints, which costs searches.
uint64_t ShareNumber(uint32_t shareId, std::string_view rootBody) {
    uint64_t hash = 0xcbf29ce484222325;
    const auto add = [&](unsigned char byte) { hash = (hash ^ byte) * 0x100000001b3; };
    for (int shift = 0; shift < 32; shift += 8) add(static_cast<unsigned char>(shareId >> shift));
    for (const char byte : rootBody) add(static_cast<unsigned char>(byte));
    return hash;
}

// A record:  | length of parent, 1 | parent's body | name |
std::string Encode(const InodePlace& place) {
    std::string record(1, static_cast<char>(place.parent.size()));
    return record.append(place.parent).append(place.name);
}

bool Decode(const std::string& record, InodePlace* place) {
    if (record.empty()) return false;
    const size_t parentBytes = static_cast<unsigned char>(record[0]);
    if (parentBytes > ObjectId::kBodyBytesMax || record.size() < 1 + parentBytes) return false;
    std::string name = record.substr(1 + parentBytes);
    if (IsDots(name) || NameError(name) != 0) return false;
    place->parent = record.substr(1, parentBytes);
    place->name = std::move(name);
    return true;
}

class StoredInodeMap final : public InodeMap {
  public:
    StoredInodeMap(uint64_t share, std::shared_ptr<InodeStore> store)
        : share_(share), store_(std::move(store)) {}

    bool Find(uint64_t inode, InodePlace* place) override {
        std::string record;
        return store_->Get({share_, inode}, &record) && Decode(record, place);
    }
    // Most of what is put is known already and costs one look.
    void Put(uint64_t inode, const InodePlace& place) override {
        const std::string record = Encode(place);
        std::string known;
        if (store_->Get({share_, inode}, &known) && known == record) return;
        store_->Set({share_, inode}, record);
        Written();
    }
    void PutIfRoom(uint64_t inode, const InodePlace& place) override { Put(inode, place); }
    void Remove(uint64_t inode) override {
        std::string known;
        if (!store_->Get({share_, inode}, &known)) return;
        store_->Erase({share_, inode});
        Written();
    }
    void Flush() noexcept override { store_->Flush(); }

  private:
    void Written() {
        if (batchDepth == 0 || store_->Unwritten() >= kBatchMax) store_->Flush();
    }

    const uint64_t share_;
    const std::shared_ptr<InodeStore> store_;
};

}  // namespace

bool MemoryInodeMap::FindId(uint64_t inode, std::string_view parent, std::string_view name,
                            InodeId* known, bool* placed) {
    bool found = false;
    records_.with(inode, [&](const Record& record) {
        found = record.known.id.length != 0;
        if (!found) return;
        *known = record.known;
        *placed = record.IsAt(parent, name);
    });
    return found;
}

PlacesBatch::PlacesBatch(InodeMap& map) : map_(map) {
    ++batchDepth;
}

PlacesBatch::~PlacesBatch() {
    if (--batchDepth != 0) return;
    const int error = errno;  // of what was done meanwhile
    map_.Flush();
    errno = error;
}

std::unique_ptr<InodeMap> MakeLastingInodeMap(uint32_t shareId, std::string_view rootBody) {
    if (std::shared_ptr<InodeStore> store = keeper().Get()) {
        return std::make_unique<StoredInodeMap>(ShareNumber(shareId, rootBody), std::move(store));
    }
    return std::make_unique<MemoryInodeMap>(MemoryInodeMap::kUnbounded);
}

void FlushPlaces() {
    if (const std::shared_ptr<InodeStore> store = keeper().IfOpen()) store->Flush();
}

}  // namespace oxel::local

namespace oxel {

void KeepPlacesIn(const std::string& directory) {
    local::Keeper& keeper = local::keeper();
    XoCriticalSectionGuard lock(keeper.mutex);
    keeper.directory = directory;
    keeper.before = keeper.store;
    keeper.store.reset();
}

void SettlePlaces() {
    if (const std::shared_ptr<local::InodeStore> store = local::keeper().IfOpen()) store->Settle();
}

}  // namespace oxel
