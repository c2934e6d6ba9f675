// SPDX-License-Identifier: Apache-2.0
//
// Matching a client's address against the client list of a share.
#include "backend/client_rules.h"

#include <algorithm>
#include <cstring>

namespace oxel {

// IPv4 addresses begin here in the 16-byte form (::ffff:0:0/96).
static constexpr unsigned kMappedPrefixBits = 96;

bool ClientRule::Matches(const XOIPAddr& client) const {
    if (v6Only && prefixLength < kMappedPrefixBits && client.isV4()) return false;
    unsigned bits = std::min(prefixLength, 128u);
    if (std::memcmp(address, client.bytes(), bits / 8) != 0) return false;
    unsigned rest = bits % 8;
    if (rest == 0) return true;
    unsigned mask = 0xffu << (8 - rest) & 0xffu;
    return (address[bits / 8] & mask) == (client.bytes()[bits / 8] & mask);
}

// "*" has the shortest prefix of all, but so has ::/0, which says more.
int ClientRule::Specificity() const {
    if (prefixLength == 0 && !network) return -1;
    return static_cast<int>(prefixLength) * 2 + (network ? 0 : 1);
}

bool ClientRule::operator==(const ClientRule& other) const {
    return text == other.text && std::memcmp(address, other.address, sizeof address) == 0 &&
           prefixLength == other.prefixLength && network == other.network &&
           v6Only == other.v6Only && options == other.options;
}

ClientRules::ClientRules(std::vector<ClientRule> rules) : rules_(std::move(rules)) {
    // Stable, so that of two equal rules the one written first is found first.
    std::stable_sort(rules_.begin(), rules_.end(), [](const ClientRule& a, const ClientRule& b) {
        return a.Specificity() > b.Specificity();
    });
}

const ClientRule* ClientRules::Match(const XOIPAddr& client) const {
    for (const ClientRule& rule : rules_)
        if (rule.Matches(client)) return &rule;
    return nullptr;
}

bool ClientRules::Allows(const XOIPAddr& client) const {
    const ClientRule* rule = Match(client);
    return rule && (!rule->options.secure || client.port() < kUnprivilegedPortMin);
}

bool ClientRules::AnyWritable() const {
    return std::any_of(rules_.begin(), rules_.end(),
                       [](const ClientRule& rule) { return rule.options.writable; });
}

}  // namespace oxel
