// SPDX-License-Identifier: Apache-2.0
//
// The road of a call behind the receive thread: the handler, the sender with the share's lock, the
// clean-up, and the counters of each stage.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <boost/make_shared.hpp>
#include <functional>
#include <future>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include "base/perf_counter.h"
#include "nfs3/nfs3proc.h"
#include "nfs_service.h"

using oxel::test::Eventually;
using oxel::test::LogCapture;
using oxel::test::LogLine;
using oxel::test::MockShare;
using oxel::test::NfsService;
using oxel::test::RpcCall;
using oxel::test::RpcReply;
using oxel::test::Word;

namespace {

const std::string kHandle = "void* HandleNFSRPC(void*)";
const std::string kSend = "void* SendNFSRPC(void*)";

// What happened to the call under test, in order, with the pool of the thread.
class Steps {
  public:
    void Add(const std::string& step) {
        std::lock_guard<std::mutex> lock(mutex_);
        const std::string thread = oxel::ThreadName();
        steps_.push_back(step + " on " + thread.substr(0, thread.rfind('-')));
    }
    std::vector<std::string> All() {
        std::lock_guard<std::mutex> lock(mutex_);
        return steps_;
    }

  private:
    std::mutex mutex_;
    std::vector<std::string> steps_;
};
Steps& TheSteps() {
    static Steps steps;
    return steps;
}
std::function<bool_t(CallInfo3*)>& Handler() {
    static std::function<bool_t(CallInfo3*)> handler;
    return handler;
}
std::function<void()>& Encoding() {
    static std::function<void()> encoding;
    return encoding;
}

bool_t CodeArguments(XDR* xdrs, void*) {
    if (xdrs->x_op == XDR_FREE) TheSteps().Add("free arguments");
    return TRUE;
}
bool_t CodeResult(XDR* xdrs, void*) {
    TheSteps().Add("encode");
    if (Encoding()) Encoding()();
    uint32_t word = 4711;
    return xdr_u_int(xdrs, &word);
}

// A procedure of the test's own, as a table's row.
const ProcedureRow kRow = {
    [](CallInfo3* call) {
        TheSteps().Add("handle");
        return Handler()(call);
    },
    nullptr,
    reinterpret_cast<xdrproc_t>(CodeArguments),
    reinterpret_cast<xdrproc_t>(CodeResult),
    [](CallInfo3*) -> bool_t {
        TheSteps().Add("release");
        return TRUE;
    },
    "OURS3",
    100,
};

// A record as the dispatcher hands it on, for a call that has come on the service's connection.
CallInfo3* CallOf(NfsService& service, uint32_t xid) {
    EXPECT_EQ(service.Ask(service.Null(xid)).accept, uint32_t{SUCCESS});
    service.WaitForRecords();
    CallInfo3* call = gCallInfoPool.Pop();
    SVCXPRT* transport = service.connection.transport;
    if (gMultiThreadRPCHandling) {
        if (call->transportCopy == nullptr)
            call->transportCopy = DupSVCXPRT(transport);
        else
            EXPECT_TRUE(DupSVCXPRT(transport, call->transportCopy));
        call->transport = call->transportCopy;
    } else {
        call->transport = transport;
    }
    call->procedure = 99;
    call->row = &kRow;
    return call;
}

void Run(CallInfo3* call) {
    if (gMultiThreadRPCHandling)
        EXPECT_TRUE(gWorkerPool.doWork(HandleNFSRPC, call));
    else
        HandleNFSRPC(call);
}

}  // namespace

TEST_IN_CHILD(Handling, HandledAnsweredFreedAndReleasedInThisOrder) {
    NfsService service;
    Handler() = [](CallInfo3*) { return TRUE; };
    Run(CallOf(service, 5));
    const RpcReply reply = service.connection.client.Expect();
    EXPECT_EQ(reply.xid, 5u);
    EXPECT_EQ(reply.results, Word(4711));
    service.WaitForRecords();
    EXPECT_EQ(TheSteps().All(),
              (std::vector<std::string>{"handle on OXEL", "encode on OXEL_SEND",
                                        "free arguments on OXEL_SEND", "release on OXEL_SEND"}));
}

TEST_IN_CHILD(Handling, InSingleThreadedModeEverythingHappensHere) {
    NfsService service;
    gMultiThreadRPCHandling = false;
    Handler() = [](CallInfo3*) { return TRUE; };
    Run(CallOf(service, 5));
    EXPECT_EQ(gCallInfoPool.Free(), gCallInfoPool.Total());
    EXPECT_EQ(service.connection.client.Expect().results, Word(4711));
    EXPECT_EQ(TheSteps().All(),
              (std::vector<std::string>{"handle on main", "encode on main",
                                        "free arguments on main", "release on main"}));
}

