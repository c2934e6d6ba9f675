// SPDX-License-Identifier: Apache-2.0
//
// Loading and reloading shares: what counts as a change, that a file with an error changes nothing,
// and that what has not changed stays the same object.
#include "backend/share_set.h"

#include <gtest/gtest.h>

#include <boost/make_shared.hpp>
#include <boost/weak_ptr.hpp>
#include <set>

#include "backend/ExportCache.h"
#include "tests/base/private_root.h"
#include "tests/support/contract_mocks.h"
#include "tests/support/log_capture.h"

namespace oxel::test {
namespace {

using testing::Return;

class ShareSetTest : public testing::Test {
  protected:
    ShareSetTest() {
        for (const char* name : {"a", "b", "c"}) std::filesystem::create_directory(Dir(name));
    }
    ~ShareSetTest() override { gAllExports.Replace({}); }

    std::string Dir(const std::string& name) const { return root_.Path() + "/" + name; }
    // A line "/name -dir=.../directory,options".
    std::string Line(const std::string& name, const std::string& rest) const {
        return "/" + name + " -dir=" + Dir(name) + "," + rest + "\n";
    }
    void Write(const std::string& text) { WriteFile(file_, text); }
    void Load(const std::string& text) {
        Write(text);
        set_.Load(file_,
                  {[this](const ShareConfig& config, std::string* error) -> ExportPtr {
                       if (broken_.count(config.path) != 0) {
                           *error = "the module cannot serve it";
                           return nullptr;
                       }
                       auto share = boost::make_shared<NiceExport>(config.path);
                       ON_CALL(*share, GetFSMType()).WillByDefault(Return(config.unlisted ? 2 : 1));
                       ++made_;
                       return share;
                   },
                   [this](const ExportPtr&, const ShareConfig& config) {
                       return moved_.count(config.path) == 0;
                   }});
    }
    ReloadResult Reload(const std::string& text) {
        Write(text);
        return set_.Reload(file_);
    }
    static ExportPtr Find(const std::string& path) {
        ExportPtr share;
        gAllExports.FindExport(path, share);
        return share;
    }
    // "path: what what" of one change; the path alone when there is nothing to tell.
    static std::vector<std::string> Told(const std::vector<ShareChange>& changes) {
        std::vector<std::string> all;
        for (const ShareChange& change : changes) {
            std::string text = change.path;
            for (const std::string& what : change.what) text += " " + what;
            all.push_back(text);
        }
        return all;
    }
    using Texts = std::vector<std::string>;

