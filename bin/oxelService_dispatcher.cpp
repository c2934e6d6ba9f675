// SPDX-License-Identifier: Apache-2.0
//
// The road of an NFS call: checked and decoded on the receive thread, handled on an "OXEL" thread,
// answered on an "OXEL_SEND" thread.
#include <poll.h>
#include <rpc/rpc.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <new>

#include "base/log.h"
#include "base/log_clients.h"
#include "base/perf_counter.h"
#include "base/store.h"
#include "bin/oxelService.h"
#include "bin/oxelService_account.h"
#include "bin/oxelService_callinfo.h"
#include "bin/oxelService_carrier.h"
#include "bin/oxelService_connection.h"
#include "bin/oxelService_transport.h"
#include "nfs3/nfs3proc.h"

XoThreadPool gWorkerPool;
XoThreadPool gRPCSendPool;

static constexpr unsigned kHandlersDefault = 5, kHandlersMin = 1, kHandlersMax = 100;
static constexpr unsigned kRecordsPerHandler = 5;
static constexpr unsigned kSenders = 3;
static constexpr unsigned kIdleSeconds = 60;
static constexpr unsigned kThreadCountReadMs = 60000;

namespace {

enum PerfStage : unsigned {
    kPerfHandle = 11,
    kPerfSend = 10,
    kPerfCleanUp = 12,
    kPerfBetweenCalls = 13,
    kPerfDecode = 14,
    kPerfDuplicate = 38,
    kPerfDispatch = 62,
};

// The receive thread's: the time between the end of one dispatch and the start of the next.
thread_local ThrdPerfCounter gPerfCounter;
thread_local bool counterStarted = false;

}  // namespace

bool InitializeNFSRPCThreadPool() {
    unsigned int handlers = 0;
    if (!XOPlatformInfo().getNumber("Oxel", "nMaxNFSRPCThread", &handlers)) {
        handlers = kHandlersDefault;
        OXEL_LOG(1,
                 "INFO: Max NFS RPC handler thread count not set in registry. So setting it to "
                 "[%u].",
                 handlers);
    } else if (handlers < kHandlersMin) {
        OXEL_LOG(1,
                 "INFO: Max NFS RPC handler thread count [%u] must be => [%u]. So setting to "
                 "[%u],",
                 handlers, kHandlersMin, kHandlersMin);
        handlers = kHandlersMin;
    } else if (handlers > kHandlersMax) {
        OXEL_LOG(1,
                 "INFO: Max NFS RPC handler thread count [%u] must be =< [%u]. So setting to "
                 "[%u],",
                 handlers, kHandlersMax, kHandlersMax);
        handlers = kHandlersMax;
    }
    if (!gWorkerPool.initThreadPool("OXEL", kIdleSeconds, 1, handlers, 1)) {
        OXEL_LOG(-1, "Error: Failed to initialize NFS RPC handler thread pool.");
        return false;
    }
    CallInfo3::freeTransportCopy = FreeSVCXPRT;
    gCallInfoPool.Init(static_cast<int>(kRecordsPerHandler * handlers));
    if (!gRPCSendPool.initThreadPool("OXEL_SEND", kIdleSeconds, kSenders, kSenders, kSenders)) {
        OXEL_LOG(-1, "Error: Failed to initialize NFS RPC Sender thread pool.");
        return false;
    }
    XoTimer::Register(OxelTimerTaskThreadCount, ReadRegistryForRPCThreadCnt, kThreadCountReadMs, 0,
                      &gWorkerPool);
    return true;
}

XOTimerErrno ReadRegistryForRPCThreadCnt(void* pool) {
    unsigned int handlers = 0;
    if (!XOPlatformInfo().getNumber("Oxel", "nMaxNFSRPCThread", &handlers)) {
        OXEL_LOG(4, "INFO: Max NFS RPC handler thread count not set in registry");
        handlers = kHandlersDefault;
    } else if (handlers < kHandlersMin) {
        OXEL_LOG(1,
                 "INFO: Max NFS RPC handler thread count [%u] must be => [%u]. So setting to "
                 "[%u].",
                 handlers, kHandlersMin, kHandlersMin);
        handlers = kHandlersMin;
    } else if (handlers > kHandlersMax) {
        OXEL_LOG(1,
                 "INFO: Max NFS RPC handler thread  count [%u] must be =< [%u]. So setting to "
                 "[%u].",
                 handlers, kHandlersMax, kHandlersMax);
        handlers = kHandlersMax;
    }
    // The records stay as many as they were: they bound memory, the threads bound concurrency.
    if (static_cast<XoThreadPool*>(pool)->setMaxCount(handlers))
        OXEL_LOG(4, "INFO: Max NFS RPC handler thread count set to [%u]", handlers);
    else
        OXEL_LOG(-1, "ERROR: Failed to set maximum RPC handler thread count to [%u]", handlers);
    return 0;
}

