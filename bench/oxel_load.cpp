// SPDX-License-Identifier: Apache-2.0
//
// A load generator: connections x depth raw calls in flight against a running server, every status
// checked. Prints operations per second, MiB/s, latencies, and the server's CPU time per call.
#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <deque>
#include <fstream>
#include <functional>
#include <nlohmann/json.hpp>
#include <vector>

#include "base/unique_fd.h"
#include "bench/wire.h"

namespace bench {
namespace {

using Clock = std::chrono::steady_clock;
constexpr uint32_t kNfs = 100003, kMount = 100005;
enum Procedure : uint32_t {
    kNull = 0,
    kGetattr = 1,
    kLookup = 3,
    kRead = 6,
    kWrite = 7,
    kCreate = 8,
    kRemove = 12,
    kReaddirplus = 17
};
// Each connection writes this many blocks of its own, again and again.
constexpr uint32_t kBlocksWritten = 64;

struct Options {
    uint16_t port = 2049, mountPort = 0;
    std::string share, file, operation = "getattr";
    unsigned connections = 8, depth = 8;
    double seconds = 5;
    uint32_t bytes = 64 << 10;
    uint32_t stable = 0;
    int serverPid = 0;
    bool json = false;
};

oxel::UniqueFd Connect(uint16_t port) {
    oxel::UniqueFd socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(socket.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
        throw std::runtime_error("cannot connect to port " + std::to_string(port) + ": " +
                                 strerror(errno));
    const int on = 1;
    (void)setsockopt(socket.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return socket;
}

// A connection's incoming bytes, cut into whole reply records.
class RecordBuffer {
  public:
    // Reads once what is there. False at the end of the stream.
    bool Fill(int fd, int flags) {
        if (buffer_.size() - end_ < kChunk) {
            memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
            end_ -= begin_;
            begin_ = 0;
            if (buffer_.size() - end_ < kChunk) buffer_.resize(buffer_.size() + kChunk);
        }
        const ssize_t got = recv(fd, buffer_.data() + end_, buffer_.size() - end_, flags);
        if (got < 0) return errno == EAGAIN || errno == EINTR;
        end_ += static_cast<size_t>(got);
        return got > 0;
    }
    // The next whole record without its mark, valid until Fill; false when none is complete.
    bool Next(std::string_view* record) {
        record_.clear();
        size_t at = begin_;
        for (;;) {
            if (end_ - at < 4) return false;
            uint32_t mark;
            memcpy(&mark, buffer_.data() + at, 4);
            mark = ntohl(mark);
            const size_t length = mark & 0x7fffffffu;
            if (end_ - at - 4 < length) return false;
            const std::string_view fragment(buffer_.data() + at + 4, length);
            at += 4 + length;
            const bool last = (mark & 0x80000000u) != 0;
            if (last && record_.empty()) {
                *record = fragment;
            } else {
                record_.append(fragment);
                *record = record_;
            }
            if (last) break;
        }
        begin_ = at;
        return true;
    }

  private:
    static constexpr size_t kChunk = 256 << 10;
    std::vector<char> buffer_ = std::vector<char>(2 * kChunk);
    size_t begin_ = 0, end_ = 0;
    std::string record_;  // a record of several fragments, put together
};

void SendAll(int fd, const char* data, size_t length) {
    while (length > 0) {
        const ssize_t sent = send(fd, data, length, MSG_NOSIGNAL);
        if (sent < 0) throw std::runtime_error(std::string("send: ") + strerror(errno));
        data += sent;
        length -= static_cast<size_t>(sent);
    }
}

// One call and its reply, before the load begins.
std::string CallOnce(int fd, RecordBuffer* input, std::string call) {
    SendAll(fd, call.data(), call.size());
    std::string_view record;
    while (!input->Next(&record))
        if (!input->Fill(fd, 0)) throw std::runtime_error("the server closed the connection");
    return std::string(record);
}

std::string MountShare(const Options& options) {
    const oxel::UniqueFd socket = Connect(options.mountPort);
    RecordBuffer input;
    const std::string record = CallOnce(
        socket.Get(), &input, MakeCall(kMount, 3, 1, 0, 0, Writer().Opaque(options.share).Bytes()));
    Reader reply = OpenReply(record);
    if (const uint32_t status = reply.U32(); status != 0)
        throw std::runtime_error("mount of " + options.share + ": status " +
                                 std::to_string(status));
    return std::string(reply.Opaque());
}

// Walks from the root of the share to a file or directory below it.
std::string LookupPath(const Options& options, std::string handle) {
    const oxel::UniqueFd socket = Connect(options.port);
    RecordBuffer input;
    for (size_t at = 0; at < options.file.size();) {
        const size_t slash = std::min(options.file.find('/', at), options.file.size());
        const std::string name = options.file.substr(at, slash - at);
        at = slash + 1;
        if (name.empty()) continue;
        const std::string record = CallOnce(
            socket.Get(), &input,
            MakeCall(kNfs, 3, kLookup, 0, 0, Writer().Opaque(handle).Opaque(name).Bytes()));
        Reader reply = OpenReply(record);
        if (const uint32_t status = reply.U32(); status != 0)
            throw std::runtime_error("lookup of " + name + ": status " + std::to_string(status));
        handle = std::string(reply.Opaque());
    }
    return handle;
}

// Nanoseconds of CPU that all threads of a process have used.
uint64_t CpuNanoseconds(int pid) {
    if (pid == 0) return 0;
    const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
    uint64_t total = 0;
    DIR* directory = opendir(tasks.c_str());
    if (directory == nullptr) throw std::runtime_error("no process " + std::to_string(pid));
    while (const dirent* entry = readdir(directory)) {
        if (entry->d_name[0] == '.') continue;
        std::ifstream file(tasks + "/" + entry->d_name + "/schedstat");
        uint64_t nanoseconds = 0;
        if (file >> nanoseconds) total += nanoseconds;
    }
    closedir(directory);
    return total;
}

struct Totals {
    uint64_t calls = 0, bytes = 0, entries = 0, passes = 0;
    std::vector<uint32_t> microseconds;
};

// One connection with its calls in flight. A next call is made by `next`, a reply checked by
// `done`.
struct Session {
    oxel::UniqueFd socket;
    RecordBuffer input;
    std::deque<Clock::time_point> sent;  // replies may come in any order; close enough for latency
    uint32_t offsetBlock = 0;
    uint64_t cookie = 0;
    uint32_t number = 0;  // of the connection
    uint64_t names = 0;   // that CREATE and REMOVE have been sent
};

class Load {
  public:
    Load(const Options& options, std::string handle)
        : options_(options), handle_(std::move(handle)) {}

    nlohmann::json Run() {
        const unsigned depth = Depth();
        std::vector<Session> sessions(options_.connections);
        const oxel::UniqueFd poller(epoll_create1(EPOLL_CLOEXEC));
        for (Session& session : sessions) {
            session.socket = Connect(options_.port);
            session.number = static_cast<uint32_t>(&session - sessions.data());
            epoll_event event{};
            event.events = EPOLLIN;
            event.data.ptr = &session;
            epoll_ctl(poller.Get(), EPOLL_CTL_ADD, session.socket.Get(), &event);
        }
        Pump(sessions, poller.Get(), depth, options_.seconds / 5);  // warm-up
        totals_ = Totals();
        const uint64_t cpuBefore = CpuNanoseconds(options_.serverPid);
        const auto begin = Clock::now();
        Pump(sessions, poller.Get(), depth, options_.seconds);
        const double elapsed = std::chrono::duration<double>(Clock::now() - begin).count();
        const uint64_t cpu = CpuNanoseconds(options_.serverPid) - cpuBefore;
        return Report(elapsed, cpu);
    }

  private:
    // Where a call needs the one before to be done.
    unsigned Depth() const {
        return options_.operation == "readdirplus" || options_.operation == "create-remove"
                   ? 1
                   : options_.depth;
    }

    void Send(Session* session, unsigned count) {
        std::string batch;
        for (unsigned i = 0; i < count; ++i) {
            std::string call = NextCall(session);
            const uint32_t xid = htonl(++xid_);
            memcpy(call.data() + kXidOffset, &xid, sizeof xid);
            batch += call;
            session->sent.push_back(Clock::now());
        }
        SendAll(session->socket.Get(), batch.data(), batch.size());
    }

    // Keeps `depth` calls in flight on every connection for a while, then drains them.
    void Pump(std::vector<Session>& sessions, int poller, unsigned depth, double seconds) {
        const auto end = Clock::now() + std::chrono::duration<double>(seconds);
        for (Session& session : sessions) Send(&session, depth);
        unsigned open = depth * static_cast<unsigned>(sessions.size());
        std::vector<epoll_event> events(sessions.size());
        while (open > 0) {
            const int ready =
                epoll_wait(poller, events.data(), static_cast<int>(events.size()), 10000);
            if (ready == 0) throw std::runtime_error("the server has not answered for 10 s");
            const bool more = Clock::now() < end;
            for (int i = 0; i < ready; ++i) {
                auto* session = static_cast<Session*>(events[static_cast<size_t>(i)].data.ptr);
                if (!session->input.Fill(session->socket.Get(), MSG_DONTWAIT))
                    throw std::runtime_error("the server closed a connection");
                unsigned answered = 0;
                std::string_view record;
                while (session->input.Next(&record)) {
                    Check(session, record);
                    ++answered;
                }
                open -= answered;
                if (more && answered > 0) {
                    Send(session, answered);
                    open += answered;
                }
            }
        }
    }

    std::string NextCall(Session* session) {
        const std::string& operation = options_.operation;
        if (operation == "null") return MakeCall(kNfs, 3, kNull, 0, 0, "");
        if (operation == "getattr")
            return MakeCall(kNfs, 3, kGetattr, 0, 0, Writer().Opaque(handle_).Bytes());
        if (operation == "read") {
            const uint64_t offset = uint64_t{session->offsetBlock} * options_.bytes;
            return MakeCall(kNfs, 3, kRead, 0, 0,
                            Writer().Opaque(handle_).U64(offset).U32(options_.bytes).Bytes());
        }
        if (operation == "write") {
            const uint64_t block = session->number * uint64_t{kBlocksWritten} +
                                   session->offsetBlock++ % kBlocksWritten;
            return MakeCall(kNfs, 3, kWrite, 0, 0,
                            Writer()
                                .Opaque(handle_)
                                .U64(block * options_.bytes)
                                .U32(options_.bytes)
                                .U32(options_.stable)
                                .Opaque(data_)
                                .Bytes());
        }
        if (operation == "create-remove") {
            const uint64_t n = session->names++;
            const std::string name = "bench-" + std::to_string(getpid()) + "-" +
                                     std::to_string(session->number) + "-" + std::to_string(n / 2);
            Writer call;
            call.Opaque(handle_).Opaque(name);
            // GUARDED, mode 0644 and nothing else said.
            if (n % 2 == 0) call.U32(1).U32(1).U32(0644).U32(0).U32(0).U32(0).U32(0).U32(0);
            return MakeCall(kNfs, 3, n % 2 == 0 ? kCreate : kRemove, 0, 0, call.Bytes());
        }
        if (operation == "readdirplus")
            return MakeCall(kNfs, 3, kReaddirplus, 0, 0,
                            Writer()
                                .Opaque(handle_)
                                .U64(session->cookie)
                                .U64(0)
                                .U32(options_.bytes)
                                .U32(options_.bytes)
                                .Bytes());
        throw std::runtime_error("unknown operation " + operation);
    }

    void Check(Session* session, std::string_view record) {
        ++totals_.calls;
        totals_.microseconds.push_back(
            static_cast<uint32_t>(std::chrono::duration_cast<std::chrono::microseconds>(
                                      Clock::now() - session->sent.front())
                                      .count()));
        session->sent.pop_front();
        Reader reply = OpenReply(record);
        if (options_.operation == "null") return;
        if (const uint32_t status = reply.U32(); status != 0)
            throw std::runtime_error(options_.operation + ": status " + std::to_string(status));
        if (options_.operation == "read") {
            reply.SkipAttributes();
            const uint32_t count = reply.U32();
            const bool eof = reply.U32() != 0;
            if (reply.Opaque().size() != count) throw std::runtime_error("read: wrong length");
            totals_.bytes += count;
            session->offsetBlock = eof || count < options_.bytes ? 0 : session->offsetBlock + 1;
        } else if (options_.operation == "write") {
            if (reply.U32() != 0) reply.Take(24);
            reply.SkipAttributes();
            const uint32_t count = reply.U32();
            if (count != options_.bytes) throw std::runtime_error("write: not all was written");
            totals_.bytes += count;
        } else if (options_.operation == "readdirplus") {
            CheckPage(session, &reply);
        }
    }

    void CheckPage(Session* session, Reader* reply) {
        reply->SkipAttributes();
        reply->U64();
        while (reply->U32() != 0) {
            reply->U64();
            reply->Opaque();
            session->cookie = reply->U64();
            reply->SkipAttributes();
            if (reply->U32() != 0) reply->Opaque();
            ++totals_.entries;
        }
        if (reply->U32() != 0) {
            session->cookie = 0;
            ++totals_.passes;
        }
    }

    nlohmann::json Report(double elapsed, uint64_t cpu) {
        auto& times = totals_.microseconds;
        std::sort(times.begin(), times.end());
        const auto at = [&](double share) {
            return times.empty()
                       ? 0u
                       : times[static_cast<size_t>(share * static_cast<double>(times.size() - 1))];
        };
        const double calls = static_cast<double>(totals_.calls);
        nlohmann::json report = {{"operation", options_.operation},
                                 {"connections", options_.connections},
                                 {"depth", Depth()},
                                 {"calls", totals_.calls},
                                 {"callsPerSecond", calls / elapsed},
                                 {"p50us", at(0.5)},
                                 {"p95us", at(0.95)},
                                 {"p99us", at(0.99)},
                                 {"maxus", at(1)}};
        if (options_.serverPid != 0)
            report["serverCpuUsPerCall"] = static_cast<double>(cpu) / 1000 / calls;
        if (totals_.bytes != 0)
            report["mibPerSecond"] = static_cast<double>(totals_.bytes) / (1 << 20) / elapsed;
        if (totals_.entries != 0) {
            report["entriesPerSecond"] = static_cast<double>(totals_.entries) / elapsed;
            report["passes"] = totals_.passes;
            if (options_.serverPid != 0)
                report["serverCpuUsPerEntry"] =
                    static_cast<double>(cpu) / 1000 / static_cast<double>(totals_.entries);
        }
        return report;
    }

    const Options& options_;
    const std::string handle_;
    const std::string data_ = std::string(options_.operation == "write" ? options_.bytes : 0, 'w');
    Totals totals_;
    uint32_t xid_ = 0;
};

int Main(int argc, char** argv) {
    Options options;
    CLI::App app("Load generator for an NFS version 3 server on this machine (127.0.0.1)");
    app.add_option("--port", options.port, "NFS port");
    app.add_option("--mount-port", options.mountPort, "MOUNT port; the NFS port by default");
    app.add_option("--share", options.share, "Path to mount")->required();
    app.add_option("--file", options.file, "File or directory below the share to work on");
    app.add_option("--op", options.operation,
                   "null, getattr, read, write, create-remove or readdirplus");
    app.add_option("--connections", options.connections)->check(CLI::Range(1, 1000));
    app.add_option("--depth", options.depth, "Calls in flight per connection")
        ->check(CLI::Range(1, 1000));
    app.add_option("--seconds", options.seconds)->check(CLI::Range(0.05, 600.0));
    app.add_option("--bytes", options.bytes,
                   "READ and WRITE count; READDIRPLUS dircount and maxcount");
    app.add_option("--stable", options.stable, "WRITE: 0 UNSTABLE, 1 DATA_SYNC, 2 FILE_SYNC")
        ->check(CLI::Range(0, 2));
    app.add_option("--server-pid", options.serverPid, "Server whose CPU time is told per call");
    app.add_flag("--json", options.json);
    CLI11_PARSE(app, argc, argv);
    if (options.mountPort == 0) options.mountPort = options.port;
    try {
        const std::string handle = LookupPath(options, MountShare(options));
        const nlohmann::json report = Load(options, handle).Run();
        if (options.json) {
            printf("%s\n", report.dump().c_str());
        } else {
            for (const auto& [name, value] : report.items())
                printf("%-20s %s\n", name.c_str(), value.dump().c_str());
        }
        return 0;
    } catch (const std::exception& error) {
        fprintf(stderr, "oxel-load: %s\n", error.what());
        return 1;
    }
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
    return bench::Main(argc, argv);
}
