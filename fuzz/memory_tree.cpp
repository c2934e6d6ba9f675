// SPDX-License-Identifier: Apache-2.0
#include "fuzz/memory_tree.h"

#include <cerrno>

#include "fuzz/memory_module.h"

namespace oxel::fuzz {

NodePtr Node::Find(const std::string& name) const {
    const auto place = places.find(name);
    return place == places.end() ? nullptr : entries.at(place->second).node;
}

Tree::Tree() : root_(std::make_shared<Node>()) {
    root_->number = next_++;
    root_->mode = S_IFDIR | 0777;
    root_->links = 1;
    numbers_[root_->number] = root_;
    const NodePtr file = Make(*root_, "file", S_IFREG | 0644);
    file->data.assign(100, 'f');
    const NodePtr directory = Make(*root_, "directory", S_IFDIR | 0755);
    Make(*root_, "link", S_IFLNK | 0777)->data = "file";
    Make(*root_, "large", S_IFREG | 0600)->data.assign(70000, 'l');
    Make(*directory, "below", S_IFREG | 0);
    Make(*directory, "deeper", S_IFDIR | 0700);
    Link(*root_, "other name", file);
    next_ = 9;
    const NodePtr many = Make(*root_, "many", S_IFDIR | 0777);
    for (int i = 0; i < 40; ++i)
        Make(*many, std::string(static_cast<size_t>(1 + i * 6), static_cast<char>('a' + i % 26)),
             S_IFREG | 0666);
}

NodePtr Tree::ByNumber(uint32_t number) const {
    const auto found = numbers_.find(number);
    return found == numbers_.end() ? nullptr : found->second.lock();
}

NodePtr Tree::Make(Node& directory, const std::string& name, mode_t mode) {
    if (next_ > kNodesMax) {
        errno = ENOSPC;
        return nullptr;
    }
    auto node = std::make_shared<Node>();
    node->number = next_++;
    node->mode = mode;
    numbers_[node->number] = node;
    Link(directory, name, node);
    return node;
}

void Tree::Link(Node& directory, const std::string& name, const NodePtr& node) {
    Demand(!directory.places.contains(name), "a name is made twice");
    directory.places[name] = directory.nextPlace;
    directory.entries[directory.nextPlace++] = {name, node};
    ++node->links;
    if (node->IsDirectory()) node->parent = &directory;
}

void Tree::Unlink(Node& directory, const std::string& name) {
    const auto place = directory.places.find(name);
    Demand(place != directory.places.end(), "a name is removed twice");
    const NodePtr node = directory.entries.at(place->second).node;
    directory.entries.erase(place->second);
    directory.places.erase(place);
    --node->links;
    if (node->IsDirectory()) node->parent = nullptr;
}

void Tree::CheckBelow(const Node& directory, std::map<const Node*, unsigned>* names) const {
    Demand(directory.entries.size() == directory.places.size(), "names and entries differ");
    for (const auto& [place, entry] : directory.entries) {
        Demand(NameError(entry.name, false) == 0, "a name that cannot be one");
        Demand(directory.places.at(entry.name) == place, "a name leads elsewhere");
        Demand(ByNumber(entry.node->number) == entry.node, "a node's number leads elsewhere");
        const bool isNew = ++(*names)[entry.node.get()] == 1;
        if (!entry.node->IsDirectory()) continue;
        Demand(isNew, "a directory has two names");
        Demand(entry.node->parent == &directory, "a directory's parent is another");
        CheckBelow(*entry.node, names);
    }
}

void Tree::Check() const {
    std::map<const Node*, unsigned> names{{root_.get(), 1}};
    CheckBelow(*root_, &names);
    for (const auto& [node, count] : names) Demand(node->links == count, "a node miscounts names");
}

static std::string PictureBelow(const Node& node) {
    std::string text = std::to_string(node.number) + " " + std::to_string(node.mode) + " " +
                       std::to_string(node.uid) + " " + std::to_string(node.gid) + " " +
                       std::to_string(node.modified) + " " +
                       std::to_string(std::hash<std::string>()(node.data)) + "\n";
    for (const auto& [place, entry] : node.entries)
        text += std::to_string(place) + " " + entry.name + " " + PictureBelow(*entry.node);
    return text;
}

std::string Tree::Picture() const {
    return PictureBelow(*root_);
}

int NameError(const std::string& name, bool lookingFor) {
    if (name.empty()) return ENOENT;
    if (name.size() > 255) return ENAMETOOLONG;
    if (name.find('/') != std::string::npos) return EACCES;
    if (name == "." || name == "..") return lookingFor ? 0 : EINVAL;
    return 0;
}

}  // namespace oxel::fuzz
