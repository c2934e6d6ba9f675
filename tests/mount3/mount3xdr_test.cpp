// SPDX-License-Identifier: Apache-2.0
//
// The codec of the MOUNT protocol, both ways.
#include "mount3/mount3xdr.h"

#include <string>

#include "tests/nfs3/nfs3xdr_wire.h"

using namespace oxel::test;

TEST(XdrMount, ArgumentsOfMntAndUmntAreThePath) {
    ExpectBothWays(xdr_MNT3args, MNT3args{Text("/srv/data")}, Wire().Opaque("/srv/data"));
    ExpectBothWays(xdr_UMNT3args, UMNT3args{Text("/srv/data")}, Wire().Opaque("/srv/data"));
}

TEST(XdrMount, APathOf4096BytesDecodesAndOneByteMoreFails) {
    MNT3args args{};
    ASSERT_TRUE(Decode(xdr_MNT3args, Wire().Opaque(std::string(4096, 'p')), &args));
    EXPECT_EQ(std::string(4096, 'p'), args.dirpath);
    Free(xdr_MNT3args, &args);
    EXPECT_EQ(nullptr, args.dirpath);
    ExpectDecodeFails(xdr_MNT3args, Wire().Opaque(std::string(4097, 'p')));
    ExpectDecodeFails(xdr_UMNT3args, Wire().Opaque(std::string(4097, 'p')));
}

TEST(XdrMount, APathWithANulFails) {
    ExpectDecodeFails(xdr_MNT3args, Wire().Opaque(std::string("/srv\0/x", 7)));
}

TEST(XdrMount, ResultOfMntIsHandleAndFlavours) {
    uint32_t flavors[] = {0, 1, 390003};
    MNT3res result{MNT3_OK, {SampleHandle(), {3, flavors}}};
    Wire arm = HandleWire().U32(3).U32(0).U32(1).U32(390003);
    ExpectEncodes(xdr_MNT3res, &result, Wire().U32(0).Add(arm));
    ExpectEncodes(xdr_MNT3res_ok, &result.mountinfo, arm);
}

TEST(XdrMount, FlavoursAreDecodedIntoTheArrayThatTheRecordBrings) {
    Wire wire = Wire().U32(0).Add(HandleWire()).U32(2).U32(0).U32(1);
    uint32_t room[3] = {9, 9, 9};
    MNT3res result{};
    result.mountinfo.auth_flavors = {3, room};
    ASSERT_TRUE(Decode(xdr_MNT3res, wire, &result));
    EXPECT_EQ(2u, result.mountinfo.auth_flavors.auth_flavors_len);
    EXPECT_EQ(room, result.mountinfo.auth_flavors.auth_flavors_val);
    EXPECT_EQ(0u, room[0]);
    EXPECT_EQ(1u, room[1]);
    EXPECT_EQ(9u, room[2]);
    Free(xdr_MNT3res, &result);
    EXPECT_EQ(room, result.mountinfo.auth_flavors.auth_flavors_val) << "not the codec's to free";

    result.mountinfo.auth_flavors = {1, room};
    EXPECT_FALSE(Decode(xdr_MNT3res, wire, &result)) << "more flavours than room";
    result.mountinfo.auth_flavors = {2, nullptr};
    EXPECT_FALSE(Decode(xdr_MNT3res, wire, &result)) << "no array at all";
}

TEST(XdrMount, EveryTruncatedResultOfMntFails) {
    Wire wire = Wire().U32(0).Add(HandleWire()).U32(2).U32(0).U32(1);
    for (bool aligned : {true, false}) {
        for (size_t size = 0; size < wire.Size(); ++size) {
            uint32_t room[2];
            MNT3res result{};
            result.mountinfo.auth_flavors = {2, room};
            EXPECT_FALSE(Decode(xdr_MNT3res, wire.Bytes(), size, aligned, &result)) << size;
        }
    }
}

TEST(XdrMount, FailedMntIsTheStatusAlone) {
    for (mountstat3 status : {MNT3ERR_PERM, MNT3ERR_NOENT, MNT3ERR_ACCES, MNT3ERR_SERVERFAULT})
        ExpectBothWays(xdr_MNT3res, MNT3res{status, {}}, Wire().U32(static_cast<uint32_t>(status)));
}

