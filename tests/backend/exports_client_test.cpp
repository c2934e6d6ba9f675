// SPDX-License-Identifier: Apache-2.0
//
// Client names, networks and client options.
#include "backend/exports_client.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

namespace oxel {
namespace {

// Knows "one" and "two" (with one and two addresses) and counts what it is asked.
class ClientTest : public testing::Test {
  protected:
    // The rules of a client list, or the errors.
    std::vector<ClientRule> Parse(const std::string& clients) {
        ExportsFile file = ParseExports("/x " + clients + "\n", "exports", false, resolver_);
        errors_.clear();
        for (const ExportsError& error : file.errors) errors_.push_back(error.reason);
        return file.shares.empty() ? std::vector<ClientRule>() : file.shares[0].clients.All();
    }
    std::string Error(const std::string& clients) {
        EXPECT_TRUE(Parse(clients).empty()) << clients;
        return errors_.size() == 1 ? errors_[0] : std::to_string(errors_.size()) + " errors";
    }
    ClientOptions Options(const std::string& clients) {
        std::vector<ClientRule> rules = Parse(clients);
        EXPECT_EQ(rules.size(), 1u) << clients << (errors_.empty() ? "" : errors_[0]);
        return rules.empty() ? ClientOptions() : rules[0].options;
    }
    std::string Bytes(const ClientRule& rule) {
        char text[INET6_ADDRSTRLEN];
        return inet_ntop(AF_INET6, rule.address, text, sizeof text);
    }

