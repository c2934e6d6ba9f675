// SPDX-License-Identifier: Apache-2.0
//
// Which clients may use a share, and how: the client list of one line of the exports file.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "net/CLuIPAddr.h"

namespace oxel {

// What a matching client gets.
struct ClientOptions {
    bool writable = false;    // rw
    bool rootSquash = true;   // uid 0 and gid 0 become the anonymous ids
    bool allSquash = false;   // every id becomes anonymous
    bool secure = true;       // the client's port must be below 1024
    bool manageGids = false;  // supplementary groups are looked up on this machine
    uint32_t anonUid = 65534;
    uint32_t anonGid = 65534;
    bool operator==(const ClientOptions&) const = default;

    // The ids with which a caller's work is done. The id that cannot exist is what some clients
    // send for "nobody".
    static constexpr uint32_t kNoId = 0xffffffffu;
    uint32_t UidFor(uint32_t uid) const { return IsSquashed(uid) ? anonUid : uid; }
    uint32_t GidFor(uint32_t gid) const { return IsSquashed(gid) ? anonGid : gid; }

  private:
    bool IsSquashed(uint32_t id) const {
        return allSquash || id == kNoId || (rootSquash && id == 0);
    }
};

// The lowest port that a process without privileges can call from; "secure" asks for one below.
inline constexpr unsigned kUnprivilegedPortMin = 1024;

// One client of the list. `address` is in the 16-byte mapped form; prefixLength counts in it, so an
// IPv4 host has 128 and 10.0.0.0/8 has 104. "*" has 0 and matches both families.
struct ClientRule {
    std::string text;  // as written: "10.0.0.0/8"
    unsigned char address[16] = {};
    unsigned prefixLength = 0;
    bool network = false;  // written with a "/"; a plain address of the same length goes first
    bool v6Only = false;   // an IPv6 network: ::/0 is not meant to let IPv4 clients in
    ClientOptions options;
    int line = 0;  // of the exports file, for people: lines that move change no rule

    bool Matches(const XOIPAddr& client) const;
    // The greater, the earlier it is tried.
    int Specificity() const;
    bool operator==(const ClientRule& other) const;
};

// The rules of one share, most specific first. Constant after construction; any thread.
class ClientRules {
  public:
    ClientRules() = default;
    explicit ClientRules(std::vector<ClientRule> rules);
    // The most specific rule whose address matches, whatever its options; null: refused.
    const ClientRule* Match(const XOIPAddr& client) const;
    // Whether the client may use the share: a rule matches, and the port is below 1024 where the
    // rule asks for it.
    bool Allows(const XOIPAddr& client) const;
    bool AnyWritable() const;
    const std::vector<ClientRule>& All() const { return rules_; }
    bool operator==(const ClientRules&) const = default;

  private:
    std::vector<ClientRule> rules_;
};

}  // namespace oxel
