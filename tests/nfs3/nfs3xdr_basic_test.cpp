// SPDX-License-Identifier: Apache-2.0
//
// The codec of handles, strings, times and the small unions of the arguments.
#include "nfs3/nfs3xdr.h"
#include "nfs3/nfs3xdr_words.h"
#include "tests/nfs3/nfs3xdr_wire.h"

using namespace oxel::test;

namespace {

bool_t CodeText(XDR* xdrs, char** text) {
    return oxel::xdr::CodeString(xdrs, text);
}

}  // namespace

// ---- Handles ----

TEST(XdrHandle, EveryLengthFrom8To64SurvivesBothWays) {
    for (uint32_t objectBytes = 0; objectBytes <= 56; ++objectBytes)
        ExpectBothWays(xdr_nfs_fh3, SampleHandle(objectBytes), HandleWire(objectBytes));
}

TEST(XdrHandle, OfLength64ShowsItsTwoNumbersBigEndianFirst) {
    std::vector<unsigned char> bytes;
    nfs_fh3 handle = SampleHandle(56);
    ASSERT_TRUE(Encode(xdr_nfs_fh3, &handle, 68, true, &bytes));
    ASSERT_EQ(68u, bytes.size());
    EXPECT_EQ("00000040 01020304 0a0b0c0d 80818283 ", Hex({bytes.begin(), bytes.begin() + 16}));
    nfs_fh3 back{};
    ASSERT_TRUE(Decode(xdr_nfs_fh3, bytes, bytes.size(), true, &back));
    EXPECT_EQ(0, memcmp(&handle, &back, sizeof(handle)));
}

TEST(XdrHandle, ALengthOutside8To64FailsTheDecode) {
    for (uint32_t length : {0u, 1u, 4u, 7u, 65u, 68u, 0x7fffffffu, 0xfffffff8u, 0xffffffffu}) {
        SCOPED_TRACE(length);
        ExpectDecodeFails(xdr_nfs_fh3, Wire().U32(length).Raw(std::string(128, 'x')));
    }
}

TEST(XdrHandle, TheUnusedTailOfTheDecodedHandleIsZero) {
    nfs_fh3 expected{};
    expected.nfh_len = 17;
    expected.fsmType = 0x01020304;
    expected.shareId = 0x0a0b0c0d;
    for (int i = 0; i < 9; ++i) expected.objectId[i] = static_cast<unsigned char>(0x80 + i);
    for (bool aligned : {true, false}) {
        nfs_fh3 handle;
        memset(&handle, 0xee, sizeof(handle));
        ASSERT_TRUE(Decode(xdr_nfs_fh3, HandleWire(9).Bytes(), 24, aligned, &handle));
        EXPECT_EQ(0, memcmp(&expected, &handle, sizeof(handle)));
    }
}

TEST(XdrHandle, PaddingThatIsNotZeroIsNotPartOfTheHandle) {
    Wire wire;
    wire.U32(9).U32(1).U32(2).U32(0xaabbccdd);  // one byte of objectId, three of padding
    for (bool aligned : {true, false}) {
        nfs_fh3 handle{};
        ASSERT_TRUE(Decode(xdr_nfs_fh3, wire.Bytes(), wire.Size(), aligned, &handle));
        EXPECT_EQ(0xaa, handle.objectId[0]);
        EXPECT_EQ(0, handle.objectId[1]);
    }
}

TEST(XdrHandle, NoHandleAtAllIsEncodedAsAnEmptyOpaque) {
    nfs_fh3 none{};
    ExpectEncodes(xdr_nfs_fh3, &none, Wire().U32(0));
}

TEST(XdrHandle, ALengthThatNoHandleHasIsNotEncoded) {
    for (uint32_t length : {1u, 7u, 65u, 0xffffffffu}) {
        nfs_fh3 handle = SampleHandle(56);
        handle.nfh_len = length;
        ExpectEncodeFails(xdr_nfs_fh3, handle);
    }
}

TEST(XdrHandle, AFollowingHandleIsOptional) {
    ExpectBothWays(xdr_post_op_fh3, post_op_fh3{TRUE, SampleHandle()},
                   Wire().U32(1).Add(HandleWire()));
    ExpectBothWays(xdr_post_op_fh3, post_op_fh3{}, Wire().U32(0));
}

