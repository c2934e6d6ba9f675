// SPDX-License-Identifier: Apache-2.0
//
// No handle and no name reaches beyond the share that it belongs to: forged, cut, stolen and
// outlived handles, handles of other shares, and names that would walk out.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <functional>
#include <set>

#include "tests/support/outside_watch.h"
#include "tests/wire/wire_fixture.h"

namespace oxel::test {
namespace {

constexpr uint32_t kAcces = 13, kXdev = 18, kStale = 70;
constexpr uint32_t kGarbageArguments = 4;
constexpr uint32_t kGuarded = 1;
// Type and share id, version, kind and type of the kernel's handle stand before it, the signature
// behind it.
constexpr size_t kBeforeKernelHandle = 11, kSignatureBytes = 8;

class Outside : public WireTest {
  protected:
    using Request = std::pair<uint32_t, std::string>;

    void SetUp() override {
        WireTest::SetUp();
        if (HasFatalFailure()) return;
        outside_ = std::make_unique<OutsideWatch>(tree_.MakeDir("outside"));
        tree_.Write("rw/own", "inside");
        tree_.Write("rw/d/f", "inside");
        client_ = std::make_unique<NfsClient>(Port());
        root_ = client_->MountShare("/rw");
        own_ = client_->Lookup(root_, "own");
        d_ = client_->Lookup(root_, "d");
    }
    void TearDown() override { client_.reset(); }

    // The status; 0 for a success only. What is sent back is looked through.
    uint32_t Ask(const Request& request) {
        const std::string message =
            client_->Connection().CallRaw(client_->Nfs(request.first, request.second));
        outside_->ExpectHidden(message);
        const RpcReply reply = ParseReply(message);
        if (!reply.Success()) {
            EXPECT_EQ(reply.acceptStat, kGarbageArguments);
            return kStale;
        }
        return XdrReader(reply.results).U32();
    }
    static std::string Handle(const std::string& handle) {
        return XdrWriter().Opaque(handle).Bytes();
    }

    // Every procedure that takes a handle, with `handle` in each place.
    std::vector<Request> EveryCall(const std::string& handle) {
        SetAttributes mode;
        mode.mode = 0;
        const std::string none = SetAttributes().Bytes();
        const auto name = [&](const char* text) { return DirectoryName(handle, text); };
        return {
            {nfs::kGetattr, Handle(handle)},
            {nfs::kSetattr, Handle(handle) + XdrWriter().Raw(mode.Bytes()).Bool(false).Bytes()},
            {nfs::kLookup, name("f")},
            {nfs::kLookup, name("..")},
            {nfs::kAccess, Handle(handle) + XdrWriter().U32(0x3f).Bytes()},
            {nfs::kReadlink, Handle(handle)},
            {nfs::kRead, ReadArguments(handle, 0, 1000)},
            {nfs::kWrite, WriteArguments(handle, 0, 0, "changed")},
            {nfs::kCreate, name("new") + XdrWriter().U32(kGuarded).Raw(none).Bytes()},
            {nfs::kCreate, name("f") + XdrWriter().U32(0).Raw(none).Bytes()},
            {nfs::kMkdir, name("newd") + none},
            {nfs::kSymlink, name("newl") + none + XdrWriter().Opaque("t").Bytes()},
            {nfs::kMknod, name("node") + XdrWriter().U32(7).Raw(none).Bytes()},
            {nfs::kRemove, name("f")},
            {nfs::kRmdir, name("sub")},
            {nfs::kRename, name("f") + DirectoryName(root_, "taken")},
            {nfs::kRename, DirectoryName(root_, "own") + name("given")},
            {nfs::kLink, Handle(handle) + DirectoryName(root_, "taken")},
            {nfs::kLink, Handle(own_) + name("given")},
            {nfs::kReaddir, Handle(handle) + XdrWriter().U64(0).U64(0).U32(4096).Bytes()},
            {nfs::kReaddirplus,
             Handle(handle) + XdrWriter().U64(0).U64(0).U32(4096).U32(8192).Bytes()},
            {nfs::kFsstat, Handle(handle)},
            {nfs::kFsinfo, Handle(handle)},
            {nfs::kPathconf, Handle(handle)},
            {nfs::kCommit, Handle(handle) + XdrWriter().U64(0).U32(0).Bytes()},
        };
    }
    void ExpectUseless(const std::string& handle) {
        for (const Request& request : EveryCall(handle))
            EXPECT_NE(Ask(request), 0u) << "procedure " << request.first << " " << Hex(handle);
    }
    // Names, modes and contents of the share.
    std::set<std::string> Inside() {
        std::set<std::string> all;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(tree_.Path("rw"))) {
            struct stat st {};
            lstat(entry.path().c_str(), &st);
            all.insert(entry.path().string() + " " + std::to_string(st.st_mode) + " " +
                       std::to_string(st.st_nlink) + " " +
                       (S_ISREG(st.st_mode) ? ReadFile(entry.path()) : ""));
        }
        return all;
    }
    void ExpectNothingHappens(const std::function<void()>& attack) {
        const auto before = Inside();
        attack();
        EXPECT_EQ(Inside(), before);
        outside_->ExpectUntouched();
    }

