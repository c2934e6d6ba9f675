// SPDX-License-Identifier: Apache-2.0
#include "backend/refusal_log.h"

#include <optional>
#include <utility>
#include <vector>

#include "backend/Export.h"
#include "backend/ExportCache.h"
#include "backend/access_explanation.h"
#include "base/log.h"
#include "base/repeat_limit.h"
#include "base/store.h"

namespace oxel {

RefusalTable::Verdict RefusalTable::Count(const XOIPAddr& client, RefusalReason reason,
                                          int64_t now) {
    std::string key(reinterpret_cast<const char*>(client.bytes()), 16);
    key.push_back(static_cast<char>(reason));
    XoCriticalSectionGuard lock(mutex_);
    Verdict verdict{true, 0};
    const bool known = told_.with(key, [&](Told& told) {
        verdict.tell = now - told.at >= kSeconds;
        if (!verdict.tell) {
            ++told.untold;
            return;
        }
        verdict.untold = told.untold;
        told = {now, 0};
    });
    if (!known) told_.insert(key, {now, 0});
    return verdict;
}

// Never destroyed: threads may still refuse while the process ends.
static RefusalTable& Table() {
    static auto* table = new RefusalTable;
    return *table;
}

static std::string ExportsFileName() {
    return InstancePaths(XOPI_Focus::focus()).exports;
}

namespace {

// What stands behind "Refused [client]: ".
struct Text {
    std::string what, remedy, more;
};

// Counts the refusal; empty unless it is to be told.
template <typename Compose>
std::optional<Text> Told(const XOIPAddr& client, RefusalReason reason, Compose compose) noexcept {
    if (!LogWriter::Wants(1)) return std::nullopt;
    try {
        const RefusalTable::Verdict verdict = Table().Count(client, reason, CoarseSeconds());
        if (!verdict.tell) return std::nullopt;
        Text text = compose();
        if (verdict.untold != 0)
            text.more =
                " (" + std::to_string(verdict.untold) + " more of this kind since it was told)";
        return text;
    } catch (...) {
        // Memory is short: what the procedure itself has logged must do.
        return std::nullopt;
    }
}

Text OfPath(const char* path) {
    std::vector<SharePlace> shares;
    for (const auto& [id, share] : gAllExports.All()) shares.push_back({share->GetPath(), ""});
    std::string stored;
    ReverseNormalizeExportPath(path, stored);
    PathAdvice advice = AdviseOnPath(stored, shares, ExportsFileName());
    return {std::move(advice.reason), std::move(advice.remedy), ""};
}

Text OfUnmatched(const XOIPAddr& client, const std::string& share, bool writable) {
    return {"no client of [" + share + "] matches",
            "add " + client.GetAddressString() + (writable ? "(rw)" : "(ro)") + " to its line in " +
                ExportsFileName() + " and run oxelctl reload",
            ""};
}

Text OfPort(const XOIPAddr& client, const std::string& share, ClientRule rule) {
    rule.line = 0;  // it may have moved since the share was made
    std::string text = RuleText(rule);
    text.insert(text.size() - 1, ",secure");
    return {"port " + std::to_string(client.port()) + " of [" + share + "] by rule [" + text + "]",
            PortRemedy(rule, ExportsFileName()), ""};
}

Text OfChange(const std::string& share, const ClientRule* rule) {
    const std::string there = " in " + ExportsFileName() + " and run oxelctl reload";
    if (rule == nullptr)
        return {"a change in [" + share + "], which no client may change",
                "write rw for the client" + there, ""};
    return {"a change in [" + share + "] by rule [" + RuleText(*rule) + "]",
            "write rw instead of ro for " + rule->text + there, ""};
}

}  // namespace

void LogRefusedPath(const CLuIPAddr& client, const char* path) noexcept {
    const XOIPAddr address(client);
    if (const auto text = Told(address, RefusalReason::kPath, [&] { return OfPath(path); }))
        OXEL_LOG(1, "Refused [%s]: %s: %s%s", address.GetAddressString().c_str(),
                 text->what.c_str(), text->remedy.c_str(), text->more.c_str());
}

void LogRefusedClient(const XOIPAddr& client, const std::string& share,
                      const ClientRules& rules) noexcept {
    const ClientRule* rule = rules.Match(client);
    const auto text =
        rule == nullptr
            ? Told(client, RefusalReason::kClient,
                   [&] { return OfUnmatched(client, share, rules.AnyWritable()); })
            : Told(client, RefusalReason::kPort, [&] { return OfPort(client, share, *rule); });
    if (text)
        OXEL_LOG(1, "Refused [%s]: %s: %s%s", client.GetAddressString().c_str(), text->what.c_str(),
                 text->remedy.c_str(), text->more.c_str());
}

void LogRefusedChange(const CLuIPAddr& client, const std::string& share,
                      const ClientRule* rule) noexcept {
    const XOIPAddr address(client);
    if (const auto text =
            Told(address, RefusalReason::kChange, [&] { return OfChange(share, rule); }))
        OXEL_LOG(1, "Refused [%s]: %s: %s%s", address.GetAddressString().c_str(),
                 text->what.c_str(), text->remedy.c_str(), text->more.c_str());
}

}  // namespace oxel