    std::vector<std::string> errors_;
    int asked_ = 0;
    HostResolver resolver_ = [this](const std::string& name, std::vector<CLuIPAddr>* addresses,
                                    std::string* error) {
        ++asked_;
        CLuIPAddr address;
        if (name == "one" || name == "two.example.org") {
            EXPECT_TRUE(CLuIPAddr::Parse("192.0.2.1", 0, &address));
            addresses->push_back(address);
        }
        if (name == "two.example.org") {
            EXPECT_TRUE(CLuIPAddr::Parse("2001:db8::2", 0, &address));
            addresses->push_back(address);
        }
        if (addresses->empty()) *error = "not known here";
        return !addresses->empty();
    };
};

TEST_F(ClientTest, EveryOptionSetsItsOwnField) {
    ClientOptions expected;
    EXPECT_EQ(Options("*"), expected);
    EXPECT_EQ(Options("*()"), expected);
    EXPECT_EQ(Options("*(ro,root_squash,secure,no_manage_gids)"), expected);
    EXPECT_EQ(Options("*(sync,async,subtree_check,no_subtree_check)"), expected);
    expected.writable = true;
    EXPECT_EQ(Options("*(rw)"), expected);
    expected = ClientOptions();
    expected.rootSquash = false;
    EXPECT_EQ(Options("*(no_root_squash)"), expected);
    expected = ClientOptions();
    expected.allSquash = true;
    EXPECT_EQ(Options("*(all_squash)"), expected);
    expected = ClientOptions();
    expected.secure = false;
    EXPECT_EQ(Options("*(insecure)"), expected);
    expected = ClientOptions();
    expected.manageGids = true;
    EXPECT_EQ(Options("*(manage_gids)"), expected);
    expected = ClientOptions();
    expected.anonUid = 0;
    EXPECT_EQ(Options("*(anonuid=0)"), expected);
    expected = ClientOptions();
    expected.anonGid = 4294967294u;
    EXPECT_EQ(Options("*(anongid=4294967294)"), expected);
}

TEST_F(ClientTest, TheLastOfTwoOpposedOptionsCounts) {
    EXPECT_TRUE(Options("*(ro,rw)").writable);
    EXPECT_FALSE(Options("*(rw,ro)").writable);
}

TEST_F(ClientTest, DefaultsOfTheLeadingGroupApplyAndAreOverridden) {
    ExportsFile file = ParseExports("/x -rw,insecure,anonuid=7 10.0.0.1 10.0.0.2(ro,anonuid=8)\n",
                                    "exports", false, resolver_);
    ASSERT_EQ(file.shares.size(), 1u);
    const std::vector<ClientRule>& rules = file.shares[0].clients.All();
    ASSERT_EQ(rules.size(), 2u);
    EXPECT_TRUE(rules[0].options.writable);
    EXPECT_FALSE(rules[0].options.secure);
    EXPECT_EQ(rules[0].options.anonUid, 7u);
    EXPECT_FALSE(rules[1].options.writable);
    EXPECT_FALSE(rules[1].options.secure);
    EXPECT_EQ(rules[1].options.anonUid, 8u);
}

TEST_F(ClientTest, OptionsAfterABlankAreForEverybody) {
    std::vector<ClientRule> rules = Parse("(rw)");
    ASSERT_EQ(rules.size(), 1u);
    EXPECT_EQ(rules[0].text, "*");
    EXPECT_TRUE(rules[0].options.writable);
    EXPECT_EQ(rules[0].prefixLength, 0u);
}

TEST_F(ClientTest, AddressesAndNetworksOfBothFamilies) {
    struct {
        const char* text;
        const char* bytes;
        unsigned prefix;
    } rows[] = {{"*", "::", 0},
                {"10.1.2.3", "::ffff:10.1.2.3", 128},
                {"10.0.0.0/8", "::ffff:10.0.0.0", 104},
                {"10.0.0.0/255.0.0.0", "::ffff:10.0.0.0", 104},
                {"10.0.0.0/0.0.0.0", "::ffff:10.0.0.0", 96},
                {"10.0.0.1/32", "::ffff:10.0.0.1", 128},
                {"0.0.0.0/0", "::ffff:0.0.0.0", 96},
                {"10.0.0.1/255.255.255.255", "::ffff:10.0.0.1", 128},
                {"2001:db8::1", "2001:db8::1", 128},
                {"2001:db8::/32", "2001:db8::", 32},
                {"2001:db8::/ffff:ffff::", "2001:db8::", 32},
                {"::/0", "::", 0},
                {"::1", "::1", 128}};
    for (const auto& row : rows) {
        std::vector<ClientRule> rules = Parse(row.text);
        ASSERT_EQ(rules.size(), 1u) << row.text << (errors_.empty() ? "" : errors_[0]);
        EXPECT_EQ(rules[0].text, row.text);
        EXPECT_EQ(Bytes(rules[0]), row.bytes) << row.text;
        EXPECT_EQ(rules[0].prefixLength, row.prefix) << row.text;
    }
    EXPECT_EQ(asked_, 0);
}

TEST_F(ClientTest, HostNamesGiveARulePerAddress) {
    std::vector<ClientRule> rules = Parse("two.example.org(rw)");
    ASSERT_EQ(rules.size(), 2u);
    EXPECT_EQ(rules[0].text, "two.example.org");
    EXPECT_EQ(Bytes(rules[0]), "::ffff:192.0.2.1");
    EXPECT_EQ(Bytes(rules[1]), "2001:db8::2");
    EXPECT_EQ(rules[1].prefixLength, 128u);
    EXPECT_TRUE(rules[0].options.writable && rules[1].options.writable);
}

// A reload must not see a change where the name server has only turned its list.
TEST_F(ClientTest, TheOrderOfANameServersAnswerDoesNotCount) {
    const std::vector<std::string> addresses = {"192.0.2.9", "2001:db8::2", "192.0.2.1"};
    std::vector<std::vector<ClientRule>> all;
    for (size_t first = 0; first < addresses.size(); ++first) {
        resolver_ = [&](const std::string&, std::vector<CLuIPAddr>* found, std::string*) {
            for (size_t i = 0; i <= addresses.size(); ++i) {  // one of them twice
                CLuIPAddr address;
                EXPECT_TRUE(
                    CLuIPAddr::Parse(addresses[(first + i) % addresses.size()], 0, &address));
                found->push_back(address);
            }
            return true;
        };
        all.push_back(Parse("name"));
    }
    ASSERT_EQ(all[0].size(), 3u);
    EXPECT_EQ(Bytes(all[0][0]), "::ffff:192.0.2.1");
    EXPECT_EQ(all[1], all[0]);
    EXPECT_EQ(all[2], all[0]);
}

TEST_F(ClientTest, Ipv4AddressesMayBeWrittenInTheirMappedForm) {
    for (const char* text : {"::ffff:10.1.2.3", "::ffff:a01:203", "::ffff:10.0.0.0/104"}) {
        std::vector<ClientRule> rules = Parse(text);
        ASSERT_EQ(rules.size(), 1u) << text;
        CLuIPAddr client, other;
        ASSERT_TRUE(CLuIPAddr::Parse("10.1.2.3", 700, &client));
        ASSERT_TRUE(CLuIPAddr::Parse("11.1.2.3", 700, &other));
        EXPECT_TRUE(rules[0].Matches(XOIPAddr(client))) << text;
        EXPECT_FALSE(rules[0].Matches(XOIPAddr(other))) << text;
    }
}

TEST_F(ClientTest, TheMostSpecificOfTheWrittenClientsCounts) {
    ExportsFile file = ParseExports(
        "/x -insecure *(anonuid=1) 10.0.0.0/8(anonuid=2) 10.1.0.0/255.255.0.0(anonuid=3) "
        "10.1.2.3(anonuid=4) one(anonuid=5) 2001:db8::/32(anonuid=6) ::/0(anonuid=7) "
        "0.0.0.0/0(anonuid=8)\n",
        "exports", false, resolver_);
    ASSERT_EQ(file.shares.size(), 1u) << file.errors[0].reason;
    const struct {
        const char* client;
        uint32_t anonUid;
    } rows[] = {{"10.1.2.3", 4},       {"::ffff:10.1.2.3", 4}, {"10.1.2.4", 3},
                {"10.2.0.1", 2},       {"192.0.2.1", 5},       {"192.0.2.2", 8},
                {"2001:db8::ffff", 6}, {"2001:db9::1", 7},     {"::1", 7}};
    for (const auto& row : rows) {
        CLuIPAddr client;
        ASSERT_TRUE(CLuIPAddr::Parse(row.client, 50000, &client));
        const ClientRule* rule = file.shares[0].clients.Match(XOIPAddr(client));
        ASSERT_NE(rule, nullptr) << row.client;
        EXPECT_EQ(rule->options.anonUid, row.anonUid) << row.client;
        EXPECT_FALSE(rule->options.secure);
    }
}

TEST_F(ClientTest, AClientThatNothingMatchesIsRefused) {
    ExportsFile file = ParseExports("/x 10.0.0.0/8(rw,insecure)\n", "exports", false, resolver_);
    CLuIPAddr client;
    ASSERT_TRUE(CLuIPAddr::Parse("11.0.0.1", 700, &client));
    EXPECT_FALSE(file.shares.at(0).clients.Allows(XOIPAddr(client)));
}

TEST_F(ClientTest, EveryOptionCanBeSaidInWords) {
    using Words = std::vector<std::string>;
    EXPECT_EQ(
        ClientOptionWords(ClientOptions()),
        (Words{"ro", "root_squash", "secure", "no_manage_gids", "anonuid=65534", "anongid=65534"}));
    EXPECT_EQ(
        ClientOptionWords(Options("*(rw,no_root_squash,insecure,manage_gids,anonuid=1,anongid=2)")),
        (Words{"rw", "no_root_squash", "insecure", "manage_gids", "anonuid=1", "anongid=2"}));
    EXPECT_EQ(ClientOptionWords(Options("*(all_squash)"))[1], "all_squash");
}

TEST_F(ClientTest, EachHostNameIsResolvedOnce) {
    ParseExports("/a one one\n/b one(rw)\n/c nobody\n/d nobody\n", "exports", false, resolver_);
    EXPECT_EQ(asked_, 2);
}

TEST_F(ClientTest, AnUnresolvedNameIsAnError) {
    EXPECT_EQ(
        Error("nobody.example.org"),
        "host name 'nobody.example.org' does not resolve (not known here); write its address");
}

TEST_F(ClientTest, TheSystemsResolverKnowsLocalhost) {
    std::vector<CLuIPAddr> addresses;
    std::string error;
    ASSERT_TRUE(ResolveHost("localhost", &addresses, &error)) << error;
    EXPECT_FALSE(addresses.empty());
}

TEST_F(ClientTest, NetgroupsAndWildcardsAreErrors) {
    EXPECT_EQ(Error("@trusted(rw)"),
              "netgroups are not supported: '@trusted'; write addresses, networks or host names");
    for (const char* name : {"*.example.org", "host?", "host[1-3]", "10.0.*", "**"})
        EXPECT_EQ(Error(name), std::string("wildcards in client names are not supported: '") +
                                   name + "'; write addresses, networks, host names or '*' alone");
    EXPECT_EQ(asked_, 0);
}

TEST_F(ClientTest, WrongAddressesAndNetworksAreErrorsAndAskNoNameServer) {
    for (const char* name : {"10.0.0.256",
                             "10.1",
                             "10",
                             "0x7f.1",
                             "0x7f000001",
                             "1.2.3.4.5",
                             "fe80::1%lo",
                             "[::1]",
                             "2001:db8:::1",
                             "gss/krb5",
                             "10.0.0.0/33",
                             "10.0.0.0/",
                             "/8",
                             "10.0.0.0/-1",
                             "10.0.0.0/+8",
                             "10.0.0.0/8x",
                             "10.0.0.0/8/8",
                             "10.0.0.0/255.0.255.0",
                             "10.0.0.0/ffff::",
                             "::/129",
                             "::/255.0.0.0",
                             "2001:db8::/ffff:0:ffff::",
                             "a..b",
                             ".a",
                             "-",
                             "a_b!",
                             "host name/8"}) {
        EXPECT_TRUE(Parse(std::string("\"") + name + "\"").empty()) << name;
        EXPECT_EQ(errors_.size(), 1u) << name;
    }
    EXPECT_EQ(Error("10.0.0.0/255.0.255.0"), "netmask '255.0.255.0' has a one after a zero");
    EXPECT_EQ(Error("10.0.0.0/33"),
              "network '10.0.0.0/33' needs a prefix length from 0 to 32 or a "
              "netmask after the '/'");
    EXPECT_TRUE(Parse(std::string(64, 'a') + ".example.org").empty());
    EXPECT_EQ(asked_, 0);
}

TEST_F(ClientTest, UnknownOptionsNameTheNearestValidWord) {
    EXPECT_EQ(Error("*(rww)"), "unknown option 'rww'; did you mean 'rw'?");
    EXPECT_EQ(Error("*(no_root_sqash)"),
              "unknown option 'no_root_sqash'; did you mean 'no_root_squash'?");
    EXPECT_EQ(Error("*(anonuids=3)"), "unknown option 'anonuids'; did you mean 'anonuid'?");
    EXPECT_EQ(Error("*(crossmnt)"), "unknown option 'crossmnt'");
    EXPECT_EQ(Error("*(id=3)"),
              "option 'id' belongs to the share: write it after the path, in the "
              "group that begins with '-'");
}

TEST_F(ClientTest, OptionValuesAreStrict) {
    EXPECT_EQ(Error("*(rw=1)"), "option 'rw' takes no value");
    EXPECT_EQ(Error("*(rw=)"), "option 'rw' takes no value");
    EXPECT_EQ(Error("*(anonuid)"), "option 'anonuid' needs a number: anonuid=N");
    EXPECT_EQ(Error("*(anonuid=)"), "option 'anonuid': '' is not a number from 0 to 4294967294");
    // 4294967295 would mean "no change" to the system calls that switch identities.
    for (const char* value : {"-1", "-2", "4294967295", "0x10", "1 ", "nobody"})
        EXPECT_NE(Error(std::string("\"*\"(anongid=\"") + value + "\")"), "0 errors") << value;
    EXPECT_EQ(Error("*(rw,)"), "an option is missing: nothing stands between two commas");
    EXPECT_EQ(Error("*(,)"), "2 errors");
}

TEST_F(ClientTest, WrongParenthesesAreErrors) {
    EXPECT_EQ(Error("10.0.0.1(rw"),
              "the options in '10.0.0.1(rw' are not closed with ')' (no blanks "
              "between the parentheses)");
    EXPECT_EQ(Error("10.0.0.1(rw, ro)"), "2 errors");
    EXPECT_EQ(Error("10.0.0.1)"), "')' without '(' in '10.0.0.1)'");
    EXPECT_EQ(Error("10.0.0.1(rw)10.0.0.2(ro)"),
              "a blank is missing after the ')' in '10.0.0.1(rw)10.0.0.2(ro)'");
    EXPECT_NE(Error("10.0.0.1((rw))"), "0 errors");
    EXPECT_NE(Error("10.0.0.1)rw("), "0 errors");
}

TEST_F(ClientTest, EveryThingWrongInAClientIsTold) {
    EXPECT_EQ(Error("@x(rww,anonuid=y)"), "3 errors");
}

}  // namespace
}  // namespace oxel
