// SPDX-License-Identifier: Apache-2.0
//
// The client's side of ONC RPC (RFC 5531) by hand: calls as bytes, replies taken apart, and a
// connection that has the RPC library's transport on its other end.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <rpc/rpc.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "backend/OxelServiceGlobals.h"
#include "base/unique_fd.h"
#include "bin/oxelService_connection.h"

namespace oxel::test {

inline std::string Word(uint32_t value) {
    const uint32_t big = htonl(value);
    return std::string(reinterpret_cast<const char*>(&big), sizeof big);
}

// Opaque bytes with their length in front, filled up to a multiple of four.
inline std::string Opaque(const std::string& bytes) {
    return Word(static_cast<uint32_t>(bytes.size())) + bytes +
           std::string((4 - bytes.size() % 4) % 4, '\0');
}

// AUTH_UNIX's credential body (RFC 5531 appendix A).
inline std::string UnixCredential(uint32_t uid = 0, uint32_t gid = 0,
                                  const std::string& machine = "host",
                                  const std::vector<uint32_t>& groups = {}) {
    std::string body = Word(1) + Opaque(machine) + Word(uid) + Word(gid) +
                       Word(static_cast<uint32_t>(groups.size()));
    for (const uint32_t group : groups) body += Word(group);
    return body;
}

struct RpcCall {
    uint32_t xid = 1, program = 100003, version = 3, procedure = 0;
    int flavor = AUTH_NONE;
    std::string credential;
    int verifierFlavor = AUTH_NONE;
    std::string verifier;
    std::string arguments;

    RpcCall& WithUnix(uint32_t uid = 0, uint32_t gid = 0, const std::string& machine = "host",
                      const std::vector<uint32_t>& groups = {}) {
        flavor = AUTH_UNIX;
        credential = UnixCredential(uid, gid, machine, groups);
        return *this;
    }
    // One record of one fragment.
    std::string Bytes() const {
        const std::string body =
            Word(xid) + Word(CALL) + Word(RPC_MSG_VERSION) + Word(program) + Word(version) +
            Word(procedure) + Word(static_cast<uint32_t>(flavor)) + Opaque(credential) +
            Word(static_cast<uint32_t>(verifierFlavor)) + Opaque(verifier) + arguments;
        return Word(0x80000000u | static_cast<uint32_t>(body.size())) + body;
    }
};

struct RpcReply {
    uint32_t xid = 0;
    uint32_t status = 0;  // MSG_ACCEPTED or MSG_DENIED
    int verifierFlavor = 0;
    std::string verifier;
    uint32_t accept = 0;         // accept_stat
    uint32_t low = 0, high = 0;  // of PROG_MISMATCH
    std::string results;         // of SUCCESS
    uint32_t reject = 0;         // reject_stat
    uint32_t why = 0;            // auth_stat of AUTH_ERROR
    size_t fragments = 0;
};

// Takes a reply apart; a failure of the test when it is none.
inline RpcReply ParseReply(const std::string& record) {
    RpcReply reply;
    size_t at = 0;
    const auto word = [&]() -> uint32_t {
        uint32_t big = 0;
        if (at + 4 > record.size()) {
            ADD_FAILURE() << "the reply ends after " << record.size() << " bytes";
            at = record.size();
            return 0;
        }
        memcpy(&big, record.data() + at, 4);
        at += 4;
        return ntohl(big);
    };
    reply.xid = word();
    EXPECT_EQ(word(), uint32_t{REPLY});
    reply.status = word();
    if (reply.status == MSG_DENIED) {
        reply.reject = word();
        if (reply.reject == AUTH_ERROR) reply.why = word();
        return reply;
    }
    reply.verifierFlavor = static_cast<int>(word());
    const uint32_t length = word();
    if (length > 400 || at + length > record.size()) {
        ADD_FAILURE() << "a verifier of " << length << " bytes";
        return reply;
    }
    reply.verifier = record.substr(at, length);
    at += (length + 3) / 4 * 4;
    reply.accept = word();
    if (reply.accept == PROG_MISMATCH) {
        reply.low = word();
        reply.high = word();
    }
    reply.results = record.substr(std::min(at, record.size()));
    return reply;
}

// The client's end of a connection. Waits long for what must come, but not for ever.
class RpcClient {
  public:
    explicit RpcClient(UniqueFd fd) : fd_(std::move(fd)) {}
    RpcClient(RpcClient&&) = default;

