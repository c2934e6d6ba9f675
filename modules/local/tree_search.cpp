// SPDX-License-Identifier: Apache-2.0
//
// A walk over the share's directories.
#include "modules/local/tree_search.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>

#include <vector>

#include "base/log.h"
#include "modules/local/dir_reader.h"
#include "modules/local/kernel_handle.h"
#include "modules/local/syscalls.h"

namespace oxel::local {
namespace {

bool IsDirectory(int directory, const DirReader::Entry& entry) {
    if (entry.type != DT_UNKNOWN) return entry.type == DT_DIR;
    struct stat st;
    return fstatat(directory, entry.name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(st.st_mode);
}

bool BodyOf(const ShareRoot& share, int directory, std::string* body) {
    if (share.Kind() == HandleKind::kKernel) return KernelHandleOf(directory, body);
    struct stat st;
    InodeIdentity identity;
    if (share.Identify(directory, &st, &identity) != 0) return false;
    *body = EncodeInodeBody(identity);
    return true;
}

}  // namespace

bool SearchTree(ShareRoot& share, uint64_t inode, const std::function<bool(int fd)>& isIt,
                std::string* relative, UniqueFd* fd) {
    OXEL_LOG(2, "Searching share [%u] for inode [%llu].", share.ShareId(),
             static_cast<unsigned long long>(inode));
    fd->Reset();
    const PlacesBatch batch(share.Places());
    // A directory that has been removed meanwhile, or that has another file system mounted on it,
    // does not make the search less than whole.
    int cutShort = 0;
    const auto note = [&](bool opened) {
        if (!opened && (errno == EMFILE || errno == ENFILE || errno == ENOMEM)) cutShort = errno;
    };
    std::vector<std::string> pending{""};
    while (!pending.empty()) {
        const std::string path = std::move(pending.back());
        pending.pop_back();
        UniqueFd directory = OpenMakingRoom([&] {
            return OpenAt2(share.Fd(), path.empty() ? "." : path.c_str(),
                           O_RDONLY | O_DIRECTORY | O_NOFOLLOW, kInsideShare);
        });
        note(static_cast<bool>(directory));
        InodePlace place;
        if (!directory || !BodyOf(share, directory.Get(), &place.parent)) continue;
        DirReader reader(std::move(directory));
        DirReader::Entry entry;
        while (reader.Next(&entry)) {
            place.name = entry.name;
            if (place.name == "." || place.name == "..") continue;
            std::string below = path.empty() ? place.name : path + "/" + place.name;
            if (entry.inode == inode && !*fd) {
                UniqueFd candidate = OpenInside(reader.Fd(), entry.name);
                note(static_cast<bool>(candidate));
                if (candidate && isIt(candidate.Get())) {
                    share.Places().Put(inode, place);
                    *relative = std::move(below);
                    *fd = std::move(candidate);
                    if (share.Kind() != HandleKind::kInode) return true;
                    below = *relative;
                }
            }
            const bool isDirectory = IsDirectory(reader.Fd(), entry);
            if (!isDirectory || share.Kind() == HandleKind::kInode) {
                share.Places().PutIfRoom(entry.inode, place);
            }
            if (isDirectory && below.size() < PATH_MAX) pending.push_back(std::move(below));
        }
    }
    errno = cutShort != 0 ? cutShort : ENOENT;
    return static_cast<bool>(*fd);
}

}  // namespace oxel::local
