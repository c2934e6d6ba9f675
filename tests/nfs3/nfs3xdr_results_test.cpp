// SPDX-License-Identifier: Apache-2.0
//
// The codec of every procedure's results, both arms, except the directory lists.
#include <string>

#include "backend/OxelServiceGlobals.h"
#include "nfs3/nfs3xdr.h"
#include "tests/nfs3/nfs3xdr_wire.h"

using namespace oxel::test;

namespace {

// A result with this status, everything else zero.
template <typename Result>
Result WithStatus(nfsstat3 status) {
    Result result;
    memset(static_cast<void*>(&result), 0, sizeof(result));
    result.status = status;
    return result;
}

Wire Ok() {
    return Wire().U32(0);
}

Wire Fail(uint32_t status = 70) {
    return Wire().U32(status);
}

// The failure arm is taken for every other status, also for one that RFC 1813 does not name: an
// errno without a row in the error table goes to the client as it is.
template <typename Result, typename FillFailure>
void ExpectFailureArm(Codec<Result> codec, FillFailure fill, const Wire& arm) {
    for (uint32_t status : {1u, 70u, 125u, 10008u, 0xffffffffu}) {
        auto result = WithStatus<Result>(static_cast<nfsstat3>(status));
        fill(result);
        ExpectBothWays(codec, result, Fail(status).Add(arm));
    }
}

// CREATE, MKDIR, SYMLINK and MKNOD answer alike.
template <typename Result, typename Ok3, typename Fail3>
void ExpectMadeObject(Codec<Result> codec, Codec<Ok3> codecOk, Codec<Fail3> codecFail) {
    auto result = WithStatus<Result>(NFS3_OK);
    result.resok.obj = {TRUE, SampleHandle()};
    result.resok.obj_attributes = SamplePostOp();
    result.resok.dir_wcc = SampleWcc();
    Wire arm = Wire().U32(1).Add(HandleWire()).Add(PostOpWire()).Add(WccWire());
    ExpectBothWays(codec, result, Ok().Add(arm));
    ExpectBothWays(codecOk, result.resok, arm);
    ExpectBothWays(codec, WithStatus<Result>(NFS3_OK), Ok().U32(0).U32(0).Add(NoWccWire()));
    Fail3 failure{SampleWcc()};
    ExpectBothWays(codecFail, failure, WccWire());
    ExpectFailureArm(
        codec, [](Result& r) { r.resfail.dir_wcc = SampleWcc(); }, WccWire());
}

// REMOVE and RMDIR answer alike.
template <typename Result, typename Ok3, typename Fail3>
void ExpectRemoved(Codec<Result> codec, Codec<Ok3> codecOk, Codec<Fail3> codecFail) {
    auto result = WithStatus<Result>(NFS3_OK);
    result.resok.dir_wcc = SampleWcc();
    ExpectBothWays(codec, result, Ok().Add(WccWire()));
    ExpectBothWays(codecOk, Ok3{SampleWcc()}, WccWire());
    ExpectBothWays(codecFail, Fail3{SampleWcc()}, WccWire());
    ExpectFailureArm(
        codec, [](Result& r) { r.resfail.dir_wcc = SampleWcc(); }, WccWire());
}

}  // namespace

TEST(XdrResults, OfGetattr) {
    auto result = WithStatus<GETATTR3res>(NFS3_OK);
    result.resok.obj_attributes = SampleAttributes();
    ExpectBothWays(xdr_GETATTR3res, result, Ok().Add(AttributesWire()));
    ExpectFailureArm<GETATTR3res>(
        xdr_GETATTR3res, [](GETATTR3res&) {}, Wire());
}

TEST(XdrResults, OfSetattr) {
    auto result = WithStatus<SETATTR3res>(NFS3_OK);
    result.resok.obj_wcc = SampleWcc();
    ExpectBothWays(xdr_SETATTR3res, result, Ok().Add(WccWire()));
    ExpectBothWays(xdr_SETATTR3resok, SETATTR3resok{SampleWcc()}, WccWire());
    ExpectBothWays(xdr_SETATTR3resfail, SETATTR3resfail{NoWcc()}, NoWccWire());
    ExpectFailureArm<SETATTR3res>(
        xdr_SETATTR3res, [](SETATTR3res& r) { r.resfail.obj_wcc = SampleWcc(); }, WccWire());
}

