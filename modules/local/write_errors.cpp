// SPDX-License-Identifier: Apache-2.0
//
// The clients' uncommitted writes. Nothing is synced or closed while the table's lock is held.
#include "modules/local/write_errors.h"

#include <fcntl.h>
#include <sys/resource.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "base/log.h"
#include "base/unique_fd.h"
#include "modules/local/disk_calls.h"
#include "modules/local/object.h"
#include "modules/local/syscalls.h"

namespace oxel::local {
namespace {

constexpr size_t kFilesMax = 1024;
constexpr size_t kClientsPerFileMax = 64;
// A client that has not asked for so long is not going to.
constexpr int64_t kErrorKeptMs = int64_t{60} * 60 * 1000;

// A sixteenth of the descriptors that the process may have.
size_t DefaultLimit() {
    rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return 64;
    return std::clamp<size_t>(limit.rlim_cur / 16, 16, kFilesMax);
}

std::array<unsigned char, 16> BytesOf(const CLuIPAddr& client) {
    std::array<unsigned char, 16> bytes;
    memcpy(bytes.data(), XOIPAddr(client).bytes(), bytes.size());
    return bytes;
}

}  // namespace

struct DelayedWrites::File {
    struct Writer {
        Client client;
        int owed;           // the error number that this client is to be told, or 0
        unsigned inFlight;  // its writes that are being done now
    };

    explicit File(const Key& itsKey) : key(itsKey) {}
    bool AnyUncommitted() const {
        return std::any_of(writers.begin(), writers.end(),
                           [](const Writer& w) { return w.owed == 0 || w.inFlight != 0; });
    }
    Writer* Of(const Client& client) {
        for (Writer& writer : writers) {
            if (writer.client == client) return &writer;
        }
        return nullptr;
    }

