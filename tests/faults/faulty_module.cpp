// SPDX-License-Identifier: Apache-2.0
//
// Forwarding with faults.
#include "tests/faults/faulty_module.h"

#include <fcntl.h>
#include <sys/mman.h>

#include <algorithm>
#include <boost/make_shared.hpp>
#include <cerrno>
#include <cstring>
#include <new>
#include <stdexcept>
#include <utility>

#include "backend/BkEndProc.h"
#include "backend/Export.h"
#include "backend/ExportCache.h"
#include "backend/FSM.h"
#include "base/unique_fd.h"
#include "modules/local/local_module.h"
#include "tests/faults/fault_plan.h"

namespace oxel::test {
namespace {

SharedFaults* faults = nullptr;

enum class Verdict { kPass, kFail, kShort };

// Counts a call and says what is to become of it; a failure's reason is in errno.
Verdict Judge(Operation operation) {
    const auto index = static_cast<uint32_t>(operation);
    const uint32_t call = ++faults->calls[index];
    if (faults->armed.load(std::memory_order_acquire) == 0) return Verdict::kPass;
    const FaultPlan plan = faults->plan;
    if ((plan.operations & Bit(operation)) == 0) return Verdict::kPass;
    const uint32_t number = ++faults->counted;
    if (number < plan.first || number > plan.last || (number - plan.first) % plan.every != 0)
        return Verdict::kPass;
    faults->hitOperation = index;
    faults->hitCall = call;
    const bool firstHit = faults->hits++ == 0;
    switch (plan.action) {
        case Action::kFail:
            break;
        case Action::kThrowBadAlloc:
            throw std::bad_alloc();
        case Action::kThrowRuntimeError:
            throw std::runtime_error("of the back end");
        case Action::kThrowNumber:
            throw 42;
        case Action::kShort:
            if (plan.error == 0 || firstHit) return Verdict::kShort;
            break;
        case Action::kHold:
            ++faults->held;
            WakeAll(faults->held);
            while (faults->holding != 0) WaitWhile(faults->holding, 1, 1000);
            if (plan.error == 0) return Verdict::kPass;
            break;
        case Action::kForgetIdle:
            DropIdleLocalFiles(0);
            return Verdict::kPass;
    }
    errno = plan.error;
    return Verdict::kFail;
}

bool Passes(Operation operation) {
    return Judge(operation) != Verdict::kFail;
}

class FaultyObject;
BkEndProcPtr Inner(const BkEndProcPtr& object);

// The same context about the inner module's share and objects.
class InnerContext {
  public:
    explicit InnerContext(OxelCtxt* outer)
        : outer_(*outer),
          inner_(outer->id, WithoutFaults(outer->exportPtr), Inner(outer->object),
                 Inner(outer->secondObject)) {
        inner_.flag = outer->flag;
    }
    ~InnerContext() { outer_.flag = inner_.flag; }
    operator OxelCtxt*() { return &inner_; }

  private:
    OxelCtxt& outer_;
    OxelCtxt inner_;
};

class FaultyObject final : public BkEndProc {
  public:
    explicit FaultyObject(BkEndProcPtr inner) : inner_(std::move(inner)) {}
    const BkEndProcPtr& InnerObject() const { return inner_; }

    // Null for null; errno as it was.
    static BkEndProcPtr Around(BkEndProcPtr inner) {
        const int err = errno;
        BkEndProcPtr outer;
        if (inner) outer = boost::make_shared<FaultyObject>(std::move(inner));
        errno = err;
        return outer;
    }

