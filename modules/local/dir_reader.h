// SPDX-License-Identifier: Apache-2.0
//
// The entries of one open directory, with the kernel's positions.
#pragma once

#include <dirent.h>

#include <cstdint>
#include <memory>

#include "base/unique_fd.h"

namespace oxel::local {

// One thread at a time.
class DirReader {
  public:
    struct Entry {
        uint64_t inode;
        int64_t next;        // the position after this entry
        unsigned char type;  // DT_*
        const char* name;    // valid until the next call
    };

    // `fd` is opened for reading.
    explicit DirReader(UniqueFd fd);

    // False at the end, or with errno when the directory cannot be read (errno is 0 at the end).
    bool Next(Entry* entry);
    // Goes to a position that an entry gave, or to 0, the start. Any other number is as good as the
    // file system makes it: the end, or some entry.
    void Seek(uint64_t position);
    // The position after the entry last read, or the one last sought.
    int64_t Position() const { return position_; }
    int Fd() const { return fd_.Get(); }

  private:
    static constexpr size_t kBufferBytes = 32768;  // about 1000 names

    UniqueFd fd_;
    const std::unique_ptr<char[]> buffer_;
    size_t at_ = 0, end_ = 0;  // unread entries are buffer_[at_, end_)
    int64_t position_ = 0;
    bool lost_ = false;  // the position asked for does not exist
};

}  // namespace oxel::local
