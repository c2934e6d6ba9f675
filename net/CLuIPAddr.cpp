// SPDX-License-Identifier: Apache-2.0
//
// Addresses. The family field decides which member of the union holds.
#include "net/CLuIPAddr.h"

#include <arpa/inet.h>

#include <cstring>

namespace {

// The first 12 bytes of an IPv4 address in its IPv6 form, ::ffff:a.b.c.d.
constexpr unsigned char kMappedPrefix[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};

}  // namespace

CLuIPAddr::CLuIPAddr() {
    memset(&v6_, 0, sizeof v6_);
    v6_.sin6_family = AF_INET6;
}

CLuIPAddr::CLuIPAddr(const sockaddr* address, socklen_t length) : CLuIPAddr() {
    if (address == nullptr || length < sizeof(sa_family_t)) return;
    sa_family_t family;
    memcpy(&family, &address->sa_family, sizeof family);
    if (family == AF_INET && length >= sizeof v4_) {
        memset(&v6_, 0, sizeof v6_);
        memcpy(&v4_, address, sizeof v4_);
    } else if (family == AF_INET6 && length >= sizeof v6_) {
        memcpy(&v6_, address, sizeof v6_);
    }
}

CLuIPAddr::CLuIPAddr(const sockaddr_in6& storage)
    : CLuIPAddr(reinterpret_cast<const sockaddr*>(&storage), sizeof storage) {}

bool CLuIPAddr::Parse(const std::string& text, unsigned short port, CLuIPAddr* out) {
    CLuIPAddr parsed;
    if (text.find('\0') != std::string::npos) return false;
    if (inet_pton(AF_INET6, text.c_str(), &parsed.v6_.sin6_addr) != 1) {
        parsed.SetFamily(AF_INET);
        if (inet_pton(AF_INET, text.c_str(), &parsed.v4_.sin_addr) != 1) return false;
    }
    parsed.SetPort(port);
    *out = parsed;
    return true;
}

int CLuIPAddr::GetFamily() const {
    return any_.sa_family;
}

void CLuIPAddr::SetFamily(int family) {
    const unsigned short port = GetPort();
    memset(&v6_, 0, sizeof v6_);
    any_.sa_family = family == AF_INET ? AF_INET : AF_INET6;
    SetPort(port);
}

unsigned short CLuIPAddr::GetPort() const {
    return ntohs(GetFamily() == AF_INET ? v4_.sin_port : v6_.sin6_port);
}

void CLuIPAddr::SetPort(unsigned short port) {
    if (GetFamily() == AF_INET) {
        v4_.sin_port = htons(port);
    } else {
        v6_.sin6_port = htons(port);
    }
}

std::string CLuIPAddr::GetAddressString() const {
    char text[INET6_ADDRSTRLEN] = "";
    const char* written = nullptr;
    if (GetFamily() == AF_INET) {
        written = inet_ntop(AF_INET, &v4_.sin_addr, text, sizeof text);
    } else if (IN6_IS_ADDR_V4MAPPED(&v6_.sin6_addr)) {
        written = inet_ntop(AF_INET, v6_.sin6_addr.s6_addr + 12, text, sizeof text);
    } else {
        written = inet_ntop(AF_INET6, &v6_.sin6_addr, text, sizeof text);
    }
    return written == nullptr ? "" : written;
}

const sockaddr* CLuIPAddr::Get() const {
    return &any_;
}

socklen_t CLuIPAddr::GetLength() const {
    return GetFamily() == AF_INET ? sizeof v4_ : sizeof v6_;
}

bool CLuIPAddr::SameHost(const CLuIPAddr& other) const {
    return memcmp(XOIPAddr(*this).bytes(), XOIPAddr(other).bytes(), 16) == 0;
}

XOIPAddr::XOIPAddr(const CLuIPAddr& address) : port_(address.GetPort()) {
    const sockaddr* any = address.Get();
    if (address.GetFamily() == AF_INET) {
        sockaddr_in v4;
        memcpy(&v4, any, sizeof v4);
        memcpy(bytes_, kMappedPrefix, sizeof kMappedPrefix);
        memcpy(bytes_ + 12, &v4.sin_addr, 4);
    } else {
        sockaddr_in6 v6;
        memcpy(&v6, any, sizeof v6);
        memcpy(bytes_, v6.sin6_addr.s6_addr, sizeof bytes_);
    }
}

XOIPAddr::XOIPAddr(const unsigned char (&bytes)[16]) : port_(0) {
    memcpy(bytes_, bytes, sizeof bytes_);
}

bool XOIPAddr::isV4() const {
    return memcmp(bytes_, kMappedPrefix, sizeof kMappedPrefix) == 0;
}

std::string XOIPAddr::GetAddressString() const {
    sockaddr_in6 v6{};
    v6.sin6_family = AF_INET6;
    memcpy(v6.sin6_addr.s6_addr, bytes_, sizeof bytes_);
    return CLuIPAddr(v6).GetAddressString();
}

bool XOIPAddr::operator==(const XOIPAddr& other) const {
    return port_ == other.port_ && memcmp(bytes_, other.bytes_, sizeof bytes_) == 0;
}
