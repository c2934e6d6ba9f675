// SPDX-License-Identifier: Apache-2.0
//
// Attributes of objects: reading, checking access, changing.
#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "backend/FdCache.h"
#include "modules/local/call_state.h"
#include "modules/local/metadata_sync.h"
#include "modules/local/object.h"
#include "modules/local/syscalls.h"

namespace oxel::local {

// A stat by handle needs no rights: whoever has the handle has been given it.
int LocalObject::Stat(OxelCtxt* ctxt, const std::string& path, struct stat* out) {
    return On(ctxt, path, -1, [&](LocalObject& object) { return object.StatSelf(out); });
}

int LocalObject::StatSelf(struct stat* out) {
    if (CallState::Get().TakeStat(*node_, out)) return 0;
    struct stat st;
    if (fstat(node_->Fd(), &st) != 0) return -1;
    node_->Saw(st);
    CallState::Get().Reread(*node_, st);
    *out = st;
    return 0;
}

int LocalObject::Access(OxelCtxt* ctxt, const std::string& path, int mode) {
    return On(ctxt, path, -1, [&](LocalObject& object) { return object.AccessSelf(ctxt, mode); });
}

int LocalObject::AccessSelf(OxelCtxt* ctxt, int mode) {
    const auto need = (mode & W_OK) != 0 ? CallerRights::Need::kModify : CallerRights::Need::kRead;
    const CallerRights rights(ctxt, *this, need);
    if (!rights || !rights.Become()) return -1;
    return AccessFd(node_->Fd(), mode);
}

void LocalObject::Changing() {
    CallState::Get().ForgetStats();
}

bool LocalObject::AccessChanged(struct stat* now) {
    gFdCache.Forget(node_->Device(), node_->Inode());
    if (fstat(node_->Fd(), now) != 0) return false;
    node_->Saw(*now);
    return true;
}

// CREATE and MKDIR are followed by a chmod and a chown to what the new object has already; only the
// time of the last change is moved by that, which is not worth another turn of the disk.
int LocalObject::SyncAccess(const struct stat& before) {
    struct stat now;
    if (AccessChanged(&now) && now.st_mode == before.st_mode && now.st_uid == before.st_uid &&
        now.st_gid == before.st_gid) {
        return 0;
    }
    return SyncAttributes(*share_, *node_);
}

// What the object is like; when the running call has made it, what it was made like.
bool LocalObject::StatUnlessJustMade(struct stat* st) const {
    return CallState::Get().StatWhenMade(*node_, st) || fstat(node_->Fd(), st) == 0;
}

int LocalObject::Chmod(OxelCtxt* ctxt, const std::string& path, mode_t mode) {
    return On(ctxt, path, -1, [&](LocalObject& object) { return object.ChmodSelf(ctxt, mode); });
}

int LocalObject::ChmodSelf(OxelCtxt* ctxt, mode_t mode) {
    const CallerRights rights(ctxt, *this, CallerRights::Need::kModify);
    if (!rights || !rights.Become()) return -1;
    // Clients send a mode with SYMLINK; a symbolic link has none that means anything.
    if (node_->Type() == S_IFLNK) return 0;
    mode &= 07777;
    struct stat before;
    const bool justMade = CallState::Get().StatWhenMade(*node_, &before);
    if (!justMade && fstat(node_->Fd(), &before) != 0) return -1;
    // MKDIR names a mode as mkdir(2) does, and gets the set-group-id bit from the directory above
    // as there. Its caller need not be in the group, and then could not set the bit himself.
    struct stat above;
    if (node_->Type() == S_IFDIR && StatAbove(&above) && (above.st_mode & S_ISGID) != 0) {
        mode |= before.st_mode & S_ISGID;
        if ((before.st_mode & 07777) == mode) return 0;
    }
    // CREATE has named the mode when it made the file.
    if (justMade && (before.st_mode & 07777) == mode) return 0;
    Changing();
    const int fd = node_->FileFd();
    if ((fd >= 0 ? fchmod(fd, mode) : chmod(ProcPath(node_->Fd()).Get(), mode)) != 0) return -1;
    return SyncAccess(before);
}

int LocalObject::Chown(OxelCtxt* ctxt, const std::string& path, uid_t uid, gid_t gid) {
    return On(ctxt, path, -1, [&](LocalObject& object) {
        const bool gift = path == "/" && uid == ctxt->id.uid && gid == ctxt->id.gid &&
                          CallState::Get().WasNamed(*object.node_);
        return gift ? object.GiveToCaller(ctxt) : object.ChownSelf(ctxt, uid, gid);
    });
}

// The last step of CREATE and MKDIR. A local call ends with the object being the caller's too, but
// the group that its directory imposes stays, and so do the set-id bits that were asked for: a
// chown, even one that changes nothing, takes them away.
int LocalObject::GiveToCaller(OxelCtxt* ctxt) {
    const CallerRights rights(ctxt, *this, CallerRights::Need::kModify);
    if (!rights || !rights.Become()) return -1;
    struct stat st;
    if (!StatUnlessJustMade(&st)) return -1;
    const uid_t uid = rights.Who().uid;
    const gid_t gid = HasInheritedGroup(st) ? st.st_gid : rights.Who().gid;
    if (st.st_uid == uid && st.st_gid == gid) return 0;
    Changing();
    if (fchownat(node_->Fd(), "", uid, gid, AT_EMPTY_PATH) != 0) return -1;
    struct stat now;
    (void)AccessChanged(&now);
    return SyncAttributes(*share_, *node_);
}

bool LocalObject::HasInheritedGroup(const struct stat& st) const {
    gid_t group;
    if (CallState::Get().GroupWhenMade(*node_, &group)) return group == st.st_gid;
    // A call that is repeated because its reply was lost finds what the first one made.
    struct stat above;
    return StatAbove(&above) && (above.st_mode & S_ISGID) != 0 && above.st_gid == st.st_gid;
}

// The attributes of the directory in which the running call came to this object by its name. False
// when it came there otherwise.
bool LocalObject::StatAbove(struct stat* st) const {
    if (!CallState::Get().WasNamed(*node_)) return false;
    const size_t slash = std::max<size_t>(path_.rfind('/'), 1);
    const Ptr directory = CallState::Get().ByPath(*share_, path_.substr(0, slash));
    return directory && fstat(directory->node_->Fd(), st) == 0;
}

int LocalObject::ChownSelf(OxelCtxt* ctxt, uid_t uid, gid_t gid) {
    const CallerRights rights(ctxt, *this, CallerRights::Need::kModify);
    if (!rights || !rights.Become()) return -1;
    // A new object is given to its caller under the ids that came with the call, which are not the
    // ones he acts with when he is squashed or when the server has but one user.
    rights.MapOwnIds(&uid, &gid);
    Changing();
    struct stat before;
    if (fstat(node_->Fd(), &before) != 0) return -1;
    if (fchownat(node_->Fd(), "", uid, gid, AT_EMPTY_PATH) != 0) return -1;
    return SyncAccess(before);
}

int LocalObject::SetTimes(OxelCtxt* ctxt, const std::string& path, const struct timeval& accessTime,
                          const struct timeval& modificationTime) {
    return On(ctxt, path, -1, [&](LocalObject& object) {
        const struct timespec times[2] = {
            {accessTime.tv_sec, accessTime.tv_usec * 1000},
            {modificationTime.tv_sec, modificationTime.tv_usec * 1000}};
        return object.SetTimesSelf(ctxt, times);
    });
}

namespace {

bool IsNow(const struct timespec& time) {
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return std::llabs(int64_t{now.tv_sec} - time.tv_sec) <= 1;
}

}  // namespace

int LocalObject::SetTimesSelf(OxelCtxt* ctxt, const struct timespec (&times)[2]) {
    const CallerRights rights(ctxt, *this, CallerRights::Need::kModify);
    if (!rights || !rights.Become()) return -1;
    Changing();
    if (utimensat(node_->Fd(), "", times, AT_EMPTY_PATH) == 0) {
        return SyncAttributes(*share_, *node_);
    }
    // Whoever may write a file may set its times to now, though only the owner may set others; here
    // "now" arrives as a number like any other.
    if (errno != EPERM || !IsNow(times[0]) || !IsNow(times[1])) return -1;
    const struct timespec now[2] = {{0, UTIME_NOW}, {0, UTIME_NOW}};
    if (utimensat(node_->Fd(), "", now, AT_EMPTY_PATH) != 0) return -1;
    return SyncAttributes(*share_, *node_);
}

long LocalObject::PathConf(OxelCtxt* ctxt, const std::string& path, int name) {
    return On(ctxt, path, -1l,
              [&](LocalObject& object) { return fpathconf(object.node_->Fd(), name); });
}

int LocalObject::StatFs(OxelCtxt* ctxt, const std::string& path, struct statfs* out) {
    errno = EIO;
    const int result =
        On(ctxt, path, -1, [&](LocalObject& object) { return fstatfs(object.node_->Fd(), out); });
    return result == 0 ? 0 : errno;
}

}  // namespace oxel::local
