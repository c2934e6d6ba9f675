// SPDX-License-Identifier: Apache-2.0
//
// WRITE's arguments: the data in the call record's area, its bounds, and streams that deliver it in
// pieces. Also the counters of the data procedures' codec.
#include <algorithm>
#include <memory>

#include "backend/OxelServiceGlobals.h"
#include "base/perf_counter.h"
#include "bin/oxelService_callinfo.h"
#include "nfs3/nfs3xdr.h"
#include "tests/nfs3/nfs3xdr_wire.h"

using namespace oxel::test;

namespace {

class TransferSize {
  public:
    explicit TransferSize(uint64_t bytes) : before_(NFS3_MAXBUF_SIZE) { NFS3_MAXBUF_SIZE = bytes; }
    ~TransferSize() { NFS3_MAXBUF_SIZE = before_; }

  private:
    const uint64_t before_;
};

Wire WriteWire(uint32_t count, const std::string& data, uint32_t stable = 2) {
    return HandleWire().U64(0x0102030405060708).U32(count).U32(stable).Opaque(data);
}

// A record's data area as the call before may have left it.
std::unique_ptr<CallInfo3> UsedRecord() {
    auto record = std::make_unique<CallInfo3>();
    memset(record->arguments().write.data(), 0xee, WriteAreaBytes());
    record->ClearCall();
    return record;
}

bool DecodeWrite(CallInfo3& record, const Wire& wire, bool aligned = true) {
    return Decode(xdr_WRITE3args, wire.Bytes(), wire.Size(), aligned, &record.arguments().write);
}

std::string DataOf(CallInfo3& record, size_t bytes) {
    return std::string(record.arguments().write.data(), bytes);
}

}  // namespace

TEST(XdrWrite, TheDataLandsBehindTheRecord) {
    auto record = UsedRecord();
    for (bool aligned : {true, false}) {
        ASSERT_TRUE(DecodeWrite(*record, WriteWire(5, "hello"), aligned));
        WRITE3args& args = record->arguments().write;
        EXPECT_EQ(17u, args.file.nfh_len);
        EXPECT_EQ(0x0102030405060708u, args.offset);
        EXPECT_EQ(5u, args.count);
        EXPECT_EQ(FILE_SYNC, args.stable);
        EXPECT_EQ("hello", DataOf(*record, 5));
        Free(xdr_WRITE3args, &args);
    }
}

TEST(XdrWrite, WhatIsEncodedIsWhatWasDecoded) {
    CallInfo3 record;
    for (const char* data : {"", "a", "abc", "abcd", "abcdefgh9"}) {
        Wire wire = WriteWire(static_cast<uint32_t>(strlen(data)), data);
        ASSERT_TRUE(DecodeWrite(record, wire));
        ExpectEncodes(xdr_WRITE3args, &record.arguments().write, wire);
    }
}

TEST(XdrWrite, EveryTruncatedFormFails) {
    CallInfo3 record;
    Wire wire = WriteWire(9, "abcdefgh9");
    for (bool aligned : {true, false})
        for (size_t size = 0; size < wire.Size(); ++size)
            EXPECT_FALSE(
                Decode(xdr_WRITE3args, wire.Bytes(), size, aligned, &record.arguments().write))
                << "size " << size;
}

TEST(XdrWrite, AnyStableHowDecodes) {
    CallInfo3 record;
    for (uint32_t stable : {0u, 1u, 2u, 3u, 0xffffffffu}) {
        ASSERT_TRUE(DecodeWrite(record, WriteWire(1, "x", stable)));
        EXPECT_EQ(stable, uint32_t{record.arguments().write.stable});
    }
}

TEST(XdrWrite, DataOfTheTransferSizeDecodesAndOneByteMoreFails) {
    auto record = UsedRecord();
    const auto most = static_cast<uint32_t>(NFS3_MAXBUF_SIZE);
    std::string data(most, 'd');
    data.back() = 'e';
    ASSERT_TRUE(DecodeWrite(*record, WriteWire(most, data)));
    EXPECT_EQ(data, DataOf(*record, most));
    EXPECT_FALSE(DecodeWrite(*record, WriteWire(most + 1, data + "f")));
    EXPECT_FALSE(DecodeWrite(*record, WriteWire(most, data + "f")));
}

TEST(XdrWrite, DataOfATransferSizeBeyondTwoMebibytesDecodes) {
    TransferSize size(3u << 20);
    auto record = UsedRecord();
    std::string data(3u << 20, 'd');
    data.back() = 'e';
    ASSERT_TRUE(DecodeWrite(*record, WriteWire(3u << 20, data)));
    EXPECT_EQ(data, DataOf(*record, 3u << 20));
    EXPECT_FALSE(DecodeWrite(*record, WriteWire(3u << 20, data + "f")));
}

TEST(XdrWrite, ATransferSizeOfZeroTakesNoDataAtAll) {
    TransferSize size(0);
    auto record = UsedRecord();
    EXPECT_FALSE(DecodeWrite(*record, WriteWire(1, "x")));
    EXPECT_TRUE(DecodeWrite(*record, WriteWire(0, "")));
}

