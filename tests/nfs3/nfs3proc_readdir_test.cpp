// SPDX-License-Identifier: Apache-2.0
//
// READDIR.
#include "tests/nfs3/fake_directory.h"
#include "tests/nfs3/nfs3proc_fixture.h"

using namespace oxel::test;
using testing::_;
using testing::ElementsAre;
using testing::InSequence;
using testing::IsEmpty;
using testing::Return;

namespace {

constexpr const char* kFunction = "bool_t Handle_READDIR3(CallInfo3*)";
constexpr const char* kEntryFunction =
    "bool_t FSDirEntToNFSDirEnt(OxelCtxt&, dirent*, dirlist3*, BkEndProcPtr)";

struct Entry {
    uint64_t fileid;
    std::string name;
    uint64_t cookie;
    bool operator==(const Entry&) const = default;
    friend void PrintTo(const Entry& entry, std::ostream* out) {
        *out << entry.fileid << " " << entry.name << " cookie " << entry.cookie;
    }
};

class Readdir : public ProcTest {
  protected:
    Readdir() {
        ON_CALL(*object_, Stat).WillByDefault(StatGives(FileStat(S_IFDIR | 0755)));
        args_.dir = handle_;
        args_.count = 1 << 16;
    }
    ~Readdir() override {
        Free_READDIR3(&call_);
        EXPECT_EQ(directory_.Opened(), directory_.Closed());
    }
    READDIR3res& Run() {
        EXPECT_EQ(TRUE, Handle_READDIR3(&call_));
        return call_.result.readdir;
    }
    static std::vector<Entry> Entries(const READDIR3res& result) {
        std::vector<Entry> entries;
        const dirlist3* link = &result.resok.reply;
        for (; link->present; link = &link->entry->next)
            entries.push_back({link->entry->fileid, link->entry->name, link->entry->cookie});
        EXPECT_EQ(nullptr, link->entry);
        return entries;
    }
    // As a later call of the same record, by the dispatcher's rules.
    void NextCall(uint64_t cookie) {
        Free_READDIR3(&call_);
        call_.ClearCall();
        call_.replyBytes = 0;
        args_.dir = handle_;
        args_.count = 1 << 16;
        args_.cookie = cookie;
    }

