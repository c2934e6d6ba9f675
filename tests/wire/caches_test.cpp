// SPDX-License-Identifier: Apache-2.0
//
// What the daemon keeps open between calls: bounded, given up when descriptors run short, and never
// in the way of what others do to the files meanwhile.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "tests/wire/wire_fixture.h"

namespace oxel::test {
namespace {

constexpr uint32_t kUnstable = 0, kFileSync = 2;
constexpr uint32_t kNoent = 2, kStale = 70;

class Caches : public WireTest {
  protected:
    void SetUp() override {}
    void TearDown() override { client_.reset(); }

    void Start(const std::string& conf) {
        ASSERT_NO_FATAL_FAILURE(StartDaemon(conf));
        client_ = std::make_unique<NfsClient>(Port());
        root_ = client_->MountShare("/rw");
    }

    struct Open {
        size_t all = 0;
        size_t contents = 0;  // of files and directories in the share, able to read or write
        size_t places = 0;    // the others there: O_PATH
    };
    Open CountOpen() {
        Open open;
        const std::string process = "/proc/" + std::to_string(daemon_.Pid());
        std::error_code error;
        for (const auto& entry : std::filesystem::directory_iterator(process + "/fd", error)) {
            ++open.all;
            char target[4096] = {};
            if (readlink(entry.path().c_str(), target, sizeof target - 1) < 0) continue;
            if (std::string(target).rfind(tree_.Path("rw/"), 0) != 0) continue;
            std::ifstream info(process + "/fdinfo/" + entry.path().filename().string());
            std::string word;
            unsigned long flags = 0;
            while (info >> word)
                if (word == "flags:") info >> std::oct >> flags;
            ++((flags & O_PATH) != 0 ? open.places : open.contents);
        }
        EXPECT_FALSE(error);
        return open;
    }
    // No call is under way any more, so that what is open is what is kept.
    void ExpectOpenAtMost(size_t contents, size_t places) {
        Open open;
        EXPECT_TRUE(WaitUntil([&] {
            open = CountOpen();
            return open.contents <= contents && open.places <= places;
        })) << open.contents
            << " files' contents and " << open.places << " places are open";
    }

    std::string NewFile(const std::string& name, const std::string& text) {
        SetAttributes attributes;
        attributes.mode = 0644;
        XdrReader reader(client_->Results(client_->Nfs(
            nfs::kCreate,
            DirectoryName(root_, name) + XdrWriter().U32(0).Raw(attributes.Bytes()).Bytes())));
        EXPECT_EQ(reader.U32(), 0u);
        EXPECT_TRUE(reader.Bool());
        const std::string handle = reader.Opaque();
        EXPECT_EQ(Write(handle, text), 0u);
        return handle;
    }
    uint32_t Write(const std::string& handle, const std::string& text,
                   uint32_t stable = kFileSync) {
        return client_->Status(client_->Nfs(nfs::kWrite, WriteArguments(handle, 0, stable, text)));
    }
    uint32_t ReadStatus(const std::string& handle) {
        uint32_t status = 0;
        client_->Read(handle, 0, 100, nullptr, &status);
        return status;
    }
    uint32_t LookupStatus(const std::string& name) {
        uint32_t status = 0;
        client_->Lookup(root_, name, &status);
        return status;
    }
    uint32_t Remove(const std::string& name) {
        return client_->Status(client_->Nfs(nfs::kRemove, DirectoryName(root_, name)));
    }
    uint32_t Rename(const std::string& from, const std::string& to) {
        return client_->Status(
            client_->Nfs(nfs::kRename, DirectoryName(root_, from) + DirectoryName(root_, to)));
    }

