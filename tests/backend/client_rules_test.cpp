// SPDX-License-Identifier: Apache-2.0
#include "backend/client_rules.h"

#include <gtest/gtest.h>

#include "backend/exports_file.h"

namespace oxel {
namespace {

XOIPAddr Address(const std::string& text, unsigned short port = 700) {
    CLuIPAddr address;
    EXPECT_TRUE(CLuIPAddr::Parse(text, port, &address)) << text;
    return XOIPAddr(address);
}

ClientRules Rules(const std::string& clients) {
    ExportsFile file = ParseExports("/x " + clients + "\n", "exports", false);
    EXPECT_TRUE(file.errors.empty()) << file.errors[0].reason;
    return file.shares.empty() ? ClientRules() : file.shares[0].clients;
}

// The text of the rule that decides, or "refused".
std::string Decides(const ClientRules& rules, const std::string& client) {
    const ClientRule* rule = rules.Match(Address(client));
    return rule ? rule->text : "refused";
}

TEST(ClientRules, NoRuleRefusesEverybody) {
    EXPECT_EQ(Decides(ClientRules(), "127.0.0.1"), "refused");
    EXPECT_FALSE(ClientRules().Allows(Address("127.0.0.1")));
    EXPECT_FALSE(ClientRules().AnyWritable());
}

TEST(ClientRules, ADefaultRuleIsForEverybody) {
    ClientRules rules({ClientRule()});
    EXPECT_NE(rules.Match(Address("10.1.2.3")), nullptr);
    EXPECT_NE(rules.Match(Address("2001:db8::1")), nullptr);
}

TEST(ClientRules, MostSpecificRuleCountsWhateverTheOrder) {
    for (const char* list : {"* 10.0.0.0/8 10.1.0.0/16 10.1.2.0/24 10.1.2.3",
                             "10.1.2.3 10.1.2.0/24 10.1.0.0/16 10.0.0.0/8 *",
                             "10.1.0.0/16 * 10.1.2.3 10.0.0.0/8 10.1.2.0/24"}) {
        ClientRules rules = Rules(list);
        EXPECT_EQ(Decides(rules, "10.1.2.3"), "10.1.2.3") << list;
        EXPECT_EQ(Decides(rules, "10.1.2.4"), "10.1.2.0/24") << list;
        EXPECT_EQ(Decides(rules, "10.1.3.3"), "10.1.0.0/16") << list;
        EXPECT_EQ(Decides(rules, "10.2.2.3"), "10.0.0.0/8") << list;
        EXPECT_EQ(Decides(rules, "11.1.2.3"), "*") << list;
        EXPECT_EQ(Decides(rules, "2001:db8::1"), "*") << list;
    }
}

TEST(ClientRules, AnAddressGoesBeforeANetworkOfOneAddress) {
    EXPECT_EQ(Decides(Rules("10.0.0.1/32(ro) 10.0.0.1(rw)"), "10.0.0.1"), "10.0.0.1");
    EXPECT_EQ(Decides(Rules("10.0.0.1(ro) 10.0.0.1/32(rw)"), "10.0.0.1"), "10.0.0.1");
}

TEST(ClientRules, OfEqualRulesTheFirstWrittenCounts) {
    EXPECT_FALSE(Rules("10.0.0.1(ro) 10.0.0.1(rw)").Match(Address("10.0.0.1"))->options.writable);
    EXPECT_TRUE(Rules("10.0.0.1(rw) 10.0.0.1(ro)").Match(Address("10.0.0.1"))->options.writable);
    EXPECT_EQ(Decides(Rules("10.0.0.5/8(ro) 10.0.0.0/8(rw)"), "10.9.9.9"), "10.0.0.5/8");
    EXPECT_TRUE(Rules("*(rw) *(ro)").Match(Address("10.0.0.1"))->options.writable);
}

TEST(ClientRules, MappedClientsOfTheIpv6SocketMatchIpv4Rules) {
    ClientRules rules = Rules("192.168.7.0/24 ::1");
    EXPECT_EQ(Decides(rules, "::ffff:192.168.7.9"), "192.168.7.0/24");
    EXPECT_EQ(Decides(rules, "192.168.7.9"), "192.168.7.0/24");
    EXPECT_EQ(Decides(rules, "::ffff:192.168.8.9"), "refused");
    EXPECT_EQ(Decides(rules, "::1"), "::1");
}

TEST(ClientRules, PrefixesThatEndInsideAByteAreExact) {
    ClientRules rules = Rules("172.16.0.0/12 2001:db8:8000::/33");
    EXPECT_EQ(Decides(rules, "172.16.0.1"), "172.16.0.0/12");
    EXPECT_EQ(Decides(rules, "172.31.255.255"), "172.16.0.0/12");
    EXPECT_EQ(Decides(rules, "172.32.0.0"), "refused");
    EXPECT_EQ(Decides(rules, "172.15.255.255"), "refused");
    EXPECT_EQ(Decides(rules, "2001:db8:8000::1"), "2001:db8:8000::/33");
    EXPECT_EQ(Decides(rules, "2001:db8:7fff::1"), "refused");
}

TEST(ClientRules, WholeFamiliesStayApart) {
    ClientRules rules = Rules("::/0 0.0.0.0/0");
    EXPECT_EQ(Decides(rules, "10.0.0.1"), "0.0.0.0/0");
    EXPECT_EQ(Decides(rules, "2001:db8::1"), "::/0");
    EXPECT_EQ(Decides(Rules("::/0"), "10.0.0.1"), "refused");
    EXPECT_EQ(Decides(Rules("::/0"), "::ffff:10.0.0.1"), "refused");
    EXPECT_EQ(Decides(Rules("0.0.0.0/0"), "2001:db8::1"), "refused");
    // What is written in the mapped form means IPv4 clients.
    EXPECT_EQ(Decides(Rules("::ffff:10.0.0.0/104"), "10.3.3.3"), "::ffff:10.0.0.0/104");
}

TEST(ClientRules, EverybodyComesAfterAWholeFamily) {
    ClientRules rules = Rules("*(ro) ::/0(rw) 0.0.0.0/0(rw)");
    EXPECT_EQ(Decides(rules, "2001:db8::1"), "::/0");
    EXPECT_EQ(Decides(rules, "10.0.0.1"), "0.0.0.0/0");
    EXPECT_EQ(Decides(Rules("* ::/0"), "10.0.0.1"), "*");
}

TEST(ClientRules, SecureRulesWantAPortBelow1024) {
    ClientRules rules = Rules("10.0.0.1 10.0.0.2(insecure)");
    EXPECT_TRUE(rules.Allows(Address("10.0.0.1", 1023)));
    EXPECT_FALSE(rules.Allows(Address("10.0.0.1", 1024)));
    EXPECT_TRUE(rules.Allows(Address("10.0.0.2", 1024)));
    EXPECT_FALSE(rules.Allows(Address("10.0.0.3", 1023)));
}

TEST(ClientRules, ARefusingSpecificRuleIsNotSkippedForAWiderOne) {
    ClientRules rules = Rules("10.0.0.1(secure) *(insecure)");
    EXPECT_FALSE(rules.Allows(Address("10.0.0.1", 2000)));
    EXPECT_TRUE(rules.Allows(Address("10.0.0.2", 2000)));
}

TEST(ClientRules, OneWritableClientMakesTheShareWritable) {
    EXPECT_FALSE(Rules("10.0.0.1 10.0.0.2(ro)").AnyWritable());
    EXPECT_TRUE(Rules("10.0.0.1 10.0.0.2(rw)").AnyWritable());
}

}  // namespace
}  // namespace oxel
