// SPDX-License-Identifier: Apache-2.0
//
// The codec of every procedure's arguments except WRITE's, which have a file of their own.
#include "nfs3/nfs3xdr.h"
#include "tests/nfs3/nfs3xdr_wire.h"

using namespace oxel::test;

namespace {

Wire DirOpWire(const std::string& name) {
    return HandleWire().Add(Wire().Opaque(name));
}

diropargs3 DirOp(const char* name) {
    return {SampleHandle(), Text(name)};
}

createhow3 How(createmode3 mode) {
    createhow3 how{};
    how.mode = mode;
    return how;
}

}  // namespace

TEST(XdrArguments, OfOneHandle) {
    ExpectBothWays(xdr_GETATTR3args, GETATTR3args{SampleHandle()}, HandleWire());
    ExpectBothWays(xdr_READLINK3args, READLINK3args{SampleHandle()}, HandleWire());
    ExpectBothWays(xdr_FSSTAT3args, FSSTAT3args{SampleHandle()}, HandleWire());
    ExpectBothWays(xdr_FSINFO3args, FSINFO3args{SampleHandle()}, HandleWire());
    ExpectBothWays(xdr_PATHCONF3args, PATHCONF3args{SampleHandle()}, HandleWire());
}

TEST(XdrArguments, OfADirectoryAndAName) {
    ExpectBothWays(xdr_LOOKUP3args, LOOKUP3args{DirOp("file")}, DirOpWire("file"));
    ExpectBothWays(xdr_REMOVE3args, REMOVE3args{DirOp("file")}, DirOpWire("file"));
    ExpectBothWays(xdr_RMDIR3args, RMDIR3args{DirOp("dir")}, DirOpWire("dir"));
}

TEST(XdrArguments, ANameOf4096BytesDecodesAndOneByteMoreFails) {
    LOOKUP3args args{};
    ASSERT_TRUE(Decode(xdr_LOOKUP3args, DirOpWire(std::string(4096, 'n')), &args));
    EXPECT_EQ(std::string(4096, 'n'), args.what.name);
    Free(xdr_LOOKUP3args, &args);
    ExpectDecodeFails(xdr_LOOKUP3args, DirOpWire(std::string(4097, 'n')));
}

TEST(XdrArguments, ANameThatWouldEndEarlyFails) {
    ExpectDecodeFails(xdr_REMOVE3args, DirOpWire(std::string("keep\0junk", 9)));
}

TEST(XdrArguments, OfSetattrWithAndWithoutGuard) {
    SETATTR3args args{SampleHandle(), SampleSattr(), {TRUE, {15, 16}}};
    ExpectBothWays(xdr_SETATTR3args, args, HandleWire().Add(SattrWire()).U32(1).U32(15).U32(16));
    args.guard.check = FALSE;
    ExpectBothWays(xdr_SETATTR3args, args, HandleWire().Add(SattrWire()).U32(0));
}

TEST(XdrArguments, OfAccess) {
    ExpectBothWays(xdr_ACCESS3args, ACCESS3args{SampleHandle(), 0x3f}, HandleWire().U32(0x3f));
}

TEST(XdrArguments, OfRead) {
    ExpectBothWays(xdr_READ3args, READ3args{SampleHandle(), 0x1020304050607080, 0xffffffff},
                   HandleWire().U64(0x1020304050607080).U32(0xffffffff));
}

TEST(XdrArguments, OfCreateWithAttributes) {
    for (createmode3 mode : {UNCHECKED, GUARDED}) {
        CREATE3args args{DirOp("new"), How(mode)};
        args.how.obj_attributes = SampleSattr();
        ExpectBothWays(xdr_CREATE3args, args, DirOpWire("new").U32(mode).Add(SattrWire()));
    }
}

TEST(XdrArguments, OfCreateExclusiveHoldTheVerifiersTwoWords) {
    CREATE3args args{DirOp("new"), How(EXCLUSIVE)};
    args.how.verf.high = 0x01020304;
    args.how.verf.low = 0x05060708;
    Wire wire = DirOpWire("new").U32(2).U64(0x0102030405060708);
    ExpectBothWays(xdr_CREATE3args, args, wire);

    CREATE3args decoded{};
    ASSERT_TRUE(Decode(xdr_CREATE3args, wire, &decoded));
    EXPECT_EQ(0x0102030405060708u, decoded.how.Verifier());
    // One storage: CREATE reads the verifier's words as the mode.
    EXPECT_EQ(0x01020304, decoded.how.obj_attributes.mode.set_it);
    EXPECT_EQ(0x05060708u, decoded.how.obj_attributes.mode.value);
    Free(xdr_CREATE3args, &decoded);
}

TEST(XdrArguments, AnotherCreateModeFails) {
    for (uint32_t mode : {3u, 0x80000000u, 0xffffffffu})
        ExpectDecodeFails(xdr_CREATE3args, DirOpWire("new").U32(mode).Add(SattrWire()));
    ExpectEncodeFails(xdr_CREATE3args, CREATE3args{DirOp("new"), How(static_cast<createmode3>(3))});
}

TEST(XdrArguments, OfMkdir) {
    ExpectBothWays(xdr_MKDIR3args, MKDIR3args{DirOp("dir"), SampleSattr()},
                   DirOpWire("dir").Add(SattrWire()));
}

TEST(XdrArguments, OfSymlink) {
    ExpectBothWays(xdr_SYMLINK3args,
                   SYMLINK3args{DirOp("link"), {SampleSattr(), Text("/etc/motd")}},
                   DirOpWire("link").Add(SattrWire()).Opaque("/etc/motd"));
    ExpectDecodeFails(xdr_SYMLINK3args,
                      DirOpWire("link").Add(SattrWire()).Opaque(std::string(4097, 't')));
}

