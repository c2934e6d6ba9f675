// SPDX-License-Identifier: Apache-2.0
//
// Listening sockets on loopback.
#include "net/CLuSocket.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <cerrno>

#include "base/unique_fd.h"

static CLuIPAddr Address(const char* text, unsigned short port = 0) {
    CLuIPAddr address;
    EXPECT_TRUE(CLuIPAddr::Parse(text, port, &address)) << text;
    return address;
}

static int Option(const CLuSocket& socket, int level, int name) {
    int value = -1;
    socklen_t length = sizeof value;
    getsockopt(socket.GetDescriptor(), level, name, &value, &length);
    return value;
}

// An errno, or 0 when somebody listens there.
static int Connect(const CLuIPAddr& address) {
    const oxel::UniqueFd fd(socket(address.GetFamily(), SOCK_STREAM | SOCK_CLOEXEC, 0));
    return connect(fd.Get(), address.Get(), address.GetLength()) == 0 ? 0 : errno;
}

TEST(Error, HasTheSystemsWords) {
    EXPECT_FALSE(CLuError());
    const CLuError error = CLuError::FromErrno(EADDRINUSE);
    EXPECT_TRUE(error);
    EXPECT_EQ(error.GetCode(), EADDRINUSE);
    EXPECT_EQ(error.GetText(), "Address already in use");
}

TEST(Socket, IsStreamCloseOnExecAndReusable) {
    for (const int family : {AF_INET, AF_INET6}) {
        CLuSocket socket;
        EXPECT_FALSE(socket.IsValid());
        ASSERT_FALSE(socket.Create(family));
        EXPECT_TRUE(socket.IsValid());
        EXPECT_EQ(Option(socket, SOL_SOCKET, SO_TYPE), SOCK_STREAM);
        EXPECT_EQ(Option(socket, SOL_SOCKET, SO_REUSEADDR), 1);
        EXPECT_EQ(fcntl(socket.GetDescriptor(), F_GETFD), FD_CLOEXEC);
        EXPECT_EQ(fcntl(socket.GetDescriptor(), F_GETFL) & O_NONBLOCK, 0);
    }
}

TEST(Socket, IPv6OneTakesIPv4Too) {
    CLuSocket socket;
    CLuIPAddr address;
    ASSERT_FALSE(socket.Create(AF_INET6));
    EXPECT_EQ(Option(socket, IPPROTO_IPV6, IPV6_V6ONLY), 0);
    ASSERT_FALSE(socket.Bind(address));
    ASSERT_FALSE(socket.Listen(5));
    ASSERT_FALSE(socket.GetLocalAddress(&address));
    ASSERT_NE(address.GetPort(), 0);
    EXPECT_EQ(Connect(Address("::1", address.GetPort())), 0);
    EXPECT_EQ(Connect(Address("127.0.0.1", address.GetPort())), 0);
}

TEST(Socket, FamilyThatIsNoneFails) {
    CLuSocket socket;
    EXPECT_EQ(socket.Create(-1).GetCode(), EAFNOSUPPORT);
    EXPECT_FALSE(socket.IsValid());
}

TEST(Socket, CreateClosesWhatItHad) {
    CLuSocket socket;
    ASSERT_FALSE(socket.Create(AF_INET));
    ASSERT_FALSE(socket.Bind(Address("127.0.0.1")));
    CLuIPAddr first;
    ASSERT_FALSE(socket.GetLocalAddress(&first));
    ASSERT_FALSE(socket.Listen(1));
    ASSERT_FALSE(socket.Create(AF_INET));
    EXPECT_EQ(Connect(first), ECONNREFUSED);
}