// Puts the call's transport into the record: a private copy that stays with the record from call to
// call, or the connection's own.
static bool AttachTransport(CallInfo3* call, SVCXPRT* transport) {
    if (!gMultiThreadRPCHandling) {
        call->transport = transport;
        return true;
    }
    PerfCounterWrapper timer("Nfs3Dispatcher", kPerfDuplicate);
    SVCXPRT* copy = CarrierInUse().Copy(transport, call->transportCopy);
    if (copy == nullptr) return false;
    call->transport = call->transportCopy = copy;
    return true;
}

// Gives the record back. A connection's own transport is the library's and stays; a copy is parked.
static void GiveBack(CallInfo3* call) {
    ForgetCall(call);
    if (call->transport != nullptr && call->transport == call->transportCopy)
        ParkSVCXPRT(call->transport);
    try {
        call->Reset();
    } catch (const std::bad_alloc&) {
        // The record is as it was but for its size; the next call finds out by itself, and this one
        // may be ending on a thread where nobody would catch.
    }
    gCallInfoPool.Push(call);
}

// Records that calls have kept for good.
static std::atomic<size_t> gRecordsKept{0};

// Ends a call that no handler will see. Such a call keeps its record for good, so that a client
// which goes on sending them is noticed by everybody; hardened, where it must not be, the record
// goes back. The client's connection is let go in either case.
static void GiveUp(CallInfo3* call) {
    if (gHardened) {
        GiveBack(call);
    } else {
        ForgetCall(call);
        ParkSVCXPRT(call->transportCopy);
        ++gRecordsKept;
    }
}

bool WaitForCallsInFlight(uint32_t milliseconds) {
    static constexpr uint32_t kLookMs = 5;
    for (uint32_t waited = 0;; waited += kLookMs) {
        if (gCallInfoPool.Total() - gCallInfoPool.Free() <= gRecordsKept) return true;
        if (waited >= milliseconds) return false;
        (void)poll(nullptr, 0, kLookMs);
    }
}

// AUTH_UNIX's ids and machine name. False: a credential that this procedure does not accept.
static bool FillIdentity(CallInfo3* call, const svc_req* request, const SVCXPRT* transport) {
    IdInfo& id = call->identity;
    id.uid = 0;
    id.gid = 0;
    id.machineName = nullptr;
    id.clientAddress = CLuIPAddr(transport->xp_raddr);
    if (request->rq_cred.oa_flavor != AUTH_UNIX) return call->procedure == NULLPROC;
    const auto* credential = static_cast<const authunix_parms*>(request->rq_clntcred);
    call->SetMachineName(credential->aup_machname);
    id.uid = credential->aup_uid;
    id.gid = credential->aup_gid;
    return true;
}

// The steps of Nfs3Dispatcher log in its name.
#define LOG_DISPATCH(level, ...) \
    OXEL_LOG_AS("void Nfs3Dispatcher(svc_req*, SVCXPRT*)", level, __VA_ARGS__)

// Checks, decodes and hands on one call whose record is at hand. False: the call ends without the
// time until the next one being counted.
static bool Dispatch(CallInfo3* call, svc_req* request, SVCXPRT* transport, bool* handedOn) {
    if (!AttachTransport(call, transport)) {
        LOG_DISPATCH(-1, "Error: Fail to duplicate SVCXPRT structure");
        svcerr_systemerr(transport);
        GiveBack(call);
        return false;
    }
    call->ClearCall();
    call->procedure = static_cast<int32_t>(request->rq_proc);
    call->row = Nfsv3Handlers;

    if (call->procedure < 0 || call->procedure >= kNfs3ProcedureCount ||
        Nfsv3Handlers[call->procedure].handler == nullptr) {
        LOG_DISPATCH(-1, "Error: unknown procedure %d", call->procedure);
        CountRejection(Rejection::kUnknownProcedure);
        svcerr_noproc(transport);
        GiveUp(call);
        return true;
    }
    call->row = &Nfsv3Handlers[call->procedure];

    if (!FillIdentity(call, request, transport)) {
        CountRejection(Rejection::kWeakCredential);
        svcerr_weakauth(transport);
        LOG_DISPATCH(-1, "Error: Auth_NULL not accepted for proc [%s].", call->row->name);
        GiveBack(call);
        return false;
    }

    bool_t decoded;
    {
        PerfCounterWrapper timer("Nfs3Dispatcher", kPerfDecode);
        decoded =
            transport->xp_ops->xp_getargs(transport, call->row->xdrArguments, &call->arguments());
    }
    if (decoded != TRUE) {
        LOG_DISPATCH(-1, "Error: Args Decode Failed. procNum [%d]", call->procedure);
        CountRejection(Rejection::kGarbageArguments);
        svcerr_decode(transport);
        // What was decoded before the failure hangs off the record.
        transport->xp_ops->xp_freeargs(transport, call->row->xdrArguments, &call->arguments());
        GiveBack(call);
        return true;
    }
    *handedOn = true;  // the record is the handler's from here
    if (!gMultiThreadRPCHandling) {
        HandleNFSRPC(call);
    } else if (!CarrierInUse().Handle(call)) {
        *handedOn = false;
        throw std::bad_alloc();
    }
    return true;
}