TEST_IN_CHILD(Handling, IsToldAtLevel4) {
    NfsService service;
    Handler() = [](CallInfo3*) { return TRUE; };
    CallInfo3* call = CallOf(service, 5);
    LogCapture log;
    Run(call);
    service.WaitForRecords();
    EXPECT_EQ(log.Lines(), (std::vector<LogLine>{
                               {4, kHandle, "Procedure Name [99:OURS3]"},
                               {4, kSend, "Reply Sending Success."},
                           }))
        << log.Dump();
}

TEST_IN_CHILD(Handling, IsToldTheSameInSingleThreadedMode) {
    NfsService service;
    gMultiThreadRPCHandling = false;
    Handler() = [](CallInfo3*) { return TRUE; };
    CallInfo3* call = CallOf(service, 5);
    LogCapture log;
    Run(call);
    EXPECT_EQ(log.Lines(), (std::vector<LogLine>{
                               {4, kHandle, "Procedure Name [99:OURS3]"},
                               {4, kHandle, "Reply Sending Success."},
                           }))
        << log.Dump();
}

TEST_IN_CHILD(Handling, WithoutAReplyTheCallEndsWithoutAMessage) {
    NfsService service;
    Handler() = [](CallInfo3*) { return FALSE; };
    CallInfo3* call = CallOf(service, 5);
    LogCapture log;
    Run(call);
    service.WaitForRecords();
    EXPECT_EQ(log.Lines(), (std::vector<LogLine>{{4, kHandle, "Procedure Name [99:OURS3]"}}))
        << log.Dump();
    EXPECT_EQ(
        TheSteps().All(),
        (std::vector<std::string>{"handle on OXEL", "free arguments on OXEL", "release on OXEL"}));
    EXPECT_EQ(service.Ask(service.Null(6)).xid, 6u) << "the next reply is the next call's";
}

TEST_IN_CHILD(Handling, WithoutAReplySingleThreadedModeSaysSo) {
    NfsService service;
    gMultiThreadRPCHandling = false;
    Handler() = [](CallInfo3*) { return FALSE; };
    CallInfo3* call = CallOf(service, 5);
    LogCapture log;
    Run(call);
    EXPECT_EQ(log.Lines(), (std::vector<LogLine>{
                               {4, kHandle, "Procedure Name [99:OURS3]"},
                               {3, kHandle, "Dispatcher does not want to send a response."},
                           }))
        << log.Dump();
    EXPECT_EQ(service.Ask(service.Null(6)).xid, 6u);
}

TEST_IN_CHILD(Handling, BadAllocOfAHandlerIsASystemErrorAndTheRecordIsBack) {
    NfsService service;
    for (const bool multi : {true, false}) {
        gMultiThreadRPCHandling = multi;
        Handler() = [](CallInfo3*) -> bool_t { throw std::bad_alloc(); };
        CallInfo3* call = CallOf(service, 5);
        LogCapture log(1);
        Run(call);
        EXPECT_EQ(service.connection.client.Expect().accept, uint32_t{SYSTEM_ERR});
        service.WaitForRecords();
        EXPECT_EQ(log.Lines(), (std::vector<LogLine>{{-1, kHandle, "Error: [new] failed."}}))
            << log.Dump();
        EXPECT_TRUE(service.Answers());
        service.WaitForRecords();
    }
}

TEST_IN_CHILD(Handling, AnythingElseThatAHandlerThrowsIsASystemErrorToo) {
    NfsService service;
    for (const bool multi : {true, false}) {
        gMultiThreadRPCHandling = multi;
        Handler() = [](CallInfo3*) -> bool_t { throw 42; };
        CallInfo3* call = CallOf(service, 5);
        LogCapture log(1);
        Run(call);
        EXPECT_EQ(service.connection.client.Expect().accept, uint32_t{SYSTEM_ERR});
        service.WaitForRecords();
        EXPECT_EQ(log.Lines(),
                  (std::vector<LogLine>{{-1, kHandle, "Error: unknown exception caught."}}))
            << log.Dump();
        EXPECT_TRUE(service.Answers());
        service.WaitForRecords();
    }
}

TEST_IN_CHILD(Handling, WhatAHandlerThrewIsReleasedLikeAnyCall) {
    NfsService service;
    Handler() = [](CallInfo3*) -> bool_t { throw 42; };
    Run(CallOf(service, 5));
    service.connection.client.Expect();
    service.WaitForRecords();
    EXPECT_EQ(
        TheSteps().All(),
        (std::vector<std::string>{"handle on OXEL", "free arguments on OXEL", "release on OXEL"}));
}