TEST(XdrMount, FlavoursWithoutArrayAreNotEncoded) {
    ExpectEncodeFails(xdr_MNT3res_ok, MNT3res_ok{SampleHandle(), {2, nullptr}});
}

TEST(XdrMount, MountListIsHostsAndDirectories) {
    mntentry3 second{Text("host two"), Text("/b"), {}};
    mntentry3 first{Text("host"), Text("/srv/data"), {TRUE, &second}};
    Wire entries =
        Wire().Opaque("host").Opaque("/srv/data").U32(1).Opaque("host two").Opaque("/b").U32(0);
    ExpectBothWays(xdr_mntentry3, first, entries);
    ExpectBothWays(xdr_mntlist3, mntlist3{TRUE, &first}, Wire().U32(1).Add(entries));
    ExpectBothWays(xdr_DUMP3res, DUMP3res{{TRUE, &first}}, Wire().U32(1).Add(entries));
    ExpectBothWays(xdr_DUMP3res, DUMP3res{}, Wire().U32(0));
}

TEST(XdrMount, ExportListIsDirectoriesAndGroups) {
    groupnode3 secondGroup{Text("everyone"), {}};
    groupnode3 firstGroup{Text("10.0.0.0/8"), {TRUE, &secondGroup}};
    exportnode3 second{Text("/b"), {}, {}};
    exportnode3 first{Text("/srv/data"), {TRUE, &firstGroup}, {TRUE, &second}};

    Wire groups = Wire().Opaque("10.0.0.0/8").U32(1).Opaque("everyone").U32(0);
    ExpectBothWays(xdr_groupnode3, firstGroup, groups);
    ExpectBothWays(xdr_grouplist3, grouplist3{TRUE, &firstGroup}, Wire().U32(1).Add(groups));
    ExpectBothWays(xdr_grouplist3, grouplist3{}, Wire().U32(0));

    Wire nodes = Wire().Opaque("/srv/data").U32(1).Add(groups).U32(1).Opaque("/b").U32(0).U32(0);
    ExpectBothWays(xdr_exportnode3, first, nodes);
    ExpectBothWays(xdr_exportlist3, exportlist3{TRUE, &first}, Wire().U32(1).Add(nodes));
    ExpectBothWays(xdr_EXPORT3res, EXPORT3res{{TRUE, &first}}, Wire().U32(1).Add(nodes));
    ExpectBothWays(xdr_EXPORT3res, EXPORT3res{}, Wire().U32(0));
}

TEST(XdrMount, AFlagWithoutANodeEndsTheList) {
    exportlist3 list{TRUE, nullptr};
    ExpectEncodes(xdr_exportlist3, &list, Wire().U32(0));
}

TEST(XdrMount, ALongListDoesNotDeepenTheStack) {
    Wire wire;
    for (int i = 0; i < 100000; ++i) wire.U32(1).Opaque("/e").U32(0);
    wire.U32(0);
    EXPORT3res decoded{};
    ASSERT_TRUE(Decode(xdr_EXPORT3res, wire, &decoded));
    std::vector<unsigned char> bytes;
    ASSERT_TRUE(Encode(xdr_EXPORT3res, &decoded, wire.Size(), true, &bytes));
    EXPECT_TRUE(wire.Bytes() == bytes);
    Free(xdr_EXPORT3res, &decoded);
    EXPECT_EQ(nullptr, decoded.exports.node);
}

TEST(XdrMount, VoidArgumentsAndResultsCodeNothing) {
    int untouched = 7;
    for (bool_t (*routine)(XDR*, void*) :
         {xdr_DUMP3args, xdr_UMNT3res, xdr_UMNTALL3args, xdr_UMNTALL3res, xdr_EXPORT3args}) {
        char none[4] = {1, 2, 3, 4};
        XDR xdrs;
        xdrmem_create(&xdrs, none, sizeof(none), XDR_ENCODE);
        EXPECT_TRUE(routine(&xdrs, &untouched));
        EXPECT_EQ(0u, xdr_getpos(&xdrs));
        xdr_destroy(&xdrs);
        EXPECT_EQ(7, untouched);
        EXPECT_EQ(1, none[0]);
    }
}
