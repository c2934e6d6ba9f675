// SPDX-License-Identifier: Apache-2.0
//
// An IPv4 or IPv6 address with a port, and the address form that access rules take.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <string>

class CLuIPAddr {
  public:
    // The IPv6 wildcard with port 0.
    CLuIPAddr();
    // Copies `length` bytes of a sockaddr_in or sockaddr_in6; anything else gives the wildcard.
    CLuIPAddr(const sockaddr* address, socklen_t length);
    // What the RPC library keeps as remote address: this storage also holds a sockaddr_in.
    explicit CLuIPAddr(const sockaddr_in6& storage);
    // From numeric text; false when `text` is no address (then *out is untouched).
    static bool Parse(const std::string& text, unsigned short port, CLuIPAddr* out);

    int GetFamily() const;           // AF_INET or AF_INET6
    void SetFamily(int family);      // the wildcard of that family; the port is kept
    unsigned short GetPort() const;  // host byte order
    void SetPort(unsigned short port);
    // Numeric text; an IPv4 client of the IPv6 socket is shown as a.b.c.d.
    std::string GetAddressString() const;
    const sockaddr* Get() const;
    socklen_t GetLength() const;
    // The same address (IPv4 and its mapped IPv6 form are the same); ports do not count.
    bool SameHost(const CLuIPAddr& other) const;

  private:
    union {
        sockaddr any_;
        sockaddr_in v4_;
        sockaddr_in6 v6_;
    };
};

// An address as access rules compare it: 16 bytes, IPv4 in its mapped form, and the client's port.
class XOIPAddr {
  public:
    explicit XOIPAddr(const CLuIPAddr& address);
    // From the 16-byte form, with port 0.
    explicit XOIPAddr(const unsigned char (&bytes)[16]);
    const unsigned char* bytes() const { return bytes_; }  // 16, network order
    unsigned short port() const { return port_; }
    bool isV4() const;  // ::ffff:a.b.c.d
    // Numeric text, as CLuIPAddr gives it.
    std::string GetAddressString() const;
    bool operator==(const XOIPAddr& other) const;

  private:
    unsigned char bytes_[16];
    unsigned short port_;
};
