// SPDX-License-Identifier: Apache-2.0
//
// Calls of any bytes on a connection, through the RPC library, the dispatchers, the decoders and
// the handlers, to a file system in memory and back, by each way of carrying them. A call whose
// header is right has one reply, which is right; any other has one at most. A connection that goes
// on still answers, nothing of the calls is left behind, and the file system is sound.
#include <poll.h>
#include <rpc/rpc.h>
#include <sys/socket.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>

#include "base/log.h"
#include "base/store.h"
#include "base/unique_fd.h"
#include "bin/oxelService.h"
#include "bin/oxelService_accept.h"
#include "bin/oxelService_callinfo.h"
#include "bin/oxelService_event.h"
#include "bin/oxelService_event_loop.h"
#include "bin/oxelService_transport.h"
#include "fuzz/call_input.h"
#include "fuzz/memory_module.h"

namespace {

using oxel::fuzz::CheckReply;
using oxel::fuzz::Demand;
using oxel::fuzz::Input;
using oxel::fuzz::InputCall;
using oxel::fuzz::MemoryModule;
using oxel::fuzz::WordAt;
using oxel::fuzz::Words;

constexpr RecordBounds kBounds{270336, 1024};
// Replies must fit into a socket's buffer, because nobody reads while they are written.
constexpr unsigned kTransferBytes = 64 << 10;

// One connection of either kind, driven by this thread.
class Connected {
  public:
    virtual ~Connected() = default;
    // Has what was sent answered.
    virtual void Serve() = 0;
    virtual bool Alive() = 0;
};

class EventConnected : public Connected {
  public:
    EventConnected(int fd, EventLoop& loop, BufferPool& pool) : fd_(fd) {
        SVCXPRT* transport = MakeTransport(oxel::UniqueFd(fd), 4096, 4096);
        Demand(transport != nullptr, "no transport");
        connection_ = EventConnection::Guard(transport, loop, AddressKey{}, kBounds, pool);
        Demand(connection_ != nullptr, "no guard");
    }
    ~EventConnected() override { connection_->End(); }
    void Serve() override {
        bool drained = false;
        for (RecordReader& input = connection_->input; Alive();) {
            const RecordReader::Found found = input.Look();
            if (found == RecordReader::Found::kPartial) {
                if (drained) break;
                drained = input.Fill(fd_) == RecordReader::Filled::kAll;
            } else if (found == RecordReader::Found::kRecord) {
                connection_->Dispatch();
                input.Consume();
                if (connection_->WasNoCall()) alive_ = false;
            } else {
                alive_ = false;
            }
        }
        connection_->Flush();
    }
    bool Alive() override { return alive_ && !connection_->Ended(); }

  private:
    const int fd_;
    EventConnection* connection_;
    bool alive_ = true;
};

class LibraryConnected : public Connected {
  public:
    LibraryConnected(int fd, int client) : fd_(fd), client_(client) {
        SVCXPRT* transport = MakeTransport(oxel::UniqueFd(fd), gMaxRPCSendSize, gMaxRPCRecvSize);
        Demand(transport != nullptr && Connection::Guard(transport) != nullptr, "no transport");
    }
    ~LibraryConnected() override {
        (void)shutdown(client_, SHUT_WR);
        while (LibraryConnected::Alive())
            svc_getreq_common(fd_);  // until the library has found the end
    }
    void Serve() override {
        if (Alive()) svc_getreq_common(fd_);
        while (gCallInfoPool.Free() != gCallInfoPool.Total()) std::this_thread::yield();
    }
    bool Alive() override {
        return std::any_of(svc_pollfd, svc_pollfd + svc_max_pollfd,
                           [this](const pollfd& entry) { return entry.fd == fd_; });
    }

