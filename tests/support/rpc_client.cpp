// SPDX-License-Identifier: Apache-2.0
//
// Records, messages and XDR by hand.
#include "tests/support/rpc_client.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

namespace oxel::test {

static constexpr uint32_t kLastFragment = 0x80000000u;
static constexpr size_t kRecordBytesMax = 64 << 20;

XdrWriter& XdrWriter::U32(uint32_t value) {
    for (int shift = 24; shift >= 0; shift -= 8)
        bytes_.push_back(static_cast<char>(value >> shift & 0xff));
    return *this;
}

XdrWriter& XdrWriter::U64(uint64_t value) {
    return U32(static_cast<uint32_t>(value >> 32)).U32(static_cast<uint32_t>(value));
}

XdrWriter& XdrWriter::Fixed(const std::string& bytes) {
    bytes_ += bytes;
    bytes_.append((4 - bytes.size() % 4) % 4, '\0');
    return *this;
}

XdrWriter& XdrWriter::Opaque(const std::string& bytes) {
    return U32(static_cast<uint32_t>(bytes.size())).Fixed(bytes);
}

XdrWriter& XdrWriter::Raw(const std::string& bytes) {
    bytes_ += bytes;
    return *this;
}

bool XdrReader::Has(size_t count) {
    if (bytes_.size() - at_ >= count) return true;
    if (!failed_) ADD_FAILURE() << "the message ends too early: " << Hex(bytes_);
    failed_ = true;
    at_ = bytes_.size();
    return false;
}

uint32_t XdrReader::U32() {
    if (!Has(4)) return 0;
    uint32_t value = 0;
    for (int i = 0; i < 4; ++i) value = value << 8 | static_cast<unsigned char>(bytes_[at_++]);
    return value;
}

uint64_t XdrReader::U64() {
    uint64_t high = U32();
    return high << 32 | U32();
}

std::string XdrReader::Fixed(size_t length) {
    size_t padded = (length + 3) / 4 * 4;
    if (!Has(padded)) return "";
    std::string value = bytes_.substr(at_, length);
    for (size_t i = length; i < padded; ++i) EXPECT_EQ(bytes_[at_ + i], '\0') << "padding";
    at_ += padded;
    return value;
}

std::string XdrReader::Opaque() {
    uint32_t length = U32();
    if (length > bytes_.size()) {
        Has(length);
        return "";
    }
    return Fixed(length);
}

std::string Hex(const std::string& bytes) {
    std::string text;
    char digits[3];
    for (size_t i = 0; i < bytes.size() && i < 2048; ++i) {
        if (i != 0 && i % 4 == 0) text += ' ';
        snprintf(digits, sizeof digits, "%02x", static_cast<unsigned char>(bytes[i]));
        text += digits;
    }
    if (bytes.size() > 2048) text += " ... " + std::to_string(bytes.size()) + " bytes";
    return text;
}

std::string RpcCall::Message() const {
    return XdrWriter()
        .U32(xid)
        .U32(messageType)
        .U32(rpcVersion)
        .U32(program)
        .U32(version)
        .U32(procedure)
        .U32(credentialFlavour)
        .Opaque(credential)
        .U32(verifierFlavour)
        .Opaque(verifier)
        .Raw(arguments)
        .Bytes();
}

std::string UnixCredential(uint32_t uid, uint32_t gid, const std::vector<uint32_t>& groups,
                           const std::string& machine) {
    XdrWriter writer;
    writer.U32(0x5eed).Opaque(machine).U32(uid).U32(gid).U32(static_cast<uint32_t>(groups.size()));
    for (uint32_t group : groups) writer.U32(group);
    return writer.Bytes();
}

std::string Record(const std::string& message, size_t fragmentBytes) {
    if (fragmentBytes == 0) fragmentBytes = message.size() + 1;
    XdrWriter writer;
    size_t at = 0;
    do {
        std::string part = message.substr(at, fragmentBytes);
        at += part.size();
        writer.U32(static_cast<uint32_t>(part.size()) | (at == message.size() ? kLastFragment : 0));
        writer.Raw(part);
    } while (at < message.size());
    return writer.Bytes();
}

RpcReply ParseReply(const std::string& message) {
    RpcReply reply;
    XdrReader reader(message);
    reply.xid = reader.U32();
    EXPECT_EQ(reader.U32(), 1u) << "not a reply";
    reply.accepted = reader.U32() == 0;
    if (reply.accepted) {
        reply.verifierFlavour = reader.U32();
        reply.verifier = reader.Opaque();
        reply.acceptStat = reader.U32();
        if (reply.acceptStat == 2) {
            reply.low = reader.U32();
            reply.high = reader.U32();
        }
        reply.results = reader.Rest();
    } else {
        reply.rejectStat = reader.U32();
        if (reply.rejectStat == 0) {
            reply.low = reader.U32();
            reply.high = reader.U32();
        } else {
            reply.authStat = reader.U32();
        }
        EXPECT_EQ(reader.Left(), 0u);
    }
    return reply;
}

static XdrWriter AcceptedHeader(uint32_t xid, uint32_t acceptStat) {
    XdrWriter writer;
    writer.U32(xid).U32(1).U32(0).U32(kAuthNone).U32(0).U32(acceptStat);
    return writer;
}

std::string SuccessReply(uint32_t xid, const std::string& results) {
    return AcceptedHeader(xid, 0).Raw(results).Bytes();
}

std::string AcceptedReply(uint32_t xid, uint32_t acceptStat) {
    return AcceptedHeader(xid, acceptStat).Bytes();
}

std::string MismatchReply(uint32_t xid, uint32_t low, uint32_t high) {
    return AcceptedHeader(xid, 2).U32(low).U32(high).Bytes();
}

// Binds to some free port from 512 to 1023.
static bool BindReserved(int fd, sockaddr_storage address, socklen_t length) {
    for (int port = 1023; port >= 512; --port) {
        if (address.ss_family == AF_INET)
            reinterpret_cast<sockaddr_in*>(&address)->sin_port = htons(static_cast<uint16_t>(port));
        else
            reinterpret_cast<sockaddr_in6*>(&address)->sin6_port =
                htons(static_cast<uint16_t>(port));
        if (bind(fd, reinterpret_cast<sockaddr*>(&address), length) == 0) return true;
        if (errno != EADDRINUSE) break;
    }
    ADD_FAILURE() << "no port below 1024: " << strerror(errno);
    return false;
}

RpcConnection::RpcConnection(uint16_t port, Family family, bool fromReservedPort,
                             int receiveBufferBytes) {
    sockaddr_storage address{};
    socklen_t length;
    if (family == Family::kIPv4) {
        auto* v4 = reinterpret_cast<sockaddr_in*>(&address);
        v4->sin_family = AF_INET;
        v4->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        length = sizeof *v4;
    } else {
        auto* v6 = reinterpret_cast<sockaddr_in6*>(&address);
        v6->sin6_family = AF_INET6;
        v6->sin6_addr = in6addr_loopback;
        length = sizeof *v6;
    }
    fd_ = socket(address.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (receiveBufferBytes != 0)
        setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &receiveBufferBytes, sizeof receiveBufferBytes);
    int on = 1;
    setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (fromReservedPort && !BindReserved(fd_, address, length)) {
        Close();
        return;
    }
    if (family == Family::kIPv4)
        reinterpret_cast<sockaddr_in*>(&address)->sin_port = htons(port);
    else
        reinterpret_cast<sockaddr_in6*>(&address)->sin6_port = htons(port);
    if (connect(fd_, reinterpret_cast<sockaddr*>(&address), length) != 0) {
        ADD_FAILURE() << "connect to port " << port << ": " << strerror(errno);
        Close();
    }
}

RpcConnection::RpcConnection(uint16_t port, const std::string& fromAddress, bool fromReservedPort) {
    sockaddr_storage from{}, to{};
    auto* from4 = reinterpret_cast<sockaddr_in*>(&from);
    auto* from6 = reinterpret_cast<sockaddr_in6*>(&from);
    socklen_t length = sizeof(sockaddr_in);
    if (inet_pton(AF_INET, fromAddress.c_str(), &from4->sin_addr) == 1) {
        from.ss_family = to.ss_family = AF_INET;
        reinterpret_cast<sockaddr_in*>(&to)->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        reinterpret_cast<sockaddr_in*>(&to)->sin_port = htons(port);
    } else {
        EXPECT_EQ(inet_pton(AF_INET6, fromAddress.c_str(), &from6->sin6_addr), 1) << fromAddress;
        length = sizeof(sockaddr_in6);
        from.ss_family = to.ss_family = AF_INET6;
        reinterpret_cast<sockaddr_in6*>(&to)->sin6_addr = in6addr_loopback;
        reinterpret_cast<sockaddr_in6*>(&to)->sin6_port = htons(port);
    }
    fd_ = socket(from.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int on = 1;
    setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    const bool bound = fromReservedPort
                           ? BindReserved(fd_, from, length)
                           : bind(fd_, reinterpret_cast<sockaddr*>(&from), length) == 0;
    if (!bound || connect(fd_, reinterpret_cast<sockaddr*>(&to), length) != 0) {
        ADD_FAILURE() << "connect from " << fromAddress << ": " << strerror(errno);
        Close();
    }
}

RpcConnection::~RpcConnection() {
    Close();
}

bool RpcConnection::Send(const std::string& bytes) {
    for (size_t sent = 0; sent < bytes.size();) {
        pollfd ready{fd_, POLLOUT, 0};
        if (poll(&ready, 1, kTimeoutMs) != 1) return false;
        ssize_t count =
            send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count < 0 && errno != EAGAIN && errno != EINTR) return false;
        if (count > 0) sent += static_cast<size_t>(count);
    }
    return true;
}

bool RpcConnection::Fill(size_t count, int timeoutMs) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (buffer_.size() < count) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                        end - std::chrono::steady_clock::now())
                        .count();
        pollfd ready{fd_, POLLIN, 0};
        int polled = poll(&ready, 1, left > 0 ? static_cast<int>(left) : 0);
        if (polled < 0 && errno == EINTR) continue;
        if (polled != 1) return false;
        char bytes[65536];
        ssize_t got = recv(fd_, bytes, sizeof bytes, 0);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return false;
        buffer_.append(bytes, static_cast<size_t>(got));
    }
    return true;
}