TEST_IN_CHILD(Handling, ReplyToAClientThatHasGoneIsToldAndTheServiceGoesOn) {
    NfsService service;
    XoEvent leave(true);
    Handler() = [&](CallInfo3*) {
        leave.wait();
        return TRUE;
    };
    CallInfo3* call = CallOf(service, 5);
    LogCapture log(1);
    Run(call);
    service.connection.End();
    EXPECT_EQ(Connection::Count(), 1u);
    leave.set();
    service.WaitForRecords();
    EXPECT_EQ(log.Lines(),
              (std::vector<LogLine>{{-1, kSend,
                                     "Error: Failed to send reply. [Broken pipe]. NFS client might "
                                     "have terminated connection. Will exit."}}))
        << log.Dump();
    EXPECT_EQ(Connection::Count(), 0u);
    EXPECT_EQ(OxelServiceGlobals::exitProcess, 0);

    oxel::test::ServedConnection other;
    other.client.Send(service.Null(8));
    other.Serve();
    EXPECT_EQ(other.client.Expect().xid, 8u);
}

TEST_IN_CHILD(Handling, FailedReplyIsToldInSingleThreadedModeToo) {
    NfsService service;
    gMultiThreadRPCHandling = false;
    Handler() = [](CallInfo3*) { return TRUE; };
    CallInfo3* call = CallOf(service, 5);
    ASSERT_EQ(shutdown(service.connection.fd, SHUT_WR), 0);
    LogCapture log(1);
    Run(call);
    EXPECT_EQ(log.Lines(),
              (std::vector<LogLine>{{-1, kHandle,
                                     "Error: Failed to send reply. [Broken pipe]. NFS client might "
                                     "have terminated connection. Will exit."}}))
        << log.Dump();
    EXPECT_EQ(gCallInfoPool.Free(), gCallInfoPool.Total());
}

TEST_IN_CHILD(Handling, OnARecordWhoseReplyFailedTheNextReplyIsWhole) {
    NfsService service(1);
    // Every record's reply fails once.
    for (size_t i = 0; i < 5; ++i) {
        oxel::test::ServedConnection gone;
        ASSERT_EQ(shutdown(gone.fd, SHUT_WR), 0);
        gone.client.Send(service.Null(1000));
        gone.Serve();
        service.WaitForRecords();
        gone.End();
    }
    for (uint32_t xid = 1; xid <= 10; ++xid) {
        EXPECT_EQ(service.Ask(service.Null(xid)).accept, uint32_t{SUCCESS});
        service.WaitForRecords();
    }
    EXPECT_TRUE(service.connection.client.Silent());
}

// While the reply is encoded, whether another thread could have the lock now. A thread that had to
// wait is joined after the reply.
class LockProbe {
  public:
    explicit LockProbe(Export& share) : share_(share) {}
    bool IsFree() {
        std::promise<void> had;
        std::future<void> has = had.get_future();
        thread_ = std::thread([this, had = std::move(had)]() mutable {
            share_.LockRpcSocket();
            share_.UnlockRpcSocket();
            had.set_value();
        });
        // A lock that is held is never had in this time; one that is free is had at once.
        return has.wait_for(std::chrono::milliseconds(300)) == std::future_status::ready;
    }
    ~LockProbe() {
        if (thread_.joinable()) thread_.join();
    }

  private:
    Export& share_;
    std::thread thread_;
};

TEST_IN_CHILD(Handling, ReplyGoesOutUnderTheParentSharesLock) {
    NfsService service;
    auto parent = boost::make_shared<oxel::test::NiceExport>("/parent");
    auto child = boost::make_shared<oxel::test::NiceExport>("/parent/child", parent);
    Handler() = [&](CallInfo3* call) {
        call->exportPtr = child;
        return TRUE;
    };
    LockProbe parentProbe(*parent), childProbe(*child);
    bool parentFree = true, childFree = false;
    Encoding() = [&] {
        parentFree = parentProbe.IsFree();
        childFree = childProbe.IsFree();
    };
    Run(CallOf(service, 5));
    service.connection.client.Expect();
    service.WaitForRecords();
    EXPECT_FALSE(parentFree);
    EXPECT_TRUE(childFree);
}

