// SPDX-License-Identifier: Apache-2.0
//
// GoogleMock classes for the back-end contract: a module, a share and an object whose every answer
// a test chooses. Unset, each operation does what GoogleMock's defaults do (0, false, null); a path
// and a handle given to the constructor are answered as such.
#pragma once

#include <gmock/gmock.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <utility>

#include "backend/BkEndProc.h"
#include "backend/Export.h"
#include "backend/FSM.h"

namespace oxel::test {

// A handle of `objectIdBytes` bytes after its two words, each of them `fill`.
inline nfs_fh3 MakeHandle(uint32_t fsmType, uint32_t shareId, unsigned char fill = 0,
                          uint32_t objectIdBytes = 8) {
    nfs_fh3 handle{};
    handle.nfh_len = nfs_fh3::kLengthMin + objectIdBytes;
    handle.fsmType = fsmType;
    handle.shareId = shareId;
    std::memset(handle.objectId, fill, objectIdBytes);
    return handle;
}

class MockFSM : public FSM {
  public:
    MockFSM();
    ~MockFSM() override;
    MOCK_METHOD(std::string, GetHandleString, (const nfs_fh3& handle), (override));
    MOCK_METHOD(BkEndProcPtr, GetBkEndProc, (ExportPtr & share, const nfs_fh3& handle), (override));
    MOCK_METHOD(bool, GetExportForHandle, (const nfs_fh3& handle, ExportPtr& share), (override));
};

class MockExport : public Export {
  public:
    explicit MockExport(std::string path = {}, ExportPtr parent = ExportPtr());
    ~MockExport() override;
    MOCK_METHOD(int, AddMountPoint, (const CLuIPAddr& client, nfs_fh3* root), (override));
    MOCK_METHOD(FSModuleType, GetFSMType, (), (override));
    MOCK_METHOD(unsigned, IsWritable, (), (override));
    MOCK_METHOD(bool, IsClientAllowed, (XOIPAddr client, const std::string& host), (override));
};

class MockBkEndProc : public BkEndProc {
  public:
    explicit MockBkEndProc(std::string path = {}, nfs_fh3 handle = nfs_fh3{});
    ~MockBkEndProc() override;

    MOCK_METHOD(int, Stat, (OxelCtxt*, const std::string& path, struct stat* out), (override));
    MOCK_METHOD(int, Access, (OxelCtxt*, const std::string& path, int mode), (override));
    MOCK_METHOD(int, Open, (OxelCtxt*, const std::string& path, int flags, int mode), (override));
    MOCK_METHOD(int, Truncate, (OxelCtxt*, const std::string& path, uint64_t size), (override));
    MOCK_METHOD(ssize_t, Read, (OxelCtxt*, int fd, void* buffer, uint64_t offset, uint32_t count),
                (override));
    MOCK_METHOD(ssize_t, Write,
                (OxelCtxt*, int fd, const void* data, uint64_t offset, uint32_t count,
                 stable_how stable),
                (override));
    MOCK_METHOD(int, Close, (OxelCtxt*, int fd), (override));
    MOCK_METHOD(int, Unlink, (OxelCtxt*, const std::string& path), (override));
    MOCK_METHOD(DirStream*, OpenDir, (OxelCtxt*, const std::string& path), (override));
    MOCK_METHOD(void, SeekDir, (OxelCtxt*, DirStream* stream, uint64_t position), (override));
    MOCK_METHOD(struct dirent*, ReadDir, (OxelCtxt*, DirStream* stream), (override));
    MOCK_METHOD(int64_t, TellDir, (OxelCtxt*, DirStream* stream), (override));
    MOCK_METHOD(void, CloseDir, (OxelCtxt*, DirStream* stream), (override));
    MOCK_METHOD(int, RemoveDir, (OxelCtxt*, const std::string& path), (override));
    MOCK_METHOD(int, Chmod, (OxelCtxt*, const std::string& path, mode_t mode), (override));
    MOCK_METHOD(int, SetTimes,
                (OxelCtxt*, const std::string& path, const struct timeval& accessTime,
                 const struct timeval& modificationTime),
                (override));
    MOCK_METHOD(int, Chown, (OxelCtxt*, const std::string& path, uid_t uid, gid_t gid), (override));
    MOCK_METHOD(int, Rename, (OxelCtxt*, const std::string& fromName, const std::string& toName),
                (override));
    MOCK_METHOD(int, HardLink,
                (OxelCtxt*, const std::string& existingPath, const std::string& linkPath),
                (override));
    MOCK_METHOD(int, CreateSymlink,
                (OxelCtxt*, const std::string& target, const std::string& linkPath), (override));
    MOCK_METHOD(ssize_t, ReadLink,
                (OxelCtxt*, const std::string& path, char* buffer, size_t capacity), (override));
    MOCK_METHOD(BkEndProcPtr, CreateChild,
                (OxelCtxt*, const std::string& name, int flags, mode_t mode), (override));
    MOCK_METHOD(BkEndProcPtr, CreateChildDir, (OxelCtxt*, const std::string& name, mode_t mode),
                (override));
    MOCK_METHOD(BkEndProcPtr, FindChild, (OxelCtxt*, const std::string& name), (override));
    MOCK_METHOD(BkEndProcPtr, GetParent, (OxelCtxt*), (override));
    MOCK_METHOD(int, SyncFs, (OxelCtxt*, int fd), (override));
    MOCK_METHOD(long, PathConf, (OxelCtxt*, const std::string& path, int name), (override));
    MOCK_METHOD(int, StatFs, (OxelCtxt*, const std::string& path, struct statfs* out), (override));
    MOCK_METHOD(const std::string&, GetPath, (), (const, override));
    MOCK_METHOD(void, GetFileHandle, (nfs_fh3 * out), (const, override));

  private:
    const std::string path_;
    const nfs_fh3 handle_;
};

}  // namespace oxel::test

// Instantiated once, in contract_mocks.cpp: they are most of a test's compile time.
extern template class testing::NiceMock<oxel::test::MockFSM>;
extern template class testing::NiceMock<oxel::test::MockExport>;
extern template class testing::NiceMock<oxel::test::MockBkEndProc>;

namespace oxel::test {

using NiceFSM = testing::NiceMock<MockFSM>;
using NiceExport = testing::NiceMock<MockExport>;
using NiceBkEndProc = testing::NiceMock<MockBkEndProc>;

// A failing operation: leaves `err` in errno and returns `result`.
template <typename Result>
auto FailWith(int err, Result result) {
    return [err, result](auto&&...) {
        errno = err;
        return result;
    };
}

// A context carries the object that it works on; matches the one that carries `object`.
MATCHER_P(OnObject, object, "") {
    return arg->object.get() == object;
}

}  // namespace oxel::test
