// SPDX-License-Identifier: Apache-2.0
//
// Directory streams. A stream lives for one call; positions are the kernel's, so that the next call
// resumes with nothing kept in between.
#include <fcntl.h>

#include <cstring>

#include "modules/local/call_state.h"
#include "modules/local/dir_reader.h"
#include "modules/local/object.h"
#include "modules/local/syscalls.h"

namespace oxel::local {
namespace {

class LocalDirStream final : public DirStream {
  public:
    LocalDirStream(UniqueFd fd, std::shared_ptr<ShareRoot> root)
        : reader(std::move(fd)), share(std::move(root)), batch(share->Places()) {}
    DirReader reader;
    const std::shared_ptr<ShareRoot> share;
    // What a listing looks up while the stream is open is written when it is closed, before the
    // client gets the handles.
    const PlacesBatch batch;
    struct dirent entry;
};

LocalDirStream* Local(DirStream* stream) {
    return static_cast<LocalDirStream*>(stream);
}

}  // namespace

DirStream* LocalObject::OpenDir(OxelCtxt* ctxt, const std::string& path) {
    return On<DirStream*>(ctxt, path, nullptr, [&](LocalObject& object) -> DirStream* {
        const CallerRights rights(ctxt, object, CallerRights::Need::kRead);
        if (!rights) return nullptr;
        if (object.node_->Type() != S_IFDIR) {
            errno = ENOTDIR;
            return nullptr;
        }
        if (!rights.Become()) return nullptr;
        UniqueFd fd = OpenDirectory(object.node_->Fd());
        if (!fd) return nullptr;
        auto* stream = new LocalDirStream(std::move(fd), object.share_);
        ctxt->flag = true;  // names that are looked for are the listing's
        return stream;
    });
}

void LocalObject::SeekDir(OxelCtxt*, DirStream* stream, uint64_t position) {
    Local(stream)->reader.Seek(position);
}

struct dirent* LocalObject::ReadDir(OxelCtxt*, DirStream* stream) {
    LocalDirStream& local = *Local(stream);
    DirReader::Entry next;
    size_t length;
    do {
        if (!local.reader.Next(&next)) return nullptr;
        length = strlen(next.name);
        // Some file systems have names that no client could send back.
    } while (length >= sizeof local.entry.d_name);
    local.entry.d_ino = next.inode;
    local.entry.d_off = next.next;
    local.entry.d_type = next.type;
    local.entry.d_reclen = sizeof local.entry;
    memcpy(local.entry.d_name, next.name, length + 1);
    CallState::Get().Listed(next.inode);
    // ".." of the root is the root; what lies above the share is not the client's business.
    if (IsShareRoot() && strcmp(local.entry.d_name, "..") == 0) local.entry.d_ino = node_->Inode();
    return &local.entry;
}

int64_t LocalObject::TellDir(OxelCtxt*, DirStream* stream) {
    return Local(stream)->reader.Position();
}

void LocalObject::CloseDir(OxelCtxt* ctxt, DirStream* stream) {
    ctxt->flag = false;
    delete stream;
}

}  // namespace oxel::local