TEST_IN_CHILD(Handling, ReplyOfATopLevelShareGoesOutUnderItsOwnLock) {
    NfsService service;
    auto share = boost::make_shared<oxel::test::NiceExport>("/share");
    Handler() = [&](CallInfo3* call) {
        call->exportPtr = share;
        return TRUE;
    };
    LockProbe probe(*share);
    bool free = true;
    Encoding() = [&] { free = probe.IsFree(); };
    Run(CallOf(service, 5));
    service.connection.client.Expect();
    service.WaitForRecords();
    EXPECT_FALSE(free);
    Eventually([&] { return share.use_count() == 1; });  // record and sender have let go of it
}

TEST_IN_CHILD(Handling, SingleThreadedModeTakesNoShareLock) {
    NfsService service;
    gMultiThreadRPCHandling = false;
    auto share = boost::make_shared<oxel::test::NiceExport>("/share");
    Handler() = [&](CallInfo3* call) {
        call->exportPtr = share;
        return TRUE;
    };
    share->LockRpcSocket();  // it would wait for ever
    Run(CallOf(service, 5));
    EXPECT_EQ(service.connection.client.Expect().xid, 5u);
    share->UnlockRpcSocket();
}

namespace {

const oxel::PerfTotals* Find(const std::vector<oxel::PerfTotals>& totals, unsigned id) {
    for (const oxel::PerfTotals& total : totals)
        if (total.id == id) return &total;
    return nullptr;
}
// A stage counts when its scope ends, which is after the record is back.
oxel::PerfTotals Counted(unsigned id, uint64_t count) {
    oxel::PerfTotals found{};
    Eventually([&] {
        const std::vector<oxel::PerfTotals> totals = oxel::PerfSnapshot();
        const oxel::PerfTotals* total = Find(totals, id);
        if (total == nullptr || total->count < count) return false;
        found = *total;
        return true;
    });
    EXPECT_EQ(found.count, count) << "counter " << id;
    return found;
}

}  // namespace

TEST_IN_CHILD(Counters, EveryStageOfACallHasItsCounter) {
    NfsService service;
    MockShare share;
    gPerfFlag = true;
    for (uint32_t xid = 1; xid <= 3; ++xid) service.Ask(service.Getattr(xid));
    EXPECT_EQ(Counted(62, 3).name, "Nfs3Dispatcher");
    EXPECT_EQ(Counted(38, 3).name, "Nfs3Dispatcher");
    EXPECT_EQ(Counted(14, 3).name, "Nfs3Dispatcher");
    EXPECT_EQ(Counted(11, 3).name, "HandleNFSRPC");
    EXPECT_EQ(Counted(12, 3).name, "OXEL");
    const oxel::PerfTotals sent = Counted(10, 3);
    EXPECT_EQ(sent.name, "OXEL");
    EXPECT_EQ(sent.bytes, 3u * 96) << "GETATTR's fixed reply size";
    EXPECT_EQ(Counted(13, 2).name, "Nfs3Dispatcher") << "the time between two calls";
}

TEST_IN_CHILD(Counters, BytesOfAReplyAreThePayloadAndTheRowsSize) {
    NfsService service;
    Handler() = [](CallInfo3* call) {
        call->replyBytes = 65536;
        return TRUE;
    };
    CallInfo3* call = CallOf(service, 5);  // a NULL call, which has no bytes
    Run(call);
    service.connection.client.Expect();
    EXPECT_EQ(Counted(10, 2).bytes, 65536u + kRow.replyBytes);
}

TEST_IN_CHILD(Counters, TooWeakACallDoesNotStartTheTimeBetweenCalls) {
    NfsService service;
    RpcCall weak;
    weak.procedure = 1;
    service.Ask(weak);
    service.Ask(weak);
    EXPECT_EQ(Counted(62, 2).count, 2u);
    EXPECT_EQ(Find(oxel::PerfSnapshot(), 13), nullptr);
    service.Ask(service.Null(1));
    service.Ask(service.Null(2));
    EXPECT_EQ(Counted(13, 1).count, 1u);
}

TEST_IN_CHILD(Counters, WithAccountingOffNothingIsCounted) {
    NfsService service;
    gPerfFlag = false;
    service.Ask(service.Null(1));
    service.Ask(service.Null(2));
    service.WaitForRecords();
    EXPECT_TRUE(oxel::PerfSnapshot().empty());
}

TEST_IN_CHILD(Counters, DroppedCallsAreTimedByTheDispatcherAlone) {
    NfsService service;
    OxelServiceGlobals::SetExitProcess(1);
    service.Dispatch(service.Null(1));
    EXPECT_EQ(Counted(62, 1).count, 1u);
    EXPECT_EQ(oxel::PerfSnapshot().size(), 1u);
}
