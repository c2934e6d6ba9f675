// SPDX-License-Identifier: Apache-2.0
//
// The receive thread's part of a call: what is refused and how, what becomes of the record, and
// that a call without a free record waits.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

#include "base/perf_counter.h"
#include "nfs3/nfs3proc.h"
#include "nfs_service.h"

using oxel::test::Eventually;
using oxel::test::IsOpen;
using oxel::test::LogCapture;
using oxel::test::LogLine;
using oxel::test::MockShare;
using oxel::test::NfsService;
using oxel::test::RpcCall;
using oxel::test::RpcReply;
using oxel::test::ServedConnection;
using oxel::test::Word;

namespace {

const std::string kDispatcher = "void Nfs3Dispatcher(svc_req*, SVCXPRT*)";

RpcCall Procedure(uint32_t number, uint32_t xid = 1) {
    RpcCall call;
    call.xid = xid;
    call.procedure = number;
    return call;
}

}  // namespace

TEST_IN_CHILD(Dispatcher, NullWithoutCredentialIsAnswered) {
    NfsService service;
    LogCapture log;
    const RpcReply reply = service.Ask(service.Null(42));
    EXPECT_EQ(reply.status, uint32_t{MSG_ACCEPTED});
    EXPECT_EQ(reply.accept, uint32_t{SUCCESS});
    EXPECT_EQ(reply.results, "");
    service.WaitForRecords();
    EXPECT_TRUE(log.AtLevel(-1).empty()) << log.Dump();
}

TEST_IN_CHILD(Dispatcher, NullWithoutCredentialIsAnsweredInSingleThreadedMode) {
    NfsService service;
    gMultiThreadRPCHandling = false;
    for (uint32_t xid = 1; xid < 5; ++xid)
        EXPECT_EQ(service.Ask(service.Null(xid)).accept, uint32_t{SUCCESS});
    EXPECT_EQ(gCallInfoPool.Free(), gCallInfoPool.Total());
}

TEST_IN_CHILD(Dispatcher, EveryOtherProcedureWithoutAuthUnixIsTooWeak) {
    NfsService service;
    for (uint32_t number = 1; number < kNfs3ProcedureCount; ++number) {
        if (Nfsv3Handlers[number].handler == nullptr) continue;
        LogCapture log;
        const RpcReply reply = service.Ask(Procedure(number, 100 + number));
        EXPECT_EQ(reply.status, uint32_t{MSG_DENIED});
        EXPECT_EQ(reply.reject, uint32_t{AUTH_ERROR});
        EXPECT_EQ(reply.why, uint32_t{AUTH_TOOWEAK});
        EXPECT_EQ(log.Lines(),
                  (std::vector<LogLine>{{-1, kDispatcher,
                                         std::string("Error: Auth_NULL not accepted for proc [") +
                                             Nfsv3Handlers[number].name + "]."}}))
            << log.Dump();
        EXPECT_EQ(gCallInfoPool.Free(), gCallInfoPool.Total()) << "the record is back";
    }
    EXPECT_TRUE(service.Answers());
    service.WaitForRecords();
    service.connection.End();
    EXPECT_EQ(Connection::Count(), 0u) << "no refused call holds the connection";
}

TEST_IN_CHILD(Dispatcher, GetattrWithoutCredentialIsToldByName) {
    NfsService service;
    LogCapture log;
    service.Ask(Procedure(1));
    EXPECT_TRUE(log.Has(-1, "Error: Auth_NULL not accepted for proc [GETATTR3].")) << log.Dump();
}

TEST_IN_CHILD(Dispatcher, AuthShortIsNotAuthUnix) {
    NfsService service;
    RpcCall call = Procedure(1);
    call.flavor = AUTH_SHORT;
    const RpcReply reply = service.Ask(call);
    EXPECT_EQ(reply.status, uint32_t{MSG_DENIED});
    EXPECT_EQ(gCallInfoPool.Free(), gCallInfoPool.Total());
}

TEST_IN_CHILD(Dispatcher, UnknownProcedureIsUnavailableAndKeepsItsRecord) {
    NfsService service;
    LogCapture log;
    EXPECT_EQ(service.Ask(Procedure(22, 1)).accept, uint32_t{PROC_UNAVAIL});
    EXPECT_EQ(gCallInfoPool.Free(), 4u);
    EXPECT_EQ(service.Ask(Procedure(0xffffffff, 2)).accept, uint32_t{PROC_UNAVAIL});
    EXPECT_EQ(gCallInfoPool.Free(), 3u);
    EXPECT_EQ(gCallInfoPool.Total(), 5u);
    EXPECT_EQ(log.Lines(), (std::vector<LogLine>{
                               {-1, kDispatcher, "Error: unknown procedure 22"},
                               {-1, kDispatcher, "Error: unknown procedure -1"},
                           }))
        << log.Dump();
    EXPECT_TRUE(service.Answers());
    service.connection.End();
    Eventually([] { return Connection::Count() == 0; });  // the client is not held
}

