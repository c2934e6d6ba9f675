// SPDX-License-Identifier: Apache-2.0
//
// Removing and renaming. The name is looked at once more just before, so that what goes is the
// object that the call is about; the kernel offers nothing that would close the gap in between.
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include "backend/FdCache.h"
#include "modules/local/metadata_sync.h"
#include "modules/local/names.h"
#include "modules/local/object.h"
#include "modules/local/object_cache.h"
#include "modules/local/syscalls.h"
#include "modules/local/write_errors.h"

namespace oxel::local {
namespace {

LocalObject* Local(const BkEndProcPtr& object) {
    return dynamic_cast<LocalObject*>(object.get());
}

int Refuse(int error) {
    errno = error;
    return -1;
}

}  // namespace

// Whether the directory's entry `name` still is this object; ENOENT when not.
bool LocalObject::IsAt(const LocalObject& directory, const std::string& name) const {
    struct stat st;
    if (fstatat(directory.node_->Fd(), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) return false;
    if (st.st_ino == node_->Inode() && st.st_dev == node_->Device()) return true;
    errno = ENOENT;
    return false;
}

int LocalObject::Unlink(OxelCtxt* ctxt, const std::string& path) {
    return Guarded(-1, [&] {
        LocalObject* directory = Local(ctxt->secondObject);
        std::string name;
        if (directory == nullptr) return Refuse(EINVAL);
        const CallerRights rights(ctxt, *directory, CallerRights::Need::kModify);
        if (!rights || !NameInPath(directory->path_, path, &name)) return -1;
        if (IsDots(name)) return Refuse(EISDIR);
        return RemoveName(rights, *directory, name, 0);
    });
}

int LocalObject::RemoveDir(OxelCtxt* ctxt, const std::string& path) {
    return Guarded(-1, [&] {
        LocalObject* directory = Local(ctxt->object);
        std::string name;
        if (directory == nullptr) return Refuse(EINVAL);
        const CallerRights rights(ctxt, *directory, CallerRights::Need::kModify);
        if (!rights || !NameInPath(directory->path_, path, &name)) return -1;
        if (IsDots(name)) return Refuse(name == "." ? EINVAL : ENOTEMPTY);
        return RemoveName(rights, *directory, name, AT_REMOVEDIR);
    });
}

int LocalObject::RemoveName(const CallerRights& rights, LocalObject& directory,
                            const std::string& name, int flags) {
    if (&directory.Share() != &Share()) return Refuse(EXDEV);
    if (directory.node_->Type() != S_IFDIR) return Refuse(ENOTDIR);
    if (const int error = NameError(name); error != 0) return Refuse(error);
    if (!rights.Become() || !IsAt(directory, name)) return -1;
    Changing();
    if (unlinkat(directory.node_->Fd(), name.c_str(), flags) != 0) return -1;
    NameRemoved(directory, name);
    return SyncDirectory(*share_, *directory.node_);
}

// Lets go of everything that was kept for the sake of the name, and, when it was the last one, of
// the object: a descriptor that stays open would keep its blocks allocated.
void LocalObject::NameRemoved(const LocalObject& directory, const std::string& name) {
    ObjectCache::Instance().Drop(*this);
    struct stat st;
    InodeMap& places = share_->Places();
    if (fstat(node_->Fd(), &st) == 0 && st.st_nlink != 0 && node_->Type() != S_IFDIR) {
        InodePlace place;
        if (places.Find(node_->Inode(), &place) && place.name == name &&
            place.parent == directory.node_->Id().Body()) {
            places.Remove(node_->Inode());
        }
        return;
    }
    places.Remove(node_->Inode());
    gFdCache.Forget(node_->Device(), node_->Inode());
    DelayedWrites::Instance().Forget(*node_);
}

int LocalObject::Rename(OxelCtxt* ctxt, const std::string& fromName, const std::string& toName) {
    return Guarded(-1, [&] {
        LocalObject* from = Local(ctxt->object);
        LocalObject* to = Local(ctxt->secondObject);
        if (from == nullptr || to == nullptr) return Refuse(EINVAL);
        const CallerRights rights(ctxt, *from, CallerRights::Need::kModify);
        if (!rights) return -1;
        // Clients take two shares for two file systems, even when one disk holds both.
        if (&from->Share() != &to->Share() || &from->Share() != &Share()) return Refuse(EXDEV);
        if (from->node_->Type() != S_IFDIR || to->node_->Type() != S_IFDIR) return Refuse(ENOTDIR);
        if (IsDots(fromName) || IsDots(toName)) return Refuse(EBUSY);
        if (const int error = NameError(fromName); error != 0) return Refuse(error);
        if (const int error = NameError(toName); error != 0) return Refuse(error);
        std::string path;
        if (!PathBelow(to->path_, toName, &path) || !rights.Become()) return -1;

        // What is about to be replaced, if anything; whether it may be is the kernel's to say.
        struct stat st;
        UniqueFd old = OpenInside(to->node_->Fd(), toName.c_str());
        const Ptr replaced = old ? FromFd(share_, std::move(old), path, &st) : nullptr;
        if (!IsAt(*from, fromName)) return -1;
        Changing();
        if (renameat(from->node_->Fd(), fromName.c_str(), to->node_->Fd(), toName.c_str()) != 0) {
            return -1;
        }
        // Two names of one file: both stay.
        if (replaced && replaced->node_->Inode() == node_->Inode() &&
            replaced->node_->Device() == node_->Device()) {
            return 0;
        }
        if (replaced) replaced->NameRemoved(*to, toName);
        Moved(*to, toName, std::move(path));
        // The new name first: twice is better than not at all.
        if (SyncDirectory(*share_, *to->node_) != 0) return -1;
        return from->node_->Inode() == to->node_->Inode() ? 0
                                                          : SyncDirectory(*share_, *from->node_);
    });
}

// Makes the new name known, so that it is seen at once and handles lead there.
void LocalObject::Moved(const LocalObject& directory, const std::string& name, std::string path) {
    if (node_->Type() == S_IFDIR) NoteDirectoryMove();
    RememberPlace(directory, name);
    struct stat st;
    if (fstat(node_->Fd(), &st) != 0) {
        ObjectCache::Instance().Drop(*this);
        return;
    }
    node_->Saw(st);
    ObjectCache::Instance().Put(boost::make_shared<LocalObject>(share_, node_, std::move(path)));
}

}  // namespace oxel::local
