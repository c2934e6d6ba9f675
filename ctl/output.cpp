// SPDX-License-Identifier: Apache-2.0
//
// Tables and values for people.
#include "ctl/output.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string_view>

#include "base/log.h"

namespace oxel::ctl {

using nlohmann::json;

void PrintTable(const Rows& rows) {
    size_t width = 0;
    for (const auto& [what, value] : rows) width = std::max(width, what.size());
    for (const auto& [what, value] : rows)
        printf("%-*s  %s\n", static_cast<int>(width), what.c_str(), value.c_str());
}

void PrintColumns(const std::vector<std::string>& heading,
                  const std::vector<std::vector<std::string>>& rows) {
    std::vector<size_t> widths;
    widths.reserve(heading.size());
    for (const std::string& title : heading) widths.push_back(title.size());
    for (const auto& row : rows)
        for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
    const auto print = [&](const std::vector<std::string>& row) {
        std::string line;
        for (size_t i = 0; i < row.size(); ++i)
            line += row[i] + std::string(widths[i] - row[i].size() + 2, ' ');
        line.erase(line.find_last_not_of(' ') + 1);
        printf("%s\n", line.c_str());
    };
    print(heading);
    for (const auto& row : rows) print(row);
}

std::vector<json> Listed(const json& object, const char* member) {
    const auto found = object.find(member);
    std::vector<json> list;
    if (found == object.end() || !found->is_array()) return list;
    for (const json& entry : *found)
        if (entry.is_object()) list.push_back(entry);
    return list;
}

std::string Shown(const json& object, const char* member) {
    const auto found = object.find(member);
    if (found == object.end() || found->is_null()) return "-";
    if (found->is_boolean()) return found->get<bool>() ? "yes" : "no";
    if (found->is_string()) return EscapeControl(found->get<std::string>());
    return EscapeControl(found->dump(-1, ' ', false, json::error_handler_t::replace));
}

// What a rule says when it says nothing; programs get these words too, people need not read them.
static bool IsDefault(std::string_view option) {
    for (const char* word :
         {"root_squash", "secure", "no_manage_gids", "anonuid=65534", "anongid=65534"})
        if (option == word) return true;
    return false;
}

std::string OptionsText(const json& rule) {
    std::string options;
    if (const auto words = rule.find("options"); words != rule.end() && words->is_array()) {
        for (const json& word : *words) {
            if (!word.is_string() || IsDefault(word.get_ref<const std::string&>())) continue;
            options += (options.empty() ? "" : ",") + word.get<std::string>();
        }
    }
    return EscapeControl(options);
}

std::string ShownDuration(const json& object, const char* member) {
    const auto found = object.find(member);
    if (found == object.end() || !found->is_number_integer() || *found < 0) return "-";
    const uint64_t seconds = found->get<uint64_t>();
    const uint64_t days = seconds / 86400;
    char clock[16];
    (void)snprintf(clock, sizeof clock, "%02u:%02u:%02u",
                   static_cast<unsigned>(seconds / 3600 % 24),
                   static_cast<unsigned>(seconds / 60 % 60), static_cast<unsigned>(seconds % 60));
    if (days == 0) return clock;
    return std::to_string(days) + (days == 1 ? " day " : " days ") + clock;
}

namespace {

std::string Scaled(double value, const char* unit) {
    char text[32];
    const int decimals = value < 10 ? 2 : value < 100 ? 1 : 0;
    (void)snprintf(text, sizeof text, "%.*f %s", decimals, value, unit);
    return text;
}

}  // namespace

std::string ShownBytes(uint64_t bytes) {
    if (bytes == 0) return "-";
    if (bytes < 1024) return std::to_string(bytes) + " B";
    auto value = static_cast<double>(bytes);
    const char* unit = "";
    for (const char* larger : {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"}) {
        if (value < 1024) break;
        value /= 1024;
        unit = larger;
    }
    return Scaled(value, unit);
}

std::string ShownMicroseconds(double microseconds) {
    if (microseconds <= 0) return "-";
    if (microseconds < 1000) return Scaled(microseconds, "us");
    if (microseconds < 1'000'000) return Scaled(microseconds / 1000, "ms");
    return Scaled(microseconds / 1'000'000, "s");
}

}  // namespace oxel::ctl