TEST_IN_CHILD(Dispatcher, UnknownProcedureGivesItsRecordBackWhenHardened) {
    NfsService service;
    gHardened = true;
    for (uint32_t xid = 1; xid <= 30; ++xid)
        EXPECT_EQ(service.Ask(Procedure(22, xid)).accept, uint32_t{PROC_UNAVAIL});
    EXPECT_EQ(gCallInfoPool.Free(), gCallInfoPool.Total());
    service.connection.End();
    EXPECT_EQ(Connection::Count(), 0u);
}

TEST_IN_CHILD(Dispatcher, UnknownProcedureInSingleThreadedModeKeepsItsRecordToo) {
    NfsService service;
    gMultiThreadRPCHandling = false;
    EXPECT_EQ(service.Ask(Procedure(22)).accept, uint32_t{PROC_UNAVAIL});
    EXPECT_EQ(gCallInfoPool.Free(), 4u);
    EXPECT_TRUE(service.Answers());
}

TEST_IN_CHILD(Dispatcher, ArgumentsThatDoNotDecodeAreGarbageAndTheRecordIsBack) {
    NfsService service;
    for (const bool multi : {true, false}) {
        gMultiThreadRPCHandling = multi;
        LogCapture log;
        RpcCall call = service.Getattr(9);
        call.arguments = Word(16) + Word(7);  // a handle that breaks off
        const RpcReply reply = service.Ask(call);
        EXPECT_EQ(reply.status, uint32_t{MSG_ACCEPTED});
        EXPECT_EQ(reply.accept, uint32_t{GARBAGE_ARGS});
        EXPECT_EQ(
            log.Lines(),
            (std::vector<LogLine>{{-1, kDispatcher, "Error: Args Decode Failed. procNum [1]"}}))
            << log.Dump();
        EXPECT_EQ(gCallInfoPool.Free(), gCallInfoPool.Total());
        EXPECT_TRUE(service.Answers()) << "the next record of the connection is read as ever";
        service.WaitForRecords();
    }
    service.connection.End();
    EXPECT_EQ(Connection::Count(), 0u);
}

TEST_IN_CHILD(Dispatcher, WhatWasDecodedBeforeTheFailureIsFreed) {
    // LOOKUP's name is allocated, and then its fill bytes are missing. The address sanitizer's
    // leak check sees it if it stays.
    NfsService service;
    RpcCall call = service.Getattr(1);
    call.procedure = 3;
    call.arguments = MockShare::Handle() + Word(5) + "abcde";
    EXPECT_EQ(service.Ask(call).accept, uint32_t{GARBAGE_ARGS});
    oxel::test::CheckLeaks();
}

TEST_IN_CHILD(Dispatcher, WithTheExitFlagSetACallIsDroppedSilently) {
    NfsService service;
    LogCapture log;
    OxelServiceGlobals::SetExitProcess(1);
    service.Dispatch(service.Null(1));
    EXPECT_EQ(log.Lines(),
              (std::vector<LogLine>{
                  {1, kDispatcher,
                   "OxelServiceGlobals::exitProcess set. WIll not process any more RPCs."}}))
        << log.Dump();
    EXPECT_EQ(gCallInfoPool.Free(), gCallInfoPool.Total());
    OxelServiceGlobals::SetExitProcess(0);
    EXPECT_EQ(service.Ask(service.Null(2)).xid, 2u) << "the first reply is to the second call";
}

TEST_IN_CHILD(Dispatcher, EndWaitsForTheCallsThatHaveBegun) {
    NfsService service;
    MockShare share;
    XoEvent entered(true), leave(true);
    share.onStat = [&](OxelCtxt*) {
        entered.set();
        leave.wait();
    };
    EXPECT_TRUE(WaitForCallsInFlight(0));
    service.Dispatch(service.Getattr(1));
    entered.wait();
    EXPECT_FALSE(WaitForCallsInFlight(0));
    leave.set();
    EXPECT_TRUE(WaitForCallsInFlight(60000));
    EXPECT_FALSE(service.connection.client.Silent()) << "the reply is out by then";
}

TEST_IN_CHILD(Dispatcher, EndDoesNotWaitForRecordsThatAreKeptForGood) {
    NfsService service;
    EXPECT_EQ(service.Ask(Procedure(22, 1)).accept, uint32_t{PROC_UNAVAIL});
    EXPECT_EQ(gCallInfoPool.Free(), 4u);
    EXPECT_TRUE(WaitForCallsInFlight(0));
}

