// SPDX-License-Identifier: Apache-2.0
//
// The RPC service layer: what main starts and what its files share. Globals and settings that the
// layers beneath read as well are in backend/OxelServiceGlobals.h.
#pragma once

#include <netconfig.h>
#include <rpc/rpc.h>

#include <cstdint>
#include <string>
#include <vector>

#include "backend/OxelServiceGlobals.h"
#include "base/log.h"
#include "base/sync.h"
#include "base/thread_pool.h"
#include "base/timer.h"
#include "net/CLuSocket.h"

// As OXEL_LOG, in the name of the function whose step the caller is: operators know a message by
// the function that it comes from.
#define OXEL_LOG_AS(function, level, ...)                                         \
    do {                                                                          \
        if (::oxel::LogWriter::Wants(level))                                      \
            ::oxel::LogWriter::Write((level), (function), __LINE__, __VA_ARGS__); \
    } while (0)

struct CallInfo3;

// One RPC service to start, or one that has started.
struct RPCServiceArgs {
    using Dispatcher = void (*)(svc_req*, SVCXPRT*);

    RPCServiceArgs(uint32_t rpcProgram, uint16_t rpcPort, uint32_t rpcVersion,
                   Dispatcher rpcDispatcher, bool isMount, int32_t listeningSocket)
        : socket(listeningSocket),
          program(rpcProgram),
          port(rpcPort),
          version(rpcVersion),
          mountFlag(isMount),
          dispatcher(rpcDispatcher) {}
    // The plain fields and a fresh event: the copy has its own life in the list of services.
    RPCServiceArgs(const RPCServiceArgs& other)
        : RPCServiceArgs(other.program, other.port, other.version, other.dispatcher,
                         other.mountFlag, other.socket) {}
    RPCServiceArgs& operator=(const RPCServiceArgs&) = delete;

    int32_t socket;  // -1 in a request
    uint32_t program;
    uint16_t port;  // as requested; the bound port once started
    uint32_t version;
    bool mountFlag;
    Dispatcher dispatcher;
    XoEvent doneEvent{true};  // set when the attempt has finished, either way
    bool started = true;      // cleared on every failure
};

// Every service that started, in start order. Appended to under the start lock only.
extern std::vector<RPCServiceArgs> gAllServiceParams;
extern uint32_t gServiceCount;  // services started; under gServiceStartupCs
extern XoCriticalSection gServiceStartupCs;
extern XoCriticalSection nwSvcStartLock;
extern XoThreadPool gWorkerPool;   // "OXEL": handlers
extern XoThreadPool gRPCSendPool;  // "OXEL_SEND": replies

// ---- Settings (oxelService_settings.cpp). Under nwSvcStartLock, before any listener exists. ----

// Both always return true: a missing key has a default.
bool InitializeNfs3Service();
bool InitializeMount3Service();
// Reads whether clients are to be protected from each other, which decides what carries calls.
void InitializeHardenedMode();
// gMaxRPCRecvSize and gMaxRPCSendSize from NFS3_MAXBUF_SIZE.
void ComputeTransportBufferSizes();

// ---- Starting and receiving (oxelService_listener.cpp) ----

// Starts all four services; does nothing when they are started already. Any thread; the second of
// two waits for the first. False with the name of the failed step.
bool StartNetworkServices(std::string& failedStep);
// Tries every 60 s until it works (`retry`) or the process is to stop.
bool StartNfs3Service(bool retry);
bool StartMount3Service(void* unused);
void* StartRPCService(void* opaque);  // thread body; an RPCServiceArgs*
// Binds (the first time), makes the transports, registers; sets the done event before it returns.
OxelServiceStatus StartTcpService(RPCServiceArgs* args);
// The receive loop: the only thread that reads from sockets, until the stop flag is set.
void* svcRun(void* unused);
// Ends the receive loop's present wait; any thread.
void WakeReceiveLoop();
// Waits until the receive loop has ended, if it runs, and its thread with it. False after
// `milliseconds`. For the thread that ends the process.
bool WaitForReceiveLoop(uint32_t milliseconds);
// Waits until the calls that have been received are answered. False after `milliseconds`. For the
// thread that ends the process, when nothing is received any more.
bool WaitForCallsInFlight(uint32_t milliseconds);
void SaveServicePort(unsigned int program, unsigned short port);
// Closes the socket if it is valid, with the transports on it, and frees and clears both entries.
void CleanupSocket(CLuSocket& socket, netconfig*& ipv4, netconfig*& ipv6);

// ---- Port mapper (oxelService_portmap.cpp) ----

bool_t UnRegisterWithPortMapperOS(const RPCServiceArgs* args);
bool UnRegisterWithPortMapper(const RPCServiceArgs* args);
bool_t RegisterWithPortMapperOS(const RPCServiceArgs* args);
bool RegisterWithPortMapper(const RPCServiceArgs* args);
// Registers every started service, once per process.
void RegisterAllServicesWithPortMapper();

// ---- Dispatching (oxelService_dispatcher.cpp, oxelService_mount.cpp) ----

bool InitializeNFSRPCThreadPool();
// Timer callback: re-reads the handler thread count; `pool` is an XoThreadPool*.
XOTimerErrno ReadRegistryForRPCThreadCnt(void* pool);
void* HandleNFSRPC(void* record);
void* SendNFSRPC(void* record);
// As SendNFSRPC, for a carrier that keeps a connection's replies apart without the share's lock.
void SendWithoutShareLock(CallInfo3* call);
// What svc_reg() is given for NFS and for MOUNT.
RPCServiceArgs::Dispatcher NfsDispatcher();
RPCServiceArgs::Dispatcher MountDispatcher();

// ---- Control verbs (oxelService_control.cpp) ----

// Gives the companion service the answers to status, perf, log-level and stop, and to what
// the two below add.
void InstallControlHandlers();
// The state in words.
const char* StateText(OxelServiceStatus state);
// exports, mounts and reload (oxelService_shares.cpp).
void InstallShareControlHandlers();
// stats and clients (oxelService_stats.cpp).
void InstallCallControlHandlers();
// Reads the exports file of the instance anew; the log has the outcome. Any thread.
void ReloadShares();
// The orderly end of the process: sets the stop flag and ends every wait. Any thread.
void RequestStop();
