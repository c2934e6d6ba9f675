// SPDX-License-Identifier: Apache-2.0
//
// READDIRPLUS.
#include "tests/nfs3/fake_directory.h"
#include "tests/nfs3/nfs3proc_fixture.h"

using namespace oxel::test;
using testing::_;
using testing::ElementsAre;
using testing::InSequence;
using testing::IsEmpty;
using testing::Return;

namespace {

constexpr const char* kFunction = "bool_t Handle_READDIRPLUS3(CallInfo3*)";
constexpr const char* kEntryFunction =
    "bool_t FSDirEntToNFSDirEnt(OxelCtxt&, dirent*, dirlistplus3*, BkEndProcPtr)";

class Readdirplus : public ProcTest {
  protected:
    Readdirplus() {
        ON_CALL(*object_, Stat).WillByDefault(StatGives(FileStat(S_IFDIR | 0755)));
        struct stat parent = FileStat(S_IFDIR | 0700);
        parent.st_ino = 4000;
        ON_CALL(*parent_, Stat).WillByDefault(StatGives(parent));
        ON_CALL(*object_, GetParent).WillByDefault(Return(parent_));
        Arguments();
    }
    ~Readdirplus() override {
        Free_READDIRPLUS3(&call_);
        EXPECT_EQ(directory_.Opened(), directory_.Closed());
    }
    void Arguments() { args_ = {handle_, 0, 0, 1 << 16, 1 << 16}; }
    READDIRPLUS3res& Run() {
        EXPECT_EQ(TRUE, Handle_READDIRPLUS3(&call_));
        return call_.result.readdirplus;
    }
    static std::vector<const entryplus3*> Entries(const READDIRPLUS3res& result) {
        std::vector<const entryplus3*> entries;
        const dirlistplus3* link = &result.resok.reply;
        for (; link->present; link = &link->entry->next) entries.push_back(link->entry);
        EXPECT_EQ(nullptr, link->entry);
        return entries;
    }
    static std::vector<std::string> Names(const READDIRPLUS3res& result) {
        std::vector<std::string> names;
        for (const entryplus3* entry : Entries(result)) names.push_back(entry->name);
        return names;
    }
    void NextCall() {
        Free_READDIRPLUS3(&call_);
        call_.ClearCall();
        call_.replyBytes = 0;
        Arguments();
    }

