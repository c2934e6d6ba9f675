// SPDX-License-Identifier: Apache-2.0
//
// A tree of nodes under one lock. Each has one name: there are no hard links, so that a node's path
// is found by going up.
#include "modules/memory/memory_tree.h"

#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace oxel::memory {

struct Node {
    uint64_t number = 0;
    mode_t mode = 0;
    uid_t uid = 0;
    gid_t gid = 0;
    time_t accessed = 0, modified = 0, changed = 0;
    std::string data;  // a file's, or a symbolic link's target
    // Of a directory: by name to find them, by number to list them. A listing goes on behind the
    // number where it stopped, whatever was made or removed meanwhile.
    std::map<std::string, NodePtr> byName;
    std::map<uint64_t, Node*> byNumber;
    Node* parent = nullptr;  // null: the root, or removed
    std::string name;
    bool removed = false;

    bool IsDirectory() const { return S_ISDIR(mode); }
    bool IsFile() const { return S_ISREG(mode); }
};

namespace {

constexpr uint64_t kDot = 1, kDotDot = 2;  // positions behind them; those of nodes come after

uint64_t RandomId() {
    uint64_t id;
    if (getrandom(&id, sizeof id, 0) != sizeof id) abort();  // before the first share is served
    return id;
}

// The daemon passes names on as clients send them.
int NameError(const std::string& name) {
    if (name.empty()) return ENOENT;
    if (name.size() > NAME_MAX) return ENAMETOOLONG;
    if (name.find('/') != std::string::npos) return EACCES;
    return name == "." || name == ".." ? EINVAL : 0;
}

bool May(const Caller& who, const Node& node, int mode) {
    if (who.uid == 0) return true;
    const int shift = who.uid == node.uid ? 6 : who.gid == node.gid ? 3 : 0;
    return (static_cast<int>(node.mode >> shift) & mode) == mode;
}

bool Owns(const Caller& who, const Node& node) {
    return who.uid == 0 || who.uid == node.uid;
}

}  // namespace

Tree::Tree() : id_(RandomId()) {
    XoCriticalSectionGuard lock(mutex_);
    root_ = NewNode(Caller{0, 0}, S_IFDIR | 0755);
}

NodePtr Tree::NewNode(const Caller& who, mode_t mode) {
    if (nodes_.size() >= kNodesMax) return nullptr;
    auto node = std::make_shared<Node>();
    node->number = next_++;
    node->mode = mode;
    node->uid = who.uid;
    node->gid = who.gid;
    node->accessed = node->modified = node->changed = time(nullptr);
    nodes_[node->number] = node;
    return node;
}

void Tree::Attach(Node& directory, const std::string& name, const NodePtr& node) {
    node->name = name;
    directory.byName[name] = node;
    directory.byNumber[node->number] = node.get();
    node->parent = &directory;
    directory.modified = directory.changed = node->changed = time(nullptr);
}

void Tree::Detach(Node& node) {
    Node& directory = *node.parent;
    node.parent = nullptr;
    directory.byNumber.erase(node.number);
    directory.modified = directory.changed = time(nullptr);
    directory.byName.erase(node.name);
}

NodePtr Tree::ByNumber(uint64_t number) {
    XoCriticalSectionGuard lock(mutex_);
    const auto found = nodes_.find(number);
    return found == nodes_.end() ? nullptr : found->second;
}

uint64_t Tree::Number(const Node& node) {
    return node.number;
}

std::string Tree::PathOf(const Node& node) {
    XoCriticalSectionGuard lock(mutex_);
    std::string path;
    for (const Node* at = &node; at->parent != nullptr; at = at->parent)
        path.insert(0, "/" + at->name);
    return path;
}

NodePtr Tree::ParentOf(const Node& node) {
    XoCriticalSectionGuard lock(mutex_);
    if (node.parent == nullptr) return nullptr;
    return nodes_.at(node.parent->number);
}

int Tree::Stat(const Node& node, struct stat* out) {
    XoCriticalSectionGuard lock(mutex_);
    if (node.removed) return ESTALE;
    *out = {};
    out->st_ino = node.number;
    out->st_mode = node.mode;
    out->st_nlink = node.IsDirectory() ? 2 : 1;
    out->st_uid = node.uid;
    out->st_gid = node.gid;
    out->st_size = static_cast<off_t>(node.data.size());
    // Clients are told st_blocks times st_blksize as the space used.
    out->st_blksize = 512;
    out->st_blocks = (out->st_size + 511) / 512;
    out->st_atime = node.accessed;
    out->st_mtime = node.modified;
    out->st_ctime = node.changed;
    return 0;
}

