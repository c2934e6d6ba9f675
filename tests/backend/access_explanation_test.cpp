// SPDX-License-Identifier: Apache-2.0
//
// What clients are told that they get, against what the rules give them.
#include "backend/access_explanation.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <random>

#include "tests/support/access_cases.h"

namespace oxel::test {
namespace {

constexpr char kRoot[] = "/somewhere";
constexpr char kFile[] = "/etc/I.exports";

AccessGround Ground(const std::string& exports) {
    const auto resolve = [](const std::string& name, std::vector<CLuIPAddr>* addresses,
                            std::string*) {
        for (const char* text : {"192.0.2.1", "2001:db8::5"}) {
            CLuIPAddr address;
            EXPECT_TRUE(CLuIPAddr::Parse(text, 0, &address)) << name;
            addresses->push_back(address);
        }
        return true;
    };
    ExportsFile file = ParseExports(exports, kFile, false, resolve);
    for (const ExportsError& error : file.errors) ADD_FAILURE() << ErrorText(error);
    return {std::move(file.shares), kFile, {}};
}

AccessQuestion Question(const std::string& address, const std::string& path,
                        std::optional<uint64_t> port = {}, std::optional<uint64_t> uid = {}) {
    AccessQuestion question;
    std::string error;
    EXPECT_TRUE(ParseAccessQuestion(address, path, port, uid, &question, &error)) << error;
    return question;
}

AccessExplanation Explain(const std::string& exports, const std::string& address,
                          const std::string& path, std::optional<uint64_t> port = {},
                          std::optional<uint64_t> uid = {}) {
    return ExplainAccess(Ground(exports), Question(address, path, port, uid));
}

// "client: why" of each rule in its order, "*" behind the one that decides.
std::vector<std::string> Rules(const AccessExplanation& told) {
    std::vector<std::string> texts;
    for (const ExplainedRule& rule : told.rules)
        texts.push_back(rule.rule.text + ": " + rule.why + (rule.decides ? " *" : ""));
    return texts;
}

using Texts = std::vector<std::string>;

}  // namespace

class AccessExplanationTable : public testing::TestWithParam<AccessCase> {};
INSTANTIATE_TEST_SUITE_P(Cases, AccessExplanationTable, testing::ValuesIn(AccessCases(kRoot)));

TEST_P(AccessExplanationTable, SaysWhoGetsWhatByWhichRule) {
    const AccessCase& expected = GetParam();
    const AccessExplanation told =
        ExplainAccess(Ground(AccessCaseExports(kRoot)),
                      Question(expected.address, expected.path, expected.port, expected.uid));
    EXPECT_EQ(told.allowed, expected.allowed);
    EXPECT_EQ(told.reason, expected.reason);
    EXPECT_EQ(told.remedy.empty(), expected.allowed) << told.remedy;
    ASSERT_EQ(told.rule.has_value(), expected.rule != nullptr);
    size_t deciding = 0;
    for (const ExplainedRule& rule : told.rules) {
        EXPECT_NE(rule.why, "");
        EXPECT_TRUE(rule.matches || !rule.decides);
        if (!rule.decides) continue;
        ++deciding;
        EXPECT_EQ(rule.rule.text, expected.rule);
    }
    EXPECT_EQ(deciding, expected.rule != nullptr ? 1u : 0u);
    if (!told.rule) return;
    EXPECT_EQ(told.rule->text, expected.rule);
    EXPECT_EQ(told.rule->line, expected.line);
    EXPECT_EQ(told.readOnly, expected.readOnly);
}

TEST(AccessExplanation, TheTableHasEnoughCases) {
    EXPECT_GE(AccessCases(kRoot).size(), 40u);
}

TEST(AccessExplanation, RulesAreToldInTheOrderInWhichTheyAreTried) {
    const AccessExplanation told =
        Explain("/x * 10.0.0.0/8(rw) 10.0.0.5(ro) 10.0.0.6 ::/0 10.0.0.0/24 10.0.0.0/8(ro)\n",
                "10.0.0.5", "/x");
    EXPECT_EQ(Rules(told), (Texts{"10.0.0.5: matches *", "10.0.0.6: 10.0.0.6 is not 10.0.0.5",
                                  "10.0.0.0/24: matches, but 10.0.0.5 is more specific",
                                  "10.0.0.0/8: matches, but 10.0.0.5 is more specific",
                                  "10.0.0.0/8: matches, but 10.0.0.5 is more specific",
                                  "::/0: ::/0 has IPv6 clients only, 10.0.0.5 is IPv4",
                                  "*: matches, but 10.0.0.5 is more specific"}));
}

TEST(AccessExplanation, OfEqualRulesTheFirstIsSaidToDecide) {
    EXPECT_EQ(Rules(Explain("/x 10.0.0.0/8(rw) 10.0.0.0/8\n", "10.1.1.1", "/x")),
              (Texts{"10.0.0.0/8: matches *",
                     "10.0.0.0/8: matches, but the same client stands before it"}));
}

TEST(AccessExplanation, ANetworkThatDoesNotMatchIsSaidNotToContainTheClient) {
    EXPECT_EQ(Rules(Explain("/x 10.0.0.0/8 2001:db8::/32\n", "192.168.1.5", "/x")),
              (Texts{"10.0.0.0/8: 10.0.0.0/8 does not contain 192.168.1.5",
                     "2001:db8::/32: 2001:db8::/32 has IPv6 clients only, 192.168.1.5 is IPv4"}));
    EXPECT_EQ(Rules(Explain("/x *\n", "192.168.1.5", "/x")), (Texts{"*: matches every client *"}));
}

TEST(AccessExplanation, AHostNameIsToldWithTheAddressThatItHad) {
    EXPECT_EQ(Rules(Explain("/x client.example\n", "192.0.2.2", "/x")),
              (Texts{"client.example: client.example was 192.0.2.1 when the shares were read, not "
                     "192.0.2.2",
                     "client.example: client.example was 2001:db8::5 when the shares were read, "
                     "not 192.0.2.2"}));
    EXPECT_TRUE(Explain("/x client.example\n", "192.0.2.1", "/x").allowed);
    EXPECT_TRUE(Explain("/x client.example\n", "2001:db8::5", "/x").allowed);
}

TEST(AccessExplanation, LinesAreThoseOfTheWordsThatTheRulesStandIn) {
    const AccessExplanation told =
        Explain("# shares\n\n/x \\\n 10.0.0.1(rw) \\\n 10.0.0.2(rw)\n", "10.0.0.2", "/x");
    EXPECT_EQ(told.rule->line, 5);
    EXPECT_EQ(told.share->line, 3);
}

TEST(AccessExplanation, RemediesNameTheLineAndWhatToWrite) {
    const std::string exports = "/y *\n/x 10.0.0.0/8(rw) 10.1.0.0/16\n";
    EXPECT_EQ(Explain(exports, "10.0.0.1", "/x", 2000).remedy,
              "mount from a port below 1024 (as root, without noresvport), or add insecure to "
              "10.0.0.0/8 in line 2 of /etc/I.exports and run oxelctl reload");
    EXPECT_EQ(Explain(exports, "11.0.0.1", "/x").remedy,
              "add the client to line 2 of /etc/I.exports, for example 11.0.0.1(rw), and run "
              "oxelctl reload");
    EXPECT_EQ(Explain(exports, "11.0.0.1", "/x/a/b").remedy, "mount /x instead; there it is a/b");
    EXPECT_EQ(Explain(exports, "11.0.0.1", "/quite/elsewhere").remedy,
              "mount one of the shares that oxelctl exports shows, or write /quite/elsewhere into "
              "/etc/I.exports and run oxelctl reload");
    EXPECT_EQ(Explain("", "11.0.0.1", "/x").reason, "there are no shares");
    EXPECT_EQ(Explain("", "11.0.0.1", "/x").remedy,
              "write one into /etc/I.exports and run oxelctl reload");
}

TEST(AccessExplanation, NotesTellOfPortsAndOfChangesThatAreRefused) {
    const std::string exports = "/x *(rw) 10.0.0.0/8\n/y *(insecure)\n";
    EXPECT_EQ(Explain(exports, "10.0.0.1", "/x").notes,
              (Texts{"The client's port must be below 1024: mount as root and without noresvport, "
                     "or add insecure to 10.0.0.0/8 in line 1 of /etc/I.exports.",
                     "Changes are refused with \"Read-only file system\": the rule 10.0.0.0/8(ro) "
                     "says ro. For changes write rw there."}));
    EXPECT_EQ(Explain(exports, "10.0.0.1", "/y").notes,
              (Texts{"Changes are refused with \"Permission denied\": no client of the share has "
                     "rw. For changes write rw for *."}));
    EXPECT_EQ(Explain(exports, "11.0.0.1", "/x", 900).notes, Texts{});
}

TEST(AccessExplanation, TheRootsShareIsMeantOnlyWhenNothingElseIs) {
    const std::string exports = "/ *\n/srv/a *\n";
    EXPECT_TRUE(Explain(exports, "10.0.0.1", "/").allowed);
    EXPECT_EQ(Explain(exports, "10.0.0.1", "/srv/b").remedy, "mount /srv/a if that was meant");
    EXPECT_EQ(Explain(exports, "10.0.0.1", "/usr/share/doc").remedy,
              "mount / instead; there it is usr/share/doc");
    EXPECT_EQ(Explain(exports, "10.0.0.1", "/srv").reason,
              "/srv is not a share, it lies above /srv/a");
}

TEST(AccessExplanation, TheLongestShareAboveAPathIsNamed) {
    EXPECT_EQ(Explain("/a *\n/a/b *\n", "10.0.0.1", "/a/b/c").remedy,
              "mount /a/b instead; there it is c");
    EXPECT_EQ(Explain("/a/b *\n/a *\n", "10.0.0.1", "/a/bc").remedy,
              "mount /a instead; there it is bc");
}

TEST(AccessExplanation, APathThatMountCannotCarryIsRefused) {
    const std::string slashes = std::string(1100, '/') + "x";
    EXPECT_EQ(Explain("/x *\n", "10.0.0.1", slashes).reason,
              "a path of more than 1024 bytes cannot be mounted");
}

TEST(AccessExplanation, ADaemonThatIsNotRootDoesEverythingAsItself) {
    AccessGround ground = Ground("/x *(rw,all_squash,insecure)\n");
    ground.ownIds = {1000, 1001};
    const AccessExplanation told = ExplainAccess(ground, Question("10.0.0.1", "/x", {}, 5));
    EXPECT_EQ(told.reason, "read-write as uid 1000 gid 1001");
    EXPECT_EQ(told.ids.mode, "daemon");
    EXPECT_EQ(told.notes, (Texts{"The daemon is not root, so that it accesses files with its own "
                                 "rights, whoever calls."}));
}

TEST(AccessExplanation, AsJsonHasEverything) {
    const nlohmann::json body = AccessExplanationJson(Explain(
        "/x -dir=/d,id=7,unlisted 10.0.0.0/8(rw,manage_gids) *\n", "10.0.0.1", "/x", 700, 0));
    EXPECT_EQ(body, nlohmann::json::parse(R"({
        "allowed": true, "client": "10.0.0.1", "path": "/x", "port": 700, "uid": 0,
        "reason": "read-write as uid 65534 gid 65534", "notes": [], "file": "/etc/I.exports",
        "share": {"path": "/x", "id": 7, "directory": "/d", "module": "local", "unlisted": true,
                  "line": 1},
        "rule": {"client": "10.0.0.0/8", "line": 1, "options": ["rw", "root_squash", "secure",
                 "manage_gids", "anonuid=65534", "anongid=65534"]},
        "rules": [
            {"client": "10.0.0.0/8", "line": 1, "options": ["rw", "root_squash", "secure",
             "manage_gids", "anonuid=65534", "anongid=65534"], "matches": true, "decides": true,
             "why": "matches"},
            {"client": "*", "line": 1, "options": ["ro", "root_squash", "secure",
             "no_manage_gids", "anonuid=65534", "anongid=65534"], "matches": true,
             "decides": false, "why": "matches, but 10.0.0.0/8 is more specific"}],
        "readOnly": false, "squash": {"mode": "root_squash", "uid": 65534, "gid": 65534},
        "serverGroups": true, "secure": true})"));
}

TEST(AccessExplanation, AsJsonHasNullForWhatDoesNotApply) {
    const nlohmann::json body = AccessExplanationJson(Explain("/x 10.0.0.1\n", "10.0.0.2", "/x/y"));
    EXPECT_EQ(body, nlohmann::json::parse(R"({
        "allowed": false, "client": "10.0.0.2", "path": "/x/y", "port": null, "uid": null,
        "reason": "/x/y is not a share, it lies below share /x",
        "remedy": "mount /x instead; there it is y", "notes": [], "file": "/etc/I.exports",
        "share": null, "rule": null, "rules": [], "readOnly": null, "squash": null,
        "serverGroups": null, "secure": null})"));
    EXPECT_EQ(AccessExplanationJson(
                  Explain("/x *(all_squash,manage_gids,anonuid=5)\n", "::1", "/x"))["serverGroups"],
              false);
}

TEST(AccessExplanation, AsJsonIsTextWhateverThePathHolds) {
    const std::string path = "/\xff\x01\\";
    const std::string dumped = AccessExplanationJson(Explain("/x *\n", "10.0.0.2", path)).dump();
    EXPECT_NE(dumped.find(R"(/\\377\\001\\134)"), std::string::npos) << dumped;
}

TEST(AccessQuestion, WhatCannotBeAskedIsSaidWhy) {
    const auto error = [](const std::string& address, const std::string& path,
                          std::optional<uint64_t> port = {}, std::optional<uint64_t> uid = {}) {
        AccessQuestion question;
        std::string reason;
        EXPECT_FALSE(ParseAccessQuestion(address, path, port, uid, &question, &reason));
        return reason;
    };
    EXPECT_EQ(error("client.example", "/x"),
              "'client.example' is not an IPv4 or IPv6 address; rules are asked about addresses, "
              "so look a host name up first: getent ahosts NAME");
    EXPECT_EQ(error("10.0.0.0/8", "/x"),
              "'10.0.0.0/8' is not one address; write the address of one client");
    EXPECT_EQ(error("fe80::1%eth0", "/x"),
              "'fe80::1%eth0' is not an IPv4 or IPv6 address; leave out what follows the '%'");
    EXPECT_EQ(error("10.0.0.256", "/x"), "'10.0.0.256' is not an IPv4 or IPv6 address");
    EXPECT_EQ(error("", "/x"), "'' is not an IPv4 or IPv6 address");
    EXPECT_EQ(error("10.0.0.1", "x/y"), "a share's path begins with '/': 'x/y'");
    EXPECT_EQ(error("10.0.0.1", ""), "a share's path begins with '/': ''");
    EXPECT_EQ(error("10.0.0.1", std::string("/x\0y", 4)), "a path has no byte of value 0");
    EXPECT_EQ(error("10.0.0.1", "/x", 0), "a port is a number from 1 to 65535");
    EXPECT_EQ(error("10.0.0.1", "/x", 65536), "a port is a number from 1 to 65535");
    EXPECT_EQ(error("10.0.0.1", "/x", 1, 4294967296), "a uid is a number from 0 to 4294967295");
}

TEST(AccessQuestion, AMappedAddressIsAnIPv4One) {
    EXPECT_EQ(Explain("/x 10.0.0.0/8\n", "::ffff:10.0.0.9", "/x").client, "10.0.0.9");
}

// Whatever the rules are, what is explained is what the check of a call decides.
TEST(AccessExplanation, AgreesWithTheCheckOfCallsForAnyRules) {
    const uint32_t seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const auto below = [&random](unsigned n) { return static_cast<unsigned>(random() % n); };
    // Few different bits, so that rules overlap.
    const auto v4 = [&] {
        return "10." + std::to_string(below(2)) + "." + std::to_string(below(2) * 128) + "." +
               std::to_string(below(4));
    };
    const auto v6 = [&] {
        return "2001:db8:" + std::to_string(below(2)) + "::" + std::to_string(below(4));
    };
    const auto client = [&]() -> std::string {
        switch (below(7)) {
            case 0:
                return "*";
            case 1:
                return v6();
            case 2:
                return v6() + "/" + std::to_string(below(129));
            case 3:
                return v4();
            case 4:
                return "::/0";
            default:
                return v4() + "/" + std::to_string(below(33));
        }
    };
    const auto option = [&]() -> std::string {
        static const char* const words[] = {
            "rw",     "ro",          "insecure",       "all_squash",
            "secure", "root_squash", "no_root_squash", "manage_gids"};
        return words[below(8)];
    };
    size_t allowed = 0, refusedPort = 0, refusedClient = 0;
    for (int round = 0; round < 400; ++round) {
        std::string line = "/x";
        for (unsigned i = below(6) + 1; i > 0; --i)
            line += " " + client() + "(" + option() + "," + option() + "," + option() + ")";
        const AccessGround ground = Ground(line + "\n");
        ASSERT_EQ(ground.shares.size(), 1u) << line;
        const ClientRules& rules = ground.shares[0].clients;
        for (int i = 0; i < 10; ++i) {
            const std::string address = below(3) == 0 ? v6() : (below(2) ? v4() : "::ffff:" + v4());
            const unsigned short port =
                static_cast<unsigned short>(below(2) == 0 ? 1022 + below(4) : 1 + below(65535));
            const uint32_t uid = below(2) * 1000;
            SCOPED_TRACE(line + " asked for " + address + " port " + std::to_string(port));
            CLuIPAddr real;
            ASSERT_TRUE(CLuIPAddr::Parse(address, port, &real));
            const AccessExplanation told =
                ExplainAccess(ground, Question(address, "/x", port, uid));
            ASSERT_EQ(told.allowed, rules.Allows(XOIPAddr(real)));
            const ClientRule* match = rules.Match(XOIPAddr(real));
            ASSERT_EQ(told.rule.has_value(), match != nullptr);
            for (const ExplainedRule& rule : told.rules)
                ASSERT_EQ(rule.matches, rule.rule.Matches(XOIPAddr(real)));
            if (match == nullptr) {
                ++refusedClient;
                continue;
            }
            ASSERT_EQ(*told.rule, *match);
            ASSERT_EQ(told.readOnly, !match->options.writable);
            ASSERT_EQ(told.ids.uid, match->options.UidFor(uid));
            ++(told.allowed ? allowed : refusedPort);
            // Without a port everything is allowed that is from some port.
            ASSERT_TRUE(ExplainAccess(ground, Question(address, "/x")).allowed);
        }
    }
    EXPECT_GT(allowed, 100u);
    EXPECT_GT(refusedPort, 100u);
    EXPECT_GT(refusedClient, 100u);
}

}  // namespace oxel::test
