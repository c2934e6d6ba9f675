// SPDX-License-Identifier: Apache-2.0
//
// What persists of the shares, as text: registry.json. Reading, writing and nothing else; which
// shares there are is ExportCache's business.
#pragma once

#include <map>
#include <string>

namespace oxel {

// Times are seconds since the epoch; 0 = never.
struct ShareRecord {
    std::string path;  // as RegistryPathText() gives it
    long lastAccess = 0;
    std::map<std::string, long> mounts;  // last mount by client address
};
using ShareRecords = std::map<unsigned int, ShareRecord>;  // by share id

// A share's path in the form that JSON can hold: bytes that are no UTF-8, control characters and
// the backslash become backslash and three octal digits, as in the exports file.
std::string RegistryPathText(const std::string& path);

// "2026-11-21T07:40:01.000000Z"; empty for 0, never.
std::string RegistryTimeText(long seconds);

std::string FormatRegistry(const ShareRecords& records);
// False when the text is not a whole, well-formed registry; *records is then untouched. Never
// throws for any bytes.
bool ParseRegistry(const std::string& text, ShareRecords* records);

// The file that ReplaceFileDurably writes first.
std::string TemporaryOf(const std::string& file);
// Puts `text` into `file` so that after a crash either the old or the new content is there: written
// beside it, synced, renamed, and the directory synced. False with errno, the old file untouched.
bool ReplaceFileDurably(const std::string& file, const std::string& text);

}  // namespace oxel