    READDIRPLUS3args& args_ = call_.arguments().readdirplus;
    const nfs_fh3 parentHandle_ = MakeHandle(kTestModuleType, kTestShareId, 0x55);
    boost::shared_ptr<NiceBkEndProc> parent_ =
        boost::make_shared<NiceBkEndProc>("/srv/share/dir", parentHandle_);
    FakeDirectory directory_{object_.get(),
                             {{".", 4711, 11}, {"..", 2, 22}, {"a", 100, 33}, {"bcdef", 101, 44}}};
};

TEST_F(Readdirplus, ListsEveryNameWithHandleAndAttributes) {
    const READDIRPLUS3res& result = Run();
    EXPECT_EQ(NFS3_OK, result.status);
    EXPECT_THAT(Names(result), ElementsAre(".", "..", "a", "bcdef"));
    const std::vector<const entryplus3*> entries = Entries(result);
    const uint64_t cookies[] = {11, 22, 33, 44};
    // The attributes' numbers, not the stream's.
    const uint64_t fileids[] = {4711, 4000, 1100, 1101};
    const nfs_fh3 handles[] = {handle_, parentHandle_, MakeHandle(7, 8, 100),
                               MakeHandle(7, 8, 101)};
    for (size_t i = 0; i < 4; ++i) {
        SCOPED_TRACE(entries[i]->name);
        EXPECT_EQ(cookies[i], entries[i]->cookie);
        EXPECT_EQ(fileids[i], entries[i]->fileid);
        EXPECT_EQ(TRUE, entries[i]->name_attributes.attributes_follow);
        EXPECT_EQ(fileids[i], entries[i]->name_attributes.attributes.fileid);
        EXPECT_EQ(TRUE, entries[i]->name_handle.handle_follows);
        EXPECT_THAT(entries[i]->name_handle.handle, IsHandle(handles[i]));
    }
    EXPECT_EQ(TRUE, result.resok.eof);
    EXPECT_EQ(0u, result.resok.cookieverf);
    EXPECT_EQ(TRUE, result.resok.dir_attributes.attributes_follow);
    EXPECT_EQ(NF3DIR, result.resok.dir_attributes.attributes.type);
    EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(Readdirplus, AsksTheBackEndInThisOrder) {
    oxel::LogWriter::SetLevel(2);  // tracing asks the stream, too
    const auto a = directory_.Child("a");
    const auto b = directory_.Child("bcdef");
    InSequence order;
    EXPECT_CALL(*object_, OpenDir(OnObject(object_.get()), kPath));
    EXPECT_CALL(*object_, SeekDir(OnObject(object_.get()), _, 0));
    EXPECT_CALL(*object_, ReadDir);
    EXPECT_CALL(*object_, GetFileHandle).Times(2);
    EXPECT_CALL(*object_, Stat(OnObject(object_.get()), kPath + "/.", _));
    EXPECT_CALL(*object_, TellDir).Times(2);
    EXPECT_CALL(*object_, ReadDir);
    EXPECT_CALL(*object_, GetParent(OnObject(object_.get())));
    EXPECT_CALL(*parent_, GetFileHandle);
    EXPECT_CALL(*parent_, Stat(OnObject(parent_.get()), kPath + "/..", _));
    EXPECT_CALL(*object_, TellDir).Times(2);
    EXPECT_CALL(*object_, ReadDir);
    EXPECT_CALL(*object_, FindChild(OnObject(object_.get()), "a"));
    EXPECT_CALL(*a, GetFileHandle);
    EXPECT_CALL(*a, Stat(OnObject(a.get()), kPath + "/a", _));
    EXPECT_CALL(*object_, TellDir).Times(2);
    EXPECT_CALL(*object_, ReadDir);
    EXPECT_CALL(*object_, FindChild(_, "bcdef"));
    EXPECT_CALL(*b, GetFileHandle);
    EXPECT_CALL(*b, Stat(_, kPath + "/bcdef", _));
    EXPECT_CALL(*object_, TellDir).Times(2);
    EXPECT_CALL(*object_, ReadDir);
    EXPECT_CALL(*object_, Stat(OnObject(object_.get()), kPath, _));
    EXPECT_CALL(*object_, CloseDir(OnObject(object_.get()), _));
    Run();
}

TEST_F(Readdirplus, ContextOfAnEntryCarriesCallerAndShare) {
    const auto a = directory_.Child("a");
    EXPECT_CALL(*a, Stat).WillOnce([&](OxelCtxt* ctxt, const std::string&, struct stat* out) {
        EXPECT_EQ(&call_.identity, &ctxt->id);
        EXPECT_EQ(share_, ctxt->exportPtr);
        *out = FileStat(S_IFREG | 0600);
        return 0;
    });
    Run();
}

TEST_F(Readdirplus, ErrnoIsZeroWhenTheStreamIsPositioned) {
    EXPECT_CALL(*object_, SeekDir).WillOnce([](auto&&...) { EXPECT_EQ(0, errno); });
    errno = EIO;
    Run();
}

TEST_F(Readdirplus, TracesWhatItDoes) {
    args_.cookie = 33;
    args_.cookieverf = 0xfe;
    args_.dircount = 512;
    args_.maxcount = 4096;
    Run();
    EXPECT_THAT(
        log_.AtLevel(3),
        ElementsAre(
            LogLine{3, kFunction, "cookie [21] cookieverf [fe] dircount [512] maxcount [4096]"},
            LogLine{3, kFunction, "seeking to [33] [0]"}, LogLine{3, kFunction, "Seeked to [33]"},
            LogLine{3, kNfsStatFunction, "Object type = [8180 : 8000]."},
            LogLine{3, kNfsStatFunction, "Filled stat info."},
            LogLine{3, kEntryFunction, "name [bcdef] fileid [1101]"},
            LogLine{3, kFunction, "Cookie for new entry [2c]"},
            LogLine{3, kFunction, "End of directory reached."},
            LogLine{3, kNfsStatFunction, "Object type = [41ed : 4000]."},
            LogLine{3, kNfsStatFunction, "Filled stat info."},
            LogLine{3, kFunction, "Returning [1] entries."}));
}

TEST_F(Readdirplus, SeekingIsTracedWithTheWholeCookie) {
    args_.cookie = (uint64_t{7} << 32) | 5;
    Run();
    EXPECT_TRUE(log_.Has(3, "seeking to [30064771077] [0]")) << log_.Dump();
    EXPECT_TRUE(log_.Has(3, "Seeked to [30064771077]")) << log_.Dump();
}

TEST_F(Readdirplus, EndOfDirectoryIsNotSaidWhenTheLimitEndsTheListing) {
    args_.dircount = 17;
    const READDIRPLUS3res& result = Run();
    EXPECT_EQ(FALSE, result.resok.eof);
    EXPECT_FALSE(log_.Has(3, "End of directory reached.")) << log_.Dump();
}

// ---- Cookies ----

TEST_F(Readdirplus, DotAtPosition0HasCookie1) {
    FakeDirectory directory(object_.get(), {{".", 5, 0}, {"..", 6, 0}});
    const auto entries = Entries(Run());
    ASSERT_EQ(2u, entries.size());
    EXPECT_EQ(1u, entries[0]->cookie);
    EXPECT_EQ(0u, entries[1]->cookie);
}

TEST_F(Readdirplus, CookieResumesAfterTheEntryThatHadIt) {
    args_.cookie = 22;
    EXPECT_CALL(*object_, SeekDir(_, _, 22));
    EXPECT_THAT(Names(Run()), ElementsAre("a", "bcdef"));
}

TEST_F(Readdirplus, AnyCookieVerifierIsAcceptedAndTheRepliesIsZero) {
    for (uint64_t verifier : {uint64_t{0}, uint64_t{1}, UINT64_MAX}) {
        NextCall();
        args_.cookieverf = verifier;
        call_.result.readdirplus.resok.cookieverf = 99;
        const READDIRPLUS3res& result = Run();
        EXPECT_EQ(NFS3_OK, result.status);
        EXPECT_EQ(0u, result.resok.cookieverf);
        EXPECT_EQ(4u, Entries(result).size());
    }
}

// ---- Which names ----

TEST_F(Readdirplus, NameThatVanishedIsSkippedAndSaid) {
    directory_.Remove("a");
    const READDIRPLUS3res& result = Run();
    EXPECT_EQ(NFS3_OK, result.status);
    EXPECT_THAT(Names(result), ElementsAre(".", "..", "bcdef"));
    EXPECT_EQ(TRUE, result.resok.eof);
    EXPECT_THAT(Errors(), ElementsAre(LogLine{-1, kEntryFunction,
                                              "Error: Failed to find child [a] under "
                                              "[/srv/share/dir/name]."}));
}

TEST_F(Readdirplus, LastNameThatVanishedLeavesAWellEndedList) {
    directory_.Remove("bcdef");
    EXPECT_THAT(Names(Run()), ElementsAre(".", "..", "a"));
}

TEST_F(Readdirplus, DotDotOfTheTopIsTheTop) {
    EXPECT_CALL(*object_, GetParent).WillOnce(Return(BkEndProcPtr()));
    const auto entries = Entries(Run());
    ASSERT_EQ(4u, entries.size());
    EXPECT_THAT(entries[1]->name_handle.handle, IsHandle(handle_));
    EXPECT_EQ(4711u, entries[1]->fileid);
}

TEST_F(Readdirplus, FailedStatOfANameOnlyLosesItsAttributes) {
    EXPECT_CALL(*directory_.Child("a"), Stat).WillOnce(FailWith(EACCES, -1));
    const READDIRPLUS3res& result = Run();
    EXPECT_EQ(NFS3_OK, result.status);
    const auto entries = Entries(result);
    ASSERT_EQ(4u, entries.size());
    EXPECT_EQ(FALSE, entries[2]->name_attributes.attributes_follow);
    EXPECT_EQ(0u, entries[2]->fileid);
    EXPECT_EQ(TRUE, entries[2]->name_handle.handle_follows);
    EXPECT_THAT(entries[2]->name_handle.handle, IsHandle(MakeHandle(7, 8, 100)));
    EXPECT_THAT(Errors(),
                ElementsAre(LogLine{-1, kNfsStatFunction,
                                    "Error: Failed to stat [/srv/share/dir/name/a]. [13:Permission "
                                    "denied]"},
                            LogLine{-1, kEntryFunction,
                                    "Error: Failed to stat(/srv/share/dir/name/a). [13:Permission "
                                    "denied]"}));
}

// ---- Sizes ----

TEST_F(Readdirplus, DircountOf16AnswersNoEntriesAndEof) {
    for (uint32_t dircount : {0u, 1u, 16u}) {
        NextCall();
        args_.dircount = dircount;
        EXPECT_CALL(*object_, ReadDir).Times(0);
        const READDIRPLUS3res& result = Run();
        EXPECT_EQ(NFS3_OK, result.status);
        EXPECT_THAT(Entries(result), IsEmpty());
        EXPECT_EQ(TRUE, result.resok.eof);
        EXPECT_TRUE(log_.Has(3, "End of directory reached.")) << log_.Dump();
    }
}

TEST_F(Readdirplus, MaxcountOf2156AnswersNoEntriesAndEof) {
    for (uint32_t maxcount : {0u, 1u, 2156u}) {
        NextCall();
        args_.maxcount = maxcount;
        EXPECT_CALL(*object_, ReadDir).Times(0);
        const READDIRPLUS3res& result = Run();
        EXPECT_EQ(NFS3_OK, result.status);
        EXPECT_THAT(Entries(result), IsEmpty());
        EXPECT_EQ(TRUE, result.resok.eof);
    }
}

TEST_F(Readdirplus, MaxcountOf2157AnswersOneEntryAndNoEof) {
    args_.maxcount = 2157;
    const READDIRPLUS3res& result = Run();
    EXPECT_THAT(Names(result), ElementsAre("."));
    EXPECT_EQ(FALSE, result.resok.eof);
}

TEST_F(Readdirplus, EachEntryTakes164BytesAndItsNameOfMaxcount) {
    // ".", ".." and "a" take 172 each.
    args_.maxcount = 108 + 3 * 172 + 2048;
    EXPECT_EQ(3u, Entries(Run()).size());
    NextCall();
    args_.maxcount = 108 + 3 * 172 + 2048 + 1;
    EXPECT_EQ(4u, Entries(Run()).size());
}

TEST_F(Readdirplus, EachEntryTakesItsNameOfDircount) {
    // ".", ".." and "a" take 8 each.
    args_.dircount = 3 * 8 + 16;
    EXPECT_EQ(3u, Entries(Run()).size());
    NextCall();
    args_.dircount = 3 * 8 + 16 + 1;
    EXPECT_EQ(4u, Entries(Run()).size());
}

TEST_F(Readdirplus, ReplyBytesGrowByTheRunningSizeWithEveryEntry) {
    Run();
    const uint32_t first = 108 + 172;
    EXPECT_EQ(first + (first + 172) + (first + 344) + (first + 344 + 176), call_.replyBytes);
}

// ---- Failures ----

TEST_F(Readdirplus, RefusedClientGetsAccess) {
    ClientIsRefused();
    EXPECT_CALL(*object_, OpenDir).Times(0);
    const READDIRPLUS3res& result = Run();
    EXPECT_EQ(NFS3ERR_ACCES, result.status);
    EXPECT_EQ(FALSE, result.resfail.dir_attributes.attributes_follow);
    EXPECT_THAT(Errors(), ElementsAre(RefusalLine()));
}

TEST_F(Readdirplus, HandleWithoutAnObjectIsStale) {
    ObjectIsGone();
    const READDIRPLUS3res& result = Run();
    EXPECT_EQ(NFS3ERR_STALE, result.status);
    EXPECT_EQ(FALSE, result.resfail.dir_attributes.attributes_follow);
    EXPECT_THAT(Errors(), ElementsAre(LogLine{-1, kFunction,
                                              "Error: Stale File Handle. FH [] IP [192.0.2.7]"}));
}

TEST_F(Readdirplus, DirectoryThatCannotBeOpenedIsItsErrno) {
    EXPECT_CALL(*object_, OpenDir).WillOnce(FailWith(EACCES, nullptr));
    EXPECT_CALL(*object_, CloseDir).Times(0);
    const READDIRPLUS3res& result = Run();
    EXPECT_EQ(NFS3ERR_ACCES, result.status);
    EXPECT_EQ(FALSE, result.resfail.dir_attributes.attributes_follow);
    EXPECT_THAT(Errors(), ElementsAre(LogLine{-1, kFunction,
                                              "Error: Failed to open directory [name]. "
                                              "[Permission denied]"}));
}

TEST_F(Readdirplus, OpenFailureIsNamedByItsStatusTakenForAnErrno) {
    EXPECT_CALL(*object_, OpenDir).WillOnce(FailWith(ENOTEMPTY, nullptr));
    EXPECT_EQ(NFS3ERR_NOTEMPTY, Run().status);
    EXPECT_THAT(Errors(),
                ElementsAre(LogLine{-1, kFunction,
                                    std::string("Error: Failed to open directory [name]. [") +
                                        strerror(66) + "]"}));
}

TEST_F(Readdirplus, FailedStatOfTheDirectoryOnlyLosesItsAttributes) {
    EXPECT_CALL(*object_, Stat).Times(testing::AnyNumber());
    EXPECT_CALL(*object_, Stat(_, kPath, _)).WillOnce(FailWith(EIO, -1));
    const READDIRPLUS3res& result = Run();
    EXPECT_EQ(NFS3_OK, result.status);
    EXPECT_EQ(4u, Entries(result).size());
    EXPECT_EQ(FALSE, result.resok.dir_attributes.attributes_follow);
    EXPECT_TRUE(log_.Has(-1, "Error: Failed to stat(name). [5:Input/output error]")) << log_.Dump();
}

TEST_F(Readdirplus, FillerClearsTheFlag) {
    READDIRPLUS3res result{};
    result.resfail.dir_attributes.attributes_follow = TRUE;
    EXPECT_EQ(1, FillRDirP3FailRes(&result, NFS3ERR_IO));
    EXPECT_EQ(NFS3ERR_IO, result.status);
    EXPECT_EQ(FALSE, result.resfail.dir_attributes.attributes_follow);
}

// ---- Release ----

TEST_F(Readdirplus, ReleaseFreesTheListOnceAndSaysSo) {
    Run();
    log_.Clear();
    EXPECT_EQ(1, Free_READDIRPLUS3(&call_));
    EXPECT_EQ(nullptr, call_.result.readdirplus.resok.reply.entry);
    EXPECT_EQ(1, Free_READDIRPLUS3(&call_));
    const LogLine line{4, "bool_t Free_READDIRPLUS3(CallInfo3*)", "Freed memory"};
    EXPECT_THAT(log_.Lines(), ElementsAre(line, line));
}

TEST_F(Readdirplus, ReleaseAfterAFailureFreesNothing) {
    ObjectIsGone();
    Run();
    EXPECT_EQ(1, Free_READDIRPLUS3(&call_));
}

}  // namespace
