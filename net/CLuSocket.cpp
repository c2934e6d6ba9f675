// SPDX-License-Identifier: Apache-2.0
//
// Listening sockets.
#include "net/CLuSocket.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace {

// XoFwClient's number for TCP.
constexpr int kBindTypeTcp = 2;

}  // namespace

CLuError CLuError::FromErrno(int error) {
    return CLuError(error, std::generic_category().message(error));
}

CLuSocket::~CLuSocket() {
    Close();
}

CLuError CLuSocket::Create(int family) {
    Close();
    fd_ = socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd_ < 0) return CLuError::FromErrno(errno);
    const int on = 1, off = 0;
    if (setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        (family == AF_INET6 && setsockopt(fd_, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off) != 0)) {
        const int error = errno;
        Close();
        return CLuError::FromErrno(error);
    }
    return {};
}

CLuError CLuSocket::Bind(const CLuIPAddr& address) {
    if (bind(fd_, address.Get(), address.GetLength()) != 0) return CLuError::FromErrno(errno);
    return {};
}

CLuError CLuSocket::Listen(int backlog) {
    if (listen(fd_, backlog) != 0) return CLuError::FromErrno(errno);
    return {};
}

CLuError CLuSocket::GetLocalAddress(CLuIPAddr* out) const {
    sockaddr_storage storage;
    socklen_t length = sizeof storage;
    if (getsockname(fd_, reinterpret_cast<sockaddr*>(&storage), &length) != 0)
        return CLuError::FromErrno(errno);
    *out = CLuIPAddr(reinterpret_cast<const sockaddr*>(&storage), length);
    return {};
}

CLuError CLuSocket::SetNonBlocking() {
    const int flags = fcntl(fd_, F_GETFL);
    if (flags < 0 || fcntl(fd_, F_SETFL, flags | O_NONBLOCK) != 0)
        return CLuError::FromErrno(errno);
    return {};
}

void CLuSocket::Close() {
    if (fd_ < 0) return;
    const int savedErrno = errno;
    (void)close(fd_);  // the number is free whatever close() says
    errno = savedErrno;
    fd_ = -1;
}

bool XoFwClient::bind(CLuSocket& socket, CLuIPAddr& address, int bindType, bool) {
    if (bindType != kBindTypeTcp) {
        lastError_ = CLuError::FromErrno(EPROTONOSUPPORT);
        return false;
    }
    CLuIPAddr wanted = address;
    wanted.SetPort(0);
    CLuIPAddr bound;
    lastError_ = socket.Create(wanted.GetFamily());
    if (!lastError_) lastError_ = socket.Bind(wanted);
    if (!lastError_) lastError_ = socket.GetLocalAddress(&bound);
    if (lastError_) {
        socket.Close();
        return false;
    }
    address.SetPort(bound.GetPort());
    return true;
}
