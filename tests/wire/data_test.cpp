// SPDX-License-Identifier: Apache-2.0
//
// READ, WRITE and COMMIT on the wire.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/wire/wire_fixture.h"

namespace oxel::test {
namespace {

constexpr uint32_t kTransferBytes = 262144;
constexpr uint32_t kUnstable = 0, kDataSync = 1, kFileSync = 2;
constexpr uint32_t kGarbageArguments = 4;

std::string Pattern(size_t length, unsigned seed = 1) {
    std::string bytes(length, '\0');
    for (size_t i = 0; i < length; ++i)
        bytes[i] = static_cast<char>((i * 2654435761u + seed) >> 11);
    return bytes;
}

class Data : public WireTest {
  protected:
    void SetUp() override {
        WireTest::SetUp();
        if (HasFatalFailure()) return;
        Connect();
    }
    void TearDown() override { client_.reset(); }
    void Connect() {
        client_ = std::make_unique<NfsClient>(Port());
        root_ = client_->MountShare("/rw");
    }
    // The 8 bytes of the verifier that ends a WRITE or COMMIT reply.
    static std::string VerifierOf(const std::string& results) {
        return results.substr(results.size() - 8);
    }
    std::string CommitArguments(const std::string& handle) {
        return XdrWriter().Opaque(handle).U64(0).U32(0).Bytes();
    }