std::optional<std::string> RpcConnection::Receive(int timeoutMs) {
    std::string message;
    for (;;) {
        if (!Fill(4, timeoutMs)) return std::nullopt;
        uint32_t mark = XdrReader(buffer_.substr(0, 4)).U32();
        size_t length = mark & ~kLastFragment;
        if (length + message.size() > kRecordBytesMax) {
            ADD_FAILURE() << "a record mark that no reply has: " << Hex(buffer_.substr(0, 4));
            return std::nullopt;
        }
        if (!Fill(4 + length, timeoutMs)) return std::nullopt;
        message.append(buffer_, 4, length);
        buffer_.erase(0, 4 + length);
        if (mark & kLastFragment) return message;
    }
}

std::string RpcConnection::CallRaw(const RpcCall& call) {
    EXPECT_TRUE(Send(Record(call.Message())));
    std::optional<std::string> reply = Receive();
    EXPECT_TRUE(reply.has_value())
        << "no reply to procedure " << call.procedure << " of program " << call.program;
    return reply.value_or("");
}

RpcReply RpcConnection::Call(const RpcCall& call) {
    std::string message = CallRaw(call);
    if (message.empty()) return RpcReply();
    RpcReply reply = ParseReply(message);
    EXPECT_EQ(reply.xid, call.xid);
    return reply;
}

bool RpcConnection::ClosedByPeer(int timeoutMs) {
    // Whatever still comes is read away.
    while (Fill(buffer_.size() + 1, timeoutMs)) buffer_.clear();
    char byte;
    ssize_t got = recv(fd_, &byte, 1, MSG_DONTWAIT | MSG_PEEK);
    return got == 0 || (got < 0 && errno != EAGAIN);
}

bool RpcConnection::Silent(int forMs) {
    return !Fill(buffer_.size() + 1, forMs) && !ClosedByPeer(0);
}

void RpcConnection::CloseSending() {
    shutdown(fd_, SHUT_WR);
}

void RpcConnection::Close() {
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
}

void RpcConnection::Reset() {
    linger now{1, 0};
    setsockopt(fd_, SOL_SOCKET, SO_LINGER, &now, sizeof now);
    Close();
}

}  // namespace oxel::test