    PrivateRoot root_;
    const std::string file_ = root_.Paths().exports;
    ShareSet set_;
    std::set<std::string> broken_, moved_;
    int made_ = 0;
};

TEST_F(ShareSetTest, AtStartGoodLinesAreServedAndBadOnesSaid) {
    LogCapture log;
    broken_ = {"/c"};
    Load(Line("a", "id=1") + "/x *(rww)\n" + Line("c", "id=3") + Line("b", "id=2"));
    EXPECT_TRUE(log.Has(-1, "Error: " + file_ +
                                ":2: unknown option 'rww'; did you mean 'rw'?. The share is not "
                                "served."));
    EXPECT_TRUE(log.Has(
        -1, "Error: " + file_ + ":3: the module cannot serve it. The share is not served."));
    ASSERT_EQ(set_.All().size(), 2u);
    EXPECT_EQ(set_.All()[0].config.path, "/a");
    EXPECT_EQ(set_.All()[1].config.path, "/b");
    EXPECT_TRUE(Find("/a") && Find("/b"));
    EXPECT_FALSE(Find("/c"));
}

TEST_F(ShareSetTest, WithoutAFileNothingIsServedAndThatIsSaid) {
    LogCapture log;
    set_.Load(file_, {});
    EXPECT_TRUE(log.Has(-1, "Warning: No share is defined in " + file_ + "."));
    EXPECT_TRUE(set_.All().empty());
}

TEST_F(ShareSetTest, AReloadTellsWhatCameWentAndChanged) {
    Load(Line("a", "id=1") + Line("b", "id=2"));
    LogCapture log;
    const ReloadResult result = Reload(Line("c", "id=3") + Line("a", "id=1,rw"));
    EXPECT_TRUE(result.errors.empty());
    EXPECT_EQ(Told(result.added), Texts{"/c"});
    EXPECT_EQ(Told(result.removed), Texts{"/b"});
    EXPECT_EQ(Told(result.changed), Texts{"/a clients"});
    EXPECT_EQ(result.unchanged, 0u);
    EXPECT_EQ(result.removed[0].id, 2u);
    EXPECT_FALSE(Find("/b"));
    EXPECT_EQ(set_.All()[0].config.path, "/c");
    for (const char* text :
         {"Share [/b] id [2] is removed.", "Share [/c] id [3] is added.",
          "Share [/a] id [1] is changed: clients.",
          "The shares are reloaded: [1] added, [1] removed, [1] changed, [0] as before."})
        EXPECT_TRUE(log.Has(1, text)) << log.Dump();
}

TEST_F(ShareSetTest, APreviewTellsWhatAReloadWouldAndDoesNothing) {
    const std::string other = "/m -dir=" + Dir("a") + ",id=5\n";
    Load(Line("a", "id=1") + Line("b", "id=2") + other);
    const int made = made_;
    LogCapture log;
    moved_ = {"/m"};
    Write(Line("c", "id=3") + Line("a", "id=1,rw") + other);
    const ReloadResult preview = set_.Preview(file_);
    EXPECT_EQ(log.Dump(), "");
    EXPECT_EQ(made_, made);
    EXPECT_TRUE(Find("/a") && Find("/b"));
    EXPECT_FALSE(Find("/c"));
    EXPECT_EQ(set_.All().size(), 3u);
    const ReloadResult done = set_.Reload(file_);
    for (const ReloadResult& result : {preview, done}) {
        EXPECT_TRUE(result.errors.empty());
        EXPECT_EQ(Told(result.added), Texts{"/c"});
        EXPECT_EQ(Told(result.removed), Texts{"/b"});
        EXPECT_EQ(Told(result.changed), (Texts{"/a clients", "/m directory"}));
        EXPECT_EQ(result.unchanged, 0u);
    }
}

TEST_F(ShareSetTest, APreviewOfAFileWithErrorsTellsThem) {
    Load(Line("a", "id=1"));
    Write(Line("b", "id=2") + "/x *(rww)\n");
    const ReloadResult preview = set_.Preview(file_);
    ASSERT_EQ(preview.errors.size(), 1u);
    EXPECT_EQ(preview.errors[0].line, 2);
    EXPECT_TRUE(preview.added.empty() && preview.removed.empty() && preview.changed.empty());
    EXPECT_TRUE(Find("/a"));
}

TEST_F(ShareSetTest, SharesWhoseLinesSayTheSameStayTheSameObjects) {
    Load(Line("a", "id=1") + Line("b", "id=2"));
    const ExportPtr a = Find("/a"), b = Find("/b");
    a->SetLastAccessTime(1000);
    gAllExports.RecordMount(1, "10.0.0.1");
    // Another order, another spelling, another line number.
    const ReloadResult result = Reload("# moved\n\n" + Line("b", "id=2") + "//a/ -id=1,dir=\"" +
                                       Dir("a") + "\" \\\n  *(ro,secure)\n");
    EXPECT_EQ(result.unchanged, 2u);
    EXPECT_TRUE(result.changed.empty() && result.added.empty() && result.removed.empty());
    EXPECT_EQ(Find("/a"), a);
    EXPECT_EQ(Find("/b"), b);
    EXPECT_EQ(made_, 2);
    EXPECT_EQ(a->GetLastAccessTime(), 1000);
    EXPECT_EQ(gAllExports.Mounts(1).size(), 1u);
    EXPECT_EQ(gAllExports.All()[0].second, b);
    EXPECT_EQ(set_.All()[1].config.line, 4);
}

TEST_F(ShareSetTest, EachKindOfChangeIsTold) {
    const std::string before = Line("a", "id=1") + "/b -dir=" + Dir("b") + ",id=2\n";
    struct {
        std::string line;
        const char* told;
        bool handlesKept;
    } rows[] = {
        {Line("a", "id=9"), "/a id", false},
        {"/a -dir=" + Dir("c") + ",id=1\n", "/a directory", false},
        {Line("a", "id=1,unlisted"), "/a unlisted", false},
        {Line("a", "id=1,rw"), "/a clients", true},
        {Line("a", "id=1 10.0.0.1"), "/a clients", true},
        {Line("a", "id=1 *(anonuid=5)"), "/a clients", true},
        {"/a -dir=" + Dir("c") + ",id=3,unlisted *(rw)\n", "/a id directory unlisted clients",
         false},
    };
    for (const auto& row : rows) {
        Load(before);
        const ExportPtr a = Find("/a"), b = Find("/b");
        const ReloadResult result = Reload(row.line + "/b -dir=" + Dir("b") + ",id=2\n");
        EXPECT_EQ(Told(result.changed), Texts{row.told});
        ASSERT_EQ(result.changed.size(), 1u);
        EXPECT_EQ(result.changed[0].handlesKept, row.handlesKept) << row.told;
        EXPECT_NE(Find("/a"), a) << row.told;
        EXPECT_EQ(Find("/b"), b) << row.told;
        EXPECT_EQ(result.unchanged, 1u);
    }
    Load(Line("a", "id=1,unlisted"));
    EXPECT_EQ(Told(Reload(Line("a", "id=1")).changed), Texts{"/a listed"});
}

TEST_F(ShareSetTest, ADirectoryThatIsAnotherOneNowIsAChange) {
    Load(Line("a", "id=1"));
    const ExportPtr a = Find("/a");
    moved_ = {"/a"};
    EXPECT_EQ(Told(Reload(Line("a", "id=1")).changed), Texts{"/a directory"});
    EXPECT_NE(Find("/a"), a);
}

TEST_F(ShareSetTest, ChangedSharesKeepTheirMountsAndAccessTimes) {
    Load(Line("a", "id=1"));
    Find("/a")->SetLastAccessTime(1000);
    gAllExports.RecordMount(1, "10.0.0.1");
    Reload(Line("a", "id=1,rw"));
    EXPECT_EQ(Find("/a")->GetLastAccessTime(), 1000);
    EXPECT_EQ(gAllExports.Mounts(1).size(), 1u);
}

TEST_F(ShareSetTest, AnyErrorLeavesEverythingAsItWas) {
    const std::string good = Line("a", "id=1") + Line("b", "id=2");
    Load(good);
    const ExportPtr a = Find("/a"), b = Find("/b");
    const struct {
        std::string text;
        const char* error;  // behind the file's name
    } rows[] = {
        {Line("c", "id=3") + "/x *(rww)\n", ":2: unknown option 'rww'; did you mean 'rw'?"},
        {Line("c", "id=3") + "relative\n", ":2: a share's path must begin with '/': 'relative'"},
        {Line("c", "id=3") + Line("c", "id=4"), ":2: path '/c' is already shared by line 1"},
        {Line("c", "id=three"), ":1: option 'id': 'three' is not a number from 1 to 4294967295"},
        {"/x -module=tape\n", ":1: unknown module 'tape'; did you mean 'local'?"},
        {"\"/x\n", ":1: the quotes are not closed on their line"},
    };
    for (const auto& row : rows) {
        LogCapture log;
        const ReloadResult result = Reload(row.text);
        ASSERT_EQ(result.errors.size(), 1u) << row.error;
        EXPECT_EQ(ErrorText(result.errors[0]), file_ + row.error);
        EXPECT_TRUE(log.Has(-1, "Error: " + file_ + row.error + ".")) << log.Dump();
        EXPECT_TRUE(log.Has(-1,
                            "The shares are not reloaded, they stay as they were: [1] errors "
                            "in [" +
                                file_ + "]."))
            << log.Dump();
        EXPECT_TRUE(result.added.empty() && result.removed.empty() && result.changed.empty());
        EXPECT_EQ(Find("/a"), a) << row.error;
        EXPECT_EQ(Find("/b"), b) << row.error;
        EXPECT_FALSE(Find("/c")) << row.error;
        EXPECT_EQ(set_.All().size(), 2u);
    }
    EXPECT_EQ(Reload(good).unchanged, 2u);
}

TEST_F(ShareSetTest, AMissingDirectoryLeavesEverythingAsItWas) {
    Load(Line("a", "id=1"));
    const ExportPtr a = Find("/a");
    const ReloadResult result = Reload(Line("a", "id=1,rw") + Line("gone", "id=2"));
    ASSERT_EQ(result.errors.size(), 1u);
    EXPECT_EQ(result.errors[0].line, 2);
    EXPECT_EQ(result.errors[0].reason, "directory '" + Dir("gone") + "' does not exist");
    EXPECT_EQ(Find("/a"), a);
}

TEST_F(ShareSetTest, AShareThatTheModuleRefusesLeavesEverythingAsItWas) {
    Load(Line("a", "id=1"));
    const ExportPtr a = Find("/a");
    broken_ = {"/b"};
    const ReloadResult result = Reload(Line("a", "id=1,rw") + "\n" + Line("b", "id=2"));
    ASSERT_EQ(result.errors.size(), 1u);
    EXPECT_EQ(ErrorText(result.errors[0]), file_ + ":3: the module cannot serve it");
    EXPECT_TRUE(result.changed.empty());
    EXPECT_EQ(Find("/a"), a);
}

TEST_F(ShareSetTest, EveryErrorOfTheFileIsTold) {
    Load(Line("a", "id=1"));
    const ReloadResult result = Reload("/x *(rww)\nrelative\n/y 10.0.0.0/33\n");
    ASSERT_EQ(result.errors.size(), 3u);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(result.errors[static_cast<size_t>(i)].line, i + 1);
}

TEST_F(ShareSetTest, AFileThatIsGoneIsAnErrorWhileSharesAreServed) {
    Load(Line("a", "id=1"));
    std::filesystem::remove(file_);
    const ReloadResult result = set_.Reload(file_);
    ASSERT_EQ(result.errors.size(), 1u);
    EXPECT_EQ(ErrorText(result.errors[0]),
              file_ + ": the file does not exist; an empty one would mean no shares");
    EXPECT_TRUE(Find("/a"));
    EXPECT_EQ(Told(Reload("").removed), Texts{"/a"});
    EXPECT_FALSE(Find("/a"));
    std::filesystem::remove(file_);
    EXPECT_TRUE(set_.Reload(file_).errors.empty());
}

TEST_F(ShareSetTest, AMistakeThatWasThereAtStartIsMadeGood) {
    Load(Line("a", "id=1") + Line("b", "id=two"));
    EXPECT_FALSE(Find("/b"));
    EXPECT_EQ(Told(Reload(Line("a", "id=1") + Line("b", "id=2")).added), Texts{"/b"});
    EXPECT_TRUE(Find("/b"));
}

TEST_F(ShareSetTest, AnIdCanMoveFromOneShareToAnother) {
    Load(Line("a", "id=1") + Line("b", "id=2"));
    const ReloadResult result = Reload(Line("a", "id=2") + Line("b", "id=1"));
    EXPECT_EQ(Told(result.changed), (Texts{"/a id", "/b id"}));
    ExportPtr found;
    ASSERT_TRUE(gAllExports.FindExportById(1, found));
    EXPECT_EQ(found->GetPath(), "/b");
}

TEST_F(ShareSetTest, ARemovedShareLivesUntilItsLastCallHasEnded) {
    Load(Line("a", "id=1") + Line("b", "id=2"));
    ExportPtr call = Find("/a");
    boost::weak_ptr<Export> a = call;
    Reload(Line("b", "id=2"));
    EXPECT_FALSE(a.expired());
    EXPECT_EQ(call->GetPath(), "/a");
    // A look-up that replaces the pointer releases the share.
    ASSERT_TRUE(gAllExports.FindExportById(2, call));
    EXPECT_TRUE(a.expired());
}

}  // namespace
}  // namespace oxel::test
