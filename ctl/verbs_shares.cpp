// SPDX-License-Identifier: Apache-2.0
//
// The shares: what is served to whom, who mounted it, and having the file read anew.
#include <cstdio>
#include <vector>

#include "base/log.h"
#include "ctl/ask.h"
#include "ctl/output.h"

namespace oxel::ctl {

using nlohmann::json;

namespace {

// "10.0.0.0/8(rw,insecure) *(ro)"
std::string ClientsText(const json& share) {
    std::string text;
    for (const json& client : Listed(share, "clients")) {
        text +=
            (text.empty() ? "" : " ") + Shown(client, "client") + "(" + OptionsText(client) + ")";
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

bool PrintChanges(const json& body) {
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
    if (!rows.empty()) PrintColumns({"outcome", "path", "id", "what"}, rows);
    return !rows.empty();
}

ExitCode Reload(const Settings& settings) {
    return Ask(settings, {{"verb", "reload"}}, kAsLongAsItTakes, [](const json& body) {
        if (!PrintChanges(body)) printf("Nothing has changed.\n");
    });
}

}  // namespace oxel::ctl