int Tree::Check(const Caller& who, const Node& node, int mode) {
    XoCriticalSectionGuard lock(mutex_);
    if (node.removed) return ESTALE;
    if (who.uid == 0 && node.IsFile() && (mode & X_OK) != 0 && (node.mode & 0111) == 0)
        return EACCES;  // root too can run only what anybody can
    return May(who, node, mode) ? 0 : EACCES;
}

int Tree::Find(const Caller& who, const Node& directory, const std::string& name, NodePtr* found) {
    XoCriticalSectionGuard lock(mutex_);
    if (directory.removed) return ESTALE;
    if (!directory.IsDirectory()) return ENOTDIR;
    if (const int error = NameError(name); error != 0) return error;
    if (!May(who, directory, X_OK)) return EACCES;
    const auto child = directory.byName.find(name);
    if (child == directory.byName.end()) return ENOENT;
    *found = child->second;
    return 0;
}

int Tree::List(const Node& directory, uint64_t* position, struct dirent* entry) {
    XoCriticalSectionGuard lock(mutex_);
    const Node* node = &directory;
    const char* name = ".";
    uint64_t behind = kDot;
    if (*position == kDot) {
        name = "..";
        behind = kDotDot;
        if (directory.parent != nullptr) node = directory.parent;
    } else if (*position >= kDotDot) {
        const auto next = directory.byNumber.upper_bound(*position - kDotDot);
        if (next == directory.byNumber.end()) return ENOENT;
        node = next->second;
        name = node->name.c_str();
        behind = node->number + kDotDot;
    }
    *entry = {};
    entry->d_ino = node->number;
    memcpy(entry->d_name, name, strlen(name) + 1);
    *position = behind;
    return 0;
}

int Tree::CheckOpen(const Caller& who, const Node& node, int mode) {
    XoCriticalSectionGuard lock(mutex_);
    if (node.removed) return ESTALE;
    if (node.IsDirectory()) return EISDIR;
    if (!node.IsFile()) return EINVAL;
    // A client reads a program from the server to run it.
    const bool may = May(who, node, mode) || (mode == R_OK && May(who, node, X_OK));
    return may || Owns(who, node) ? 0 : EACCES;
}

int Tree::Read(const Node& file, void* buffer, uint64_t offset, uint32_t count, uint32_t* got) {
    XoCriticalSectionGuard lock(mutex_);
    *got = 0;
    if (offset >= file.data.size()) return 0;
    *got = static_cast<uint32_t>(std::min<uint64_t>(count, file.data.size() - offset));
    memcpy(buffer, file.data.data() + offset, *got);
    return 0;
}

int Tree::Resize(Node& file, uint64_t size) {
    if (file.removed) return ESTALE;
    if (size > kBytesMax) return EFBIG;
    if (bytes_ - file.data.size() + size > kBytesMax) return ENOSPC;
    bytes_ -= file.data.size();
    bytes_ += size;
    file.data.resize(size);
    return 0;
}

int Tree::Write(Node& file, const void* data, uint64_t offset, uint32_t count) {
    XoCriticalSectionGuard lock(mutex_);
    if (offset > kBytesMax) return EFBIG;
    if (const uint64_t end = offset + count; end > file.data.size())
        if (const int error = Resize(file, end); error != 0) return error;
    memcpy(file.data.data() + offset, data, count);
    file.modified = file.changed = time(nullptr);
    return 0;
}

int Tree::Truncate(const Caller& who, Node& file, uint64_t size) {
    if (const int error = CheckOpen(who, file, W_OK); error != 0) return error;
    XoCriticalSectionGuard lock(mutex_);
    if (const int error = Resize(file, size); error != 0) return error;
    file.modified = file.changed = time(nullptr);
    return 0;
}

int Tree::Make(const Caller& who, Node& directory, const std::string& name, mode_t mode,
               const std::string& target, NodePtr* made) {
    XoCriticalSectionGuard lock(mutex_);
    if (directory.removed) return ESTALE;
    if (!directory.IsDirectory()) return ENOTDIR;
    if (const int error = NameError(name); error != 0) return error;
    if (directory.byName.contains(name)) return EEXIST;
    if (!May(who, directory, W_OK | X_OK)) return EACCES;
    NodePtr node = NewNode(who, mode);
    if (!node) return ENOSPC;
    node->data = target;
    Attach(directory, name, node);
    *made = std::move(node);
    return 0;
}

