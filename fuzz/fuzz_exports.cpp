// SPDX-License-Identifier: Apache-2.0
//
// The exports file: whatever stands in it, every share that is taken has a usable path and id, and
// no two have the same.
#include <cstdint>
#include <cstdlib>
#include <set>
#include <string>
#include <vector>

#include "backend/exports_file.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const oxel::ExportsFile file = oxel::ParseExports(
        text, "fuzz", false,
        [](const std::string& name, std::vector<CLuIPAddr>* addresses, std::string* error) {
            CLuIPAddr address;
            if (name.size() % 2 == 0 && CLuIPAddr::Parse("127.0.0.1", 0, &address)) {
                addresses->push_back(address);
                return true;
            }
            *error = "no such host";
            return false;
        });
    std::set<std::string> paths;
    std::set<uint32_t> ids;
    for (const oxel::ShareConfig& share : file.shares) {
        if (share.path.empty() || share.path[0] != '/' || share.id == 0) abort();
        if (!paths.insert(share.path).second || !ids.insert(share.id).second) abort();
    }
    for (const oxel::ExportsError& error : file.errors)
        if (error.line < 1 || error.reason.empty()) abort();
    return 0;
}
