// SPDX-License-Identifier: Apache-2.0
//
// READ.
#include "tests/nfs3/nfs3proc_fixture.h"

using namespace oxel::test;
using testing::_;
using testing::ElementsAre;
using testing::InSequence;
using testing::IsEmpty;
using testing::Return;

namespace {

constexpr const char* kFunction = "bool_t Handle_READ3(CallInfo3*)";
constexpr int kFd = 33;

class Read : public ProcTest {
  protected:
    Read() {
        ON_CALL(*object_, Open).WillByDefault(Return(kFd));
        ON_CALL(*object_, Close).WillByDefault(Return(0));
    }
    ~Read() override {
        NFS3_MAXBUF_SIZE = maxBytesBefore_;
        gDummyReadsAndWrites = false;
    }
    READ3res& Run(uint64_t offset, uint32_t count) {
        call_.arguments().read = {handle_, offset, count};
        EXPECT_EQ(TRUE, Handle_READ3(&call_));
        return call_.result.read;
    }
    // A file of this content; reads behave as pread does.
    void FileHolds(std::string content) {
        ON_CALL(*object_, Read)
            .WillByDefault([content](OxelCtxt*, int, void* buffer, uint64_t offset,
                                     uint32_t count) -> ssize_t {
                if (offset >= content.size()) return 0;
                const size_t got = std::min<size_t>(count, content.size() - offset);
                std::memcpy(buffer, content.data() + offset, got);
                return static_cast<ssize_t>(got);
            });
    }
    static std::string Data(const READ3res& result) {
        return std::string(result.resok.data.data_val, result.resok.data.data_len);
    }