TEST(Socket, BindToATakenPortSaysSo) {
    CLuSocket first, second;
    ASSERT_FALSE(first.Create(AF_INET));
    ASSERT_FALSE(first.Bind(Address("127.0.0.1")));
    ASSERT_FALSE(first.Listen(1));
    CLuIPAddr taken;
    ASSERT_FALSE(first.GetLocalAddress(&taken));
    ASSERT_FALSE(second.Create(AF_INET));
    EXPECT_EQ(second.Bind(taken).GetCode(), EADDRINUSE);
}

TEST(Socket, OperationsOnAClosedOneFail) {
    CLuSocket socket;
    CLuIPAddr address = Address("127.0.0.1", 9);
    EXPECT_EQ(socket.Bind(address).GetCode(), EBADF);
    EXPECT_EQ(socket.Listen(1).GetCode(), EBADF);
    EXPECT_EQ(socket.SetNonBlocking().GetCode(), EBADF);
    EXPECT_EQ(socket.GetLocalAddress(&address).GetCode(), EBADF);
    EXPECT_EQ(address.GetPort(), 9) << "untouched";
}

TEST(Socket, CloseEndsItAndMayBeRepeated) {
    CLuSocket socket;
    ASSERT_FALSE(socket.Create(AF_INET));
    socket.Close();
    EXPECT_FALSE(socket.IsValid());
    socket.Close();
}

TEST(Socket, NonBlockingAcceptReturnsAtOnce) {
    CLuSocket socket;
    ASSERT_FALSE(socket.Create(AF_INET));
    ASSERT_FALSE(socket.Bind(Address("127.0.0.1")));
    ASSERT_FALSE(socket.Listen(1));
    ASSERT_FALSE(socket.SetNonBlocking());
    EXPECT_LT(accept4(socket.GetDescriptor(), nullptr, nullptr, SOCK_CLOEXEC), 0);
    EXPECT_EQ(errno, EAGAIN);
}

TEST(OpenPort, SocketIsMadeAnewInTheAddresssFamilyAndThePortIsTold) {
    for (const char* text : {"127.0.0.1", "::1", "0.0.0.0", "::"}) {
        CLuSocket socket;
        ASSERT_FALSE(socket.Create(AF_INET6));
        CLuIPAddr address = Address(text, 2049);
        XoFwClient client;
        ASSERT_TRUE(client.bind(socket, address, 2, false)) << text;
        EXPECT_FALSE(client.lastError());
        EXPECT_NE(address.GetPort(), 2049);
        EXPECT_EQ(address.GetAddressString(), text);
        EXPECT_EQ(Option(socket, SOL_SOCKET, SO_DOMAIN), address.GetFamily());
        CLuIPAddr bound;
        ASSERT_FALSE(socket.GetLocalAddress(&bound));
        EXPECT_EQ(bound.GetPort(), address.GetPort());
        EXPECT_FALSE(socket.Listen(1));
    }
}

TEST(OpenPort, OtherKindsThanTcpAreRefused) {
    CLuSocket socket;
    CLuIPAddr address = Address("127.0.0.1", 2049);
    XoFwClient client;
    EXPECT_FALSE(client.bind(socket, address, 1, false));
    EXPECT_EQ(client.lastError().GetCode(), EPROTONOSUPPORT);
    EXPECT_FALSE(socket.IsValid());
}

TEST(OpenPort, FailureLeavesTheAddressAndSaysWhy) {
    CLuSocket socket;
    CLuIPAddr address = Address("192.0.2.1", 2049);  // documentation only: nobody's own
    XoFwClient client;
    EXPECT_FALSE(client.bind(socket, address, 2, false));
    EXPECT_EQ(client.lastError().GetCode(), EADDRNOTAVAIL);
    EXPECT_EQ(client.lastError().GetText(), "Cannot assign requested address");
    EXPECT_EQ(address.GetPort(), 2049);
    EXPECT_FALSE(socket.IsValid());
    CLuIPAddr good = Address("127.0.0.1");
    EXPECT_TRUE(client.bind(socket, good, 2, false));
    EXPECT_FALSE(client.lastError()) << "an earlier failure is forgotten";
}
