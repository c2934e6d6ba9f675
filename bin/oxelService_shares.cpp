// SPDX-License-Identifier: Apache-2.0
//
// The control socket's answers about shares: which there are, who mounted them, and reading the
// exports file anew.
#include <string>
#include <vector>

#include "backend/Export.h"
#include "backend/ExportCache.h"
#include "backend/export_registry.h"
#include "backend/exports_client.h"
#include "backend/share_set.h"
#include "base/service_manager.h"
#include "base/store.h"
#include "bin/oxelService.h"
#include "bin/oxelService_notify.h"
#include "companion/PellService.h"

using nlohmann::json;
using oxel::ControlReply;
using oxel::RegistryPathText;

static json TimeOrNull(long seconds) {
    if (seconds <= 0) return nullptr;
    return oxel::RegistryTimeText(seconds);
}

// The most specific first, as they are tried. A host name with several addresses is one client.
static json Clients(const oxel::ClientRules& rules) {
    json clients = json::array();
    for (const oxel::ClientRule& rule : rules.All()) {
        json client = {{"client", RegistryPathText(rule.text)},
                       {"options", oxel::ClientOptionWords(rule.options)}};
        if (clients.empty() || clients.back() != client) clients.push_back(std::move(client));
    }
    return clients;
}

static ControlReply Exports(const json&) {
    ControlReply reply;
    json& shares = reply.body["shares"] = json::array();
    for (const oxel::ServedShare& served : oxel::gShareSet.All()) {
        const oxel::ShareConfig& config = served.config;
        shares.push_back({{"path", RegistryPathText(config.path)},
                          {"id", config.id},
                          {"directory", RegistryPathText(config.directory)},
                          {"module", config.module},
                          {"unlisted", config.unlisted},
                          {"clients", Clients(config.clients)},
                          {"lastAccess", TimeOrNull(served.share->GetLastAccessTime())}});
    }
    return reply;
}

static ControlReply Mounts(const json&) {
    ControlReply reply;
    json& mounts = reply.body["mounts"] = json::array();
    for (const auto& [id, share] : gAllExports.All())
        for (const auto& [client, when] : gAllExports.Mounts(id))
            mounts.push_back({{"client", client},
                              {"path", RegistryPathText(share->GetPath())},
                              {"id", id},
                              {"lastMount", TimeOrNull(when)}});
    return reply;
}

static json Changes(const std::vector<oxel::ShareChange>& changes) {
    json list = json::array();
    for (const oxel::ShareChange& change : changes) {
        json entry = {{"path", RegistryPathText(change.path)}, {"id", change.id}};
        if (!change.what.empty()) {
            entry["what"] = change.what;
            entry["handlesKept"] = change.handlesKept;
        }
        list.push_back(std::move(entry));
    }
    return list;
}

static oxel::ReloadResult ReadSharesAnew() {
    oxel::ReloadResult result;
    {
        const oxel::Reloading told;
        result = oxel::gShareSet.Reload(oxel::InstancePaths(XOPI_Focus::focus()).exports);
    }
    RefreshStatusLine();
    return result;
}

static ControlReply Reload(const json&) {
    const oxel::ReloadResult result = ReadSharesAnew();
    ControlReply reply;
    if (!result.errors.empty()) {
        const size_t count = result.errors.size();
        reply.ok = false;
        reply.error = "the shares stay as they were: " + std::to_string(count) +
                      (count == 1 ? " error" : " errors") + " in the exports file";
        json& errors = reply.body["errors"] = json::array();
        for (const oxel::ExportsError& error : result.errors)
            errors.push_back(
                {{"file", error.file}, {"line", error.line}, {"reason", error.reason}});
        return reply;
    }
    reply.body = {{"added", Changes(result.added)},
                  {"removed", Changes(result.removed)},
                  {"changed", Changes(result.changed)},
                  {"unchanged", result.unchanged}};
    return reply;
}

void ReloadShares() {
    (void)ReadSharesAnew();  // the log has the outcome
}

void InstallShareControlHandlers() {
    oxel::SetControlHandler("exports", Exports);
    oxel::SetControlHandler("mounts", Mounts);
    oxel::SetControlHandler("reload", Reload);
}
