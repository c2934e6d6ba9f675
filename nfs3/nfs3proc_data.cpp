// SPDX-License-Identifier: Apache-2.0
//
// The procedure that reads a file's data: READ. The descriptor lives for the call alone; what is
// worth keeping between calls the back end keeps behind its Open and Close.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "backend/BkEndProc.h"
#include "base/log.h"
#include "base/perf_counter.h"
#include "nfs3/nfs3proc.h"

namespace {

// A descriptor of the context's object, closed once: by Close, or at the end of the scope when an
// exception cuts the call short.
class OpenFile {
  public:
    OpenFile(OxelCtxt* ctxt, int fd) : ctxt_(ctxt), fd_(fd) {}
    ~OpenFile() {
        if (fd_ != -1) Close();
    }
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;

    int Descriptor() const { return fd_; }
    void Close() {
        PerfCounterWrapper counter("NFS", 63);
        (void)ctxt_->object->Close(ctxt_, std::exchange(fd_, -1));  // nobody could act on it
    }

  private:
    OxelCtxt* const ctxt_;
    int fd_;
};

}  // namespace

// ---- READ (RFC 1813 section 3.3.6) ----

bool_t FillREAD3FailRes(READ3res* result, nfsstat3 status) {
    result->status = status;
    result->resfail.file_attributes.attributes_follow = FALSE;
    return TRUE;
}

bool_t Handle_READ3(CallInfo3* call) {
    PerfCounterWrapper counter("NFS", 49);
    const READ3args& args = call->arguments().read;
    READ3res* result = &call->result.read;

    FSMPtr module;
    const nfsstat3 allowed =
        ValidateAndAuthorize(args.file, call->identity, module, call->exportPtr, kForRead);
    if (allowed != NFS3_OK) return FillREAD3FailRes(result, allowed);
    const BkEndProcPtr object = module->GetBkEndProc(call->exportPtr, args.file);
    if (!object) {
        OXEL_LOG(-1, "Error: Stale File Handle. FH [%s] IP [%s]", FH2Str(args.file).c_str(),
                 GetClientIPStr(call->transport->xp_raddr).c_str());
        return FillREAD3FailRes(result, NFS3ERR_STALE);
    }
    const std::string& path = object->GetPath();
    OXEL_LOG(4, "name [%s] Offset [%llu] count [%d]", BaseName(path).c_str(),
             static_cast<unsigned long long>(args.offset), static_cast<int>(args.count));

    OxelCtxt ctxt(call->identity, call->exportPtr, object);
    const int fd = object->Open(&ctxt, path, 0, 0);
    if (fd == -1) {
        const int err = errno;
        OXEL_LOG(-1, "Error: Failed to open [%s]. [%s]", BaseName(path).c_str(), strerror(err));
        return FillREAD3FailRes(result, SysErrToNFSErr(err, true));
    }
    OpenFile file(&ctxt, fd);
    OXEL_LOG(4, "Opened [%s]. fd [%d]", BaseName(path).c_str(), fd);

    const uint32_t size = static_cast<uint32_t>(std::min<uint64_t>(args.count, NFS3_MAXBUF_SIZE));
    ssize_t got = -1;
    int err = ENOMEM;
    char* buffer = call->ReadBuffer(uint64_t{size} + 1);  // the record's own, and kept by it
    if (buffer != nullptr) {
        if (gDummyReadsAndWrites) {
            // Zeros, or the client would see what an earlier call left in the buffer.
            std::memset(buffer, 0, size);
            got = size;
        } else {
            got = object->Read(&ctxt, fd, buffer, args.offset, size);
            err = errno;
        }
    }
    if (got < 0) {
        OXEL_LOG(-1, "Error: Failed to read [%d] bytes from [%s]. [%s]", static_cast<int>(size),
                 BaseName(path).c_str(), strerror(err));
        file.Close();
        OXEL_LOG(4, "Closed [%s]. fd [%d]", BaseName(path).c_str(), fd);
        return FillREAD3FailRes(result, SysErrToNFSErr(err, true));
    }
    file.Close();
    OXEL_LOG(4, "Closed [%s]. fd [%d]", BaseName(path).c_str(), fd);

    const uint32_t count = static_cast<uint32_t>(got);
    result->status = NFS3_OK;
    // Never sent: they would cost a stat that clients do not wait for.
    result->resok.file_attributes.attributes_follow = FALSE;
    result->resok.count = count;
    // By the transfer alone: a read that ends exactly at the end of the file is not the last one.
    result->resok.eof = count < size;
    result->resok.data.data_len = count;
    result->resok.data.data_val = buffer;
    call->replyBytes = count;
    OXEL_LOG(4, "ret = [%d] data [%p] eof [%d]", static_cast<int>(count),
             static_cast<void*>(buffer), result->resok.eof);
    return TRUE;
}

bool_t Free_READ3(CallInfo3* call) {
    READ3res* result = &call->result.read;
    // The buffer stays with the record.
    if (result->status == NFS3_OK) result->resok.data.data_val = nullptr;
    OXEL_LOG(4, "Freed memory");
    return TRUE;
}