  private:
    const int fd_, client_;
};

class Service {
  public:
    Service() {
        // Nothing of this host is read or written.
        std::string root = std::filesystem::temp_directory_path() / "oxel-fuzz-XXXXXX";
        Demand(mkdtemp(root.data()) != nullptr, "no directory");
        (void)setenv("OXEL_ROOT", root.c_str(), 1);
        XOPI_Focus::setFocus("Fuzz");
        (void)signal(SIGPIPE, SIG_IGN);
        oxel::LogWriter::SetSink([](const oxel::LogRecord&) {});
        oxel::LogWriter::SetLevel(4);  // arguments of traces are evaluated too
        NFS3_MAXBUF_SIZE = kTransferBytes;
        gMaxRPCRecvSize = gMaxRPCSendSize = 2 * kTransferBytes;
        CallInfo3::freeTransportCopy = FreeSVCXPRT;
        gCallInfoPool.Init(2);
        Demand(gWorkerPool.initThreadPool("OXEL", 60, 1, 1, 1), "no handler thread");
        Demand(gRPCSendPool.initThreadPool("OXEL_SEND", 60, 1, 1, 1), "no sender thread");
        int ends[2];
        Demand(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0, "no sockets");
        SVCXPRT* any = svc_fd_create(ends[0], 0, 0);
        Demand(svc_reg(any, 100003, 3, NfsDispatcher(), nullptr), "no service");
        for (const uint32_t version : {1, 2, 3})
            Demand(svc_reg(any, 100005, version, MountDispatcher(), nullptr), "no service");
        MemoryModule::Install();
    }

    void Run(const Input& input) {
        MemoryModule::Begin(input.failing, input.error);
        gHardened = !input.libraryWay;
        gMultiThreadRPCHandling = input.threads;
        int ends[2];
        Demand(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0, "no sockets");
        const oxel::UniqueFd client(ends[0]);
        {
            std::unique_ptr<Connected> connection;
            if (input.libraryWay)
                connection = std::make_unique<LibraryConnected>(ends[1], ends[0]);
            else
                connection = std::make_unique<EventConnected>(ends[1], loop_, pool_);
            for (const InputCall& call : input.calls) {
                if (!connection->Alive()) break;
                Ask(input, call, *connection, client.Get());
            }
            // A NULL call shows whether the connection has gone on.
            if (connection->Alive()) Ask(input, null_, *connection, client.Get());
        }
        Demand(Connection::Count() == 0, "a connection stays");
        Demand(gCallInfoPool.Free() == gCallInfoPool.Total(), "a call record stays");
        MemoryModule::Check();
    }

  private:
    void Ask(const Input& input, const InputCall& call, Connected& connection, int client) {
        const std::string record = input.Record(call.message);
        Demand(send(client, record.data(), record.size(), MSG_DONTWAIT) ==
                   static_cast<ssize_t>(record.size()),
               "a record cannot be sent");
        connection.Serve();
        replies_.resize(1 << 20);
        const ssize_t got = recv(client, replies_.data(), replies_.size(), MSG_DONTWAIT);
        replies_.resize(got < 0 ? 0 : static_cast<size_t>(got));
        if (replies_.empty()) {
            Demand(!call.headerIsRight, "a call whose header is right is not answered");
            return;
        }
        std::string reply;
        bool last = false;
        for (size_t at = 0; at < replies_.size();) {
            Demand(!last, "two replies to one call");
            const uint32_t mark = WordAt(replies_, at);
            const size_t bytes = mark & 0x7fffffffu;
            last = (mark & 0x80000000u) != 0;
            at += 4;
            Demand(at <= replies_.size() && replies_.size() - at >= bytes, "half a fragment");
            reply.append(replies_, at, bytes);
            at += bytes;
        }
        Demand(last, "a reply without an end");
        Demand(reply.size() >= 20 && reply.size() % 4 == 0, "a reply of an impossible length");
        Demand(WordAt(reply, 0) == WordAt(call.message, 0), "a reply to another call");
        Demand(WordAt(reply, 4) == REPLY, "what comes back is no reply");
        if (call.headerIsRight) CheckReply(call, reply);
    }

    EventService service_;
    EventLoop loop_{service_, 0};
    BufferPool pool_{kBounds.bytes};
    std::string replies_;
    const InputCall null_ = [] {
        InputCall call;
        call.headerIsRight = true;
        call.program = 100003;
        call.version = 3;
        call.message = Words({0x6e756c6c, CALL, 2, 100003, 3, 0, 0, 0, 0, 0});
        return call;
    }();
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 60000) return 0;
    static Service* const service = new Service;
    service->Run(Input::Parse(data, size));
    return 0;
}