TEST(XdrResults, OfLookup) {
    auto result = WithStatus<LOOKUP3res>(NFS3_OK);
    result.resok = {SampleHandle(), SamplePostOp(), {}};
    Wire arm = HandleWire().Add(PostOpWire()).U32(0);
    ExpectBothWays(xdr_LOOKUP3res, result, Ok().Add(arm));
    ExpectBothWays(xdr_LOOKUP3resok, result.resok, arm);
    ExpectBothWays(xdr_LOOKUP3resfail, LOOKUP3resfail{SamplePostOp()}, PostOpWire());
    ExpectFailureArm<LOOKUP3res>(
        xdr_LOOKUP3res, [](LOOKUP3res& r) { r.resfail.dir_attributes = SamplePostOp(); },
        PostOpWire());
}

TEST(XdrResults, OfAccess) {
    auto result = WithStatus<ACCESS3res>(NFS3_OK);
    result.resok = {SamplePostOp(), 0x1f};
    Wire arm = PostOpWire().U32(0x1f);
    ExpectBothWays(xdr_ACCESS3res, result, Ok().Add(arm));
    ExpectBothWays(xdr_ACCESS3resok, result.resok, arm);
    ExpectBothWays(xdr_ACCESS3resfail, ACCESS3resfail{SamplePostOp()}, PostOpWire());
    ExpectFailureArm<ACCESS3res>(
        xdr_ACCESS3res, [](ACCESS3res&) {}, Wire().U32(0));
}

TEST(XdrResults, OfReadlink) {
    auto result = WithStatus<READLINK3res>(NFS3_OK);
    result.resok = {SamplePostOp(), Text("../elsewhere")};
    Wire arm = PostOpWire().Opaque("../elsewhere");
    ExpectBothWays(xdr_READLINK3res, result, Ok().Add(arm));
    ExpectBothWays(xdr_READLINK3resok, result.resok, arm);
    ExpectBothWays(xdr_READLINK3resfail, READLINK3resfail{SamplePostOp()}, PostOpWire());
    ExpectFailureArm<READLINK3res>(
        xdr_READLINK3res, [](READLINK3res& r) { r.resfail.symlink_attributes = SamplePostOp(); },
        PostOpWire());
}

TEST(XdrResults, OfRead) {
    std::string data = "some data";
    auto result = WithStatus<READ3res>(NFS3_OK);
    result.resok.file_attributes = SamplePostOp();
    result.resok.count = 9;
    result.resok.eof = TRUE;
    result.resok.data = {9, data.data()};
    Wire arm = PostOpWire().U32(9).U32(1).Opaque(data);
    ExpectBothWays(xdr_READ3res, result, Ok().Add(arm));
    ExpectBothWays(xdr_READ3resok, result.resok, arm);
    ExpectBothWays(xdr_READ3resfail, READ3resfail{SamplePostOp()}, PostOpWire());
    ExpectFailureArm<READ3res>(
        xdr_READ3res, [](READ3res& r) { r.resfail.file_attributes = SamplePostOp(); },
        PostOpWire());
}

TEST(XdrResults, OfReadAtTheEndHaveNoData) {
    auto result = WithStatus<READ3res>(NFS3_OK);
    result.resok.eof = TRUE;
    ExpectBothWays(xdr_READ3res, result, Ok().U32(0).U32(0).U32(1).U32(0));
}

TEST(XdrResults, OfReadHoldTheTransferSizeAndNotOneByteMore) {
    const uint64_t before = NFS3_MAXBUF_SIZE;
    for (uint64_t most : {uint64_t{0}, uint64_t{5}, before}) {
        NFS3_MAXBUF_SIZE = most;
        std::string data(most + 1, 'd');
        auto result = WithStatus<READ3res>(NFS3_OK);
        result.resok.data = {static_cast<uint32_t>(most), data.data()};
        std::vector<unsigned char> bytes;
        EXPECT_TRUE(Encode(xdr_READ3res, &result, most + 64, true, &bytes));
        result.resok.data.data_len = static_cast<uint32_t>(most + 1);
        EXPECT_FALSE(Encode(xdr_READ3res, &result, most + 64, true, &bytes));
        NFS3_MAXBUF_SIZE = before;
    }
}