TEST_IN_CHILD(Dispatcher, TransportWithoutAGuardIsNotServed) {
    // It failed to be made when its client reset; the library finds that out by itself.
    NfsService service;
    auto [client, server] = oxel::test::TcpPair();
    SVCXPRT* transport = svc_fd_create(server.Get(), 0, 0);
    ASSERT_NE(transport, nullptr);
    const int fd = server.Release();
    oxel::test::RpcClient rpc(std::move(client));
    rpc.Send(service.Null(1));
    svc_getreq_common(fd);
    EXPECT_EQ(gCallInfoPool.Free(), gCallInfoPool.Total());
    service.WaitForRecords();
    EXPECT_TRUE(rpc.Silent());
}

TEST_IN_CHILD(Dispatcher, TransportThatCannotBeCopiedIsASystemError) {
    NfsService service;
    LogCapture log;
    // Without its connection record a transport gives no copy; the reply is written by hand then.
    service.connection.client.Send(service.Null(3));
    SVCXPRT* transport = service.connection.transport;
    static void* record = transport->xp_p1;
    static const TransportOperations* operations = transport->xp_ops;
    static TransportOperations withRecord = *operations;
    withRecord.xp_reply = [](SVCXPRT* broken, rpc_msg* message) -> bool_t {
        broken->xp_p1 = record;
        broken->xp_ops = operations;
        return SVC_REPLY(broken, message);
    };
    withRecord.xp_recv = [](SVCXPRT* whole, rpc_msg* message) -> bool_t {
        const bool_t received = operations->xp_recv(whole, message);
        whole->xp_p1 = nullptr;
        return received;
    };
    transport->xp_ops = &withRecord;
    service.connection.Serve();
    EXPECT_EQ(service.connection.client.Expect().accept, uint32_t{SYSTEM_ERR});
    EXPECT_EQ(
        log.Lines(),
        (std::vector<LogLine>{{-1, kDispatcher, "Error: Fail to duplicate SVCXPRT structure"}}))
        << log.Dump();
    EXPECT_EQ(gCallInfoPool.Free(), gCallInfoPool.Total());
    EXPECT_TRUE(service.Answers());
}

TEST_IN_CHILD(Dispatcher, ExceptionOnTheReceiveThreadKeepsTheRecordUnlessHardened) {
    NfsService service;
    // A record whose WRITE area cannot grow: no memory for a transfer size of 2^62 bytes.
    const uint64_t before = NFS3_MAXBUF_SIZE;
    for (const bool hardened : {false, true}) {
        gHardened = hardened;
        LogCapture log;
        const size_t free = gCallInfoPool.Free();
        NFS3_MAXBUF_SIZE = uint64_t{1} << 62;
        service.Dispatch(service.Null(1));
        NFS3_MAXBUF_SIZE = before;
        EXPECT_EQ(log.Lines(), (std::vector<LogLine>{{-1, kDispatcher, "Error: [new] failed."}}))
            << log.Dump();
        EXPECT_EQ(gCallInfoPool.Free(), hardened ? free : free - 1);
    }
    EXPECT_TRUE(service.Answers());
    service.connection.End();
    Eventually([] { return Connection::Count() == 0; });
}

TEST_IN_CHILD(Dispatcher, WithoutHandlerThreadsMemoryHasFailed) {
    oxel::test::PrivateRoot root;
    gCallInfoPool.Init(2);  // and no pool of threads
    gHardened = true;
    ServedConnection connection;
    ASSERT_TRUE(svc_reg(connection.transport, 100003, 3, NfsDispatcher(), nullptr));
    LogCapture log;
    connection.client.Send(NfsService::Null(1));
    connection.Serve();
    EXPECT_EQ(log.Lines(), (std::vector<LogLine>{{-1, kDispatcher, "Error: [new] failed."}}))
        << log.Dump();
    EXPECT_EQ(gCallInfoPool.Free(), 2u);
}

TEST_IN_CHILD(Dispatcher, CallBeyondTheLastRecordWaitsUntilOneIsBack) {
    NfsService service(1);
    MockShare share;
    XoEvent entered(true), leave(true);
    share.onStat = [&](OxelCtxt*) {
        entered.set();
        leave.wait();
    };
    std::string calls;
    for (uint32_t xid = 1; xid <= 6; ++xid) calls += service.Getattr(xid).Bytes();
    service.connection.client.Send(calls);
    std::atomic<bool> allRead{false};
    std::thread receiver([&] {
        service.connection.Serve();
        allRead = true;
    });
    entered.wait();
    Eventually([] { return gCallInfoPool.Free() == 0; });
    EXPECT_FALSE(allRead) << "the sixth call has no record";
    EXPECT_EQ(gCallInfoPool.Total(), 5u);
    leave.set();
    receiver.join();
    for (int i = 0; i < 6; ++i) EXPECT_EQ(service.connection.client.Expect().accept, 0u);
    service.WaitForRecords();
    EXPECT_EQ(gCallInfoPool.Total(), 5u) << "waiting makes no records";
}

