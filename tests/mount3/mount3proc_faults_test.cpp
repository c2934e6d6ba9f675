// SPDX-License-Identifier: Apache-2.0
//
// The MOUNT procedures when memory is short: the n-th allocation fails, for every n until the call
// succeeds. A leak checker sees what a failed call would leave behind.
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "backend/Export.h"
#include "backend/FSM.h"
#include "base/log.h"
#include "mount3/mount3proc.h"
#include "tests/mount3/mount3_fixture.h"

namespace {

// Allocations of this thread until one fails; negative: none does.
thread_local long allocationsLeft = -1;

bool AllocationFails() {
    if (allocationsLeft < 0) return false;
    if (allocationsLeft == 0) return true;  // and every one after it
    --allocationsLeft;
    return false;
}

class FailAfter {
  public:
    explicit FailAfter(long allocations) { allocationsLeft = allocations; }
    ~FailAfter() { allocationsLeft = -1; }
};

}  // namespace

void* operator new(size_t size) {
    void* memory = AllocationFails() ? nullptr : malloc(size != 0 ? size : 1);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}

void* operator new(size_t size, const std::nothrow_t&) noexcept {
    return AllocationFails() ? nullptr : malloc(size != 0 ? size : 1);
}

void* operator new[](size_t size) {
    return operator new(size);
}

void* operator new[](size_t size, const std::nothrow_t& nothrow) noexcept {
    return operator new(size, nothrow);
}

void operator delete(void* memory) noexcept {
    free(memory);
}

void operator delete(void* memory, size_t) noexcept {
    free(memory);
}

void operator delete[](void* memory) noexcept {
    free(memory);
}

void operator delete[](void* memory, size_t) noexcept {
    free(memory);
}

extern "C" char* __real_strdup(const char* text);
extern "C" char* __wrap_strdup(const char* text) {
    return AllocationFails() ? nullptr : __real_strdup(text);
}

// ExportCache::SaveToDisk() as one step that succeeds or fails: what it does inside is not under
// test here. Without a fault to come it is the real one.
extern "C" bool __real__ZN11ExportCache10SaveToDiskEv(ExportCache* exports);
extern "C" bool __wrap__ZN11ExportCache10SaveToDiskEv(ExportCache* exports) {
    if (allocationsLeft < 0) return __real__ZN11ExportCache10SaveToDiskEv(exports);
    if (AllocationFails()) throw std::bad_alloc();
    return true;
}

using oxel::test::MountTest;

namespace {

class PlainModule : public FSM {
  public:
    std::string GetHandleString(const nfs_fh3&) override {
        return "a text that is too long to be kept inside the string itself";
    }
    BkEndProcPtr GetBkEndProc(ExportPtr&, const nfs_fh3&) override { return {}; }
    bool GetExportForHandle(const nfs_fh3&, ExportPtr&) override { return false; }
};

class PlainExport : public Export {
  public:
    using Export::Export;
    int AddMountPoint(const CLuIPAddr&, nfs_fh3* root) override {
        root->nfh_len = 8;
        return 0;
    }
    FSModuleType GetFSMType() override { return kLocalModuleType; }
    unsigned IsWritable() override { return 1; }
    bool IsClientAllowed(XOIPAddr, const std::string&) override { return true; }
};

class MountFaults : public MountTest {
  protected:
    MountFaults() : levelBefore_(oxel::LogWriter::Level()) {
        oxel::LogWriter::SetLevel(0);  // successful calls are then silent
        FSMCache::SetFSM(kLocalModuleType, boost::make_shared<PlainModule>());
        Shares shares;
        for (unsigned id = 1; id <= 5; ++id)
            shares.push_back({id, boost::make_shared<PlainExport>("/srv/a/path/that/is/not/short/" +
                                                                  std::to_string(id))});
        gAllExports.Replace(shares);
        RequestPath("/srv/a/path/that/is/not/short/3");
    }
    ~MountFaults() override { oxel::LogWriter::SetLevel(levelBefore_); }

    // Runs `handler` with the n-th and all later allocations failing, for every n until it
    // succeeds; `check` runs after each failure. The record is as new for each run.
    template <typename Check>
    void FailEach(bool_t (*handler)(CallInfo3*), Check check) {
        for (long allocations = 0;; ++allocations) {
            ASSERT_LT(allocations, 10000) << "the call never succeeds";
            const char* path = record_.arguments().mnt.dirpath;
            record_.Reset();
            RequestPath(path);
            try {
                FailAfter fault(allocations);
                EXPECT_NE(0, handler(&record_));
            } catch (const std::bad_alloc&) {
                check();
                continue;
            }
            EXPECT_GT(allocations, 0) << "no allocation was ever made to fail";
            return;
        }
    }

  private:
    const int levelBefore_;
};

}  // namespace

TEST_F(MountFaults, AMntThatFailsLeavesNothingBehind) {
    FailEach(Handle_MNT3, [this] {
        EXPECT_EQ(nullptr, record_.result.mnt.mountinfo.auth_flavors.auth_flavors_val);
        EXPECT_EQ(0u, record_.result.mnt.mountinfo.auth_flavors.auth_flavors_len);
        EXPECT_EQ(1, Free_MNT3(&record_)) << "a release is as good as none";
    });
    EXPECT_EQ(MNT3_OK, record_.result.mnt.fhs_status);
    EXPECT_EQ(2u, record_.result.mnt.mountinfo.auth_flavors.auth_flavors_len);
    Free_MNT3(&record_);
}

TEST_F(MountFaults, AnExportListThatFailsLeavesNothingBehind) {
    FailEach(Handle_EXPORT3, [this] {
        EXPECT_FALSE(record_.result.exports.exports.present);
        EXPECT_EQ(nullptr, record_.result.exports.exports.node);
        EXPECT_EQ(1, Free_EXPORT3(&record_)) << "a release is as good as none";
    });
    size_t listed = 0;
    for (const exportlist3* link = &record_.result.exports.exports; link->present;
         link = &link->node->next)
        ++listed;
    EXPECT_EQ(5u, listed);
    Free_EXPORT3(&record_);
}

TEST_F(MountFaults, AnUmntThatFailsLeavesNothingBehind) {
    FailEach(Handle_UMNT3, [this] { EXPECT_EQ(1, Free_UMNT3(&record_)); });
}