    std::unique_ptr<OutsideWatch> outside_;
    std::unique_ptr<NfsClient> client_;
    std::string root_, own_, d_;
};

TEST_P(Outside, NoBitOfAHandleCanBeChanged) {
    ExpectNothingHappens([&] {
        for (const std::string& handle : {own_, d_}) {
            for (size_t bit = 0; bit < handle.size() * 8; ++bit) {
                std::string forged = handle;
                forged[bit / 8] = static_cast<char>(forged[bit / 8] ^ 1 << bit % 8);
                EXPECT_NE(Ask({nfs::kGetattr, Handle(forged)}), 0u) << "bit " << bit;
                if (bit % 67 == 0) ExpectUseless(forged);
            }
        }
    });
}

TEST_P(Outside, NoPartOfAHandleIsAHandle) {
    ExpectNothingHappens([&] {
        for (size_t length = 0; length < own_.size(); ++length) {
            EXPECT_NE(Ask({nfs::kGetattr, Handle(own_.substr(0, length))}), 0u) << length;
            if (length % 7 == 0) ExpectUseless(own_.substr(0, length));
        }
        for (size_t length = own_.size() + 1; length <= 68; ++length) {
            std::string longer = own_;
            longer.resize(length, '\0');
            EXPECT_NE(Ask({nfs::kGetattr, Handle(longer)}), 0u) << length;
        }
    });
}

// The kernel would open any file of the file system by its handle.
TEST_P(Outside, TheKernelsHandleOfAnotherFileNeedsASignature) {
    if (geteuid() != 0) GTEST_SKIP() << "handles of ordinary users' daemons have no such part";
    for (const char* name : {"/f", "/d", "/d/sub/f", ""}) {
        struct {
            file_handle head;
            unsigned char rest[MAX_HANDLE_SZ];
        } kernel;
        kernel.head.handle_bytes = MAX_HANDLE_SZ;
        int mount = 0;
        ASSERT_EQ(name_to_handle_at(AT_FDCWD, (outside_->Directory() + name).c_str(), &kernel.head,
                                    &mount, 0),
                  0)
            << strerror(errno);
        for (const std::string& mine : {own_, d_, root_}) {
            if (mine.size() != kBeforeKernelHandle + kernel.head.handle_bytes + kSignatureBytes)
                continue;
            std::string forged = mine;
            forged[kBeforeKernelHandle - 1] = static_cast<char>(kernel.head.handle_type);
            forged.replace(kBeforeKernelHandle, kernel.head.handle_bytes,
                           reinterpret_cast<const char*>(kernel.head.f_handle),
                           kernel.head.handle_bytes);
            EXPECT_NE(forged, mine);
            ExpectNothingHappens([&] { ExpectUseless(forged); });
        }
    }
    EXPECT_EQ(own_[9], 1) << "not a handle of the kernel's";
}

TEST_P(Outside, AFileThatWasMovedOutIsStale) {
    // The file is what the outside must keep, so it is watched by itself.
    const std::string moved = tree_.Path("moved");
    ASSERT_EQ(rename(tree_.Path("rw/own").c_str(), moved.c_str()), 0);
    ASSERT_TRUE(WaitUntil([&] { return Ask({nfs::kGetattr, Handle(own_)}) == kStale; }));
    ExpectNothingHappens([&] { ExpectUseless(own_); });
    EXPECT_EQ(ReadFile(moved), "inside");
    const Attributes attributes = ExpectedAttributes(moved);
    EXPECT_EQ(attributes.nlink, 1u);
    EXPECT_NE(attributes.mode, 0u);
}

TEST_P(Outside, WhatLiesInADirectoryThatWasMovedOutIsStale) {
    const std::string f = client_->Lookup(d_, "f");
    const std::string moved = tree_.Path("moved");
    ASSERT_EQ(rename(tree_.Path("rw/d").c_str(), moved.c_str()), 0);
    // A path is believed for a second.
    for (const std::string& handle : {d_, f}) {
        ASSERT_TRUE(WaitUntil([&] { return Ask({nfs::kGetattr, Handle(handle)}) == kStale; }));
        ExpectNothingHappens([&] { ExpectUseless(handle); });
    }
    EXPECT_EQ(ReadFile(moved + "/f"), "inside");
    EXPECT_EQ(ExpectedAttributes(moved + "/f").nlink, 1u);
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(moved))
        names.push_back(entry.path().filename());
    EXPECT_EQ(names, std::vector<std::string>{"f"});
}