TEST(XdrArguments, OfMknodForADevice) {
    for (ftype3 type : {NF3CHR, NF3BLK}) {
        MKNOD3args args{DirOp("dev"), {}};
        args.what.type = type;
        args.what.device = {SampleSattr(), {8, 1}};
        ExpectBothWays(xdr_MKNOD3args, args,
                       DirOpWire("dev").U32(type).Add(SattrWire()).U32(8).U32(1));
    }
}

TEST(XdrArguments, OfMknodForASocketOrPipe) {
    for (ftype3 type : {NF3SOCK, NF3FIFO}) {
        MKNOD3args args{DirOp("pipe"), {}};
        args.what.type = type;
        args.what.pipe_attributes = SampleSattr();
        ExpectBothWays(xdr_MKNOD3args, args, DirOpWire("pipe").U32(type).Add(SattrWire()));
    }
}

TEST(XdrArguments, OfMknodForAnyOtherTypeEndWithTheType) {
    for (uint32_t type :
         {0u, uint32_t{NF3REG}, uint32_t{NF3DIR}, uint32_t{NF3LNK}, 8u, 0xffffffffu}) {
        MKNOD3args args{DirOp("odd"), {}};
        args.what.type = static_cast<ftype3>(type);
        ExpectBothWays(xdr_MKNOD3args, args, DirOpWire("odd").U32(type));
        MKNOD3args decoded{};
        ASSERT_TRUE(Decode(xdr_MKNOD3args, DirOpWire("odd").U32(type), &decoded));
        EXPECT_EQ(type, uint32_t{decoded.what.type});
        Free(xdr_MKNOD3args, &decoded);
    }
}

TEST(XdrArguments, OfRename) {
    ExpectBothWays(xdr_RENAME3args, RENAME3args{DirOp("old"), DirOp("new name")},
                   DirOpWire("old").Add(DirOpWire("new name")));
}

TEST(XdrArguments, OfRenameWhoseSecondNameFailsReleaseTheFirst) {
    ExpectDecodeFails(xdr_RENAME3args, DirOpWire("old").Add(DirOpWire(std::string(4097, 'n'))));
}

TEST(XdrArguments, OfLink) {
    ExpectBothWays(xdr_LINK3args, LINK3args{SampleHandle(12), DirOp("link")},
                   HandleWire(12).Add(DirOpWire("link")));
}

TEST(XdrArguments, OfReaddir) {
    ExpectBothWays(xdr_READDIR3args,
                   READDIR3args{SampleHandle(), 0x0102030405060708, 0x1112131415161718, 4096},
                   HandleWire().U64(0x0102030405060708).U64(0x1112131415161718).U32(4096));
}

TEST(XdrArguments, OfReaddirplus) {
    ExpectBothWays(
        xdr_READDIRPLUS3args,
        READDIRPLUS3args{SampleHandle(), 0x0102030405060708, 0x1112131415161718, 512, 8192},
        HandleWire().U64(0x0102030405060708).U64(0x1112131415161718).U32(512).U32(8192));
}

TEST(XdrArguments, OfCommit) {
    ExpectBothWays(xdr_COMMIT3args, COMMIT3args{SampleHandle(), 0x0102030405060708, 0x99},
                   HandleWire().U64(0x0102030405060708).U32(0x99));
}

TEST(XdrArguments, AHandleOfABadLengthFailsEveryProcedure) {
    Wire bad = Wire().U32(65).Raw(std::string(256, '\x01'));
    ExpectDecodeFails(xdr_GETATTR3args, bad);
    ExpectDecodeFails(xdr_SETATTR3args, bad);
    ExpectDecodeFails(xdr_LOOKUP3args, bad);
    ExpectDecodeFails(xdr_ACCESS3args, bad);
    ExpectDecodeFails(xdr_READ3args, bad);
    ExpectDecodeFails(xdr_LINK3args, HandleWire().Add(bad));
    ExpectDecodeFails(xdr_READDIRPLUS3args, bad);
    ExpectDecodeFails(xdr_COMMIT3args, bad);
}

// A client may cut its record into fragments of any length; what follows an odd one then stands at
// an odd address in the RPC library's buffer.
TEST(XdrArguments, DecodeFromOddAddresses) {
    const std::vector<unsigned char> wire =
        HandleWire().U32(0).U32(7).U32(0).U32(8).U32(9).U32(10).Bytes();
    for (size_t shift = 1; shift < 4; ++shift) {
        std::vector<char> memory(64 + wire.size());
        XDR stream;
        // At an aligned address, so that the library gives its words in line, and then moved on.
        xdrmem_create(&stream, memory.data(), static_cast<u_int>(wire.size()), XDR_DECODE);
        ASSERT_NE(stream.x_ops->x_inline, nullptr);
        memcpy(memory.data() + shift, wire.data(), wire.size());
        stream.x_private = memory.data() + shift;
        READDIRPLUS3args args{};
        ASSERT_TRUE(xdr_READDIRPLUS3args(&stream, &args)) << shift;
        EXPECT_EQ(args.dir.nfh_len, SampleHandle().nfh_len);
        EXPECT_EQ(args.dir.shareId, SampleHandle().shareId);
        EXPECT_EQ(args.cookie, 7u);
        EXPECT_EQ(args.dircount, 9u);
        EXPECT_EQ(args.maxcount, 10u);
    }
}
