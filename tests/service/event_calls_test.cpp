// SPDX-License-Identifier: Apache-2.0
//
// Hardened mode's transport from the client's side: the answers are those of the default mode, and
// no call and no client makes the others wait.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <map>
#include <new>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bin/oxelService_replies.h"
#include "event_services.h"
#include "loop_clock.h"

using oxel::UniqueFd;
using oxel::test::Eventually;
using oxel::test::Gate;
using oxel::test::HardenedServices;
using oxel::test::kMount;
using oxel::test::kNfs;
using oxel::test::LogCapture;
using oxel::test::MockShare;
using oxel::test::NfsService;
using oxel::test::RpcCall;
using oxel::test::RpcClient;
using oxel::test::RpcReply;
using oxel::test::Word;

namespace {

RpcCall Call(uint32_t program, uint32_t version, uint32_t procedure, uint32_t xid = 1) {
    RpcCall call;
    call.xid = xid;
    call.program = program;
    call.version = version;
    call.procedure = procedure;
    return call;
}

RpcCall Read(uint32_t xid, uint32_t offset, uint32_t count) {
    RpcCall call = NfsService::Getattr(xid);
    call.procedure = 6;
    call.arguments += Word(0) + Word(offset) + Word(count);
    return call;
}

char ByteAt(uint64_t offset) {
    return static_cast<char>(offset * 131 + offset / 4096);
}

// READ gives these bytes.
void ServeReads(MockShare& share) {
    ON_CALL(*share.object, Open).WillByDefault(testing::Return(1000));
    ON_CALL(*share.object, Read)
        .WillByDefault([](OxelCtxt*, int, void* buffer, uint64_t offset, uint32_t count) {
            for (uint32_t i = 0; i < count; ++i) static_cast<char*>(buffer)[i] = ByteAt(offset + i);
            return static_cast<ssize_t>(count);
        });
}
// What READ answers then.
std::string ReadResults(uint32_t offset, uint32_t count) {
    std::string data(count, '\0');
    for (uint32_t i = 0; i < count; ++i) data[i] = ByteAt(offset + i);
    return Word(0) + Word(0) + Word(count) + Word(0) + oxel::test::Opaque(data);
}

// As many replies as there are calls, in any order.
std::map<uint32_t, RpcReply> Replies(RpcClient& client, size_t count) {
    std::map<uint32_t, RpcReply> replies;
    for (size_t i = 0; i < count; ++i) {
        const RpcReply reply = client.Expect();
        EXPECT_TRUE(replies.emplace(reply.xid, reply).second) << "twice: " << reply.xid;
        if (testing::Test::HasFailure()) break;
    }
    return replies;
}

bool IsSuccess(const RpcReply& reply) {
    return reply.status == MSG_ACCEPTED && reply.accept == SUCCESS;
}

}  // namespace

TEST_IN_CHILD(EventCalls, NullOfEveryServiceIsAnsweredOverIpv4AndIpv6) {
    HardenedServices services;
    for (const int family : {AF_INET, AF_INET6}) {
        RpcClient client = services.Connect(family);
        EXPECT_TRUE(IsSuccess(services.Ask(client, Call(kNfs, 3, 0))));
        for (const uint32_t version : {1, 2, 3})
            EXPECT_TRUE(IsSuccess(services.Ask(client, Call(kMount, version, 0))));
    }
}

TEST_IN_CHILD(EventCalls, GetattrAndReadAreAnswered) {
    MockShare share;
    ServeReads(share);
    HardenedServices services;
    RpcClient client = services.Connect();
    const RpcReply attributes = services.Ask(client, NfsService::Getattr(5));
    EXPECT_EQ(attributes.results.substr(0, 12), Word(0) + Word(1) + Word(0644));
    EXPECT_EQ(attributes.results.size(), 88u);
    for (const uint32_t count : {0u, 1u, 4096u, 65537u, 262144u})
        EXPECT_TRUE(services.Ask(client, Read(6, 77, count)).results == ReadResults(77, count))
            << count;
}

