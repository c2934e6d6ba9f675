// SPDX-License-Identifier: Apache-2.0
//
// Directory listing: READDIR and READDIRPLUS. A cookie is the back end's stream position as it
// stands, so no state is kept between calls, and a cookie verifier is neither made nor looked at: a
// position that went stale is the back end's to deal with.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "backend/BkEndProc.h"
#include "base/log.h"
#include "base/perf_counter.h"
#include "nfs3/nfs3proc.h"
#include "nfs3/nfs3xdr.h"

namespace {

// What entries and a reply are taken to need on the wire, in bytes. The sums decide how many
// entries a page holds.
constexpr uint32_t kReplyBytes = 108;         // a reply without entries
constexpr uint32_t kEntryBytes = 20;          // a READDIR entry without its name
constexpr uint32_t kEntryPlusBytes = 164;     // a READDIRPLUS entry without its name
constexpr uint32_t kReplyMarginBytes = 2048;  // kept free below count and maxcount
constexpr uint32_t kNamesMarginBytes = 16;    // kept free below dircount

bool IsDot(const char* name) {
    return name[0] == '.' && name[1] == '\0';
}

bool IsDotDot(const char* name) {
    return name[0] == '.' && name[1] == '.' && name[2] == '\0';
}

uint32_t NameBytes(const char* name) {
    return GetXdrStringLength(static_cast<unsigned>(strlen(name)));
}

// A directory stream, closed once: by Close, or at the end of the scope when an exception cuts the
// call short.
class OpenDirectory {
  public:
    OpenDirectory(OxelCtxt* ctxt, DirStream* stream) : ctxt_(ctxt), stream_(stream) {}
    ~OpenDirectory() {
        if (stream_ != nullptr) Close();
    }
    OpenDirectory(const OpenDirectory&) = delete;
    OpenDirectory& operator=(const OpenDirectory&) = delete;

    void Seek(uint64_t position) { ctxt_->object->SeekDir(ctxt_, stream_, position); }
    int64_t Tell() { return ctxt_->object->TellDir(ctxt_, stream_); }
    struct dirent* Read() {
        return ctxt_->object->ReadDir(ctxt_, stream_);
    }
    void Close() { ctxt_->object->CloseDir(ctxt_, std::exchange(stream_, nullptr)); }

  private:
    OxelCtxt* const ctxt_;
    DirStream* stream_;
};

template <typename Entry>
struct EntryDeleter {
    void operator()(Entry* entry) const {
        free(entry->name);
        delete entry;
    }
};

// A zeroed record with its own copy of the name.
template <typename Entry>
std::unique_ptr<Entry, EntryDeleter<Entry>> NewEntry(const char* name) {
    std::unique_ptr<Entry, EntryDeleter<Entry>> entry(new Entry{});
    entry->name = strdup(name);
    if (entry->name == nullptr) throw std::bad_alloc();
    return entry;
}

// ".." of the top of a share is the top.
BkEndProcPtr ParentOf(OxelCtxt* ctxt, const BkEndProcPtr& directory) {
    BkEndProcPtr parent = directory->GetParent(ctxt);
    return parent ? parent : directory;
}

// A "." that stands at position 0 gets the cookie 1, as cookie 0 asks for the start again.
uint64_t CookieAfter(OpenDirectory& stream, const char* name) {
    const int64_t position = stream.Tell();
    if (position == 0 && IsDot(name)) return 1;
    return static_cast<uint64_t>(stream.Tell());
}

// Frees the list that hangs off `head`. A link counts only with its flag set.
template <typename Link>
void FreeEntries(Link* head) {
    Link link = *head;
    *head = Link{};
    while (link.present && link.entry != nullptr) {
        auto* entry = link.entry;
        link = entry->next;
        free(entry->name);
        delete entry;
    }
}

}  // namespace

// ---- READDIR (RFC 1813 section 3.3.16) ----

bool_t FillRDirP3FailRes(READDIR3res* result, nfsstat3 status) {
    result->status = status;
    return TRUE;
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): as their callers have it
bool_t FSDirEntToNFSDirEnt(OxelCtxt& ctxt, struct dirent* entry, dirlist3* link, BkEndProcPtr dir) {
    auto made = NewEntry<entry3>(entry->d_name);
    made->fileid = entry->d_ino;
    // The object itself is not needed; a name without one is not listed.
    BkEndProcPtr object;
    if (IsDot(made->name))
        object = dir;
    else if (IsDotDot(made->name))
        object = ParentOf(&ctxt, dir);
    else
        object = dir->FindChild(&ctxt, made->name);
    if (!object) return FALSE;

    OXEL_LOG(3, "name [%s] fileid [%llu]", made->name,
             static_cast<unsigned long long>(made->fileid));
    link->entry = made.release();
    return TRUE;
}

