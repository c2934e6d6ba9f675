// SPDX-License-Identifier: Apache-2.0
//
// Explaining what a client gets. Who is allowed is asked of ClientRules, as for a real call; here
// are only the words.
#include "backend/access_explanation.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "backend/ExportCache.h"
#include "backend/export_registry.h"
#include "backend/exports_client.h"
#include "backend/exports_words.h"

namespace oxel {

// A port that every rule with "secure" takes; for a client of which no port is known.
static constexpr unsigned short kSecurePort = 1;
// MNTPATHLEN (RFC 1813 section 5.1.1).
static constexpr size_t kMountPathBytesMax = 1024;

bool ParseAccessQuestion(const std::string& address, const std::string& path,
                         const std::optional<uint64_t>& port, const std::optional<uint64_t>& uid,
                         AccessQuestion* question, std::string* error) {
    AccessQuestion read;
    if (!CLuIPAddr::Parse(address, 0, &read.client)) {
        const std::string shown = QuoteForError(address);
        if (address.find('/') != std::string::npos)
            *error = shown + " is not one address; write the address of one client";
        else if (address.find('%') != std::string::npos)
            *error = shown + " is not an IPv4 or IPv6 address; leave out what follows the '%'";
        else if (address.find_first_not_of("0123456789.:") == std::string::npos)
            *error = shown + " is not an IPv4 or IPv6 address";
        else
            *error = shown +
                     " is not an IPv4 or IPv6 address; rules are asked about addresses, so look a "
                     "host name up first: getent ahosts NAME";
        return false;
    }
    if (path.empty() || path[0] != '/') {
        *error = "a share's path begins with '/': " + QuoteForError(path);
        return false;
    }
    if (path.find('\0') != std::string::npos) {
        *error = "a path has no byte of value 0";
        return false;
    }
    if (port && (*port < 1 || *port > 65535)) {
        *error = "a port is a number from 1 to 65535";
        return false;
    }
    if (uid && *uid > UINT32_MAX) {
        *error = "a uid is a number from 0 to " + std::to_string(UINT32_MAX);
        return false;
    }
    read.path = path;
    if (port) read.port = static_cast<unsigned short>(*port);
    if (uid) read.uid = static_cast<uint32_t>(*uid);
    *question = std::move(read);
    return true;
}

std::string RuleText(const ClientRule& rule) {
    static const std::vector<std::string> usual = ClientOptionWords(ClientOptions());
    std::string options = rule.options.writable ? "rw" : "ro";
    for (const std::string& word : ClientOptionWords(rule.options))
        if (word != "ro" && word != "rw" &&
            std::find(usual.begin(), usual.end(), word) == usual.end())
            options += "," + word;
    return rule.text + "(" + options + ")";
}

// "line 3 of /etc/oxelnfsd/a.exports"
static std::string Place(int line, const std::string& file) {
    return line == 0 ? file : "line " + std::to_string(line) + " of " + file;
}

std::string PortRemedy(const ClientRule& rule, const std::string& exportsFile) {
    return "mount from a port below " + std::to_string(kUnprivilegedPortMin) +
           " (as root, without noresvport), or add insecure to " + rule.text + " in " +
           Place(rule.line, exportsFile) + " and run oxelctl reload";
}

namespace {

// One explanation under way.
class Explainer {
  public:
    Explainer(const AccessGround& ground, const AccessQuestion& question)
        : ground_(ground), question_(question), client_(AtPort(question.port)) {
        told_.client = question.client.GetAddressString();
        told_.path = question.path;
        told_.port = question.port;
        told_.uid = question.uid;
        told_.exportsFile = ground.exportsFile;
    }

    AccessExplanation Explain() {
        const ShareConfig* share = FindShare();
        if (share == nullptr) return std::move(told_);
        told_.share = *share;
        const ClientRule* deciding = share->clients.Match(client_);
        for (const ClientRule& rule : share->clients.All())
            told_.rules.push_back(ExplainRule(rule, deciding));
        if (deciding == nullptr) {
            RefuseUnmatched(*share);
            return std::move(told_);
        }
        told_.rule = *deciding;
        told_.allowed = share->clients.Allows(client_);
        told_.readOnly = !deciding->options.writable;
        told_.serverGroups = deciding->options.manageGids && !deciding->options.allSquash;
        ExplainIds(deciding->options);
        if (told_.allowed)
            Allow(*share, *deciding);
        else
            RefusePort(*deciding);
        return std::move(told_);
    }

