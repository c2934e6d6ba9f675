// SPDX-License-Identifier: Apache-2.0
//
// A connection's queue of replies: the bytes are those of the RPC library, and they arrive in whole
// and in order, however little the socket takes and however many threads answer at once.
#include "bin/oxelService_replies.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "base/unique_fd.h"
#include "nfs3/nfs3xdr.h"

using oxel::UniqueFd;
using Sent = ReplyQueue::Sent;

namespace {

std::string Payload(size_t size, unsigned seed = 1) {
    std::string bytes(size, '\0');
    uint32_t state = seed * 2654435761u + 1;
    for (char& byte : bytes) {
        state = state * 1664525u + 1013904223u;
        byte = static_cast<char>(state >> 24);
    }
    return bytes;
}

template <typename T>
xdrproc_t Coder(bool_t (*routine)(XDR*, T*)) {
    return reinterpret_cast<xdrproc_t>(routine);
}

bool_t xdr_Nothing(XDR*, void*) {
    return TRUE;
}

rpc_msg Accepted(uint32_t xid, accept_stat status) {
    rpc_msg message{};
    message.rm_xid = xid;
    message.rm_direction = REPLY;
    message.rm_reply.rp_stat = MSG_ACCEPTED;
    message.acpted_rply.ar_verf = _null_auth;
    message.acpted_rply.ar_stat = status;
    message.acpted_rply.ar_results.proc = Coder(xdr_Nothing);
    return message;
}
template <typename T>
rpc_msg Success(uint32_t xid, bool_t (*routine)(XDR*, T*), T* result) {
    rpc_msg message = Accepted(xid, SUCCESS);
    message.acpted_rply.ar_results.proc = Coder(routine);
    message.acpted_rply.ar_results.where = reinterpret_cast<caddr_t>(result);
    return message;
}

GETATTR3res AttributesResult() {
    GETATTR3res result{};
    result.status = NFS3_OK;
    result.resok.obj_attributes.type = NF3REG;
    result.resok.obj_attributes.mode = 0644;
    result.resok.obj_attributes.size = 0x123456789abcdefull;
    result.resok.obj_attributes.fileid = 0xfedcba9876543210ull;
    return result;
}
READ3res ReadResult(std::string* data) {
    READ3res result{};
    result.status = NFS3_OK;
    result.resok.count = static_cast<uint32_t>(data->size());
    result.resok.eof = TRUE;
    result.resok.data.data_len = result.resok.count;
    result.resok.data.data_val = data->data();
    return result;
}

// What the library makes of a message, as a record of one fragment.
std::string ByLibrary(rpc_msg message) {
    static std::string written;
    written.clear();
    XDR xdrs{};
    xdrrec_create(
        &xdrs, 1 << 20, 4096, nullptr, nullptr, +[](void*, void* bytes, int length) {
            written.append(static_cast<const char*>(bytes), static_cast<size_t>(length));
            return length;
        });
    xdrs.x_op = XDR_ENCODE;
    EXPECT_TRUE(xdr_replymsg(&xdrs, &message));
    EXPECT_TRUE(xdrrec_endofrecord(&xdrs, TRUE));
    XDR_DESTROY(&xdrs);
    return written;
}

// A queue, the socket that it sends to, and the client behind that.
class Sending {
  public:
    explicit Sending(int type = SOCK_STREAM, int bufferBytes = 0) {
        int ends[2] = {-1, -1};
        EXPECT_EQ(socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, ends), 0);
        client.Reset(ends[0]);
        server.Reset(ends[1]);
        if (bufferBytes == 0) return;
        EXPECT_EQ(setsockopt(server.Get(), SOL_SOCKET, SO_SNDBUF, &bufferBytes, sizeof bufferBytes),
                  0);
    }
    Sent Put(rpc_msg message) { return queue.Put(server.Get(), &message); }
    Sent PutRead(uint32_t xid, std::string data) {
        READ3res result = ReadResult(&data);
        expected += ByLibrary(Success(xid, xdr_READ3res, &result));
        const Sent sent = Put(Success(xid, xdr_READ3res, &result));
        data.assign(data.size(), '!');  // the call's buffer is used for something else now
        return sent;
    }
    Sent PutAttributes(uint32_t xid) {
        GETATTR3res result = AttributesResult();
        expected += ByLibrary(Success(xid, xdr_GETATTR3res, &result));
        return Put(Success(xid, xdr_GETATTR3res, &result));
    }
    Sent Flush() { return queue.Flush(server.Get()); }
    Sent Continue() { return queue.Continue(server.Get()); }
    // What has come, at most so many bytes.
    std::string Receive(size_t most = SIZE_MAX) const {
        std::string all;
        std::string some(1 << 20, '\0');
        while (all.size() < most) {
            const ssize_t got = recv(client.Get(), some.data(),
                                     std::min(most - all.size(), some.size()), MSG_DONTWAIT);
            if (got <= 0) break;
            all.append(some, 0, static_cast<size_t>(got));
        }
        return all;
    }
    // The client reads `bytes` at a time until everything has come.
    std::string ReceiveSlowly(size_t bytes) {
        std::string all;
        for (;;) {
            const std::string some = Receive(bytes);
            all += some;
            const Sent sent = Continue();
            EXPECT_TRUE(sent == Sent::kAll || sent == Sent::kBlocked);
            if (sent == Sent::kAll && some.empty()) return all;
        }
    }

