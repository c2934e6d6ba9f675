// SPDX-License-Identifier: Apache-2.0
//
// Client names, networks and client options of the exports file.
#include "backend/exports_client.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <set>

#include "base/nearest_word.h"

namespace oxel {

// (uid_t)-1 means "leave as it is" to the calls that switch identities.
static constexpr uint32_t kIdMax = 4294967294u;
static constexpr size_t kHostNameBytesMax = 253;
static constexpr unsigned kMappedPrefixBits = 96;

namespace {

// One row per client option: a flag with its value, or a number.
struct OptionRow {
    const char* name;
    bool ClientOptions::*flag;
    bool value;
    uint32_t ClientOptions::*number;
};

}  // namespace

static const OptionRow kOptions[] = {
    {"ro", &ClientOptions::writable, false, nullptr},
    {"rw", &ClientOptions::writable, true, nullptr},
    {"root_squash", &ClientOptions::rootSquash, true, nullptr},
    {"no_root_squash", &ClientOptions::rootSquash, false, nullptr},
    {"all_squash", &ClientOptions::allSquash, true, nullptr},
    {"anonuid", nullptr, false, &ClientOptions::anonUid},
    {"anongid", nullptr, false, &ClientOptions::anonGid},
    {"secure", &ClientOptions::secure, true, nullptr},
    {"insecure", &ClientOptions::secure, false, nullptr},
    {"manage_gids", &ClientOptions::manageGids, true, nullptr},
    {"no_manage_gids", &ClientOptions::manageGids, false, nullptr},
    // Taken so that files written for other servers work: every WRITE is as stable as the client
    // asks, and handles hold no directory to check.
    {"async", nullptr, false, nullptr},
    {"sync", nullptr, false, nullptr},
    {"subtree_check", nullptr, false, nullptr},
    {"no_subtree_check", nullptr, false, nullptr},
};

const std::vector<std::string>& ClientOptionNames() {
    static const std::vector<std::string> names = [] {
        std::vector<std::string> list;
        for (const OptionRow& row : kOptions) list.emplace_back(row.name);
        return list;
    }();
    return names;
}

std::vector<std::string> ClientOptionWords(const ClientOptions& options) {
    return {options.writable ? "rw" : "ro",
            options.allSquash    ? "all_squash"
            : options.rootSquash ? "root_squash"
                                 : "no_root_squash",
            options.secure ? "secure" : "insecure",
            options.manageGids ? "manage_gids" : "no_manage_gids",
            "anonuid=" + std::to_string(options.anonUid),
            "anongid=" + std::to_string(options.anonGid)};
}

ClientOptionOutcome ApplyClientOption(const ExportsWord& option, ClientOptions* options,
                                      std::string* error) {
    size_t equals = option.Find('=');
    bool hasValue = equals != std::string::npos;
    std::string name = option.text().substr(0, equals);
    for (const OptionRow& row : kOptions) {
        if (name != row.name) continue;
        if (!row.number) {
            if (hasValue) {
                *error = "option '" + name + "' takes no value";
                return ClientOptionOutcome::kError;
            }
            if (row.flag) options->*row.flag = row.value;
            return ClientOptionOutcome::kTaken;
        }
        if (!hasValue) {
            *error = "option '" + name + "' needs a number: " + name + "=N";
            return ClientOptionOutcome::kError;
        }
        std::string value = option.text().substr(equals + 1);
        if (!ParseDecimal(value, kIdMax, &(options->*row.number))) {
            *error = "option '" + name + "': " + QuoteForError(value) +
                     " is not a number from 0 to " + std::to_string(kIdMax);
            return ClientOptionOutcome::kError;
        }
        return ClientOptionOutcome::kTaken;
    }
    return ClientOptionOutcome::kUnknown;
}

const std::vector<std::string>& ShareOptionNames() {
    static const std::vector<std::string> names = {"dir", "module", "id", "unlisted"};
    return names;
}

// Why an option in a client's parentheses is refused.
static std::string UnknownClientOption(const std::string& text) {
    if (text.empty()) return "an option is missing: nothing stands between two commas";
    std::string name = text.substr(0, text.find('='));
    for (const std::string& shareOption : ShareOptionNames())
        if (name == shareOption)
            return "option '" + name +
                   "' belongs to the share: write it after the path, in the group "
                   "that begins with '-'";
    return "unknown option " + QuoteForError(name) + DidYouMean(name, ClientOptionNames());
}

bool ResolveHost(const std::string& name, std::vector<CLuIPAddr>* addresses, std::string* error) {
    addrinfo hints = {};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* list = nullptr;
    int result = getaddrinfo(name.c_str(), nullptr, &hints, &list);
    if (result != 0) {
        *error = result == EAI_SYSTEM ? std::strerror(errno) : gai_strerror(result);
        return false;
    }
    for (const addrinfo* entry = list; entry; entry = entry->ai_next)
        if (entry->ai_family == AF_INET || entry->ai_family == AF_INET6)
            addresses->emplace_back(entry->ai_addr, entry->ai_addrlen);
    freeaddrinfo(list);
    if (addresses->empty()) *error = "it has no IPv4 or IPv6 address";
    return !addresses->empty();
}

// An address in the 16-byte form; `v4` tells which kind was written.
static bool ParseAddress(const std::string& text, unsigned char (&bytes)[16], bool* v4) {
    in_addr address4;
    if (inet_pton(AF_INET, text.c_str(), &address4) == 1) {
        std::memset(bytes, 0, 10);
        std::memset(bytes + 10, 0xff, 2);
        std::memcpy(bytes + 12, &address4, 4);
        *v4 = true;
        return true;
    }
    in6_addr address6;
    if (inet_pton(AF_INET6, text.c_str(), &address6) != 1) return false;
    std::memcpy(bytes, &address6, 16);
    *v4 = false;
    return true;
}

// The number of leading one bits of a netmask; false when a one follows a zero.
static bool MaskLength(const unsigned char* bytes, size_t count, unsigned* length) {
    unsigned ones = 0;
    bool zeroSeen = false;
    for (size_t i = 0; i < count * 8; ++i) {
        bool one = bytes[i / 8] >> (7 - i % 8) & 1;
        if (one && zeroSeen) return false;
        if (one) ++ones;
        zeroSeen |= !one;
    }
    *length = ones;
    return true;
}

static bool ParseNetwork(const std::string& text, size_t slash, ClientRule* rule,
                         std::string* error) {
    std::string address = text.substr(0, slash), mask = text.substr(slash + 1);
    bool v4 = false, maskV4 = false;
    if (!ParseAddress(address, rule->address, &v4)) {
        *error = QuoteForError(address) + " in network " + QuoteForError(text) +
                 " is not an IPv4 or IPv6 address";
        return false;
    }
    unsigned bits = v4 ? 32 : 128;
    unsigned char maskBytes[16];
    uint32_t prefix = 0;
    if (ParseAddress(mask, maskBytes, &maskV4) && maskV4 == v4) {
        unsigned length = 0;
        if (!MaskLength(v4 ? maskBytes + 12 : maskBytes, bits / 8, &length)) {
            *error = "netmask " + QuoteForError(mask) + " has a one after a zero";
            return false;
        }
        prefix = length;
    } else if (!ParseDecimal(mask, bits, &prefix)) {
        *error = "network " + QuoteForError(text) + " needs a prefix length from 0 to " +
                 std::to_string(bits) + " or a netmask after the '/'";
        return false;
    }
    rule->network = true;
    rule->v6Only = !v4;
    rule->prefixLength = v4 ? kMappedPrefixBits + prefix : prefix;
    return true;
}

// Letters, digits, '-', '_' in labels of 1 to 63 bytes. A last label that is a number is refused:
// the resolver would take "10.1" for the address 10.0.0.1.
static bool IsHostName(const std::string& name) {
    std::string text = name;
    if (text.size() > 1 && text.back() == '.') text.pop_back();
    if (text.empty() || text.size() > kHostNameBytesMax) return false;
    size_t labelBytes = 0, labelBegin = 0;
    for (size_t i = 0; i < text.size(); ++i) {
        char c = text[i];
        if (c == '.') {
            if (labelBytes == 0) return false;
            labelBytes = 0;
            labelBegin = i + 1;
            continue;
        }
        bool valid = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                     c == '-' || c == '_';
        if (!valid || ++labelBytes > 63) return false;
    }
    std::string last = text.substr(labelBegin);
    if (last.empty() || text.front() == '-') return false;
    bool allDigits = last.find_first_not_of("0123456789") == std::string::npos;
    bool hex = last.size() >= 2 && last[0] == '0' && (last[1] == 'x' || last[1] == 'X') &&
               last.find_first_not_of("0123456789abcdefABCDEF", 2) == std::string::npos;
    return !allDigits && !hex;
}

bool ClientParser::ParseHostName(const std::string& name, std::vector<ClientRule>* rules,
                                 std::string* error) {
    if (!IsHostName(name)) {
        *error =
            QuoteForError(name) +
            " is neither '*', an IPv4 or IPv6 address, a network address/prefix, nor a host name";
        return false;
    }
    auto [entry, isNew] = resolved_.try_emplace(name);
    Resolved& resolved = entry->second;
    if (isNew) resolved.found = resolve_(name, &resolved.addresses, &resolved.error);
    if (!resolved.found) {
        *error = "host name " + QuoteForError(name) + " does not resolve (" + resolved.error +
                 "); write its address";
        return false;
    }
    // Name servers give the addresses in any order; the rules of a name that has not changed are
    // the same each time.
    std::set<std::string> addresses;
    for (const CLuIPAddr& address : resolved.addresses) {
        const XOIPAddr host(address);
        addresses.emplace(reinterpret_cast<const char*>(host.bytes()), sizeof ClientRule::address);
    }
    for (const std::string& address : addresses) {
        ClientRule rule;
        rule.text = name;
        rule.prefixLength = 128;
        std::memcpy(rule.address, address.data(), sizeof rule.address);
        rules->push_back(std::move(rule));
    }
    return true;
}

bool ClientParser::ParseName(const std::string& name, std::vector<ClientRule>* rules,
                             std::string* error) {
    ClientRule rule;
    rule.text = name;
    if (name == "*") {
        rules->push_back(std::move(rule));
        return true;
    }
    if (name[0] == '@') {
        *error = "netgroups are not supported: " + QuoteForError(name) +
                 "; write addresses, networks or host names";
        return false;
    }
    if (name.find_first_of("*?[]") != std::string::npos) {
        *error = "wildcards in client names are not supported: " + QuoteForError(name) +
                 "; write addresses, networks, host names or '*' alone";
        return false;
    }
    if (size_t slash = name.find('/'); slash != std::string::npos) {
        if (!ParseNetwork(name, slash, &rule, error)) return false;
        rules->push_back(std::move(rule));
        return true;
    }
    bool v4 = false;
    if (ParseAddress(name, rule.address, &v4)) {
        rule.prefixLength = 128;
        rules->push_back(std::move(rule));
        return true;
    }
    return ParseHostName(name, rules, error);
}

void ClientParser::Parse(const ExportsWord& word, const ClientOptions& defaults,
                         std::vector<ClientRule>* rules, std::vector<std::string>* errors) {
    size_t open = word.Find('('), close = word.Find(')');
    // "(rw)" on its own is for everybody, as in exports(5).
    std::string name = open == 0 ? "*" : word.text().substr(0, std::min(open, close));
    std::vector<ClientRule> named;
    ClientOptions options = defaults;
    size_t errorsBefore = errors->size();
    std::string error;
    if (open == std::string::npos && close != std::string::npos) {
        errors->push_back("')' without '(' in " + QuoteForError(word.text()));
        return;
    }
    if (open != std::string::npos) {
        if (close == std::string::npos || close < open || word.Find('(', open + 1) < close) {
            errors->push_back("the options in " + QuoteForError(word.text()) +
                              " are not closed with ')' (no blanks between the parentheses)");
            return;
        }
        if (close + 1 != word.text().size()) {
            errors->push_back("a blank is missing after the ')' in " + QuoteForError(word.text()));
            return;
        }
        ExportsWord list = word.Part(open + 1, close - open - 1);
        if (!list.empty()) {
            for (const ExportsWord& option : list.Split(',')) {
                switch (ApplyClientOption(option, &options, &error)) {
                    case ClientOptionOutcome::kTaken:
                        break;
                    case ClientOptionOutcome::kError:
                        errors->push_back(error);
                        break;
                    case ClientOptionOutcome::kUnknown:
                        errors->push_back(UnknownClientOption(option.text()));
                        break;
                }
            }
        }
    }
    if (!ParseName(name, &named, &error)) errors->push_back(error);
    if (errors->size() != errorsBefore) return;
    for (ClientRule& rule : named) {
        rule.options = options;
        rule.line = word.line();
        rules->push_back(std::move(rule));
    }
}

}  // namespace oxel
