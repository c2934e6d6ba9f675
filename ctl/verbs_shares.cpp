// SPDX-License-Identifier: Apache-2.0
//
// The shares: what is served to whom, who mounted it, and having the file read anew.
#include <cstdio>
#include <string_view>
#include <vector>

#include "base/log.h"
#include "ctl/ask.h"
#include "ctl/output.h"

namespace oxel::ctl {

using nlohmann::json;

namespace {

// What a rule says when it says nothing; programs get these words too, people need not read them.
bool IsDefault(std::string_view option) {
    for (const char* word :
         {"root_squash", "secure", "no_manage_gids", "anonuid=65534", "anongid=65534"})
        if (option == word) return true;
    return false;
}

// "10.0.0.0/8(rw,insecure) *(ro)"
std::string ClientsText(const json& share) {
    std::string text;
    for (const json& client : Listed(share, "clients")) {
        std::string options;
        if (const auto words = client.find("options"); words != client.end() && words->is_array()) {
            for (const json& word : *words) {
                if (!word.is_string() || IsDefault(word.get_ref<const std::string&>())) continue;
                options += (options.empty() ? "" : ",") + word.get<std::string>();
            }
        }
        text += (text.empty() ? "" : " ") + Shown(client, "client") + "(" + EscapeControl(options) +
                ")";
    }
    return text.empty() ? "-" : text;
}

// "id, clients"
std::string WhatText(const json& change) {
    std::string text;
    if (const auto what = change.find("what"); what != change.end() && what->is_array())
        for (const json& word : *what)
            if (word.is_string()) text += (text.empty() ? "" : ", ") + word.get<std::string>();
    return EscapeControl(text);
}

}  // namespace

ExitCode Exports(const Settings& settings) {
    return Ask(settings, {{"verb", "exports"}}, kAnswerMs, [](const json& body) {
        std::vector<std::vector<std::string>> rows;
        for (const json& share : Listed(body, "shares"))
            rows.push_back({Shown(share, "path"), Shown(share, "id"), Shown(share, "directory"),
                            Shown(share, "module"), Shown(share, "unlisted"),
                            Shown(share, "lastAccess"), ClientsText(share)});
        if (rows.empty()) {
            printf("No shares are served.\n");
            return;
        }
        PrintColumns({"path", "id", "directory", "module", "unlisted", "last access", "clients"},
                     rows);
    });
}

ExitCode Mounts(const Settings& settings) {
    return Ask(settings, {{"verb", "mounts"}}, kAnswerMs, [](const json& body) {
        std::vector<std::vector<std::string>> rows;
        for (const json& mount : Listed(body, "mounts"))
            rows.push_back({Shown(mount, "client"), Shown(mount, "path"), Shown(mount, "id"),
                            Shown(mount, "lastMount")});
        if (rows.empty()) {
            printf("No client has mounted a share.\n");
            return;
        }
        PrintColumns({"client", "path", "id", "last mount"}, rows);
    });
}

ExitCode Reload(const Settings& settings) {
    return Ask(settings, {{"verb", "reload"}}, kAsLongAsItTakes, [](const json& body) {
        std::vector<std::vector<std::string>> rows;
        for (const char* outcome : {"added", "removed", "changed"}) {
            for (const json& change : Listed(body, outcome)) {
                std::string what = WhatText(change);
                // A share that is gone has no clients to tell.
                if (change.value("handlesKept", json(true)) == json(false) && !what.empty())
                    what += " (clients that have it mounted must mount it again)";
                rows.push_back({outcome, Shown(change, "path"), Shown(change, "id"), what});
            }
        }
        if (rows.empty()) {
            printf("Nothing has changed.\n");
            return;
        }
        PrintColumns({"outcome", "path", "id", "what"}, rows);
    });
}

}  // namespace oxel::ctl
