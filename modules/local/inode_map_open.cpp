// SPDX-License-Identifier: Apache-2.0
//
// The store's life: opening it, setting a damaged one aside, and its orderly end.
#include <fcntl.h>
#include <lmdb.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "base/log.h"
#include "base/unique_fd.h"
#include "modules/local/inode_map_check.h"
#include "modules/local/inode_map_store.h"

namespace oxel::local {
namespace {

// Every thread that reads at the same time has a slot; there are not many more than handlers.
constexpr unsigned kReadersMax = 1024;
// Under this key stands the form of the other records.
char formKey[] = "form";
char formValue[] = "1";
constexpr char kUnknownBoot[] = "unknown\n";

std::string MarkOf(const std::string& directory) {
    return directory + "/in-use";
}

std::string ReadSmallFile(const std::string& file) {
    char text[128];
    const UniqueFd fd(open(file.c_str(), O_RDONLY | O_CLOEXEC));
    const ssize_t bytes = fd ? read(fd.Get(), text, sizeof text) : -1;
    return bytes > 0 ? std::string(text, static_cast<size_t>(bytes)) : std::string();
}

std::string ThisBoot() {
    std::string boot = ReadSmallFile("/proc/sys/kernel/random/boot_id");
    return boot.empty() ? kUnknownBoot : boot;
}

bool SyncDirectory(const std::string& directory) {
    const UniqueFd fd(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return fd && (fsync(fd.Get()) == 0 || errno == EINVAL);  // some file systems cannot
}

// On the disk before the first write to the store can be.
bool Mark(const std::string& directory) {
    const std::string boot = ThisBoot();
    if (ReadSmallFile(MarkOf(directory)) == boot) return true;
    const UniqueFd fd(
        open(MarkOf(directory).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    return fd && write(fd.Get(), boot.data(), boot.size()) == static_cast<ssize_t>(boot.size()) &&
           fsync(fd.Get()) == 0 && SyncDirectory(directory);
}

// Why the store may be torn, or empty: the last process that used it ended in this boot, or had
// synced everything. A boot that cannot be told from another is not believed to be the same.
std::string WhyTorn(const std::string& directory) {
    struct stat st;
    if (lstat(MarkOf(directory).c_str(), &st) != 0) {
        return errno == ENOENT ? std::string() : strerror(errno);
    }
    const std::string boot = ThisBoot();
    if (boot != kUnknownBoot && ReadSmallFile(MarkOf(directory)) == boot) return std::string();
    return "they were in use when the machine went down";
}

// LMDB's table of readers is a file that it maps and writes to. Left with holes, as LMDB makes it,
// it would end the process with SIGBUS as soon as a reader more than ever before comes while the
// disk is full. 0, or an errno.
int ReserveReaderTable(const std::string& directory) {
    constexpr off_t kBytesPerReader = 64, kHeaderBytes = 4096;
    const UniqueFd fd(open((directory + "/lock.mdb").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    return fd ? posix_fallocate(fd.Get(), 0, kReadersMax * kBytesPerReader + kHeaderBytes) : errno;
}

// Whether a fresh store in place of this one would fare better.
bool IsTheStoresFault(int error) {
    return error < 0 || error == EINVAL || error == EACCES || error == EPERM || error == EIO;
}

}  // namespace

InodeStore::InodeStore(std::string directory, const Limits& limits)
    : directory_(std::move(directory)), limits_(limits) {}

std::shared_ptr<InodeStore> InodeStore::Open(const std::string& directory, const Limits& limits) {
    std::shared_ptr<InodeStore> store(new InodeStore(directory, limits));
    std::string reason;
    if (!store->OpenOrSetAside(&reason)) {
        OXEL_LOG(-1,
                 "Warning: The places of files cannot be kept in [%s]: %s. After a restart the "
                 "shares are searched for what clients have handles of.",
                 directory.c_str(), reason.c_str());
    }
    return store;
}

// False with a reason when there is nothing but memory.
bool InodeStore::OpenOrSetAside(std::string* reason) {
    struct stat st;
    for (bool again = false;; again = true) {
        std::string bad;
        if (mkdir(directory_.c_str(), 0700) != 0) {
            if (errno != EEXIST) {
                *reason = strerror(errno);
                return false;
            }
            if (stat(directory_.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
                bad = "it is not a directory";
            else if (bad = WhyTorn(directory_); bad.empty())
                bad = CheckInodeStoreFile(directory_ + "/data.mdb");
        }
        if (bad.empty()) {
            if (!Mark(directory_)) {
                *reason = strerror(errno);
                return false;
            }
            const int error = OpenEnvironment(&bad);
            if (error == 0) return true;
            CloseEnvironment();
            if (!IsTheStoresFault(error)) {
                *reason = bad;
                return false;
            }
        }
        *reason = bad;
        const std::string aside = directory_ + ".bad";
        std::error_code ignored;
        if (!again) std::filesystem::remove_all(aside, ignored);
        if (again || rename(directory_.c_str(), aside.c_str()) != 0) return false;
        OXEL_LOG(-1,
                 "Warning: The places of files in [%s] cannot be used: %s. They are set aside in "
                 "[%s]; the shares are searched for what clients have handles of.",
                 directory_.c_str(), bad.c_str(), aside.c_str());
    }
}

// 0, or an error of LMDB's (negative) or the system's, with its text.
int InodeStore::OpenEnvironment(std::string* reason) {
    MDB_txn* transaction = nullptr;
    MDB_val key{sizeof formKey - 1, formKey}, value{sizeof formValue - 1, formValue}, found;
    int error = ReserveReaderTable(directory_);
    if (error == 0) error = mdb_env_create(&environment_);
    if (error == 0) error = mdb_env_set_maxreaders(environment_, kReadersMax);
    if (error == 0) error = mdb_env_set_mapsize(environment_, limits_.bytes);  // or as it has
    if (error == 0) {
        error = mdb_env_open(environment_, directory_.c_str(),
                             MDB_NOSYNC | MDB_NOTLS | MDB_NORDAHEAD, 0600);
    }
    if (error == 0) error = mdb_txn_begin(environment_, nullptr, 0, &transaction);
    if (error == 0) error = mdb_dbi_open(transaction, nullptr, 0, &database_);
    if (error == 0) {
        error = mdb_get(transaction, database_, &key, &found);
        if (error == MDB_NOTFOUND) {
            error = mdb_put(transaction, database_, &key, &value, 0);
        } else if (error == 0 && (found.mv_size != value.mv_size ||
                                  memcmp(found.mv_data, value.mv_data, value.mv_size) != 0)) {
            error = MDB_VERSION_MISMATCH;
        }
    }
    if (error == 0) {
        error = mdb_txn_commit(transaction);
        transaction = nullptr;
    }
    if (transaction != nullptr) mdb_txn_abort(transaction);
    if (error != 0) *reason = mdb_strerror(error);
    return error;
}

void InodeStore::CloseEnvironment() {
    XoCriticalSectionGuard lock(readersMutex_);
    for (MDB_txn* reader : readers_) mdb_txn_abort(reader);
    readers_.clear();
    if (environment_ != nullptr) mdb_env_close(environment_);
    environment_ = nullptr;
}

void InodeStore::Settle() noexcept {
    if (environment_ == nullptr) return;
    {
        XoCriticalSectionGuard commit(commitMutex_);
        retryAtMs_ = 0;  // the last chance
    }
    Flush();
    XoCriticalSectionGuard commit(commitMutex_);
    if (settled_) return;
    // From here on every commit syncs, so the mark is not needed any more.
    int error = mdb_env_set_flags(environment_, MDB_NOSYNC, 0);
    if (error == 0) error = mdb_env_sync(environment_, 1);
    settled_ = error == 0 && unlink(MarkOf(directory_).c_str()) == 0;
    if (settled_) (void)SyncDirectory(directory_);  // at worst the store is set aside needlessly
}

InodeStore::~InodeStore() {
    Settle();
    CloseEnvironment();
}

}  // namespace oxel::local
