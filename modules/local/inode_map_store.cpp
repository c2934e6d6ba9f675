// SPDX-License-Identifier: Apache-2.0
//
// Reading and writing of records, and the file's growth.
#include "modules/local/inode_map_store.h"

#include <endian.h>
#include <lmdb.h>

#include <cerrno>
#include <cstring>
#include <new>

#include "base/log.h"
#include "modules/local/syscalls.h"

namespace oxel::local {
namespace {

constexpr size_t kRecordBytesMax = 400;
// Records in one transaction: so many that its cost is shared, so few that its changed pages fit
// what LMDB keeps in memory.
constexpr size_t kTransactionMax = 10000;
constexpr int64_t kRetryMs = int64_t{30} * 1000;

// Sorted as bytes, so that a share's objects stand together and those made one after the other
// mostly share a page.
struct KeyBytes {
    explicit KeyBytes(const InodeStore::Key& key)
        : words{htobe64(key.share), htobe64(key.inode)}, value{sizeof words, words} {}
    KeyBytes(const KeyBytes&) = delete;
    KeyBytes& operator=(const KeyBytes&) = delete;
    uint64_t words[2];
    MDB_val value;
};

}  // namespace

// A snapshot of the environment. LMDB ties a read transaction to its thread unless MDB_NOTLS is
// set; with it any thread may use one that nobody else is using, which the pool makes sure of.
// Renewing one from the pool takes no lock between processes.
class InodeStore::Reader {
  public:
    explicit Reader(InodeStore& store) : store_(store), map_(store.mapSection_) {
        {
            XoCriticalSectionGuard lock(store_.readersMutex_);
            if (!store_.readers_.empty()) {
                transaction_ = store_.readers_.back();
                store_.readers_.pop_back();
            }
        }
        const int error = transaction_ != nullptr ? mdb_txn_renew(transaction_)
                                                  : mdb_txn_begin(store_.environment_, nullptr,
                                                                  MDB_RDONLY, &transaction_);
        if (error != 0 && transaction_ != nullptr) {
            mdb_txn_abort(transaction_);
            transaction_ = nullptr;
        }
    }
    ~Reader() {
        if (transaction_ == nullptr) return;
        mdb_txn_reset(transaction_);
        try {
            XoCriticalSectionGuard lock(store_.readersMutex_);
            store_.readers_.push_back(transaction_);
        } catch (...) {
            mdb_txn_abort(transaction_);
        }
    }
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

    bool Get(const Key& key, std::string* record) {
        KeyBytes bytes(key);
        MDB_val found;
        if (transaction_ == nullptr ||
            mdb_get(transaction_, store_.database_, &bytes.value, &found) != 0) {
            return false;
        }
        record->assign(static_cast<const char*>(found.mv_data), found.mv_size);
        return true;
    }

  private:
    InodeStore& store_;
    const SharedGuard map_;
    MDB_txn* transaction_ = nullptr;
};

bool InodeStore::Get(const Key& key, std::string* record) {
    if (Unwritten() != 0) {
        XoCriticalSectionGuard lock(tablesMutex_);
        for (const Table* table : {&unwritten_, &beingWritten_}) {
            const auto it = table->find(key);
            if (it == table->end()) continue;
            if (!it->second) return false;
            *record = *it->second;
            return true;
        }
    }
    return environment_ != nullptr && Reader(*this).Get(key, record);
}

void InodeStore::Set(const Key& key, const std::string& record) {
    if (record.size() <= kRecordBytesMax) Change(key, record);
}

void InodeStore::Erase(const Key& key) {
    Change(key, std::nullopt);
}

void InodeStore::Change(const Key& key, std::optional<std::string> record) {
    XoCriticalSectionGuard lock(tablesMutex_);
    if (environment_ == nullptr && !record)
        unwritten_.erase(key);
    else
        unwritten_[key] = std::move(record);
    unwrittenCount_.store(unwritten_.size() + beingWritten_.size(), std::memory_order_release);
}

// Threads that come while another one writes wait for it and then find their own records written
// by the first of them.
void InodeStore::Flush() noexcept {
    if (environment_ == nullptr || Unwritten() == 0) return;
    XoCriticalSectionGuard commit(commitMutex_);
    if (failed_ && NowMs() < retryAtMs_) return;
    {
        XoCriticalSectionGuard lock(tablesMutex_);
        if (unwritten_.empty()) return;
        beingWritten_.swap(unwritten_);
    }
    const int error = Commit(BeingWritten());
    Table done;
    {
        XoCriticalSectionGuard lock(tablesMutex_);
        try {
            // What has been set meanwhile is newer.
            if (error != 0) unwritten_.merge(beingWritten_);
        } catch (const std::bad_alloc&) {
            // Then these are found by a search.
        }
        done.swap(beingWritten_);
        unwrittenCount_.store(unwritten_.size(), std::memory_order_release);
    }
    Outcome(error);
}

void InodeStore::Outcome(int error) {
    if (error != 0) {
        retryAtMs_ = NowMs() + kRetryMs;
        if (!failed_) {
            OXEL_LOG(-1,
                     "Warning: The places of files cannot be written to [%s]: %s. They are kept in "
                     "memory until they can.",
                     directory_.c_str(), mdb_strerror(error));
        }
    } else if (failed_) {
        OXEL_LOG(-1, "The places of files are written to [%s] again.", directory_.c_str());
    }
    failed_ = error != 0;
}

int InodeStore::Commit(const Table& table) {
    for (auto at = table.begin(); at != table.end();) {
        const auto begin = at;
        const int error = CommitSome(&at, table.end());
        if (error == MDB_MAP_FULL && Grow())
            at = begin;
        else if (error != 0)
            return error;
    }
    return 0;
}

int InodeStore::CommitSome(Table::const_iterator* at, Table::const_iterator end) {
    SharedGuard map(mapSection_);
    MDB_txn* transaction = nullptr;
    int error = mdb_txn_begin(environment_, nullptr, 0, &transaction);
    if (error != 0) return error;
    for (size_t count = 0; *at != end && count < kTransactionMax; ++*at, ++count) {
        KeyBytes key((*at)->first);
        if (const std::optional<std::string>& record = (*at)->second; record) {
            // LMDB only reads it.
            MDB_val value{record->size(), const_cast<char*>(record->data())};
            error = mdb_put(transaction, database_, &key.value, &value, 0);
        } else {
            error = mdb_del(transaction, database_, &key.value, nullptr);
            if (error == MDB_NOTFOUND) error = 0;
        }
        if (error != 0) {
            mdb_txn_abort(transaction);
            return error;
        }
    }
    return mdb_txn_commit(transaction);  // frees it, whatever comes of it
}

bool InodeStore::Grow() {
    ExclusiveGuard map(mapSection_);
    MDB_envinfo info;
    if (mdb_env_info(environment_, &info) != 0) return false;
    const size_t bytes = info.me_mapsize * 2;
    return bytes <= limits_.bytesMax && mdb_env_set_mapsize(environment_, bytes) == 0;
}

}  // namespace oxel::local