// Whether the entry is still there, and the caller may take it out of the directory.
int Tree::CheckEntry(const Caller& who, const Node& directory, const std::string& name,
                     const Node& node) const {
    const auto entry = directory.byName.find(name);
    if (entry == directory.byName.end() || entry->second.get() != &node) return ENOENT;
    if (!May(who, directory, W_OK | X_OK)) return EACCES;
    const bool sticky = (directory.mode & S_ISVTX) != 0;
    return sticky && !Owns(who, node) && !Owns(who, directory) ? EPERM : 0;
}

int Tree::Remove(const Caller& who, Node& directory, const std::string& name, const Node& node,
                 bool wantDirectory) {
    XoCriticalSectionGuard lock(mutex_);
    if (const int error = CheckEntry(who, directory, name, node); error != 0) return error;
    if (node.IsDirectory() != wantDirectory) return wantDirectory ? ENOTDIR : EISDIR;
    if (!node.byName.empty()) return ENOTEMPTY;
    const NodePtr held = nodes_.at(node.number);
    bytes_ -= held->data.size();
    held->data.clear();
    held->removed = true;
    nodes_.erase(held->number);
    Detach(*held);
    return 0;
}

int Tree::Rename(const Caller& who, Node& from, const std::string& fromName, Node& to,
                 const std::string& toName, const NodePtr& node) {
    NodePtr old;
    {
        XoCriticalSectionGuard lock(mutex_);
        if (to.removed) return ESTALE;
        if (!to.IsDirectory()) return ENOTDIR;
        if (const int error = NameError(toName); error != 0) return error;
        if (const int error = CheckEntry(who, from, fromName, *node); error != 0) return error;
        if (!May(who, to, W_OK | X_OK)) return EACCES;
        for (const Node* above = &to; above != nullptr; above = above->parent)
            if (above == node.get()) return EINVAL;
        if (const auto found = to.byName.find(toName); found != to.byName.end()) {
            old = found->second;
            if (old == node) return 0;
            if (const int error = CheckEntry(who, to, toName, *old); error != 0) return error;
            if (old->IsDirectory() != node->IsDirectory())
                return old->IsDirectory() ? EISDIR : ENOTDIR;
            if (!old->byName.empty()) return ENOTEMPTY;
            bytes_ -= old->data.size();
            old->data.clear();
            old->removed = true;
            nodes_.erase(old->number);
            Detach(*old);
        }
        Detach(*node);
        Attach(to, toName, node);
    }
    return 0;
}

int Tree::ReadLink(const Node& node, std::string* target) {
    XoCriticalSectionGuard lock(mutex_);
    if (!S_ISLNK(node.mode)) return EINVAL;
    *target = node.data;
    return 0;
}

int Tree::Chmod(const Caller& who, Node& node, mode_t mode) {
    XoCriticalSectionGuard lock(mutex_);
    if (!Owns(who, node)) return EPERM;
    node.mode = (node.mode & S_IFMT) | (mode & 07777);
    node.changed = time(nullptr);
    return 0;
}

int Tree::Chown(const Caller& who, Node& node, uid_t uid, gid_t gid) {
    XoCriticalSectionGuard lock(mutex_);
    // Only root gives files away; an owner may leave all as it is, or take his own group.
    const bool harmless = Owns(who, node) && uid == node.uid && (gid == node.gid || gid == who.gid);
    if (who.uid != 0 && !harmless) return EPERM;
    node.uid = uid;
    node.gid = gid;
    node.changed = time(nullptr);
    return 0;
}

int Tree::SetTimes(const Caller& who, Node& node, time_t accessed, time_t modified) {
    XoCriticalSectionGuard lock(mutex_);
    if (!Owns(who, node) && !May(who, node, W_OK)) return EPERM;
    node.accessed = accessed;
    node.modified = modified;
    node.changed = time(nullptr);
    return 0;
}

void Tree::Space(uint64_t* bytesFree, uint64_t* nodesFree) {
    XoCriticalSectionGuard lock(mutex_);
    *bytesFree = kBytesMax - bytes_;
    *nodesFree = kNodesMax - nodes_.size();
}

}  // namespace oxel::memory
