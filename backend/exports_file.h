// SPDX-License-Identifier: Apache-2.0
//
// Reading the exports file: the grammar of exports(5) with this server's share options.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "backend/client_rules.h"

namespace oxel {

// One share as its line describes it.
struct ShareConfig {
    std::string path;       // what clients mount, in stored form (ReverseNormalizeExportPath)
    std::string directory;  // dir=, or the path itself
    std::string module = "local";
    uint32_t id = 0;  // id=, or the FNV-1a hash of the path
    bool unlisted = false;
    ClientRules clients;
    int line = 0;  // where the share's line begins
};

struct ExportsError {
    std::string file;
    int line;            // from 1; 0 when the file as a whole could not be read
    std::string reason;  // control characters of the file are shown as \xNN
};

// "file:line: reason", or "file: reason" for the file as a whole.
std::string ErrorText(const ExportsError& error);

struct ExportsFile {
    std::vector<ShareConfig> shares;   // the lines that could be read, in order
    std::vector<ExportsError> errors;  // the lines that could not
};

// Reads and checks the file. A missing file has no shares and no errors. Errors: two shares with
// one path or id (the later line), a relative path, an unknown option or module, an unreadable
// number or address, a host name that does not resolve, a directory that does not exist.
ExportsFile ReadExportsFile(const std::string& file);

// Gives all addresses of a host name; false with a reason for people in *error.
using HostResolver = std::function<bool(const std::string& name, std::vector<CLuIPAddr>* addresses,
                                        std::string* error)>;
// Asks the system's resolver (blocks while it asks its name servers).
bool ResolveHost(const std::string& name, std::vector<CLuIPAddr>* addresses, std::string* error);

// The same on text; `file` names it in errors. `checkDirectories`: whether dir= must exist. Each
// host name is resolved once per call.
ExportsFile ParseExports(const std::string& text, const std::string& file, bool checkDirectories,
                         const HostResolver& resolve = ResolveHost);

// The 32-bit FNV-1a hash of a share's path: its id unless id= says otherwise. Never 0.
uint32_t DefaultShareId(const std::string& path);

}  // namespace oxel