TEST(XdrResults, OfWrite) {
    auto result = WithStatus<WRITE3res>(NFS3_OK);
    result.resok = {SampleWcc(), 4096, FILE_SYNC, 0x000000005f5e0ff1};
    Wire arm = WccWire().U32(4096).U32(2).U64(0x000000005f5e0ff1);
    ExpectBothWays(xdr_WRITE3res, result, Ok().Add(arm));
    ExpectBothWays(xdr_WRITE3resok, result.resok, arm);
    ExpectBothWays(xdr_WRITE3resfail, WRITE3resfail{SampleWcc()}, WccWire());
    ExpectFailureArm<WRITE3res>(
        xdr_WRITE3res, [](WRITE3res& r) { r.resfail.file_wcc = SampleWcc(); }, WccWire());
}

TEST(XdrResults, OfCreate) {
    ExpectMadeObject<CREATE3res, CREATE3resok, CREATE3resfail>(xdr_CREATE3res, xdr_CREATE3resok,
                                                               xdr_CREATE3resfail);
}

TEST(XdrResults, OfMkdir) {
    ExpectMadeObject<MKDIR3res, MKDIR3resok, MKDIR3resfail>(xdr_MKDIR3res, xdr_MKDIR3resok,
                                                            xdr_MKDIR3resfail);
}

TEST(XdrResults, OfSymlink) {
    ExpectMadeObject<SYMLINK3res, SYMLINK3resok, SYMLINK3resfail>(
        xdr_SYMLINK3res, xdr_SYMLINK3resok, xdr_SYMLINK3resfail);
}

TEST(XdrResults, OfMknod) {
    ExpectMadeObject<MKNOD3res, MKNOD3resok, MKNOD3resfail>(xdr_MKNOD3res, xdr_MKNOD3resok,
                                                            xdr_MKNOD3resfail);
}

TEST(XdrResults, OfRemove) {
    ExpectRemoved<REMOVE3res, REMOVE3resok, REMOVE3resfail>(xdr_REMOVE3res, xdr_REMOVE3resok,
                                                            xdr_REMOVE3resfail);
}

TEST(XdrResults, OfRmdir) {
    ExpectRemoved<RMDIR3res, RMDIR3resok, RMDIR3resfail>(xdr_RMDIR3res, xdr_RMDIR3resok,
                                                         xdr_RMDIR3resfail);
}

TEST(XdrResults, OfRename) {
    auto result = WithStatus<RENAME3res>(NFS3_OK);
    result.resok = {SampleWcc(), NoWcc()};
    Wire arm = WccWire().Add(NoWccWire());
    ExpectBothWays(xdr_RENAME3res, result, Ok().Add(arm));
    ExpectBothWays(xdr_RENAME3resok, result.resok, arm);
    Wire failure = NoWccWire().Add(WccWire());
    ExpectBothWays(xdr_RENAME3resfail, RENAME3resfail{NoWcc(), SampleWcc()}, failure);
    ExpectFailureArm<RENAME3res>(
        xdr_RENAME3res,
        [](RENAME3res& r) {
            r.resfail = {NoWcc(), SampleWcc()};
        },
        failure);
}

TEST(XdrResults, OfLink) {
    auto result = WithStatus<LINK3res>(NFS3_OK);
    result.resok = {SamplePostOp(), SampleWcc()};
    Wire arm = PostOpWire().Add(WccWire());
    ExpectBothWays(xdr_LINK3res, result, Ok().Add(arm));
    ExpectBothWays(xdr_LINK3resok, result.resok, arm);
    ExpectBothWays(xdr_LINK3resfail, LINK3resfail{SamplePostOp(), SampleWcc()}, arm);
    ExpectFailureArm<LINK3res>(
        xdr_LINK3res,
        [](LINK3res& r) {
            r.resfail = {SamplePostOp(), SampleWcc()};
        },
        arm);
}

