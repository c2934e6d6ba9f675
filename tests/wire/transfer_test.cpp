// SPDX-License-Identifier: Apache-2.0
//
// Every configured transfer size from end to end: what FSINFO announces, what READ and WRITE carry,
// and what becomes of a WRITE that carries more.
#include <gtest/gtest.h>

#include <ostream>
#include <thread>
#include <tuple>

#include "tests/wire/wire_fixture.h"

namespace oxel::test {
namespace {

constexpr uint32_t kUnstable = 0, kFileSync = 2, kGarbageArguments = 4;

// Any two pieces of it differ wherever they begin.
std::string Pattern(size_t length) {
    std::string bytes(length, '\0');
    for (size_t i = 0; i < length; ++i)
        bytes[i] = static_cast<char>((static_cast<uint32_t>(i) * 2654435761u) >> 13);
    return bytes;
}

class Transfer : public testing::TestWithParam<std::tuple<Mode, unsigned>> {
  protected:
    void SetUp() override {
        Configure("nMaxBufSize = " + std::to_string(std::get<1>(GetParam())) + "\n");
        ASSERT_NO_FATAL_FAILURE(Start());
    }
    void TearDown() override { client_.reset(); }

    void Configure(const std::string& conf) {
        tree_.WriteConf("wire",
                        "[Oxel]\nnNfs3Port = 0\n" + ModeSettings(std::get<0>(GetParam())) + conf);
    }
    void Start() {
        tree_.MakeDir("rw");
        tree_.WriteExports("wire",
                           "/rw -dir=" + tree_.Path("rw") + " *(rw,no_root_squash,insecure)\n");
        ASSERT_TRUE(daemon_.Start());
        client_ = std::make_unique<NfsClient>(daemon_.Port());
        root_ = client_->MountShare("/rw");
    }
    // What FSINFO announces; all five sizes are the same.
    uint32_t Announced() {
        XdrReader reader(
            client_->Results(client_->Nfs(nfs::kFsinfo, XdrWriter().Opaque(root_).Bytes())));
        EXPECT_EQ(reader.U32(), 0u);
        EXPECT_TRUE(reader.Bool());
        (void)ReadAttributes(&reader);
        const uint32_t size = reader.U32();  // rtmax
        const uint32_t rest[] = {size, 1, size, size, 1, size};
        for (const uint32_t wanted : rest) EXPECT_EQ(reader.U32(), wanted);
        return size;
    }
    std::string NewFile(const std::string& name, const std::string& content) {
        tree_.Write("rw/" + name, content);
        return client_->Lookup(root_, name);
    }
    uint32_t Write(const std::string& handle, uint64_t offset, const std::string& data,
                   uint32_t stable = kUnstable) {
        XdrReader reader(client_->Results(
            client_->Nfs(nfs::kWrite, WriteArguments(handle, offset, stable, data))));
        const uint32_t status = reader.U32();
        if (status != 0) return status;
        EXPECT_FALSE(reader.Bool());  // no attributes from before
        EXPECT_TRUE(reader.Bool());
        EXPECT_EQ(ReadAttributes(&reader).size, ReadFile(tree_.Path("rw/file")).size());
        EXPECT_EQ(reader.U32(), data.size());
        EXPECT_EQ(reader.U32(), stable);
        return 0;
    }

