// SPDX-License-Identifier: Apache-2.0
//
// The registry of shares. Every call looks its share up by id, so a look-up is a shared lock and
// one hash probe; what persists has locks of its own and never holds a look-up up.
#include "backend/ExportCache.h"

#include <fcntl.h>
#include <stdio.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <unordered_map>

#include "backend/Export.h"
#include "backend/export_registry.h"
#include "base/log.h"
#include "base/own_rights.h"
#include "base/patience.h"
#include "base/store.h"
#include "base/sync.h"
#include "base/unique_fd.h"

using oxel::ShareRecord;
using oxel::ShareRecords;

ExportCache gAllExports;

static constexpr size_t kRegistryBytesMax = 64 << 20;
// An IPv6 client can have any number of addresses; the oldest mounts give way to new ones.
static constexpr size_t kMountsPerShareMax = 4096;

using ExportList = std::vector<std::pair<unsigned int, ExportPtr>>;

namespace {

// The shares of one moment.
struct Index {
    ExportList inOrder;
    std::unordered_map<unsigned int, ExportPtr> byId;
    std::unordered_map<std::string, ExportPtr> byPath;
};

}  // namespace

struct ExportCache::State {
    oxel::SharedSection indexSection;
    Index index GUARDED_BY(indexSection);

    XoCriticalSection recordsSection ACQUIRED_BEFORE(indexSection);
    // Mounts, and the text of the path; lastAccess is the share's own and filled in when saving.
    ShareRecords records GUARDED_BY(recordsSection);
    uint64_t changes GUARDED_BY(recordsSection) = 0;

    // Held for the whole of a save: saves go to the disk one at a time.
    XoCriticalSection saveSection ACQUIRED_BEFORE(recordsSection);
    std::string savedFile GUARDED_BY(saveSection);
    uint64_t savedChanges GUARDED_BY(saveSection) = 0;
    std::unordered_map<unsigned int, long> savedAccess GUARDED_BY(saveSection);
    int saidFailure GUARDED_BY(saveSection) = 0;  // errno of the failure that the log has

    // The records with the times of last access, and the state of change that they show.
    ShareRecords Snapshot(uint64_t* changesSeen) EXCLUDES(recordsSection);
    bool ChangedSinceSaved(const std::string& file) REQUIRES(saveSection);
    void MarkSaved(const std::string& file, uint64_t changesSeen, const ShareRecords& saved)
        REQUIRES(saveSection);
};

ExportCache::State& ExportCache::state() {
    // Never destroyed: worker threads may still look up while the process ends.
    static State* state = new State;
    return *state;
}

// The share that `share` held before may be the last reference to one that is gone; it is released
// after the lock, since its destructor may wait for the disk.
bool ExportCache::FindExport(const std::string& path, ExportPtr& share) {
    State& s = state();
    ExportPtr found;
    {
        oxel::SharedGuard lock(s.indexSection);
        auto it = s.index.byPath.find(path);
        if (it == s.index.byPath.end()) return false;
        found = it->second;
    }
    share.swap(found);
    return true;
}

bool ExportCache::FindExportById(unsigned int shareId, ExportPtr& share) {
    State& s = state();
    ExportPtr found;
    {
        oxel::SharedGuard lock(s.indexSection);
        auto it = s.index.byId.find(shareId);
        if (it == s.index.byId.end()) return false;
        found = it->second;
    }
    share.swap(found);
    return true;
}

ExportList ExportCache::All() {
    State& s = state();
    oxel::SharedGuard lock(s.indexSection);
    return s.index.inOrder;
}

void ExportCache::GetExportsNotForFSM(FSModuleType type, ExportMap& exports) {
    // GetFSMType is the module's code and runs without the lock.
    for (const auto& [id, share] : All())
        if (share->GetFSMType() != type) exports.emplace(id, share);
}

void ExportCache::Replace(ExportList exports) {
    Index fresh;
    for (auto& [id, share] : exports) {
        if (!share || fresh.byId.contains(id) || fresh.byPath.contains(share->GetPath())) continue;
        fresh.byId[id] = share;
        fresh.byPath[share->GetPath()] = share;
        fresh.inOrder.emplace_back(id, share);
    }
    exports.clear();

    State& s = state();
    {
        XoCriticalSectionGuard records(s.recordsSection);
        ShareRecords kept;
        oxel::ExclusiveGuard lock(s.indexSection);
        for (const auto& [id, share] : fresh.inOrder) {
            ShareRecord& record = kept[id];
            record.path = oxel::RegistryPathText(share->GetPath());
            auto old = s.index.byId.find(id);
            if (old == s.index.byId.end() || old->second->GetPath() != share->GetPath()) continue;
            share->SetLastAccessTime(
                std::max(share->GetLastAccessTime(), old->second->GetLastAccessTime()));
            record.mounts = std::move(s.records[id].mounts);
        }
        s.records.swap(kept);
        ++s.changes;
        std::swap(s.index, fresh);
    }
    // `fresh` now holds the shares that went; the last reference to them may close descriptors.
}

static void DropOldest(std::map<std::string, long>* mounts) {
    mounts->erase(
        std::min_element(mounts->begin(), mounts->end(),
                         [](const auto& a, const auto& b) { return a.second < b.second; }));
}

void ExportCache::RecordMount(unsigned int shareId, const std::string& client) {
    long now = time(nullptr);
    State& s = state();
    XoCriticalSectionGuard records(s.recordsSection);
    auto it = s.records.find(shareId);
    if (it == s.records.end()) return;
    auto& mounts = it->second.mounts;
    auto [mount, isNew] = mounts.try_emplace(client, now);
    if (!isNew && mount->second == now) return;
    mount->second = now;
    if (mounts.size() > kMountsPerShareMax) DropOldest(&mounts);
    ++s.changes;
}