TEST(XdrResults, OfFsstat) {
    auto result = WithStatus<FSSTAT3res>(NFS3_OK);
    result.resok = {SamplePostOp(), 1, 2, 3, 4, 5, 0x0102030405060708, 7};
    Wire arm = PostOpWire().U64(1).U64(2).U64(3).U64(4).U64(5).U64(0x0102030405060708).U32(7);
    ExpectBothWays(xdr_FSSTAT3res, result, Ok().Add(arm));
    ExpectBothWays(xdr_FSSTAT3resok, result.resok, arm);
    ExpectBothWays(xdr_FSSTAT3resfail, FSSTAT3resfail{SamplePostOp()}, PostOpWire());
    ExpectFailureArm<FSSTAT3res>(
        xdr_FSSTAT3res, [](FSSTAT3res&) {}, Wire().U32(0));
}

TEST(XdrResults, OfFsinfo) {
    auto result = WithStatus<FSINFO3res>(NFS3_OK);
    result.resok = {SamplePostOp(), 1, 2, 3, 4, 5, 6, 7, 0x7fffffffffffffff, {0, 1}, 0x1b};
    Wire arm = PostOpWire()
                   .U32(1)
                   .U32(2)
                   .U32(3)
                   .U32(4)
                   .U32(5)
                   .U32(6)
                   .U32(7)
                   .U64(0x7fffffffffffffff)
                   .U32(0)
                   .U32(1)
                   .U32(0x1b);
    ExpectBothWays(xdr_FSINFO3res, result, Ok().Add(arm));
    ExpectBothWays(xdr_FSINFO3resok, result.resok, arm);
    ExpectBothWays(xdr_FSINFO3resfail, FSINFO3resfail{SamplePostOp()}, PostOpWire());
    ExpectFailureArm<FSINFO3res>(
        xdr_FSINFO3res, [](FSINFO3res&) {}, Wire().U32(0));
}

TEST(XdrResults, OfPathconf) {
    auto result = WithStatus<PATHCONF3res>(NFS3_OK);
    result.resok = {SamplePostOp(), 32000, 255, 1, 0, FALSE, TRUE};
    Wire arm = PostOpWire().U32(32000).U32(255).U32(1).U32(0).U32(0).U32(1);
    ExpectBothWays(xdr_PATHCONF3res, result, Ok().Add(arm));
    ExpectBothWays(xdr_PATHCONF3resok, result.resok, arm);
    ExpectBothWays(xdr_PATHCONF3resfail, PATHCONF3resfail{SamplePostOp()}, PostOpWire());
    ExpectFailureArm<PATHCONF3res>(
        xdr_PATHCONF3res, [](PATHCONF3res&) {}, Wire().U32(0));
}

TEST(XdrResults, OfPathconfSendFlagsAsOneOrZeroWhateverNumberTheyHold) {
    PATHCONF3resok resok{{}, 0xffffffff, 255, 0xffffffff, 200112, 77, 0};
    ExpectEncodes(xdr_PATHCONF3resok, &resok,
                  Wire().U32(0).U32(0xffffffff).U32(255).U32(1).U32(1).U32(1).U32(0));
}

TEST(XdrResults, OfCommit) {
    auto result = WithStatus<COMMIT3res>(NFS3_OK);
    result.resok = {SampleWcc(), 0x000000005f5e0ff1};
    Wire arm = WccWire().U64(0x000000005f5e0ff1);
    ExpectBothWays(xdr_COMMIT3res, result, Ok().Add(arm));
    ExpectBothWays(xdr_COMMIT3resok, result.resok, arm);
    ExpectBothWays(xdr_COMMIT3resfail, COMMIT3resfail{SampleWcc()}, WccWire());
    ExpectFailureArm<COMMIT3res>(
        xdr_COMMIT3res, [](COMMIT3res& r) { r.resfail.file_wcc = SampleWcc(); }, WccWire());
}