    std::unique_ptr<NfsClient> client_;
    std::string root_;
    // The caches are the same in hardened mode: fewer files are enough there.
    const int files_ = SanitizerBuild() || IsHardened(GetParam()) ? 400 : 3000;
};

std::string Name(int number) {
    return "file" + std::to_string(number);
}

class CacheSizes : public Caches {
  protected:
    void ReadAndWriteThousands(size_t cached) {
        for (int i = 0; i < files_; ++i) tree_.Write("rw/" + Name(i), Name(i));
        Start("oxelFdCacheSize = " + std::to_string(cached) + "\n");
        const Open before = CountOpen();
        std::vector<std::string> handles;
        for (int i = 0; i < files_; ++i) handles.push_back(client_->Lookup(root_, Name(i)));
        ExpectOpenAtMost(0, handles.size());
        for (int round = 0; round < 2; ++round) {
            for (int i = 0; i < files_; ++i) EXPECT_EQ(client_->Read(handles[i], 0, 9), Name(i));
            ExpectOpenAtMost(cached, handles.size());
        }
        // Of the same files, for writing: these count too.
        for (int i = 0; i < files_; i += files_ / 20) EXPECT_EQ(Write(handles[i], "FILE"), 0u);
        for (int i = 0; i < files_; i += files_ / 20)
            EXPECT_EQ(client_->Read(handles[i], 0, 9), "FILE" + Name(i).substr(4));
        ExpectOpenAtMost(cached, handles.size());
        for (int i = 0; i < files_; ++i) EXPECT_EQ(Remove(Name(i)), 0u);
        ExpectOpenAtMost(0, 0);
        EXPECT_LE(CountOpen().all, before.all);
    }
};

TEST_P(CacheSizes, WithoutACacheNothingIsKept) {
    ReadAndWriteThousands(0);
}
TEST_P(CacheSizes, ASmallOneIsBounded) {
    ReadAndWriteThousands(3);
}
TEST_P(CacheSizes, ALargeOneKeepsWhatItMay) {
    ReadAndWriteThousands(static_cast<size_t>(files_) / 3 * 2);
}

OXEL_ALL_MODES(CacheSizes);

TEST_P(Caches, UncommittedFilesAreKeptOpenUntilTheyAreCommitted) {
    Start("oxelFdCacheSize = 4\n");
    const Open before = CountOpen();
    constexpr size_t kFiles = 100;
    std::vector<std::string> handles;
    for (size_t i = 0; i < kFiles; ++i) {
        tree_.Write("rw/" + Name(static_cast<int>(i)), "");
        handles.push_back(client_->Lookup(root_, Name(static_cast<int>(i))));
        EXPECT_EQ(Write(handles.back(), "data", kUnstable), 0u);
    }
    // The kernel tells of a lost write only while the file is open.
    EXPECT_GT(CountOpen().contents, 4u);
    ExpectOpenAtMost(kFiles + 4, kFiles);
    for (const std::string& handle : handles)
        EXPECT_EQ(client_->Status(
                      client_->Nfs(nfs::kCommit, XdrWriter().Opaque(handle).U64(0).U32(0).Bytes())),
                  0u);
    ExpectOpenAtMost(4, kFiles);
    for (size_t i = 0; i < kFiles; ++i) EXPECT_EQ(Remove(Name(static_cast<int>(i))), 0u);
    ExpectOpenAtMost(0, 0);
    EXPECT_LE(CountOpen().all, before.all);
}

TEST_P(Caches, WithFewDescriptorsEverythingIsServedWhateverElseConnects) {
    constexpr int kFiles = 150;
    daemon_.SetWrapper({"prlimit", "--nofile=128:128"});
    Start("");
    const size_t before = CountOpen().all;
    std::vector<std::string> handles;
    for (int i = 0; i < kFiles; ++i) {
        tree_.Write("rw/" + Name(i), Name(i));
        handles.push_back(client_->Lookup(root_, Name(i)));
        EXPECT_EQ(client_->Read(handles.back(), 0, 100), Name(i));
    }
    std::vector<std::unique_ptr<RpcConnection>> idle;
    for (int i = 0; i < 100; ++i) idle.push_back(std::make_unique<RpcConnection>(Port()));
    EXPECT_TRUE(daemon_.WaitForLog("Error: No descriptor is left for a new connection."));
    for (int i = 0; i < kFiles; ++i) {
        // What the files' work gives up, the next connections would take.
        idle.push_back(std::make_unique<RpcConnection>(Port()));
        EXPECT_EQ(client_->Read(handles[i], 0, 100), Name(i));
        EXPECT_EQ(client_->Lookup(root_, Name(i)), handles[i]);
        EXPECT_EQ(Write(handles[i], Name(i), kUnstable), 0u);
        if (i % 10 != 0) continue;
        (void)NewFile("new" + Name(i), "");
        EXPECT_EQ(client_->ReadDirectory(root_, 0, 1000).status, 0u);
        EXPECT_EQ(client_->ReadDirectoryPlus(root_, 0, 1000, 4000).status, 0u);
        EXPECT_EQ(Rename(Name(i), "moved" + Name(i)), 0u);
        EXPECT_EQ(Rename("moved" + Name(i), Name(i)), 0u);
    }
    idle.clear();
    for (int i = 0; i < kFiles; ++i) {
        EXPECT_EQ(client_->Read(handles[i], 0, 100), Name(i));
        EXPECT_EQ(Remove(Name(i)), 0u);
        EXPECT_EQ(Remove("new" + Name(i)), 0u);
    }
    EXPECT_TRUE(WaitUntil([&] { return CountOpen().all <= before; })) << CountOpen().all;
    ExpectServing();
}

// Four at once, so that their handlers take each other's descriptors.
TEST_P(Caches, WithFewDescriptorsManyClientsAreServed) {
    constexpr int kFiles = 100, kClients = 4;
    daemon_.SetWrapper({"prlimit", "--nofile=96:96"});
    Start("");
    for (int i = 0; i < kFiles; ++i) tree_.Write("rw/" + Name(i), Name(i));
    std::vector<std::thread> threads;
    for (int c = 0; c < kClients; ++c) {
        threads.emplace_back([&, c] {
            NfsClient client(Port());
            for (int n = 0; n < 3 * kFiles; ++n) {
                const std::string name = Name((n * 7 + c * 31) % kFiles);
                const std::string handle = client.Lookup(root_, name);
                EXPECT_EQ(client.Read(handle, 0, 100), name);
                EXPECT_EQ(client.Status(
                              client.Nfs(nfs::kWrite, WriteArguments(handle, 0, kUnstable, name))),
                          0u);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
}

// Who changes the share while the daemon has its files open.
enum class Other { kConnection, kThisMachine };

class Behind : public Caches {
  protected:
    void SetUp() override { Start(""); }
    std::string Text(const std::string& handle) { return client_->Read(handle, 0, 100); }
    // What other does is done when this returns.
    void OtherRemoves(Other other, const std::string& name) {
        if (other == Other::kThisMachine) {
            ASSERT_EQ(unlink(tree_.Path("rw/" + name).c_str()), 0);
        } else {
            NfsClient client(Port());
            ASSERT_EQ(client.Status(client.Nfs(nfs::kRemove, DirectoryName(root_, name))), 0u);
        }
    }
    void OtherRenames(Other other, const std::string& from, const std::string& to) {
        if (other == Other::kThisMachine) {
            ASSERT_EQ(rename(tree_.Path("rw/" + from).c_str(), tree_.Path("rw/" + to).c_str()), 0);
        } else {
            NfsClient client(Port());
            ASSERT_EQ(client.Status(client.Nfs(
                          nfs::kRename, DirectoryName(root_, from) + DirectoryName(root_, to))),
                      0u);
        }
    }
    // Its descriptors for reading and writing are in the cache, its object too.
    std::string HotFile(const std::string& name) {
        const std::string handle = NewFile(name, name);
        EXPECT_EQ(Text(handle), name);
        return handle;
    }
    void ExpectStale(const std::string& handle) {
        uint32_t status = 0;
        client_->GetAttributes(handle, &status);
        EXPECT_EQ(status, kStale);
        EXPECT_EQ(ReadStatus(handle), kStale);
        EXPECT_EQ(Write(handle, "x", kUnstable), kStale);
    }
};

TEST_P(Behind, ARemovedFilesHandleIsStaleAtOnce) {
    for (const Other other : {Other::kConnection, Other::kThisMachine}) {
        for (int i = 0; i < 20; ++i) {
            const std::string handle = HotFile("file");
            OtherRemoves(other, "file");
            ExpectStale(handle);
            EXPECT_EQ(LookupStatus("file"), kNoent);
        }
    }
}

TEST_P(Behind, ANewFileOfTheSameNameIsAnotherFile) {
    for (const Other other : {Other::kConnection, Other::kThisMachine}) {
        for (int i = 0; i < 20; ++i) {
            const std::string before = HotFile("file");
            OtherRemoves(other, "file");
            tree_.Write("rw/file", "new");  // which often gets the same inode number
            const std::string after = client_->Lookup(root_, "file");
            EXPECT_NE(after, before);
            EXPECT_EQ(Text(after), "new");
            ExpectStale(before);
            EXPECT_EQ(Write(after, "NEW"), 0u);
            EXPECT_EQ(ReadFile(tree_.Path("rw/file")), "NEW");
            OtherRemoves(other, "file");
        }
    }
}

TEST_P(Behind, ANameThatIsReplacedLeadsToWhatReplacedIt) {
    for (const Other other : {Other::kConnection, Other::kThisMachine}) {
        for (int i = 0; i < 20; ++i) {
            const std::string replaced = HotFile("file"), replacing = HotFile("next");
            OtherRenames(other, "next", "file");
            EXPECT_EQ(client_->Lookup(root_, "file"), replacing);
            EXPECT_EQ(LookupStatus("next"), kNoent);
            EXPECT_EQ(Text(replacing), "next");
            EXPECT_EQ(Write(replacing, "NEXT"), 0u);
            EXPECT_EQ(ReadFile(tree_.Path("rw/file")), "NEXT");
            ExpectStale(replaced);
        }
    }
}

TEST_P(Behind, AFileThatAnotherNameKeepsIsNotStale) {
    for (const Other other : {Other::kConnection, Other::kThisMachine}) {
        const std::string handle = HotFile("file");
        ASSERT_EQ(link(tree_.Path("rw/file").c_str(), tree_.Path("rw/link").c_str()), 0);
        OtherRemoves(other, "file");
        EXPECT_EQ(LookupStatus("file"), kNoent);
        EXPECT_EQ(client_->Lookup(root_, "link"), handle);
        EXPECT_EQ(Text(handle), "file");
        OtherRemoves(other, "link");
        ExpectStale(handle);
    }
}

TEST_P(Behind, ContentsAreSeenAtOnce) {
    const std::string handle = HotFile("file"), path = tree_.Path("rw/file");
    for (const std::string text : {"longer than before", "short", "", "again"}) {
        std::ofstream(path, std::ios::trunc) << text;
        EXPECT_EQ(Text(handle), text);
        EXPECT_EQ(client_->GetAttributes(handle).size, text.size());
    }
    ASSERT_EQ(truncate(path.c_str(), 2), 0);
    EXPECT_EQ(Text(handle), "ag");
}

TEST_P(Behind, RightsThatAreTakenAwayAreGoneAtOnce) {
    if (geteuid() != 0) GTEST_SKIP() << "other users need root";
    const std::string handle = HotFile("file");
    NfsClient guest(Port(), 12345, 12345);
    uint32_t status = 0;
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(chmod(tree_.Path("rw/file").c_str(), 0644), 0);
        EXPECT_EQ(guest.Read(handle, 0, 100), "file");
        ASSERT_EQ(chmod(tree_.Path("rw/file").c_str(), 0600), 0);
        guest.Read(handle, 0, 100, nullptr, &status);
        EXPECT_EQ(status, 13u);
        ASSERT_EQ(chown(tree_.Path("rw/file").c_str(), 12345, 12345), 0);
        EXPECT_EQ(guest.Read(handle, 0, 100), "file");
        ASSERT_EQ(chown(tree_.Path("rw/file").c_str(), 0, 0), 0);
        guest.Read(handle, 0, 100, nullptr, &status);
        EXPECT_EQ(status, 13u);
    }
}

OXEL_ALL_MODES(Behind);

// A file that somebody removes on this machine gives its blocks back although no call comes.
TEST_P(Caches, WhatNobodyUsesIsClosed) {
    if (GetParam() != Mode::kManyThreads) GTEST_SKIP() << "a timer of its own does it in any mode";
    Start("");
    const size_t before = CountOpen().all;
    for (int i = 0; i < 50; ++i) (void)NewFile(Name(i), "x");
    ExpectOpenAtMost(0, 0);
    EXPECT_LE(CountOpen().all, before);
}

OXEL_ALL_MODES(Caches);

}  // namespace
}  // namespace oxel::test
