// SPDX-License-Identifier: Apache-2.0
//
// The trees of the file system in memory: nodes, names and what must hold of them.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>

namespace oxel::fuzz {

struct Node {
    uint32_t number = 0;
    mode_t mode = 0;
    uid_t uid = 0;
    gid_t gid = 0;
    time_t accessed = 1, modified = 1, changed = 1;
    unsigned links = 0;  // names that lead to it
    std::string data;    // a file's, or a symbolic link's target

    // Of a directory. Entries stand in the order in which they were made; 1 and 2 are "." and "..".
    struct Entry {
        std::string name;
        std::shared_ptr<Node> node;
    };
    std::map<uint64_t, Entry> entries;
    std::map<std::string, uint64_t> places;
    uint64_t nextPlace = 3;
    Node* parent = nullptr;  // null: the root, or removed

    bool IsDirectory() const { return S_ISDIR(mode); }
    std::shared_ptr<Node> Find(const std::string& name) const;
};
using NodePtr = std::shared_ptr<Node>;

class Tree {
  public:
    // What the calls of one input may make at most; beyond it is ENOSPC.
    static constexpr uint32_t kNodesMax = 500;
    static constexpr uint64_t kBytesMax = 1 << 20;

    Tree();
    NodePtr Root() const { return root_; }
    NodePtr ByNumber(uint32_t number) const;
    uint32_t Nodes() const { return next_ - 1; }

    // Null with errno. The name must be free.
    NodePtr Make(Node& directory, const std::string& name, mode_t mode);
    void Link(Node& directory, const std::string& name, const NodePtr& node);
    void Unlink(Node& directory, const std::string& name);

    // Whether it is a tree, each node counts its names, and each name may be one.
    void Check() const;
    // Everything that a client could change, as text.
    std::string Picture() const;

  private:
    void CheckBelow(const Node& directory, std::map<const Node*, unsigned>* names) const;

    NodePtr root_;
    uint32_t next_ = 1;
    std::map<uint32_t, std::weak_ptr<Node>> numbers_;
};

// What a name that is to be made, removed or looked for in a directory is refused with; 0: nothing.
// "." and ".." pass only when they are looked for.
int NameError(const std::string& name, bool lookingFor);

}  // namespace oxel::fuzz
