// SPDX-License-Identifier: Apache-2.0
//
// A record of any bytes on a connection of hardened mode: through the RPC library, the dispatchers,
// the decoders and the handlers, into the queue of replies. It gets one reply at most, a connection
// that goes on still answers, and nothing of it is left behind.
#include <arpa/inet.h>
#include <rpc/rpc.h>
#include <sys/socket.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "base/log.h"
#include "base/store.h"
#include "base/unique_fd.h"
#include "bin/oxelService.h"
#include "bin/oxelService_accept.h"
#include "bin/oxelService_callinfo.h"
#include "bin/oxelService_event.h"
#include "bin/oxelService_event_loop.h"

namespace {

void Demand(bool holds) {
    if (!holds) abort();
}

uint32_t WordAt(const std::string& bytes, size_t at) {
    uint32_t word;
    memcpy(&word, bytes.data() + at, sizeof word);
    return ntohl(word);
}
std::string Words(std::initializer_list<uint32_t> words) {
    std::string bytes;
    for (uint32_t word : words) {
        word = htonl(word);
        bytes.append(reinterpret_cast<const char*>(&word), sizeof word);
    }
    return bytes;
}
std::string Record(const std::string& body) {
    return Words({0x80000000u | static_cast<uint32_t>(body.size())}) + body;
}

class Service {
  public:
    Service() {
        // Nothing of this host is read or written.
        std::string root = std::filesystem::temp_directory_path() / "oxel-fuzz-XXXXXX";
        Demand(mkdtemp(root.data()) != nullptr);
        setenv("OXEL_ROOT", root.c_str(), 1);
        XOPI_Focus::setFocus("Fuzz");
        oxel::LogWriter::SetSink([](const oxel::LogRecord&) {});
        gHardened = true;
        gMultiThreadRPCHandling = false;  // calls are handled where they are dispatched
        gCallInfoPool.Init(2);
        int ends[2];
        Demand(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0);
        SVCXPRT* any = svc_fd_create(ends[0], 0, 0);
        Demand(svc_reg(any, 100003, 3, NfsDispatcher(), nullptr));
        for (const uint32_t version : {1, 2, 3})
            Demand(svc_reg(any, 100005, version, MountDispatcher(), nullptr));
    }

    // What comes back for the records of one connection.
    std::string Answer(const std::string& stream) {
        int ends[2];
        Demand(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0);
        const oxel::UniqueFd client(ends[0]);
        SVCXPRT* transport = MakeTransport(oxel::UniqueFd(ends[1]), 4096, 4096);
        Demand(transport != nullptr);
        EventConnection* connection =
            EventConnection::Guard(transport, loop_, AddressKey{}, kBounds, pool_);
        Demand(connection != nullptr);
        Demand(send(client.Get(), stream.data(), stream.size(), MSG_DONTWAIT) ==
               static_cast<ssize_t>(stream.size()));
        bool drained = false;
        for (RecordReader& input = connection->input;;) {
            const RecordReader::Found found = input.Look();
            if (found == RecordReader::Found::kPartial && !drained) {
                drained = input.Fill(ends[1]) == RecordReader::Filled::kAll;
            } else if (found == RecordReader::Found::kRecord) {
                connection->Dispatch();
                input.Consume();
                if (connection->WasNoCall()) break;
            } else {
                break;
            }
        }
        connection->Flush();
        std::string replies(1 << 20, '\0');
        const ssize_t got = recv(client.Get(), replies.data(), replies.size(), MSG_DONTWAIT);
        replies.resize(got < 0 ? 0 : static_cast<size_t>(got));
        connection->End();
        Demand(Connection::Count() == 0);
        Demand(gCallInfoPool.Free() == gCallInfoPool.Total());
        return replies;
    }

  private:
    static constexpr RecordBounds kBounds{270336, 1024};
    EventService service_;
    EventLoop loop_{service_, 0};
    BufferPool pool_{kBounds.bytes};
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 60000) return 0;
    static Service* const service = new Service;
    const std::string body(reinterpret_cast<const char*>(data), size);
    // Behind it a NULL call, which shows whether the connection has gone on.
    static constexpr uint32_t kXid = 0x6e756c6c;
    const std::string replies =
        service->Answer(Record(body) + Record(Words({kXid, CALL, 2, 100003, 3, 0, 0, 0, 0, 0})));
    unsigned count = 0;
    for (size_t at = 0; at < replies.size();) {
        Demand(replies.size() - at >= 4);
        const uint32_t mark = WordAt(replies, at);
        const size_t bytes = mark & 0x7fffffffu;
        Demand((mark & 0x80000000u) != 0 && bytes >= 20 && bytes % 4 == 0);
        at += 4;
        Demand(replies.size() - at >= bytes);
        const bool ofNull = at + bytes == replies.size() && WordAt(replies, at) == kXid;
        Demand(ofNull || (count == 0 && WordAt(replies, at) == WordAt(body, 0)));
        Demand(WordAt(replies, at + 4) == REPLY);
        at += bytes;
        ++count;
    }
    Demand(count <= 2);
    return 0;
}