    READDIR3args& args_ = call_.arguments().readdir;
    FakeDirectory directory_{object_.get(),
                             {{".", 4711, 11}, {"..", 2, 22}, {"a", 100, 33}, {"bcdef", 101, 44}}};
};

TEST_F(Readdir, ListsEveryNameWithTheStreamsInodeAndPosition) {
    const READDIR3res& result = Run();
    EXPECT_EQ(NFS3_OK, result.status);
    EXPECT_THAT(Entries(result), ElementsAre(Entry{4711, ".", 11}, Entry{2, "..", 22},
                                             Entry{100, "a", 33}, Entry{101, "bcdef", 44}));
    EXPECT_EQ(TRUE, result.resok.eof);
    EXPECT_EQ(0u, result.resok.cookieverf);
    EXPECT_EQ(TRUE, result.resok.dir_attributes.attributes_follow);
    EXPECT_EQ(NF3DIR, result.resok.dir_attributes.attributes.type);
    EXPECT_EQ(share_, call_.exportPtr);
    EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(Readdir, OpensSeeksReadsStatsAndClosesInThisOrder) {
    oxel::LogWriter::SetLevel(2);  // tracing asks the stream, too
    InSequence order;
    EXPECT_CALL(*object_, OpenDir(OnObject(object_.get()), kPath));
    EXPECT_CALL(*object_, SeekDir(OnObject(object_.get()), _, 0));
    EXPECT_CALL(*object_, ReadDir(OnObject(object_.get()), _));
    EXPECT_CALL(*object_, TellDir).Times(2);
    EXPECT_CALL(*object_, ReadDir);
    EXPECT_CALL(*object_, GetParent);
    EXPECT_CALL(*object_, TellDir).Times(2);
    EXPECT_CALL(*object_, ReadDir);
    EXPECT_CALL(*object_, FindChild(OnObject(object_.get()), "a"));
    EXPECT_CALL(*object_, TellDir).Times(2);
    EXPECT_CALL(*object_, ReadDir);
    EXPECT_CALL(*object_, FindChild(_, "bcdef"));
    EXPECT_CALL(*object_, TellDir).Times(2);
    EXPECT_CALL(*object_, ReadDir);
    EXPECT_CALL(*object_, Stat(OnObject(object_.get()), kPath, _));
    EXPECT_CALL(*object_, CloseDir(OnObject(object_.get()), _));
    EXPECT_EQ(4u, Entries(Run()).size());
}

TEST_F(Readdir, TracesWhatItDoes) {
    args_.cookie = 22;
    args_.cookieverf = 0xabcdef0123456789;
    args_.count = 5000;
    Run();
    EXPECT_THAT(
        log_.AtLevel(3),
        ElementsAre(LogLine{3, kFunction, "cookie [16] cookieverf [abcdef0123456789] count [5000]"},
                    LogLine{3, kFunction, "seeking to [22] [0]"},
                    LogLine{3, kFunction, "Seeked to [22]"},
                    LogLine{3, kEntryFunction, "name [a] fileid [100]"},
                    LogLine{3, kFunction, "Cookie for new entry [21]"},
                    LogLine{3, kEntryFunction, "name [bcdef] fileid [101]"},
                    LogLine{3, kFunction, "Cookie for new entry [2c]"},
                    LogLine{3, "int OSStatToNfsStat(OxelCtxt*, const std::string&, fattr3*)",
                            "Object type = [41ed : 4000]."},
                    LogLine{3, "int OSStatToNfsStat(OxelCtxt*, const std::string&, fattr3*)",
                            "Filled stat info."},
                    LogLine{3, kFunction, "Returning [2] entries."}));
}

TEST_F(Readdir, TracesNothingBelowLevel3) {
    oxel::LogWriter::SetLevel(2);
    Run();
    EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(Readdir, SeekingIsTracedWith32BitsOfTheCookie) {
    args_.cookie = (uint64_t{7} << 32) | 5;
    Run();
    EXPECT_TRUE(log_.Has(3, "seeking to [5] [0]")) << log_.Dump();
    EXPECT_TRUE(log_.Has(3, "Seeked to [30064771077]")) << log_.Dump();
}

// ---- Cookies ----

TEST_F(Readdir, DotAtPosition0HasCookie1) {
    FakeDirectory directory(object_.get(), {{".", 5, 0}, {"..", 6, 0}, {"x", 7, 9}});
    EXPECT_THAT(Entries(Run()), ElementsAre(Entry{5, ".", 1}, Entry{6, "..", 0}, Entry{7, "x", 9}));
    EXPECT_EQ(directory.Opened(), directory.Closed());
}

TEST_F(Readdir, DotAtAnotherPositionHasThePositionAsCookie) {
    EXPECT_EQ(11u, Entries(Run()).front().cookie);
}

TEST_F(Readdir, NegativePositionIsA64BitCookie) {
    FakeDirectory directory(object_.get(), {{"x", 7, -2}});
    EXPECT_THAT(Entries(Run()), ElementsAre(Entry{7, "x", 0xfffffffffffffffe}));
}

TEST_F(Readdir, CookieResumesAfterTheEntryThatHadIt) {
    args_.cookie = 33;
    EXPECT_CALL(*object_, SeekDir(_, _, 33));
    EXPECT_THAT(Entries(Run()), ElementsAre(Entry{101, "bcdef", 44}));
}

TEST_F(Readdir, CookieOfTheLastEntryGivesNothingAndEof) {
    args_.cookie = 44;
    const READDIR3res& result = Run();
    EXPECT_THAT(Entries(result), IsEmpty());
    EXPECT_EQ(TRUE, result.resok.eof);
}

TEST_F(Readdir, AnyCookieVerifierIsAcceptedAndTheRepliesIsZero) {
    for (uint64_t verifier : {uint64_t{0}, uint64_t{1}, UINT64_MAX}) {
        NextCall(0);
        args_.cookieverf = verifier;
        call_.result.readdir.resok.cookieverf = 99;
        const READDIR3res& result = Run();
        EXPECT_EQ(NFS3_OK, result.status);
        EXPECT_EQ(0u, result.resok.cookieverf);
        EXPECT_EQ(4u, Entries(result).size());
    }
}

// ---- Which names ----

TEST_F(Readdir, NameThatVanishedIsSkippedWithoutAWord) {
    directory_.Remove("a");
    const READDIR3res& result = Run();
    EXPECT_EQ(NFS3_OK, result.status);
    EXPECT_THAT(Entries(result),
                ElementsAre(Entry{4711, ".", 11}, Entry{2, "..", 22}, Entry{101, "bcdef", 44}));
    EXPECT_EQ(TRUE, result.resok.eof);
    EXPECT_THAT(Errors(), IsEmpty());
    EXPECT_TRUE(log_.Has(3, "Returning [3] entries.")) << log_.Dump();
}

TEST_F(Readdir, DirectoryWhoseNamesAllVanishedIsEmpty) {
    FakeDirectory directory(object_.get(), {{"x", 7, 9}, {"y", 8, 10}});
    directory.Remove("x");
    directory.Remove("y");
    const READDIR3res& result = Run();
    EXPECT_THAT(Entries(result), IsEmpty());
    EXPECT_EQ(TRUE, result.resok.eof);
}

TEST_F(Readdir, DotDotIsListedWhetherOrNotThereIsAParent) {
    EXPECT_CALL(*object_, GetParent).WillOnce(Return(BkEndProcPtr())).WillOnce(Return(object_));
    EXPECT_EQ(4u, Entries(Run()).size());
    NextCall(0);
    EXPECT_EQ(4u, Entries(Run()).size());
}

TEST_F(Readdir, NamesThatOnlyBeginWithADotAreLookedFor) {
    FakeDirectory directory(object_.get(), {{"...", 7, 9}, {".x", 8, 10}, {"..x", 9, 11}});
    EXPECT_CALL(*object_, FindChild(_, "..."));
    EXPECT_CALL(*object_, FindChild(_, ".x"));
    EXPECT_CALL(*object_, FindChild(_, "..x"));
    EXPECT_CALL(*object_, GetParent).Times(0);
    EXPECT_EQ(3u, Entries(Run()).size());
}

// ---- Sizes ----

TEST_F(Readdir, CountOf2156AnswersNoEntriesAndEof) {
    for (uint32_t count : {0u, 1u, 2156u}) {
        NextCall(0);
        args_.count = count;
        EXPECT_CALL(*object_, ReadDir).Times(0);
        const READDIR3res& result = Run();
        EXPECT_EQ(NFS3_OK, result.status);
        EXPECT_THAT(Entries(result), IsEmpty());
        EXPECT_EQ(TRUE, result.resok.eof);
        EXPECT_EQ(TRUE, result.resok.dir_attributes.attributes_follow);
        EXPECT_EQ(0u, call_.replyBytes);
    }
}

TEST_F(Readdir, CountOf2157AnswersOneEntryAndNoEof) {
    args_.count = 2157;
    const READDIR3res& result = Run();
    EXPECT_THAT(Entries(result), ElementsAre(Entry{4711, ".", 11}));
    EXPECT_EQ(FALSE, result.resok.eof);
}

TEST_F(Readdir, EachEntryTakes20BytesAndItsNameOfTheCount) {
    // "." and ".." take 28 each, "a" too: the fourth entry is read below 108 + 84 + 2048.
    args_.count = 108 + 84 + 2048;
    const READDIR3res& three = Run();
    EXPECT_EQ(3u, Entries(three).size());
    EXPECT_EQ(FALSE, three.resok.eof);
    NextCall(0);
    args_.count = 108 + 84 + 2048 + 1;
    const READDIR3res& four = Run();
    EXPECT_EQ(4u, Entries(four).size());
    // The limit ended the listing: whether there is more was not asked.
    EXPECT_EQ(FALSE, four.resok.eof);
}

TEST_F(Readdir, SkippedNamesTakeNothingOfTheCount) {
    directory_.Remove("a");
    args_.count = 108 + 56 + 2048 + 1;
    EXPECT_THAT(Entries(Run()),
                ElementsAre(Entry{4711, ".", 11}, Entry{2, "..", 22}, Entry{101, "bcdef", 44}));
}

TEST_F(Readdir, ReplyBytesGrowByTheRunningSizeWithEveryEntry) {
    Run();
    EXPECT_EQ(136u + 164u + 192u + 224u, call_.replyBytes);
}

// ---- Failures ----

TEST_F(Readdir, RefusedClientGetsAccess) {
    ClientIsRefused();
    EXPECT_CALL(*object_, OpenDir).Times(0);
    EXPECT_EQ(NFS3ERR_ACCES, Run().status);
    EXPECT_THAT(Errors(), ElementsAre(RefusalLine()));
}

TEST_F(Readdir, HandleWithoutAnObjectIsStale) {
    ObjectIsGone();
    const READDIR3res& result = Run();
    EXPECT_EQ(NFS3ERR_STALE, result.status);
    EXPECT_EQ(FALSE, result.resfail.dir_attributes.attributes_follow);
    EXPECT_THAT(Errors(),
                ElementsAre(LogLine{-1, kFunction, "Error: Stale File Handle. [] IP [192.0.2.7]"}));
}

TEST_F(Readdir, DirectoryThatCannotBeOpenedIsItsErrno) {
    EXPECT_CALL(*object_, OpenDir).WillOnce(FailWith(ENOTDIR, nullptr));
    EXPECT_CALL(*object_, CloseDir).Times(0);
    const READDIR3res& result = Run();
    EXPECT_EQ(NFS3ERR_NOTDIR, result.status);
    EXPECT_EQ(FALSE, result.resfail.dir_attributes.attributes_follow);
    EXPECT_THAT(Errors(), ElementsAre(LogLine{-1, kFunction,
                                              "Error: Failed to open directory [name]. [Not a "
                                              "directory]"}));
}

TEST_F(Readdir, OpenFailureIsNamedByItsStatusTakenForAnErrno) {
    EXPECT_CALL(*object_, OpenDir).WillOnce(FailWith(ENAMETOOLONG, nullptr));
    EXPECT_EQ(NFS3ERR_NAMETOOLONG, Run().status);
    EXPECT_THAT(Errors(),
                ElementsAre(LogLine{-1, kFunction,
                                    std::string("Error: Failed to open directory [name]. [") +
                                        strerror(63) + "]"}));
}

TEST_F(Readdir, OpenFailureWithoutAnErrnoIsInvalid) {
    EXPECT_CALL(*object_, OpenDir).WillOnce(FailWith(0, nullptr));
    EXPECT_EQ(NFS3ERR_INVAL, Run().status);
}

TEST_F(Readdir, FailedStatOfTheDirectoryOnlyLosesItsAttributes) {
    EXPECT_CALL(*object_, Stat).WillOnce(FailWith(EIO, -1));
    const READDIR3res& result = Run();
    EXPECT_EQ(NFS3_OK, result.status);
    EXPECT_EQ(4u, Entries(result).size());
    EXPECT_EQ(FALSE, result.resok.dir_attributes.attributes_follow);
    ASSERT_EQ(2u, Errors().size()) << log_.Dump();
    EXPECT_EQ((LogLine{-1, kFunction, "Error: Failed to stat(name). [5:Input/output error]"}),
              Errors()[1]);
}

TEST_F(Readdir, FillerSetsTheStatusOnly) {
    READDIR3res result{};
    result.resfail.dir_attributes.attributes_follow = TRUE;
    EXPECT_EQ(1, FillRDirP3FailRes(&result, NFS3ERR_IO));
    EXPECT_EQ(NFS3ERR_IO, result.status);
    EXPECT_EQ(TRUE, result.resfail.dir_attributes.attributes_follow);
}

// ---- Release ----

TEST_F(Readdir, ReleaseFreesTheListOnceAndSaysSo) {
    Run();
    log_.Clear();
    EXPECT_EQ(1, Free_READDIR3(&call_));
    EXPECT_EQ(FALSE, call_.result.readdir.resok.reply.present);
    EXPECT_EQ(nullptr, call_.result.readdir.resok.reply.entry);
    EXPECT_EQ(1, Free_READDIR3(&call_));
    const LogLine line{4, "bool_t Free_READDIR3(CallInfo3*)", "Freed memory"};
    EXPECT_THAT(log_.Lines(), ElementsAre(line, line));
}

TEST_F(Readdir, ReleaseAfterAFailureFreesNothing) {
    ObjectIsGone();
    Run();
    EXPECT_EQ(1, Free_READDIR3(&call_));
}

TEST_F(Readdir, ReleaseOfAVeryLongListDoesNotRecurse) {
    dirlist3* link = &call_.result.readdir.resok.reply;
    for (int i = 0; i < 1000000; ++i) {
        link->entry = new entry3{};
        link->present = TRUE;
        link->entry->name = strdup("n");
        link = &link->entry->next;
    }
    EXPECT_EQ(1, Free_READDIR3(&call_));
}

}  // namespace
