// SPDX-License-Identifier: Apache-2.0
//
// The clients of an exports line: "10.0.0.0/8(rw,insecure)" becomes rules.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "backend/client_rules.h"
#include "backend/exports_file.h"
#include "backend/exports_words.h"

namespace oxel {

// The names of all client options, and of those that only the share itself can have.
const std::vector<std::string>& ClientOptionNames();
const std::vector<std::string>& ShareOptionNames();

enum class ClientOptionOutcome { kTaken, kUnknown, kError };
// Acts on one client option ("rw", "anonuid=500"). kError has the reason in *error, kUnknown leaves
// everything untouched.
ClientOptionOutcome ApplyClientOption(const ExportsWord& option, ClientOptions* options,
                                      std::string* error);

// Everything that the options say, as the words that would say it: "rw", "root_squash", ...,
// "anongid=65534".
std::vector<std::string> ClientOptionWords(const ClientOptions& options);

// Reads clients, resolving each host name once.
class ClientParser {
  public:
    explicit ClientParser(const HostResolver& resolve) : resolve_(resolve) {}
    // Appends the client's rules (a host name may have several addresses). Each thing that is wrong
    // is appended to `errors`.
    void Parse(const ExportsWord& word, const ClientOptions& defaults,
               std::vector<ClientRule>* rules, std::vector<std::string>* errors);

  private:
    struct Resolved {
        bool found;
        std::vector<CLuIPAddr> addresses;
        std::string error;
    };
    bool ParseName(const std::string& name, std::vector<ClientRule>* rules, std::string* error);
    bool ParseHostName(const std::string& name, std::vector<ClientRule>* rules, std::string* error);

    const HostResolver& resolve_;
    std::map<std::string, Resolved> resolved_;
};

}  // namespace oxel
