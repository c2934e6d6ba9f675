// SPDX-License-Identifier: Apache-2.0
//
// The work: what is called, and what must come of it.
#include "tests/faults/workload.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>

#include "tests/system/integrity_client.h"

namespace oxel::test {
namespace {

constexpr uint32_t kUnchecked = 0, kGuarded = 1, kExclusive = 2;
constexpr uint32_t kAllRights = 0x3f;

CallKind Nfs(uint32_t procedure) {
    CallKind kind;
    kind.program = kNfsProgram;
    kind.procedure = procedure;
    return kind;
}
CallKind Mount(uint32_t procedure) {
    CallKind kind = Nfs(procedure);
    kind.program = kMountProgram;
    return kind;
}
std::function<std::string()> Handle(const std::string* handle) {
    return [handle] { return XdrWriter().Opaque(*handle).Bytes(); };
}
void Nothing(const std::string&, bool) {}

// post_op_attr; false when there are none.
bool PostOp(XdrReader* reader, Attributes* attributes) {
    if (!reader->Bool()) return false;
    *attributes = ReadAttributes(reader);
    return true;
}

}  // namespace

Round::Round(const std::string& root, std::string name, std::string local, uint64_t seed,
             Totals* totals)
    : root_(root),
      name_(std::move(name)),
      local_(std::move(local)),
      random_(seed),
      totals_(totals) {}

Round::~Round() {
    std::error_code ignored;
    std::filesystem::remove_all(local_ + "/" + name_, ignored);
}

bool Round::Exists(const std::string& name) const {
    struct stat st {};
    return lstat(Path(name).c_str(), &st) == 0;
}

std::string Round::Bytes(size_t length) {
    std::string bytes(length, '\0');
    for (char& byte : bytes) byte = static_cast<char>(random_());
    return bytes;
}

void Round::VerifyFile() const {
    EXPECT_EQ(Difference(content_, ReadFile(Path("f"))), "");
    totals_->bytesVerified += content_.size();
}

void Round::MakeDirectory() {
    std::filesystem::create_directories(Path("d"));
    for (const char* name : {"f", "x"}) std::ofstream(Path(name)) << name;
    std::filesystem::create_symlink("where/to", Path("s"));
}

std::vector<Step> Round::Steps(Work work) {
    std::vector<Step> steps;
    if (work == Work::kListings) {
        MakeDirectory();
        AddLookup(&steps, &root_, name_, &directory_);
        AddLookup(&steps, &directory_, "f", &file_);
        AddListing(&steps);
        return steps;
    }
    AddMount(&steps);
    AddMaking(&steps);
    AddData(&steps);
    AddAttributes(&steps);
    AddNames(&steps);
    AddListing(&steps);
    AddRemoving(&steps);
    return steps;
}

void Round::AddMount(std::vector<Step>* steps) {
    const auto path = [] { return XdrWriter().Opaque("/share").Bytes(); };
    const auto none = [] { return std::string(); };
    steps->push_back({"NULL", Nfs(nfs::kNull), none, Nothing, {}, 0, {}});
    steps->push_back({"MOUNT NULL", Mount(mnt::kNull), none, Nothing, {}, 0, {}});
    steps->push_back({"MNT",
                      Mount(mnt::kMnt),
                      path,
                      [this](const std::string& results, bool whole) {
                          XdrReader reader(results);
                          reader.U32();
                          const std::string handle = reader.Opaque();
                          EXPECT_TRUE(handle == root_ || (!whole && handle.empty())) << Hex(handle);
                      },
                      {},
                      0,
                      {}});
    steps->push_back({"DUMP", Mount(mnt::kDump), none, Nothing, {}, 0, {}});
    steps->push_back({"EXPORT",
                      Mount(mnt::kExport),
                      none,
                      [](const std::string& results, bool) {
                          XdrReader reader(results);
                          EXPECT_TRUE(reader.Bool());
                          EXPECT_EQ(reader.Opaque(), "/share");
                      },
                      {},
                      0,
                      {}});
    steps->push_back({"FSINFO", Nfs(nfs::kFsinfo), Handle(&root_), Nothing, {}, 0, {}});
    steps->push_back({"FSSTAT", Nfs(nfs::kFsstat), Handle(&root_), Nothing, {}, 0, {}});
    steps->push_back({"PATHCONF",
                      Nfs(nfs::kPathconf),
                      Handle(&root_),
                      [](const std::string& results, bool whole) {
                          XdrReader reader(results);
                          reader.U32();
                          Attributes attributes;
                          EXPECT_TRUE(PostOp(&reader, &attributes) || !whole);
                          reader.U32();
                          const uint32_t nameMax = reader.U32();
                          EXPECT_TRUE(nameMax == 255 || (!whole && nameMax == UINT32_MAX));
                      },
                      {},
                      0,
                      {}});
}

void Round::AddCreate(std::vector<Step>* steps, const std::string& name, uint32_t how,
                      const std::string& attributes, bool namesOwner, std::string* handle) {
    Step step;
    step.name = "CREATE of " + name;
    step.kind = Nfs(nfs::kCreate);
    step.kind.namesOwner = namesOwner;
    step.kind.mustBeNew = how != kUnchecked;
    step.arguments = [this, name, how, attributes] {
        return DirectoryName(directory_, name) + XdrWriter().U32(how).Raw(attributes).Bytes();
    };
    // A name that was made stays made, whatever failed after it.
    step.done = [this, name] { return Exists(name); };
    step.statusWhenDone = how == kUnchecked ? 0 : 17;
    step.check = [handle](const std::string& results, bool) {
        *handle = MadeResults(results).handle;
        EXPECT_FALSE(handle->empty());
    };
    step.verify = [this, name] { EXPECT_EQ(ReadFile(Path(name)), ""); };
    steps->push_back(std::move(step));
}

void Round::AddLookup(std::vector<Step>* steps, const std::string* directory,
                      const std::string& name, std::string* handle) {
    steps->push_back({"LOOKUP of " + name,
                      Nfs(nfs::kLookup),
                      [directory, name] { return DirectoryName(*directory, name); },
                      [handle](const std::string& results, bool) {
                          XdrReader reader(results);
                          reader.U32();
                          *handle = reader.Opaque();
                          Attributes attributes;
                          EXPECT_TRUE(PostOp(&reader, &attributes));
                          EXPECT_NE(attributes.fileid, 0u);
                      },
                      {},
                      0,
                      {}});
}

void Round::AddMaking(std::vector<Step>* steps) {
    SetAttributes mode;
    mode.mode = 0755;
    Step mkdir;
    mkdir.name = "MKDIR";
    mkdir.kind = Nfs(nfs::kMkdir);
    mkdir.arguments = [this, mode] {
        return DirectoryName(root_, name_) + XdrWriter().Raw(mode.Bytes()).Bytes();
    };
    mkdir.check = [this](const std::string& results, bool) {
        directory_ = MadeResults(results).handle;
    };
    mkdir.verify = [this] { EXPECT_TRUE(std::filesystem::is_directory(Path(""))); };
    steps->push_back(mkdir);

    SetAttributes all;
    all.mode = 0640;
    all.uid = all.gid = all.size = 0;
    all.setAtime = all.setMtime = 1;
    mkdir.name = "MKDIR inside";
    mkdir.kind.namesOwner = true;
    mkdir.arguments = [this, all] {
        SetAttributes attributes = all;
        attributes.mode = 0700;
        return DirectoryName(directory_, "d") + XdrWriter().Raw(attributes.Bytes()).Bytes();
    };
    mkdir.check = [this](const std::string& results, bool) {
        inner_ = MadeResults(results).handle;
    };
    mkdir.verify = [this] { EXPECT_TRUE(std::filesystem::is_directory(Path("d"))); };
    steps->push_back(std::move(mkdir));

    AddCreate(steps, "f", kUnchecked, all.Bytes(), true, &file_);
    AddCreate(steps, "g", kGuarded, mode.Bytes(), false, &guarded_);
    AddCreate(steps, "x", kExclusive, XdrWriter().U64(random_() >> 32).Bytes(), false, &exclusive_);
    AddLookup(steps, &root_, name_, &directory_);
    AddLookup(steps, &directory_, "f", &file_);
    AddLookup(steps, &directory_, "d", &inner_);
    Step mknod;
    mknod.name = "MKNOD";
    mknod.kind = Nfs(nfs::kMknod);
    mknod.kind.ok = 10004;  // shares hold no fifos of their clients
    mknod.arguments = [this, mode] {
        return DirectoryName(directory_, "fifo") + XdrWriter().U32(7).Raw(mode.Bytes()).Bytes();
    };
    mknod.check = Nothing;
    mknod.verify = [this] { EXPECT_FALSE(Exists("fifo")); };
    steps->push_back(std::move(mknod));
}

void Round::AddWrite(std::vector<Step>* steps, uint64_t offset, uint32_t stable, size_t length) {
    Step step;
    step.name = "WRITE of stability " + std::to_string(stable);
    step.kind = Nfs(nfs::kWrite);
    const std::string data = Bytes(length);
    step.arguments = [this, offset, stable, data] {
        return WriteArguments(file_, offset, stable, data);
    };
    step.check = [this, offset, stable, data](const std::string& results, bool) {
        const Changed changed = WriteResults(results);
        EXPECT_EQ(changed.count, data.size());
        EXPECT_EQ(changed.committed, stable);
        EXPECT_NE(changed.verifier, 0u);
        verifier_ = changed.verifier;
        content_.resize(std::max<size_t>(content_.size(), offset + data.size()));
        content_.replace(offset, data.size(), data);
    };
    step.verify = [this] { VerifyFile(); };
    steps->push_back(std::move(step));
}

void Round::AddRead(std::vector<Step>* steps, uint64_t offset, uint32_t count) {
    steps->push_back({"READ",
                      Nfs(nfs::kRead),
                      [this, offset, count] { return ReadArguments(file_, offset, count); },
                      [this, offset, count](const std::string& results, bool whole) {
                          const Piece piece = ReadResults(results);
                          const std::string expected = content_.substr(offset, count);
                          EXPECT_EQ(piece.eof, piece.data.size() < count);
                          const size_t came = whole ? expected.size() : piece.data.size();
                          EXPECT_EQ(Difference(expected.substr(0, came), piece.data), "");
                          totals_->bytesVerified += piece.data.size();
                      },
                      {},
                      0,
                      {}});
}

void Round::AddData(std::vector<Step>* steps) {
    AddWrite(steps, 0, kUnstable, 20000);
    AddWrite(steps, 15000, kFileSync, 9001);
    AddWrite(steps, 100, kDataSync, 511);
    steps->push_back({"COMMIT",
                      Nfs(nfs::kCommit),
                      [this] { return CommitArguments(file_); },
                      [this](const std::string& results, bool whole) {
                          const uint64_t verifier = CommitResults(results).verifier;
                          EXPECT_TRUE(verifier == verifier_ || (!whole && verifier == 0));
                      },
                      {},
                      0,
                      [this] { VerifyFile(); }});
    AddRead(steps, 0, 4096);
    AddRead(steps, 10000, 20000);  // to the end and beyond
    AddRead(steps, 24001, 10);
}

void Round::AddAttributes(std::vector<Step>* steps) {
    SetAttributes wish;
    wish.mode = 0604;
    wish.uid = 0;
    wish.gid = 4711;
    wish.size = 17000;
    wish.setAtime = wish.setMtime = 2;
    wish.atime = 1000000000;
    wish.mtime = 1100000000;
    steps->push_back(
        {"SETATTR",
         Nfs(nfs::kSetattr),
         [this, wish] { return XdrWriter().Opaque(file_).Raw(wish.Bytes()).Bool(false).Bytes(); },
         [this](const std::string&, bool) { content_.resize(17000); },
         {},
         0,
         [this] {
             const Attributes now = ExpectedAttributes(Path("f"));
             EXPECT_EQ(now.mode, 0604u);
             EXPECT_EQ(now.gid, 4711u);
             VerifyFile();
         }});
    steps->push_back({"GETATTR",
                      Nfs(nfs::kGetattr),
                      Handle(&file_),
                      [this](const std::string& results, bool) {
                          XdrReader reader(results);
                          reader.U32();
                          EXPECT_EQ(Hex(reader.Rest()),
                                    Hex(AttributesBytes(ExpectedAttributes(Path("f")))));
                      },
                      {},
                      0,
                      {}});
    steps->push_back({"ACCESS",
                      Nfs(nfs::kAccess),
                      [this] { return XdrWriter().Opaque(directory_).U32(kAllRights).Bytes(); },
                      [](const std::string& results, bool whole) {
                          XdrReader reader(results);
                          reader.U32();
                          Attributes attributes;
                          EXPECT_TRUE(PostOp(&reader, &attributes));
                          const uint32_t granted = reader.U32();
                          EXPECT_EQ(granted & ~kAllRights, 0u);
                          EXPECT_TRUE(granted == kAllRights || !whole) << granted;
                      },
                      {},
                      0,
                      {}});
}

void Round::AddNames(std::vector<Step>* steps) {
    SetAttributes attributes;
    attributes.uid = attributes.gid = 0;
    attributes.setAtime = attributes.setMtime = 1;
    Step symlink;
    symlink.name = "SYMLINK";
    symlink.kind = Nfs(nfs::kSymlink);
    symlink.arguments = [this, attributes] {
        return DirectoryName(directory_, "s") +
               XdrWriter().Raw(attributes.Bytes()).Opaque("where/to").Bytes();
    };
    symlink.check = [this](const std::string& results, bool) {
        link_ = MadeResults(results).handle;
    };
    symlink.done = [this] { return Exists("s"); };
    symlink.statusWhenDone = 17;
    symlink.verify = [this] {
        EXPECT_EQ(std::filesystem::read_symlink(Path("s")).string(), "where/to");
    };
    steps->push_back(std::move(symlink));
    AddLookup(steps, &directory_, "s", &link_);
    steps->push_back({"READLINK",
                      Nfs(nfs::kReadlink),
                      Handle(&link_),
                      [](const std::string& results, bool whole) {
                          XdrReader reader(results);
                          reader.U32();
                          Attributes ignored;
                          EXPECT_TRUE(PostOp(&reader, &ignored) || !whole);
                          EXPECT_EQ(reader.Opaque(), "where/to");
                      },
                      {},
                      0,
                      {}});

    Step link;
    link.name = "LINK";
    link.kind = Nfs(nfs::kLink);
    link.arguments = [this] {
        return XdrWriter().Opaque(file_).Raw(DirectoryName(inner_, "l")).Bytes();
    };
    link.check = Nothing;
    link.done = [this] { return Exists("d/l"); };
    link.statusWhenDone = 17;
    link.verify = [this] {
        EXPECT_EQ(ExpectedAttributes(Path("d/l")).fileid, ExpectedAttributes(Path("f")).fileid);
    };
    steps->push_back(std::move(link));

    Step rename;
    rename.name = "RENAME";
    rename.kind = Nfs(nfs::kRename);
    rename.arguments = [this] {
        return DirectoryName(directory_, "g") + DirectoryName(inner_, "h");
    };
    rename.check = Nothing;
    rename.done = [this] { return Exists("d/h"); };
    rename.statusWhenDone = 2;  // it is not there any more
    rename.verify = [this] { EXPECT_TRUE(Exists("d/h") && !Exists("g")); };
    steps->push_back(std::move(rename));
}

void Round::AddListing(std::vector<Step>* steps, bool plus) {
    steps->push_back({plus ? "READDIRPLUS" : "READDIR",
                      Nfs(plus ? nfs::kReaddirplus : nfs::kReaddir),
                      [this, plus] {
                          XdrWriter arguments;
                          arguments.Opaque(directory_).U64(0).U64(0).U32(8192);
                          if (plus) arguments.U32(8192);
                          return arguments.Bytes();
                      },
                      [this, plus](const std::string& results, bool whole) {
                          std::set<std::string> names, expected{".", "..", "d", "f", "s", "x"};
                          const DirectoryPage page = ReadPage(results, plus);
                          EXPECT_TRUE(page.hasAttributes || !whole);
                          EXPECT_TRUE(page.eof);
                          for (const DirectoryEntry& entry : page.entries) {
                              EXPECT_TRUE(names.insert(entry.name).second)
                                  << entry.name << " came twice";
                              EXPECT_TRUE(expected.count(entry.name) != 0) << entry.name;
                              if (entry.name[0] == '.') continue;
                              // READDIRPLUS has the number from the attributes.
                              const bool numbered = !plus || entry.hasAttributes;
                              EXPECT_EQ(entry.fileid,
                                        numbered ? ExpectedAttributes(Path(entry.name)).fileid : 0);
                              EXPECT_EQ(entry.hasHandle, plus);
                              EXPECT_TRUE(entry.hasAttributes || !plus || !whole);
                              EXPECT_TRUE(!plus || entry.name != "f" || entry.handle == file_);
                          }
                          EXPECT_TRUE(names == expected || !whole) << names.size();
                      },
                      {},
                      0,
                      {}});
}

void Round::AddListing(std::vector<Step>* steps) {
    AddListing(steps, false);
    AddListing(steps, true);
}

void Round::AddRemove(std::vector<Step>* steps, uint32_t procedure, const std::string* directory,
                      const std::string& in, const std::string& name) {
    Step step;
    step.name = (procedure == nfs::kRemove ? "REMOVE of " : "RMDIR of ") + name;
    step.kind = Nfs(procedure);
    step.arguments = [directory, name] { return DirectoryName(*directory, name); };
    step.check = Nothing;
    // A missing name is a success, so the call can be repeated; and one that was taken for missing
    // is still there until then.
    step.verify = [this, in, name] { EXPECT_FALSE(Exists(in + name)); };
    steps->push_back(std::move(step));
}

void Round::AddRemoving(std::vector<Step>* steps) {
    AddRemove(steps, nfs::kRemove, &inner_, "d/", "l");
    AddRemove(steps, nfs::kRemove, &inner_, "d/", "h");
    AddRemove(steps, nfs::kRmdir, &directory_, "", "d");
    AddRemove(steps, nfs::kRemove, &directory_, "", "s");
    AddRemove(steps, nfs::kRemove, &directory_, "", "never there");
    const auto path = [] { return XdrWriter().Opaque("/share").Bytes(); };
    steps->push_back({"UMNT", Mount(mnt::kUmnt), path, Nothing, {}, 0, [this] { VerifyFile(); }});
    steps->push_back(
        {"UMNTALL", Mount(mnt::kUmntall), [] { return std::string(); }, Nothing, {}, 0, {}});
}

}  // namespace oxel::test
