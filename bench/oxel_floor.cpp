// SPDX-License-Identifier: Apache-2.0
//
// What a call costs on this machine before a server does anything with it: one thread, epoll, one
// read for what has come, every call answered as NULL, one write per reply, or with --batch one
// write for the replies to all that a read has brought. `make bench` runs it beside the daemon, so
// that figures from a fast and from a slow machine can be compared.
#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <utility>

#include "base/unique_fd.h"

namespace {

constexpr size_t kMarkBytes = 4;
constexpr uint32_t kLastFragment = 0x80000000u;

struct Client {
    oxel::UniqueFd socket;
    std::string received;  // not yet a whole record
};

void Watch(int epoll, int fd) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = fd;
    (void)epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event);
}

enum class Writes { PerReply, PerRead };

bool WriteAll(const Client& client, std::string_view replies) {
    return write(client.socket.Get(), replies.data(), replies.size()) ==
           static_cast<ssize_t>(replies.size());
}

// Answers every whole record in the buffer. False when the client is gone.
bool Answer(Client& client, Writes writes) {
    static std::string replies;
    replies.clear();
    std::string_view left = client.received;
    uint32_t mark = 0;
    while (left.size() >= kMarkBytes) {
        memcpy(&mark, left.data(), sizeof mark);
        const size_t length = kMarkBytes + (ntohl(mark) & ~kLastFragment);
        if (left.size() < length) break;
        // Mark, xid, REPLY, MSG_ACCEPTED, a verifier of AUTH_NONE, SUCCESS (RFC 5531 section 9).
        uint32_t reply[7] = {htonl(kLastFragment | 24), 0, htonl(1), 0, 0, 0, 0};
        memcpy(&reply[1], left.data() + kMarkBytes, sizeof reply[1]);
        replies.append(reinterpret_cast<const char*>(reply), sizeof reply);
        if (writes == Writes::PerReply) {
            if (!WriteAll(client, replies)) return false;
            replies.clear();
        }
        left.remove_prefix(length);
    }
    client.received.erase(0, client.received.size() - left.size());
    return replies.empty() || WriteAll(client, replies);
}

bool Serve(Client& client, Writes writes) {
    char bytes[64 << 10];
    const ssize_t got = read(client.socket.Get(), bytes, sizeof bytes);
    if (got <= 0) return got < 0 && errno == EINTR;
    client.received.append(bytes, static_cast<size_t>(got));
    return Answer(client, writes);
}

}  // namespace

// Prints its port on 127.0.0.1 and serves until it is killed.
int main(int argc, char** argv) {
    const Writes writes =
        argc > 1 && strcmp(argv[1], "--batch") == 0 ? Writes::PerRead : Writes::PerReply;
    const oxel::UniqueFd listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (bind(listener.Get(), reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        listen(listener.Get(), 128) != 0 ||
        getsockname(listener.Get(), reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        perror("oxel-floor");
        return 1;
    }
    printf("%u\n", ntohs(address.sin_port));
    (void)fflush(stdout);

    const oxel::UniqueFd epoll(epoll_create1(EPOLL_CLOEXEC));
    Watch(epoll.Get(), listener.Get());
    std::map<int, Client> clients;
    for (;;) {
        epoll_event events[64];
        const int ready = epoll_wait(epoll.Get(), events, 64, -1);
        for (int i = 0; i < ready; ++i) {
            const int fd = events[i].data.fd;
            if (fd != listener.Get()) {
                if (!Serve(clients[fd], writes)) clients.erase(fd);
                continue;
            }
            oxel::UniqueFd socket(accept4(fd, nullptr, nullptr, SOCK_CLOEXEC));
            if (!socket) continue;
            const int on = 1, number = socket.Get();
            (void)setsockopt(number, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
            Watch(epoll.Get(), number);
            clients[number].socket = std::move(socket);
        }
    }
}
