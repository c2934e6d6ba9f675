// SPDX-License-Identifier: Apache-2.0
//
// Data that clients have written but not yet committed, and what became of it. The kernel tells a
// failed delayed write once to each open file of the time; descriptors here come and go and are
// shared by clients, so what was told through one is kept for the others.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <unordered_map>
#include <vector>

#include "base/sync.h"
#include "net/CLuIPAddr.h"

namespace oxel::local {

class FileNode;

// Any thread. For each file the clients with uncommitted data are remembered, and a descriptor
// keeps the inode, with the kernel's note of an error in it, in memory. Bounded: what cannot be
// remembered is refused, and must then be made stable before it is told as written.
class DelayedWrites {
    struct File;

  public:
    static DelayedWrites& Instance();

    // A write that is not made stable at once, from before the data is written until after.
    class Writing {
      public:
        // `fd` is the one that is written through.
        Writing(const FileNode& node, const CLuIPAddr& client, int fd);
        ~Writing();
        Writing(const Writing&) = delete;
        Writing& operator=(const Writing&) = delete;
        // False when it cannot be remembered.
        explicit operator bool() const { return file_ != nullptr; }

      private:
        std::shared_ptr<File> file_;
        const std::array<unsigned char, 16> client_;
    };

    // Whether anybody has uncommitted data in the file or is to be told of an error.
    bool Knows(const FileNode& node) const;
    // Runs `sync`, which brings the whole file to the disk and gives 0 or an error number. Answers
    // with its error, or with one that was seen earlier and that this client has not been told.
    // Every other client with uncommitted data will be told of an error too, once.
    int Settle(const FileNode& node, const CLuIPAddr& client, const std::function<int()>& sync);
    // The same where no client asks for its data to be committed: every one of them will be told.
    int SettleForAll(const FileNode& node, const std::function<int()>& sync);
    // The file is gone, and its data with it.
    void Forget(const FileNode& node);
    // Syncs files that nobody has written since `beforeMs` (of NowMs) and lets go of them: clients
    // that never commit must not keep them open. May wait for the disk.
    void SettleIdle(int64_t beforeMs);

    // Files that are remembered, and how many of them are kept open.
    size_t Count() const;
    size_t CountOpen() const;
    // The most files that are remembered. For tests; the default follows from the limit of open
    // files.
    void SetLimit(size_t files);

  private:
    using Client = std::array<unsigned char, 16>;  // an XOIPAddr's bytes
    struct Key {
        uint64_t device, inode, id;
        bool operator==(const Key&) const = default;
    };
    struct KeyHash {
        size_t operator()(const Key& key) const noexcept { return key.id ^ key.inode; }
    };

    DelayedWrites();
    static Key KeyOf(const FileNode& node);
    std::shared_ptr<File> Find(const Key& key) const EXCLUDES(section_);
    int SyncOne(File& file, const Client* client, const std::function<int()>& sync)
        EXCLUDES(section_);
    int Conclude(File& file, const Client* client, int error) EXCLUDES(section_);
    bool MakeRoom(int64_t nowMs) REQUIRES(section_);

    mutable XoCriticalSection section_;
    size_t limit_ GUARDED_BY(section_);
    std::unordered_map<Key, std::shared_ptr<File>, KeyHash> files_ GUARDED_BY(section_);
};

}  // namespace oxel::local
