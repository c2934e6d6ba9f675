// SPDX-License-Identifier: Apache-2.0
//
// The MOUNT protocol on the wire.
#include <gtest/gtest.h>
#include <unistd.h>

#include <nlohmann/json.hpp>
#include <set>

#include "tests/wire/wire_fixture.h"

namespace oxel::test {
namespace {

using Mount = WireTest;

TEST_P(Mount, AnswersTheRootHandleAndTwoFlavours) {
    NfsClient client(Port());
    RpcCall call = client.Mount(mnt::kMnt, XdrWriter().Opaque("/rw").Bytes());
    XdrReader reader(client.Results(call));
    EXPECT_EQ(reader.U32(), 0u);
    const std::string handle = reader.Opaque();
    EXPECT_EQ(Hex(reader.Rest()), Hex(XdrWriter().U32(2).U32(0).U32(1).Bytes()));
    ASSERT_GE(handle.size(), 8u);
    ASSERT_LE(handle.size(), 64u);
    XdrReader words(handle.substr(0, 8));
    EXPECT_EQ(words.U32(), 1u) << "the module type";
    EXPECT_EQ(words.U32(), 7u) << "the share's id";
    EXPECT_EQ(AttributesBytes(client.GetAttributes(handle)),
              AttributesBytes(ExpectedAttributes(tree_.Path("rw"))));
    EXPECT_TRUE(daemon_.WaitForLog("Request to mount [/rw]."));
    EXPECT_TRUE(daemon_.LogHas("Successfully added mount point [/rw : 7]."));
    EXPECT_TRUE(daemon_.LogHas("FSMType = [1]."));
}

TEST_P(Mount, NeedsNoCredential) {
    RpcConnection connection(Port());
    RpcCall call;
    call.program = kMountProgram;
    call.procedure = mnt::kMnt;
    call.arguments = XdrWriter().Opaque("/rw").Bytes();
    RpcReply reply = connection.Call(call);
    EXPECT_TRUE(reply.Success());
    EXPECT_EQ(XdrReader(reply.results).U32(), 0u);
}

TEST_P(Mount, ThePathIsTakenInStoredForm) {
    NfsClient client(Port());
    EXPECT_EQ(Hex(client.MountShare("//rw///")), Hex(client.MountShare("/rw")));
    uint32_t status = 0;
    client.MountShare("/rw/.", &status);
    EXPECT_EQ(status, 2u);
}

TEST_P(Mount, OnlyASharesOwnPathCanBeMounted) {
    tree_.MakeDir("rw/below");
    NfsClient client(Port());
    for (const char* path : {"/rw/below", "/", "", "rw", "/nothing", "/rw\x01"}) {
        RpcCall call = client.Mount(mnt::kMnt, XdrWriter().Opaque(path).Bytes());
        EXPECT_EQ(Hex(client.Connection().CallRaw(call)),
                  Hex(SuccessReply(call.xid, StatusWord(2))))
            << path;
    }
    EXPECT_TRUE(daemon_.WaitForLog("[/nothing] is not exported."));
    // A client cannot write lines into the log.
    EXPECT_TRUE(daemon_.WaitForLog("[/rw\\x01] is not exported."));
}

TEST_P(Mount, RefusedClientsAreToldSo) {
    NfsClient client(Port());
    RpcCall call = client.Mount(mnt::kMnt, XdrWriter().Opaque("/other").Bytes());
    EXPECT_EQ(Hex(client.Connection().CallRaw(call)), Hex(SuccessReply(call.xid, StatusWord(13))));
    EXPECT_TRUE(
        daemon_.WaitForLog("Client [127.0.0.1] is not authorized to mount share [/other]."));
}

TEST_P(Mount, SecureSharesWantAReservedPort) {
    NfsClient client(Port());
    uint32_t status = 0;
    client.MountShare("/secure", &status);
    EXPECT_EQ(status, 13u);
    if (geteuid() != 0) GTEST_SKIP() << "a port below 1024 needs root";
    RpcConnection reserved(Port(), RpcConnection::Family::kIPv4, true);
    ASSERT_TRUE(reserved.Connected());
    RpcReply reply = reserved.Call(client.Mount(mnt::kMnt, XdrWriter().Opaque("/secure").Bytes()));
    EXPECT_EQ(XdrReader(reply.results).U32(), 0u);
}

TEST_P(Mount, Ipv6ClientsAreServedToo) {
    RpcConnection connection(Port(), RpcConnection::Family::kIPv6);
    ASSERT_TRUE(connection.Connected());
    RpcCall call;
    call.program = kMountProgram;
    call.procedure = mnt::kMnt;
    call.arguments = XdrWriter().Opaque("/rw").Bytes();
    EXPECT_EQ(XdrReader(connection.Call(call).results).U32(), 0u);
}

TEST_P(Mount, ExportListsEveryShareButTheUnlisted) {
    NfsClient client(Port());
    XdrReader reader(client.Results(client.Mount(mnt::kExport, "")));
    std::multiset<std::string> listed;
    while (reader.Bool()) {
        listed.insert(reader.Opaque());
        EXPECT_FALSE(reader.Bool()) << "groups are never told";
    }
    EXPECT_EQ(reader.Left(), 0u);
    EXPECT_EQ(listed, (std::multiset<std::string>{"/other", "/ro", "/rw", "/second", "/secure"}));
}

TEST_P(Mount, UnlistedSharesCanBeMounted) {
    NfsClient client(Port());
    XdrReader words(client.MountShare("/hidden").substr(0, 8));
    EXPECT_EQ(words.U32(), 2u) << "the module type of unlisted shares";
    EXPECT_EQ(words.U32(), 9u);
}

TEST_P(Mount, DumpIsAlwaysEmpty) {
    NfsClient client(Port());
    client.MountShare("/rw");
    EXPECT_EQ(Hex(client.Results(client.Mount(mnt::kDump, ""))), Hex(Nothing()));
}

TEST_P(Mount, UnmountingAnswersNothingWhateverThePath) {
    NfsClient client(Port());
    const std::string root = client.MountShare("/rw");
    for (const char* path : {"/rw", "//rw/", "/nothing", ""})
        EXPECT_EQ(client.Results(client.Mount(mnt::kUmnt, XdrWriter().Opaque(path).Bytes())), "");
    EXPECT_EQ(client.Results(client.Mount(mnt::kUmntall, "")), "");
    EXPECT_TRUE(daemon_.WaitForLog("Client [127.0.0.1] unmounted [/rw]"));
    EXPECT_TRUE(daemon_.LogHas("Export [/nothing] not found."));
    // Handles live on.
    EXPECT_EQ(client.GetAttributes(root).type, 2u);
}

TEST_P(Mount, OldVersionsHaveTheirFewProcedures) {
    NfsClient client(Port());
    const std::string path = XdrWriter().Opaque("/rw").Bytes();
    for (uint32_t version : {1u, 2u}) {
        for (uint32_t procedure = 0; procedure <= 7; ++procedure) {
            const bool has = procedure == 0 || procedure == 3 || (procedure == 5 && version == 1);
            RpcCall call = client.Mount(procedure, path, version);
            RpcReply reply = client.Connection().Call(call);
            EXPECT_EQ(reply.Success(), has) << version << " " << procedure;
            if (!has) {
                EXPECT_EQ(Hex(client.Connection().CallRaw(call)),
                          Hex(MismatchReply(call.xid, 3, 3)));
            }
        }
    }
}

TEST_P(Mount, MountsAreRememberedOnDisk) {
    NfsClient client(Port());
    client.MountShare("/rw");
    // MNT is answered after the registry is written.
    nlohmann::json registry = nlohmann::json::parse(
        ReadFile(tree_.Path("var/lib/oxelnfsd/wire/registry.json")), nullptr, false);
    ASSERT_TRUE(registry.is_object());
    bool found = false;
    for (const auto& share : registry["shares"]) {
        if (share["id"] != 7) continue;
        found = true;
        EXPECT_EQ(share["path"], "/rw");
        EXPECT_TRUE(share["lastAccess"].is_string());
        ASSERT_EQ(share["mounts"].size(), 1u);
        EXPECT_EQ(share["mounts"][0]["client"], "127.0.0.1");
    }
    EXPECT_TRUE(found);
}

OXEL_ALL_MODES(Mount);

}  // namespace
}  // namespace oxel::test