TEST_IN_CHILD(EventCalls, WhatThereIsNotIsRefusedAsEver) {
    HardenedServices services;
    RpcClient client = services.Connect();
    EXPECT_EQ(services.Ask(client, Call(100021, 4, 0)).accept, uint32_t{PROG_UNAVAIL});
    const RpcReply old = services.Ask(client, Call(kNfs, 2, 0));
    EXPECT_EQ(old.accept, uint32_t{PROG_MISMATCH});
    EXPECT_EQ(old.low, 3u);
    EXPECT_EQ(old.high, 3u);
    for (int i = 0; i < 40; ++i)
        EXPECT_EQ(services.Ask(client, Call(kNfs, 3, 22)).accept, uint32_t{PROC_UNAVAIL});
    EXPECT_EQ(services.Ask(client, Call(kMount, 3, 6)).accept, uint32_t{PROC_UNAVAIL});
    const RpcReply mount = services.Ask(client, Call(kMount, 1, 1));
    EXPECT_EQ(mount.accept, uint32_t{PROG_MISMATCH});
    EXPECT_TRUE(services.Answers(client));
    EXPECT_EQ(gCallInfoPool.Free(), gCallInfoPool.Total());
}

TEST_IN_CHILD(EventCalls, ArgumentsThatDoNotDecodeAreGarbage) {
    HardenedServices services;
    RpcClient client = services.Connect();
    RpcCall call = NfsService::Getattr(9);
    call.arguments = Word(16) + Word(7);  // a handle that breaks off
    EXPECT_EQ(services.Ask(client, call).accept, uint32_t{GARBAGE_ARGS});
    call = Call(kMount, 3, 1);
    call.arguments = Word(2000);
    EXPECT_EQ(services.Ask(client, call).accept, uint32_t{GARBAGE_ARGS});
    EXPECT_TRUE(services.Answers(client));
    EXPECT_EQ(gCallInfoPool.Free(), gCallInfoPool.Total());
}

TEST_IN_CHILD(EventCalls, CredentialsAreRefusedAsEver) {
    HardenedServices services;
    RpcClient client = services.Connect();
    const auto why = [&](const RpcCall& call) {
        const RpcReply reply = services.Ask(client, call);
        EXPECT_EQ(reply.status, uint32_t{MSG_DENIED});
        EXPECT_EQ(reply.reject, uint32_t{AUTH_ERROR});
        return reply.why;
    };
    EXPECT_EQ(why(Call(kNfs, 3, 1)), uint32_t{AUTH_TOOWEAK});
    RpcCall call = NfsService::Getattr(9);
    call.credential = call.credential.substr(0, 9);  // breaks off
    EXPECT_EQ(why(call), uint32_t{AUTH_BADCRED});
    EXPECT_TRUE(services.Answers(client));
}

TEST_IN_CHILD(EventCalls, OtherFlavoursAreRejectedAndTheConnectionGoesOn) {
    HardenedServices services;
    RpcClient client = services.Connect();
    constexpr int kRpcsecGss = 6;
    // RPCSEC_GSS_INIT, as a client begins it (RFC 2203 section 5.2.2).
    const std::string init = Word(1) + Word(1) + Word(0) + Word(1) + Word(0);
    for (const int flavor : {kRpcsecGss, int{AUTH_SHORT}, int{AUTH_DES}, 4711, -1}) {
        for (const std::string& credential : {init, std::string()}) {
            RpcCall call = Call(kNfs, 3, 0, 77);
            call.flavor = flavor;
            call.credential = credential;
            const RpcReply reply = services.Ask(client, call);
            EXPECT_EQ(reply.status, uint32_t{MSG_DENIED});
            EXPECT_EQ(reply.reject, uint32_t{AUTH_ERROR});
            EXPECT_EQ(reply.why, uint32_t{AUTH_REJECTEDCRED}) << flavor;
            EXPECT_TRUE(services.Answers(client));
        }
    }
}

