// SPDX-License-Identifier: Apache-2.0
//
// The registry of mounts on the disk: no text may be more than refused, and what is taken comes out
// of the text that is written of it. The text is also taken for a share's path.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "backend/export_registry.h"

static bool Same(const oxel::ShareRecords& one, const oxel::ShareRecords& other) {
    if (one.size() != other.size()) return false;
    for (const auto& [id, record] : one) {
        const auto found = other.find(id);
        if (found == other.end() || found->second.path != record.path ||
            found->second.lastAccess != record.lastAccess || found->second.mounts != record.mounts)
            return false;
    }
    return true;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    oxel::ShareRecords records, again;
    records[7].path = "untouched";
    if (!oxel::ParseRegistry(text, &records)) {
        if (records.size() != 1 || records[7].path != "untouched") abort();
        records.clear();
    }
    if (!oxel::ParseRegistry(oxel::FormatRegistry(records), &again)) abort();
    if (!Same(records, again)) abort();
    // A path is text that JSON holds and gives back, whatever its bytes are.
    oxel::ShareRecords named, readBack;
    named[1].path = oxel::RegistryPathText(text);
    if (!oxel::ParseRegistry(oxel::FormatRegistry(named), &readBack)) abort();
    if (readBack.size() != 1 || readBack[1].path != named[1].path) abort();
    for (const char byte : named[1].path)
        if (static_cast<unsigned char>(byte) < 0x20 || byte == 0x7f) abort();
    return 0;
}
