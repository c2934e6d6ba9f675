// SPDX-License-Identifier: Apache-2.0
//
// The store of places on the disk: what it keeps, what it survives, and that no damage to its files
// reaches the process.
#include "modules/local/inode_map_store.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <thread>

#include "modules/local/inode_map_check.h"
#include "tests/local/fixture.h"
#include "tests/support/log_capture.h"

namespace oxel::testing {
namespace {

using local::CheckInodeStoreFile;
using local::InodeStore;
using Key = InodeStore::Key;

class InodeStoreTest : public ::testing::Test {
  protected:
    void SetUp() override {
        // In memory where there is such a file system: the tests sync often.
        std::string name = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
        name += "/oxel-store-XXXXXX";
        ASSERT_NE(mkdtemp(name.data()), nullptr);
        parent_ = name;
        directory_ = parent_ + "/inodes";
    }
    void TearDown() override {
        store_.reset();
        std::error_code ignored;
        std::filesystem::remove_all(parent_, ignored);
    }
    void Open(const InodeStore::Limits& limits = {}) {
        store_.reset();
        store_ = InodeStore::Open(directory_, limits);
    }
    std::string Get(uint64_t inode, uint64_t share = 1) {
        std::string record;
        return store_->Get({share, inode}, &record) ? record : "none";
    }
    void Fill(uint64_t count) {
        for (uint64_t i = 1; i <= count; ++i) store_->Set({1, i}, RecordOf(i));
        store_->Flush();
    }
    // How many of them are there; none may be another's.
    uint64_t CountRight(uint64_t count) {
        uint64_t right = 0;
        for (uint64_t i = 1; i <= count; ++i) {
            if (Get(i) == RecordOf(i)) ++right;
        }
        return right;
    }
    static std::string RecordOf(uint64_t i) { return "record of object " + std::to_string(i); }
    std::string DataFile() const { return directory_ + "/data.mdb"; }
    bool Exists(const std::string& path) const { return access(path.c_str(), F_OK) == 0; }
    bool SetAside() const { return Exists(directory_ + ".bad"); }

    std::string parent_, directory_;
    std::shared_ptr<InodeStore> store_;
};

// Some text of level -1 that begins so.
size_t Warnings(const test::LogCapture& log, const std::string& begin) {
    size_t count = 0;
    for (const test::LogLine& line : log.AtLevel(-1)) count += line.text.rfind(begin, 0) == 0;
    return count;
}

TEST_F(InodeStoreTest, RecordsAreSeenAtOnceAndOutliveIt) {
    test::LogCapture log;
    Open();
    store_->Set({1, 5}, "five");
    store_->Set({2, 5}, "another share's");
    EXPECT_EQ(Get(5), "five");
    EXPECT_EQ(store_->Unwritten(), 2u);
    store_->Flush();
    EXPECT_EQ(store_->Unwritten(), 0u);
    EXPECT_EQ(Get(5), "five");
    Open();
    EXPECT_EQ(Get(5), "five");
    EXPECT_EQ(Get(5, 2), "another share's");
    EXPECT_EQ(Get(6), "none");
    EXPECT_EQ(Warnings(log, ""), 0u) << log.Dump();
}

TEST_F(InodeStoreTest, WhatIsSetLastCounts) {
    Open();
    store_->Set({1, 1}, "first");
    store_->Set({1, 1}, "second");
    store_->Set({1, 2}, "going");
    store_->Flush();
    store_->Set({1, 1}, "third");
    store_->Erase({1, 2});
    EXPECT_EQ(Get(1), "third");
    EXPECT_EQ(Get(2), "none");
    store_->Flush();
    EXPECT_EQ(Get(2), "none");
    Open();
    EXPECT_EQ(Get(1), "third");
    EXPECT_EQ(Get(2), "none");
    store_->Erase({1, 3});
    store_->Flush();
    EXPECT_EQ(store_->Unwritten(), 0u);
}

TEST_F(InodeStoreTest, IsPrivateToTheUserOfTheDaemon) {
    Open();
    EXPECT_EQ(StatOf(directory_).st_mode & 07777, 0700u);
    EXPECT_EQ(StatOf(DataFile()).st_mode & 07777, 0600u);
}

TEST_F(InodeStoreTest, AKilledProcessLosesNothingThatWasFlushed) {
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        Open();
        Fill(3000);
        store_->Set({1, 4000}, "flushed too");
        store_->Flush();
        kill(getpid(), SIGKILL);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status));
    EXPECT_TRUE(Exists(directory_ + "/in-use"));
    Open();
    EXPECT_EQ(CountRight(3000), 3000u);
    EXPECT_EQ(Get(4000), "flushed too");
    EXPECT_FALSE(SetAside());
}