TEST_IN_CHILD(Dispatcher, IdentityIsTheCredentialsAndTheConnections) {
    NfsService service;
    MockShare share;
    IdInfo seen;
    std::string machine;
    share.onStat = [&](OxelCtxt* ctxt) {
        seen = ctxt->id;
        machine = ctxt->id.machineName;
    };
    RpcCall call = service.Getattr(1);
    call.WithUnix(1234, 5678, "some.machine", {11, 22, 33});
    EXPECT_EQ(service.Ask(call).results.substr(0, 4), Word(0));
    EXPECT_EQ(seen.uid, 1234u);
    EXPECT_EQ(seen.gid, 5678u);
    EXPECT_TRUE(seen.groups.empty()) << "the groups that a client names are not taken";
    EXPECT_EQ(machine, "some.machine");
    EXPECT_EQ(seen.clientAddress.GetAddressString(), "127.0.0.1");
    sockaddr_in own{};
    socklen_t length = sizeof own;
    ASSERT_EQ(
        getsockname(service.connection.client.fd(), reinterpret_cast<sockaddr*>(&own), &length), 0);
    EXPECT_EQ(seen.clientAddress.GetPort(), ntohs(own.sin_port));
}

TEST_IN_CHILD(Dispatcher, MachineNameStaysTheCallsWhileLaterCallsAreRead) {
    NfsService service;
    MockShare share;
    XoEvent leave(true);
    std::vector<std::string> machines;
    share.onStat = [&](OxelCtxt* ctxt) {
        leave.wait();
        machines.emplace_back(ctxt->id.machineName);
    };
    service.Dispatch(service.Getattr(1).WithUnix(0, 0, "first"));
    service.Dispatch(service.Getattr(2).WithUnix(0, 0, "the.second.with.a.longer.name"));
    leave.set();
    service.connection.client.Expect();
    service.connection.client.Expect();
    EXPECT_EQ(machines, (std::vector<std::string>{"first", "the.second.with.a.longer.name"}));
}

TEST_IN_CHILD(Dispatcher, NullAfterAnotherCallDoesNotInheritItsCaller) {
    NfsService service;
    MockShare share;
    service.Ask(service.Getattr(1).WithUnix(1234, 5678, "machine"));
    service.WaitForRecords();
    service.Ask(service.Null(2));
    service.WaitForRecords();
    // Records are used in turn: the second call's is one of these.
    for (size_t i = 0; i < gCallInfoPool.Total(); ++i) {
        CallInfo3* record = gCallInfoPool.Pop();
        EXPECT_EQ(record->transport, nullptr);
        EXPECT_EQ(record->row, nullptr);
        EXPECT_EQ(record->exportPtr, nullptr);
        if (i == gCallInfoPool.Total() - 1) {
            EXPECT_EQ(record->identity.uid, 0u);
            EXPECT_EQ(record->identity.machineName, nullptr);
        }
    }
}

TEST_IN_CHILD(Dispatcher, CallsAreDecodedHereHandledOnOxelAndAnsweredOnOxelSend) {
    NfsService service;
    MockShare share;
    std::string handler;
    share.onStat = [&](OxelCtxt*) { handler = oxel::ThreadName(); };
    service.Ask(service.Getattr(1));
    EXPECT_TRUE(handler.starts_with("OXEL-")) << handler;
}

TEST_IN_CHILD(Dispatcher, SingleThreadedModeNeverFreesTheConnectionsTransport) {
    NfsService service;
    MockShare share;
    gMultiThreadRPCHandling = false;
    std::string handler;
    share.onStat = [&](OxelCtxt*) { handler = oxel::ThreadName(); };
    for (uint32_t xid = 1; xid < 20; ++xid) {
        EXPECT_EQ(service.Ask(service.Getattr(xid)).accept, uint32_t{SUCCESS});
        EXPECT_EQ(gCallInfoPool.Free(), gCallInfoPool.Total());
    }
    EXPECT_EQ(handler, oxel::ThreadName());
    service.connection.End();
    EXPECT_EQ(Connection::Count(), 0u);
    EXPECT_FALSE(IsOpen(service.connection.fd));
}

TEST_IN_CHILD(Dispatcher, RecordsAreUsedOverAndOver) {
    NfsService service(1);
    MockShare share;
    for (uint32_t xid = 1; xid <= 100; ++xid) {
        EXPECT_EQ(service.Ask(service.Getattr(xid)).accept, uint32_t{SUCCESS});
    }
    service.WaitForRecords();
    EXPECT_EQ(gCallInfoPool.Total(), 5u);
    oxel::test::CheckLeaks();
}