TEST(XdrWrite, ADataLengthBeyondAllBoundsFailsBeforeItsBytesAreLookedAt) {
    CallInfo3 record;
    for (uint32_t length : {0x80000000u, 0xfffffffcu, 0xffffffffu}) {
        Wire wire = HandleWire().U64(0).U32(1).U32(2).U32(length).Raw("abcd");
        EXPECT_FALSE(DecodeWrite(record, wire));
    }
}

TEST(XdrWrite, ACountBeyondTheDataFindsZerosAndNoByteOfAnEarlierCall) {
    auto record = UsedRecord();
    ASSERT_TRUE(DecodeWrite(*record, WriteWire(4000, "abc")));
    EXPECT_EQ(4000u, record->arguments().write.count);
    EXPECT_EQ("abc" + std::string(3997, '\0'), DataOf(*record, 4000));
}

TEST(XdrWrite, ACountWithoutDataFindsZeros) {
    auto record = UsedRecord();
    ASSERT_TRUE(DecodeWrite(*record, WriteWire(100, "")));
    EXPECT_EQ(std::string(100, '\0'), DataOf(*record, 100));
}

TEST(XdrWrite, ACountOfTheWholeAreaDecodesAndOneMoreFails) {
    auto record = UsedRecord();
    const auto area = static_cast<uint32_t>(WriteAreaBytes());
    ASSERT_TRUE(DecodeWrite(*record, WriteWire(area, "abc")));
    EXPECT_EQ("abc" + std::string(area - 3, '\0'), DataOf(*record, area));
    EXPECT_FALSE(DecodeWrite(*record, WriteWire(area + 1, "abc")));
    EXPECT_FALSE(DecodeWrite(*record, WriteWire(0xffffffff, "abc")));
}

TEST(XdrWrite, ACountBelowTheDataIsLeftToTheHandler) {
    auto record = UsedRecord();
    ASSERT_TRUE(DecodeWrite(*record, WriteWire(2, "abcd")));
    EXPECT_EQ(2u, record->arguments().write.count);
    EXPECT_EQ("abcd", DataOf(*record, 4));
}

namespace {

// A record stream's bytes, delivered a few at a time.
struct Source {
    std::vector<unsigned char> bytes;
    size_t at = 0;
    size_t pieceMax;
};

int ReadPiece(void* handle, void* buffer, int room) {
    auto* source = static_cast<Source*>(handle);
    const size_t left = source->bytes.size() - source->at;
    if (left == 0) return -1;
    const size_t piece = std::min({left, source->pieceMax, static_cast<size_t>(room)});
    memcpy(buffer, source->bytes.data() + source->at, piece);
    source->at += piece;
    return static_cast<int>(piece);
}

int WriteNothing(void*, void*, int) {
    return -1;
}

}  // namespace

TEST(XdrWrite, ARecordStreamMayDeliverItInPiecesAndFragments) {
    std::string data;
    for (int i = 0; i < 10007; ++i) data.push_back(static_cast<char>(i * 7));
    const Wire wire = WriteWire(10007, data);
    // Two fragments, the cut in the middle of the data (fragments are whole words here).
    const uint32_t first = 5000;
    const std::string all(wire.Bytes().begin(), wire.Bytes().end());
    const Wire stream = Wire()
                            .U32(first)
                            .Raw(all.substr(0, first))
                            .U32(0x80000000u | static_cast<uint32_t>(all.size() - first))
                            .Raw(all.substr(first));
    for (size_t pieceMax : {1u, 3u, 1000u, 100000u}) {
        SCOPED_TRACE(pieceMax);
        auto record = UsedRecord();
        Source source{stream.Bytes(), 0, pieceMax};
        XDR xdrs{};
        xdrrec_create(&xdrs, 4000, 4000, &source, ReadPiece, WriteNothing);
        xdrs.x_op = XDR_DECODE;
        ASSERT_TRUE(xdrrec_skiprecord(&xdrs));
        EXPECT_TRUE(xdr_WRITE3args(&xdrs, &record->arguments().write));
        EXPECT_EQ(data, DataOf(*record, data.size()));
        xdr_destroy(&xdrs);
    }
}

TEST(XdrWrite, DecodingAndEncodingOfTheDataProceduresAreCounted) {
    const auto countOf = [](unsigned id) {
        for (const oxel::PerfTotals& totals : oxel::PerfSnapshot())
            if (totals.id == id) {
                EXPECT_EQ("XDR", totals.name);
                return totals.count;
            }
        return uint64_t{0};
    };
    const uint64_t decodedBefore = countOf(15), encodedBefore = countOf(16);
    const bool flagBefore = gPerfFlag.exchange(true);
    CallInfo3 record;
    ASSERT_TRUE(DecodeWrite(record, WriteWire(1, "x")));
    READ3args read{};
    ASSERT_TRUE(Decode(xdr_READ3args, HandleWire().U64(0).U32(1), &read));
    READ3res readResult{};
    WRITE3res writeResult{};
    readResult.status = NFS3ERR_IO;
    std::vector<unsigned char> bytes;
    ASSERT_TRUE(Encode(xdr_READ3res, &readResult, 100, true, &bytes));
    ASSERT_TRUE(Encode(xdr_WRITE3res, &writeResult, 100, true, &bytes));
    gPerfFlag = flagBefore;
    EXPECT_EQ(decodedBefore + 2, countOf(15));
    EXPECT_EQ(encodedBefore + 2, countOf(16));
}