static void Nfs3Dispatcher(svc_req* request, SVCXPRT* transport) {
    const oxel::ClientsLog clients;
    if (gPerfFlag && counterStarted) {
        gPerfCounter.stop("Nfs3Dispatcher", kPerfBetweenCalls);
        counterStarted = false;
    }
    PerfCounterWrapper timer("Nfs3Dispatcher", kPerfDispatch);
    if (OxelServiceGlobals::exitProcess != 0) {
        OXEL_LOG(1, "OxelServiceGlobals::exitProcess set. WIll not process any more RPCs.");
        return;
    }
    if (Connection::Of(transport) == nullptr) return;  // reset before it was accepted

    CallInfo3* call = nullptr;
    bool handedOn = false;
    try {
        call = CarrierInUse().TakeRecord();
        BeginCall(call, Connection::Of(transport)->Client());
        if (!Dispatch(call, request, transport, &handedOn)) return;
    } catch (const std::bad_alloc&) {
        OXEL_LOG(-1, "Error: [new] failed.");
        if (call != nullptr && !handedOn) GiveUp(call);
    } catch (...) {
        OXEL_LOG(-1, "Error: unknown exception caught.");
        if (call != nullptr && !handedOn) GiveUp(call);
    }
    if (gPerfFlag) gPerfCounter.start("OXEL", kPerfBetweenCalls);
    counterStarted = true;
}

RPCServiceArgs::Dispatcher NfsDispatcher() {
    return Nfs3Dispatcher;
}

// Ends a call, on whichever thread finished it.
static void FinalRPCCleanup(CallInfo3* call, SVCXPRT* transport, int32_t outcome) {
    PerfCounterWrapper timer("OXEL", kPerfCleanUp);
    EndCall(call, outcome);
    transport->xp_ops->xp_freeargs(transport, call->row->xdrArguments, &call->arguments());
    if (call->row->release != nullptr) call->row->release(call);
    GiveBack(call);
}

// `function` is whose step it is, for the log.
static void SendReply(CallInfo3* call, const char* function) {
    PerfCounterWrapper timer("OXEL", kPerfSend, uint64_t{call->replyBytes} + call->row->replyBytes);
    if (svc_sendreply(call->transport, call->row->xdrResult, &call->result))
        OXEL_LOG_AS(function, 4, "Reply Sending Success.");
    else
        OXEL_LOG_AS(function, -1,
                    "Error: Failed to send reply. [%s]. NFS client might have terminated "
                    "connection. Will exit.",
                    strerror(errno));
}

// A handler that threw: the client is told, and the call ends like any other.
static void HandlerThrew(CallInfo3* call) {
    svcerr_systemerr(call->transport);
    FinalRPCCleanup(call, call->transport, kCallThrew);
}

void* HandleNFSRPC(void* record) {
    const oxel::ClientsLog clients;
    auto* call = static_cast<CallInfo3*>(record);
    OXEL_LOG(4, "Procedure Name [%d:%s]", call->procedure, call->row->name);
    bool_t reply;
    try {
        PerfCounterWrapper timer("HandleNFSRPC", kPerfHandle);
        reply = call->row->handler(call);
    } catch (const std::bad_alloc&) {
        OXEL_LOG(-1, "Error: [new] failed.");
        HandlerThrew(call);
        return nullptr;
    } catch (...) {
        OXEL_LOG(-1, "Error: unknown exception caught.");
        HandlerThrew(call);
        return nullptr;
    }
    if (gMultiThreadRPCHandling) {
        // The record is not this function's any more once the reply is on its way.
        if (reply)
            CarrierInUse().Reply(call);
        else
            FinalRPCCleanup(call, call->transport, OutcomeOf(call));
        return nullptr;
    }
    if (reply)
        SendReply(call, __PRETTY_FUNCTION__);
    else
        OXEL_LOG(3, "Dispatcher does not want to send a response.");
    FinalRPCCleanup(call, call->transport, OutcomeOf(call));
    return nullptr;
}

void SendWithoutShareLock(CallInfo3* call) {
    const oxel::ClientsLog clients;
    SendReply(call, "void* SendNFSRPC(void*)");
    FinalRPCCleanup(call, call->transport, OutcomeOf(call));
}

void* SendNFSRPC(void* record) {
    const oxel::ClientsLog clients;
    auto* call = static_cast<CallInfo3*>(record);
    // Replies of one top-level share go out one after the other.
    ExportPtr lockTarget;
    if (call->exportPtr) {
        lockTarget = call->exportPtr->GetParentExport();
        if (!lockTarget) lockTarget = call->exportPtr;
    }
    if (lockTarget) {
        lockTarget->LockRpcSocket();
        SendReply(call, __PRETTY_FUNCTION__);
        lockTarget->UnlockRpcSocket();
    } else {
        SendReply(call, __PRETTY_FUNCTION__);
    }
    FinalRPCCleanup(call, call->transport, OutcomeOf(call));
    return nullptr;
}
