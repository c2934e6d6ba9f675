// SPDX-License-Identifier: Apache-2.0
#include "bench/session.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>

namespace bench {
namespace {

constexpr uint32_t kListingBytes = 64 << 10;
constexpr time_t kPatienceSeconds = 20;

void ReceiveExactly(int fd, char* data, size_t length) {
    while (length > 0) {
        const ssize_t got = recv(fd, data, length, 0);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) throw std::runtime_error(std::string("no answer: ") + strerror(errno));
        if (got == 0) throw std::runtime_error("the server closed the connection");
        data += got;
        length -= static_cast<size_t>(got);
    }
}

// createhow3's sattr3 with a mode and nothing else said.
void AppendMode(Writer* call, uint32_t mode) {
    call->U32(1).U32(mode).U32(0).U32(0).U32(0).U32(0).U32(0);
}

}  // namespace

static in_addr gSource = {INADDR_ANY};

void ConnectFrom(const std::string& address) {
    if (inet_pton(AF_INET, address.c_str(), &gSource) != 1)
        throw std::runtime_error(address + " is no IPv4 address");
}

oxel::UniqueFd Connect(uint16_t port) {
    oxel::UniqueFd socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    if (gSource.s_addr != INADDR_ANY) {
        address.sin_addr = gSource;
        if (bind(socket.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
            throw std::runtime_error(std::string("bind: ") + strerror(errno));
    }
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(socket.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
        throw std::runtime_error("cannot connect to port " + std::to_string(port) + ": " +
                                 strerror(errno));
    const int on = 1;
    (void)setsockopt(socket.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return socket;
}

Session::Session(uint16_t port) : socket_(Connect(port)) {
    const timeval patience = {kPatienceSeconds, 0};
    (void)setsockopt(socket_.Get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    // A server may remember calls: no two runs shall use the same transaction ids.
    if (getrandom(&xid_, sizeof xid_, 0) != sizeof xid_) throw std::runtime_error("getrandom");
}

Reader Session::Call(uint32_t program, uint32_t procedure, const std::string& arguments) {
    const std::string call = MakeCall(program, procedure, ++xid_, arguments);
    for (size_t sent = 0; sent < call.size();) {
        const ssize_t got =
            send(socket_.Get(), call.data() + sent, call.size() - sent, MSG_NOSIGNAL);
        if (got < 0) throw std::runtime_error(std::string("send: ") + strerror(errno));
        sent += static_cast<size_t>(got);
    }
    record_.clear();
    for (bool last = false; !last;) {
        uint32_t mark;
        ReceiveExactly(socket_.Get(), reinterpret_cast<char*>(&mark), sizeof mark);
        mark = ntohl(mark);
        last = (mark & kLastFragment) != 0;
        const size_t begin = record_.size(), length = mark & ~kLastFragment;
        record_.resize(begin + length);
        ReceiveExactly(socket_.Get(), record_.data() + begin, length);
    }
    Reader reply(record_);
    if (reply.U32() != xid_) throw std::runtime_error("reply with a transaction id never sent");
    CheckReplyHeader(&reply);
    return reply;
}

Reader Session::Nfs(Procedure procedure, const std::string& arguments, const char* what) {
    Reader reply = Call(kNfs, procedure, arguments);
    CheckStatus(&reply, what);
    return reply;
}

std::string Session::Lookup(std::string handle, std::string_view path) {
    for (size_t at = 0; at < path.size();) {
        const size_t slash = std::min(path.find('/', at), path.size());
        const std::string name(path.substr(at, slash - at));
        at = slash + 1;
        if (name.empty()) continue;
        handle = std::string(Nfs(kLookup, Writer().Opaque(handle).Opaque(name).Bytes(),
                                 ("lookup of " + name).c_str())
                                 .Opaque());
    }
    return handle;
}

std::string Session::MakeDirectory(const std::string& directory, const std::string& name) {
    Writer call;
    call.Opaque(directory).Opaque(name);
    AppendMode(&call, 0755);
    Nfs(kMkdir, call.Bytes(), "mkdir");
    return Lookup(directory, name);
}

std::string Session::MakeFile(const std::string& directory, const std::string& name) {
    Writer call;
    call.Opaque(directory).Opaque(name).U32(0);  // UNCHECKED
    AppendMode(&call, 0644);
    Nfs(kCreate, call.Bytes(), "create");
    return Lookup(directory, name);
}

void Session::Remove(const std::string& directory, const std::string& name, Procedure procedure) {
    Nfs(procedure, Writer().Opaque(directory).Opaque(name).Bytes(), "remove");
}

uint64_t Session::SizeOf(const std::string& handle) {
    Reader reply = Nfs(kGetattr, Writer().Opaque(handle).Bytes(), "getattr");
    reply.Take(20);
    return reply.U64();
}

std::vector<Entry> Session::List(const std::string& directory) {
    std::vector<Entry> entries;
    uint64_t cookie = 0, verifier = 0;
    for (bool eof = false; !eof;) {
        Reader page = Nfs(kReaddirplus,
                          Writer()
                              .Opaque(directory)
                              .U64(cookie)
                              .U64(verifier)
                              .U32(kListingBytes)
                              .U32(kListingBytes)
                              .Bytes(),
                          "readdirplus");
        page.SkipAttributes();
        verifier = page.U64();
        while (page.U32() != 0) {
            Entry entry;
            page.U64();
            entry.name = std::string(page.Opaque());
            cookie = page.U64();
            if (page.U32() != 0) {
                entry.isDirectory = page.U32() == 2;
                page.Take(80);
            }
            if (page.U32() != 0) entry.handle = std::string(page.Opaque());
            if (entry.name == "." || entry.name == "..") continue;
            entries.push_back(std::move(entry));
        }
        eof = page.U32() != 0;
    }
    for (Entry& entry : entries)  // a server need not say them in the listing
        if (entry.handle.empty()) entry.handle = Lookup(directory, entry.name);
    return entries;
}

std::string MountShare(uint16_t mountPort, const std::string& share) {
    Session session(mountPort);
    Reader reply = session.Call(kMount, 1, Writer().Opaque(share).Bytes());
    CheckStatus(&reply, ("mount of " + share).c_str());
    return std::string(reply.Opaque());
}

}  // namespace bench