    int Stat(OxelCtxt* ctxt, const std::string& path, struct stat* out) override {
        return Passes(Operation::kStat) ? inner_->Stat(InnerContext(ctxt), path, out) : -1;
    }
    int Access(OxelCtxt* ctxt, const std::string& path, int mode) override {
        return Passes(Operation::kAccess) ? inner_->Access(InnerContext(ctxt), path, mode) : -1;
    }
    int Open(OxelCtxt* ctxt, const std::string& path, int flags, int mode) override {
        return Passes(Operation::kOpen) ? inner_->Open(InnerContext(ctxt), path, flags, mode) : -1;
    }
    int Truncate(OxelCtxt* ctxt, const std::string& path, uint64_t size) override {
        return Passes(Operation::kTruncate) ? inner_->Truncate(InnerContext(ctxt), path, size) : -1;
    }
    ssize_t Read(OxelCtxt* ctxt, int fd, void* buffer, uint64_t offset, uint32_t count) override {
        const Verdict verdict = Judge(Operation::kRead);
        if (verdict == Verdict::kFail) return -1;
        if (verdict == Verdict::kShort) count = std::min(count, faults->plan.bytes);
        return inner_->Read(InnerContext(ctxt), fd, buffer, offset, count);
    }
    ssize_t Write(OxelCtxt* ctxt, int fd, const void* data, uint64_t offset, uint32_t count,
                  stable_how stable) override {
        const Verdict verdict = Judge(Operation::kWrite);
        if (verdict == Verdict::kFail) return -1;
        if (verdict == Verdict::kShort) count = std::min(count, faults->plan.bytes);
        return count == 0 ? 0 : inner_->Write(InnerContext(ctxt), fd, data, offset, count, stable);
    }
    // As close(2): whatever it tells, the descriptor is closed.
    int Close(OxelCtxt* ctxt, int fd) override {
        const int result = inner_->Close(InnerContext(ctxt), fd);
        return Passes(Operation::kClose) ? result : -1;
    }
    int Unlink(OxelCtxt* ctxt, const std::string& path) override {
        return Passes(Operation::kUnlink) ? inner_->Unlink(InnerContext(ctxt), path) : -1;
    }
    DirStream* OpenDir(OxelCtxt* ctxt, const std::string& path) override {
        return Passes(Operation::kOpenDir) ? inner_->OpenDir(InnerContext(ctxt), path) : nullptr;
    }
    void SeekDir(OxelCtxt* ctxt, DirStream* stream, uint64_t position) override {
        Passes(Operation::kSeekDir);
        inner_->SeekDir(InnerContext(ctxt), stream, position);
    }
    struct dirent* ReadDir(OxelCtxt* ctxt, DirStream* stream) override {
        return Passes(Operation::kReadDir) ? inner_->ReadDir(InnerContext(ctxt), stream) : nullptr;
    }
    int64_t TellDir(OxelCtxt* ctxt, DirStream* stream) override {
        Passes(Operation::kTellDir);
        return inner_->TellDir(InnerContext(ctxt), stream);
    }
    void CloseDir(OxelCtxt* ctxt, DirStream* stream) override {
        inner_->CloseDir(InnerContext(ctxt), stream);
        Passes(Operation::kCloseDir);
    }
    int RemoveDir(OxelCtxt* ctxt, const std::string& path) override {
        return Passes(Operation::kRemoveDir) ? inner_->RemoveDir(InnerContext(ctxt), path) : -1;
    }
    int Chmod(OxelCtxt* ctxt, const std::string& path, mode_t mode) override {
        return Passes(Operation::kChmod) ? inner_->Chmod(InnerContext(ctxt), path, mode) : -1;
    }
    int SetTimes(OxelCtxt* ctxt, const std::string& path, const struct timeval& accessTime,
                 const struct timeval& modificationTime) override {
        return Passes(Operation::kSetTimes)
                   ? inner_->SetTimes(InnerContext(ctxt), path, accessTime, modificationTime)
                   : -1;
    }
    int Chown(OxelCtxt* ctxt, const std::string& path, uid_t uid, gid_t gid) override {
        return Passes(Operation::kChown) ? inner_->Chown(InnerContext(ctxt), path, uid, gid) : -1;
    }
    int Rename(OxelCtxt* ctxt, const std::string& fromName, const std::string& toName) override {
        return Passes(Operation::kRename) ? inner_->Rename(InnerContext(ctxt), fromName, toName)
                                          : -1;
    }
    int HardLink(OxelCtxt* ctxt, const std::string& existingPath,
                 const std::string& linkPath) override {
        return Passes(Operation::kHardLink)
                   ? inner_->HardLink(InnerContext(ctxt), existingPath, linkPath)
                   : -1;
    }
    int CreateSymlink(OxelCtxt* ctxt, const std::string& target,
                      const std::string& linkPath) override {
        return Passes(Operation::kCreateSymlink)
                   ? inner_->CreateSymlink(InnerContext(ctxt), target, linkPath)
                   : -1;
    }
    ssize_t ReadLink(OxelCtxt* ctxt, const std::string& path, char* buffer,
                     size_t capacity) override {
        return Passes(Operation::kReadLink)
                   ? inner_->ReadLink(InnerContext(ctxt), path, buffer, capacity)
                   : -1;
    }
    BkEndProcPtr CreateChild(OxelCtxt* ctxt, const std::string& name, int flags,
                             mode_t mode) override {
        if (!Passes(Operation::kCreateChild)) return nullptr;
        return Around(inner_->CreateChild(InnerContext(ctxt), name, flags, mode));
    }
    BkEndProcPtr CreateChildDir(OxelCtxt* ctxt, const std::string& name, mode_t mode) override {
        if (!Passes(Operation::kCreateChildDir)) return nullptr;
        return Around(inner_->CreateChildDir(InnerContext(ctxt), name, mode));
    }
    BkEndProcPtr FindChild(OxelCtxt* ctxt, const std::string& name) override {
        if (!Passes(Operation::kFindChild)) return nullptr;
        return Around(inner_->FindChild(InnerContext(ctxt), name));
    }
    BkEndProcPtr GetParent(OxelCtxt* ctxt) override {
        if (!Passes(Operation::kGetParent)) return nullptr;
        return Around(inner_->GetParent(InnerContext(ctxt)));
    }
    int SyncFs(OxelCtxt* ctxt, int fd) override {
        return Passes(Operation::kSyncFs) ? inner_->SyncFs(InnerContext(ctxt), fd) : -1;
    }
    long PathConf(OxelCtxt* ctxt, const std::string& path, int name) override {
        return Passes(Operation::kPathConf) ? inner_->PathConf(InnerContext(ctxt), path, name) : -1;
    }
    int StatFs(OxelCtxt* ctxt, const std::string& path, struct statfs* out) override {
        return Passes(Operation::kStatFs) ? inner_->StatFs(InnerContext(ctxt), path, out) : errno;
    }
    const std::string& GetPath() const override {
        Passes(Operation::kGetPath);
        return inner_->GetPath();
    }
    void GetFileHandle(nfs_fh3* out) const override {
        Passes(Operation::kGetFileHandle);
        inner_->GetFileHandle(out);
    }

