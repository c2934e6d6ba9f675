// SPDX-License-Identifier: Apache-2.0
//
// Loading and reloading the shares. Everything that can fail is done before the first thing is
// changed, so that a mistake in the file never takes a share away from its clients.
#include "backend/share_set.h"

#include <unistd.h>

#include <cerrno>
#include <map>
#include <utility>

#include "backend/Export.h"
#include "backend/ExportCache.h"
#include "base/log.h"

namespace oxel {

ShareSet gShareSet;

static void LogServed(const ServedShare& served) {
    OXEL_LOG(1, "Share [%s] id [%u] directory [%s] %s", served.config.path.c_str(),
             served.config.id, served.config.directory.c_str(),
             served.share->IsWritable() ? "read-write" : "read-only");
}

void ShareSet::Load(const std::string& exportsFile, ShareMaker maker) {
    XoCriticalSectionGuard reload(reloadSection_);
    maker_ = std::move(maker);
    actsForCallers_ = maker_.actsForCallers;
    const ExportsFile file = ReadExportsFile(exportsFile);
    for (const ExportsError& bad : file.errors)
        OXEL_LOG(-1, "Error: %s. %s", ErrorText(bad).c_str(),
                 bad.line != 0 ? "The share is not served." : "No share is served.");
    std::vector<ServedShare> shares;
    for (const ShareConfig& config : file.shares) {
        std::string error;
        ExportPtr share = maker_.make(config, &error);
        if (!share) {
            OXEL_LOG(-1, "Error: %s. The share is not served.",
                     ErrorText({exportsFile, config.line, error}).c_str());
            continue;
        }
        shares.push_back({config, std::move(share)});
        LogServed(shares.back());
    }
    if (shares.empty()) OXEL_LOG(-1, "Warning: No share is defined in %s.", exportsFile.c_str());
    Serve(std::move(shares));
}

void ShareSet::Serve(std::vector<ServedShare> shares) {
    std::vector<std::pair<unsigned int, ExportPtr>> exports;
    exports.reserve(shares.size());
    for (const ServedShare& served : shares) exports.emplace_back(served.config.id, served.share);
    gAllExports.Replace(std::move(exports));
    XoCriticalSectionGuard lock(section_);
    // What goes is released after the lock, by the argument's destructor.
    shares_.swap(shares);
}

std::vector<ServedShare> ShareSet::All() {
    XoCriticalSectionGuard lock(section_);
    return shares_;
}

size_t ShareSet::Count() {
    XoCriticalSectionGuard lock(section_);
    return shares_.size();
}

// What tells two lines of one share apart.
static ShareChange Difference(const ShareConfig& before, const ShareConfig& now) {
    ShareChange change{now.path, now.id, {}, true};
    const auto differs = [&](const char* what, bool keepsHandles) {
        change.what.emplace_back(what);
        change.handlesKept = change.handlesKept && keepsHandles;
    };
    if (before.id != now.id) differs("id", false);
    if (before.directory != now.directory) differs("directory", false);
    if (before.module != now.module) differs("module", false);
    // Handles name the module type, and with it whether EXPORT shows the share.
    if (before.unlisted != now.unlisted) differs(now.unlisted ? "unlisted" : "listed", false);
    if (!(before.clients == now.clients)) differs("clients", true);
    return change;
}

static std::string WhatText(const ShareChange& change) {
    std::string text;
    for (const std::string& what : change.what) text += (text.empty() ? "" : ", ") + what;
    return text;
}

static void LogResult(const std::string& file, const ReloadResult& result) {
    for (const ExportsError& bad : result.errors)
        OXEL_LOG(-1, "Error: %s.", ErrorText(bad).c_str());
    if (!result.errors.empty()) {
        OXEL_LOG(-1, "The shares are not reloaded, they stay as they were: [%zu] errors in [%s].",
                 result.errors.size(), file.c_str());
        return;
    }
    for (const ShareChange& change : result.removed)
        OXEL_LOG(1, "Share [%s] id [%u] is removed.", change.path.c_str(), change.id);
    for (const ShareChange& change : result.added)
        OXEL_LOG(1, "Share [%s] id [%u] is added.", change.path.c_str(), change.id);
    for (const ShareChange& change : result.changed)
        OXEL_LOG(1, "Share [%s] id [%u] is changed: %s.%s", change.path.c_str(), change.id,
                 WhatText(change).c_str(),
                 change.handlesKept ? "" : " Clients that have it mounted must mount it again.");
    OXEL_LOG(1,
             "The shares are reloaded: [%zu] added, [%zu] removed, [%zu] changed, [%zu] as before.",
             result.added.size(), result.removed.size(), result.changed.size(), result.unchanged);
}

ReloadResult ShareSet::Compare(const std::string& exportsFile, bool make,
                               std::vector<ServedShare>* shares) {
    std::map<std::string, ServedShare> before;
    for (ServedShare& served : All()) before.emplace(served.config.path, std::move(served));

    ReloadResult result;
    // A file that an editor or a deployment has moved away for a moment must not end the mounts of
    // every client.
    if (!before.empty() && access(exportsFile.c_str(), F_OK) != 0 && errno == ENOENT)
        result.errors.push_back(
            {exportsFile, 0, "the file does not exist; an empty one would mean no shares"});
    ExportsFile file;
    if (result.errors.empty()) {
        file = ReadExportsFile(exportsFile);
        result.errors = std::move(file.errors);
    }
    for (const ShareConfig& config : file.shares) {
        const auto old = before.find(config.path);
        ShareChange change{config.path, config.id, {}, true};
        if (old != before.end()) {
            change = Difference(old->second.config, config);
            if (change.what.empty() && !maker_.isCurrent(old->second.share, config)) {
                change.what.emplace_back("directory");
                change.handlesKept = false;
            }
            if (change.what.empty()) {
                shares->push_back({config, old->second.share});
                before.erase(old);
                ++result.unchanged;
                continue;
            }
        }
        if (make) {
            std::string error;
            ExportPtr share = maker_.make(config, &error);
            if (!share) {
                result.errors.push_back({exportsFile, config.line, error});
                continue;
            }
            shares->push_back({config, std::move(share)});
        }
        (old != before.end() ? result.changed : result.added).push_back(std::move(change));
        if (old != before.end()) before.erase(old);
    }
    if (!result.errors.empty()) {
        result.added.clear();
        result.changed.clear();
        result.unchanged = 0;
    } else {
        for (const auto& [path, served] : before)
            result.removed.push_back({path, served.config.id, {}, false});
    }
    return result;
}

ReloadResult ShareSet::Reload(const std::string& exportsFile) {
    XoCriticalSectionGuard reload(reloadSection_);
    std::vector<ServedShare> shares;
    ReloadResult result = Compare(exportsFile, true, &shares);
    if (result.errors.empty()) Serve(std::move(shares));
    LogResult(exportsFile, result);
    return result;
}

ReloadResult ShareSet::Preview(const std::string& exportsFile) {
    XoCriticalSectionGuard reload(reloadSection_);
    std::vector<ServedShare> none;
    return Compare(exportsFile, false, &none);
}

}  // namespace oxel
