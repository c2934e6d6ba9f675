// SPDX-License-Identifier: Apache-2.0
//
// Finding and verifying an object's place.
#include "modules/local/locate.h"

#include <fcntl.h>
#include <limits.h>
#include <time.h>

#include <algorithm>
#include <cerrno>

#include "modules/local/caller_rights.h"
#include "modules/local/kernel_handle.h"
#include "modules/local/syscalls.h"
#include "modules/local/tree_search.h"

namespace oxel::local {
namespace {

// For this long a search that found nothing is not repeated for an object that has not changed.
constexpr int64_t kMissingMs = 30'000;
// Change times are as coarse as the kernel's clock tick: a second change within this time may leave
// them as they are.
constexpr int64_t kChangeTimeTickNs = 20'000'000;
constexpr int kDepthMax = PATH_MAX / 2;
constexpr int kRenamesMax = 32;

// Whether the path leads to the very object: what the kernel says about a path may be outdated, or
// be counted from another place than this process's root.
bool LeadsTo(ShareRoot& share, const std::string& relative, const struct stat& st, UniqueFd* fd) {
    UniqueFd there = OpenInside(share.Fd(), relative.c_str());
    struct stat found;
    if (!there || fstat(there.Get(), &found) != 0) return false;
    if (found.st_ino != st.st_ino || found.st_dev != st.st_dev) return false;
    if (fd != nullptr) *fd = std::move(there);
    return true;
}

// The same by inode number and birth time. kGone: the number belongs to another object by now.
enum class Lead { kThere, kNowhere, kGone };
Lead LeadTo(ShareRoot& share, const std::string& relative, const InodeIdentity& wanted,
            UniqueFd* fd) {
    UniqueFd there = OpenInside(share.Fd(), relative.c_str());
    struct stat st;
    InodeIdentity found;
    if (!there || share.Identify(there.Get(), &st, &found, &wanted) != 0) return Lead::kNowhere;
    if (st.st_dev != share.Device() || found.inode != wanted.inode) return Lead::kNowhere;
    if (found != wanted) return Lead::kGone;
    *fd = std::move(there);
    return Lead::kThere;
}

// The path below the share's root of a directory of a share with kernel handles.
bool DirectoryPath(ShareRoot& share, const std::string& body, std::string* relative) {
    if (body == share.Body()) {
        relative->clear();
        return true;
    }
    UniqueFd directory = OpenKernelHandle(share.Fd(), body);
    std::string path;
    return directory && PathOfFd(directory.Get(), &path) && share.RelativePath(path, relative);
}

// The same through remembered places, each of which may be outdated; the caller verifies.
bool PlacePath(ShareRoot& share, uint64_t inode, std::string* relative) {
    relative->clear();
    for (int depth = 0; depth < kDepthMax; ++depth) {
        if (inode == share.Inode()) return true;
        InodePlace place;
        InodeIdentity parent;
        if (!share.Places().Find(inode, &place)) return false;
        if (!DecodeInodeBody(place.parent, &parent)) return false;
        *relative = relative->empty() ? place.name : place.name + "/" + *relative;
        inode = parent.inode;
    }
    return false;
}

bool FromHint(ShareRoot& share, const struct stat& st, Location* location) {
    InodePlace place;
    std::string directory;
    if (!share.Places().Find(st.st_ino, &place)) return false;
    if (!DirectoryPath(share, place.parent, &directory)) return false;
    const std::string relative = directory.empty() ? place.name : directory + "/" + place.name;
    if (!LeadsTo(share, relative, st, &location->fd)) return false;
    location->path = share.FullPath(relative);
    return true;
}

// Whether a search for the object has failed lately and nothing has changed since.
bool KnownMissing(ShareRoot& share, const std::string& body, int64_t changeTime) {
    ShareRoot::Missing missing;
    return share.NotFound().find(body, &missing) && missing.changeTime == changeTime &&
           NowMs() - missing.atMs < kMissingMs;
}

// A change that comes after this moment will show in the change time.
bool ChangeWouldShow(int64_t changeTime) {
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return int64_t{now.tv_sec} * 1000000000 + now.tv_nsec - changeTime > kChangeTimeTickNs;
}

// A file with one name whose name lies outside the share is outside; one with several names, or
// whose place the kernel does not know, may still be inside.
bool MayBeElsewhere(const std::string& path, const struct stat& st) {
    if (S_ISDIR(st.st_mode)) return false;
    if (st.st_nlink > 1 || path == "/") return true;
    constexpr std::string_view kDeleted = " (deleted)";
    return path.size() > kDeleted.size() &&
           path.compare(path.size() - kDeleted.size(), kDeleted.size(), kDeleted) == 0;
}

}  // namespace

bool Locate(ShareRoot& share, int fd, const struct stat& st, std::string_view body,
            Location* location) {
    BecomeOwn();
    std::string path, relative;
    // Again and again: a rename can come between the kernel's answer and its verification. That
    // the answer is the same as before proves nothing, the object may have been away and back.
    for (int attempt = 0; attempt < kRenamesMax; ++attempt) {
        if (!PathOfFd(fd, &path) || !share.RelativePath(path, &relative)) break;
        if (relative.empty() ? share.IsRoot(st) : LeadsTo(share, relative, st, nullptr)) {
            location->path = relative.empty() ? path : share.FullPath(relative);
            return true;
        }
    }
    if (!MayBeElsewhere(path, st)) return false;
    if (FromHint(share, st, location)) return true;

    const std::string key(body);
    if (KnownMissing(share, key, ChangeTime(st))) return false;
    XoCriticalSectionGuard lock(share.SearchMutex());
    if (FromHint(share, st, location)) return true;  // another thread's search passed it
    const auto isIt = [&](int found) {
        struct stat other;
        return fstat(found, &other) == 0 && other.st_ino == st.st_ino && other.st_dev == st.st_dev;
    };
    if (SearchTree(share, st.st_ino, isIt, &relative, &location->fd)) {
        location->path = share.FullPath(relative);
        return true;
    }
    if (errno == ENOENT && ChangeWouldShow(ChangeTime(st)))
        share.NotFound().insert(key, {ChangeTime(st), NowMs()});
    return false;
}

void RememberPath(ShareRoot& share, const std::string& path) {
    std::string relative;
    if (share.Kind() != HandleKind::kInode || !share.RelativeToPrefix(path, &relative)) return;
    BecomeOwn();
    const PlacesBatch batch(share.Places());
    InodePlace place{share.Body(), ""};
    for (size_t begin = 0; begin < relative.size();) {
        const size_t end = std::min(relative.find('/', begin), relative.size());
        const UniqueFd fd = OpenInside(share.Fd(), relative.substr(0, end).c_str());
        struct stat st;
        InodeIdentity identity;
        if (!fd || share.Identify(fd.Get(), &st, &identity) != 0) return;
        place.name = relative.substr(begin, end - begin);
        share.Places().Put(identity.inode, place);
        place.parent = EncodeInodeBody(identity);
        begin = end + 1;
    }
}

bool LocateInode(ShareRoot& share, std::string_view body, Location* location) {
    InodeIdentity wanted;
    if (!DecodeInodeBody(body, &wanted)) return false;
    BecomeOwn();
    std::string relative;
    const auto fromPlaces = [&] {
        return PlacePath(share, wanted.inode, &relative) && !relative.empty()
                   ? LeadTo(share, relative, wanted, &location->fd)
                   : Lead::kNowhere;
    };
    Lead lead = fromPlaces();
    bool found = lead == Lead::kThere;
    const std::string key(body);
    if (lead == Lead::kNowhere && !KnownMissing(share, key, 0)) {
        XoCriticalSectionGuard lock(share.SearchMutex());
        const auto isIt = [&](int fd) {
            struct stat st;
            InodeIdentity identity;
            return share.Identify(fd, &st, &identity, &wanted) == 0 && identity == wanted;
        };
        lead = fromPlaces();
        found = lead == Lead::kThere ||
                (lead == Lead::kNowhere &&
                 SearchTree(share, wanted.inode, isIt, &relative, &location->fd));
        if (lead == Lead::kNowhere && !found && errno == ENOENT)
            share.NotFound().insert(key, {0, NowMs()});
        // The search may have passed the number's new owner and remembered that one.
        if (!found && fromPlaces() == Lead::kNowhere) share.Places().Remove(wanted.inode);
    }
    if (found) location->path = share.FullPath(relative);
    return found;
}

}  // namespace oxel::local