    UniqueFd client, server;
    ReplyQueue queue;
    std::string expected;
};

bool_t xdr_Broken(XDR* xdrs, const std::function<bool_t(XDR*)>* encode) {
    return (*encode)(xdrs);
}

class ReplyBytesOnTheWire : public testing::Test {
  protected:
    // The message alone, and between two others.
    static void ExpectAsByLibrary(const rpc_msg& message, const std::string& what) {
        const std::string expected = ByLibrary(message);
        {
            Sending sending;
            EXPECT_NE(sending.Put(message), Sent::kEncode) << what;
            EXPECT_EQ(sending.Flush(), Sent::kAll) << what;
            EXPECT_TRUE(sending.Receive() == expected) << what;
        }
        Sending sending;
        sending.PutAttributes(1);
        EXPECT_NE(sending.Put(message), Sent::kEncode) << what;
        sending.expected += expected;
        sending.PutAttributes(2);
        EXPECT_EQ(sending.Flush(), Sent::kAll) << what;
        EXPECT_TRUE(sending.Receive() == sending.expected) << what;
    }
};

}  // namespace

TEST_F(ReplyBytesOnTheWire, OfGetattrAreTheLibrarys) {
    GETATTR3res result = AttributesResult();
    ExpectAsByLibrary(Success(7, xdr_GETATTR3res, &result), "GETATTR");
    result.status = NFS3ERR_STALE;
    ExpectAsByLibrary(Success(8, xdr_GETATTR3res, &result), "failed GETATTR");
}

TEST_F(ReplyBytesOnTheWire, OfReadAreTheLibrarysForEverySize) {
    for (const size_t size :
         {0, 1, 2, 3, 1024, 4096, 16383, 16384, 16385, 65536, 65537, 65539, 200000}) {
        std::string data = Payload(size);
        READ3res result = ReadResult(&data);
        ExpectAsByLibrary(Success(9, xdr_READ3res, &result), "READ of " + std::to_string(size));
    }
}

TEST_F(ReplyBytesOnTheWire, OfErrorsAreTheLibrarys) {
    for (const accept_stat status : {PROG_UNAVAIL, PROC_UNAVAIL, GARBAGE_ARGS, SYSTEM_ERR})
        ExpectAsByLibrary(Accepted(10, status), "status " + std::to_string(status));
    rpc_msg mismatch = Accepted(11, PROG_MISMATCH);
    mismatch.acpted_rply.ar_vers = {1, 3};
    ExpectAsByLibrary(mismatch, "PROG_MISMATCH");
    rpc_msg denied{};
    denied.rm_xid = 12;
    denied.rm_direction = REPLY;
    denied.rm_reply.rp_stat = MSG_DENIED;
    denied.rjcted_rply.rj_stat = AUTH_ERROR;
    denied.rjcted_rply.rj_why = AUTH_TOOWEAK;
    ExpectAsByLibrary(denied, "AUTH_ERROR");
    denied.rjcted_rply.rj_stat = RPC_MISMATCH;
    denied.rjcted_rply.rj_vers = {2, 2};
    ExpectAsByLibrary(denied, "RPC_MISMATCH");
}