std::vector<std::pair<std::string, long>> ExportCache::Mounts(unsigned int shareId) {
    State& s = state();
    XoCriticalSectionGuard records(s.recordsSection);
    auto it = s.records.find(shareId);
    if (it == s.records.end()) return {};
    return {it->second.mounts.begin(), it->second.mounts.end()};
}

// False with errno; a missing file is an empty text with ENOENT.
static bool ReadRegistry(const std::string& file, std::string* text) {
    oxel::UniqueFd fd(open(file.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd) return false;
    char buffer[65536];
    for (;;) {
        ssize_t count = read(fd.Get(), buffer, sizeof buffer);
        if (count == 0) return true;
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return false;
        text->append(buffer, static_cast<size_t>(count));
        if (text->size() > kRegistryBytesMax) {
            errno = EFBIG;
            return false;
        }
    }
}

void ExportCache::LoadFromDisk() {
    State& s = state();
    XoCriticalSectionGuard save(s.saveSection);
    const oxel::OwnRights own;
    const std::string file = oxel::InstancePaths(XOPI_Focus::focus()).registry;
    // What a process that was killed in the middle of a save left behind.
    (void)unlink(oxel::TemporaryOf(file).c_str());
    std::string text;
    ShareRecords loaded;
    bool isRead = ReadRegistry(file, &text);
    if (!isRead && errno == ENOENT) return;
    if (!isRead && errno != EFBIG) {
        OXEL_LOG(-1, "The registry of mounts [%s] cannot be read: %s. Starting with an empty one.",
                 file.c_str(), strerror(errno));
        return;
    }
    if (!isRead || !oxel::ParseRegistry(text, &loaded)) {
        std::string aside = file + ".corrupt";
        bool isKept = rename(file.c_str(), aside.c_str()) == 0;
        OXEL_LOG(
            -1,
            "The registry of mounts [%s] is damaged. Starting with an empty one; the old %s [%s].",
            file.c_str(), isKept ? "file is kept as" : "file could not be renamed to",
            aside.c_str());
        return;
    }
    {
        XoCriticalSectionGuard records(s.recordsSection);
        oxel::SharedGuard lock(s.indexSection);
        for (auto& [id, record] : s.records) {
            auto old = loaded.find(id);
            // Another share may have been given the id since.
            if (old == loaded.end() || old->second.path != record.path) continue;
            Export& share = *s.index.byId.at(id);
            share.SetLastAccessTime(std::max(share.GetLastAccessTime(), old->second.lastAccess));
            for (const auto& [client, when] : old->second.mounts) {
                long& known = record.mounts[client];
                known = std::max(known, when);
                if (record.mounts.size() > kMountsPerShareMax) DropOldest(&record.mounts);
            }
        }
        ++s.changes;
    }
    uint64_t changesSeen = 0;
    ShareRecords now = s.Snapshot(&changesSeen);
    if (oxel::FormatRegistry(now) == text) s.MarkSaved(file, changesSeen, now);
}

ShareRecords ExportCache::State::Snapshot(uint64_t* changesSeen) {
    XoCriticalSectionGuard guard(recordsSection);
    ShareRecords copy = records;
    *changesSeen = changes;
    oxel::SharedGuard lock(indexSection);
    for (auto& [id, record] : copy) record.lastAccess = index.byId.at(id)->GetLastAccessTime();
    return copy;
}

bool ExportCache::State::ChangedSinceSaved(const std::string& file) {
    if (file != savedFile) return true;
    {
        XoCriticalSectionGuard guard(recordsSection);
        if (changes != savedChanges) return true;
    }
    oxel::SharedGuard lock(indexSection);
    for (const auto& [id, share] : index.inOrder) {
        auto it = savedAccess.find(id);
        if (it == savedAccess.end() || it->second != share->GetLastAccessTime()) return true;
    }
    return false;
}

void ExportCache::State::MarkSaved(const std::string& file, uint64_t changesSeen,
                                   const ShareRecords& saved) {
    savedFile = file;
    savedChanges = changesSeen;
    savedAccess.clear();
    for (const auto& [id, record] : saved) savedAccess[id] = record.lastAccess;
}

bool ExportCache::SaveToDisk() {
    // The JSON library allocates where it ends a value too, from where no exception gets out.
    const oxel::PatientNew patient;
    State& s = state();
    XoCriticalSectionGuard save(s.saveSection);
    const oxel::OwnRights own;
    const std::string file = oxel::InstancePaths(XOPI_Focus::focus()).registry;
    // MOUNT calls wait for this, so the disk is left alone when it already has everything.
    if (!s.ChangedSinceSaved(file)) return true;
    uint64_t changesSeen = 0;
    ShareRecords records = s.Snapshot(&changesSeen);
    if (!oxel::ReplaceFileDurably(file, oxel::FormatRegistry(records))) {
        int error = errno;
        if (error != s.saidFailure)
            OXEL_LOG(-1, "The registry of mounts [%s] cannot be written: %s.", file.c_str(),
                     strerror(error));
        s.saidFailure = error;
        errno = error;
        return false;
    }
    s.saidFailure = 0;
    s.MarkSaved(file, changesSeen, records);
    return true;
}

void ReverseNormalizeExportPath(const std::string& requested, std::string& out) {
    std::string folded;
    folded.reserve(requested.size());
    for (char byte : requested)
        if (byte != '/' || folded.empty() || folded.back() != '/') folded.push_back(byte);
    // The root's slash is its whole name.
    if (folded.size() > 1 && folded.back() == '/') folded.pop_back();
    out = std::move(folded);
}
