// SPDX-License-Identifier: Apache-2.0
//
// The clients that use every procedure on names.
#include "tests/system/soak_clients.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <set>

#include "tests/support/private_tree.h"
#include "tests/system/local_tree.h"

namespace oxel::test {

static constexpr uint32_t kFile = 1, kDirectory = 2, kSymlink = 5;
static constexpr uint32_t kNoEntry = 2, kExists = 17, kNotSupported = 10004;
static constexpr size_t kNames = 16, kContentBytesMax = 20000;

TreeClient::TreeClient(uint16_t port, uint64_t seed, unsigned number, SoakCounts* counts)
    : session_(port),
      random_(seed + 1000 + number),
      counts_(counts),
      directoryName_("tree" + std::to_string(number)) {
    root_ = session_.Client().MountShare("/share");
    directory_ = MadeResults(*session_.Call(nfs::kMkdir, DirectoryName(root_, directoryName_) +
                                                             SetAttributes().Bytes()))
                     .handle;
}

std::string TreeClient::Call(uint32_t procedure, const std::string& arguments, uint32_t status,
                             const char* what) {
    counts_->calls.fetch_add(1, std::memory_order_relaxed);
    const Session::Results results = session_.Call(procedure, arguments);
    if (!results) {
        ADD_FAILURE() << what << ": no answer";
        return std::string(256, '\0');
    }
    EXPECT_EQ(XdrReader(*results).U32(), status) << what << " in " << directoryName_;
    return *results;
}

std::string TreeClient::HandleOf(const std::string& name) {
    XdrReader reader(Call(nfs::kLookup, DirectoryName(directory_, name), 0, "LOOKUP"));
    reader.U32();
    return reader.Opaque();
}

void TreeClient::Run(SoakEnd end) {
    do {  // once at least, however busy the machine is
        Step();
    } while (std::chrono::steady_clock::now() < end && !testing::Test::HasFailure());
}

void TreeClient::Step() {
    const auto any = [&] { return "n" + std::to_string(Below(random_, kNames)); };
    const std::string name = any(), other = any();
    switch (Below(random_, 16)) {
        case 0:
        case 1:
        case 2:
            return Make(name);
        case 3:
            return Take(name);
        case 4:
            return Move(name, other);
        case 5:
            return Link(name, other);
        case 6:
        case 7:
            return Fill(name);
        case 8:
        case 9:
            return List();
        case 10:
            return Ask();
        case 11:
            return Below(random_, 20) == 0 ? Mount() : Ask();
        default:
            return Look(name);
    }
}

void TreeClient::Make(const std::string& name) {
    const std::string where = DirectoryName(directory_, name);
    const auto found = entries_.find(name);
    const bool there = found != entries_.end();
    Entry entry{kFile, "", 0};
    std::string results;
    switch (Below(random_, 6)) {
        case 0:  // UNCHECKED
            if (there) return;
            results =
                Call(nfs::kCreate, where + XdrWriter().U32(0).Bytes() + SetAttributes().Bytes(), 0,
                     "CREATE");
            break;
        case 1:
        case 2:
            results = Call(nfs::kCreate, CreateArguments(directory_, name), there ? kExists : 0,
                           "CREATE");
            break;
        case 3:  // EXCLUSIVE; its verifier's first word is no attribute's switch here
            results = Call(nfs::kCreate, where + XdrWriter().U32(2).U64(0x1122334455667788).Bytes(),
                           there ? kExists : 0, "CREATE EXCLUSIVE");
            break;
        case 4:
            if (there) return;  // an existing directory would be answered as if it were made
            entry.type = kDirectory;
            results = Call(nfs::kMkdir, where + SetAttributes().Bytes(), 0, "MKDIR");
            break;
        default:
            entry.type = kSymlink;
            entry.content = "to/" + std::to_string(random_());
            results =
                Call(nfs::kSymlink,
                     where + XdrWriter().Raw(SetAttributes().Bytes()).Opaque(entry.content).Bytes(),
                     there ? kExists : 0, "SYMLINK");
    }
    if (there) return;
    entry.fileid = MadeResults(results).fileid;
    entries_[name] = entry;
}

// A name that is not there counts as removed, so that a call sent twice needs no memory of it.
void TreeClient::Take(const std::string& name) {
    const auto found = entries_.find(name);
    const bool directory = found != entries_.end() && found->second.type == kDirectory;
    (void)Call(directory ? nfs::kRmdir : nfs::kRemove, DirectoryName(directory_, name), 0,
               "REMOVE");
    entries_.erase(name);
}

void TreeClient::Move(const std::string& name, const std::string& other) {
    const auto from = entries_.find(name), to = entries_.find(other);
    const bool there = from != entries_.end();
    if (to != entries_.end() && to->second.type == kDirectory) return;
    if (there && from->second.type == kDirectory && to != entries_.end()) return;
    (void)Call(nfs::kRename, DirectoryName(directory_, name) + DirectoryName(directory_, other),
               there ? 0 : kNoEntry, "RENAME");
    // Two names of one file both stay.
    if (!there || name == other ||
        (to != entries_.end() && to->second.fileid == from->second.fileid))
        return;
    entries_[other] = from->second;
    entries_.erase(name);
}

void TreeClient::Link(const std::string& name, const std::string& other) {
    const auto from = entries_.find(name);
    if (from == entries_.end() || from->second.type != kFile) return;
    const bool there = entries_.count(other) != 0;
    (void)Call(nfs::kLink,
               XdrWriter().Opaque(HandleOf(name)).Raw(DirectoryName(directory_, other)).Bytes(),
               there ? kExists : 0, "LINK");
    if (!there) entries_[other] = from->second;
}

void TreeClient::Look(const std::string& name) {
    const auto found = entries_.find(name);
    if (found == entries_.end()) {
        (void)Call(nfs::kLookup, DirectoryName(directory_, name), kNoEntry, "LOOKUP");
        return;
    }
    const Entry& entry = found->second;
    const std::string handle = HandleOf(name);
    const std::string argument = XdrWriter().Opaque(handle).Bytes();
    XdrReader attributes(Call(nfs::kGetattr, argument, 0, "GETATTR"));
    attributes.U32();
    const Attributes shown = ReadAttributes(&attributes);
    EXPECT_EQ(shown.type, entry.type) << name;
    EXPECT_EQ(shown.fileid, entry.fileid) << name;
    (void)Call(nfs::kAccess, argument + XdrWriter().U32(0x3f).Bytes(), 0, "ACCESS");
    if (entry.type == kSymlink) {
        XdrReader reader(Call(nfs::kReadlink, argument, 0, "READLINK"));
        reader.U32();
        if (reader.Bool()) ReadAttributes(&reader);
        EXPECT_EQ(reader.Opaque(), entry.content) << name;
    } else if (entry.type == kFile) {
        EXPECT_EQ(shown.size, entry.content.size()) << name;
        const Piece piece = ReadResults(
            Call(nfs::kRead, ReadArguments(handle, 0, 2 * kContentBytesMax), 0, "READ"));
        EXPECT_EQ(Difference(entry.content, piece.data), "") << name;
        counts_->bytesVerified += piece.data.size();
    }
}

void TreeClient::Filled(uint64_t fileid, const std::string& content) {
    for (auto& [name, entry] : entries_) {
        if (entry.fileid == fileid) entry.content = content;
    }
}

void TreeClient::Fill(const std::string& name) {
    const auto found = entries_.find(name);
    if (found == entries_.end() || found->second.type != kFile) return;
    const std::string handle = HandleOf(name);
    std::string content = found->second.content;
    if (Below(random_, 4) == 0) {
        const uint64_t size = Below(random_, kContentBytesMax);
        (void)Call(nfs::kSetattr, SizeArguments(handle, size), 0, "SETATTR");
        content.resize(size, '\0');
    } else {
        const uint64_t at = Below(random_, kContentBytesMax / 2);
        const std::string data = UniqueBytes(random_, 1 + Below(random_, kContentBytesMax / 2));
        const auto stable = static_cast<uint32_t>(Below(random_, 3));
        (void)Call(nfs::kWrite, WriteArguments(handle, at, stable, data), 0, "WRITE");
        if (content.size() < at + data.size()) content.resize(at + data.size(), '\0');
        content.replace(at, data.size(), data);
        if (Below(random_, 2) == 0) {
            (void)Call(nfs::kCommit, CommitArguments(handle), 0, "COMMIT");
        }
    }
    Filled(found->second.fileid, content);
}

void TreeClient::List() {
    const bool plus = Below(random_, 2) == 0;
    counts_->calls.fetch_add(1, std::memory_order_relaxed);
    const DirectoryPage page = plus
                                   ? session_.Client().ReadDirectoryPlus(directory_, 0, 8000, 16000)
                                   : session_.Client().ReadDirectory(directory_, 0, 8000);
    EXPECT_EQ(page.status, 0u);
    EXPECT_TRUE(page.eof);
    std::map<std::string, uint64_t> shown, expected;
    for (const DirectoryEntry& entry : page.entries) {
        if (entry.name != "." && entry.name != "..") shown[entry.name] = entry.fileid;
    }
    for (const auto& [name, entry] : entries_) expected[name] = entry.fileid;
    EXPECT_EQ(shown, expected) << directoryName_;
}

void TreeClient::Ask() {
    const std::string argument = XdrWriter().Opaque(directory_).Bytes();
    switch (Below(random_, 5)) {
        case 0:
            (void)Call(nfs::kFsstat, argument, 0, "FSSTAT");
            return;
        case 1:
            (void)Call(nfs::kFsinfo, argument, 0, "FSINFO");
            return;
        case 2:
            (void)Call(nfs::kPathconf, argument, 0, "PATHCONF");
            return;
        case 3: {
            const std::string what = XdrWriter().U32(7).Raw(SetAttributes().Bytes()).Bytes();
            (void)Call(nfs::kMknod, DirectoryName(directory_, "fifo") + what, kNotSupported,
                       "MKNOD");
            return;
        }
        default:
            counts_->calls.fetch_add(1, std::memory_order_relaxed);
            EXPECT_EQ(session_.Call(nfs::kNull, "").value_or("no answer"), "");
    }
}

void TreeClient::Mount() {
    NfsClient& client = session_.Client();
    counts_->calls.fetch_add(6, std::memory_order_relaxed);
    const std::string path = XdrWriter().Opaque("/share").Bytes();
    EXPECT_EQ(client.Results(client.Mount(mnt::kNull, "")), "");
    EXPECT_EQ(client.MountShare("/share"), root_);
    EXPECT_EQ(XdrReader(client.Results(client.Mount(mnt::kDump, ""))).U32(), 0u);
    EXPECT_EQ(XdrReader(client.Results(client.Mount(mnt::kExport, ""))).U32(), 1u);
    EXPECT_EQ(client.Results(client.Mount(mnt::kUmnt, path)), "");
    EXPECT_EQ(client.Results(client.Mount(mnt::kUmntall, "")), "");
}

void TreeClient::ExpectEverythingAsMade(const std::string& share) {
    List();
    const std::string local = share + "/" + directoryName_;
    std::vector<std::string> names;
    for (const auto& [name, entry] : entries_) {
        names.push_back(name);
        Look(name);
        if (entry.type == kFile) {
            EXPECT_EQ(Difference(entry.content, ReadFile(local + "/" + name)), "") << name;
        }
    }
    std::sort(names.begin(), names.end());
    EXPECT_EQ(LocalNames(local), names);
}

}  // namespace oxel::test
