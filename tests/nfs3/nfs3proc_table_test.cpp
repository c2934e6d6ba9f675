// SPDX-License-Identifier: Apache-2.0
//
// The procedure table: what stands in each row, and NULL.
#include "nfs3/nfs3xdr.h"
#include "tests/nfs3/nfs3proc_fixture.h"

using namespace oxel::test;
using testing::IsEmpty;

namespace {

template <typename Routine>
xdrproc_t Codec(Routine routine) {
    return reinterpret_cast<xdrproc_t>(reinterpret_cast<void (*)()>(routine));
}

#define CODECS_AND_GETTER(NAME) \
    GetExport_##NAME, Codec(xdr_##NAME##args), Codec(xdr_##NAME##res), nullptr, #NAME

// Row by row as RFC 1813 numbers them; handlers and releases are looked at below.
const ProcedureRow kExpected[] = {
    {nullptr, nullptr, Codec(xdr_void), Codec(xdr_void), nullptr, "NULL3", 0},
    {nullptr, CODECS_AND_GETTER(GETATTR3), 96},
    {nullptr, CODECS_AND_GETTER(SETATTR3), 136},
    {nullptr, CODECS_AND_GETTER(LOOKUP3), 272},
    {nullptr, CODECS_AND_GETTER(ACCESS3), 112},
    {nullptr, CODECS_AND_GETTER(READLINK3), 112},
    {nullptr, CODECS_AND_GETTER(READ3), 120},
    {nullptr, CODECS_AND_GETTER(WRITE3), 152},
    {nullptr, CODECS_AND_GETTER(CREATE3), 304},
    {nullptr, CODECS_AND_GETTER(MKDIR3), 304},
    {nullptr, CODECS_AND_GETTER(SYMLINK3), 304},
    {nullptr, CODECS_AND_GETTER(MKNOD3), 304},
    {nullptr, CODECS_AND_GETTER(REMOVE3), 136},
    {nullptr, CODECS_AND_GETTER(RMDIR3), 136},
    {nullptr, CODECS_AND_GETTER(RENAME3), 264},
    {nullptr, CODECS_AND_GETTER(LINK3), 232},
    {nullptr, CODECS_AND_GETTER(READDIR3), 136},
    {nullptr, CODECS_AND_GETTER(READDIRPLUS3), 136},
    {nullptr, CODECS_AND_GETTER(FSSTAT3), 160},
    {nullptr, CODECS_AND_GETTER(FSINFO3), 160},
    {nullptr, CODECS_AND_GETTER(PATHCONF3), 128},
    {nullptr, CODECS_AND_GETTER(COMMIT3), 144},
};

TEST(Table, NamesCodecsGettersAndReplySizesOfEveryRow) {
    ASSERT_EQ(22u, std::size(kExpected));
    ASSERT_EQ(22, kNfs3ProcedureCount);
    for (int i = 0; i < kNfs3ProcedureCount; ++i) {
        SCOPED_TRACE(kExpected[i].name);
        EXPECT_STREQ(kExpected[i].name, Nfsv3Handlers[i].name);
        EXPECT_EQ(kExpected[i].getExport, Nfsv3Handlers[i].getExport);
        EXPECT_EQ(kExpected[i].xdrArguments, Nfsv3Handlers[i].xdrArguments);
        EXPECT_EQ(kExpected[i].xdrResult, Nfsv3Handlers[i].xdrResult);
        EXPECT_EQ(kExpected[i].replyBytes, Nfsv3Handlers[i].replyBytes);
    }
}

TEST(Table, HandlersOfTheReadSide) {
    EXPECT_EQ(&Handle_NULL3, Nfsv3Handlers[0].handler);
    EXPECT_EQ(&Handle_GETATTR3, Nfsv3Handlers[1].handler);
    EXPECT_EQ(&Handle_SETATTR3, Nfsv3Handlers[2].handler);
    EXPECT_EQ(&Handle_LOOKUP3, Nfsv3Handlers[3].handler);
    EXPECT_EQ(&Handle_ACCESS3, Nfsv3Handlers[4].handler);
    EXPECT_EQ(&Handle_READLINK3, Nfsv3Handlers[5].handler);
    EXPECT_EQ(&Handle_READ3, Nfsv3Handlers[6].handler);
    EXPECT_EQ(&Handle_READDIR3, Nfsv3Handlers[16].handler);
    EXPECT_EQ(&Handle_READDIRPLUS3, Nfsv3Handlers[17].handler);
    EXPECT_EQ(&Handle_FSSTAT3, Nfsv3Handlers[18].handler);
    EXPECT_EQ(&Handle_FSINFO3, Nfsv3Handlers[19].handler);
    EXPECT_EQ(&Handle_PATHCONF3, Nfsv3Handlers[20].handler);
}

TEST(Table, OnlyProceduresThatHangMemoryOffTheirResultAreReleased) {
    EXPECT_EQ(&Free_READLINK3, Nfsv3Handlers[5].release);
    EXPECT_EQ(&Free_READ3, Nfsv3Handlers[6].release);
    EXPECT_EQ(&Free_READDIR3, Nfsv3Handlers[16].release);
    EXPECT_EQ(&Free_READDIRPLUS3, Nfsv3Handlers[17].release);
    for (int procedure : {0, 1, 2, 3, 4, 8, 9, 11, 12, 13, 14, 15, 18, 19, 20, 21})
        EXPECT_EQ(nullptr, Nfsv3Handlers[procedure].release) << Nfsv3Handlers[procedure].name;
}

TEST_F(ProcTest, NullAnswersAndDoesNothing) {
    EXPECT_EQ(TRUE, Handle_NULL3(&call_));
    EXPECT_EQ(nullptr, call_.exportPtr);
    EXPECT_THAT(log_.Lines(), IsEmpty());
}

}  // namespace
