// SPDX-License-Identifier: Apache-2.0
//
// Every key of <I>.conf that something reads: what it means, and what holds without it. The code
// that reads a key decides; this table is what people are told, and a test holds it to the code.
#pragma once

#include <span>
#include <string>

namespace oxel {

struct KnownSetting {
    const char* section;
    const char* key;
    const char* defaultText;  // "2049", or in words where it depends on something
    const char* meaning;      // one line, with the unit
};

// All of them, section by section.
std::span<const KnownSetting> KnownSettings();

// Empty when something reads the key in that section; otherwise why nothing does, with the nearest
// key or section that there is.
std::string UnknownSetting(const std::string& section, const std::string& key);

}  // namespace oxel
