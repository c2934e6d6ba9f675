// SPDX-License-Identifier: Apache-2.0
//
// The changing calls.
#include "tests/local/change_fixture.h"

#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <iterator>

#include "modules/local/disk_calls.h"
#include "modules/local/write_errors.h"

namespace oxel::testing {

// Names and attributes go to the disk with every change, and a disk that others keep busy takes its
// time; tests of what is synced, and of disks that fail, put another one here.
static const local::DiskCalls kQuickDisk = {local::kRealDisk.write, [](int) { return 0; },
                                            [](int) { return 0; }, [](int) { return 0; },
                                            local::kRealDisk.takeError};

void ChangeTest::SetUp() {
    LocalTest::SetUp();
    local::gDisk = &kQuickDisk;
}

void ChangeTest::TearDown() {
    local::gDisk = &local::kRealDisk;
    local::DelayedWrites::Instance().SetLimit(0);
    made_.reset();
    LocalTest::TearDown();
    EXPECT_EQ(local::DelayedWrites::Instance().CountOpen(), 0u);
}

void ChangeTest::ComeFrom(const char* address) {
    ASSERT_TRUE(CLuIPAddr::Parse(address, 800, &Caller().clientAddress));
}

OxelCtxt ChangeTest::Context(const BkEndProcPtr& object, const BkEndProcPtr& second) {
    RestoreOwnRights();
    Caller().uid = uid_;
    Caller().gid = gid_;
    return OxelCtxt(Caller(), share_, object, second);
}

int ChangeTest::Create(const std::string& directory, const std::string& name, int flags,
                       mode_t mode) {
    const BkEndProcPtr parent = Find(directory);
    OxelCtxt ctxt = Context(parent);
    made_ = parent->CreateChild(&ctxt, name, flags, mode);
    const int error = made_ ? 0 : errno;
    RestoreOwnRights();
    return error;
}

int ChangeTest::MakeDirectory(const std::string& directory, const std::string& name, mode_t mode) {
    const BkEndProcPtr parent = Find(directory);
    OxelCtxt ctxt = Context(parent);
    made_ = parent->CreateChildDir(&ctxt, name, mode);
    const int error = made_ ? 0 : errno;
    RestoreOwnRights();
    return error;
}

int ChangeTest::Symlink(const std::string& directory, const std::string& name,
                        const std::string& target) {
    const BkEndProcPtr parent = Find(directory);
    OxelCtxt ctxt = Context(parent);
    const int error = ErrnoOf(
        [&] { return parent->CreateSymlink(&ctxt, target, parent->GetPath() + "/" + name); });
    RestoreOwnRights();
    return error;
}

int ChangeTest::UnlinkObject(const BkEndProcPtr& directory, const BkEndProcPtr& child,
                             const std::string& name) {
    OxelCtxt ctxt = Context(child, directory);
    const int error =
        ErrnoOf([&] { return child->Unlink(&ctxt, directory->GetPath() + "/" + name); });
    RestoreOwnRights();
    return error;
}

int ChangeTest::Unlink(const std::string& directory, const std::string& name) {
    const BkEndProcPtr parent = Find(directory);
    OxelCtxt ctxt = Context(parent);
    const BkEndProcPtr child = parent->FindChild(&ctxt, name);
    if (!child) return errno;
    return UnlinkObject(parent, child, name);
}

int ChangeTest::RemoveDirectoryObject(const BkEndProcPtr& directory, const BkEndProcPtr& child,
                                      const std::string& name) {
    OxelCtxt ctxt = Context(directory);
    const int error =
        ErrnoOf([&] { return child->RemoveDir(&ctxt, directory->GetPath() + "/" + name); });
    RestoreOwnRights();
    return error;
}

int ChangeTest::RemoveDirectory(const std::string& directory, const std::string& name) {
    const BkEndProcPtr parent = Find(directory);
    OxelCtxt ctxt = Context(parent);
    const BkEndProcPtr child = parent->FindChild(&ctxt, name);
    if (!child) return errno;
    return RemoveDirectoryObject(parent, child, name);
}

int ChangeTest::RenameObject(const BkEndProcPtr& child, const BkEndProcPtr& from,
                             const std::string& fromName, const BkEndProcPtr& to,
                             const std::string& toName) {
    OxelCtxt ctxt = Context(from, to);
    const int error = ErrnoOf([&] { return child->Rename(&ctxt, fromName, toName); });
    RestoreOwnRights();
    return error;
}

int ChangeTest::Rename(const std::string& from, const std::string& fromName, const std::string& to,
                       const std::string& toName) {
    const BkEndProcPtr source = Find(from), target = Find(to);
    OxelCtxt ctxt = Context(source);
    const BkEndProcPtr child = source->FindChild(&ctxt, fromName);
    if (!child) return errno;
    return RenameObject(child, source, fromName, target, toName);
}

int ChangeTest::Link(const std::string& existing, const std::string& directory,
                     const std::string& name) {
    const nfs_fh3 file = HandleAt(existing), parent = HandleAt(directory);
    const BkEndProcPtr link = Resolve(parent), object = Resolve(file);
    OxelCtxt ctxt = Context(link);
    const int error = ErrnoOf(
        [&] { return link->HardLink(&ctxt, object->GetPath(), link->GetPath() + "/" + name); });
    RestoreOwnRights();
    return error;
}

int ChangeTest::WriteToObject(const BkEndProcPtr& object, const std::string& text, uint64_t offset,
                              stable_how stable) {
    OxelCtxt ctxt = Context(object);
    const int fd = object->Open(&ctxt, "/", 1, 0);
    if (fd < 0) return errno;
    const ssize_t bytes =
        object->Write(&ctxt, fd, text.data(), offset, static_cast<uint32_t>(text.size()), stable);
    const int error = bytes < 0 ? errno : 0;
    object->Close(&ctxt, fd);
    RestoreOwnRights();
    if (error == 0) {
        EXPECT_EQ(bytes, static_cast<ssize_t>(text.size()));
    }
    return error;
}

int ChangeTest::WriteTo(const std::string& path, const std::string& text, uint64_t offset,
                        stable_how stable) {
    return WriteToObject(Find(path), text, offset, stable);
}

int ChangeTest::Commit(const std::string& path) {
    const BkEndProcPtr object = Find(path);
    OxelCtxt ctxt = Context(object);
    const int fd = object->Open(&ctxt, "/", 2, 0);
    if (fd < 0) return errno;
    const int error = ErrnoOf([&] { return object->SyncFs(&ctxt, fd); });
    object->Close(&ctxt, fd);
    RestoreOwnRights();
    return error;
}

std::string TextOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    EXPECT_TRUE(file) << path;
    return std::string(std::istreambuf_iterator<char>(file), {});
}

bool Exists(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

}  // namespace oxel::testing
