// SPDX-License-Identifier: Apache-2.0
//
// The settings of the NFS and MOUNT services, read once when the network services start.
#include <algorithm>

#include "base/log.h"
#include "base/log_clients.h"
#include "base/store.h"
#include "bin/oxelService.h"
#include "bin/oxelService_carrier.h"

static constexpr uint32_t kNfsProgramDefault = 100003;
static constexpr uint32_t kMountProgram = 100005;
static constexpr uint32_t kNfsPortDefault = 2049;
static constexpr uint64_t kTransferBytesDefault = 256 << 10;
static constexpr uint32_t kTransferKbMax = 1024;

void ComputeTransportBufferSizes() {
    // A buffer never drops below twice the default transfer, however small transfers are.
    gMaxRPCRecvSize = 2u * static_cast<uint32_t>(std::max(NFS3_MAXBUF_SIZE, kTransferBytesDefault));
    gMaxRPCSendSize = gMaxRPCRecvSize;
}

bool InitializeNfs3Service() {
    XOPlatformInfo store;

    unsigned int program = kNfsProgramDefault;
    if (!store.getNumber("Oxel", "nNfs3Program", &program))
        OXEL_LOG(1, "No NFS Program given in registry. Defaulting to [%d]",
                 static_cast<int>(program));
    OxelServiceGlobals::SetNFSProgram(program);

    unsigned int number = 0;
    if (!store.getNumber("Oxel", "nNfs3Port", &number)) {
        number = kNfsPortDefault;
        OXEL_LOG(1, "No NfsPort given in registry. Defaulting to [%d]", static_cast<int>(number));
    }
    OxelServiceGlobals::SetNFSPort(static_cast<uint16_t>(number));

    NFS3_MAXBUF_SIZE = kTransferBytesDefault;
    if (store.getNumber("Oxel", "nMaxBufSize", &number)) {
        OXEL_LOG(1, "MAX buf size set to [%d KB]", static_cast<int>(number));
        // A size beyond the usual bound is worth an error line, but it is served: sizes up to
        // 16 MiB have always been used in spite of what the line says.
        if (number > kTransferKbMax)
            OXEL_LOG(-1,
                     "Error: MAX buf size cannot be > [%d KB]. Resetting to default value "
                     "[%ld KB].",
                     static_cast<int>(kTransferKbMax), static_cast<long>(NFS3_MAXBUF_SIZE / 1024));
        const uint32_t bytes = number * 1024u;  // in 32 bits, as it always was
        NFS3_MAXBUF_SIZE = bytes;
    } else {
        OXEL_LOG(1, "MAX Buf Size not set. Defaulting to [%ld KB].",
                 static_cast<long>(NFS3_MAXBUF_SIZE / 1024));
    }
    ComputeTransportBufferSizes();

    unsigned int value = 0;
    if (store.getNumber("Oxel", "nDisableMultiThreadRPC", &value))
        gMultiThreadRPCHandling = value == 0;
    OXEL_LOG(1, "Multi Threaded RPC handling [%s]",
             gMultiThreadRPCHandling ? "Enabled" : "Disabled");

    value = 0;
    if (store.getNumber("Oxel", "nEnableDummyReadsAndWrites", &value))
        gDummyReadsAndWrites = value != 0;
    OXEL_LOG(1, "Dummy Reads and Writes [%s]", gDummyReadsAndWrites ? "Enabled" : "Disabled");

    value = 0;
    if (store.getNumber("Oxel", "nEnableWindowsNFSClientSupport", &value))
        gWindowsClientSupport = value != 0;
    OXEL_LOG(1, "Windows NFS Client Support [%s]", gWindowsClientSupport ? "Enabled" : "Disabled");

    value = 0;
    if (store.getNumber("Oxel", "oxelFdCacheSize", &value))
        gOxelFdCacheSize = static_cast<int32_t>(value);
    OXEL_LOG(1, "oxel FD Cache Size [%d]", gOxelFdCacheSize);

    value = 0;
    if (store.getNumber("Oxel", "nAllowOtherNFSServers", &value))
        OxelServiceGlobals::SetCoExistWithOtherNFSServers(value != 0);
    OXEL_LOG(1, "CoExist with other NFS Servers [%s]",
             OxelServiceGlobals::coExistWithOtherNFSServers ? "true" : "false");

    OXEL_LOG(1, "InitializeNfs3Service SUCCESS.");
    return true;
}

bool InitializeMount3Service() {
    XOPlatformInfo store;

    OxelServiceGlobals::SetMountProgram(kMountProgram);
    unsigned int program = kMountProgram;
    if (!store.getNumber("Oxel", "nMount3Program", &program))
        OXEL_LOG(1, "No Mount Program given in registry. Defaulting to [%d]",
                 static_cast<int>(program));
    // Clients look MOUNT up under its well-known number, whatever the store says.
    OxelServiceGlobals::SetMountProgram(kMountProgram);
    OXEL_LOG(1, "Mount Program Number [%d]", static_cast<int>(kMountProgram));

    OxelServiceGlobals::SetMountPort(OxelServiceGlobals::nfsPort);
    OXEL_LOG(1, "Mount Port [%d]", static_cast<int>(OxelServiceGlobals::mountPort));
    return true;
}

static Carrier* gCarrier = nullptr;

Carrier& CarrierInUse() {
    return gCarrier != nullptr ? *gCarrier : SelectCarrier();
}

void InitializeHardenedMode() {
    unsigned int value = 0;
    XOPlatformInfo().getNumber("Oxel", "nHardened", &value);
    gHardened = value != 0;
    oxel::ClientsLog::Bound(gHardened);
    gCarrier = gHardened ? &EventCarrier() : &SelectCarrier();
    OXEL_LOG(1, "Hardened mode [%s]", gHardened ? "Enabled" : "Disabled");
}