TEST_IN_CHILD(EventCalls, ARecordThatIsNoCallEndsItsConnectionOnly) {
    HardenedServices services;
    RpcClient other = services.Connect();
    const std::string whole = Call(kNfs, 3, 0).Bytes();
    std::string reply = whole, version = whole, credential = whole;
    reply[11] = 1;                           // REPLY
    version[15] = 3;                         // of RPC
    credential.replace(32, 4, Word(0xff0));  // of more bytes than may be
    const std::string cutOff = Word(0x80000000u | 20) + whole.substr(4, 20);
    const uint64_t before = services.Ended(EndReason::kNotACall);
    uint64_t count = 0;
    for (const std::string& bytes :
         {Word(0x80000000u), Word(0x80000004u) + "oops", reply, version, credential, cutOff}) {
        RpcClient client = services.Connect();
        client.Send(bytes);
        EXPECT_TRUE(client.AtEnd());
        EXPECT_EQ(services.Ended(EndReason::kNotACall), before + ++count);
        EXPECT_TRUE(services.Answers(other));
    }
}

// MOUNT calls have their answers when the next record is looked at, however busy the machine is.
TEST_IN_CHILD(EventCalls, AreAnsweredBeforeARecordThatIsNoneEndsTheConnection) {
    HardenedServices services;
    for (int round = 0; round < 20; ++round) {
        RpcClient client = services.Connect();
        client.Send(Call(kMount, 3, 0, 1).Bytes() + Call(kMount, 3, 0, 2).Bytes() +
                    Word(0x80000004u) + "oops");
        EXPECT_EQ(Replies(client, 2).size(), 2u);
        EXPECT_TRUE(client.AtEnd());
    }
}

TEST_IN_CHILD(EventCalls, OfOneSegmentWithTheEndBehindThemAreAnswered) {
    HardenedServices services;
    for (int round = 0; round < 20; ++round) {
        RpcClient client = services.Connect();
        client.Send(Call(kMount, 3, 0, 1).Bytes() + Call(kMount, 3, 0, 2).Bytes());
        ASSERT_EQ(shutdown(client.fd(), SHUT_WR), 0);
        EXPECT_EQ(Replies(client, 2).size(), 2u);
        EXPECT_TRUE(client.AtEnd());
    }
}

TEST_IN_CHILD(EventCalls, AreFoundInAnyPieces) {
    MockShare share;
    HardenedServices services;
    RpcClient client = services.Connect();
    for (const char byte : NfsService::Getattr(3).Bytes()) client.Send(std::string(1, byte));
    EXPECT_EQ(client.Expect().xid, 3u);
    const std::string body = NfsService::Getattr(4).Bytes().substr(4);
    std::string fragments;
    for (size_t i = 0; i < body.size(); ++i)
        fragments += Word((i + 1 == body.size() ? 0x80000000u : 0) | 1) + body[i];
    client.Send(fragments);
    EXPECT_EQ(client.Expect().xid, 4u);
}

TEST_IN_CHILD(EventCalls, ManyAtOnceOnManyConnectionsAreAllAnswered) {
    MockShare share;
    ServeReads(share);
    HardenedServices services;
    std::vector<std::thread> clients;
    for (int i = 0; i < 6; ++i) {
        clients.emplace_back([i] {
            RpcClient client = HardenedServices::Connect(i % 2 == 0 ? AF_INET : AF_INET6);
            for (uint32_t round = 0; round < 4; ++round) {
                std::string calls;
                for (uint32_t xid = 0; xid < 50; ++xid) {
                    const RpcCall call = xid % 3 == 0   ? NfsService::Null(xid)
                                         : xid % 3 == 1 ? NfsService::Getattr(xid)
                                                        : Read(xid, xid, 500 * xid);
                    calls += call.Bytes();
                }
                client.Send(calls);
                for (const auto& [xid, reply] : Replies(client, 50)) {
                    EXPECT_TRUE(IsSuccess(reply));
                    if (xid % 3 != 2) continue;
                    EXPECT_TRUE(reply.results == ReadResults(xid, 500 * xid));
                }
            }
        });
    }
    for (std::thread& client : clients) client.join();
}