TEST_F(ReplyBytesOnTheWire, OfAVerifierAreTheLibrarys) {
    for (const unsigned length : {1u, 5u, 400u}) {
        std::string verifier = Payload(length);
        GETATTR3res result = AttributesResult();
        rpc_msg message = Success(13, xdr_GETATTR3res, &result);
        message.acpted_rply.ar_verf = {AUTH_SHORT, verifier.data(), length};
        ExpectAsByLibrary(message, "a verifier of " + std::to_string(length));
    }
}

TEST(ReplyQueue, NothingLeavesBeforeAFlush) {
    Sending sending;
    for (uint32_t xid = 1; xid <= 3; ++xid) EXPECT_EQ(sending.PutAttributes(xid), Sent::kQueued);
    EXPECT_EQ(sending.queue.Queued(), sending.expected.size());
    EXPECT_EQ(sending.Receive(), "");
    EXPECT_EQ(sending.Flush(), Sent::kAll);
    EXPECT_EQ(sending.queue.Queued(), 0u);
    EXPECT_TRUE(sending.Receive() == sending.expected);
}

// A socket that keeps what was sent together apart from what was not.
TEST(ReplyQueue, WhatIsReadyTogetherLeavesInOnePiece) {
    Sending sending(SOCK_SEQPACKET);
    for (uint32_t xid = 1; xid <= 50; ++xid) sending.PutAttributes(xid);
    EXPECT_EQ(sending.Flush(), Sent::kAll);
    std::string piece(1 << 20, '\0');
    const ssize_t got = recv(sending.client.Get(), piece.data(), piece.size(), MSG_DONTWAIT);
    EXPECT_TRUE(piece.substr(0, static_cast<size_t>(got)) == sending.expected);
    EXPECT_EQ(sending.Receive(), "");
}

TEST(ReplyQueue, ALargeReplyLeavesAtOnceWithThoseBeforeIt) {
    Sending sending(SOCK_SEQPACKET);
    sending.PutAttributes(1);
    sending.PutAttributes(2);
    EXPECT_EQ(sending.PutRead(3, Payload(20001)), Sent::kAll);
    std::string piece(1 << 20, '\0');
    const ssize_t got = recv(sending.client.Get(), piece.data(), piece.size(), MSG_DONTWAIT);
    EXPECT_TRUE(piece.substr(0, static_cast<size_t>(got)) == sending.expected);
    EXPECT_EQ(sending.queue.Queued(), 0u);
}

TEST(ReplyQueue, FlushOfNothingSendsNothing) {
    Sending sending(SOCK_SEQPACKET);
    EXPECT_EQ(sending.Flush(), Sent::kAll);
    EXPECT_EQ(sending.Continue(), Sent::kAll);
    EXPECT_FALSE(sending.queue.Blocked());
    EXPECT_EQ(sending.Receive(), "");
}

TEST(ReplyQueue, AFullSocketBlocksAndLosesNothing) {
    Sending sending(SOCK_STREAM, 1);
    for (uint32_t xid = 1; xid <= 1000; ++xid) sending.PutAttributes(xid);
    EXPECT_EQ(sending.Flush(), Sent::kBlocked);
    EXPECT_TRUE(sending.queue.Blocked());
    EXPECT_TRUE(sending.ReceiveSlowly(999) == sending.expected);
    EXPECT_FALSE(sending.queue.Blocked());
}

TEST(ReplyQueue, AFullSocketIsToldToOneCallerOnly) {
    Sending sending(SOCK_STREAM, 1);
    EXPECT_EQ(sending.PutRead(1, Payload(100000)), Sent::kBlocked);
    EXPECT_EQ(sending.PutAttributes(2), Sent::kQueued);
    EXPECT_EQ(sending.Flush(), Sent::kAll);
    EXPECT_EQ(sending.PutRead(3, Payload(100000, 2)), Sent::kQueued);
    EXPECT_EQ(sending.Flush(), Sent::kAll);
    EXPECT_EQ(sending.Continue(), Sent::kBlocked) << "to whoever waits for the socket";
    EXPECT_TRUE(sending.ReceiveSlowly(5000) == sending.expected);
}

