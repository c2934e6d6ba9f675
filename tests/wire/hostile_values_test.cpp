// SPDX-License-Identifier: Apache-2.0
//
// Arguments at the ends of their ranges, in calls that are otherwise good: offsets, sizes, counts
// and lengths of which a sum or a product would not fit, or that announce more than comes.
#include <gtest/gtest.h>

#include <algorithm>

#include "tests/wire/hostile_fixture.h"

namespace oxel::test {
namespace {

constexpr uint32_t kGarbageArguments = 4;
constexpr uint32_t kInval = 22, kFileTooBig = 27;
constexpr uint64_t kOffsetMax = 0x7fffffffffffffff, kNoOffset = 0xffffffffffffffff;
// A listing without entries: status, attributes, verifier, no entry, and whether it is the end.
constexpr size_t kEmptyListingBytes = 108;

class HostileValues : public HostileTest {
  protected:
    static std::string Sattr(uint64_t size) {
        return XdrWriter().U32(0).U32(0).U32(0).Bool(true).U64(size).U32(0).U32(0).Bytes();
    }
    // The daemon does not take the arguments, and goes on.
    void ExpectGarbage(const RpcCall& call) {
        ++tried_;
        EXPECT_EQ(Hex(maker_->Connection().CallRaw(call)),
                  Hex(AcceptedReply(call.xid, kGarbageArguments)))
            << call.procedure << " " << Hex(call.arguments);
    }
    void TearDown() override {
        printf("TRIED %u bad inputs\n", tried_);
        HostileTest::TearDown();
    }
    unsigned tried_ = 0;
};

TEST_P(HostileValues, ReadsAtTheEndOfAllOffsetsAnswerNothing) {
    for (const uint64_t offset :
         {kOffsetMax - kTransferBytes, kOffsetMax - 1, kOffsetMax, kOffsetMax + 1,
          kOffsetMax + kTransferBytes, kNoOffset - 1, kNoOffset}) {
        for (const uint32_t count : {0u, 1u, kTransferBytes, 0x7fffffffu, 0x80000000u, ~0u}) {
            ++tried_;
            bool eof = false;
            uint32_t status = 1;
            EXPECT_EQ(maker_->Read(big_, offset, count, &eof, &status), "") << offset;
            EXPECT_EQ(status, 0u) << offset << " " << count;
            EXPECT_EQ(eof, count != 0) << offset << " " << count;
        }
    }
}

TEST_P(HostileValues, AReadOfMoreThanATransferAnswersATransfer) {
    for (const uint32_t count : {kTransferBytes + 1, 0x7fffffffu, 0x80000000u, ~0u}) {
        ++tried_;
        bool eof = true;
        EXPECT_TRUE(maker_->Read(big_, 1, count, &eof) == std::string(kTransferBytes, 'b'));
        EXPECT_FALSE(eof);
    }
}

TEST_P(HostileValues, WritesAtTheEndOfAllOffsetsFailAndChangeNothing) {
    for (const uint64_t offset :
         {kOffsetMax - 3, kOffsetMax, kOffsetMax + 1, kNoOffset - 4, kNoOffset}) {
        for (const uint32_t stable : {0u, 1u, 2u}) {
            ++tried_;
            const RpcCall call =
                maker_->Nfs(nfs::kWrite, WriteArguments(big_, offset, stable, "12345678"));
            EXPECT_EQ(maker_->Status(call), kFileTooBig) << offset;
        }
    }
    EXPECT_TRUE(ReadFile(tree_.Path("rw/big")) == std::string(4 * kTransferBytes, 'b'));
}

TEST_P(HostileValues, SizesThatNoFileHasAreRefusedAndChangeNothing) {
    for (const uint64_t size : {kOffsetMax, kOffsetMax + 1, kNoOffset - 1, kNoOffset}) {
        ++tried_;
        const RpcCall call = maker_->Nfs(
            nfs::kSetattr, XdrWriter().Opaque(big_).Raw(Sattr(size)).Bool(false).Bytes());
        const uint32_t status = maker_->Status(call);
        EXPECT_TRUE(status == kInval || status == kFileTooBig) << size << ": " << status;
    }
    EXPECT_TRUE(ReadFile(tree_.Path("rw/big")) == std::string(4 * kTransferBytes, 'b'));
}

TEST_P(HostileValues, AFileMadeWithASizeThatNoFileHasIsEmptyAtMost) {
    for (const uint64_t size : {kOffsetMax + 1, kNoOffset}) {
        ++tried_;
        const std::string name = "made" + std::to_string(size);
        maker_->Results(
            maker_->Nfs(nfs::kCreate, DirectoryName(root_, name) + StatusWord(0) + Sattr(size)));
        EXPECT_EQ(ReadFile(tree_.Path("rw/" + name)), "");
    }
    ExpectServing();
}

// Lengths whose sum with the padding, or whose product with a size, does not fit into 32 bits.
TEST_P(HostileValues, LengthsBeyondWhatCameAreGarbage) {
    const std::string handle = XdrWriter().Opaque(root_).Bytes();
    const std::string name = XdrWriter().Opaque("name").Bytes();
    for (const uint32_t length : {0xffffffffu, 0xfffffffeu, 0xfffffffdu, 0xfffffffcu, 0xc0000000u,
                                  0x80000000u, 0x7fffffffu, 0x40000000u, 0x10000000u, 65537u}) {
        const std::string word = XdrWriter().U32(length).Bytes();
        // A handle's.
        for (uint32_t procedure = nfs::kGetattr; procedure <= nfs::kCommit; ++procedure)
            ExpectGarbage(maker_->Nfs(procedure, word + std::string(200, 'h')));
        // A name's, of the first and of the second one.
        for (const uint32_t procedure : {nfs::kLookup, nfs::kCreate, nfs::kMkdir, nfs::kSymlink,
                                         nfs::kMknod, nfs::kRemove, nfs::kRmdir, nfs::kRename})
            ExpectGarbage(maker_->Nfs(procedure, handle + word + std::string(200, 'n')));
        ExpectGarbage(maker_->Nfs(nfs::kRename, handle + name + handle + word + "name"));
        ExpectGarbage(maker_->Nfs(nfs::kRename, handle + name + word + std::string(64, 'h')));
        ExpectGarbage(maker_->Nfs(nfs::kLink, handle + word + std::string(64, 'h')));
        ExpectGarbage(maker_->Nfs(nfs::kLink, handle + handle + word + "name"));
        // A symbolic link's target.
        ExpectGarbage(maker_->Nfs(nfs::kSymlink, handle + name + std::string(24, '\0') + word));
        for (const uint32_t procedure : {mnt::kMnt, mnt::kUmnt})
            ExpectGarbage(maker_->Mount(procedure, word + "/rw"));
    }
    ExpectServing();
}

TEST_P(HostileValues, WritesThatAnnounceMoreThanComesAreGarbage) {
    for (const uint32_t length : {0xffffffffu, 0xfffffffcu, 0x80000000u, kTransferBytes + 1, 9u}) {
        for (const uint32_t count : {0u, 8u, length}) {
            ExpectGarbage(maker_->Nfs(nfs::kWrite, XdrWriter()
                                                       .Opaque(big_)
                                                       .U64(0)
                                                       .U32(count)
                                                       .U32(0)
                                                       .U32(length)
                                                       .Raw("12345678")
                                                       .Bytes()));
        }
    }
    // The same as a count, with data that is there: no more than a record holds.
    for (const uint32_t count : {0xffffffffu, 0x80000000u, (2u << 20) + 1})
        ExpectGarbage(maker_->Nfs(
            nfs::kWrite,
            XdrWriter().Opaque(big_).U64(0).U32(count).U32(0).Opaque("12345678").Bytes()));
    EXPECT_TRUE(ReadFile(tree_.Path("rw/big")) == std::string(4 * kTransferBytes, 'b'));
}

// The smallest listing is larger than the smallest counts: clients have always been answered so.
TEST_P(HostileValues, AListingIsNoLargerThanItsCount) {
    for (int i = 0; i < 200; ++i)
        tree_.Write("rw/many/" + std::string(1 + static_cast<size_t>(i), 'x'), "");
    const std::string many = maker_->Lookup(root_, "many");
    for (const uint32_t count :
         {0u, 1u, 107u, 108u, 2048u, 2156u, 2157u, 2400u, 3000u, 4096u, 8192u, 20000u, 65536u,
          0x7fffffffu, 0x80000000u, 0xfffff800u, ~0u}) {
        tried_ += 2;
        const size_t most = std::max<size_t>(count, kEmptyListingBytes);
        const std::string plain = maker_->Results(
            maker_->Nfs(nfs::kReaddir, XdrWriter().Opaque(many).U64(0).U64(0).U32(count).Bytes()));
        EXPECT_LE(plain.size(), most) << count;
        const std::string plus = maker_->Results(maker_->Nfs(
            nfs::kReaddirplus, XdrWriter().Opaque(many).U64(0).U64(0).U32(~0u).U32(count).Bytes()));
        EXPECT_LE(plus.size(), most) << count;
        // All of it, where it fits.
        if (count > 200000) {
            EXPECT_EQ(maker_->ReadDirectory(many, 0, count).entries.size(), 202u) << count;
        }
    }
}

TEST_P(HostileValues, CommitsOfAnyRangeSucceed) {
    for (const uint64_t offset : {uint64_t{0}, kOffsetMax, kOffsetMax + 1, kNoOffset}) {
        ++tried_;
        const RpcCall call =
            maker_->Nfs(nfs::kCommit, XdrWriter().Opaque(big_).U64(offset).U32(~0u).Bytes());
        EXPECT_EQ(maker_->Status(call), 0u) << offset;
    }
}

OXEL_ALL_MODES(HostileValues);

}  // namespace
}  // namespace oxel::test