TEST_F(InodeStoreTest, OneThatWasInUseWhenTheMachineWentDownIsSetAside) {
    Open();
    Fill(10);
    store_.reset();
    WriteFile(directory_ + "/in-use", "00000000-0000-0000-0000-000000000000\n");
    test::LogCapture log;
    Open();
    EXPECT_EQ(Get(1), "none");
    EXPECT_TRUE(SetAside());
    EXPECT_EQ(Warnings(log, "Warning: The places of files in [" + directory_ +
                                "] cannot be used: they were in use when the machine went down."),
              1u)
        << log.Dump();
    Fill(10);
    Open();
    EXPECT_EQ(CountRight(10), 10u);
}

TEST_F(InodeStoreTest, AnOrderlyEndTakesTheMarkAway) {
    Open();
    Fill(10);
    EXPECT_TRUE(Exists(directory_ + "/in-use"));
    store_->Settle();
    EXPECT_FALSE(Exists(directory_ + "/in-use"));
    // A call that was still under way.
    store_->Set({1, 99}, "late");
    store_->Flush();
    store_->Settle();
    EXPECT_FALSE(Exists(directory_ + "/in-use"));
    Open();
    EXPECT_EQ(Get(99), "late");
    EXPECT_EQ(CountRight(10), 10u);
}

TEST_F(InodeStoreTest, GrowsAsRecordsCome) {
    Open({size_t{256} << 10, size_t{64} << 20});
    Fill(30000);
    EXPECT_EQ(store_->Unwritten(), 0u);
    EXPECT_GT(StatOf(DataFile()).st_size, 512 << 10);
    EXPECT_EQ(CountRight(30000), 30000u);
    // The size it starts with is no bound for what is there.
    Open({size_t{256} << 10, size_t{64} << 20});
    EXPECT_EQ(CountRight(30000), 30000u);
    EXPECT_EQ(CheckInodeStoreFile(DataFile()), "");
}

TEST_F(InodeStoreTest, RoomOfErasedRecordsIsUsedAgain) {
    Open();
    Fill(5000);
    const off_t bytes = StatOf(DataFile()).st_size;
    for (int round = 0; round < 10; ++round) {
        for (uint64_t i = 1; i <= 5000; ++i) store_->Erase({1, i});
        store_->Flush();
        Fill(5000);
    }
    EXPECT_LT(StatOf(DataFile()).st_size, bytes * 4);
    store_.reset();
    EXPECT_EQ(CheckInodeStoreFile(DataFile()), "");
}

TEST_F(InodeStoreTest, WhatDoesNotFitStaysInMemoryAndIsSaidOnce) {
    test::LogCapture log;
    Open({size_t{256} << 10, size_t{256} << 10});
    Fill(10);
    for (uint64_t i = 1; i <= 20000; ++i) {
        store_->Set({1, i}, RecordOf(i));
        if (i % 1000 == 0) store_->Flush();
    }
    EXPECT_EQ(CountRight(20000), 20000u);
    EXPECT_GT(store_->Unwritten(), 0u);
    EXPECT_EQ(Warnings(log, "Warning: The places of files cannot be written to [" + directory_),
              1u);
    for (uint64_t i = 1; i <= 20000; i += 2) store_->Erase({1, i});
    EXPECT_EQ(CountRight(20000), 10000u);
    Open();
    EXPECT_GE(CountRight(20000), 5u);
    EXPECT_EQ(CheckInodeStoreFile(DataFile()), "");
}

