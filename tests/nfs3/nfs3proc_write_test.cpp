// SPDX-License-Identifier: Apache-2.0
//
// WRITE.
#include "backend/OxelServiceGlobals.h"
#include "nfs3/nfs3xdr.h"
#include "tests/nfs3/nfs3proc_fixture.h"
#include "tests/nfs3/nfs3xdr_wire.h"

using namespace oxel::test;
using testing::_;
using testing::ElementsAre;
using testing::InSequence;
using testing::Return;

namespace {

constexpr const char* kFunction = "bool_t Handle_WRITE3(CallInfo3*)";
constexpr int kFd = 33;
constexpr uint32_t kStartTime = 0x12345678;

class Write : public ProcTest {
  protected:
    Write() {
        OxelServiceGlobals::SetServerStartTime(kStartTime);
        ON_CALL(*object_, Open).WillByDefault(Return(kFd));
        ON_CALL(*object_, Close).WillByDefault(Return(0));
        ON_CALL(*object_, Write)
            .WillByDefault([](OxelCtxt*, int, const void*, uint64_t, uint32_t count, stable_how) {
                return static_cast<ssize_t>(count);
            });
    }
    ~Write() override {
        OxelServiceGlobals::SetServerStartTime(startBefore_);
        gDummyReadsAndWrites = false;
    }
    WRITE3res& Run(uint64_t offset, const std::string& data, stable_how stable = FILE_SYNC) {
        WRITE3args& args = call_.arguments().write;
        args.file = handle_;
        args.offset = offset;
        args.count = static_cast<uint32_t>(data.size());
        args.stable = stable;
        std::memcpy(args.data(), data.data(), data.size());
        EXPECT_EQ(TRUE, Handle_WRITE3(&call_));
        return call_.result.write;
    }
    static void CarriesNothing(const WRITE3res& result) {
        EXPECT_EQ(FALSE, result.resfail.file_wcc.before.attributes_follow);
        EXPECT_EQ(FALSE, result.resfail.file_wcc.after.attributes_follow);
    }
    const void* Data() { return call_.arguments().write.data(); }
    const void* DataFrom(size_t offset) { return call_.arguments().write.data() + offset; }