TEST_P(Outside, ASymbolicLinkIsNeverFollowed) {
    ASSERT_EQ(symlink((outside_->Directory() + "/d").c_str(), tree_.Path("rw/l").c_str()), 0);
    ASSERT_EQ(symlink((outside_->Directory() + "/f").c_str(), tree_.Path("rw/lf").c_str()), 0);
    for (const char* name : {"l", "lf"}) {
        const std::string link = client_->Lookup(root_, name);
        EXPECT_EQ(client_->GetAttributes(link).type, 5u);
        for (const Request& request : EveryCall(link)) (void)Ask(request);
        SetAttributes size;
        size.size = 0;
        EXPECT_NE(
            Ask({nfs::kCreate, DirectoryName(root_, name) + XdrWriter().U32(2).U64(7).Bytes()}),
            0u);
        (void)Ask({nfs::kCreate,
                   DirectoryName(root_, name) + XdrWriter().U32(0).Raw(size.Bytes()).Bytes()});
        (void)Ask(
            {nfs::kSetattr, Handle(link) + XdrWriter().Raw(size.Bytes()).Bool(false).Bytes()});
        outside_->ExpectUntouched();
    }
}

TEST_P(Outside, TwoSharesAreTwoFileSystems) {
    tree_.Write("second/theirs", "inside");
    tree_.Write("hidden/theirs", "inside");
    tree_.Write("ro/theirs", "inside");
    const std::string second = client_->MountShare("/second");
    const std::string hidden = client_->MountShare("/hidden");
    const std::string ro = client_->MountShare("/ro");
    ExpectNothingHappens([&] {
        for (const std::string& other : {second, hidden}) {
            const std::string theirs = client_->Lookup(other, "theirs");
            const auto mine = [&](const char* name) { return DirectoryName(root_, name); };
            const auto its = [&](const char* name) { return DirectoryName(other, name); };
            EXPECT_EQ(Ask({nfs::kRename, mine("own") + its("x")}), kXdev);
            EXPECT_EQ(Ask({nfs::kRename, its("theirs") + mine("x")}), kXdev);
            EXPECT_EQ(Ask({nfs::kRename, mine("d") + its("x")}), kXdev);
            EXPECT_EQ(Ask({nfs::kRename, mine("own") + its("theirs")}), kXdev);
            EXPECT_EQ(Ask({nfs::kLink, Handle(own_) + its("x")}), kXdev);
            EXPECT_EQ(Ask({nfs::kLink, Handle(theirs) + mine("x")}), kXdev);
        }
        EXPECT_EQ(Ask({nfs::kRename, DirectoryName(ro, "theirs") + DirectoryName(root_, "x")}),
                  kAcces);
        EXPECT_EQ(Ask({nfs::kRename, DirectoryName(root_, "own") + DirectoryName(ro, "x")}),
                  kAcces);
        EXPECT_EQ(Ask({nfs::kLink, Handle(own_) + DirectoryName(ro, "x")}), kAcces);
        EXPECT_EQ(
            Ask({nfs::kLink, Handle(client_->Lookup(ro, "theirs")) + DirectoryName(root_, "x")}),
            kXdev);
    });
    for (const char* share : {"second", "hidden", "ro"}) {
        EXPECT_EQ(ReadFile(tree_.Path(std::string(share) + "/theirs")), "inside");
        EXPECT_EQ(ExpectedAttributes(tree_.Path(std::string(share) + "/theirs")).nlink, 1u);
        EXPECT_FALSE(std::filesystem::exists(tree_.Path(std::string(share) + "/x")));
    }
}

