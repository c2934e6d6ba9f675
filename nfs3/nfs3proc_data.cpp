// SPDX-License-Identifier: Apache-2.0
//
// The procedures that move a file's data: READ, WRITE and COMMIT. The descriptor lives for the call
// alone; what is worth keeping between calls the back end keeps behind its Open and Close.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "backend/BkEndProc.h"
#include "backend/OxelServiceGlobals.h"
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

// The start of the service, so that a client sees by another verifier that the server has been
// restarted, and sends again what it had not committed (RFC 1813 section 3.3.7). On the wire: four
// zero bytes, then the seconds.
writeverf3 WriteVerifier() {
    return OxelServiceGlobals::serverStartTime;
}

// WRITE and COMMIT fail alike.
template <typename Result>
bool_t FillFileFailRes(Result* result, nfsstat3 status) {
    result->status = status;
    ClearFollows(&result->resfail.file_wcc);
    return TRUE;
}

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

// ---- WRITE (section 3.3.7) ----

bool_t FillWriteFailRes(WRITE3res* result, nfsstat3 status) {
    return FillFileFailRes(result, status);
}

bool_t Handle_WRITE3(CallInfo3* call) {
    PerfCounterWrapper counter("NFS", 50);
    WRITE3args& args = call->arguments().write;
    WRITE3res* result = &call->result.write;

    FSMPtr module;
    const nfsstat3 allowed =
        ValidateAndAuthorize(args.file, call->identity, module, call->exportPtr, kForWrite);
    if (allowed != NFS3_OK) return FillWriteFailRes(result, allowed);
    const BkEndProcPtr object = module->GetBkEndProc(call->exportPtr, args.file);
    if (!object) {
        OXEL_LOG(-1, "Error: Stale File Handle. FH [%s] IP [%s]", FH2Str(args.file).c_str(),
                 GetClientIPStr(call->transport->xp_raddr).c_str());
        return FillWriteFailRes(result, NFS3ERR_STALE);
    }
    const std::string& path = object->GetPath();
    OXEL_LOG(4, "name [%s] offset [%llu] count [%u] stable [%u]", BaseName(path).c_str(),
             static_cast<unsigned long long>(args.offset), args.count, args.stable);

    OxelCtxt ctxt(call->identity, call->exportPtr, object);
    wcc_data* wcc = &result->resok.file_wcc;
    const int beforeErr = OSStatToWccAttr(&ctxt, path, &wcc->before.attributes);
    if (beforeErr != 0) return FillWriteFailRes(result, SysErrToNFSErr(beforeErr, true));
    // Never sent: they and the write are not one step, and a client would conclude from them that
    // nobody else has written in between.
    wcc->before.attributes_follow = FALSE;

    const int fd = object->Open(&ctxt, path, 1, 0);
    if (fd == -1) {
        const int err = errno;
        OXEL_LOG(-1, "Error: Failed to open [%s] for writing. Error [%s]", BaseName(path).c_str(),
                 strerror(err));
        return FillWriteFailRes(result, SysErrToNFSErr(err, true));
    }
    OpenFile file(&ctxt, fd);
    OXEL_LOG(4, "Opened [%s]. fd [%d]", BaseName(path).c_str(), fd);

    // Short writes are gone on with; what was written before a failure stays written. The sum is
    // wider than the count: no answer of a back end can make it start anew.
    uint64_t written = 0;
    ssize_t now = 0;
    int err = 0;
    while (written < args.count) {
        const uint32_t rest = static_cast<uint32_t>(args.count - written);
        if (gDummyReadsAndWrites) {
            now = rest;
        } else {
            now = object->Write(&ctxt, fd, args.data() + written, args.offset + written, rest,
                                args.stable);
            err = errno;
        }
        if (now == 0) {
            // A back end that can write nothing has to say why; asked again and again, it would
            // hold this thread for ever.
            now = -1;
            err = EIO;
        }
        if (now < 0) break;
        OXEL_LOG(4, "wrote [%d] bytes. fd [%d]", static_cast<int>(now), fd);
        written += static_cast<uint64_t>(now);
    }
    file.Close();
    if (now < 0) {
        OXEL_LOG(-1, "Error: Failed to write to [%s]. Error [%s]", BaseName(path).c_str(),
                 strerror(err));
        OXEL_LOG(4, "Closed [%s]. fd [%d]", BaseName(path).c_str(), fd);
        return FillWriteFailRes(result, SysErrToNFSErr(err, true));
    }
    OXEL_LOG(4, "Closed [%s]. fd [%d]", BaseName(path).c_str(), fd);

    result->status = NFS3_OK;
    result->resok.count = args.count;
    // The back end was told with every Write, and has made the data as stable as that.
    result->resok.committed = args.stable;
    wcc->after.attributes_follow = OSStatToNfsStat(&ctxt, path, &wcc->after.attributes) == 0;
    result->resok.verf = WriteVerifier();
    return TRUE;
}