    const uint32_t startBefore_ = OxelServiceGlobals::serverStartTime;
};

TEST_F(Write, OpensWritesStraightFromTheRecordAndCloses) {
    InSequence order;
    EXPECT_CALL(*object_, Stat(IsContextOf(&call_, object_.get()), kPath, _));
    EXPECT_CALL(*object_, Open(OnObject(object_.get()), kPath, 1, 0)).WillOnce(Return(kFd));
    EXPECT_CALL(*object_, Write(OnObject(object_.get()), kFd, Data(), 70, 10, DATA_SYNC))
        .WillOnce([](OxelCtxt*, int, const void* data, uint64_t, uint32_t, stable_how) {
            EXPECT_EQ("0123456789", std::string(static_cast<const char*>(data), 10));
            return ssize_t{10};
        });
    EXPECT_CALL(*object_, Close(OnObject(object_.get()), kFd)).WillOnce(Return(-1));
    EXPECT_CALL(*object_, Stat(OnObject(object_.get()), kPath, _));
    const WRITE3res& result = Run(70, "0123456789", DATA_SYNC);
    EXPECT_EQ(NFS3_OK, result.status);
    EXPECT_EQ(10u, result.resok.count);
    EXPECT_EQ(DATA_SYNC, result.resok.committed);
    EXPECT_THAT(
        log_.Lines(),
        ElementsAre(LogLine{4, kValidateFunction, "fh [handle text]"},
                    LogLine{4, kFunction, "name [name] offset [70] count [10] stable [1]"},
                    LogLine{3, "int OSStatToWccAttr(OxelCtxt*, const std::string&, wcc_attr*)",
                            "Filled stat info."},
                    LogLine{4, kFunction, "Opened [name]. fd [33]"},
                    LogLine{4, kFunction, "wrote [10] bytes. fd [33]"},
                    LogLine{4, kFunction, "Closed [name]. fd [33]"},
                    LogLine{3, kNfsStatFunction, "Object type = [81a4 : 8000]."},
                    LogLine{3, kNfsStatFunction, "Filled stat info."}));
}

TEST_F(Write, AttributesFromBeforeAreGatheredAndNotSent) {
    call_.result.write.resok.file_wcc.before.attributes_follow = TRUE;
    const WRITE3res& result = Run(0, "abc");
    EXPECT_EQ(FALSE, result.resok.file_wcc.before.attributes_follow);
    EXPECT_EQ(5000u, result.resok.file_wcc.before.attributes.size);
}

TEST_F(Write, AttributesFromAfterAreSent) {
    const WRITE3res& result = Run(0, "abc");
    EXPECT_EQ(TRUE, result.resok.file_wcc.after.attributes_follow);
    EXPECT_EQ(NF3REG, result.resok.file_wcc.after.attributes.type);
    EXPECT_EQ(4711u, result.resok.file_wcc.after.attributes.fileid);
}

TEST_F(Write, SucceedsWithoutAttributesThatCannotBeHadAfterwards) {
    EXPECT_CALL(*object_, Stat)
        .WillOnce(StatGives(FileStat(S_IFREG | 0644)))
        .WillOnce(FailWith(EIO, -1));
    const WRITE3res& result = Run(0, "abc");
    EXPECT_EQ(NFS3_OK, result.status);
    EXPECT_EQ(FALSE, result.resok.file_wcc.after.attributes_follow);
    EXPECT_EQ(3u, result.resok.count);
    EXPECT_EQ(kStartTime, result.resok.verf);
}

TEST_F(Write, CommittedEchoesStable) {
    for (stable_how stable : {UNSTABLE, DATA_SYNC, FILE_SYNC, static_cast<stable_how>(9)}) {
        EXPECT_CALL(*object_, Write(_, kFd, _, 0, 3, stable)).WillOnce(Return(3));
        EXPECT_EQ(stable, Run(0, "abc", stable).resok.committed);
    }
}

TEST_F(Write, VerifierIsTheStartTimeWithTheSecondsLastOnTheWire) {
    WRITE3res& result = Run(0, "abc");
    EXPECT_EQ(uint64_t{kStartTime}, result.resok.verf);
    std::vector<unsigned char> bytes;
    ASSERT_TRUE(Encode(xdr_WRITE3res, &result, 1000, true, &bytes));
    ASSERT_LE(8u, bytes.size());
    EXPECT_EQ("00000000 12345678 ", Hex({bytes.end() - 8, bytes.end()}));
}

TEST_F(Write, VerifierStaysForTheRunAndChangesWithARestart) {
    const writeverf3 first = Run(0, "abc").resok.verf;
    call_.ClearCall();
    EXPECT_EQ(first, Run(3, "def").resok.verf);
    call_.ClearCall();
    call_.arguments().commit.file = handle_;
    EXPECT_EQ(TRUE, Handle_COMMIT3(&call_));
    EXPECT_EQ(first, call_.result.commit.resok.verf);
    OxelServiceGlobals::SetServerStartTime(kStartTime + 1);
    call_.ClearCall();
    EXPECT_NE(first, Run(0, "abc").resok.verf);
}

TEST_F(Write, GoesOnAfterShortWritesUntilAllIsWritten) {
    InSequence order;
    EXPECT_CALL(*object_, Write(_, kFd, Data(), 1000, 10, UNSTABLE)).WillOnce(Return(4));
    EXPECT_CALL(*object_, Write(_, kFd, DataFrom(4), 1004, 6, UNSTABLE)).WillOnce(Return(1));
    EXPECT_CALL(*object_, Write(_, kFd, DataFrom(5), 1005, 5, UNSTABLE)).WillOnce(Return(5));
    EXPECT_CALL(*object_, Close(_, kFd));
    const WRITE3res& result = Run(1000, "0123456789", UNSTABLE);
    EXPECT_EQ(NFS3_OK, result.status);
    EXPECT_EQ(10u, result.resok.count);
    std::vector<std::string> texts;
    for (const LogLine& line : log_.AtLevel(4)) texts.push_back(line.text);
    EXPECT_THAT(texts,
                ElementsAre("fh [handle text]", "name [name] offset [1000] count [10] stable [0]",
                            "Opened [name]. fd [33]", "wrote [4] bytes. fd [33]",
                            "wrote [1] bytes. fd [33]", "wrote [5] bytes. fd [33]",
                            "Closed [name]. fd [33]"));
}

TEST_F(Write, FailureAfterAShortWriteReportsOnlyTheFailure) {
    InSequence order;
    EXPECT_CALL(*object_, Write(_, kFd, _, 0, 10, _)).WillOnce(Return(4));
    EXPECT_CALL(*object_, Write(_, kFd, _, 4, 6, _)).WillOnce(FailWith(ENOSPC, ssize_t{-1}));
    EXPECT_CALL(*object_, Close(_, kFd));
    const WRITE3res& result = Run(0, "0123456789");
    EXPECT_EQ(NFS3ERR_NOSPC, result.status);
    CarriesNothing(result);
}

TEST_F(Write, ABackEndThatWritesNothingIsAnIoErrorAndNoEndlessLoop) {
    EXPECT_CALL(*object_, Write).WillOnce([](auto&&...) {
        errno = 0;
        return ssize_t{0};
    });
    EXPECT_CALL(*object_, Close(_, kFd));
    const WRITE3res& result = Run(0, "abc");
    EXPECT_EQ(NFS3ERR_IO, result.status);
    CarriesNothing(result);
    EXPECT_THAT(Errors(),
                ElementsAre(LogLine{-1, kFunction,
                                    "Error: Failed to write to [name]. Error [Input/output "
                                    "error]"}));
}

TEST_F(Write, ABackEndThatClaimsTooMuchDoesNotGetMoreThanWasAsked) {
    EXPECT_CALL(*object_, Write).WillOnce(Return(ssize_t{1} << 32));
    const WRITE3res& result = Run(0, "abc");
    EXPECT_EQ(NFS3_OK, result.status);
    EXPECT_EQ(3u, result.resok.count);
}

TEST_F(Write, NothingToWriteOpensAndClosesAndSucceeds) {
    InSequence order;
    EXPECT_CALL(*object_, Open(_, kPath, 1, 0)).WillOnce(Return(kFd));
    EXPECT_CALL(*object_, Write).Times(0);
    EXPECT_CALL(*object_, Close(_, kFd));
    const WRITE3res& result = Run(5, "");
    EXPECT_EQ(NFS3_OK, result.status);
    EXPECT_EQ(0u, result.resok.count);
    EXPECT_EQ(kStartTime, result.resok.verf);
}

TEST_F(Write, DummyModeOpensAndClosesAndTouchesNoData) {
    gDummyReadsAndWrites = true;
    InSequence order;
    EXPECT_CALL(*object_, Open(_, kPath, 1, 0)).WillOnce(Return(kFd));
    EXPECT_CALL(*object_, Write).Times(0);
    EXPECT_CALL(*object_, Close(_, kFd));
    const WRITE3res& result = Run(12345, std::string(4096, 'w'));
    EXPECT_EQ(NFS3_OK, result.status);
    EXPECT_EQ(4096u, result.resok.count);
    EXPECT_EQ(FILE_SYNC, result.resok.committed);
    EXPECT_TRUE(log_.Has(4, "wrote [4096] bytes. fd [33]")) << log_.Dump();
}

TEST_F(Write, WithoutAttributesFromBeforeNothingIsOpened) {
    EXPECT_CALL(*object_, Stat).WillOnce(FailWith(ENOENT, -1));
    EXPECT_CALL(*object_, Open).Times(0);
    const WRITE3res& result = Run(0, "abc");
    EXPECT_EQ(NFS3ERR_NOENT, result.status);
    CarriesNothing(result);
}

TEST_F(Write, FailedOpenIsItsErrnoAndClosesNothing) {
    EXPECT_CALL(*object_, Open).WillOnce(FailWith(EROFS, -1));
    EXPECT_CALL(*object_, Close).Times(0);
    const WRITE3res& result = Run(0, "abc");
    EXPECT_EQ(NFS3ERR_ROFS, result.status);
    CarriesNothing(result);
    EXPECT_THAT(Errors(), ElementsAre(LogLine{-1, kFunction,
                                              "Error: Failed to open [name] for writing. Error "
                                              "[Read-only file system]"}));
}

TEST_F(Write, FailedWriteIsItsErrnoWhateverCloseLeavesInErrno) {
    InSequence order;
    EXPECT_CALL(*object_, Write).WillOnce(FailWith(EFBIG, ssize_t{-1}));
    EXPECT_CALL(*object_, Close(_, kFd)).WillOnce(FailWith(EBADF, -1));
    const WRITE3res& result = Run(0, "abc");
    EXPECT_EQ(NFS3ERR_FBIG, result.status);
    CarriesNothing(result);
    const std::vector<LogLine> lines = log_.Lines();
    ASSERT_EQ(6u, lines.size()) << log_.Dump();
    EXPECT_EQ((LogLine{-1, kFunction, "Error: Failed to write to [name]. Error [File too large]"}),
              lines[4]);
    EXPECT_EQ((LogLine{4, kFunction, "Closed [name]. fd [33]"}), lines[5]);
}

TEST_F(Write, HandleWithoutAnObjectIsStale) {
    ObjectIsGone();
    const WRITE3res& result = Run(0, "abc");
    EXPECT_EQ(NFS3ERR_STALE, result.status);
    CarriesNothing(result);
    EXPECT_THAT(Errors(), ElementsAre(LogLine{-1, kFunction, kStaleText}));
}

TEST_F(Write, FillerClearsTheFlags) {
    WRITE3res result{};
    result.resfail.file_wcc.before.attributes_follow = TRUE;
    result.resfail.file_wcc.after.attributes_follow = TRUE;
    EXPECT_EQ(TRUE, FillWriteFailRes(&result, NFS3ERR_IO));
    EXPECT_EQ(NFS3ERR_IO, result.status);
    CarriesNothing(result);
}

}  // namespace
