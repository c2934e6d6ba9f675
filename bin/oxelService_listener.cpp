// SPDX-License-Identifier: Apache-2.0
//
// Bringing the services up on one listening socket, and the receive loop that feeds every call to
// the dispatchers.
#include <netconfig.h>
#include <rpc/rpc.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "backend/FdCache.h"
#include "base/instance.h"
#include "base/log.h"
#include "base/store.h"
#include "base/thread.h"
#include "base/unique_fd.h"
#include "bin/oxelService.h"
#include "bin/oxelService_carrier.h"
#include "bin/oxelService_notify.h"
#include "bin/oxelService_select.h"
#include "bin/oxelService_transport.h"
#include "companion/PellService.h"

std::vector<RPCServiceArgs> gAllServiceParams;
uint32_t gServiceCount = 0;
XoCriticalSection gServiceStartupCs;
XoCriticalSection nwSvcStartLock;

static constexpr uint32_t kServicesInAll = 4;  // NFS 3 and MOUNT 3, 2, 1
static constexpr int kListenBacklog = 100;
static constexpr uint32_t kRetryMs = 60000;
static constexpr int kErrorWithoutErrno = 4;

namespace {

// What all services share: made by the first start, under gServiceStartupCs.
struct SharedListener {
    CLuIPAddr address;
    CLuSocket socket;
    netconfig* ipv4 = nullptr;
    netconfig* ipv6 = nullptr;
    // On the socket; the library's table knows the last one only.
    std::vector<SVCXPRT*> transports;
};

SharedListener& Listener() {
    static SharedListener listener;
    return listener;
}

XoCriticalSection gTransportTableLock;

// The receive loop's life, for those who wait for it.
const oxel::UniqueFd gWakeReceiveLoop(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
XoEvent gReceiveLoopEnded(true);
std::atomic<bool> gReceiveLoopRuns{false};

// The thread that becomes the receive loop.
XoThread& NfsThread() {
    static auto* thread = new XoThread;
    return *thread;
}

}  // namespace

bool StartNetworkServices(std::string& failedStep) {
    XoCriticalSectionGuard lock(nwSvcStartLock);
    if (OxelServiceGlobals::networkServicesStarted) return true;
    if (!CheckTransportLayout()) {
        failedStep = "CheckTransportLayout";
        return false;
    }
    if (!InitializeNFSRPCThreadPool()) {
        failedStep = "WorkerThreadPoolInit";
        return false;
    }
    if (!InitializeNfs3Service()) {
        failedStep = "InitializeNfs3Service";
        return false;
    }
    InitializeHardenedMode();
    if (!InitializeMount3Service()) {
        failedStep = "InitializeMount3Service";
        return false;
    }
    if (StartNfs3Service(true)) {
        OXEL_LOG(1, "Starting mount service as NFS service started successfully.");
        StartMount3Service(nullptr);
    } else {
        OXEL_LOG(-1, "Not starting mount service as NFS service failed to start.");
        failedStep = "StartNfs3Service";
    }
    OxelServiceGlobals::SetNetworkServicesStarted(true);
    return true;
}

bool StartNfs3Service(bool retry) {
    gFdCache.Init(gOxelFdCacheSize);
    // The service that works stays for the life of the process, with its thread.
    static std::unique_ptr<RPCServiceArgs> args;
    XoThread& thread = NfsThread();
    while (OxelServiceGlobals::exitProcess == 0) {
        args = std::make_unique<RPCServiceArgs>(OxelServiceGlobals::nfsProgram,
                                                OxelServiceGlobals::nfsPort, 3, NfsDispatcher(),
                                                false, -1);
        OxelServiceGlobals::SetServerStartTime(oxel::NewStartTime());
        if (thread.start("NFS", StartRPCService, args.get())) {
            args->doneEvent.wait();
            if (args->started) {
                gReceiveLoopRuns = true;  // or is about to
                OxelServiceGlobals::SetNFSPort(args->port);
                OXEL_LOG(1, "Started NFS service. Port [%hu].", args->port);
                return true;
            }
            thread.join();
            OXEL_LOG(-1, "Failed to Start NFS service.");
        } else {
            OXEL_LOG(-1, "Failed to Start nfs service thread.");
        }
        AdvancedInit();
        RefreshStatusLine();
        LUSLEEP(kRetryMs);
        // Without a retry a failure is told as success: what follows starts all the same.
        if (!retry) return true;
    }
    return false;
}

bool StartMount3Service(void*) {
    // The threads are joined before their arguments go.
    RPCServiceArgs version3(OxelServiceGlobals::mountProgram, OxelServiceGlobals::mountPort, 3,
                            MountDispatcher(), true, -1);
    XoThread thread3;
    if (!thread3.start("MOUNT-3", StartRPCService, &version3)) {
        OXEL_LOG(-1, "Failed to Start mount service thread. Will exit.");
        OxelServiceGlobals::SetExitProcess(1);
        return false;
    }
    version3.doneEvent.wait();
    if (!version3.started) {
        OXEL_LOG(-1, "Failed to Start mount service. Will exit.");
        thread3.join();
        return false;
    }
    OxelServiceGlobals::SetMountPort(version3.port);
    OXEL_LOG(1, "Started Mount service. Port [%hu].", version3.port);

    RPCServiceArgs version2(OxelServiceGlobals::mountProgram, OxelServiceGlobals::mountPort, 2,
                            MountDispatcher(), true, -1);
    RPCServiceArgs version1(OxelServiceGlobals::mountProgram, OxelServiceGlobals::mountPort, 1,
                            MountDispatcher(), true, -1);
    XoThread thread2, thread1;
    // The old versions exist for UMNT and EXPORT of old clients; the daemon serves without them.
    if (thread2.start("MOUNT-2", StartRPCService, &version2)) version2.doneEvent.wait();
    if (thread1.start("MOUNT-1", StartRPCService, &version1)) version1.doneEvent.wait();
    thread3.join();
    thread2.join();
    thread1.join();
    return true;
}

void* StartRPCService(void* opaque) {
    auto* args = static_cast<RPCServiceArgs*>(opaque);
    const bool isNfs = args->program == OxelServiceGlobals::nfsProgram;
    OXEL_LOG(1, "Program [%d] Version [%d] Protocol [%s] Port [%hu]",
             static_cast<int>(args->program), static_cast<int>(args->version), "TCP", args->port);

    gServiceStartupCs.enter();
    const OxelServiceStatus status = StartTcpService(args);
    if (status == OxelStarted && ++gServiceCount == kServicesInAll)
        OxelServiceGlobals::SetOxelStatus(OxelStarted);
    gServiceStartupCs.leave();

    if (status == OxelStarted) {
        errno = 0;
        if (isNfs) svcRun(nullptr);
    } else {
        OXEL_LOG(-1, "Error: Failed to start RPC service");
        OxelServiceGlobals::SetOxelStatus(status);
    }
    return nullptr;
}

// A start that failed: nothing stays open, and whoever waits for it goes on.
static OxelServiceStatus Failed(RPCServiceArgs* args, OxelServiceStatus status) {
    SharedListener& shared = Listener();
    CleanupSocket(shared.socket, shared.ipv4, shared.ipv6);
    args->started = false;
    args->doneEvent.set();
    return status;
}

// The steps of StartTcpService log in its name.
#define LOG_START(level, ...) \
    OXEL_LOG_AS("OxelServiceStatus StartTcpService(RPCServiceArgs*)", level, __VA_ARGS__)

// Makes and binds the shared socket. OxelStarted, or why not.
static OxelServiceStatus BindSharedSocket(const RPCServiceArgs* args) {
    SharedListener& shared = Listener();
    const int program = static_cast<int>(args->program), version = static_cast<int>(args->version);

    shared.address.SetFamily(AF_INET6);
    if (shared.socket.Create(AF_INET6)) {
        shared.address.SetFamily(AF_INET);
        if (shared.socket.Create(AF_INET)) {
            LOG_START(-1, "Error: failed to obtain a socket. Program [%d] Vers [%d]", program,
                      version);
            return OxelNoSocket;
        }
    }
    shared.address.SetPort(args->port);

    CLuError error;
    if (const CLuError bindError = shared.socket.Bind(shared.address)) {
        const int port = args->port, code = bindError.GetCode();
        if (code != EADDRINUSE) {
            LOG_START(1, "Error: Bind failed. Port [%d] Err [%d] ", port, code);
            error = CLuError(kErrorWithoutErrno, "Bind failed");
        } else {
            LOG_START(1, "Info: Port [%d] already in use. Err [%d] ", port, code);
            if (!OxelServiceGlobals::coExistWithOtherNFSServers) {
                LOG_START(-1,
                          "Error: Failed to bind on standard port. Cannot co-exist with other "
                          "NFS service");
                error = CLuError(kErrorWithoutErrno, "Port already occupied");
            } else {
                shared.socket.Close();
                shared.address.SetPort(0);
                XoFwClient client;
                if (!client.bind(shared.socket, shared.address, 2, false)) {
                    LOG_START(-1, "Error: Failed to bind on open port. Error [%s]",
                              client.lastError().GetText().c_str());
                    error = CLuError(client.lastError().GetCode(), "No open port available");
                }
            }
        }
    }
    if (error) {
        LOG_START(-1, "Failed to . Error [%s]", error.GetText().c_str());
        return OxelNoBind;
    }
    if (const CLuError addressError = shared.socket.GetLocalAddress(&shared.address)) {
        LOG_START(-1, "Error: Failed to get port assigned. Error [%s]",
                  addressError.GetText().c_str());
        return OxelNoSocket;
    }
    LOG_START(1, "INFO: Bind Successful on port [%d]", shared.address.GetPort());
    CLuError listenError = shared.socket.Listen(kListenBacklog);
    // A client that gave up before it was accepted must not hang the receive thread in accept.
    if (!listenError) listenError = shared.socket.SetNonBlocking();
    if (listenError) {
        LOG_START(-1, "Error: listen failed [%s]", listenError.GetText().c_str());
        return OxelNoBind;
    }
    return OxelStarted;
}

// Finds the netconfig entries by which the library registers with the port mapper; without them,
// under co-existence, it does not.
static OxelServiceStatus FindNetconfig(const RPCServiceArgs* args) {
    SharedListener& shared = Listener();
    const int program = static_cast<int>(args->program), version = static_cast<int>(args->version);
    if (OxelServiceGlobals::coExistWithOtherNFSServers) {
        LOG_START(1, "ALLOW_NATIVE_NFS [true]. Not creating netconf.");
        return OxelStarted;
    }
    shared.ipv4 = getnetconfigent("tcp");
    if (shared.ipv4 == nullptr) {
        LOG_START(-1, "Failed to get TCP-IP4 netconfig Program [%d] Vers [%d] [%s]", program,
                  version, strerror(errno));
        return OxelNoRegistration;
    }
    shared.ipv6 = getnetconfigent("tcp6");
    if (shared.ipv6 == nullptr) {
        LOG_START(-1, "Failed to get TCP-IP6 netconfig Program [%d] Vers [%d] [%s]", program,
                  version, strerror(errno));
        return OxelNoRegistration;
    }
    return OxelStarted;
}

// One transport on the shared socket and the service on it, for "IPv4" or "IPv6".
static bool RegisterTransport(const RPCServiceArgs* args, netconfig* entry, const char* family) {
    SharedListener& shared = Listener();
    const int program = static_cast<int>(args->program), version = static_cast<int>(args->version);
    SVCXPRT* transport = svc_tli_create(shared.socket.GetDescriptor(), entry, nullptr,
                                        gMaxRPCSendSize, gMaxRPCRecvSize);
    if (transport == nullptr) {
        LOG_START(-1, "svc_tli_create() failed.Program [%d] Vers [%d] %s [%s]", program, version,
                  family, strerror(errno));
        return false;
    }
    GuardListener(transport);
    shared.transports.push_back(transport);
    if (!svc_reg(transport, args->program, args->version, args->dispatcher, entry)) {
        LOG_START(-1, "svc_reg() failed.Program [%d] Vers [%d] %s [%s]", program, version, family,
                  strerror(errno));
        return false;
    }
    return true;
}

OxelServiceStatus StartTcpService(RPCServiceArgs* args) {
    SharedListener& shared = Listener();
    if (!OxelServiceGlobals::coExistWithOtherNFSServers) {
        // The library cannot register what somebody left registered at another port.
        const RPCServiceArgs stale(args->program, 0, args->version, args->dispatcher, false, -1);
        UnRegisterWithPortMapper(&stale);
    }
    if (!shared.socket.IsValid()) {
        OxelServiceStatus status = BindSharedSocket(args);
        if (status == OxelStarted) status = FindNetconfig(args);
        if (status != OxelStarted) return Failed(args, status);
    }
    args->port = shared.address.GetPort();
    ComputeTransportBufferSizes();
    {
        XoCriticalSectionGuard lock(gTransportTableLock);
        if (!RegisterTransport(args, shared.ipv4, "IPv4") ||
            !RegisterTransport(args, shared.ipv6, "IPv6"))
            return Failed(args, OxelNoRegistration);
    }
    OXEL_LOG(1, "TCP RPC Service Registered for Program [%d] Version [%d] Protocol [%s]",
             static_cast<int>(args->program), static_cast<int>(args->version), "TCP");
    SaveServicePort(args->program, args->port);
    gAllServiceParams.emplace_back(args->program, args->port, args->version, args->dispatcher,
                                   false, shared.socket.GetDescriptor());
    args->doneEvent.set();
    return OxelStarted;
}

void CleanupSocket(CLuSocket& socket, netconfig*& ipv4, netconfig*& ipv6) {
    // Destroying a transport closes its descriptor, and all of them have the same one: each gets a
    // number of its own first. Left in the library, they would have select() fail for ever.
    for (SVCXPRT* transport : Listener().transports) {
        UnguardListener(transport);
        xprt_unregister(transport);
        const int own = dup(transport->xp_fd);
        if (own < 0) continue;  // no descriptor left: the small block is lost
        transport->xp_fd = own;
        SVC_DESTROY(transport);
    }
    Listener().transports.clear();
    if (socket.IsValid()) socket.Close();
    if (ipv4 != nullptr) freenetconfigent(ipv4);
    if (ipv6 != nullptr) freenetconfigent(ipv6);
    ipv4 = nullptr;
    ipv6 = nullptr;
}

void SaveServicePort(unsigned int program, unsigned short port) {
    const char* key;
    if (program == OxelServiceGlobals::nfsProgram)
        key = "NfsServerPort_v4";
    else if (program == OxelServiceGlobals::mountProgram)
        key = "MountServerPort_v4";
    else
        return;
    if (!XOPlatformInfo().setNumber("Runtime", key, port))
        OXEL_LOG(-1, "Error: Failed to save the port under [%s]. [%s]", key, strerror(errno));
}

int ListeningDescriptor() {
    return Listener().socket.GetDescriptor();
}

XoCriticalSection& TransportTableLock() {
    return gTransportTableLock;
}

int WakeDescriptor() {
    return gWakeReceiveLoop.Get();
}

void ClearWake() {
    eventfd_t count;
    (void)eventfd_read(gWakeReceiveLoop.Get(), &count);  // emptied; the loop's condition decides
}

void PrintPerfStatsIfAsked() {
    if (!gPrintPerfStats || !gPerfFlag) return;
    LogAllPerfCounters();
    gPrintPerfStats = false;
}

void* svcRun(void*) {
    OXEL_LOG(1, "In SvcRun. This routine calls dispatcher upon receipt of protocol RPCs.");
    CarrierInUse().Receive();
    StopPellService();
    OXEL_LOG(1, "Returning from RPC service.");
    gReceiveLoopEnded.set();
    return nullptr;
}

void WakeReceiveLoop() {
    (void)eventfd_write(gWakeReceiveLoop.Get(), 1);
}

bool WaitForReceiveLoop(uint32_t milliseconds) {
    if (!gReceiveLoopRuns) return true;
    if (!gReceiveLoopEnded.wait(milliseconds)) return false;
    NfsThread().join();  // it has nothing left to do
    return true;
}