TEST_IN_CHILD(EventCalls, OneThatBlocksStopsNeitherOthersNorLaterOnesOfItsConnection) {
    MockShare share;
    Gate gate(share);
    HardenedServices services;
    RpcClient client = services.Connect();
    client.Send(Gate::Held(1));
    gate.WaitFor(1);
    for (int i = 0; i < 10; ++i) EXPECT_TRUE(services.Answers());
    for (int i = 0; i < 10; ++i) EXPECT_TRUE(services.Answers(client));
    gate.Open();
    EXPECT_EQ(client.Expect().xid, 1u);
}

// A disk that does not answer: calls of one kind hold up one receiving thread at most.
TEST_IN_CHILD(EventCalls, OfOneKindThatBlockGoToTheHandlerThreadsButForTheFirst) {
    MockShare share;
    Gate gate(share);
    HardenedServices services;
    std::vector<RpcClient> clients;
    for (uint32_t i = 0; i < 4; ++i) {
        clients.push_back(services.Connect());
        clients.back().Send(Gate::Held(i));
        gate.WaitFor(i + 1);
        EXPECT_TRUE(services.Answers());
    }
    const std::vector<std::string> threads = gate.Threads();
    EXPECT_EQ(std::count_if(threads.begin(), threads.end(),
                            [](const std::string& name) { return name.starts_with("NFS"); }),
              1);
    gate.Open();
    for (uint32_t i = 0; i < 4; ++i) EXPECT_EQ(clients[i].Expect().xid, i);
}

TEST_IN_CHILD(EventCalls, OfMoreKindsThanThereAreThreadsMayBlock) {
    MockShare share;
    Gate gate(share);
    // Ten threads may receive; one of them does whatever hangs, and some handlers are left.
    HardenedServices services("nMaxNFSRPCThread = 8\n");
    std::vector<RpcClient> clients;
    for (uint32_t i = 1; i <= 12; ++i) {
        clients.push_back(services.Connect());
        clients.back().Send(Gate::Held(i, i));
        gate.WaitFor(i);
        EXPECT_TRUE(services.Answers());
    }
    gate.Open();
    for (uint32_t i = 1; i <= 12; ++i) EXPECT_EQ(clients[i - 1].Expect().xid, i);
}

TEST_IN_CHILD(EventCalls, OfOneConnectionLeaveCallRecordsForOthers) {
    MockShare share;
    Gate gate(share);
    HardenedServices services("nMaxNFSRPCThread = 4\n");
    ASSERT_EQ(gCallInfoPool.Total(), 20u);
    RpcClient greedy = services.Connect();
    std::string calls;
    for (uint32_t xid = 1; xid <= 60; ++xid) calls += Gate::Held(xid).Bytes();
    greedy.Send(calls);
    gate.WaitFor(1);
    for (int i = 0; i < 20; ++i) {
        EXPECT_TRUE(services.AnswersAnew());
        EXPECT_GE(gCallInfoPool.Free(), 8u) << "but for the one that just answered";
    }
    gate.Open();
    EXPECT_EQ(Replies(greedy, 60).size(), 60u);
}

