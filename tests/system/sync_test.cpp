// SPDX-License-Identifier: Apache-2.0
//
// What a reply tells as stable has been brought to the disk before it. A process that is killed
// leaves what it has written to the kernel, so that only the calls themselves tell.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/private_tree.h"
#include "tests/system/integrity_client.h"

namespace oxel::test {
namespace {

using Syncs = std::vector<std::string>;  // "CALL INODE"

class SyncCalls : public testing::Test {
  protected:
    void SetUp() override {
        const char* recorder = getenv("OXEL_SYNC_RECORDER");
        ASSERT_NE(recorder, nullptr) << "run the tests with ctest";
        tree_.MakeDir("share/d");
        tree_.WriteConf("wire", "[Oxel]\nnNfs3Port = 0\n");
        tree_.WriteExports(
            "wire", "/share -dir=" + tree_.Path("share") + ",id=7 *(rw,no_root_squash,insecure)\n");
        const char* asan = getenv("ASAN_OPTIONS");
        daemon_.SetWrapper({"env", std::string("LD_PRELOAD=") + recorder,
                            "OXEL_SYNC_RECORD=" + tree_.Path("syncs"),
                            std::string("ASAN_OPTIONS=") + (asan != nullptr ? asan : "") +
                                ":verify_asan_link_order=0"});
        ASSERT_TRUE(daemon_.Start());
        session_ = std::make_unique<Session>(daemon_.Port());
        root_ = session_->Client().MountShare("/share");
        file_ = MadeResults(*session_->Call(nfs::kCreate, CreateArguments(root_, "file"))).handle;
        d_ = session_->Client().Lookup(root_, "d");
        (void)NewSyncs();
    }

    // What of the share has been brought to the disk since the last question. Whatever belongs to a
    // reply that has come is there. The daemon's own files are synced when it likes.
    Syncs NewSyncs() {
        const std::string record = ReadFile(tree_.Path("syncs"));
        std::istringstream lines(record.substr(seen_));
        seen_ = record.size();
        std::set<std::string> inodes{Inode("")};
        for (const auto& entry : std::filesystem::recursive_directory_iterator(tree_.Path("share")))
            inodes.insert(Inode(entry.path().lexically_relative(tree_.Path("share"))));
        Syncs syncs;
        for (std::string line; std::getline(lines, line);) {
            if (inodes.count(line.substr(line.find(' '))) != 0) syncs.push_back(line);
        }
        return syncs;
    }
    std::string Inode(const std::string& name) {
        struct stat st {};
        EXPECT_EQ(lstat(tree_.Path("share/" + name).c_str(), &st), 0) << name;
        return " " + std::to_string(st.st_ino);
    }
    // Whether the object has been brought to the disk by one of the calls.
    static bool Has(const Syncs& syncs, const std::vector<std::string>& calls,
                    const std::string& inode) {
        return std::any_of(calls.begin(), calls.end(), [&](const std::string& call) {
            return std::find(syncs.begin(), syncs.end(), call + inode) != syncs.end();
        });
    }
    void Write(uint32_t stable, uint64_t offset, size_t bytes) {
        const Changed changed = WriteResults(*session_->Call(
            nfs::kWrite, WriteArguments(file_, offset, stable, std::string(bytes, 'x'))));
        EXPECT_EQ(changed.status, 0u);
        EXPECT_EQ(changed.committed, stable);
    }
    void Commit() {
        EXPECT_EQ(CommitResults(*session_->Call(nfs::kCommit, CommitArguments(file_))).status, 0u);
    }
    // The status, and that these objects have been brought to the disk.
    void Expect(uint32_t procedure, const std::string& arguments,
                const std::vector<std::string>& inodes) {
        EXPECT_EQ(XdrReader(*session_->Call(procedure, arguments)).U32(), 0u) << procedure;
        const Syncs syncs = NewSyncs();
        for (const std::string& inode : inodes)
            EXPECT_TRUE(Has(syncs, {"fsync"}, inode)) << "procedure " << procedure << inode;
    }

    PrivateTree tree_;
    Daemon daemon_{tree_};
    std::unique_ptr<Session> session_;
    std::string root_, file_, d_;
    size_t seen_ = 0;
};

const std::vector<std::string> kWhole = {"fsync", "sync-write"};
const std::vector<std::string> kContents = {"fsync", "fdatasync", "sync-write", "dsync-write"};

TEST_F(SyncCalls, UnstableWritesWaitForNoDisk) {
    for (uint64_t i = 0; i < 20; ++i) Write(kUnstable, i * 5001, 5003);
    EXPECT_EQ(NewSyncs(), Syncs());
}

TEST_F(SyncCalls, StableWritesAreOnTheDiskBeforeTheyAreAnswered) {
    for (const bool after : {false, true}) {
        for (uint64_t i = 0; i < 5; ++i) {
            if (after) {  // somebody's uncommitted data is in the file too
                Write(kUnstable, 0, 3);
                EXPECT_EQ(NewSyncs(), Syncs());
            }
            Write(kFileSync, i * 5001, 5003);
            EXPECT_TRUE(Has(NewSyncs(), kWhole, Inode("file")));
            Write(kDataSync, i * 5001, 5003);
            EXPECT_TRUE(Has(NewSyncs(), kContents, Inode("file")));
        }
    }
}

TEST_F(SyncCalls, CommitBringsTheFileItselfToTheDisk) {
    for (int i = 0; i < 3; ++i) {
        Write(kUnstable, 1, 70000);
        EXPECT_EQ(NewSyncs(), Syncs());
        Commit();
        EXPECT_TRUE(Has(NewSyncs(), {"fsync"}, Inode("file")));
    }
}

TEST_F(SyncCalls, NamesAndAttributesAreOnTheDiskBeforeTheyAreAnswered) {
    const std::string share = Inode(""), d = Inode("d"), file = Inode("file");
    Expect(nfs::kCreate, CreateArguments(root_, "new"), {share});
    EXPECT_EQ(NewSyncs(), Syncs());
    Expect(nfs::kMkdir, DirectoryName(d_, "newd") + SetAttributes().Bytes(), {d});
    Expect(nfs::kSymlink,
           DirectoryName(d_, "l") + XdrWriter().Raw(SetAttributes().Bytes()).Opaque("t").Bytes(),
           {d});
    Expect(nfs::kLink, XdrWriter().Opaque(file_).Raw(DirectoryName(d_, "hard")).Bytes(), {d, file});
    Expect(nfs::kRename, DirectoryName(root_, "new") + DirectoryName(d_, "moved"), {share, d});
    Expect(nfs::kSetattr, SizeArguments(file_, 12345), {file});
    SetAttributes attributes;
    attributes.mode = 0640;
    Expect(nfs::kSetattr, XdrWriter().Opaque(file_).Raw(attributes.Bytes()).Bool(false).Bytes(),
           {file});
    Expect(nfs::kSetattr, XdrWriter().Opaque(d_).Raw(attributes.Bytes()).Bool(false).Bytes(), {d});
    Expect(nfs::kRemove, DirectoryName(d_, "moved"), {d});
    Expect(nfs::kRmdir, DirectoryName(d_, "newd"), {d});
}

}  // namespace
}  // namespace oxel::test
