// SPDX-License-Identifier: Apache-2.0
//
// The registry of shares, and what persists of them.
#pragma once

#include <boost/unordered_map.hpp>
#include <string>
#include <utility>
#include <vector>

#include "backend/types.h"

// Any thread; lookups do not wait for SaveToDisk.
class ExportCache {
  public:
    using ExportMap = boost::unordered_map<unsigned int, ExportPtr>;  // by share id

    bool FindExport(const std::string& path, ExportPtr& share);
    bool FindExportById(unsigned int shareId, ExportPtr& share);
    // Adds to `exports` every share whose module type is not `type`.
    void GetExportsNotForFSM(FSModuleType type, ExportMap& exports);
    // All shares, in the order of the exports file.
    std::vector<std::pair<unsigned int, ExportPtr>> All();
    // Replaces the whole set in one step. Last access times and mounts of shares that stay (same id
    // and path) are carried over.
    void Replace(std::vector<std::pair<unsigned int, ExportPtr>> exports);

    // Remembers that `client` (address text) mounted the share now; SaveToDisk writes it.
    void RecordMount(unsigned int shareId, const std::string& client);
    // The clients that mounted the share with the time (seconds since the epoch) of the last mount.
    std::vector<std::pair<std::string, long>> Mounts(unsigned int shareId);
    // Reads what an earlier process saved (last access, mounts) into the shares in the cache.
    void LoadFromDisk();
    // Persists last access and mounts per share into registry.json (temporary file, fsync, rename).
    // False with errno when it could not be written; said in the log once per kind of failure.
    bool SaveToDisk();

  private:
    struct State;
    static State& state();
};

extern ExportCache gAllExports;

// Turns a requested path into the form under which shares are stored: repeated slashes are folded
// and a trailing one is dropped, nothing else.
void ReverseNormalizeExportPath(const std::string& requested, std::string& out);
