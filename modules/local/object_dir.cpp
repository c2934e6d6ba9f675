// SPDX-License-Identifier: Apache-2.0
//
// Directory streams. A stream lives for one call; positions are the kernel's, so that the next call
// resumes with nothing kept in between.
#include <fcntl.h>

#include <cstring>

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
        UniqueFd fd = OpenMakingRoom([&] {
            return open(ProcPath(object.node_->Fd()).Get(),
                        O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
        });
        return fd ? new LocalDirStream(std::move(fd), object.share_) : nullptr;
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
    // ".." of the root is the root; what lies above the share is not the client's business.
    if (IsShareRoot() && strcmp(local.entry.d_name, "..") == 0) local.entry.d_ino = node_->Inode();
    return &local.entry;
}

int64_t LocalObject::TellDir(OxelCtxt*, DirStream* stream) {
    return Local(stream)->reader.Position();
}

void LocalObject::CloseDir(OxelCtxt*, DirStream* stream) {
    delete stream;
}

}  // namespace oxel::local
