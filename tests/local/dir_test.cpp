// SPDX-License-Identifier: Apache-2.0
//
// Directory streams: every name once, and resuming at any position while the directory changes.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <map>
#include <set>

#include "tests/local/fixture.h"

namespace oxel::testing {
namespace {

struct Listed {
    std::string name;
    int64_t after;
};

class Directory : public LocalTest {
  protected:
    void SetUp() override {
        LocalTest::SetUp();
        MakeDir(InShare("d"));
    }
    void Fill(int count) {
        for (int i = 0; i < count; ++i) WriteFile(Name(i), "");
    }
    std::string Name(int i) const { return InShare("d/name" + std::to_string(i)); }

    // One READDIR: at most `limit` entries from `position` on.
    std::vector<Listed> List(uint64_t position, size_t limit = SIZE_MAX) {
        std::vector<Listed> listed;
        const BkEndProcPtr directory = Find("d");
        OxelCtxt ctxt = AsSelf(directory);
        DirStream* stream = directory->OpenDir(&ctxt, directory->GetPath());
        EXPECT_NE(stream, nullptr);
        if (stream == nullptr) return listed;
        directory->SeekDir(&ctxt, stream, position);
        EXPECT_EQ(directory->TellDir(&ctxt, stream), static_cast<int64_t>(position));
        while (listed.size() < limit) {
            const struct dirent* entry = directory->ReadDir(&ctxt, stream);
            if (entry == nullptr) break;
            listed.push_back({entry->d_name, directory->TellDir(&ctxt, stream)});
            if (listed.back().name.front() != '.') {
                EXPECT_EQ(entry->d_ino, StatOf(InShare("d/" + listed.back().name)).st_ino);
            }
        }
        directory->CloseDir(&ctxt, stream);
        return listed;
    }
    static std::multiset<std::string> Names(const std::vector<Listed>& listed) {
        std::multiset<std::string> names;
        for (const Listed& entry : listed) names.insert(entry.name);
        return names;
    }
};

TEST_F(Directory, ListsEveryNameOnce) {
    for (const int count : {0, 1, 1500}) {
        Fill(count);
        const auto names = Names(List(0));
        EXPECT_EQ(names.size(), static_cast<size_t>(count) + 2);
        EXPECT_EQ(names.count("."), 1u);
        EXPECT_EQ(names.count(".."), 1u);
        for (int i = 0; i < count; ++i) {
            EXPECT_EQ(names.count("name" + std::to_string(i)), 1u);
        }
    }
}

TEST_F(Directory, ResumesAfterEveryEntry) {
    Fill(300);
    const std::vector<Listed> all = List(0);
    for (size_t i = 0; i < all.size(); ++i) {
        const std::vector<Listed> rest = List(static_cast<uint64_t>(all[i].after), 3);
        ASSERT_EQ(rest.size(), std::min<size_t>(3, all.size() - i - 1)) << i;
        for (size_t k = 0; k < rest.size(); ++k) EXPECT_EQ(rest[k].name, all[i + 1 + k].name);
    }
}

TEST_F(Directory, NamesThatStayAreListedOnceWhileOthersComeAndGo) {
    Fill(400);
    std::map<std::string, int> seen;
    uint64_t position = 0;
    for (int page = 0;; ++page) {
        const std::vector<Listed> listed = List(position, 16);
        if (listed.empty()) break;
        for (const Listed& entry : listed) ++seen[entry.name];
        position = static_cast<uint64_t>(listed.back().after);
        WriteFile(InShare("d/new" + std::to_string(page)), "");
        // The very name that the position stands behind, and one still to come.
        if (listed.back().name.rfind("name", 0) == 0) Remove(InShare("d/" + listed.back().name));
        const std::string later = Name(2 * page + 1);
        if (access(later.c_str(), F_OK) == 0) Remove(later);
        ASSERT_LT(page, 1000);
    }
    for (int i = 0; i < 400; ++i) {
        const std::string name = "name" + std::to_string(i);
        const bool stayed = access(Name(i).c_str(), F_OK) == 0;
        EXPECT_LE(seen[name], 1) << name;
        EXPECT_GE(seen[name], stayed ? 1 : 0) << name;
    }
}

TEST_F(Directory, SeekingOnAnOpenStreamGoesBackAndForth) {
    Fill(50);
    const std::vector<Listed> all = List(0);
    const BkEndProcPtr directory = Find("d");
    OxelCtxt ctxt = AsSelf(directory);
    DirStream* stream = directory->OpenDir(&ctxt, "/");
    for (const size_t at : {10u, 3u, 40u, 0u, 51u}) {
        directory->SeekDir(&ctxt, stream, static_cast<uint64_t>(all[at].after));
        EXPECT_EQ(directory->TellDir(&ctxt, stream), all[at].after);
        const struct dirent* entry = directory->ReadDir(&ctxt, stream);
        if (at + 1 == all.size()) {
            EXPECT_EQ(entry, nullptr);
        } else {
            ASSERT_NE(entry, nullptr);
            EXPECT_EQ(entry->d_name, all[at + 1].name);
        }
    }
    directory->SeekDir(&ctxt, stream, 0);
    EXPECT_STREQ(directory->ReadDir(&ctxt, stream)->d_name, all[0].name.c_str());
    directory->CloseDir(&ctxt, stream);
}

TEST_F(Directory, PositionsThatCannotBeAreTheEnd) {
    Fill(3);
    const BkEndProcPtr directory = Find("d");
    OxelCtxt ctxt = AsSelf(directory);
    DirStream* stream = directory->OpenDir(&ctxt, "/");
    for (const uint64_t position : {uint64_t{1} << 63, UINT64_MAX}) {
        directory->SeekDir(&ctxt, stream, position);
        EXPECT_EQ(directory->ReadDir(&ctxt, stream), nullptr);
    }
    directory->SeekDir(&ctxt, stream, 0);
    EXPECT_NE(directory->ReadDir(&ctxt, stream), nullptr);
    directory->CloseDir(&ctxt, stream);
}

TEST_F(Directory, AParentOfTheRootIsNotTold) {
    const BkEndProcPtr root = Root();
    OxelCtxt ctxt = AsSelf(root);
    DirStream* stream = root->OpenDir(&ctxt, "/");
    int dots = 0;
    while (const struct dirent* entry = root->ReadDir(&ctxt, stream)) {
        if (entry->d_name[0] != '.') continue;
        ++dots;
        EXPECT_EQ(entry->d_ino, StatOf(ShareDirectory()).st_ino);
    }
    EXPECT_EQ(dots, 2);
    root->CloseDir(&ctxt, stream);
}

TEST_F(Directory, NamesOfAnyBytesUpTo255) {
    const std::string longest(255, 'l'), odd = "a\n\xff\\x";
    WriteFile(InShare("d/" + longest), "");
    WriteFile(InShare("d/" + odd), "");
    const auto names = Names(List(0));
    EXPECT_EQ(names.count(longest), 1u);
    EXPECT_EQ(names.count(odd), 1u);
    EXPECT_TRUE(Find("d/" + longest));
    EXPECT_TRUE(Find("d/" + odd));
}

TEST_F(Directory, OnlyDirectoriesCanBeListed) {
    WriteFile(InShare("f"), "");
    const BkEndProcPtr file = Find("f");
    OxelCtxt ctxt = AsSelf(file);
    EXPECT_EQ(file->OpenDir(&ctxt, "/"), nullptr);
    EXPECT_EQ(errno, ENOTDIR);
}

TEST_F(Directory, ARemovedDirectoryHasNoEntries) {
    const BkEndProcPtr directory = Find("d");
    OxelCtxt ctxt = AsSelf(directory);
    Remove(InShare("d"));
    DirStream* stream = directory->OpenDir(&ctxt, "/");
    if (stream == nullptr) return;  // as good an answer
    EXPECT_EQ(directory->ReadDir(&ctxt, stream), nullptr);
    directory->CloseDir(&ctxt, stream);
}

}  // namespace
}  // namespace oxel::testing
