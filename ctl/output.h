// SPDX-License-Identifier: Apache-2.0
//
// How oxelctl shows what a daemon answered: tables for people, tolerant of members that an older or
// newer daemon leaves out or spells otherwise.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

namespace oxel::ctl {

// Left column: what; right column: its value.
using Rows = std::vector<std::pair<std::string, std::string>>;

// Two aligned columns on standard output.
void PrintTable(const Rows& rows);

// A heading and aligned columns on standard output; no line ends in blanks.
void PrintColumns(const std::vector<std::string>& heading,
                  const std::vector<std::vector<std::string>>& rows);

// The objects of a list; none when the member is missing or something else.
std::vector<nlohmann::json> Listed(const nlohmann::json& object, const char* member);

// The member's value as a person reads it: text without quotes, yes and no, "-" when it is missing.
// Control characters are escaped.
std::string Shown(const nlohmann::json& object, const char* member);

// "3 days 04:05:06"; "-" when it is not a number of seconds.
std::string ShownDuration(const nlohmann::json& object, const char* member);

// "512 B", "1.5 MiB"; "-" for none.
std::string ShownBytes(uint64_t bytes);

// "12.3 us", "4.56 ms", "7.89 s"; "-" for none.
std::string ShownMicroseconds(double microseconds);
// The options of a client's rule that are not the default: "rw,insecure".
std::string OptionsText(const nlohmann::json& rule);

// What a reload changes, or would change; false, with nothing printed, when it is nothing.
// verbs_shares.cpp
bool PrintChanges(const nlohmann::json& body);

}  // namespace oxel::ctl