  private:
    const BkEndProcPtr inner_;
};

BkEndProcPtr Inner(const BkEndProcPtr& object) {
    return object ? static_cast<FaultyObject&>(*object).InnerObject() : nullptr;
}

class FaultyExport final : public Export {
  public:
    FaultyExport(ExportPtr inner, uint32_t id)
        : Export(inner->GetPath()), inner_(std::move(inner)), id_(id) {}
    const ExportPtr& InnerShare() const { return inner_; }
    uint32_t Id() const { return id_; }

    int AddMountPoint(const CLuIPAddr& client, nfs_fh3* root) override {
        return Passes(Operation::kAddMountPoint) ? inner_->AddMountPoint(client, root) : -1;
    }
    FSModuleType GetFSMType() override { return inner_->GetFSMType(); }  // asked by modules too
    unsigned IsWritable() override {
        return Passes(Operation::kIsWritable) ? inner_->IsWritable() : 0;
    }
    bool IsClientAllowed(XOIPAddr client, const std::string& host) override {
        return Passes(Operation::kIsClientAllowed) && inner_->IsClientAllowed(client, host);
    }

  private:
    const ExportPtr inner_;
    const uint32_t id_;
};

class FaultyModule final : public FSM {
  public:
    explicit FaultyModule(FSMPtr inner) : inner_(std::move(inner)) {}

    std::string GetHandleString(const nfs_fh3& handle) override {
        Passes(Operation::kGetHandleString);
        return inner_->GetHandleString(handle);
    }
    BkEndProcPtr GetBkEndProc(ExportPtr& share, const nfs_fh3& handle) override {
        if (!Passes(Operation::kGetBkEndProc)) return nullptr;
        // The second handle of a RENAME or LINK may be another share's, which the inner module
        // would not find in the registry: faulty shares stand there.
        ExportPtr own = share;
        if (static_cast<FaultyExport&>(*share).Id() != handle.shareId &&
            (!gAllExports.FindExportById(handle.shareId, own) || !own))
            return nullptr;
        ExportPtr inner = WithoutFaults(own);
        return FaultyObject::Around(inner_->GetBkEndProc(inner, handle));
    }
    bool GetExportForHandle(const nfs_fh3& handle, ExportPtr& share) override {
        return Passes(Operation::kGetExportForHandle) && inner_->GetExportForHandle(handle, share);
    }

  private:
    const FSMPtr inner_;
};

}  // namespace

bool MapFaults(const std::string& file, std::string* error) {
    const UniqueFd fd(open(file.c_str(), O_RDWR | O_CLOEXEC));
    void* mapped =
        fd ? mmap(nullptr, sizeof(SharedFaults), PROT_READ | PROT_WRITE, MAP_SHARED, fd.Get(), 0)
           : MAP_FAILED;
    if (mapped == MAP_FAILED) {
        *error = file + ": " + strerror(errno);
        return false;
    }
    faults = static_cast<SharedFaults*>(mapped);
    return true;
}

FSMPtr WithFaults(FSMPtr module) {
    return boost::make_shared<FaultyModule>(std::move(module));
}

ExportPtr WithFaults(ExportPtr share, const ShareConfig& config) {
    return share ? boost::make_shared<FaultyExport>(std::move(share), config.id) : nullptr;
}

ExportPtr WithoutFaults(const ExportPtr& share) {
    return share ? static_cast<FaultyExport&>(*share).InnerShare() : nullptr;
}

}  // namespace oxel::test