    PrivateTree tree_;
    Daemon daemon_{tree_};
    std::unique_ptr<NfsClient> client_;
    std::string root_;
};

TEST_P(Transfer, TheAnnouncedSizeIsReadAndWrittenWhole) {
    const uint32_t size = Announced();
    ASSERT_EQ(size, std::get<1>(GetParam()) * 1024);
    const std::string data = Pattern(size_t{size} + 4321);
    const std::string piece = data.substr(7, size);
    const std::string handle = NewFile("file", "");
    for (const uint32_t stable : {kUnstable, kFileSync}) {
        EXPECT_EQ(Write(handle, 7, piece, stable), 0u);
        EXPECT_TRUE(ReadFile(tree_.Path("rw/file")) ==
                    (size == 0 ? "" : std::string(7, '\0') + piece));
    }
    // Anything below the size too, down to a byte.
    for (const uint32_t less : {size - 1, size - 3, size / 2 + 1, 1u}) {
        if (less == 0 || less > size) continue;
        EXPECT_EQ(Write(handle, size + 11, data.substr(1, less)), 0u);
        EXPECT_TRUE(ReadFile(tree_.Path("rw/file")).substr(size + 11, less) ==
                    data.substr(1, less));
    }

    const std::string whole = NewFile("read", data);
    bool eof = true;
    for (const uint32_t count : {size, size + 1, 0xffffffffu}) {
        EXPECT_TRUE(client_->Read(whole, 4321, count, &eof) == data.substr(4321)) << count;
        EXPECT_FALSE(eof);
    }
    EXPECT_TRUE(client_->Read(whole, data.size() - size / 2, size, &eof) ==
                data.substr(data.size() - size / 2));
    EXPECT_EQ(eof, size != 0);
}

// Hardened, a record beyond the largest that any call needs ends its connection instead.
TEST_P(Transfer, AWriteBeyondItIsGarbageAndTheConnectionServesOn) {
    constexpr size_t kHardenedExtraBytes = 8192;
    const uint32_t size = Announced();
    const std::string handle = NewFile("file", "kept");
    for (const size_t length : {size_t{size} + 1, size_t{size} * 2 + 3}) {
        const RpcCall call =
            client_->Nfs(nfs::kWrite, WriteArguments(handle, 0, kUnstable, Pattern(length)));
        if (IsHardened(std::get<0>(GetParam())) &&
            call.Message().size() > size + kHardenedExtraBytes) {
            NfsClient sender(daemon_.Port());
            (void)sender.Connection().Send(Record(call.Message()));  // it may end in the middle
            EXPECT_TRUE(sender.Connection().ClosedByPeer());
            continue;
        }
        EXPECT_EQ(client_->Connection().CallRaw(call), AcceptedReply(call.xid, kGarbageArguments));
        // The rest of the record was skipped: the next call on the connection is understood.
        EXPECT_EQ(client_->GetAttributes(handle).size, 4u);
    }
    EXPECT_EQ(ReadFile(tree_.Path("rw/file")), "kept");
    const std::string fits = Pattern(size);
    EXPECT_EQ(Write(handle, 0, fits), 0u);
    EXPECT_TRUE(ReadFile(tree_.Path("rw/file")).substr(0, size) == fits);
    NfsClient other(daemon_.Port());
    EXPECT_EQ(other.GetAttributes(handle).size, std::max<size_t>(4, size));
}

TEST_P(Transfer, ManyAtOnceOnOneConnectionStayWhole) {
    const uint32_t size = Announced();
    constexpr uint32_t kCalls = 5;
    const std::string data = Pattern(size_t{size} + kCalls);
    const std::string source = NewFile("read", data), target = NewFile("file", "");
    std::map<uint32_t, uint32_t> offsets;  // of READs, by transaction
    std::string bytes;
    for (uint32_t i = 0; i < kCalls; ++i) {
        RpcCall call = client_->Nfs(nfs::kRead, ReadArguments(source, i, size));
        offsets[call.xid] = i;
        bytes += Record(call.Message());
        call = client_->Nfs(nfs::kWrite, WriteArguments(target, uint64_t{i} * size, kUnstable,
                                                        data.substr(i, size)));
        // Cut into fragments that have nothing to do with its parts.
        bytes += Record(call.Message(), 65537 + i);
    }
    // The daemon stops reading while it cannot send, so somebody has to send meanwhile.
    std::thread sender([&] { EXPECT_TRUE(client_->Connection().Send(bytes)); });
    for (uint32_t i = 0; i < 2 * kCalls; ++i) {
        const auto message = client_->Connection().Receive(RpcConnection::kTimeoutMs * 2);
        ASSERT_TRUE(message) << i;
        const RpcReply reply = ParseReply(*message);
        EXPECT_TRUE(reply.Success());
        XdrReader reader(reply.results);
        EXPECT_EQ(reader.U32(), 0u);
        if (!offsets.count(reply.xid)) continue;
        EXPECT_FALSE(reader.Bool());
        EXPECT_EQ(reader.U32(), size);
        EXPECT_FALSE(reader.Bool());
        EXPECT_TRUE(reader.Opaque() == data.substr(offsets[reply.xid], size));
    }
    sender.join();
    const std::string written = ReadFile(tree_.Path("rw/file"));
    ASSERT_EQ(written.size(), size_t{kCalls} * size);
    for (uint32_t i = 0; i < kCalls; ++i)
        EXPECT_EQ(written.compare(size_t{i} * size, size, data, i, size), 0) << i;
}

INSTANTIATE_TEST_SUITE_P(
    Sizes, Transfer,
    testing::Combine(testing::Values(Mode::kManyThreads, Mode::kOneThread, Mode::kHardened),
                     testing::ValuesIn(SanitizerBuild()
                                           ? std::vector<unsigned>{0, 3, 257, 2049, 16384}
                                           : std::vector<unsigned>{0, 1, 3, 31, 255, 257, 1000,
                                                                   1025, 2049, 16384})),
    [](const auto& test) {
        return testing::PrintToString(std::get<0>(test.param)) + "With" +
               std::to_string(std::get<1>(test.param)) + "KiB";
    });

}  // namespace
}  // namespace oxel::test
