// SPDX-License-Identifier: Apache-2.0
//
// Records that a hardened daemon takes, records that it does not, and what it says of those.
#include <gtest/gtest.h>

#include <algorithm>

#include "tests/wire/hostile_fixture.h"

namespace oxel::test {
namespace {

constexpr uint32_t kAuthError = 1, kAuthRejectedCredential = 2, kRpcsecGss = 6;

using HostileRecords = HostileTest;

std::string TooLarge(uint64_t bytes, uint64_t bytesMax = kRecordBytesMax) {
    return "a record of " + std::to_string(bytes) + " bytes is more than " +
           std::to_string(bytesMax);
}
std::string TooManyFragments() {
    return "a record in more than " + std::to_string(kFragmentsMax) + " fragments";
}

TEST_P(HostileRecords, ARecordMayBeAsLargeAsALargestCallAndNoByteLarger) {
    RpcCall call = Getattr();
    call.arguments.append(kRecordBytesMax - call.Message().size(), '\0');
    ASSERT_EQ(call.Message().size(), kRecordBytesMax);
    RpcConnection connection(Port());
    EXPECT_TRUE(connection.Call(call).Success());
    EXPECT_TRUE(Answers(connection));
    call.arguments.append(4, '\0');
    (void)connection.Send(Record(call.Message()));  // it may end in the middle
    EXPECT_TRUE(connection.ClosedByPeer());
    ExpectEnded("recordTooLarge", 1, TooLarge(kRecordBytesMax + 4));
    ExpectServing();
}

TEST_P(HostileRecords, FragmentsAddUpToTheSizeOfARecord) {
    RpcConnection connection(Port());
    ASSERT_TRUE(connection.Send(XdrWriter().U32(kTransferBytes).Bytes() +
                                std::string(kTransferBytes, '\0')));
    // The second fragment's header is enough to know.
    ASSERT_TRUE(connection.Send(XdrWriter().U32(8196 | kLastFragmentBit).Bytes()));
    EXPECT_TRUE(connection.ClosedByPeer());
    ExpectEnded("recordTooLarge", 1, TooLarge(kTransferBytes + 8196));
}

TEST_P(HostileRecords, ARecordOfTwoGibibytesEndsItsConnectionAtTheHeader) {
    uint64_t count = 0;
    for (const uint32_t header : {0x7fffffffu, 0xffffffffu}) {
        RpcConnection connection(Port());
        ASSERT_TRUE(connection.Send(XdrWriter().U32(header).Bytes()));
        EXPECT_TRUE(connection.ClosedByPeer());
        ExpectEnded("recordTooLarge", ++count, TooLarge(0x7fffffffu));
    }
    ExpectServing();
}

TEST_P(HostileRecords, ADifferentTransferSizeMovesTheLimit) {
    ASSERT_EQ(daemon_.Stop(), 0);
    maker_.reset();
    ASSERT_NO_FATAL_FAILURE(Start("nMaxBufSize = 1000\n"));
    constexpr uint32_t kMax = 1000 * 1024 + 8192;
    RpcCall call = Getattr();
    call.arguments.append(kMax - call.Message().size(), '\0');
    RpcConnection connection(Port());
    EXPECT_TRUE(connection.Call(call).Success());
    ASSERT_TRUE(connection.Send(XdrWriter().U32(kMax + 1).Bytes()));
    EXPECT_TRUE(connection.ClosedByPeer());
    ExpectEnded("recordTooLarge", 1, TooLarge(kMax + 1, kMax));
}

TEST_P(HostileRecords, ARecordMayComeInThatManyFragmentsAndNotInOneMore) {
    RpcCall call = Getattr();
    call.arguments.append(kFragmentsMax * 4 - call.Message().size(), '\0');
    const std::string message = call.Message();
    RpcConnection connection(Port());
    ASSERT_TRUE(connection.Send(Record(message, 4)));
    EXPECT_TRUE(connection.Receive().has_value());
    EXPECT_TRUE(Answers(connection));
    // The last of 1,024 leaves the record open, and an empty one follows that closes it.
    std::string bytes;
    for (size_t at = 0; at < message.size(); at += 4)
        bytes += XdrWriter().U32(4).Raw(message.substr(at, 4)).Bytes();
    ASSERT_TRUE(connection.Send(bytes));
    (void)connection.Send(XdrWriter().U32(kLastFragmentBit).Bytes());
    EXPECT_TRUE(connection.ClosedByPeer());
    ExpectEnded("tooManyFragments", 1, TooManyFragments());
    ExpectServing();
}

TEST_P(HostileRecords, FragmentsOfOneByteAndEmptyOnesAreLegal) {
    RpcConnection connection(Port());
    const std::string results =
        XdrWriter().U32(0).Raw(AttributesBytes(ExpectedAttributes(tree_.Path("rw")))).Bytes();
    for (const size_t fragmentBytes : {1, 2, 3, 5, 64}) {
        const RpcCall call = Getattr();
        ASSERT_TRUE(connection.Send(Record(call.Message(), fragmentBytes)));
        EXPECT_EQ(connection.Receive().value_or(""), SuccessReply(call.xid, results))
            << fragmentBytes;
    }
    const RpcCall call = Getattr();
    const std::string empty = XdrWriter().U32(0).Bytes();
    ASSERT_TRUE(connection.Send(empty + empty + Record(call.Message())));
    EXPECT_EQ(connection.Receive().value_or(""), SuccessReply(call.xid, results));
}

TEST_P(HostileRecords, AWriteCutIntoFragmentsAnywhereArrivesWhole) {
    std::string data(kTransferBytes, '\0');
    for (size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<char>((static_cast<uint32_t>(i) * 2654435761u) >> 13);
    RpcConnection connection(Port());
    for (const size_t fragmentBytes : {257, 4096, 65537, 262143}) {
        const RpcCall call = maker_->Nfs(nfs::kWrite, WriteArguments(big_, 0, 0, data));
        ASSERT_TRUE(connection.Send(Record(call.Message(), fragmentBytes)));
        const auto message = connection.Receive();
        ASSERT_TRUE(message) << fragmentBytes;
        EXPECT_TRUE(ParseReply(*message).Success());
        EXPECT_TRUE(ReadFile(tree_.Path("rw/big")).substr(0, data.size()) == data) << fragmentBytes;
        std::rotate(data.begin(), data.begin() + 1, data.end());
    }
}

TEST_P(HostileRecords, GssCredentialsAreRejectedAndTheConnectionStays) {
    RpcConnection connection(Port());
    RpcCall call = Getattr();
    call.credentialFlavour = kRpcsecGss;
    // A context's creation (RFC 2203 section 5.2.2), one that is in use, and no such thing at all.
    for (const std::string& credential :
         {XdrWriter().U32(1).U32(1).U32(0).U32(1).U32(0).Bytes(),
          XdrWriter().U32(1).U32(0).U32(7).U32(3).Opaque("context1").Bytes(), std::string(),
          std::string(400, '\xff')}) {
        call.credential = credential;
        EXPECT_EQ(Hex(connection.CallRaw(call)), Hex(XdrWriter()
                                                         .U32(call.xid)
                                                         .U32(1)
                                                         .U32(1)
                                                         .U32(kAuthError)
                                                         .U32(kAuthRejectedCredential)
                                                         .Bytes()));
        EXPECT_TRUE(Answers(connection));
    }
}

TEST_P(HostileRecords, WhatIsNoCallEndsItsConnection) {
    RpcCall reply = Null(), verifier = Null();
    reply.messageType = 1;
    verifier.verifier = std::string(404, 'v');
    uint64_t count = 0;
    for (const std::string& message :
         {reply.Message(), verifier.Message(), Null().Message().substr(0, 20), std::string("call"),
          std::string()}) {
        RpcConnection connection(Port());
        ASSERT_TRUE(connection.Send(Record(message)));
        EXPECT_TRUE(connection.ClosedByPeer()) << Hex(message);
        ExpectEnded("notACall", ++count, "what it sent is no call");
    }
    ExpectServing();
}

TEST_P(HostileRecords, HttpAndTlsAreTakenForRecordsThatAreTooLarge) {
    RpcConnection http(Port()), tls(Port());
    ASSERT_TRUE(http.Send("GET / HTTP/1.1\r\nHost: nfs\r\n\r\n"));
    EXPECT_TRUE(http.ClosedByPeer());
    ExpectEnded("recordTooLarge", 1, TooLarge(0x47455420));
    ASSERT_TRUE(tls.Send(std::string("\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03", 11)));
    EXPECT_TRUE(tls.ClosedByPeer());
    ExpectEnded("recordTooLarge", 2, TooLarge(0x16030102));
}

OXEL_HARDENED_MODES(HostileRecords);

}  // namespace
}  // namespace oxel::test
