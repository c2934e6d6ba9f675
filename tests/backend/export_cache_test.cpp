// SPDX-License-Identifier: Apache-2.0
//
// The registry of shares: look-ups, replacement, and what survives a restart.
#include "backend/ExportCache.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <boost/make_shared.hpp>
#include <boost/weak_ptr.hpp>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>

#include "base/store.h"
#include "tests/support/contract_mocks.h"
#include "tests/support/log_capture.h"

namespace {

using oxel::test::LogCapture;
using oxel::test::NiceExport;
using testing::Return;

ExportPtr Share(const std::string& path, FSModuleType type = 1) {
    auto share = boost::make_shared<NiceExport>(path);
    ON_CALL(*share, GetFSMType()).WillByDefault(Return(type));
    return share;
}

// Works in a private tree; the cache is empty before and after.
class ExportCacheTest : public testing::Test {
  protected:
    ExportCacheTest() {
        char name[] = "/tmp/oxel_cache_XXXXXX";
        root_ = mkdtemp(name);
        setenv("OXEL_ROOT", root_.c_str(), 1);
        XOPI_Focus::setFocus("Cache");
        oxel::InstancePaths paths("Cache");
        file_ = paths.registry;
        stateDir_ = paths.stateDir;
        std::string command = "mkdir -p " + stateDir_;
        EXPECT_EQ(system(command.c_str()), 0);
        gAllExports.Replace({});
    }
    ~ExportCacheTest() override {
        gAllExports.Replace({});
        unsetenv("OXEL_ROOT");
        std::string command = "rm -rf " + root_;
        EXPECT_EQ(system(command.c_str()), 0);
    }
    // As a new process would: nothing is known but the shares.
    void Restart(std::vector<std::pair<unsigned int, ExportPtr>> shares) {
        gAllExports.Replace({});
        gAllExports.Replace(std::move(shares));
        gAllExports.LoadFromDisk();
    }
    nlohmann::json Saved() { return nlohmann::json::parse(Content(file_), nullptr, false); }
    static std::string Content(const std::string& file) {
        std::ifstream in(file);
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }
    static bool Exists(const std::string& file) { return access(file.c_str(), F_OK) == 0; }

