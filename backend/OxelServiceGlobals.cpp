// SPDX-License-Identifier: Apache-2.0
//
// The process-wide state and settings with the values they have before the store is read: an empty
// store gives a working server.
#include "backend/OxelServiceGlobals.h"

#include "base/thread.h"

std::string OxelServiceGlobals::clientName;
std::atomic<bool> OxelServiceGlobals::doNotStartNFSServices{false};
std::atomic<bool> OxelServiceGlobals::coExistWithOtherNFSServers{false};
std::atomic<bool> OxelServiceGlobals::doNotNeedDiskCache{false};
std::atomic<bool> OxelServiceGlobals::networkServicesStarted{false};
std::atomic<bool> OxelServiceGlobals::portMapperRegistered{false};
std::atomic<OxelServiceStatus> OxelServiceGlobals::oxelStatus{OxelStarting};
std::atomic<int> OxelServiceGlobals::exitProcess{0};
std::atomic<uint32_t> OxelServiceGlobals::serverStartTime{0};
std::atomic<uint32_t> OxelServiceGlobals::nfsProgram{100003};
std::atomic<uint32_t> OxelServiceGlobals::mountProgram{100005};
// No port until the settings are read; then the requested one, and the bound one in the end.
std::atomic<uint16_t> OxelServiceGlobals::nfsPort{0};
std::atomic<uint16_t> OxelServiceGlobals::mountPort{0};

uint64_t NFS3_MAXBUF_SIZE = 256 << 10;
// Twice the transfer size: a WRITE call or a READ reply with its headers always fits.
uint32_t gMaxRPCRecvSize = 2 * 256 * 1024;
uint32_t gMaxRPCSendSize = 2 * 256 * 1024;
bool gMultiThreadRPCHandling = true;
bool gDummyReadsAndWrites = false;
bool gWindowsClientSupport = false;
int32_t gOxelFdCacheSize = 100;
std::atomic<bool> gHardened{false};

void OxelServiceGlobals::SetExitProcess(int value) {
    exitProcess = value;
    // Nobody waits out a sleep once the process is to end.
    if (value != 0) oxel::WakeSleepers();
}
