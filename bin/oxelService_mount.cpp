// SPDX-License-Identifier: Apache-2.0
//
// MOUNT calls: decoded, handled and answered on the receive thread, one at a time, in one record.
#include <rpc/rpc.h>

#include <ctime>
#include <new>

#include "backend/OxelServiceGlobals.h"
#include "base/log.h"
#include "base/log_clients.h"
#include "base/perf_counter.h"
#include "bin/oxelService.h"
#include "bin/oxelService_account.h"
#include "bin/oxelService_callinfo.h"
#include "bin/oxelService_connection.h"
#include "mount3/mount3proc.h"

static constexpr unsigned kPerfHandle = 11, kPerfCleanUp = 12;

// Made by the first MOUNT call. Its share stays until the next MNT or UMNT replaces it.
static CallInfo3& MountCallInfo() {
    static CallInfo3* const gMountCi = new CallInfo3;
    return *gMountCi;
}

// What the two old versions have in common with version 3: NULL, UMNT, and in version 1 EXPORT.
static bool IsServedByVersion(uint32_t version, uint32_t procedure) {
    switch (version) {
        case 1:
            return procedure == 0 || procedure == 3 || procedure == 5;
        case 2:
            return procedure == 0 || procedure == 3;
        default:
            return true;
    }
}

// The steps of Mount3Dispatcher log in its name.
#define LOG_DISPATCH(level, ...) \
    OXEL_LOG_AS("void Mount3Dispatcher(svc_req*, SVCXPRT*)", level, __VA_ARGS__)

static void Answer(CallInfo3& call, SVCXPRT* transport) {
    bool_t reply;
    try {
        PerfCounterWrapper timer("OXEL", kPerfHandle);
        reply = call.row->handler(&call);
    } catch (...) {
        // By default such a call goes without a reply, and its client asks again in a while.
        if (gHardened) svcerr_systemerr(transport);
        throw;
    }
    if (!reply) return;
    if (svc_sendreply(transport, call.row->xdrResult, &call.result))
        LOG_DISPATCH(3, "Reply Sending Success.");
    else
        LOG_DISPATCH(-1, "Error: Failed to send reply.");
}

static void Dispatch(svc_req* request, SVCXPRT* transport) {
    CallInfo3& call = MountCallInfo();
    const CLuIPAddr client(transport->xp_raddr);
    LOG_DISPATCH(3,
                 "transp [%p] dispatch time (%ld) : prog=%d, ver=%d, proc=%d, sock=%d, port=%d "
                 "client address = %s",
                 static_cast<void*>(transport), static_cast<long>(time(nullptr)),
                 static_cast<int>(request->rq_prog), static_cast<int>(request->rq_vers),
                 static_cast<int>(request->rq_proc), transport->xp_fd,
                 static_cast<int>(transport->xp_port), client.GetAddressString().c_str());
    // No credential is asked for, and only AUTH_UNIX has a machine name.
    call.identity.machineName = nullptr;
    if (request->rq_cred.oa_flavor == AUTH_UNIX)
        call.SetMachineName(static_cast<const authunix_parms*>(request->rq_clntcred)->aup_machname);
    call.identity.clientAddress = client;

    if (!IsServedByVersion(request->rq_vers, request->rq_proc)) {
        svcerr_progvers(transport, 3, 3);
        return;
    }

    call.transport = transport;
    call.ClearCall();
    call.procedure = static_cast<int32_t>(request->rq_proc);
    if (call.procedure < 0 || call.procedure >= kMount3ProcedureCount ||
        Mountv3Handlers[call.procedure].handler == nullptr) {
        LOG_DISPATCH(-1, "Error: : unknown procedure %d", call.procedure);
        CountRejection(Rejection::kUnknownProcedure);
        svcerr_noproc(transport);
        return;
    }
    call.row = &Mountv3Handlers[call.procedure];
    LOG_DISPATCH(3, "Procedure Name [%d:%s]", call.procedure, call.row->name);
    const auto freeArguments = [&] {
        transport->xp_ops->xp_freeargs(transport, call.row->xdrArguments, &call.arguments());
    };
    if (!transport->xp_ops->xp_getargs(transport, call.row->xdrArguments, &call.arguments())) {
        LOG_DISPATCH(-1, "Error: : Args Decode Failed. procNum [%d]", call.procedure);
        CountRejection(Rejection::kGarbageArguments);
        svcerr_decode(transport);
        freeArguments();
        return;
    }
    LOG_DISPATCH(3, ": Args Decode Success. Calling [%d:%s]", call.procedure, call.row->name);
    BeginCall(&call, Connection::Of(transport)->Client());
    try {
        Answer(call, transport);
        EndCall(&call, OutcomeOf(&call));
    } catch (...) {
        EndCall(&call, kCallThrew);
        freeArguments();
        throw;
    }
    PerfCounterWrapper timer("OXEL", kPerfCleanUp);
    // The record keeps its share until the next MNT or UMNT. That may be days away; hardened, a
    // share that is removed until then does not keep its file system busy.
    if (gHardened) call.exportPtr.reset();
    freeArguments();
    if (call.row->release != nullptr) call.row->release(&call);
}

static void Mount3Dispatcher(svc_req* request, SVCXPRT* transport) {
    const oxel::ClientsLog clients;
    if (Connection::Of(transport) == nullptr) return;  // reset before it was accepted
    try {
        Dispatch(request, transport);
    } catch (const std::bad_alloc&) {
        OXEL_LOG(-1, "Error: [new] failed.");
    } catch (...) {
        // Above here is the RPC library, which no exception gets through.
        OXEL_LOG(-1, "Error: unknown exception caught.");
    }
}

RPCServiceArgs::Dispatcher MountDispatcher() {
    return Mount3Dispatcher;
}