    std::string root_, file_, stateDir_;
};

TEST_F(ExportCacheTest, SharesAreFoundByPathAndById) {
    ExportPtr a = Share("/a"), b = Share("/b"), found;
    gAllExports.Replace({{7, a}, {8, b}});
    ASSERT_TRUE(gAllExports.FindExport("/a", found));
    EXPECT_EQ(found, a);
    ASSERT_TRUE(gAllExports.FindExportById(8, found));
    EXPECT_EQ(found, b);
}

TEST_F(ExportCacheTest, AFailedLookupLeavesThePointerUntouched) {
    ExportPtr kept = Share("/kept"), found = kept;
    EXPECT_FALSE(gAllExports.FindExport("/none", found));
    EXPECT_FALSE(gAllExports.FindExportById(1, found));
    EXPECT_EQ(found, kept);
}

TEST_F(ExportCacheTest, AllKeepsTheOrderOfTheFile) {
    gAllExports.Replace({{9, Share("/z")}, {1, Share("/a")}, {5, Share("/m")}});
    auto all = gAllExports.All();
    ASSERT_EQ(all.size(), 3u);
    EXPECT_EQ(all[0].first, 9u);
    EXPECT_EQ(all[1].first, 1u);
    EXPECT_EQ(all[2].second->GetPath(), "/m");
}

TEST_F(ExportCacheTest, ExportsOfOneModuleTypeAreLeftOut) {
    gAllExports.Replace({{1, Share("/a", 1)}, {2, Share("/b", 2)}, {3, Share("/c", 3)}});
    ExportCache::ExportMap map(11);
    gAllExports.GetExportsNotForFSM(2, map);
    EXPECT_EQ(map.size(), 2u);
    EXPECT_EQ(map.count(1), 1u);
    EXPECT_EQ(map.count(2), 0u);
    EXPECT_EQ(map[3]->GetPath(), "/c");
}

TEST_F(ExportCacheTest, ReplaceDropsWhatIsNotInTheNewSet) {
    ExportPtr a = Share("/a"), found;
    boost::weak_ptr<Export> gone = a;
    gAllExports.Replace({{1, a}, {2, Share("/b")}});
    a.reset();
    gAllExports.Replace({{2, Share("/b")}});
    EXPECT_TRUE(gone.expired());
    EXPECT_FALSE(gAllExports.FindExportById(1, found));
    EXPECT_FALSE(gAllExports.FindExport("/a", found));
    EXPECT_TRUE(gAllExports.FindExport("/b", found));
}

TEST_F(ExportCacheTest, OfTwoSharesWithOneIdOrPathTheFirstIsTaken) {
    ExportPtr found;
    gAllExports.Replace({{1, Share("/a")}, {1, Share("/b")}, {2, Share("/a")}, {3, ExportPtr()}});
    EXPECT_EQ(gAllExports.All().size(), 1u);
    ASSERT_TRUE(gAllExports.FindExportById(1, found));
    EXPECT_EQ(found->GetPath(), "/a");
}

TEST_F(ExportCacheTest, SharesThatStayKeepAccessTimesAndMounts) {
    ExportPtr a = Share("/a"), a2 = Share("/a"), other = Share("/other");
    gAllExports.Replace({{1, a}, {2, Share("/b")}});
    a->SetLastAccessTime(1000);
    gAllExports.RecordMount(1, "10.0.0.1");
    gAllExports.RecordMount(2, "10.0.0.2");
    gAllExports.Replace({{1, a2}, {2, other}});
    EXPECT_EQ(a2->GetLastAccessTime(), 1000);
    EXPECT_EQ(gAllExports.Mounts(1).size(), 1u);
    // The id went to another path: nothing of the old share is its own.
    EXPECT_EQ(other->GetLastAccessTime(), 0);
    EXPECT_TRUE(gAllExports.Mounts(2).empty());
}

TEST_F(ExportCacheTest, MountsAreKeptOncePerClient) {
    gAllExports.Replace({{1, Share("/a")}});
    gAllExports.RecordMount(1, "10.0.0.1");
    gAllExports.RecordMount(1, "10.0.0.1");
    gAllExports.RecordMount(1, "10.0.0.2");
    gAllExports.RecordMount(99, "10.0.0.3");
    auto mounts = gAllExports.Mounts(1);
    ASSERT_EQ(mounts.size(), 2u);
    EXPECT_EQ(mounts[0].first, "10.0.0.1");
    EXPECT_GT(mounts[0].second, 1700000000);
    EXPECT_TRUE(gAllExports.Mounts(99).empty());
}

TEST_F(ExportCacheTest, MountsPerShareAreBounded) {
    gAllExports.Replace({{1, Share("/a")}});
    for (int i = 0; i < 5000; ++i) gAllExports.RecordMount(1, "2001:db8::" + std::to_string(i));
    EXPECT_EQ(gAllExports.Mounts(1).size(), 4096u);
}

TEST_F(ExportCacheTest, AccessTimesAndMountsSurviveARestart) {
    ExportPtr a = Share("/a");
    gAllExports.Replace({{1, a}, {2, Share("/b")}});
    a->SetLastAccessTime(1795246801);
    gAllExports.RecordMount(1, "10.0.0.1");
    long when = gAllExports.Mounts(1)[0].second;
    ASSERT_TRUE(gAllExports.SaveToDisk());

    ExportPtr again = Share("/a");
    Restart({{1, again}, {2, Share("/b")}});
    EXPECT_EQ(again->GetLastAccessTime(), 1795246801);
    ASSERT_EQ(gAllExports.Mounts(1).size(), 1u);
    EXPECT_EQ(gAllExports.Mounts(1)[0], (std::pair<std::string, long>("10.0.0.1", when)));
    EXPECT_TRUE(gAllExports.Mounts(2).empty());
}

TEST_F(ExportCacheTest, PathsThatAreNoUtf8SurviveARestart) {
    std::string path = "/a\xff\\\n";
    gAllExports.Replace({{1, Share(path)}});
    gAllExports.RecordMount(1, "10.0.0.1");
    ASSERT_TRUE(gAllExports.SaveToDisk());
    Restart({{1, Share(path)}});
    EXPECT_EQ(gAllExports.Mounts(1).size(), 1u);
}

TEST_F(ExportCacheTest, AnIdThatAnotherPathHasNowGetsNothing) {
    gAllExports.Replace({{1, Share("/a")}});
    gAllExports.RecordMount(1, "10.0.0.1");
    ASSERT_TRUE(gAllExports.SaveToDisk());
    Restart({{1, Share("/else")}});
    EXPECT_TRUE(gAllExports.Mounts(1).empty());
}

TEST_F(ExportCacheTest, LoadingNeverTurnsTimesBack) {
    ExportPtr a = Share("/a");
    gAllExports.Replace({{1, a}});
    a->SetLastAccessTime(1000);
    ASSERT_TRUE(gAllExports.SaveToDisk());
    a->SetLastAccessTime(2000);
    gAllExports.LoadFromDisk();
    EXPECT_EQ(a->GetLastAccessTime(), 2000);
}

TEST_F(ExportCacheTest, AMissingRegistryIsSilentlyEmpty) {
    LogCapture log;
    Restart({{1, Share("/a")}});
    EXPECT_TRUE(log.Lines().empty()) << log.Dump();
}

TEST_F(ExportCacheTest, ADamagedRegistryIsSaidAndKeptAside) {
    for (const char* damage : {"", "{", "garbage\n", "{\"version\":1}", "[1,2"}) {
        std::ofstream(file_) << damage;
        LogCapture log;
        Restart({{1, Share("/a")}});
        ASSERT_EQ(log.AtLevel(-1).size(), 1u) << log.Dump();
        EXPECT_EQ(log.AtLevel(-1)[0].text,
                  "The registry of mounts [" + file_ +
                      "] is damaged. Starting with an empty one; the old file is kept as [" +
                      file_ + ".corrupt].");
        EXPECT_FALSE(Exists(file_));
        EXPECT_EQ(Content(file_ + ".corrupt"), damage);
        EXPECT_TRUE(gAllExports.Mounts(1).empty());
        gAllExports.RecordMount(1, "10.0.0.1");
        EXPECT_TRUE(gAllExports.SaveToDisk());
        EXPECT_EQ(Saved()["shares"][0]["mounts"].size(), 1u);
    }
}

TEST_F(ExportCacheTest, WhatAKilledSaveLeftBehindIsTakenAway) {
    gAllExports.Replace({{1, Share("/a")}});
    gAllExports.RecordMount(1, "10.0.0.1");
    ASSERT_TRUE(gAllExports.SaveToDisk());
    std::ofstream(file_ + ".tmp") << "{\"version\":";
    LogCapture log;
    Restart({{1, Share("/a")}});
    EXPECT_FALSE(Exists(file_ + ".tmp"));
    EXPECT_EQ(gAllExports.Mounts(1).size(), 1u);
    EXPECT_TRUE(log.AtLevel(-1).empty()) << log.Dump();
}

TEST_F(ExportCacheTest, ARegistryThatCannotBeReadIsSaid) {
    ASSERT_EQ(mkdir(file_.c_str(), 0700), 0);
    LogCapture log;
    Restart({{1, Share("/a")}});
    ASSERT_EQ(log.AtLevel(-1).size(), 1u) << log.Dump();
    EXPECT_EQ(log.AtLevel(-1)[0].text,
              "The registry of mounts [" + file_ +
                  "] cannot be read: Is a directory. Starting with an empty "
                  "one.");
}

TEST_F(ExportCacheTest, SavingWithoutChangesLeavesTheFileAlone) {
    ExportPtr a = Share("/a");
    gAllExports.Replace({{1, a}});
    gAllExports.RecordMount(1, "10.0.0.1");
    ASSERT_TRUE(gAllExports.SaveToDisk());
    ASSERT_EQ(unlink(file_.c_str()), 0);
    ASSERT_TRUE(gAllExports.SaveToDisk());
    EXPECT_FALSE(Exists(file_));
    a->SetLastAccessTime(5);
    ASSERT_TRUE(gAllExports.SaveToDisk());
    EXPECT_TRUE(Exists(file_));
    ASSERT_EQ(unlink(file_.c_str()), 0);
    gAllExports.RecordMount(1, "10.0.0.9");
    ASSERT_TRUE(gAllExports.SaveToDisk());
    EXPECT_TRUE(Exists(file_));
}

TEST_F(ExportCacheTest, AJustLoadedRegistryIsNotWrittenAgain) {
    gAllExports.Replace({{1, Share("/a")}});
    gAllExports.RecordMount(1, "10.0.0.1");
    ASSERT_TRUE(gAllExports.SaveToDisk());
    Restart({{1, Share("/a")}});
    ASSERT_EQ(unlink(file_.c_str()), 0);
    ASSERT_TRUE(gAllExports.SaveToDisk());
    EXPECT_FALSE(Exists(file_));
}

TEST_F(ExportCacheTest, AFailureToSaveIsSaidOnceAndTriedAgain) {
    gAllExports.Replace({{1, Share("/a")}});
    ASSERT_EQ(rmdir(stateDir_.c_str()), 0);
    LogCapture log;
    EXPECT_FALSE(gAllExports.SaveToDisk());
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(gAllExports.SaveToDisk());
    EXPECT_EQ(log.AtLevel(-1).size(), 1u) << log.Dump();
    EXPECT_TRUE(log.Has(-1, "The registry of mounts [" + file_ +
                                "] cannot be written: No such file or directory."));
    ASSERT_EQ(mkdir(stateDir_.c_str(), 0700), 0);
    EXPECT_TRUE(gAllExports.SaveToDisk());
    EXPECT_TRUE(Exists(file_));
}

TEST_F(ExportCacheTest, LookupsMountsSavesAndReplacementRunAtOnce) {
    gAllExports.Replace({{1, Share("/a")}, {2, Share("/b")}});
    std::atomic<bool> stop{false};
    std::atomic<int> misses{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; ++i) {
        threads.emplace_back([&] {
            ExportPtr found;
            while (!stop) {
                if (!gAllExports.FindExportById(1, found) || found->GetPath() != "/a") ++misses;
                if (!gAllExports.FindExport("/b", found)) ++misses;
                found->SetLastAccessTime(found->GetLastAccessTime() + 1);
                ExportCache::ExportMap map;
                gAllExports.GetExportsNotForFSM(2, map);
                if (map.size() != 2) ++misses;
            }
        });
    }
    threads.emplace_back([&] {
        for (unsigned n = 0; !stop; ++n) {
            gAllExports.RecordMount(1 + n % 2, "10.0.0." + std::to_string(n % 20));
            gAllExports.Mounts(1);
        }
    });
    for (int i = 0; i < 2; ++i) {
        threads.emplace_back([&] {
            while (!stop)
                if (!gAllExports.SaveToDisk()) ++misses;
        });
    }
    for (int i = 0; i < 50; ++i) {
        gAllExports.Replace({{1, Share("/a")}, {2, Share("/b")}});
        std::this_thread::yield();
    }
    stop = true;
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(misses, 0);
    ASSERT_TRUE(gAllExports.SaveToDisk());
    EXPECT_EQ(Saved()["shares"].size(), 2u);
}

TEST(ReverseNormalizeExportPath, FoldsSlashesAndDropsATrailingOneNothingElse) {
    struct {
        const char* requested;
        const char* stored;
    } rows[] = {{"/a", "/a"},    {"/a/", "/a"},          {"//a///b//", "/a/b"},
                {"/", "/"},      {"///", "/"},           {"", ""},
                {"a/", "a"},     {"/a/../b", "/a/../b"}, {"/a/./b", "/a/./b"},
                {"/a b", "/a b"}};
    for (const auto& row : rows) {
        std::string out = "before";
        ReverseNormalizeExportPath(row.requested, out);
        EXPECT_EQ(out, row.stored) << row.requested;
    }
    std::string same = "//x/";
    ReverseNormalizeExportPath(same, same);
    EXPECT_EQ(same, "/x");
}

}  // namespace