// Nobody is forgotten who has waited for a call record, whichever thread gives one back.
TEST_IN_CHILD(EventCalls, ThatWaitForACallRecordGetOne) {
    for (int round = 0; round < 3; ++round) {
        MockShare share;
        Gate gate(share);
        if (round == 0) {
            // The services are one process's for good.
            static HardenedServices* const services =
                new HardenedServices("nMaxNFSRPCThread = 1\n");
            (void)services;
        }
        std::vector<RpcClient> clients;
        for (uint32_t i = 0; i < 30; ++i) {
            clients.push_back(HardenedServices::Connect());
            clients.back().Send(Gate::Held(i));
        }
        Eventually([] { return gCallInfoPool.Free() == 0; });
        gate.Open();
        for (uint32_t i = 0; i < 30; ++i) EXPECT_EQ(clients[i].Expect().xid, i);
        HardenedServices::WaitForCalls();
    }
}

// A thread that was held up and lost its place gives its call's record back like any other.
TEST_IN_CHILD(EventCalls, GetTheCallRecordOfOneThatHeldItsThreadUp) {
    MockShare share;
    // Each caller has a gate of its own.
    XoEvent gates[3] = {XoEvent(true), XoEvent(true), XoEvent(true)};
    gates[0].set();
    std::atomic<unsigned> waiting{0};
    share.onStat = [&](OxelCtxt* ctxt) {
        ++waiting;
        gates[ctxt->id.uid].wait();
    };
    HardenedServices services("nMaxNFSRPCThread = 1\n");
    EXPECT_TRUE(services.Answers());
    std::vector<RpcClient> clients;
    const auto call = [&](uint32_t uid) {
        clients.push_back(services.Connect());
        RpcCall getattr = NfsService::Getattr(1);
        clients.back().Send(getattr.WithUnix(uid));
    };
    call(1);  // taken for a quick one
    Eventually([&] { return waiting == 1; });
    call(2);  // the only handler thread's
    Eventually([&] { return waiting == 2; });
    for (int i = 0; i < 3; ++i) call(2);  // wait for that thread
    Eventually([] { return gCallInfoPool.Free() == 0; });
    RpcClient waits = services.Connect();
    waits.Send(oxel::test::GetattrOf(20, 0, 5));
    // Makes it likely, no more, that it waits for a record by now.
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    gates[1].set();
    EXPECT_EQ(waits.Expect().xid, 5u);
    gates[2].set();
    for (RpcClient& client : clients) EXPECT_EQ(client.Expect().xid, 1u);
}

TEST_IN_CHILD(EventCalls, AClientThatDoesNotReadIsPausedAndServedOnWhenItReads) {
    MockShare share;
    ServeReads(share);
    HardenedServices services;
    constexpr uint32_t kCalls = 80, kBytes = 200001;
    RpcClient client = services.Connect(AF_INET, 4096);
    std::string calls;
    for (uint32_t xid = 1; xid <= kCalls; ++xid) calls += Read(xid, xid, kBytes).Bytes();
    client.Send(calls);
    Eventually([] { return ReplyQueue::BytesBlocked() > 0; });
    EXPECT_TRUE(services.Answers());
    for (const auto& [xid, reply] : Replies(client, kCalls))
        EXPECT_TRUE(reply.results == ReadResults(xid, kBytes)) << xid;
    EXPECT_TRUE(services.Answers(client));
    Eventually([] { return ReplyQueue::BytesBlocked() == 0; });
}

TEST_IN_CHILD(EventCalls, AClientThatDoesNotReadTakesABoundedPartOfTheMemory) {
    MockShare share;
    ServeReads(share);
    HardenedServices services;
    constexpr uint32_t kCalls = 2000, kBytes = 200000;
    RpcClient client = services.Connect(AF_INET, 4096);
    std::string calls;
    for (uint32_t xid = 1; xid <= kCalls; ++xid) calls += Read(xid, xid, kBytes).Bytes();
    client.Send(calls);
    Eventually([] { return ReplyQueue::BytesBlocked() > 0; });
    EXPECT_TRUE(services.Answers());
    // No more than the calls that were under way when the socket was full.
    EXPECT_LE(ReplyQueue::BytesBlocked(), uint64_t{kBytes + 200} * (gCallInfoPool.Total() + 2));
    client.Reset();
    Eventually([] { return Connection::Count() == 0; });
    EXPECT_EQ(ReplyQueue::BytesBlocked(), 0u);
}