  private:
    XOIPAddr AtPort(const std::optional<unsigned short>& port) const {
        CLuIPAddr address = question_.client;
        address.SetPort(port.value_or(kSecurePort));
        return XOIPAddr(address);
    }

    // As MNT finds it; null with everything said when it finds none.
    const ShareConfig* FindShare() {
        std::string stored;
        ReverseNormalizeExportPath(question_.path, stored);
        if (question_.path.size() > kMountPathBytesMax) {
            told_.reason = "a path of more than " + std::to_string(kMountPathBytesMax) +
                           " bytes cannot be mounted";
            told_.remedy = "mount a shorter path; oxelctl exports shows the shares";
            return nullptr;
        }
        std::vector<SharePlace> places;
        for (const ShareConfig& share : ground_.shares) {
            if (share.path == stored) return &share;
            places.push_back({share.path, share.directory});
        }
        PathAdvice advice = AdviseOnPath(stored, places, ground_.exportsFile);
        told_.reason = std::move(advice.reason);
        told_.remedy = std::move(advice.remedy);
        return nullptr;
    }

    ExplainedRule ExplainRule(const ClientRule& rule, const ClientRule* deciding) const {
        ExplainedRule explained{rule, rule.Matches(client_), &rule == deciding, ""};
        if (!explained.matches)
            explained.why = WhyNoMatch(rule);
        else if (explained.decides)
            explained.why = rule.text == "*" ? "matches every client" : "matches";
        else if (rule.Specificity() == deciding->Specificity())
            explained.why = "matches, but the same client stands before it";
        else
            explained.why = "matches, but " + deciding->text + " is more specific";
        return explained;
    }

    std::string WhyNoMatch(const ClientRule& rule) const {
        const std::string& client = told_.client;
        if (rule.network && rule.v6Only && client_.isV4())
            return rule.text + " has IPv6 clients only, " + client + " is IPv4";
        if (rule.network) return rule.text + " does not contain " + client;
        const std::string address = XOIPAddr(rule.address).GetAddressString();
        CLuIPAddr literal;
        if (CLuIPAddr::Parse(rule.text, 0, &literal)) return rule.text + " is not " + client;
        return rule.text + " was " + address + " when the shares were read, not " + client;
    }

    void RefuseUnmatched(const ShareConfig& share) {
        told_.reason = "no client of share " + share.path + " matches " + told_.client;
        told_.remedy = "add the client to " + Place(share.line, ground_.exportsFile) +
                       ", for example " + told_.client + "(" +
                       (share.clients.AnyWritable() ? "rw" : "ro") + "), and run oxelctl reload";
    }

    void RefusePort(const ClientRule& rule) {
        told_.reason = "port " + std::to_string(*told_.port) + " is not below " +
                       std::to_string(kUnprivilegedPortMin) + ", and the rule " + RuleText(rule) +
                       " is secure";
        told_.remedy = PortRemedy(rule, ground_.exportsFile);
    }

    void ExplainIds(const ClientOptions& options) {
        ExplainedIds& ids = told_.ids;
        if (ground_.ownIds) {
            ids = {"daemon", ground_.ownIds->uid, ground_.ownIds->gid};
            return;
        }
        ids.mode = options.allSquash    ? "all_squash"
                   : options.rootSquash ? "root_squash"
                                        : "no_root_squash";
        if (options.allSquash) {
            ids.uid = options.anonUid;
            ids.gid = options.anonGid;
        } else if (question_.uid) {
            ids.uid = options.UidFor(*question_.uid);
            // Root's group is root's; of the others' only the client knows.
            if (*question_.uid == 0) ids.gid = options.GidFor(0);
        }
    }