    std::unique_ptr<NfsClient> client_;
    std::string root_;
};

TEST_P(Data, ReadAnswersDataWithoutAttributes) {
    tree_.Write("rw/file", "0123456789");
    const std::string handle = client_->Lookup(root_, "file");
    struct {
        uint64_t offset;
        uint32_t count;
        const char* data;
        bool eof;
    } rows[] = {{0, 10, "0123456789", false},  // exactly the rest: the end is not known yet
                {0, 11, "0123456789", true},
                {0, 4, "0123", false},
                {7, 3, "789", false},
                {7, 4, "789", true},
                {10, 1, "", true},
                {11, 100, "", true},
                {0, 0, "", false},
                {1ull << 40, 5, "", true}};
    for (const auto& row : rows) {
        const std::string data = row.data;
        RpcCall call = client_->Nfs(nfs::kRead, ReadArguments(handle, row.offset, row.count));
        EXPECT_EQ(Hex(client_->Results(call)), Hex(XdrWriter()
                                                       .U32(0)
                                                       .Bool(false)
                                                       .U32(static_cast<uint32_t>(data.size()))
                                                       .Bool(row.eof)
                                                       .Opaque(data)
                                                       .Bytes()))
            << row.offset << "+" << row.count;
    }
}

TEST_P(Data, ReadsAreCutToTheTransferSize) {
    const std::string content = Pattern(kTransferBytes + 1000);
    tree_.Write("rw/big", content);
    const std::string handle = client_->Lookup(root_, "big");
    bool eof = true;
    EXPECT_TRUE(client_->Read(handle, 0, kTransferBytes + 1000, &eof) ==
                content.substr(0, kTransferBytes));
    EXPECT_FALSE(eof);
    EXPECT_TRUE(client_->Read(handle, 0, 0xffffffffu, &eof) == content.substr(0, kTransferBytes));
    EXPECT_TRUE(client_->Read(handle, kTransferBytes, kTransferBytes, &eof) ==
                content.substr(kTransferBytes));
    EXPECT_TRUE(eof);
}

TEST_P(Data, ReadOfADirectoryFails) {
    uint32_t status = 0;
    client_->Read(root_, 0, 100, nullptr, &status);
    EXPECT_EQ(status, 21u);
}

TEST_P(Data, WriteEchoesItsStabilityAndTellsTheFile) {
    tree_.Write("rw/file", "");
    const std::string handle = client_->Lookup(root_, "file");
    for (uint32_t stable : {kUnstable, kDataSync, kFileSync}) {
        const std::string data = Pattern(1000 + stable, stable);
        RpcCall call = client_->Nfs(nfs::kWrite, WriteArguments(handle, 0, stable, data));
        const std::string results = client_->Results(call);
        EXPECT_EQ(Hex(results), Hex(StatusWord(0) + Nothing() + PostOp("rw/file") +
                                    XdrWriter()
                                        .U32(static_cast<uint32_t>(data.size()))
                                        .U32(stable)
                                        .Raw(VerifierOf(results))
                                        .Bytes()));
        EXPECT_TRUE(ReadFile(tree_.Path("rw/file")) == data);
    }
}

TEST_P(Data, WritesOfTheTransferSizeArriveWholeAndLargerOnesAreGarbage) {
    tree_.Write("rw/file", "");
    const std::string handle = client_->Lookup(root_, "file");
    const std::string data = Pattern(kTransferBytes);
    EXPECT_EQ(
        client_->Status(client_->Nfs(nfs::kWrite, WriteArguments(handle, 5, kUnstable, data))), 0u);
    EXPECT_TRUE(ReadFile(tree_.Path("rw/file")) == std::string(5, '\0') + data);
    RpcCall call = client_->Nfs(nfs::kWrite,
                                WriteArguments(handle, 0, kUnstable, Pattern(kTransferBytes + 1)));
    EXPECT_EQ(client_->Connection().CallRaw(call), AcceptedReply(call.xid, kGarbageArguments));
    EXPECT_EQ(client_->Status(client_->Nfs(nfs::kWrite, WriteArguments(handle, 0, kUnstable, "x"))),
              0u);
}

TEST_P(Data, ACountBeyondTheDataWritesZerosNeverOldBytes) {
    tree_.Write("rw/file", "");
    const std::string handle = client_->Lookup(root_, "file");
    // Every record of the pool has held a secret before.
    for (int i = 0; i < 60; ++i)
        client_->Status(client_->Nfs(nfs::kWrite,
                                     WriteArguments(handle, 0, kUnstable, std::string(9000, 'S'))));
    SetAttributes empty;
    empty.size = 0;
    EXPECT_EQ(
        client_->Status(client_->Nfs(
            nfs::kSetattr, XdrWriter().Opaque(handle).Raw(empty.Bytes()).Bool(false).Bytes())),
        0u);
    RpcCall call = client_->Nfs(
        nfs::kWrite,
        XdrWriter().Opaque(handle).U64(0).U32(8000).U32(kUnstable).Opaque("abc").Bytes());
    EXPECT_EQ(client_->Status(call), 0u);
    EXPECT_TRUE(ReadFile(tree_.Path("rw/file")) == "abc" + std::string(7997, '\0'));
    // More than a record has room for.
    call = client_->Nfs(
        nfs::kWrite,
        XdrWriter().Opaque(handle).U64(0).U32(0xffffffffu).U32(kUnstable).Opaque("abc").Bytes());
    EXPECT_EQ(client_->Connection().CallRaw(call), AcceptedReply(call.xid, kGarbageArguments));
}

TEST_P(Data, AWriteOfNothingSucceeds) {
    tree_.Write("rw/file", "kept");
    const std::string handle = client_->Lookup(root_, "file");
    const std::string results =
        client_->Results(client_->Nfs(nfs::kWrite, WriteArguments(handle, 0, kFileSync, "")));
    EXPECT_EQ(Hex(results),
              Hex(StatusWord(0) + Nothing() + PostOp("rw/file") +
                  XdrWriter().U32(0).U32(kFileSync).Raw(VerifierOf(results)).Bytes()));
    EXPECT_EQ(ReadFile(tree_.Path("rw/file")), "kept");
}

TEST_P(Data, CommitTellsTheFileBeforeAndAfter) {
    tree_.Write("rw/file", "content");
    const std::string handle = client_->Lookup(root_, "file");
    const Attributes before = ExpectedAttributes(tree_.Path("rw/file"));
    const std::string results =
        client_->Results(client_->Nfs(nfs::kCommit, CommitArguments(handle)));
    EXPECT_EQ(Hex(results),
              Hex(StatusWord(0) + PreOp(before) + PostOp("rw/file") + VerifierOf(results)));
}

TEST_P(Data, OneRunHasOneVerifierTheStartTime) {
    tree_.Write("rw/file", "");
    const std::string handle = client_->Lookup(root_, "file");
    auto write = [&] {
        return VerifierOf(
            client_->Results(client_->Nfs(nfs::kWrite, WriteArguments(handle, 0, 0, "x"))));
    };
    const std::string verifier = write();
    EXPECT_EQ(Hex(write()), Hex(verifier));
    EXPECT_EQ(
        Hex(VerifierOf(client_->Results(client_->Nfs(nfs::kCommit, CommitArguments(handle))))),
        Hex(verifier));
    const uint64_t now = static_cast<uint64_t>(time(nullptr));
    const uint64_t started = XdrReader(verifier).U64();
    EXPECT_LE(started, now);
    EXPECT_GT(started + 3600, now);

    // A restart in a later second has another one.
    ASSERT_TRUE(WaitUntil([&] { return static_cast<uint64_t>(time(nullptr)) > started; }));
    client_.reset();
    ASSERT_EQ(daemon_.Stop(), 0);
    ASSERT_TRUE(daemon_.Start());
    Connect();
    EXPECT_NE(Hex(write()), Hex(verifier));
}

TEST_P(Data, CommitOfAMissingObjectIsNoent) {
    tree_.Write("rw/file", "");
    const std::string handle = client_->Lookup(root_, "file");
    ASSERT_EQ(unlink(tree_.Path("rw/file").c_str()), 0);
    EXPECT_EQ(Hex(client_->Results(client_->Nfs(nfs::kCommit, CommitArguments(handle)))),
              Hex(StatusWord(2) + Nothing() + Nothing()));
}

TEST_P(Data, WritesAndCommitsOnAReadOnlyShareAreRefused) {
    tree_.Write("ro/file", "kept");
    const std::string handle = client_->Lookup(client_->MountShare("/ro"), "file");
    EXPECT_EQ(Hex(client_->Results(client_->Nfs(nfs::kWrite, WriteArguments(handle, 0, 0, "x")))),
              Hex(StatusWord(13) + Nothing() + Nothing()));
    EXPECT_EQ(Hex(client_->Results(client_->Nfs(nfs::kCommit, CommitArguments(handle)))),
              Hex(StatusWord(13) + Nothing() + Nothing()));
    EXPECT_EQ(ReadFile(tree_.Path("ro/file")), "kept");
}

TEST_P(Data, UsersHaveTheirOwnRights) {
    if (geteuid() != 0) GTEST_SKIP() << "other users need root";
    tree_.Write("rw/private", "secret");
    ASSERT_EQ(chmod(tree_.Path("rw/private").c_str(), 0600), 0);
    const std::string handle = client_->Lookup(root_, "private");
    NfsClient other(Port(), 12345, 12345);
    uint32_t status = 0;
    other.Read(handle, 0, 10, nullptr, &status);
    EXPECT_EQ(status, 13u);
    EXPECT_EQ(other.Status(other.Nfs(nfs::kWrite, WriteArguments(handle, 0, 0, "x"))), 13u);
    EXPECT_EQ(client_->Read(handle, 0, 10), "secret");
    // The owner reads and writes whatever the mode says, as after a chmod of an open file.
    ASSERT_EQ(chown(tree_.Path("rw/private").c_str(), 12345, 12345), 0);
    ASSERT_EQ(chmod(tree_.Path("rw/private").c_str(), 0), 0);
    EXPECT_EQ(other.Read(handle, 0, 10), "secret");
}

OXEL_ALL_MODES(Data);

// The configured transfer size, from end to end.
class TransferSize : public WireTest {
  protected:
    void SetUp() override {}
};

TEST_P(TransferSize, ALargeOneIsUsedInSpiteOfTheErrorLine) {
    StartDaemon("nMaxBufSize = 2048\n");
    tree_.Write("rw/file", Pattern(2 << 20));
    NfsClient client(Port());
    const std::string handle = client.Lookup(client.MountShare("/rw"), "file");
    EXPECT_TRUE(client.Read(handle, 0, 0xffffffffu) == Pattern(2 << 20));
    EXPECT_TRUE(daemon_.WaitForLog(
        "Error: MAX buf size cannot be > [1024 KB]. Resetting to default value [256 KB]."));
}

TEST_P(TransferSize, DummyTransfersTouchNoData) {
    StartDaemon("nEnableDummyReadsAndWrites = 1\n");
    tree_.Write("rw/file", "kept");
    NfsClient client(Port());
    const std::string handle = client.Lookup(client.MountShare("/rw"), "file");
    EXPECT_EQ(client.Read(handle, 0, 5000).size(), 5000u);
    EXPECT_EQ(client.Status(client.Nfs(nfs::kWrite, WriteArguments(handle, 0, 0, "gone"))), 0u);
    EXPECT_EQ(ReadFile(tree_.Path("rw/file")), "kept");
}

OXEL_ALL_MODES(TransferSize);

}  // namespace
}  // namespace oxel::test
