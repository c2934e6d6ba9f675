// SPDX-License-Identifier: Apache-2.0
//
// What a client gets that mounts a path, and why: asked of the same rules that decide for the
// client itself. For people; nothing on the way of a call comes here.
#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "backend/exports_file.h"

namespace oxel {

struct AccessQuestion {
    CLuIPAddr client;  // its port does not count
    std::string path;  // absolute, as the client would mount it
    std::optional<unsigned short> port;
    std::optional<uint32_t> uid;
};

// Reads the question from what somebody typed. False with a reason for people in *error: an address
// that is none, a relative path, a number that is too large.
bool ParseAccessQuestion(const std::string& address, const std::string& path,
                         const std::optional<uint64_t>& port, const std::optional<uint64_t>& uid,
                         AccessQuestion* question, std::string* error);

// The shares that the question is about, and what surrounds them.
struct AccessGround {
    std::vector<ShareConfig> shares;
    std::string exportsFile;  // where they are written, for the remedies
    // When files are accessed with the process's own rights, whoever calls: its ids.
    struct Ids {
        uint32_t uid, gid;
    };
    std::optional<Ids> ownIds;
};

struct ExplainedRule {
    ClientRule rule;
    bool matches = false;
    bool decides = false;
    std::string why;
};

// With whose ids the client's work is done. An id that is not there is the client's own, as it is.
struct ExplainedIds {
    std::string mode;  // "root_squash", "no_root_squash", "all_squash", "daemon"
    std::optional<uint32_t> uid, gid;
};

struct AccessExplanation {
    bool allowed = false;
    // What stands behind "allowed: " or "refused: ": with what, or why.
    std::string reason;
    std::string remedy;              // when refused: what to do
    std::vector<std::string> notes;  // when allowed: what one may want to know
    std::string client;              // as the log and the listings show it
    std::string path;
    std::optional<unsigned short> port;
    std::optional<uint32_t> uid;
    std::string exportsFile;
    // Of the share that the path is, when it is one:
    std::optional<ShareConfig> share;
    std::vector<ExplainedRule> rules;  // in the order in which they are tried
    // Of the rule that decides, when one matches:
    std::optional<ClientRule> rule;
    bool readOnly = true;
    ExplainedIds ids;
    bool serverGroups = false;  // supplementary groups are looked up on the server
};

AccessExplanation ExplainAccess(const AccessGround& ground, const AccessQuestion& question);

// The same with names in camelCase; what does not apply is null.
nlohmann::json AccessExplanationJson(const AccessExplanation& told);

// Why the path is none of the shares and what to mount instead, in one sentence each.
struct PathAdvice {
    std::string reason, remedy;
};
struct SharePlace {
    std::string path;       // what clients mount
    std::string directory;  // empty where it is not known
};
PathAdvice AdviseOnPath(const std::string& requested, const std::vector<SharePlace>& shares,
                        const std::string& exportsFile);

// "10.0.0.0/8(rw,insecure)", with the options that are not the default.
std::string RuleText(const ClientRule& rule);

// What a client does about its port, or somebody about the rule.
std::string PortRemedy(const ClientRule& rule, const std::string& exportsFile);

}  // namespace oxel