    const uint64_t maxBytesBefore_ = NFS3_MAXBUF_SIZE;
};

TEST_F(Read, OpensReadsAndCloses) {
    InSequence order;
    EXPECT_CALL(*object_, Open(OnObject(object_.get()), kPath, 0, 0)).WillOnce(Return(kFd));
    EXPECT_CALL(*object_, Read(OnObject(object_.get()), kFd, _, 70, 10))
        .WillOnce([](OxelCtxt*, int, void* buffer, uint64_t, uint32_t) {
            std::memcpy(buffer, "0123456789", 10);
            return ssize_t{10};
        });
    EXPECT_CALL(*object_, Close(OnObject(object_.get()), kFd)).WillOnce(Return(-1));
    const READ3res& result = Run(70, 10);
    EXPECT_EQ(NFS3_OK, result.status);
    EXPECT_EQ("0123456789", Data(result));
    EXPECT_EQ(10u, result.resok.count);
    EXPECT_EQ(FALSE, result.resok.eof);
    EXPECT_EQ(10u, call_.replyBytes);
    char last[80];
    snprintf(last, sizeof last, "ret = [10] data [%p] eof [0]",
             static_cast<void*>(result.resok.data.data_val));
    EXPECT_THAT(
        log_.Lines(),
        ElementsAre(LogLine{4, kValidateFunction, "fh [handle text]"},
                    LogLine{4, kFunction, "name [name] Offset [70] count [10]"},
                    LogLine{4, kFunction, "Opened [name]. fd [33]"},
                    LogLine{4, kFunction, "Closed [name]. fd [33]"}, LogLine{4, kFunction, last}));
}

TEST_F(Read, NeverSendsAttributes) {
    FileHolds("abc");
    EXPECT_CALL(*object_, Stat).Times(0);
    call_.result.read.resok.file_attributes.attributes_follow = TRUE;
    EXPECT_EQ(FALSE, Run(0, 3).resok.file_attributes.attributes_follow);
}

TEST_F(Read, CountIsCutToTheTransferSize) {
    NFS3_MAXBUF_SIZE = 1024;
    FileHolds(std::string(5000, 'a'));
    EXPECT_CALL(*object_, Read(_, _, _, 0, 1024));
    const READ3res& result = Run(0, 4096);
    EXPECT_EQ(1024u, result.resok.count);
    EXPECT_EQ(1024u, result.resok.data.data_len);
    EXPECT_EQ(FALSE, result.resok.eof);
}

TEST_F(Read, TheLargestCountIsCutToTheTransferSize) {
    EXPECT_CALL(*object_, Read(_, _, _, 0, 262144)).WillOnce(Return(0));
    NFS3_MAXBUF_SIZE = 262144;
    EXPECT_EQ(NFS3_OK, Run(0, 0xffffffff).status);
}

TEST_F(Read, EndingExactlyAtTheEndOfTheFileIsNotEof) {
    FileHolds("abcdef");
    const READ3res& result = Run(2, 4);
    EXPECT_EQ("cdef", Data(result));
    EXPECT_EQ(FALSE, result.resok.eof);
}

TEST_F(Read, FewerBytesThanAskedIsEof) {
    FileHolds("abcdef");
    const READ3res& result = Run(2, 5);
    EXPECT_EQ("cdef", Data(result));
    EXPECT_EQ(TRUE, result.resok.eof);
    EXPECT_EQ(4u, call_.replyBytes);
}

TEST_F(Read, AtOrPastTheEndGivesNothingAndEof) {
    FileHolds("abcdef");
    for (uint64_t offset : {uint64_t{6}, uint64_t{7}, UINT64_MAX}) {
        const READ3res& result = Run(offset, 5);
        EXPECT_EQ(NFS3_OK, result.status);
        EXPECT_EQ(0u, result.resok.count);
        EXPECT_EQ(TRUE, result.resok.eof);
        EXPECT_EQ(0u, call_.replyBytes);
    }
}

TEST_F(Read, NothingAskedIsNotEof) {
    FileHolds("abcdef");
    const READ3res& result = Run(0, 0);
    EXPECT_EQ(NFS3_OK, result.status);
    EXPECT_EQ(0u, result.resok.count);
    EXPECT_EQ(FALSE, result.resok.eof);
}

TEST_F(Read, DummyModeOpensAndClosesAndTouchesNoData) {
    gDummyReadsAndWrites = true;
    InSequence order;
    EXPECT_CALL(*object_, Open(_, kPath, 0, 0)).WillOnce(Return(kFd));
    EXPECT_CALL(*object_, Read).Times(0);
    EXPECT_CALL(*object_, Close(_, kFd));
    const READ3res& result = Run(12345, 4096);
    EXPECT_EQ(NFS3_OK, result.status);
    EXPECT_EQ(4096u, result.resok.count);
    EXPECT_EQ(FALSE, result.resok.eof);
    EXPECT_EQ(4096u, call_.replyBytes);
}

TEST_F(Read, DummyModeSendsZerosNotAnEarlierCallsData) {
    FileHolds(std::string(4096, 's'));
    Run(0, 4096);
    gDummyReadsAndWrites = true;
    EXPECT_EQ(std::string(4096, '\0'), Data(Run(0, 4096)));
}

TEST_F(Read, BufferStaysWithTheRecord) {
    FileHolds("abcdef");
    Run(0, 6);
    const char* first = call_.result.read.resok.data.data_val;
    EXPECT_EQ(TRUE, Free_READ3(&call_));
    call_.ClearCall();
    Run(0, 3);
    EXPECT_EQ(first, call_.result.read.resok.data.data_val);
}

TEST_F(Read, FailedOpenIsItsErrnoAndClosesNothing) {
    EXPECT_CALL(*object_, Open).WillOnce(FailWith(EACCES, -1));
    EXPECT_CALL(*object_, Close).Times(0);
    const READ3res& result = Run(0, 10);
    EXPECT_EQ(NFS3ERR_ACCES, result.status);
    EXPECT_EQ(FALSE, result.resfail.file_attributes.attributes_follow);
    EXPECT_THAT(Errors(), ElementsAre(LogLine{-1, kFunction,
                                              "Error: Failed to open [name]. [Permission "
                                              "denied]"}));
}

TEST_F(Read, FailedReadIsItsErrnoWhateverCloseLeavesInErrno) {
    InSequence order;
    EXPECT_CALL(*object_, Read).WillOnce(FailWith(EIO, ssize_t{-5}));
    EXPECT_CALL(*object_, Close(_, kFd)).WillOnce(FailWith(EBADF, -1));
    const READ3res& result = Run(0, 10);
    EXPECT_EQ(NFS3ERR_IO, result.status);
    EXPECT_EQ(FALSE, result.resfail.file_attributes.attributes_follow);
    EXPECT_EQ(0u, call_.replyBytes);
    const std::vector<LogLine> lines = log_.Lines();
    ASSERT_EQ(5u, lines.size()) << log_.Dump();
    EXPECT_EQ((LogLine{-1, kFunction,
                       "Error: Failed to read [10] bytes from [name]. [Input/output error]"}),
              lines[3]);
    EXPECT_EQ((LogLine{4, kFunction, "Closed [name]. fd [33]"}), lines[4]);
}

TEST_F(Read, WithoutMemoryForTheBufferItFailsAndCloses) {
    NFS3_MAXBUF_SIZE = uint64_t{1} << 62;  // the record makes room for the largest transfer at once
    EXPECT_CALL(*object_, Read).Times(0);
    EXPECT_CALL(*object_, Close(_, kFd));
    const READ3res& result = Run(0, 10);
    EXPECT_EQ(ENOMEM, result.status);
    EXPECT_EQ(FALSE, result.resfail.file_attributes.attributes_follow);
    EXPECT_THAT(Errors(), ElementsAre(LogLine{-1, kFunction,
                                              "Error: Failed to read [10] bytes from [name]. "
                                              "[Cannot allocate memory]"}));
    EXPECT_TRUE(log_.Has(4, "Closed [name]. fd [33]")) << log_.Dump();
}

TEST_F(Read, RefusedClientGetsAccess) {
    ClientIsRefused();
    EXPECT_CALL(*object_, Open).Times(0);
    const READ3res& result = Run(0, 10);
    EXPECT_EQ(NFS3ERR_ACCES, result.status);
    EXPECT_EQ(FALSE, result.resfail.file_attributes.attributes_follow);
    EXPECT_THAT(Errors(), ElementsAre(RefusalLine()));
}

TEST_F(Read, HandleWithoutAnObjectIsStale) {
    ObjectIsGone();
    const READ3res& result = Run(0, 10);
    EXPECT_EQ(NFS3ERR_STALE, result.status);
    EXPECT_EQ(FALSE, result.resfail.file_attributes.attributes_follow);
    EXPECT_THAT(Errors(), ElementsAre(LogLine{-1, kFunction,
                                              "Error: Stale File Handle. FH [] IP [192.0.2.7]"}));
}

TEST_F(Read, IsServedFromAReadOnlyShare) {
    ON_CALL(*share_, IsWritable).WillByDefault(Return(0u));
    FileHolds("abc");
    EXPECT_EQ(NFS3_OK, Run(0, 3).status);
}

TEST_F(Read, FillerClearsTheFlag) {
    READ3res result{};
    result.resfail.file_attributes.attributes_follow = TRUE;
    EXPECT_EQ(TRUE, FillREAD3FailRes(&result, NFS3ERR_IO));
    EXPECT_EQ(NFS3ERR_IO, result.status);
    EXPECT_EQ(FALSE, result.resfail.file_attributes.attributes_follow);
}

TEST_F(Read, ReleaseDropsTheDataOfASuccessAndSaysSo) {
    FileHolds("abc");
    Run(0, 3);
    log_.Clear();
    EXPECT_EQ(TRUE, Free_READ3(&call_));
    EXPECT_EQ(nullptr, call_.result.read.resok.data.data_val);
    EXPECT_THAT(log_.Lines(),
                ElementsAre(LogLine{4, "bool_t Free_READ3(CallInfo3*)", "Freed memory"}));
}

TEST_F(Read, ReleaseOfAFailureOnlySaysSo) {
    EXPECT_CALL(*object_, Open).WillOnce(FailWith(EACCES, -1));
    Run(0, 3);
    log_.Clear();
    EXPECT_EQ(TRUE, Free_READ3(&call_));
    EXPECT_THAT(log_.Lines(),
                ElementsAre(LogLine{4, "bool_t Free_READ3(CallInfo3*)", "Freed memory"}));
}

}  // namespace