// The disk's room, seen by one process.
TEST_F(InodeStoreTest, AFullDiskIsSaidOnceAndRecordsStayInMemory) {
    Open();
    Fill(100);
    store_.reset();
    InChild([&] {
        test::LogCapture log;
        Open();
        signal(SIGXFSZ, SIG_IGN);
        const rlim_t room = static_cast<rlim_t>(StatOf(DataFile()).st_size);
        const rlimit limit = {room, RLIM_INFINITY};
        ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
        for (int i = 0; i < 5; ++i) Fill(5000);
        EXPECT_EQ(CountRight(5000), 5000u);
        EXPECT_GT(store_->Unwritten(), 0u);
        EXPECT_EQ(Warnings(log, "Warning: The places of files cannot be written to ["), 1u);
        store_.reset();
    });
    test::LogCapture log;
    Open();
    EXPECT_EQ(CountRight(100), 100u);
    EXPECT_EQ(Warnings(log, ""), 0u) << log.Dump();
}

// It is written to through a mapping, where a block that the full disk has not got ends the
// process.
TEST_F(InodeStoreTest, TheTableOfReadersNeedsNoMoreRoomLater) {
    Open();
    const struct stat st = StatOf(directory_ + "/lock.mdb");
    EXPECT_GT(st.st_size, 0);
    EXPECT_GE(st.st_blocks * 512, st.st_size);
}

TEST_F(InodeStoreTest, WithoutADirectoryRecordsAreInMemory) {
    test::LogCapture log;
    directory_ = parent_ + "/missing/inodes";
    Open();
    Fill(100);
    EXPECT_EQ(CountRight(100), 100u);
    store_->Erase({1, 1});
    EXPECT_EQ(Get(1), "none");
    EXPECT_EQ(Warnings(log, "Warning: The places of files cannot be kept in [" + directory_ +
                                "]: No such file or directory."),
              1u)
        << log.Dump();
}

TEST_F(InodeStoreTest, InADirectoryThatCannotBeWrittenRecordsAreInMemory) {
    if (geteuid() == 0) GTEST_SKIP() << "root may write everywhere";
    ASSERT_EQ(chmod(parent_.c_str(), 0500), 0);
    test::LogCapture log;
    Open();
    Fill(100);
    EXPECT_EQ(CountRight(100), 100u);
    EXPECT_EQ(Warnings(log, "Warning: The places of files cannot be kept in ["), 1u);
    ASSERT_EQ(chmod(parent_.c_str(), 0700), 0);
}

TEST_F(InodeStoreTest, OneThatCannotBeReadIsSetAside) {
    if (geteuid() == 0) GTEST_SKIP() << "root may read everything";
    for (const char* file : {"/data.mdb", "/lock.mdb"}) {
        Open();
        Fill(10);
        store_.reset();
        ASSERT_EQ(chmod((directory_ + file).c_str(), 0), 0);
        test::LogCapture log;
        Open();
        Fill(10);
        EXPECT_EQ(CountRight(10), 10u);
        EXPECT_EQ(Warnings(log, "Warning: The places of files in ["), 1u) << file << log.Dump();
        EXPECT_EQ(store_->Unwritten(), 0u);
    }
}

TEST_F(InodeStoreTest, AFileInItsPlaceIsSetAside) {
    WriteFile(directory_, "no directory");
    test::LogCapture log;
    Open();
    Fill(10);
    EXPECT_EQ(store_->Unwritten(), 0u);
    EXPECT_EQ(Warnings(log, "Warning: The places of files in ["), 1u) << log.Dump();
}