TEST_IN_CHILD(EventCalls, WhoseHandlersThrowAreAnsweredAndServingGoesOn) {
    MockShare share;
    HardenedServices services;
    LogCapture log(0);
    RpcClient client = services.Connect();
    const std::vector<std::function<void(OxelCtxt*)>> throwing = {
        [](OxelCtxt*) { throw std::bad_alloc(); },
        [](OxelCtxt*) { throw std::runtime_error("of the back end"); },
        [](OxelCtxt*) { throw 42; },
    };
    for (const auto& onStat : throwing) {
        services.WaitForCalls();
        share.onStat = onStat;
        for (uint32_t xid = 1; xid <= 5; ++xid) {
            const RpcReply reply = services.Ask(client, NfsService::Getattr(xid));
            EXPECT_EQ(reply.status, uint32_t{MSG_ACCEPTED});
            EXPECT_EQ(reply.accept, uint32_t{SYSTEM_ERR});
        }
        EXPECT_TRUE(services.Answers(client));
    }
    services.WaitForCalls();
    share.onStat = nullptr;
    EXPECT_TRUE(IsSuccess(services.Ask(client, NfsService::Getattr(99))));
    EXPECT_EQ(log.Count(-1, "Error: [new] failed."), 5u);
    EXPECT_EQ(log.Count(-1, "Error: unknown exception caught."), 10u);
}

TEST_IN_CHILD(EventCalls, OfClientsThatHaveGoneAreFinishedForNobody) {
    MockShare share;
    Gate gate(share);
    HardenedServices services;
    // With the beginning of another record behind the calls.
    for (uint32_t i = 0; i < 6; ++i) {
        RpcClient client = services.Connect();
        client.Send(Gate::Held(1).Bytes() + Gate::Held(2).Bytes() +
                    oxel::test::GetattrOf(50 + i, 0, 3).Bytes() +
                    Gate::Held(4).Bytes().substr(0, 50));
        EXPECT_EQ(client.Expect().xid, 3u);
        if (i % 2 == 0)
            client.Reset();
        else
            client.Close();
    }
    EXPECT_TRUE(services.AnswersAnew());
    gate.Open();
    // Meanwhile others are served, with buffers of the same pool.
    for (int i = 0; i < 20; ++i) {
        RpcClient other = services.Connect();
        other.Send(NfsService::Null(1).Bytes().substr(0, 20));
        EXPECT_TRUE(services.Answers());
    }
    Eventually([] { return Connection::Count() == 0; });
}

TEST_IN_CHILD(EventCalls, OfClientsThatComeGoAndResetLeaveNothingBehind) {
    MockShare share;
    HardenedServices services;
    for (int round = 0; round < 30; ++round) {
        RpcClient orderly = services.Connect(), rude = services.Connect(AF_INET6),
                  hasty = services.Connect(), half = services.Connect();
        rude.Send(NfsService::Getattr(1));
        rude.Reset();
        hasty.Reset();
        half.Send(NfsService::Getattr(1).Bytes().substr(0, 30));
        EXPECT_TRUE(services.Answers(orderly));
    }
    Eventually([] { return Connection::Count() == 0; });
    EXPECT_EQ(gCallInfoPool.Free(), gCallInfoPool.Total());
}

TEST_IN_CHILD(EventCalls, AreAnsweredInSingleThreadedModeToo) {
    MockShare share;
    ServeReads(share);
    HardenedServices services("nDisableMultiThreadRPC = 1\n");
    RpcClient client = services.Connect();
    EXPECT_TRUE(services.Answers(client));
    EXPECT_TRUE(IsSuccess(services.Ask(client, NfsService::Getattr(2))));
    EXPECT_TRUE(services.Ask(client, Read(3, 0, 100000)).results == ReadResults(0, 100000));
}

