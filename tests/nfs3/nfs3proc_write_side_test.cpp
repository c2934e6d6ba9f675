// SPDX-License-Identifier: Apache-2.0
//
// What all procedures that modify a share have in common, row by row: who is refused, the counters,
// the releases.
#include "base/perf_counter.h"
#include "tests/nfs3/nfs3proc_directory.h"

using namespace oxel::test;
using testing::_;
using testing::ElementsAre;
using testing::Return;

namespace {

struct Row {
    int procedure;
    bool_t (*handler)(CallInfo3*);
    bool_t (*inTable)(CallInfo3*);  // the release that the table names
    bool_t (*release)(CallInfo3*);
    const char* releaseText;  // its signature
    unsigned counter;
};

const Row kRows[] = {
    {7, Handle_WRITE3, Free_WRITE3, Free_WRITE3, "bool_t Free_WRITE3(CallInfo3*)", 50},
    {8, Handle_CREATE3, nullptr, Free_CREATE3, "bool_t Free_CREATE3(CallInfo3*)", 51},
    {9, Handle_MKDIR3, nullptr, Free_MKDIR3, "bool_t Free_MKDIR3(CallInfo3*)", 57},
    {10, Handle_SYMLINK3, Free_SYMLINK3, Free_SYMLINK3, "bool_t Free_SYMLINK3(CallInfo3*)", 52},
    {11, Handle_MKNOD3, nullptr, Free_MKNOD3, "bool_t Free_MKNOD3(CallInfo3*)", 53},
    {12, Handle_REMOVE3, nullptr, Free_REMOVE3, "bool_t Free_REMOVE3(CallInfo3*)", 40},
    {13, Handle_RMDIR3, nullptr, Free_RMDIR3, "bool_t Free_RMDIR3(CallInfo3*)", 58},
    {14, Handle_RENAME3, nullptr, Free_RENAME3, "bool_t Free_RENAME3(CallInfo3*)", 54},
    {15, Handle_LINK3, nullptr, Free_LINK3, "bool_t Free_LINK3(CallInfo3*)", 55},
    {21, Handle_COMMIT3, nullptr, Free_COMMIT3, "bool_t Free_COMMIT3(CallInfo3*)", 56},
};

class WriteSide : public DirectoryTest, public testing::WithParamInterface<Row> {
  protected:
    // Only what a handler reads before and while it looks at its handles.
    int Run(const nfs_fh3& handle) {
        CallArguments3& args = call_.arguments();
        switch (GetParam().procedure) {
            case 14:
                args.rename.from = args.rename.to = {handle, name_};
                break;
            case 15:
                args.link.file = handle;
                args.link.link = {handle, name_};
                break;
            case 7:
                args.write.file = handle;
                break;
            case 21:
                args.commit.file = handle;
                break;
            default:  // the others begin with a directory and a name
                args.remove.object = {handle, name_};
        }
        EXPECT_EQ(TRUE, Nfsv3Handlers[GetParam().procedure].handler(&call_));
        return call_.result.getattr.status;  // where every result has it
    }
    // Nothing of the share is asked for.
    void NothingIsLookedFor() {
        EXPECT_CALL(*module_, GetBkEndProc).Times(0);
        EXPECT_CALL(*object_, Stat).Times(0);
    }
};

TEST_P(WriteSide, StandsInItsRow) {
    const ProcedureRow& row = Nfsv3Handlers[GetParam().procedure];
    EXPECT_EQ(GetParam().handler, row.handler);
    EXPECT_EQ(GetParam().inTable, row.release);
}

TEST_P(WriteSide, ReadOnlyShareRefusesWhoeverAsks) {
    ON_CALL(*share_, IsWritable).WillByDefault(Return(0u));
    ClientIsRefused();
    NothingIsLookedFor();
    EXPECT_EQ(NFS3ERR_ACCES, Run(handle_));
    EXPECT_THAT(Errors(), ElementsAre(LogLine{-1, kValidateFunction,
                                              "Write Access denied for share [/srv/share]"}));
}

TEST_P(WriteSide, RefusedClientGetsAccess) {
    ClientIsRefused();
    NothingIsLookedFor();
    EXPECT_EQ(NFS3ERR_ACCES, Run(handle_));
    EXPECT_THAT(Errors(), ElementsAre(RefusalLine()));
}

TEST_P(WriteSide, HandleOfAnUnknownModuleIsStale) {
    NothingIsLookedFor();
    EXPECT_EQ(NFS3ERR_STALE, Run(MakeHandle(12345, 6)));
    EXPECT_THAT(Errors(),
                ElementsAre(LogLine{-1, kValidateFunction,
                                    "FSM Not Found fsmType [12345] shareId [6] nfh_len [16]."}));
}

TEST_P(WriteSide, IsCountedUnderItsNumber) {
    const auto count = [] {
        for (const oxel::PerfTotals& totals : oxel::PerfSnapshot())
            if (totals.id == GetParam().counter) {
                EXPECT_EQ("NFS", totals.name);
                return totals.count;
            }
        return uint64_t{0};
    };
    const uint64_t before = count();
    const bool flagBefore = gPerfFlag.exchange(true);
    Run(MakeHandle(12345, 6));
    gPerfFlag = flagBefore;
    EXPECT_EQ(before + 1, count());
}

TEST_P(WriteSide, ReleaseSaysSo) {
    EXPECT_EQ(TRUE, GetParam().release(&call_));
    EXPECT_THAT(log_.Lines(), ElementsAre(LogLine{4, GetParam().releaseText, "Freed memory"}));
}

INSTANTIATE_TEST_SUITE_P(Procedures, WriteSide, testing::ValuesIn(kRows), [](const auto& info) {
    return std::string(Nfsv3Handlers[info.param.procedure].name);
});

TEST(Table, EveryProcedureHasAHandler) {
    for (const ProcedureRow& row : Nfsv3Handlers) EXPECT_NE(nullptr, row.handler) << row.name;
}

// Closing is what WRITE and COMMIT count as their inner data transfer.
TEST_F(ProcTest, WriteAndCommitCountTheirClosing) {
    const auto count = [] {
        for (const oxel::PerfTotals& totals : oxel::PerfSnapshot())
            if (totals.id == 63) return totals.count;
        return uint64_t{0};
    };
    ON_CALL(*object_, Open).WillByDefault(Return(5));
    call_.arguments().write.file = handle_;
    const uint64_t before = count();
    const bool flagBefore = gPerfFlag.exchange(true);
    EXPECT_EQ(TRUE, Handle_WRITE3(&call_));
    call_.ClearCall();
    call_.arguments().commit.file = handle_;
    EXPECT_EQ(TRUE, Handle_COMMIT3(&call_));
    gPerfFlag = flagBefore;
    EXPECT_EQ(before + 2, count());
}

}  // namespace