TEST(ReplyQueue, BlocksAtAnyPlaceOfALargeReplyWithoutLoss) {
    // Replies in front of it shift the place at which the socket is full through the header of the
    // large one, its data and its padding.
    size_t takes;
    {
        Sending sending(SOCK_STREAM, 1);
        sending.PutRead(1, Payload(100000));
        takes = sending.Receive().size();
    }
    ASSERT_GT(takes, 100u);
    for (unsigned before = 0; before < takes / 112 + 3; before += 1 + before / 8) {
        for (const size_t size : {size_t{16384}, size_t{16385}, takes + 20001}) {
            Sending sending(SOCK_STREAM, 1);
            for (uint32_t xid = 1; xid <= before; ++xid) sending.PutAttributes(xid);
            EXPECT_EQ(sending.PutRead(1000, Payload(size)), Sent::kBlocked);
            sending.PutAttributes(1001);
            sending.PutRead(1002, Payload(30001, 3));
            ASSERT_TRUE(sending.ReceiveSlowly(3001) == sending.expected)
                << before << " replies before one of " << size;
            EXPECT_EQ(ReplyQueue::BytesBlocked(), 0u);
        }
    }
}

TEST(ReplyQueue, OverTcpAFullSocketLosesNothingEither) {
    UniqueFd listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ASSERT_EQ(bind(listener.Get(), reinterpret_cast<sockaddr*>(&address), length), 0);
    ASSERT_EQ(listen(listener.Get(), 1), 0);
    ASSERT_EQ(getsockname(listener.Get(), reinterpret_cast<sockaddr*>(&address), &length), 0);
    Sending sending;
    sending.client.Reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(connect(sending.client.Get(), reinterpret_cast<sockaddr*>(&address), length), 0);
    sending.server.Reset(accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    const int small = 64 << 10;
    ASSERT_EQ(setsockopt(sending.server.Get(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small), 0);
    bool blocked = false;
    for (uint32_t xid = 1; xid <= 12; ++xid)
        blocked = sending.PutRead(xid, Payload(250001, xid)) == Sent::kBlocked || blocked;
    ASSERT_TRUE(blocked);
    std::thread client([&] {
        std::string all;
        std::string some(70000, '\0');
        while (all.size() < sending.expected.size()) {
            const ssize_t got = recv(sending.client.Get(), some.data(), some.size(), 0);
            if (got <= 0) break;
            all.append(some, 0, static_cast<size_t>(got));
        }
        EXPECT_TRUE(all == sending.expected);
    });
    for (;;) {
        pollfd writable{sending.server.Get(), POLLOUT, 0};
        if (poll(&writable, 1, 60000) != 1) {
            ADD_FAILURE() << "the client does not read";
            break;
        }
        if (sending.Continue() == Sent::kAll) break;
    }
    sending.server.Reset();  // should bytes be missing, the client must not wait for them
    client.join();
}

TEST(ReplyQueue, CountsTheBytesThatWaitUntilNoneDo) {
    ASSERT_EQ(ReplyQueue::BytesBlocked(), 0u);
    Sending one(SOCK_STREAM, 1), other(SOCK_STREAM, 1);
    one.PutAttributes(1);
    EXPECT_EQ(ReplyQueue::BytesBlocked(), 0u) << "it waits for a flush only";
    one.PutRead(2, Payload(50000));
    const size_t takes = one.Receive().size();
    EXPECT_EQ(ReplyQueue::BytesBlocked(), one.expected.size() - takes);
    one.PutAttributes(3);
    EXPECT_EQ(ReplyQueue::BytesBlocked(), one.expected.size() - takes);
    other.PutRead(4, Payload(60000));
    const size_t othersTake = other.Receive().size();
    EXPECT_EQ(ReplyQueue::BytesBlocked(),
              one.expected.size() - takes + other.expected.size() - othersTake);
    one.ReceiveSlowly(1 << 20);
    EXPECT_EQ(ReplyQueue::BytesBlocked(), other.expected.size() - othersTake);
    other.ReceiveSlowly(1 << 20);
    EXPECT_EQ(ReplyQueue::BytesBlocked(), 0u);
}

TEST(ReplyQueue, TakesItsBytesOutOfTheCountWhenItGoes) {
    {
        Sending sending(SOCK_STREAM, 1);
        sending.PutRead(1, Payload(50000));
        EXPECT_GT(ReplyQueue::BytesBlocked(), 0u);
    }
    EXPECT_EQ(ReplyQueue::BytesBlocked(), 0u);
}

TEST(ReplyQueue, APeerThatIsGoneIsAFailure) {
    for (const bool large : {false, true}) {
        Sending sending;
        sending.client.Reset();
        Sent sent = large ? sending.PutRead(1, Payload(50000)) : sending.PutAttributes(1);
        if (!large) {
            EXPECT_EQ(sent, Sent::kQueued);
            errno = 0;
            sent = sending.Flush();
        }
        EXPECT_EQ(sent, Sent::kFailed);
        EXPECT_EQ(errno, EPIPE);
    }
}

TEST(ReplyQueue, APeerThatGoesWhileTheSocketIsFullIsAFailure) {
    Sending sending(SOCK_STREAM, 1);
    EXPECT_EQ(sending.PutRead(1, Payload(50000)), Sent::kBlocked);
    sending.PutAttributes(2);
    sending.client.Reset();
    EXPECT_EQ(sending.Continue(), Sent::kFailed);
    EXPECT_FALSE(sending.queue.Blocked());
    EXPECT_EQ(ReplyQueue::BytesBlocked(), 0u);
}

// The client may have part of a reply; what came next would be taken for the rest of it.
TEST(ReplyQueue, NothingFollowsAFailure) {
    Sending sending;
    sending.client.Reset();
    sending.PutAttributes(1);
    EXPECT_EQ(sending.Flush(), Sent::kFailed);
    sending.PutAttributes(2);
    const Sending other;  // as if the socket worked again
    GETATTR3res result = AttributesResult();
    for (uint32_t xid = 3; xid <= 4; ++xid) {
        rpc_msg message = Success(xid, xdr_GETATTR3res, &result);
        errno = 0;
        EXPECT_EQ(sending.queue.Put(other.server.Get(), &message), Sent::kFailed);
        EXPECT_EQ(errno, EPIPE);
        EXPECT_EQ(sending.queue.Flush(other.server.Get()), Sent::kAll);
        EXPECT_EQ(sending.queue.Continue(other.server.Get()), Sent::kAll);
    }
    EXPECT_EQ(other.Receive(), "");
    EXPECT_EQ(sending.queue.Queued(), 0u);
}

TEST(ReplyQueue, AReplyThatCannotBeEncodedLeavesTheOthersAlone) {
    std::string data = Payload(50000);
    const std::vector<std::function<bool_t(XDR*)>> broken = {
        [](XDR*) { return FALSE; },
        [](XDR* xdrs) {
            uint32_t word = 1;
            for (int i = 0; i < 5000; ++i) EXPECT_TRUE(xdr_u_int(xdrs, &word));
            return FALSE;
        },
        [&](XDR* xdrs) {
            EXPECT_TRUE(xdr_opaque(xdrs, data.data(), static_cast<u_int>(data.size())));
            return FALSE;
        },
    };
    for (const auto& encode : broken) {
        Sending sending;
        sending.PutAttributes(1);
        rpc_msg message = Accepted(2, SUCCESS);
        message.acpted_rply.ar_results.proc = Coder(&xdr_Broken);
        message.acpted_rply.ar_results.where =
            reinterpret_cast<caddr_t>(const_cast<std::function<bool_t(XDR*)>*>(&encode));
        EXPECT_EQ(sending.Put(message), Sent::kEncode);
        EXPECT_EQ(sending.queue.Queued(), sending.expected.size());
        sending.PutAttributes(3);
        EXPECT_EQ(sending.Flush(), Sent::kAll);
        EXPECT_TRUE(sending.Receive() == sending.expected);
    }
}

TEST(ReplyQueue, StreamIsOnlyWrittenFromItsBeginningToItsEnd) {
    const std::function<bool_t(XDR*)> probe = [](XDR* xdrs) {
        long value = 0;
        char byte = 0;
        EXPECT_FALSE(XDR_GETLONG(xdrs, &value));
        EXPECT_FALSE(XDR_GETBYTES(xdrs, &byte, 1));
        EXPECT_FALSE(XDR_SETPOS(xdrs, 0));
        EXPECT_FALSE(xdrs->x_ops->x_control(xdrs, 0, nullptr));
        const u_int before = XDR_GETPOS(xdrs);
        uint32_t word = 5;
        EXPECT_TRUE(xdr_u_int(xdrs, &word));
        EXPECT_EQ(XDR_GETPOS(xdrs), before + 4);
        return TRUE;
    };
    Sending sending;
    rpc_msg message = Accepted(2, SUCCESS);
    message.acpted_rply.ar_results.proc = Coder(&xdr_Broken);
    message.acpted_rply.ar_results.where =
        reinterpret_cast<caddr_t>(const_cast<std::function<bool_t(XDR*)>*>(&probe));
    EXPECT_EQ(sending.Put(message), Sent::kQueued);
}

namespace {

// What each of many threads puts: the payload follows from the transaction id.
size_t SizeOf(uint32_t xid) {
    return xid % 7 == 0 ? 17000 + xid % 4096 : xid % 300;
}

// Cuts the bytes into READ replies; what each must hold follows from its transaction id.
class ReplyReader {
  public:
    void Add(const char* bytes, size_t size) {
        pending_.append(bytes, size);
        for (;;) {
            if (pending_.size() < 4) return;
            const size_t record = 4 + (Word(0) & 0x7fffffffu);
            if (pending_.size() < record) return;
            const uint32_t xid = Word(4);
            std::string data = Payload(SizeOf(xid), xid);
            READ3res result = ReadResult(&data);
            const std::string expected = ByLibrary(Success(xid, xdr_READ3res, &result));
            ASSERT_TRUE(pending_.compare(0, record, expected) == 0) << "a reply is damaged";
            order.push_back(xid);
            pending_.erase(0, record);
        }
    }
    std::vector<uint32_t> order;

  private:
    uint32_t Word(size_t at) const {
        uint32_t word;
        memcpy(&word, pending_.data() + at, sizeof word);
        return ntohl(word);
    }
    std::string pending_;
};

}  // namespace

TEST(ReplyQueue, ManyThreadsNeverMixTheirReplies) {
    constexpr unsigned kThreads = 4;
    constexpr uint32_t kReplies = 400;
    Sending sending(SOCK_STREAM, 20000);
    std::atomic<unsigned> blocked{0}, putting{kThreads};

    std::vector<std::thread> threads;
    for (unsigned thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([&, thread] {
            const auto see = [&](Sent sent) {
                EXPECT_TRUE(sent == Sent::kAll || sent == Sent::kQueued || sent == Sent::kBlocked);
                if (sent == Sent::kBlocked) ++blocked;
            };
            for (uint32_t i = 0; i < kReplies; ++i) {
                const uint32_t xid = thread * kReplies + i;
                std::string data = Payload(SizeOf(xid), xid);
                READ3res result = ReadResult(&data);
                see(sending.Put(Success(xid, xdr_READ3res, &result)));
                data.assign(data.size(), '!');
                if (xid % 3 == 0) see(sending.Flush());
            }
            see(sending.Flush());
            --putting;
        });
    }
    // The one that waits for the socket: it goes on once for each time that somebody was told.
    std::thread waiter([&] {
        for (;;) {
            const bool last = putting == 0;
            unsigned told = blocked.exchange(0);
            EXPECT_LE(told, 1u) << "nobody else is told before it has gone on";
            if (told == 0 && last) return;
            for (; told > 0; --told) {
                Sent sent;
                do {
                    pollfd writable{sending.server.Get(), POLLOUT, 0};
                    ASSERT_EQ(poll(&writable, 1, 60000), 1);
                    sent = sending.Continue();
                } while (sent == Sent::kBlocked);
                EXPECT_EQ(sent, Sent::kAll);
            }
            std::this_thread::yield();
        }
    });

    ReplyReader reader;
    std::string some(9000, '\0');
    while (reader.order.size() < kThreads * kReplies) {
        pollfd readable{sending.client.Get(), POLLIN, 0};
        if (poll(&readable, 1, 60000) != 1) {
            ADD_FAILURE() << "replies are missing";
            break;
        }
        const ssize_t got = recv(sending.client.Get(), some.data(), some.size(), 0);
        if (got <= 0) break;
        reader.Add(some.data(), static_cast<size_t>(got));
        if (testing::Test::HasFatalFailure()) break;
    }
    for (std::thread& thread : threads) thread.join();
    waiter.join();
    std::map<uint32_t, uint32_t> next;
    for (const uint32_t xid : reader.order)
        EXPECT_EQ(xid % kReplies, next[xid / kReplies]++) << "each thread's in their order";
    EXPECT_EQ(reader.order.size(), size_t{kThreads} * kReplies);
    EXPECT_EQ(ReplyQueue::BytesBlocked(), 0u);
    EXPECT_EQ(sending.queue.Queued(), 0u);
}