bool_t Handle_READDIR3(CallInfo3* call) {
    PerfCounterWrapper counter("NFS", 39);
    const READDIR3args& args = call->arguments().readdir;
    READDIR3res* result = &call->result.readdir;
    READDIR3resok* resok = &result->resok;

    FSMPtr module;
    const nfsstat3 allowed =
        ValidateAndAuthorize(args.dir, call->identity, module, call->exportPtr, kForRead);
    if (allowed != NFS3_OK) return FillRDirP3FailRes(result, allowed);
    OXEL_LOG(3, "cookie [%llx] cookieverf [%llx] count [%d]",
             static_cast<unsigned long long>(args.cookie),
             static_cast<unsigned long long>(args.cookieverf), static_cast<int>(args.count));
    const BkEndProcPtr directory = module->GetBkEndProc(call->exportPtr, args.dir);
    if (!directory) {
        OXEL_LOG(-1, "Error: Stale File Handle. [%s] IP [%s]", FH2Str(args.dir).c_str(),
                 GetClientIPStr(call->transport->xp_raddr).c_str());
        return FillRDirP3FailRes(result, NFS3ERR_STALE);
    }
    const std::string& path = directory->GetPath();
    OxelCtxt ctxt(call->identity, call->exportPtr, directory);
    DirStream* opened = directory->OpenDir(&ctxt, path);
    if (opened == nullptr) {
        // Both the text and the reply take the status for an errno once more.
        const nfsstat3 status = SysErrToNFSErr(errno, true);
        OXEL_LOG(-1, "Error: Failed to open directory [%s]. [%s]", BaseName(path).c_str(),
                 strerror(status));
        return FillRDirP3FailRes(result, SysErrToNFSErr(status, true));
    }
    OpenDirectory stream(&ctxt, opened);

    OXEL_LOG(3, "seeking to [%u] [%lld]", static_cast<unsigned>(args.cookie),
             static_cast<long long>(resok->cookieverf));
    stream.Seek(args.cookie);
    OXEL_LOG(3, "Seeked to [%lld]", static_cast<long long>(stream.Tell()));

    uint32_t replyBytes = kReplyBytes;
    int count = 0;
    const struct dirent* last = nullptr;
    // Every entry is reachable from the result as soon as it is made: the release frees it whatever
    // happens to the call.
    dirlist3* link = &resok->reply;
    *link = dirlist3{};
    while (replyBytes + kReplyMarginBytes < args.count) {
        struct dirent* found = stream.Read();
        last = found;
        if (found == nullptr) break;
        if (!FSDirEntToNFSDirEnt(ctxt, found, link, directory)) continue;
        link->present = TRUE;
        ++count;
        entry3* entry = link->entry;
        entry->cookie = CookieAfter(stream, entry->name);
        OXEL_LOG(3, "Cookie for new entry [%llx]", static_cast<unsigned long long>(entry->cookie));
        link = &entry->next;
        replyBytes += NameBytes(entry->name) + kEntryBytes;
        call->replyBytes += replyBytes;
    }
    // A limit too small for a first read says end of directory, too.
    resok->eof = last == nullptr;
    resok->cookieverf = 0;

    resok->dir_attributes.attributes_follow = TRUE;
    const int err = OSStatToNfsStat(&ctxt, path, &resok->dir_attributes.attributes);
    if (err != 0) {
        OXEL_LOG(-1, "Error: Failed to stat(%s). [%d:%s]", BaseName(path).c_str(), err,
                 strerror(err));
        resok->dir_attributes.attributes_follow = FALSE;
    }
    OXEL_LOG(3, "Returning [%d] entries.", count);
    stream.Close();
    return TRUE;
}

bool_t Free_READDIR3(CallInfo3* call) {
    READDIR3res* result = &call->result.readdir;
    if (result->status == NFS3_OK) FreeEntries(&result->resok.reply);
    OXEL_LOG(4, "Freed memory");
    return TRUE;
}

// ---- READDIRPLUS (section 3.3.17) ----

bool_t FillRDirP3FailRes(READDIRPLUS3res* result, nfsstat3 status) {
    result->status = status;
    result->resfail.dir_attributes.attributes_follow = FALSE;
    return TRUE;
}

bool_t FSDirEntToNFSDirEnt(OxelCtxt& ctxt, struct dirent* entry, dirlistplus3* link,
                           // NOLINTNEXTLINE(performance-unnecessary-value-param): as above
                           BkEndProcPtr dir) {
    auto made = NewEntry<entryplus3>(entry->d_name);
    made->name_handle.handle_follows = TRUE;
    const std::string& dirPath = dir->GetPath();
    BkEndProcPtr object;
    if (IsDot(made->name)) {
        object = dir;
        object->GetFileHandle(&made->name_handle.handle);
    } else if (IsDotDot(made->name)) {
        object = ParentOf(&ctxt, dir);
    } else {
        object = dir->FindChild(&ctxt, made->name);
    }
    if (!object) {
        OXEL_LOG(-1, "Error: Failed to find child [%s] under [%s].", made->name, dirPath.c_str());
        return FALSE;
    }
    object->GetFileHandle(&made->name_handle.handle);

    // Kept by the thread, because a page asks for thousands of them.
    static thread_local std::string path;
    path.assign(dirPath).append(1, '/').append(made->name);
    OxelCtxt objectCtxt(ctxt.id, ctxt.exportPtr, std::move(object));
    const int err = OSStatToNfsStat(&objectCtxt, path, &made->name_attributes.attributes);
    if (err != 0) {
        OXEL_LOG(-1, "Error: Failed to stat(%s). [%d:%s]", path.c_str(), err, strerror(err));
        made->name_attributes.attributes_follow = FALSE;
    } else {
        made->name_attributes.attributes_follow = TRUE;
        made->fileid = made->name_attributes.attributes.fileid;
    }

    OXEL_LOG(3, "name [%s] fileid [%llu]", made->name,
             static_cast<unsigned long long>(made->fileid));
    link->entry = made.release();
    return TRUE;
}

