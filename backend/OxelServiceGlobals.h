// SPDX-License-Identifier: Apache-2.0
//
// Process-wide state and settings that both the service layer and the layers beneath it read.
// Everything is written while the network services start, before a worker or listener thread
// exists, and is constant afterwards; what changes later is atomic.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

// What oxelctl status shows as `state`.
enum OxelServiceStatus : int {
    OxelStarting = 1,
    OxelStarted = 2,
    OxelNoSocket = 4,        // no socket or no local address
    OxelNoRegistration = 5,  // netconfig, transport creation or registration failed
    OxelNoBind = 6,          // bind or listen failed
};

class OxelServiceGlobals {
  public:
    static std::string clientName;
    static std::atomic<bool> doNotStartNFSServices;
    static std::atomic<bool> coExistWithOtherNFSServers;
    static std::atomic<bool> doNotNeedDiskCache;  // for back ends; the local module has none
    static std::atomic<bool> networkServicesStarted;
    static std::atomic<bool> portMapperRegistered;
    static std::atomic<OxelServiceStatus> oxelStatus;
    static std::atomic<int> exitProcess;           // the stop flag
    static std::atomic<uint32_t> serverStartTime;  // seconds; the write verifier
    static std::atomic<uint32_t> nfsProgram, mountProgram;
    static std::atomic<uint16_t> nfsPort, mountPort;

    static void SetClientName(const std::string& value) { clientName = value; }
    static void SetDoNotStartNFSServices(bool value) { doNotStartNFSServices = value; }
    static void SetCoExistWithOtherNFSServers(bool value) { coExistWithOtherNFSServers = value; }
    static void SetDoNotNeedDiskCache(bool value) { doNotNeedDiskCache = value; }
    static void SetNetworkServicesStarted(bool value) { networkServicesStarted = value; }
    static void SetPortMapperRegistered(bool value) { portMapperRegistered = value; }
    static void SetOxelStatus(OxelServiceStatus value) { oxelStatus = value; }
    static void SetExitProcess(int value);  // also ends every LUSLEEP
    static void SetServerStartTime(uint32_t value) { serverStartTime = value; }
    static void SetNFSProgram(uint32_t value) { nfsProgram = value; }
    static void SetMountProgram(uint32_t value) { mountProgram = value; }
    static void SetNFSPort(uint16_t value) { nfsPort = value; }
    static void SetMountPort(uint16_t value) { mountPort = value; }
};

extern uint64_t NFS3_MAXBUF_SIZE;  // bytes: the largest READ or WRITE transfer
extern uint32_t gMaxRPCRecvSize;   // bytes: transport buffers
extern uint32_t gMaxRPCSendSize;
extern bool gMultiThreadRPCHandling;
extern bool gDummyReadsAndWrites;   // READ and WRITE skip the back end's read and write calls
extern bool gWindowsClientSupport;  // for back ends to read
extern int32_t gOxelFdCacheSize;
// One client must not be able to hurt another. Atomic: the control socket, which answers before the
// settings are read, shows it.
extern std::atomic<bool> gHardened;

// Room for a WRITE's data in a call record: 2 MiB, or the transfer size when that is larger.
inline constexpr uint64_t kWriteAreaBytesMin = 2u << 20;
inline uint64_t WriteAreaBytes() {
    return NFS3_MAXBUF_SIZE > kWriteAreaBytesMin ? NFS3_MAXBUF_SIZE : kWriteAreaBytesMin;
}