TEST_IN_CHILD(EventCalls, UnderWayWhenTheServicesStopAreEnded) {
    MockShare share;
    Gate gate(share);
    HardenedServices services("nMaxNFSRPCThread = 2\n");
    std::vector<RpcClient> clients;
    for (uint32_t i = 0; i < 4; ++i) {
        clients.push_back(services.Connect());
        clients.back().Send(Gate::Held(i));
    }
    gate.WaitFor(2);
    RequestStop();
    gate.Open();
    EXPECT_TRUE(WaitForReceiveLoop(60000));
    HardenedServices::WaitForCalls();
}

TEST_IN_CHILD(EventCalls, AnsweredOrNotTheServicesStopAtOnceInTheMiddleOfThem) {
    MockShare share;
    HardenedServices services;
    std::atomic<bool> over{false};
    std::vector<std::thread> clients;
    for (int i = 0; i < 3; ++i) {
        clients.emplace_back([&] {
            RpcClient client = HardenedServices::Connect();
            for (uint32_t xid = 0; !over; ++xid) {
                std::string bytes = NfsService::Getattr(xid).Bytes();
                if (send(client.fd(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT) < 0)
                    std::this_thread::yield();
                (void)recv(client.fd(), bytes.data(), bytes.size(), MSG_DONTWAIT);
            }
        });
    }
    EXPECT_TRUE(services.Answers());
    services.Stop();
    over = true;
    for (std::thread& client : clients) client.join();
}

TEST_IN_CHILD(EventCalls, EndWithAListenerThatAFailedStartHasTaken) {
    oxel::test::PrivateRoot root(
        "[Oxel]\nnHardened = 1\nnNfs3Port = 0\nnAllowOtherNFSServers = 1\n");
    signal(SIGPIPE, SIG_IGN);
    // Somebody else in this process has MOUNT 3 already, on a socket of the same kind.
    CLuSocket other;
    ASSERT_FALSE(other.Create(AF_INET6));
    ASSERT_FALSE(other.Bind(CLuIPAddr()));
    ASSERT_FALSE(other.Listen(1));
    SVCXPRT* transport = svc_tli_create(other.GetDescriptor(), nullptr, nullptr, 0, 0);
    ASSERT_NE(transport, nullptr);
    ASSERT_TRUE(svc_reg(transport, kMount, 3, NfsDispatcher(), nullptr));
    LogCapture log(1);
    std::string failedStep;
    EXPECT_TRUE(StartNetworkServices(failedStep));
    EXPECT_TRUE(log.Has(-1, "Failed to Start mount service. Will exit.")) << log.Dump();
    const std::vector<oxel::test::LogLine> errors = log.AtLevel(-1);
    HardenedServices::Stop();
    EXPECT_EQ(log.AtLevel(-1), errors) << log.Dump();
}

TEST_IN_CHILD(EventCalls, AreServedOnDescriptorsFrom1024On) {
    rlimit limit;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    if (limit.rlim_max < 4096) GTEST_SKIP() << "this machine allows too few descriptors";
    limit.rlim_cur = 4096;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    HardenedServices services;
    RpcClient first = services.Connect();
    EXPECT_TRUE(services.Answers(first));
    std::vector<RpcClient> clients;
    for (int i = 0; i < 1200; ++i) clients.push_back(services.Connect());
    for (RpcClient& client : clients) client.Send(NfsService::Null(1));
    for (RpcClient& client : clients) EXPECT_EQ(client.Expect().xid, 1u);
    EXPECT_EQ(Connection::Count(), 1201u);
    EXPECT_TRUE(services.Answers(first));
    clients.clear();
    Eventually([] { return Connection::Count() == 1; });
}