bool_t Handle_READDIRPLUS3(CallInfo3* call) {
    PerfCounterWrapper counter("NFS", 59);
    const READDIRPLUS3args& args = call->arguments().readdirplus;
    READDIRPLUS3res* result = &call->result.readdirplus;
    READDIRPLUS3resok* resok = &result->resok;

    FSMPtr module;
    const nfsstat3 allowed =
        ValidateAndAuthorize(args.dir, call->identity, module, call->exportPtr, kForRead);
    if (allowed != NFS3_OK) return FillRDirP3FailRes(result, allowed);
    OXEL_LOG(3, "cookie [%llx] cookieverf [%llx] dircount [%d] maxcount [%d]",
             static_cast<unsigned long long>(args.cookie),
             static_cast<unsigned long long>(args.cookieverf), static_cast<int>(args.dircount),
             static_cast<int>(args.maxcount));
    const BkEndProcPtr directory = module->GetBkEndProc(call->exportPtr, args.dir);
    if (!directory) {
        OXEL_LOG(-1, "Error: Stale File Handle. FH [%s] IP [%s]", FH2Str(args.dir).c_str(),
                 GetClientIPStr(call->transport->xp_raddr).c_str());
        return FillRDirP3FailRes(result, NFS3ERR_STALE);
    }
    const std::string& path = directory->GetPath();
    OxelCtxt ctxt(call->identity, call->exportPtr, directory);
    DirStream* opened = directory->OpenDir(&ctxt, path);
    if (opened == nullptr) {
        const nfsstat3 status = SysErrToNFSErr(errno, true);
        OXEL_LOG(-1, "Error: Failed to open directory [%s]. [%s]", BaseName(path).c_str(),
                 strerror(status));
        return FillRDirP3FailRes(result, SysErrToNFSErr(status, true));
    }
    OpenDirectory stream(&ctxt, opened);

    OXEL_LOG(3, "seeking to [%llu] [%lld]", static_cast<unsigned long long>(args.cookie),
             static_cast<long long>(resok->cookieverf));
    errno = 0;
    stream.Seek(args.cookie);
    OXEL_LOG(3, "Seeked to [%llu]", static_cast<unsigned long long>(stream.Tell()));

    uint32_t replyBytes = kReplyBytes;
    uint32_t namesBytes = 0;
    int count = 0;
    const struct dirent* last = nullptr;
    dirlistplus3* link = &resok->reply;
    *link = dirlistplus3{};
    while (replyBytes + kReplyMarginBytes < args.maxcount &&
           namesBytes + kNamesMarginBytes < args.dircount) {
        struct dirent* found = stream.Read();
        last = found;
        if (found == nullptr) break;
        if (!FSDirEntToNFSDirEnt(ctxt, found, link, directory)) continue;
        link->present = TRUE;
        ++count;
        entryplus3* entry = link->entry;
        entry->cookie = CookieAfter(stream, entry->name);
        OXEL_LOG(3, "Cookie for new entry [%llx]", static_cast<unsigned long long>(entry->cookie));
        link = &entry->next;
        const uint32_t nameBytes = NameBytes(entry->name);
        replyBytes += nameBytes + kEntryPlusBytes;
        namesBytes += nameBytes;
        call->replyBytes += replyBytes;
    }
    resok->eof = last == nullptr;
    if (resok->eof) OXEL_LOG(3, "End of directory reached.");
    resok->cookieverf = 0;

    resok->dir_attributes.attributes_follow = TRUE;
    const int err = OSStatToNfsStat(&ctxt, path, &resok->dir_attributes.attributes);
    if (err != 0) {
        OXEL_LOG(-1, "Error: Failed to stat(%s). [%d:%s]", BaseName(path).c_str(), err,
                 strerror(err));
        resok->dir_attributes.attributes_follow = FALSE;
    }
    OXEL_LOG(3, "Returning [%d] entries.", count);
    stream.Close();
    return TRUE;
}

bool_t Free_READDIRPLUS3(CallInfo3* call) {
    READDIRPLUS3res* result = &call->result.readdirplus;
    if (result->status == NFS3_OK) FreeEntries(&result->resok.reply);
    OXEL_LOG(4, "Freed memory");
    return TRUE;
}