TEST_F(InodeStoreTest, WhatIsNoStoreIsSetAside) {
    for (const size_t bytes : {size_t{1}, size_t{100}, size_t{5000}, size_t{100000}}) {
        MakeDir(directory_, 0700);
        WriteFile(DataFile(), std::string(bytes, 'x'), 0600);
        EXPECT_NE(CheckInodeStoreFile(DataFile()), "");
        test::LogCapture log;
        Open();
        Fill(10);
        Open();
        EXPECT_EQ(CountRight(10), 10u);
        EXPECT_EQ(Warnings(log, "Warning: The places of files in ["), 1u) << bytes;
        store_.reset();
        std::filesystem::remove_all(directory_);
    }
}

TEST_F(InodeStoreTest, OfAnotherFormIsSetAside) {
    Open();
    Fill(10);
    store_.reset();
    std::string data;
    {
        std::ifstream in(DataFile(), std::ios::binary);
        data.assign(std::istreambuf_iterator<char>(in), {});
    }
    // Every copy of the form's record, old ones included.
    for (size_t at = 0; (at = data.find("form1", at)) != std::string::npos; ++at)
        data[at + 4] = '2';
    WriteFile(DataFile(), data, 0600);
    test::LogCapture log;
    Open();
    EXPECT_EQ(Get(1), "none");
    EXPECT_TRUE(SetAside());
}

TEST_F(InodeStoreTest, OneThatWasCutShortIsSetAside) {
    Open();
    Fill(20000);
    store_.reset();
    const off_t bytes = StatOf(DataFile()).st_size;
    for (const off_t left : {bytes - 1, bytes / 2, off_t{8192}, off_t{4096}, off_t{100}}) {
        ASSERT_EQ(truncate(DataFile().c_str(), left), 0);
        EXPECT_EQ(CheckInodeStoreFile(DataFile()), "the file is cut short") << left;
    }
    test::LogCapture log;
    Open();
    EXPECT_TRUE(SetAside());
    Fill(10);
    EXPECT_EQ(CountRight(10), 10u);
}

// A search in it would go astray: what was just set would not be found.
TEST_F(InodeStoreTest, KeysOutOfOrderAreNoticed) {
    Open();
    Fill(4000);
    store_.reset();
    std::string data;
    {
        std::ifstream in(DataFile(), std::ios::binary);
        data.assign(std::istreambuf_iterator<char>(in), {});
    }
    ASSERT_EQ(CheckInodeStoreFile(DataFile()), "");
    constexpr char kLeaf = 2;
    constexpr size_t kPageBytes = 4096, kFlagsAt = 10, kLowerAt = 12, kOffsetsAt = 16,
                     kOffsetBytes = 2;
    for (size_t page = 2 * kPageBytes; page < data.size(); page += kPageBytes)
        if (data[page + kFlagsAt] == kLeaf &&
            uint8_t(data[page + kLowerAt]) >= kOffsetsAt + 2 * kOffsetBytes)
            std::swap_ranges(&data[page + kOffsetsAt], &data[page + kOffsetsAt + kOffsetBytes],
                             &data[page + kOffsetsAt + kOffsetBytes]);
    WriteFile(DataFile(), data, 0600);
    EXPECT_EQ(CheckInodeStoreFile(DataFile()), "keys are disordered");
}

// The database would use the other state, whose pages have been given away since.
TEST_F(InodeStoreTest, AStateOnTheWrongPageIsNoticed) {
    constexpr size_t kPageBytes = 4096, kTransactionAt = 16 + 128;
    Open();
    Fill(100);
    store_.reset();
    std::string data;
    {
        std::ifstream in(DataFile(), std::ios::binary);
        data.assign(std::istreambuf_iterator<char>(in), {});
    }
    for (const size_t page : {0, 1}) {
        std::string changed = data;
        changed[page * kPageBytes + kTransactionAt] = static_cast<char>(0x70 + 1 - page);
        WriteFile(DataFile(), changed, 0600);
        EXPECT_EQ(CheckInodeStoreFile(DataFile()), "its states are mixed up") << page;
    }
}

