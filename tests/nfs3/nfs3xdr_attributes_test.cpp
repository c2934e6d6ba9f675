// SPDX-License-Identifier: Apache-2.0
//
// The codec of attributes: fattr3, weak cache consistency data, settable attributes.
#include "nfs3/nfs3xdr.h"
#include "tests/nfs3/nfs3xdr_wire.h"

using namespace oxel::test;

TEST(XdrAttributes, TheTwentyOneWordsStandInTheStandardsOrder) {
    ASSERT_EQ(84u, AttributesWire().Size());
    ExpectBothWays(xdr_fattr3, SampleAttributes(), AttributesWire());
}

TEST(XdrAttributes, WeakConsistencyAttributesAreSizeAndTwoTimes) {
    ExpectBothWays(xdr_wcc_attr, wcc_attr{1, {2, 3}, {4, 5}},
                   Wire().U64(1).U32(2).U32(3).U32(4).U32(5));
}

TEST(XdrAttributes, OptionalAttributesAreAFlagAloneWhenTheyDoNotFollow) {
    post_op_attr stale = SamplePostOp();
    stale.attributes_follow = FALSE;
    ExpectBothWays(xdr_post_op_attr, stale, Wire().U32(0));
    ExpectBothWays(xdr_pre_op_attr, pre_op_attr{}, Wire().U32(0));
}

TEST(XdrAttributes, OptionalAttributesFollowTheirFlag) {
    ExpectBothWays(xdr_post_op_attr, SamplePostOp(), PostOpWire());
    ExpectBothWays(xdr_pre_op_attr, SampleWcc().before,
                   Wire().U32(1).U64(0x0807060504030201).U32(7).U32(8).U32(9).U32(10));
}

TEST(XdrAttributes, AnyFlagButZeroMeansThatTheyFollow) {
    post_op_attr attributes{};
    ASSERT_TRUE(
        Decode(xdr_post_op_attr, Wire().U32(0x80000000).Add(AttributesWire()), &attributes));
    EXPECT_EQ(TRUE, attributes.attributes_follow);
    EXPECT_EQ(0x4142434445464748u, attributes.attributes.fileid);

    attributes.attributes_follow = 77;
    ExpectEncodes(xdr_post_op_attr, &attributes, PostOpWire());
}

TEST(XdrAttributes, BeforeAndAfterAreIndependent) {
    ExpectBothWays(xdr_wcc_data, SampleWcc(), WccWire());
    ExpectBothWays(xdr_wcc_data, NoWcc(), NoWccWire());
    wcc_data onlyAfter{};
    onlyAfter.after = SamplePostOp();
    ExpectBothWays(xdr_wcc_data, onlyAfter, Wire().U32(0).Add(PostOpWire()));
    wcc_data onlyBefore{};
    onlyBefore.before = SampleWcc().before;
    ExpectBothWays(xdr_wcc_data, onlyBefore,
                   Wire().U32(1).U64(0x0807060504030201).U32(7).U32(8).U32(9).U32(10).U32(0));
}

TEST(XdrSettable, ANumberFollowsWhenItIsSet) {
    ExpectBothWays(xdr_set_attrib, set_attrib{TRUE, 0644}, Wire().U32(1).U32(0644));
    ExpectBothWays(xdr_set_attrib, set_attrib{FALSE, 0644}, Wire().U32(0));
    ExpectBothWays(xdr_set_size, set_size{TRUE, 0x100000000}, Wire().U32(1).U64(0x100000000));
    ExpectBothWays(xdr_set_size, set_size{FALSE, 9}, Wire().U32(0));
}

TEST(XdrSettable, ATimeFollowsOnlyWhenItIsTheClients) {
    ExpectBothWays(xdr_set_time, set_time{DONT_CHANGE, {1, 2}}, Wire().U32(0));
    ExpectBothWays(xdr_set_time, set_time{SET_TO_SERVER_TIME, {1, 2}}, Wire().U32(1));
    ExpectBothWays(xdr_set_time, set_time{SET_TO_CLIENT_TIME, {1, 2}}, Wire().U32(2).U32(1).U32(2));
}

TEST(XdrSettable, AnotherTimeHowFailsBothWays) {
    for (uint32_t how : {3u, 0x80000000u, 0xffffffffu}) {
        ExpectDecodeFails(xdr_set_time, Wire().U32(how).U32(1).U32(2));
        ExpectEncodeFails(xdr_set_time, set_time{static_cast<time_how>(how), {1, 2}});
    }
}

TEST(XdrSettable, AllSixStandInTheStandardsOrder) {
    ExpectBothWays(xdr_sattr3, SampleSattr(), SattrWire());
    ExpectBothWays(xdr_sattr3, sattr3{}, EmptySattrWire());
}

TEST(XdrSettable, EachIsDecodedIntoItsOwnField) {
    sattr3 s{};
    ASSERT_TRUE(Decode(xdr_sattr3, SattrWire(), &s));
    EXPECT_EQ(0640u, s.mode.value);
    EXPECT_EQ(11u, s.uid.value);
    EXPECT_EQ(12u, s.gid.value);
    EXPECT_EQ(0x1122334455667788u, s.size.size);
    EXPECT_EQ(SET_TO_CLIENT_TIME, s.atime.set_it);
    EXPECT_EQ(13u, s.atime.time.seconds);
    EXPECT_EQ(14u, s.atime.time.nseconds);
    EXPECT_EQ(SET_TO_SERVER_TIME, s.mtime.set_it);
}
