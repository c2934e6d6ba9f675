// SPDX-License-Identifier: Apache-2.0
//
// The settings: what each key does, what holds without it, and what is said about it.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "bin/oxelService.h"
#include "private_root.h"
#include "tests/support/log_capture.h"

using oxel::test::LogCapture;
using oxel::test::LogLine;
using oxel::test::PrivateRoot;

namespace {

const std::string kNfs = "bool InitializeNfs3Service()";
const std::string kMount = "bool InitializeMount3Service()";

// The settings as they are before the store is read.
class Settings : public testing::Test {
  protected:
    void SetUp() override { Restore(); }
    void TearDown() override { Restore(); }
    static void Restore() {
        OxelServiceGlobals::SetNFSProgram(100003);
        OxelServiceGlobals::SetMountProgram(100005);
        OxelServiceGlobals::SetNFSPort(0);
        OxelServiceGlobals::SetMountPort(0);
        OxelServiceGlobals::SetCoExistWithOtherNFSServers(false);
        NFS3_MAXBUF_SIZE = 262144;
        gMaxRPCRecvSize = gMaxRPCSendSize = 524288;
        gMultiThreadRPCHandling = true;
        gDummyReadsAndWrites = false;
        gWindowsClientSupport = false;
        gOxelFdCacheSize = 100;
        gHardened = false;
    }
    void Read(const std::string& keys) {
        root_.WriteConf("[Oxel]\n" + keys);
        EXPECT_TRUE(InitializeNfs3Service());
        EXPECT_TRUE(InitializeMount3Service());
    }

    PrivateRoot root_;
    LogCapture log_{1};
};

}  // namespace

TEST_F(Settings, AnEmptyStoreGivesTheDefaults) {
    EXPECT_TRUE(InitializeNfs3Service());
    EXPECT_TRUE(InitializeMount3Service());
    EXPECT_EQ(OxelServiceGlobals::nfsProgram, 100003u);
    EXPECT_EQ(OxelServiceGlobals::nfsPort, 2049);
    EXPECT_EQ(OxelServiceGlobals::mountProgram, 100005u);
    EXPECT_EQ(OxelServiceGlobals::mountPort, 2049);
    EXPECT_EQ(NFS3_MAXBUF_SIZE, 262144u);
    EXPECT_EQ(gMaxRPCRecvSize, 524288u);
    EXPECT_EQ(gMaxRPCSendSize, 524288u);
    EXPECT_TRUE(gMultiThreadRPCHandling);
    EXPECT_FALSE(gDummyReadsAndWrites);
    EXPECT_FALSE(gWindowsClientSupport);
    EXPECT_EQ(gOxelFdCacheSize, 100);
    EXPECT_FALSE(OxelServiceGlobals::coExistWithOtherNFSServers);
}

TEST_F(Settings, AnEmptyStoreIsToldInThisOrder) {
    InitializeNfs3Service();
    InitializeMount3Service();
    EXPECT_EQ(log_.Lines(),
              (std::vector<LogLine>{
                  {1, kNfs, "No NFS Program given in registry. Defaulting to [100003]"},
                  {1, kNfs, "No NfsPort given in registry. Defaulting to [2049]"},
                  {1, kNfs, "MAX Buf Size not set. Defaulting to [256 KB]."},
                  {1, kNfs, "Multi Threaded RPC handling [Enabled]"},
                  {1, kNfs, "Dummy Reads and Writes [Disabled]"},
                  {1, kNfs, "Windows NFS Client Support [Disabled]"},
                  {1, kNfs, "oxel FD Cache Size [100]"},
                  {1, kNfs, "CoExist with other NFS Servers [false]"},
                  {1, kNfs, "InitializeNfs3Service SUCCESS."},
                  {1, kMount, "No Mount Program given in registry. Defaulting to [100005]"},
                  {1, kMount, "Mount Program Number [100005]"},
                  {1, kMount, "Mount Port [2049]"},
              }))
        << log_.Dump();
}

