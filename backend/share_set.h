// SPDX-License-Identifier: Apache-2.0
//
// The shares that are served now, each beside the line of the exports file that it came from, and
// changing them while calls are under way.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "backend/exports_file.h"
#include "backend/types.h"
#include "base/sync.h"

namespace oxel {

struct ServedShare {
    ShareConfig config;
    ExportPtr share;
};

// What the modules do for the lines of the exports file.
struct ShareMaker {
    // The share of one line; null with a reason for people in *error.
    std::function<ExportPtr(const ShareConfig& config, std::string* error)> make;
    // Whether a share whose line has not changed still serves what its directory's path leads to.
    std::function<bool(const ExportPtr& share, const ShareConfig& config)> isCurrent;
    // Whether files are accessed with the callers' rights, not always with the process's own.
    bool actsForCallers = true;
};

struct ShareChange {
    std::string path;
    uint32_t id = 0;
    std::vector<std::string> what;  // of a changed share: "id", "directory", "clients", ...
    bool handlesKept = true;        // false: clients that have it mounted must mount it again
};

struct ReloadResult {
    std::vector<ExportsError> errors;  // any: the shares are what they were
    std::vector<ShareChange> added, removed, changed;
    size_t unchanged = 0;
};

// The process's one set; what it holds is what gAllExports finds. Any thread, once Load returned.
class ShareSet {
  public:
    // At start: serves the lines that can be served and logs the others.
    void Load(const std::string& exportsFile, ShareMaker maker);
    // Reads the file anew. All of it counts or, with any error, nothing of it. Shares whose lines
    // say what they said stay the same objects; calls that are under way finish on the share that
    // they began on. Logs what came of it. Blocks while host names are resolved, and while another
    // thread reloads.
    ReloadResult Reload(const std::string& exportsFile);
    // What Reload would answer if every share that it makes could be made. Changes nothing and logs
    // nothing; blocks as Reload does.
    ReloadResult Preview(const std::string& exportsFile);
    // In the order of the file. Does not wait for a reload.
    std::vector<ServedShare> All();
    size_t Count();
    // ShareMaker's; true before Load.
    bool ActsForCallers() const { return actsForCallers_; }

  private:
    // Reads the file and compares; makes the shares that are new or changed if `make`. Those that
    // are to be served then go into *shares.
    ReloadResult Compare(const std::string& exportsFile, bool make,
                         std::vector<ServedShare>* shares) REQUIRES(reloadSection_);
    void Serve(std::vector<ServedShare> shares) REQUIRES(reloadSection_);

    XoCriticalSection reloadSection_ ACQUIRED_BEFORE(section_);  // held for a whole reload
    ShareMaker maker_ GUARDED_BY(reloadSection_);
    std::atomic<bool> actsForCallers_{true};
    XoCriticalSection section_;
    std::vector<ServedShare> shares_ GUARDED_BY(section_);
};

extern ShareSet gShareSet;

}  // namespace oxel
