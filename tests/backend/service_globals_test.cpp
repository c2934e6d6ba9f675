// SPDX-License-Identifier: Apache-2.0
//
// The values that settings have before the store is read, and the stop flag.
#include "backend/OxelServiceGlobals.h"

#include <gtest/gtest.h>

#include "base/thread.h"

TEST(ServiceGlobals, SettingsStartWithTheValuesOfAnEmptyStore) {
    EXPECT_EQ(NFS3_MAXBUF_SIZE, 262144u);
    EXPECT_EQ(gMaxRPCRecvSize, 524288u);
    EXPECT_EQ(gMaxRPCSendSize, 524288u);
    EXPECT_TRUE(gMultiThreadRPCHandling);
    EXPECT_FALSE(gDummyReadsAndWrites);
    EXPECT_FALSE(gWindowsClientSupport);
    EXPECT_EQ(gOxelFdCacheSize, 100);
    EXPECT_FALSE(gHardened);
    EXPECT_EQ(OxelServiceGlobals::oxelStatus, OxelStarting);
    EXPECT_EQ(OxelServiceGlobals::exitProcess, 0);
    EXPECT_EQ(OxelServiceGlobals::clientName, "");
    EXPECT_FALSE(OxelServiceGlobals::coExistWithOtherNFSServers);
    EXPECT_FALSE(OxelServiceGlobals::doNotStartNFSServices);
}

TEST(ServiceGlobals, SettingTheStopFlagEndsSleeps) {
    OxelServiceGlobals::SetExitProcess(0);
    EXPECT_TRUE(LUSLEEP(1));
    OxelServiceGlobals::SetExitProcess(1);
    // A sleep that is not cut short would run into the test's time-out.
    EXPECT_FALSE(LUSLEEP(3600 * 1000));
    OxelServiceGlobals::SetExitProcess(0);
    oxel::ResetSleepers();
}

TEST(ServiceGlobals, SettersAssignTheMemberOfTheirName) {
    OxelServiceGlobals::SetClientName("client");
    EXPECT_EQ(OxelServiceGlobals::clientName, "client");
    OxelServiceGlobals::SetClientName("");
    OxelServiceGlobals::SetOxelStatus(OxelNoBind);
    EXPECT_EQ(static_cast<int>(OxelServiceGlobals::oxelStatus.load()), 6);
    OxelServiceGlobals::SetOxelStatus(OxelStarting);
    OxelServiceGlobals::SetNFSPort(1);
    OxelServiceGlobals::SetMountPort(2);
    OxelServiceGlobals::SetNFSProgram(3);
    OxelServiceGlobals::SetMountProgram(4);
    OxelServiceGlobals::SetServerStartTime(5);
    EXPECT_EQ(OxelServiceGlobals::nfsPort, 1);
    EXPECT_EQ(OxelServiceGlobals::mountPort, 2);
    EXPECT_EQ(OxelServiceGlobals::nfsProgram, 3u);
    EXPECT_EQ(OxelServiceGlobals::mountProgram, 4u);
    EXPECT_EQ(OxelServiceGlobals::serverStartTime, 5u);
}

TEST(ServiceGlobals, WriteAreaHasRoomForTwoMebibytesOrTheTransferSize) {
    EXPECT_EQ(WriteAreaBytes(), 2u << 20);
    NFS3_MAXBUF_SIZE = 16u << 20;
    EXPECT_EQ(WriteAreaBytes(), 16u << 20);
    NFS3_MAXBUF_SIZE = 262144;
}
