// SPDX-License-Identifier: Apache-2.0
//
// READDIR and READDIRPLUS on the wire.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <set>

#include "tests/wire/wire_fixture.h"

namespace oxel::test {
namespace {

constexpr int kFiles = 300;

class Readdir : public WireTest {
  protected:
    void SetUp() override {
        WireTest::SetUp();
        if (HasFatalFailure()) return;
        names_ = {".", ".."};
        tree_.MakeDir("rw/dir");
        for (int i = 0; i < kFiles; ++i) {
            // Lengths of every remainder by four.
            const std::string name = "file" + std::to_string(i) + std::string(i % 5, 'x');
            tree_.Write("rw/dir/" + name, "");
            names_.insert(name);
        }
        client_ = std::make_unique<NfsClient>(Port());
        root_ = client_->MountShare("/rw");
        dir_ = client_->Lookup(root_, "dir");
    }
    void TearDown() override { client_.reset(); }

    static uint32_t StringBytes(const std::string& name) {
        return 4 + static_cast<uint32_t>((name.size() + 3) / 4 * 4);
    }

    std::multiset<std::string> names_;
    std::unique_ptr<NfsClient> client_;
    std::string root_, dir_;
};

TEST_P(Readdir, PagesHoldEveryNameOnceAndEndWithEof) {
    for (uint32_t count : {2300u, 4096u, 8192u, 65536u}) {
        std::multiset<std::string> seen;
        uint64_t cookie = 0;
        int pages = 0;
        for (bool eof = false; !eof; ++pages) {
            ASSERT_LT(pages, 1000);
            DirectoryPage page = client_->ReadDirectory(dir_, cookie, count);
            ASSERT_EQ(page.status, 0u);
            EXPECT_EQ(page.verifier, 0u);
            EXPECT_TRUE(page.hasAttributes);
            for (const DirectoryEntry& entry : page.entries) {
                seen.insert(entry.name);
                cookie = entry.cookie;
                const std::string path = tree_.Path("rw/dir/" + entry.name);
                if (entry.name != "..") {
                    EXPECT_EQ(entry.fileid, ExpectedAttributes(path).fileid);
                }
            }
            eof = page.eof;
            ASSERT_TRUE(eof || !page.entries.empty()) << "no progress";
        }
        EXPECT_EQ(seen, names_) << count;
    }
}

TEST_P(Readdir, PagesOfPlusHoldEveryNameOnceWithAttributesAndHandles) {
    for (uint32_t maxcount : {4096u, 8192u, 262144u}) {
        std::multiset<std::string> seen;
        uint64_t cookie = 0;
        int pages = 0;
        for (bool eof = false; !eof; ++pages) {
            ASSERT_LT(pages, 1000);
            DirectoryPage page = client_->ReadDirectoryPlus(dir_, cookie, 262144, maxcount);
            ASSERT_EQ(page.status, 0u);
            EXPECT_EQ(page.verifier, 0u);
            for (const DirectoryEntry& entry : page.entries) {
                seen.insert(entry.name);
                cookie = entry.cookie;
                ASSERT_TRUE(entry.hasAttributes && entry.hasHandle) << entry.name;
                Attributes expected = ExpectedAttributes(tree_.Path("rw/dir/" + entry.name));
                expected.atime = entry.attributes.atime;  // reading the directory moves it
                EXPECT_EQ(Hex(AttributesBytes(entry.attributes)), Hex(AttributesBytes(expected)))
                    << entry.name;
                EXPECT_EQ(entry.fileid, expected.fileid);
                std::string handle = entry.handle;
                if (entry.name == "file7xx") handle = client_->Lookup(dir_, "file7xx");
                if (entry.name == ".") handle = dir_;
                if (entry.name == "..") handle = root_;
                EXPECT_EQ(Hex(entry.handle), Hex(handle)) << entry.name;
            }
            eof = page.eof;
            ASSERT_TRUE(eof || !page.entries.empty()) << "no progress";
        }
        EXPECT_EQ(seen, names_) << maxcount;
    }
}

TEST_P(Readdir, CountOf2156AnswersNoEntriesAndEof) {
    for (uint32_t count : {0u, 1u, 2155u, 2156u}) {
        DirectoryPage page = client_->ReadDirectory(dir_, 0, count);
        EXPECT_EQ(page.status, 0u);
        EXPECT_TRUE(page.entries.empty()) << count;
        EXPECT_TRUE(page.eof) << count;
        page = client_->ReadDirectoryPlus(dir_, 0, 100000, count);
        EXPECT_TRUE(page.entries.empty()) << count;
        EXPECT_TRUE(page.eof) << count;
    }
    EXPECT_EQ(client_->ReadDirectory(dir_, 0, 2157).entries.size(), 1u);
    EXPECT_FALSE(client_->ReadDirectory(dir_, 0, 2157).eof);
    EXPECT_EQ(client_->ReadDirectoryPlus(dir_, 0, 100000, 2157).entries.size(), 1u);
}

TEST_P(Readdir, ADircountOf16AnswersNoEntriesAndEof) {
    DirectoryPage page = client_->ReadDirectoryPlus(dir_, 0, 16, 100000);
    EXPECT_TRUE(page.entries.empty());
    EXPECT_TRUE(page.eof);
    page = client_->ReadDirectoryPlus(dir_, 0, 17, 100000);
    EXPECT_EQ(page.entries.size(), 1u);
    EXPECT_FALSE(page.eof);
}

TEST_P(Readdir, APageHoldsWhatTheSizeEstimateAllows) {
    for (uint32_t count : {2200u, 3000u, 5000u}) {
        DirectoryPage page = client_->ReadDirectory(dir_, 0, count);
        uint32_t running = 108;
        for (size_t i = 0; i < page.entries.size(); ++i) {
            EXPECT_LT(running + 2048, count) << "entry " << i << " did not fit";
            running += StringBytes(page.entries[i].name) + 20;
        }
        EXPECT_GE(running + 2048, count) << "one more would have fitted";
        page = client_->ReadDirectoryPlus(dir_, 0, 300, count + 4000);
        running = 108;
        uint32_t names = 0;
        for (const DirectoryEntry& entry : page.entries) {
            EXPECT_TRUE(running + 2048 < count + 4000 && names + 16 < 300);
            running += StringBytes(entry.name) + 164;
            names += StringBytes(entry.name);
        }
        EXPECT_TRUE(running + 2048 >= count + 4000 || names + 16 >= 300);
    }
}

TEST_P(Readdir, ResumingAfterEachCookieGoesOnWithTheNextName) {
    DirectoryPage whole = client_->ReadDirectory(dir_, 0, 65536);
    ASSERT_EQ(whole.entries.size(), names_.size());
    for (size_t i = 0; i + 1 < whole.entries.size(); i += 17) {
        DirectoryPage page = client_->ReadDirectory(dir_, whole.entries[i].cookie, 2200);
        ASSERT_FALSE(page.entries.empty());
        EXPECT_EQ(page.entries[0].name, whole.entries[i + 1].name);
    }
    DirectoryPage end = client_->ReadDirectory(dir_, whole.entries.back().cookie, 65536);
    EXPECT_TRUE(end.entries.empty());
    EXPECT_TRUE(end.eof);
}

TEST_P(Readdir, AnyCookieVerifierIsAccepted) {
    // The first reading of a new directory moves its atime on.
    client_->ReadDirectory(dir_, 0, 4096);
    const std::string results = client_->Results(
        client_->Nfs(nfs::kReaddir,
                     XdrWriter().Opaque(dir_).U64(0).U64(0xdeadbeefcafef00dull).U32(4096).Bytes()));
    EXPECT_EQ(XdrReader(results).U32(), 0u);
    EXPECT_EQ(Hex(results),
              Hex(client_->Results(client_->Nfs(
                  nfs::kReaddir, XdrWriter().Opaque(dir_).U64(0).U64(0).U32(4096).Bytes()))));
}

TEST_P(Readdir, CookiesThatWereNeverGivenDoNoHarm) {
    for (uint64_t cookie : {1ull, 2ull, 0x7fffffffffffffffull, 0x8000000000000000ull, ~0ull}) {
        client_->Results(client_->Nfs(
            nfs::kReaddir, XdrWriter().Opaque(dir_).U64(cookie).U64(0).U32(65536).Bytes()));
        client_->Results(client_->Nfs(
            nfs::kReaddirplus,
            XdrWriter().Opaque(dir_).U64(cookie).U64(0).U32(65536).U32(65536).Bytes()));
    }
    EXPECT_EQ(client_->ReadDirectory(dir_, 0, 65536).entries.size(), names_.size());
}

TEST_P(Readdir, ParentsOfTheRootAreTheRoot) {
    DirectoryPage page = client_->ReadDirectoryPlus(root_, 0, 65536, 65536);
    for (const DirectoryEntry& entry : page.entries) {
        if (entry.name == "." || entry.name == "..") {
            EXPECT_EQ(Hex(entry.handle), Hex(root_));
        }
    }
}

TEST_P(Readdir, AFileIsNoDirectory) {
    const std::string file = client_->Lookup(dir_, "file0");
    EXPECT_EQ(Hex(client_->Results(client_->Nfs(
                  nfs::kReaddir, XdrWriter().Opaque(file).U64(0).U64(0).U32(4096).Bytes()))),
              Hex(StatusWord(20) + Nothing()));
    EXPECT_EQ(client_->ReadDirectoryPlus(file, 0, 4096, 4096).status, 20u);
    EXPECT_TRUE(daemon_.WaitForLog("Error: Failed to open directory [file0]. [Not a directory]"));
}

TEST_P(Readdir, AVanishedDirectoryIsStale) {
    tree_.MakeDir("rw/gone");
    const std::string gone = client_->Lookup(root_, "gone");
    ASSERT_EQ(rmdir(tree_.Path("rw/gone").c_str()), 0);
    EXPECT_EQ(client_->ReadDirectory(gone, 0, 4096).status, 70u);
    EXPECT_EQ(client_->ReadDirectoryPlus(gone, 0, 4096, 4096).status, 70u);
}

OXEL_ALL_MODES(Readdir);

}  // namespace
}  // namespace oxel::test