    // Follows "read-write" or "read-only".
    std::string IdsText(const ClientOptions& options) const {
        const ExplainedIds& ids = told_.ids;
        if (ids.uid && ids.gid)
            return " as uid " + std::to_string(*ids.uid) + " gid " + std::to_string(*ids.gid);
        if (ids.uid) return " as uid " + std::to_string(*ids.uid) + " with the group it has there";
        if (!options.rootSquash) return ": everybody as the uid and gid that they have there";
        return ": root as uid " + std::to_string(options.anonUid) + " gid " +
               std::to_string(options.anonGid) + ", others as the uid and gid that they have there";
    }

    void Allow(const ShareConfig& share, const ClientRule& rule) {
        const bool portCounts = rule.options.secure && !told_.port;
        told_.reason = (rule.options.writable ? "read-write" : "read-only") + IdsText(rule.options);
        if (portCounts) {
            told_.reason += ", from ports below " + std::to_string(kUnprivilegedPortMin) + " only";
            told_.notes.push_back("The client's port must be below " +
                                  std::to_string(kUnprivilegedPortMin) +
                                  ": mount as root and without noresvport, or add insecure to " +
                                  rule.text + " in " + Place(rule.line, ground_.exportsFile) + ".");
        }
        if (told_.readOnly && share.clients.AnyWritable())
            told_.notes.push_back("Changes are refused with \"Read-only file system\": the rule " +
                                  RuleText(rule) + " says ro. For changes write rw there.");
        else if (told_.readOnly)
            told_.notes.push_back(
                "Changes are refused with \"Permission denied\": no client of the share has rw. "
                "For changes write rw for " +
                rule.text + ".");
        if (ground_.ownIds)
            told_.notes.push_back(
                "The daemon is not root, so that it accesses files with its own rights, whoever "
                "calls.");
    }

    const AccessGround& ground_;
    const AccessQuestion& question_;
    const XOIPAddr client_;
    AccessExplanation told_;
};

template <typename Value>
nlohmann::json OrNull(const std::optional<Value>& value) {
    return value ? nlohmann::json(*value) : nlohmann::json();
}

// File names and the like have any bytes, JSON has text.
nlohmann::json RuleJson(const ClientRule& rule) {
    return {{"client", RegistryPathText(rule.text)},
            {"options", ClientOptionWords(rule.options)},
            {"line", rule.line}};
}

}  // namespace

AccessExplanation ExplainAccess(const AccessGround& ground, const AccessQuestion& question) {
    return Explainer(ground, question).Explain();
}

nlohmann::json AccessExplanationJson(const AccessExplanation& told) {
    using nlohmann::json;
    json body = {{"allowed", told.allowed},
                 {"client", told.client},
                 {"path", RegistryPathText(told.path)},
                 {"port", OrNull(told.port)},
                 {"uid", OrNull(told.uid)},
                 {"reason", RegistryPathText(told.reason)},
                 {"notes", json::array()},
                 {"file", RegistryPathText(told.exportsFile)},
                 {"share", nullptr},
                 {"rule", nullptr},
                 {"rules", json::array()},
                 {"readOnly", nullptr},
                 {"squash", nullptr},
                 {"serverGroups", nullptr},
                 {"secure", nullptr}};
    if (!told.allowed) body["remedy"] = RegistryPathText(told.remedy);
    for (const std::string& note : told.notes) body["notes"].push_back(RegistryPathText(note));
    if (told.share)
        body["share"] = {{"path", RegistryPathText(told.share->path)},
                         {"id", told.share->id},
                         {"directory", RegistryPathText(told.share->directory)},
                         {"module", told.share->module},
                         {"unlisted", told.share->unlisted},
                         {"line", told.share->line}};
    for (const ExplainedRule& explained : told.rules) {
        json rule = RuleJson(explained.rule);
        rule["matches"] = explained.matches;
        rule["decides"] = explained.decides;
        rule["why"] = RegistryPathText(explained.why);
        body["rules"].push_back(std::move(rule));
    }
    if (told.rule) {
        body["rule"] = RuleJson(*told.rule);
        body["readOnly"] = told.readOnly;
        body["squash"] = {
            {"mode", told.ids.mode}, {"uid", OrNull(told.ids.uid)}, {"gid", OrNull(told.ids.gid)}};
        body["serverGroups"] = told.serverGroups;
        body["secure"] = told.rule->options.secure;
    }
    return body;
}

}  // namespace oxel