    int fd() const { return fd_.Get(); }
    void Close() { fd_.Reset(); }
    // Ends the connection with a reset instead of an orderly close.
    void Reset() {
        const linger hard{1, 0};
        EXPECT_EQ(setsockopt(fd_.Get(), SOL_SOCKET, SO_LINGER, &hard, sizeof hard), 0);
        fd_.Reset();
    }
    void Send(const std::string& bytes) {
        for (size_t sent = 0; sent < bytes.size();) {
            const ssize_t some =
                send(fd_.Get(), bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
            ASSERT_GT(some, 0) << strerror(errno);
            sent += static_cast<size_t>(some);
        }
    }
    void Send(const RpcCall& call) { Send(call.Bytes()); }
    // One reply; nothing when the connection ended.
    std::optional<RpcReply> Receive() {
        std::string record;
        size_t fragments = 0;
        for (bool last = false; !last; ++fragments) {
            const std::optional<std::string> mark = ReadExactly(4);
            if (!mark) return std::nullopt;
            uint32_t word;
            memcpy(&word, mark->data(), 4);
            word = ntohl(word);
            last = (word & 0x80000000u) != 0;
            const std::optional<std::string> fragment = ReadExactly(word & 0x7fffffffu);
            if (!fragment) return std::nullopt;
            record += *fragment;
        }
        RpcReply reply = ParseReply(record);
        reply.fragments = fragments;
        return reply;
    }
    RpcReply Expect() {
        std::optional<RpcReply> reply = Receive();
        if (!reply) ADD_FAILURE() << "the connection ended instead of a reply";
        return reply.value_or(RpcReply{});
    }
    // Whether the other end has closed; a failure of the test when bytes come instead.
    bool AtEnd() {
        char byte;
        if (!WaitReadable()) return false;
        const ssize_t got = recv(fd_.Get(), &byte, 1, 0);
        EXPECT_LE(got, 0) << "bytes came";
        return got == 0 || (got < 0 && errno == ECONNRESET);
    }
    // Nothing has come, and nothing can be under way any more.
    bool Silent() {
        char byte;
        const ssize_t got = recv(fd_.Get(), &byte, 1, MSG_DONTWAIT | MSG_PEEK);
        return got < 0 && errno == EAGAIN;
    }

  private:
    bool WaitReadable() {
        pollfd readable{fd_.Get(), POLLIN, 0};
        if (poll(&readable, 1, 60000) == 1) return true;
        ADD_FAILURE() << "nothing came for a minute";
        return false;
    }
    std::optional<std::string> ReadExactly(size_t bytes) {
        std::string data(bytes, '\0');
        for (size_t got = 0; got < bytes;) {
            if (!WaitReadable()) return std::nullopt;
            const ssize_t some = recv(fd_.Get(), data.data() + got, bytes - got, 0);
            if (some <= 0) return std::nullopt;
            got += static_cast<size_t>(some);
        }
        return data;
    }
    UniqueFd fd_;
};

// A connected pair of TCP sockets over loopback: the client's end and the server's.
inline std::pair<UniqueFd, UniqueFd> TcpPair() {
    UniqueFd listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    UniqueFd client(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    UniqueFd server;
    if (bind(listener.Get(), reinterpret_cast<sockaddr*>(&address), length) == 0 &&
        listen(listener.Get(), 1) == 0 &&
        getsockname(listener.Get(), reinterpret_cast<sockaddr*>(&address), &length) == 0 &&
        connect(client.Get(), reinterpret_cast<sockaddr*>(&address), length) == 0)
        server.Reset(accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
    EXPECT_TRUE(server) << strerror(errno);
    return {std::move(client), std::move(server)};
}

// A client and the library's transport for it, guarded as an accepted one is.
struct ServedConnection {
    ServedConnection() : ServedConnection(TcpPair()) {}
    explicit ServedConnection(std::pair<UniqueFd, UniqueFd> ends)
        : client(std::move(ends.first)), fd(ends.second.Release()) {
        transport = svc_fd_create(fd, gMaxRPCSendSize, gMaxRPCRecvSize);
        EXPECT_NE(transport, nullptr);
        EXPECT_NE(Connection::Guard(transport), nullptr);
    }
    // Lets the library read what has come, as the receive loop does when select() says so.
    void Serve() const { svc_getreq_common(fd); }
    // The client goes, and the library finds out.
    void End() {
        client.Close();
        Serve();
    }

    RpcClient client;
    int fd;
    SVCXPRT* transport;  // the library's
};

inline bool IsOpen(int fd) {
    return fcntl(fd, F_GETFD) >= 0;
}

}  // namespace oxel::test
