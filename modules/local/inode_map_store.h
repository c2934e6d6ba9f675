// SPDX-License-Identifier: Apache-2.0
//
// Records on the disk by share and inode number, for InodeMap: an LMDB environment in a directory
// of its own.
//
// What is on the disk when. A record is in the kernel's page cache when Flush returns, so the end
// of the process, however sudden, loses nothing that a client was told. Nothing is synced while the
// process runs, because no call may wait for the disk: when the machine goes down, the kernel has
// written some pages and not others, and LMDB promises nothing about such a file. Therefore the
// file "in-use" holds the number of the running boot from before the first write until everything
// has been synced at an orderly end; a store that another boot left with that file is set aside.
// Everything in the store is a hint, so that costs a search of the share, as does a record that
// was lost.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "base/sync.h"

struct MDB_env;
struct MDB_txn;

namespace oxel::local {

// Any thread. One process at a time opens a directory (the instance's lock sees to it), and only
// once at a time.
class InodeStore {
  public:
    struct Key {
        uint64_t share, inode;
        bool operator==(const Key&) const = default;
    };
    // The file grows by doubling as records come; one takes about 100 bytes, and the room of erased
    // ones is used again. What does not fit into the most stays in memory.
    struct Limits {
        size_t bytes = size_t{64} << 20;
        size_t bytesMax = size_t{16} << 30;
    };

    // Never null: when the directory cannot be used, which is logged, records are in memory only.
    // A store that is damaged or cannot be read is set aside as "<directory>.bad" first. Reads the
    // whole file, about a second for each gigabyte.
    static std::shared_ptr<InodeStore> Open(const std::string& directory, const Limits& limits);
    static std::shared_ptr<InodeStore> Open(const std::string& directory) {
        return Open(directory, Limits());
    }
    // Settles.
    ~InodeStore();
    InodeStore(const InodeStore&) = delete;
    InodeStore& operator=(const InodeStore&) = delete;

    const std::string& Directory() const { return directory_; }
    bool Get(const Key& key, std::string* record);
    // Known to Get at once, written by the next Flush. Records of more than 400 bytes are refused
    // by not being kept.
    void Set(const Key& key, const std::string& record);
    void Erase(const Key& key);
    // The number of records that a Flush would write.
    size_t Unwritten() const { return unwrittenCount_.load(std::memory_order_acquire); }
    // Writes what was set and erased. When the disk refuses, that is logged once, the records stay
    // in memory, and later calls try again after a while.
    void Flush() noexcept EXCLUDES(commitMutex_, tablesMutex_);
    // Flush, and everything to the disk. Later changes are synced one by one: to be called when the
    // process ends.
    void Settle() noexcept EXCLUDES(commitMutex_, tablesMutex_);

  private:
    struct KeyHash {
        size_t operator()(const Key& key) const noexcept {
            return (key.share ^ key.inode) * 0x9e3779b97f4a7c15;
        }
    };
    // Nothing stands for an erased record.
    using Table = std::unordered_map<Key, std::optional<std::string>, KeyHash>;
    class Reader;
    friend class Reader;

    InodeStore(std::string directory, const Limits& limits);
    bool OpenOrSetAside(std::string* reason);
    int OpenEnvironment(std::string* reason);
    void CloseEnvironment();
    void Change(const Key& key, std::optional<std::string> record) EXCLUDES(tablesMutex_);
    int Commit(const Table& table) REQUIRES(commitMutex_);
    int CommitSome(Table::const_iterator* at, Table::const_iterator end) REQUIRES(commitMutex_);
    bool Grow() REQUIRES(commitMutex_);
    void Outcome(int error) REQUIRES(commitMutex_);
    // It changes under both locks only, so the holder of either may read it.
    const Table& BeingWritten() const REQUIRES(commitMutex_) NO_THREAD_SAFETY_ANALYSIS {
        return beingWritten_;
    }

    const std::string directory_;
    const Limits limits_;
    // Constant once Open has returned; null: in memory only.
    MDB_env* environment_ = nullptr;
    unsigned database_ = 0;

    std::atomic<size_t> unwrittenCount_{0};
    XoCriticalSection tablesMutex_;
    // Looked through in this order:
    Table unwritten_ GUARDED_BY(tablesMutex_);
    Table beingWritten_ GUARDED_BY(tablesMutex_);  // empty unless a thread has commitMutex_

    XoCriticalSection commitMutex_ ACQUIRED_BEFORE(tablesMutex_);
    int64_t retryAtMs_ GUARDED_BY(commitMutex_) = 0;
    bool failed_ GUARDED_BY(commitMutex_) = false;
    bool settled_ GUARDED_BY(commitMutex_) = false;

    SharedSection mapSection_;  // held by every transaction, alone by Grow
    XoCriticalSection readersMutex_;
    std::vector<MDB_txn*> readers_ GUARDED_BY(readersMutex_);  // reset, to be renewed
};

}  // namespace oxel::local
