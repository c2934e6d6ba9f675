// SPDX-License-Identifier: Apache-2.0
//
// The store file: no text may be more than lines that are read and lines that are reported.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "base/store.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    std::vector<oxel::StoreError> errors;
    const oxel::StoreNumbers numbers = oxel::ReadStoreFile("fuzz", &errors, &text);
    for (const auto& [key, value] : numbers) {
        (void)value;
        if (key.second.empty()) abort();
    }
    for (const oxel::StoreError& error : errors)
        if (error.line < 1 || error.reason.empty()) abort();
    return 0;
}
