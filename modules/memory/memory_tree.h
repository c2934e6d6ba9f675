// SPDX-License-Identifier: Apache-2.0
//
// The files of one share in memory: what there is, who may do what with it, and nothing of NFS. A
// module for another kind of storage would have its storage here.
#pragma once

#include <dirent.h>
#include <sys/stat.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "base/sync.h"

namespace oxel::memory {

// Whose rights an operation has: the ids after squashing.
struct Caller {
    uid_t uid = 65534;
    gid_t gid = 65534;
};

struct Node;
using NodePtr = std::shared_ptr<Node>;

// Every operation is one step, from any thread, and answers 0 or an errno; out-parameters stay
// untouched on failure. A node that was removed meanwhile is ESTALE.
class Tree {
  public:
    static constexpr uint64_t kBytesMax = 256u << 20;  // of all files together
    static constexpr uint64_t kNodesMax = 100000;

    Tree();

    // Told by no other tree, and not to be guessed: it stands in every handle.
    uint64_t Id() const { return id_; }
    NodePtr Root() const { return root_; }
    // Null when no such node is left. Numbers are never given out again.
    NodePtr ByNumber(uint64_t number);
    static uint64_t Number(const Node& node);
    // "" for the root, "/a/b" below it. The path that the node has now.
    std::string PathOf(const Node& node);
    // Null for the root, and for what was removed.
    NodePtr ParentOf(const Node& node);

    int Stat(const Node& node, struct stat* out);
    // `mode` as access(2) has it.
    int Check(const Caller& who, const Node& node, int mode);
    int Find(const Caller& who, const Node& directory, const std::string& name, NodePtr* found);
    // The first entry behind `*position`, which moves on; ENOENT at the end.
    int List(const Node& directory, uint64_t* position, struct dirent* entry);

    // Whether a regular file may be read (4) or written (2). Its owner may in any case: NFS has no
    // open files, and one that was open before a chmod must stay usable.
    int CheckOpen(const Caller& who, const Node& node, int mode);
    int Read(const Node& file, void* buffer, uint64_t offset, uint32_t count, uint32_t* got);
    int Write(Node& file, const void* data, uint64_t offset, uint32_t count);
    int Truncate(const Caller& who, Node& file, uint64_t size);

    // A file, directory or symbolic link (with its target), by the type bits of `mode`.
    int Make(const Caller& who, Node& directory, const std::string& name, mode_t mode,
             const std::string& target, NodePtr* made);
    int Remove(const Caller& who, Node& directory, const std::string& name, const Node& node,
               bool wantDirectory);
    int Rename(const Caller& who, Node& from, const std::string& fromName, Node& to,
               const std::string& toName, const NodePtr& node);
    int ReadLink(const Node& node, std::string* target);

    int Chmod(const Caller& who, Node& node, mode_t mode);
    int Chown(const Caller& who, Node& node, uid_t uid, gid_t gid);
    int SetTimes(const Caller& who, Node& node, time_t accessed, time_t modified);
    // In bytes and in nodes.
    void Space(uint64_t* bytesFree, uint64_t* nodesFree);

  private:
    NodePtr NewNode(const Caller& who, mode_t mode) REQUIRES(mutex_);
    static void Attach(Node& directory, const std::string& name, const NodePtr& node);
    void Detach(Node& node) REQUIRES(mutex_);
    int Resize(Node& file, uint64_t size) REQUIRES(mutex_);
    int CheckEntry(const Caller& who, const Node& directory, const std::string& name,
                   const Node& node) const REQUIRES(mutex_);

    XoCriticalSection mutex_;  // guards what is in the nodes, too
    const uint64_t id_;
    uint64_t next_ GUARDED_BY(mutex_) = 1;
    uint64_t bytes_ GUARDED_BY(mutex_) = 0;
    std::map<uint64_t, NodePtr> nodes_ GUARDED_BY(mutex_);
    NodePtr root_;  // constant after construction
};

}  // namespace oxel::memory