// ---- Strings ----

TEST(XdrString, EveryRestOfAWordIsPaddedWithZeros) {
    for (const char* text : {"", "a", "ab", "abc", "abcd", "abcde"}) {
        char* value = Text(text);
        ExpectEncodes(CodeText, &value, Wire().Opaque(text));
        ExpectDecodes(CodeText, Wire().Opaque(text));
    }
}

TEST(XdrString, Of4096BytesDecodesAndOneByteMoreFails) {
    Wire longest = Wire().Opaque(std::string(4096, 'n'));
    char* text = nullptr;
    ASSERT_TRUE(Decode(CodeText, longest, &text));
    EXPECT_EQ(std::string(4096, 'n'), text);
    Free(CodeText, &text);
    EXPECT_EQ(nullptr, text);
    ExpectDecodeFails(CodeText, Wire().Opaque(std::string(4097, 'n')));
    ExpectDecodeFails(CodeText, Wire().U32(0xffffffff).Raw("abcd"));
}

TEST(XdrString, Of4097BytesIsNotEncoded) {
    std::string longest(4096, 'n');
    char* text = longest.data();
    ExpectEncodes(CodeText, &text, Wire().Opaque(longest));
    std::string tooLong(4097, 'n');
    ExpectEncodeFails(CodeText, tooLong.data());
}

TEST(XdrString, ANulAmongItsBytesFailsTheDecode) {
    ExpectDecodeFails(CodeText, Wire().Opaque(std::string("a\0b", 3)));
    ExpectDecodeFails(CodeText, Wire().Opaque(std::string("\0", 1)));
    ExpectDecodeFails(CodeText, Wire().Opaque(std::string("abc\0", 4)));
}

TEST(XdrString, ANullPointerIsNotEncoded) {
    ExpectEncodeFails(CodeText, static_cast<char*>(nullptr));
}

TEST(XdrString, AFailedDecodeLeavesThePointerAlone) {
    char* text = Text("untouched");
    EXPECT_FALSE(Decode(CodeText, Wire().Opaque(std::string(4097, 'n')), &text));
    EXPECT_STREQ("untouched", text);
}

TEST(XdrString, BytesAbove127StayAsTheyAre) {
    ExpectDecodes(CodeText, Wire().Opaque("gr\xc3\xbc\xc3\x9f \xff\x80"));
}

TEST(XdrString, TheEncodedLengthIsFourAndWholeWords) {
    EXPECT_EQ(4u, GetXdrStringLength(0));
    EXPECT_EQ(8u, GetXdrStringLength(1));
    EXPECT_EQ(8u, GetXdrStringLength(4));
    EXPECT_EQ(12u, GetXdrStringLength(5));
    EXPECT_EQ(12u, GetXdrStringLength(8));
    EXPECT_EQ(260u, GetXdrStringLength(255));
}

// ---- Records of a few words ----

TEST(XdrBasic, ATimeIsSecondsAndNanoseconds) {
    ExpectBothWays(xdr_nfstime3, nfstime3{0x01020304, 0x05060708},
                   Wire().U32(0x01020304).U32(0x05060708));
}

TEST(XdrBasic, ADeviceIsTwoWords) {
    ExpectBothWays(xdr_specdata3, specdata3{8, 0xffffffff}, Wire().U32(8).U32(0xffffffff));
}

TEST(XdrBasic, ADirectoryOperationIsHandleAndName) {
    ExpectBothWays(xdr_diropargs3, diropargs3{SampleHandle(), Text("name")},
                   HandleWire().Add(Wire().Opaque("name")));
}

TEST(XdrBasic, ASymbolicLinkIsAttributesAndText) {
    ExpectBothWays(xdr_symlinkdata3, symlinkdata3{SampleSattr(), Text("../target")},
                   SattrWire().Add(Wire().Opaque("../target")));
}

TEST(XdrBasic, ADeviceNodeIsAttributesAndDevice) {
    ExpectBothWays(xdr_devicedata3, devicedata3{SampleSattr(), {8, 1}}, SattrWire().U32(8).U32(1));
}
