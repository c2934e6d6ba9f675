// SPDX-License-Identifier: Apache-2.0
//
// getdents64(2): readdir(3) hides the positions' meaning and locks.
#include "modules/local/dir_reader.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstring>

namespace oxel::local {
namespace {

// What the kernel writes; names follow the fixed part.
struct KernelEntry {
    uint64_t inode;
    int64_t next;
    uint16_t bytes;
    uint8_t type;
};
constexpr size_t kNameOffset = offsetof(KernelEntry, type) + 1;
static_assert(kNameOffset == 19);

}  // namespace

// The buffer's contents are the kernel's to write, so it is not zeroed.
DirReader::DirReader(UniqueFd fd) : fd_(std::move(fd)), buffer_(new char[kBufferBytes]) {}

bool DirReader::Next(Entry* entry) {
    if (at_ == end_) {
        errno = 0;
        if (lost_) return false;
        const long bytes = syscall(SYS_getdents64, fd_.Get(), buffer_.get(), kBufferBytes);
        if (bytes <= 0) return false;
        at_ = 0;
        end_ = static_cast<size_t>(bytes);
    }
    const char* raw = buffer_.get() + at_;
    KernelEntry head;
    memcpy(&head, raw, kNameOffset);
    at_ += head.bytes;
    position_ = head.next;
    *entry = Entry{head.inode, head.next, head.type, raw + kNameOffset};
    return true;
}

void DirReader::Seek(uint64_t position) {
    if (!lost_ && position == static_cast<uint64_t>(position_)) return;
    at_ = end_ = 0;
    // A position that cannot be is answered like the end of the directory.
    lost_ = position > INT64_MAX || lseek(fd_.Get(), static_cast<off_t>(position), SEEK_SET) < 0;
    position_ = static_cast<int64_t>(position);
}

}  // namespace oxel::local
