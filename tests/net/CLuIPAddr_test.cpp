// SPDX-License-Identifier: Apache-2.0
//
// Addresses and the form that access rules compare.
#include "net/CLuIPAddr.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>

static CLuIPAddr Address(const char* text, unsigned short port = 0) {
    CLuIPAddr address;
    EXPECT_TRUE(CLuIPAddr::Parse(text, port, &address)) << text;
    return address;
}

TEST(IPAddr, IsTheIPv6WildcardByDefault) {
    const CLuIPAddr address;
    EXPECT_EQ(address.GetFamily(), AF_INET6);
    EXPECT_EQ(address.GetPort(), 0);
    EXPECT_EQ(address.GetAddressString(), "::");
    EXPECT_EQ(address.GetLength(), sizeof(sockaddr_in6));
}

TEST(IPAddr, NumericTextOfBothFamilies) {
    const CLuIPAddr v4 = Address("10.1.2.3", 2049), v6 = Address("2001:db8::1", 700);
    EXPECT_EQ(v4.GetFamily(), AF_INET);
    EXPECT_EQ(v4.GetLength(), sizeof(sockaddr_in));
    EXPECT_EQ(v4.GetPort(), 2049);
    EXPECT_EQ(v4.GetAddressString(), "10.1.2.3");
    EXPECT_EQ(v6.GetFamily(), AF_INET6);
    EXPECT_EQ(v6.GetPort(), 700);
    EXPECT_EQ(v6.GetAddressString(), "2001:db8::1");
}

TEST(IPAddr, TextThatIsNoAddressLeavesTheResultAlone) {
    CLuIPAddr address = Address("10.1.2.3", 5);
    for (const char* text : {"", "10.1.2", "10.1.2.3.4", "10.1.2.256", "host", " 10.1.2.3",
                             "10.1.2.3/8", "fe80::1%lo", ":::", "1::2::3"}) {
        EXPECT_FALSE(CLuIPAddr::Parse(text, 9, &address)) << text;
    }
    EXPECT_FALSE(CLuIPAddr::Parse(std::string("10.1.2.3\0x", 10), 9, &address));
    EXPECT_EQ(address.GetAddressString(), "10.1.2.3");
    EXPECT_EQ(address.GetPort(), 5);
}

TEST(IPAddr, IPv4ClientOfTheIPv6SocketIsShownDotted) {
    const CLuIPAddr mapped = Address("::ffff:192.168.7.9");
    EXPECT_EQ(mapped.GetFamily(), AF_INET6);
    EXPECT_EQ(mapped.GetAddressString(), "192.168.7.9");
}

TEST(IPAddr, StorageOfTheRpcLibraryMayHoldAnIPv4Address) {
    sockaddr_in6 storage;
    memset(&storage, 0xee, sizeof storage);
    sockaddr_in v4{};
    v4.sin_family = AF_INET;
    v4.sin_port = htons(1023);
    v4.sin_addr.s_addr = htonl(0x7f000001);
    memcpy(&storage, &v4, sizeof v4);
    const CLuIPAddr address(storage);
    EXPECT_EQ(address.GetFamily(), AF_INET);
    EXPECT_EQ(address.GetPort(), 1023);
    EXPECT_EQ(address.GetAddressString(), "127.0.0.1");
}

TEST(IPAddr, StorageOfTheRpcLibraryWithAnIPv6Address) {
    sockaddr_in6 storage{};
    storage.sin6_family = AF_INET6;
    storage.sin6_port = htons(65535);
    storage.sin6_addr = in6addr_loopback;
    const CLuIPAddr address(storage);
    EXPECT_EQ(address.GetFamily(), AF_INET6);
    EXPECT_EQ(address.GetPort(), 65535);
    EXPECT_EQ(address.GetAddressString(), "::1");
}

TEST(IPAddr, BytesThatAreNoAddressGiveTheWildcard) {
    sockaddr_in6 v6{};
    v6.sin6_family = AF_INET6;
    v6.sin6_port = htons(7);
    const auto* any = reinterpret_cast<const sockaddr*>(&v6);
    EXPECT_EQ(CLuIPAddr(any, sizeof v6 - 1).GetPort(), 0) << "too short for an IPv6 address";
    EXPECT_EQ(CLuIPAddr(any, 1).GetPort(), 0);
    EXPECT_EQ(CLuIPAddr(nullptr, 0).GetFamily(), AF_INET6);
    v6.sin6_family = AF_UNIX;
    const CLuIPAddr address(any, sizeof v6);
    EXPECT_EQ(address.GetFamily(), AF_INET6);
    EXPECT_EQ(address.GetPort(), 0);
}

TEST(IPAddr, PortBytesRoundTrip) {
    for (const char* text : {"1.2.3.4", "::1"}) {
        CLuIPAddr address = Address(text);
        address.SetPort(0x0801);
        EXPECT_EQ(address.GetPort(), 0x0801);
        EXPECT_EQ(CLuIPAddr(address.Get(), address.GetLength()).GetPort(), 0x0801);
    }
}

TEST(IPAddr, SetFamilyGivesThatFamilysWildcardAndKeepsThePort) {
    CLuIPAddr address = Address("2001:db8::1", 2049);
    address.SetFamily(AF_INET);
    EXPECT_EQ(address.GetFamily(), AF_INET);
    EXPECT_EQ(address.GetAddressString(), "0.0.0.0");
    EXPECT_EQ(address.GetPort(), 2049);
    address.SetFamily(AF_INET6);
    EXPECT_EQ(address.GetAddressString(), "::");
    EXPECT_EQ(address.GetPort(), 2049);
}

TEST(IPAddr, SameHostWhateverThePortAndTheForm) {
    EXPECT_TRUE(Address("10.0.0.1", 1).SameHost(Address("::ffff:10.0.0.1", 2)));
    EXPECT_TRUE(Address("::1").SameHost(Address("::1", 9)));
    EXPECT_FALSE(Address("10.0.0.1").SameHost(Address("10.0.0.2")));
    EXPECT_FALSE(Address("0.0.0.0").SameHost(Address("::")));
    EXPECT_FALSE(Address("0.0.0.1").SameHost(Address("::1")));
}

TEST(RuleAddress, IPv4IsMapped) {
    const unsigned char expected[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff, 10, 1, 2, 3};
    for (const char* text : {"10.1.2.3", "::ffff:10.1.2.3"}) {
        const XOIPAddr address(Address(text, 1023));
        EXPECT_EQ(memcmp(address.bytes(), expected, 16), 0) << text;
        EXPECT_TRUE(address.isV4());
        EXPECT_EQ(address.port(), 1023);
    }
}

TEST(RuleAddress, IPv6IsAsItIs) {
    const unsigned char expected[16] = {0x20, 1, 0xd, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 5};
    const XOIPAddr address(Address("2001:db8::5"));
    EXPECT_EQ(memcmp(address.bytes(), expected, 16), 0);
    EXPECT_FALSE(address.isV4());
    EXPECT_FALSE(XOIPAddr(Address("::10.1.2.3")).isV4()) << "compatible is not mapped";
}

TEST(RuleAddress, EqualityTakesThePortIn) {
    EXPECT_TRUE(XOIPAddr(Address("10.0.0.1", 5)) == XOIPAddr(Address("::ffff:10.0.0.1", 5)));
    EXPECT_FALSE(XOIPAddr(Address("10.0.0.1", 5)) == XOIPAddr(Address("10.0.0.1", 6)));
    EXPECT_FALSE(XOIPAddr(Address("10.0.0.1", 5)) == XOIPAddr(Address("10.0.0.2", 5)));
}