    const Key key;
    // Held by the one sync of this file that is under way, so that nobody is told "on the disk"
    // between another one's learning of an error and its being noted here. Taken before section_.
    XoCriticalSection syncing;
    // Guarded by DelayedWrites::section_:
    std::vector<Writer> writers;
    std::shared_ptr<UniqueFd> open;  // while there is uncommitted data
    int64_t lastMs = 0;
};

DelayedWrites& DelayedWrites::Instance() {
    static DelayedWrites* instance = new DelayedWrites;  // outlives every thread
    return *instance;
}

DelayedWrites::DelayedWrites() : limit_(DefaultLimit()) {}

DelayedWrites::Key DelayedWrites::KeyOf(const FileNode& node) {
    return {node.Device(), node.Inode(), node.Id().Hash()};
}

DelayedWrites::Writing::Writing(const FileNode& node, const CLuIPAddr& client, int fd)
    : client_(BytesOf(client)) {
    DelayedWrites& table = Instance();
    const Key key = KeyOf(node);
    const int64_t now = NowMs();
    XoCriticalSectionGuard guard(table.section_);
    auto known = table.files_.find(key);
    std::shared_ptr<File> file;
    if (known != table.files_.end()) {
        file = known->second;
    } else {
        if (!table.MakeRoom(now)) return;
        file = std::make_shared<File>(key);
    }
    File::Writer* writer = file->Of(client_);
    if (writer == nullptr && file->writers.size() >= kClientsPerFileMax) return;
    if (!file->open) {
        UniqueFd own(fcntl(fd, F_DUPFD_CLOEXEC, 0));
        if (!own) return;
        file->open = std::make_shared<UniqueFd>(std::move(own));
    }
    if (writer == nullptr) {
        file->writers.push_back({client_, 0, 0});
        writer = &file->writers.back();
    }
    if (known == table.files_.end()) table.files_.emplace(key, file);
    ++writer->inFlight;
    file->lastMs = now;
    file_ = std::move(file);
}

DelayedWrites::Writing::~Writing() {
    if (!file_) return;
    XoCriticalSectionGuard guard(Instance().section_);
    // A client is not dropped while it writes.
    --file_->Of(client_)->inFlight;
}

// Room for one more file. What may give way is an error that a client has not asked for; the one
// that has waited longest.
bool DelayedWrites::MakeRoom(int64_t nowMs) {
    if (files_.size() < limit_) return true;
    auto oldest = files_.end();
    int64_t oldestMs = nowMs + 1;
    for (auto it = files_.begin(); it != files_.end(); ++it) {
        if (it->second->open || it->second->lastMs >= oldestMs) continue;
        oldest = it;
        oldestMs = it->second->lastMs;
    }
    if (oldest == files_.end()) return false;
    files_.erase(oldest);
    return true;
}

std::shared_ptr<DelayedWrites::File> DelayedWrites::Find(const Key& key) const {
    XoCriticalSectionGuard guard(section_);
    auto known = files_.find(key);
    return known == files_.end() ? nullptr : known->second;
}

bool DelayedWrites::Knows(const FileNode& node) const {
    return Find(KeyOf(node)) != nullptr;
}

int DelayedWrites::Settle(const FileNode& node, const CLuIPAddr& client,
                          const std::function<int()>& sync) {
    const std::shared_ptr<File> file = Find(KeyOf(node));
    if (!file) return sync();
    const Client bytes = BytesOf(client);
    return SyncOne(*file, &bytes, sync);
}

int DelayedWrites::SettleForAll(const FileNode& node, const std::function<int()>& sync) {
    const std::shared_ptr<File> file = Find(KeyOf(node));
    return file ? SyncOne(*file, nullptr, sync) : sync();
}

int DelayedWrites::SyncOne(File& file, const Client* client, const std::function<int()>& sync) {
    XoCriticalSectionGuard one(file.syncing);
    int error = sync();
    std::shared_ptr<UniqueFd> open;
    {
        XoCriticalSectionGuard guard(section_);
        open = file.open;
    }
    // An error from before the caller's descriptor was opened, which that one is not told of.
    if (open && gDisk.load()->takeError(open->Get()) != 0 && error == 0) error = errno;
    return Conclude(file, client, error);
}

int DelayedWrites::Conclude(File& file, const Client* client, int error) {
    std::shared_ptr<UniqueFd> closing;  // outlive the lock
    std::shared_ptr<File> dropped;
    XoCriticalSectionGuard guard(section_);
    int answer = error;
    std::erase_if(file.writers, [&](File::Writer& writer) {
        if (client != nullptr && writer.client == *client) {
            const int owed = std::exchange(writer.owed, 0);
            if (error == 0) answer = owed;
        } else if (error != 0) {
            writer.owed = error;
        }
        return writer.owed == 0 && writer.inFlight == 0;
    });
    if (file.AnyUncommitted()) return answer;
    closing = std::move(file.open);
    auto known = files_.find(file.key);
    if (file.writers.empty() && known != files_.end() && known->second.get() == &file) {
        dropped = std::move(known->second);
        files_.erase(known);
    }
    return answer;
}

void DelayedWrites::Forget(const FileNode& node) {
    std::shared_ptr<File> dropped;  // outlives the lock
    XoCriticalSectionGuard guard(section_);
    auto known = files_.find(KeyOf(node));
    if (known == files_.end()) return;
    dropped = std::move(known->second);
    files_.erase(known);
}

void DelayedWrites::SettleIdle(int64_t beforeMs) {
    std::vector<std::pair<std::shared_ptr<File>, std::shared_ptr<UniqueFd>>> idle;
    {
        const int64_t now = NowMs();
        XoCriticalSectionGuard guard(section_);
        std::erase_if(files_, [&](const auto& entry) {
            const std::shared_ptr<File>& file = entry.second;
            if (file->open && file->lastMs < beforeMs) idle.emplace_back(file, file->open);
            return !file->open && now - file->lastMs > kErrorKeptMs;
        });
    }
    for (const auto& [file, open] : idle) {
        const int error = SyncOne(*file, nullptr, [fd = open->Get()] {
            return gDisk.load()->syncFile(fd) == 0 ? 0 : errno;
        });
        if (error != 0) {
            OXEL_LOG(-1, "Error: data that was written to inode [%llu] is lost. [%s]",
                     static_cast<unsigned long long>(file->key.inode), strerror(error));
        }
    }
}

size_t DelayedWrites::Count() const {
    XoCriticalSectionGuard guard(section_);
    return files_.size();
}

size_t DelayedWrites::CountOpen() const {
    XoCriticalSectionGuard guard(section_);
    return static_cast<size_t>(std::count_if(files_.begin(), files_.end(), [](const auto& entry) {
        return entry.second->open != nullptr;
    }));
}

void DelayedWrites::SetLimit(size_t files) {
    XoCriticalSectionGuard guard(section_);
    limit_ = files != 0 ? files : DefaultLimit();
}

}  // namespace oxel::local