// Whatever the bytes say, the process goes on: either the damage is noticed, or it lies where it
// does no harm.
TEST_F(InodeStoreTest, NoDamageReachesTheProcess) {
    Open();
    Fill(4000);
    for (uint64_t i = 1; i <= 4000; i += 3) store_->Erase({1, i});
    store_->Flush();
    for (uint64_t i = 1; i <= 4000; i += 7) store_->Set({1, i}, std::string(250, 'x'));
    store_->Flush();
    store_.reset();
    std::string good;
    {
        std::ifstream in(DataFile(), std::ios::binary);
        good.assign(std::istreambuf_iterator<char>(in), {});
    }
    ASSERT_EQ(CheckInodeStoreFile(DataFile()), "");
    const unsigned seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const auto below = [&](size_t bound) {
        return std::uniform_int_distribution<size_t>(0, bound - 1)(random);
    };
    test::LogCapture log;
    int noticed = 0;
    const char* rounds = getenv("OXEL_DAMAGE_ROUNDS");
    const int count = rounds != nullptr ? atoi(rounds) : 60;
    for (int round = 0; round < count; ++round) {
        std::string data = good;
        switch (below(4)) {
            case 0:  // a byte of a page's head or offsets
                data[below(data.size() / 4096) * 4096 + below(64)] ^=
                    static_cast<char>(1 + below(255));
                break;
            case 1:  // anywhere
                for (int i = 0; i < 20; ++i)
                    data[below(data.size())] = static_cast<char>(below(256));
                break;
            case 2:  // a block of zeros
                std::fill_n(data.begin() + static_cast<long>(below(data.size() / 512) * 512), 512,
                            0);
                break;
            case 3:  // one page in another's place
                data.replace(below(data.size() / 4096) * 4096, 4096,
                             good.substr(below(data.size() / 4096) * 4096, 4096));
                break;
        }
        WriteFile(DataFile(), data, 0600);
        const bool bad = !CheckInodeStoreFile(DataFile()).empty();
        noticed += bad;
        Open();
        EXPECT_EQ(SetAside(), bad) << "round " << round;
        (void)CountRight(4000);
        for (uint64_t i = 1; i <= 300; ++i) store_->Set({1, i * 17}, RecordOf(i * 17));
        for (uint64_t i = 1; i <= 300; ++i) store_->Erase({1, i * 13});
        store_->Flush();
        store_.reset();
        std::filesystem::remove_all(directory_ + ".bad");
        if (bad) Open(), store_.reset();
    }
    EXPECT_GT(noticed, count / 10);
}

TEST_F(InodeStoreTest, ThreadsReadWriteAndGrowTogether) {
    Open({size_t{128} << 10, size_t{64} << 20});
    constexpr uint64_t kThreads = 6, kEach = 1500;
    std::atomic<uint64_t> wrong{0};
    std::vector<std::thread> threads;
    for (uint64_t thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([&, thread] {
            std::mt19937_64 random(thread);
            for (uint64_t i = 0; i < kEach; ++i) {
                const uint64_t mine = 1 + thread * kEach + i;
                store_->Set({1, mine}, RecordOf(mine));
                if (i % 10 == 0) store_->Flush();
                // What was set is there from then on, whoever writes it.
                std::string record;
                const uint64_t other = 1 + thread * kEach + random() % (i + 1);
                if (!store_->Get({1, other}, &record) || record != RecordOf(other)) ++wrong;
                const uint64_t any = 1 + random() % (kThreads * kEach);
                if (store_->Get({1, any}, &record) && record != RecordOf(any)) ++wrong;
            }
            store_->Flush();
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(wrong, 0u);
    EXPECT_EQ(store_->Unwritten(), 0u);
    Open();
    EXPECT_EQ(CountRight(kThreads * kEach), kThreads * kEach);
    store_.reset();
    EXPECT_EQ(CheckInodeStoreFile(DataFile()), "");
}

}  // namespace
}  // namespace oxel::testing