TEST_F(Settings, EveryKeyThatIsPresentIsToldInThisOrder) {
    Read(
        "nNfs3Program = 300000\nnNfs3Port = 3049\nnMaxBufSize = 512\n"
        "nDisableMultiThreadRPC = 1\nnEnableDummyReadsAndWrites = 1\n"
        "nEnableWindowsNFSClientSupport = 1\noxelFdCacheSize = 7\nnAllowOtherNFSServers = 1\n"
        "nMount3Program = 100005\n");
    EXPECT_EQ(log_.Lines(), (std::vector<LogLine>{
                                {1, kNfs, "MAX buf size set to [512 KB]"},
                                {1, kNfs, "Multi Threaded RPC handling [Disabled]"},
                                {1, kNfs, "Dummy Reads and Writes [Enabled]"},
                                {1, kNfs, "Windows NFS Client Support [Enabled]"},
                                {1, kNfs, "oxel FD Cache Size [7]"},
                                {1, kNfs, "CoExist with other NFS Servers [true]"},
                                {1, kNfs, "InitializeNfs3Service SUCCESS."},
                                {1, kMount, "Mount Program Number [100005]"},
                                {1, kMount, "Mount Port [3049]"},
                            }))
        << log_.Dump();
    EXPECT_EQ(OxelServiceGlobals::nfsProgram, 300000u);
    EXPECT_EQ(OxelServiceGlobals::nfsPort, 3049);
    EXPECT_EQ(OxelServiceGlobals::mountPort, 3049);
    EXPECT_EQ(NFS3_MAXBUF_SIZE, 512u * 1024);
    EXPECT_EQ(gMaxRPCRecvSize, 1024u * 1024);
    EXPECT_EQ(gMaxRPCSendSize, 1024u * 1024);
    EXPECT_FALSE(gMultiThreadRPCHandling);
    EXPECT_TRUE(gDummyReadsAndWrites);
    EXPECT_TRUE(gWindowsClientSupport);
    EXPECT_EQ(gOxelFdCacheSize, 7);
    EXPECT_TRUE(OxelServiceGlobals::coExistWithOtherNFSServers);
}

TEST_F(Settings, ProgramNumberIsUsedUnchanged) {
    Read("nNfs3Program = 0xfffffffe\n");
    EXPECT_EQ(OxelServiceGlobals::nfsProgram, 0xfffffffeu);
}

TEST_F(Settings, PortKeepsItsLow16Bits) {
    Read("nNfs3Port = 67585\n");  // 65536 + 2049
    EXPECT_EQ(OxelServiceGlobals::nfsPort, 2049);
    EXPECT_EQ(OxelServiceGlobals::mountPort, 2049);
}

TEST_F(Settings, PortOf0Stays0) {
    Read("nNfs3Port = 0\n");
    EXPECT_EQ(OxelServiceGlobals::nfsPort, 0);
    EXPECT_EQ(OxelServiceGlobals::mountPort, 0);
    EXPECT_FALSE(log_.Has(1, "No NfsPort given in registry. Defaulting to [2049]"));
}

TEST_F(Settings, TransferSizeOf1024IsServedWithoutAnError) {
    Read("nMaxBufSize = 1024\n");
    EXPECT_EQ(NFS3_MAXBUF_SIZE, 1u << 20);
    EXPECT_EQ(gMaxRPCSendSize, 2u << 20);
    EXPECT_TRUE(log_.AtLevel(-1).empty()) << log_.Dump();
}

TEST_F(Settings, TransferSizeOf2048IsServedInSpiteOfItsErrorLine) {
    Read("nMaxBufSize = 2048\n");
    EXPECT_EQ(NFS3_MAXBUF_SIZE, 2u << 20);
    EXPECT_EQ(gMaxRPCRecvSize, 4u << 20);
    EXPECT_EQ(gMaxRPCSendSize, 4u << 20);
    const std::vector<LogLine> lines = log_.Lines();
    const LogLine error{-1, kNfs,
                        "Error: MAX buf size cannot be > [1024 KB]. Resetting to default value "
                        "[256 KB]."};
    const auto found = std::find(lines.begin(), lines.end(), error);
    ASSERT_NE(found, lines.end()) << log_.Dump();
    ASSERT_NE(found, lines.begin());
    EXPECT_EQ(*(found - 1), (LogLine{1, kNfs, "MAX buf size set to [2048 KB]"}));
}

TEST_F(Settings, TransferSizeOf64KeepsTheUsualTransportBuffers) {
    Read("nMaxBufSize = 64\n");
    EXPECT_EQ(NFS3_MAXBUF_SIZE, 65536u);
    EXPECT_EQ(gMaxRPCRecvSize, 524288u);
    EXPECT_EQ(gMaxRPCSendSize, 524288u);
}

TEST_F(Settings, TransferSizeOf0Is0) {
    Read("nMaxBufSize = 0\n");
    EXPECT_EQ(NFS3_MAXBUF_SIZE, 0u);
    EXPECT_EQ(gMaxRPCSendSize, 524288u);
    EXPECT_TRUE(log_.Has(1, "MAX buf size set to [0 KB]"));
}

TEST_F(Settings, TransferSizeIsComputedIn32Bits) {
    Read("nMaxBufSize = 4194305\n");  // 2^22 + 1 KiB
    EXPECT_EQ(NFS3_MAXBUF_SIZE, 1024u);
}