TEST_P(Outside, AboveTheRootIsTheRoot) {
    EXPECT_EQ(Hex(client_->Lookup(root_, "..")), Hex(root_));
    EXPECT_EQ(Hex(client_->Lookup(root_, ".")), Hex(root_));
    EXPECT_EQ(Hex(client_->Lookup(d_, "..")), Hex(root_));
    const uint64_t root = ExpectedAttributes(tree_.Path("rw")).fileid;
    for (const DirectoryEntry& entry : client_->ReadDirectory(root_, 0, 4096).entries) {
        if (entry.name == "." || entry.name == "..") {
            EXPECT_EQ(entry.fileid, root) << entry.name;
        }
    }
    for (const DirectoryEntry& entry : client_->ReadDirectoryPlus(root_, 0, 4096, 16384).entries) {
        if (entry.name != "." && entry.name != "..") continue;
        EXPECT_EQ(entry.fileid, root) << entry.name;
        if (entry.hasHandle) {
            EXPECT_EQ(Hex(entry.handle), Hex(root_)) << entry.name;
        }
        if (entry.hasAttributes) {
            EXPECT_EQ(entry.attributes.fileid, root) << entry.name;
        }
    }
}

TEST_P(Outside, NamesNeverWalk) {
    const std::string none = SetAttributes().Bytes();
    const std::string names[] = {"",
                                 ".",
                                 "..",
                                 "/",
                                 "//",
                                 "a/b",
                                 "d/f",
                                 "f/",
                                 "/f",
                                 "../own",
                                 "../outside/f",
                                 "../../outside/f",
                                 outside_->Directory() + "/f",
                                 "./f",
                                 std::string(256, 'n'),
                                 std::string(4096, 'n'),
                                 "../outside/" + std::string(250, 'n')};
    for (const std::string& directory : {root_, d_}) {
        for (const std::string& name : names) {
            const std::string there = DirectoryName(directory, name);
            ExpectNothingHappens([&] {
                uint32_t status = 1;
                const std::string found = client_->Lookup(directory, name, &status);
                if (name == "." || name == "..") {
                    EXPECT_EQ(status, 0u);
                    EXPECT_TRUE(found == root_ || found == directory);
                } else {
                    EXPECT_NE(status, 0u) << name;
                }
                EXPECT_NE(Ask({nfs::kCreate, there + XdrWriter().U32(1).Raw(none).Bytes()}), 0u)
                    << name;
                EXPECT_NE(Ask({nfs::kCreate, there + XdrWriter().U32(2).U64(9).Bytes()}), 0u)
                    << name;
                EXPECT_NE(Ask({nfs::kSymlink, there + none + XdrWriter().Opaque("target").Bytes()}),
                          0u)
                    << name;
                EXPECT_NE(Ask({nfs::kMknod, there + XdrWriter().U32(7).Raw(none).Bytes()}), 0u);
                EXPECT_NE(Ask({nfs::kRename, there + DirectoryName(root_, "x")}), 0u) << name;
                EXPECT_NE(Ask({nfs::kRename, DirectoryName(root_, "own") + there}), 0u) << name;
                EXPECT_NE(Ask({nfs::kLink, Handle(own_) + there}), 0u) << name;
                // A name that cannot be is a missing one, whose making and removal are told as done
                // or not; what counts is that nothing is.
                (void)Ask({nfs::kCreate, there + XdrWriter().U32(0).Raw(none).Bytes()});
                (void)Ask({nfs::kMkdir, there + none});
                (void)Ask({nfs::kRemove, there});
                (void)Ask({nfs::kRmdir, there});
            });
        }
    }
}

OXEL_ALL_MODES(Outside);

}  // namespace
}  // namespace oxel::test