bool_t Free_WRITE3(CallInfo3*) {
    OXEL_LOG(4, "Freed memory");
    return TRUE;
}

// ---- COMMIT (section 3.3.21) ----

bool_t FillCommitFailRes(COMMIT3res* result, nfsstat3 status) {
    return FillFileFailRes(result, status);
}

bool_t Handle_COMMIT3(CallInfo3* call) {
    PerfCounterWrapper counter("NFS", 56);
    const COMMIT3args& args = call->arguments().commit;
    COMMIT3res* result = &call->result.commit;

    FSMPtr module;
    const nfsstat3 allowed =
        ValidateAndAuthorize(args.file, call->identity, module, call->exportPtr, kForWrite);
    if (allowed != NFS3_OK) return FillCommitFailRes(result, allowed);
    const BkEndProcPtr object = module->GetBkEndProc(call->exportPtr, args.file);
    // Not stale, as elsewhere, and without a word: a file that was removed before its data were
    // committed is nothing to tell an operator of.
    if (!object) return FillCommitFailRes(result, NFS3ERR_NOENT);

    const std::string& path = object->GetPath();
    OxelCtxt ctxt(call->identity, call->exportPtr, object);
    wcc_data* wcc = &result->resok.file_wcc;
    if (OSStatToWccAttr(&ctxt, path, &wcc->before.attributes) != 0) {
        // The status stays as it came, NFS3_OK, and so does the verifier: it is 0, which no WRITE
        // has answered, and makes the client send its data again.
        ClearFollows(wcc);
        return TRUE;
    }
    wcc->before.attributes_follow = TRUE;

    const int fd = object->Open(&ctxt, path, 2, 0);
    if (fd == -1) {
        const int err = errno;
        OXEL_LOG(-1, "Error: Failed to open [%s] for reading. Error [%s]", BaseName(path).c_str(),
                 strerror(err));
        return FillCommitFailRes(result, SysErrToNFSErr(err, true));
    }
    OpenFile file(&ctxt, fd);
    OXEL_LOG(4, "Opened [%s]. fd [%d]", BaseName(path).c_str(), fd);

    // The whole file system, whatever range the client asks for.
    if (object->SyncFs(&ctxt, fd) == -1) {
        const int err = errno;
        OXEL_LOG(-1, "Error: Failed to sync data for filesystem containing [%s]. Error [%s]",
                 BaseName(path).c_str(), strerror(err));
        file.Close();
        OXEL_LOG(4, "Closed [%s]. fd [%d]", BaseName(path).c_str(), fd);
        return FillCommitFailRes(result, SysErrToNFSErr(err, true));
    }
    file.Close();

    result->status = NFS3_OK;
    wcc->after.attributes_follow = OSStatToNfsStat(&ctxt, path, &wcc->after.attributes) == 0;
    result->resok.verf = WriteVerifier();
    return TRUE;
}

bool_t Free_COMMIT3(CallInfo3*) {
    OXEL_LOG(4, "Freed memory");
    return TRUE;
}