TEST_F(Settings, TransferSizeOf16MiBGetsBuffersOf32) {
    Read("nMaxBufSize = 16384\n");
    EXPECT_EQ(NFS3_MAXBUF_SIZE, 16u << 20);
    EXPECT_EQ(gMaxRPCRecvSize, 32u << 20);
}

TEST_F(Settings, ASwitchOf0IsOffAndSaysSo) {
    gDummyReadsAndWrites = gWindowsClientSupport = true;
    gMultiThreadRPCHandling = false;
    Read(
        "nDisableMultiThreadRPC = 0\nnEnableDummyReadsAndWrites = 0\n"
        "nEnableWindowsNFSClientSupport = 0\n");
    EXPECT_TRUE(gMultiThreadRPCHandling);
    EXPECT_FALSE(gDummyReadsAndWrites);
    EXPECT_FALSE(gWindowsClientSupport);
    EXPECT_TRUE(log_.Has(1, "Multi Threaded RPC handling [Enabled]"));
    EXPECT_TRUE(log_.Has(1, "Dummy Reads and Writes [Disabled]"));
    EXPECT_TRUE(log_.Has(1, "Windows NFS Client Support [Disabled]"));
}

TEST_F(Settings, AnAbsentSwitchLeavesWhatHolds) {
    gDummyReadsAndWrites = gWindowsClientSupport = true;
    gMultiThreadRPCHandling = false;
    gOxelFdCacheSize = 5;
    Read("");
    EXPECT_FALSE(gMultiThreadRPCHandling);
    EXPECT_TRUE(gDummyReadsAndWrites);
    EXPECT_TRUE(gWindowsClientSupport);
    EXPECT_EQ(gOxelFdCacheSize, 5);
    EXPECT_TRUE(log_.Has(1, "Multi Threaded RPC handling [Disabled]"));
    EXPECT_TRUE(log_.Has(1, "Dummy Reads and Writes [Enabled]"));
    EXPECT_TRUE(log_.Has(1, "oxel FD Cache Size [5]"));
}

TEST_F(Settings, DescriptorCacheSizeHasNoBounds) {
    Read("oxelFdCacheSize = 4294967295\n");
    EXPECT_EQ(gOxelFdCacheSize, -1);
    EXPECT_TRUE(log_.Has(1, "oxel FD Cache Size [-1]"));
    Read("oxelFdCacheSize = 1000000\n");
    EXPECT_EQ(gOxelFdCacheSize, 1000000);
}

TEST_F(Settings, CoExistenceInTheStoreOverridesTheCommandLineInBothDirections) {
    OxelServiceGlobals::SetCoExistWithOtherNFSServers(true);  // "-no_pm_reg"
    Read("nAllowOtherNFSServers = 0\n");
    EXPECT_FALSE(OxelServiceGlobals::coExistWithOtherNFSServers);
    EXPECT_TRUE(log_.Has(1, "CoExist with other NFS Servers [false]"));

    Read("nAllowOtherNFSServers = 2\n");
    EXPECT_TRUE(OxelServiceGlobals::coExistWithOtherNFSServers);
    EXPECT_TRUE(log_.Has(1, "CoExist with other NFS Servers [true]"));
}

TEST_F(Settings, WithoutTheKeyCoExistenceIsTheCommandLines) {
    OxelServiceGlobals::SetCoExistWithOtherNFSServers(true);
    Read("");
    EXPECT_TRUE(OxelServiceGlobals::coExistWithOtherNFSServers);
}

TEST_F(Settings, MountIsProgram100005WhateverTheStoreSays) {
    Read("nMount3Program = 200000\n");
    EXPECT_EQ(OxelServiceGlobals::mountProgram, 100005u);
    EXPECT_TRUE(log_.Has(1, "Mount Program Number [100005]"));
    EXPECT_FALSE(log_.Has(1, "No Mount Program given in registry. Defaulting to [100005]"));
}

TEST_F(Settings, KeysOfOtherSectionsAreNotTheDaemons) {
    root_.WriteConf("[oxel]\nnNfs3Port = 1\n[Runtime]\nnNfs3Port = 2\n[Oxel]\nnnfs3port = 3\n");
    InitializeNfs3Service();
    EXPECT_EQ(OxelServiceGlobals::nfsPort, 2049);
}

TEST_F(Settings, HardenedModeIsOffUntilTheStoreTurnsItOn) {
    InitializeHardenedMode();
    EXPECT_FALSE(gHardened);
    root_.WriteConf("[Oxel]\nnHardened = 1\n");
    InitializeHardenedMode();
    EXPECT_TRUE(gHardened);
}
