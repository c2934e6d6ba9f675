// SPDX-License-Identifier: Apache-2.0
//
// The control socket's answers about shares: which there are, who mounted them, who may, and
// reading the exports file anew.
#include <unistd.h>

#include <optional>
#include <string>
#include <vector>

#include "backend/Export.h"
#include "backend/ExportCache.h"
#include "backend/access_explanation.h"
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

static std::string ExportsFileName() {
    return oxel::InstancePaths(XOPI_Focus::focus()).exports;
}

static oxel::ReloadResult ReadSharesAnew() {
    oxel::ReloadResult result;
    {
        const oxel::Reloading told;
        result = oxel::gShareSet.Reload(ExportsFileName());
    }
    RefreshStatusLine();
    return result;
}

static ControlReply Refusal(const std::string& error) {
    ControlReply reply;
    reply.ok = false;
    reply.error = error;
    return reply;
}

// With "preview" nothing is done: the answer is what a reload would answer.
static ControlReply Reload(const json& request) {
    bool preview = false;
    if (const auto found = request.find("preview"); found != request.end()) {
        if (!found->is_boolean()) return Refusal("\"preview\" must be true or false");
        preview = found->get<bool>();
    }
    const oxel::ReloadResult result =
        preview ? oxel::gShareSet.Preview(ExportsFileName()) : ReadSharesAnew();
    ControlReply reply;
    if (!result.errors.empty()) {
        const size_t count = result.errors.size();
        reply.ok = false;
        reply.error =
            (preview ? "a reload would change nothing: " : "the shares stay as they were: ") +
            std::to_string(count) + (count == 1 ? " error" : " errors") + " in the exports file";
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

// What this process gives callers whose files it cannot access with their own rights.
static std::optional<oxel::AccessGround::Ids> OwnIds() {
    if (oxel::gShareSet.ActsForCallers()) return std::nullopt;
    return oxel::AccessGround::Ids{geteuid(), getegid()};
}

// The text of a member; empty when it is missing or something else.
static std::string Text(const json& request, const char* member) {
    const auto found = request.find(member);
    return found != request.end() && found->is_string() ? found->get<std::string>() : "";
}

static std::optional<uint64_t> Number(const json& request, const char* member) {
    const auto found = request.find(member);
    if (found == request.end() || found->is_null()) return std::nullopt;
    // What is no number that can be is refused as one that is too large.
    return found->is_number_unsigned() ? found->get<uint64_t>() : UINT64_MAX;
}

static ControlReply Why(const json& request) {
    oxel::AccessQuestion question;
    std::string error;
    if (!oxel::ParseAccessQuestion(Text(request, "address"), Text(request, "path"),
                                   Number(request, "port"), Number(request, "uid"), &question,
                                   &error))
        return Refusal(error);
    oxel::AccessGround ground{{}, ExportsFileName(), OwnIds()};
    for (oxel::ServedShare& served : oxel::gShareSet.All())
        ground.shares.push_back(std::move(served.config));
    ControlReply reply;
    reply.body = oxel::AccessExplanationJson(oxel::ExplainAccess(ground, question));
    return reply;
}

void ReloadShares() {
    (void)ReadSharesAnew();  // the log has the outcome
}

void InstallShareControlHandlers() {
    oxel::SetControlHandler("exports", Exports);
    oxel::SetControlHandler("mounts", Mounts);
    oxel::SetControlHandler("reload", Reload);
    oxel::SetControlHandler("why", Why);
}
