// SPDX-License-Identifier: Apache-2.0
#include "fuzz/memory_module.h"

#include <arpa/inet.h>
#include <fcntl.h>

#include <algorithm>
#include <atomic>
#include <boost/make_shared.hpp>
#include <boost/smart_ptr/enable_shared_from_this.hpp>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "backend/ExportCache.h"
#include "backend/FSMCache.h"
#include "fuzz/memory_tree.h"

namespace oxel::fuzz {

void Demand(bool holds, const char* what) {
    if (holds) return;
    (void)fprintf(stderr, "DEMAND: %s\n", what);
    abort();
}

namespace {

constexpr uint32_t kMark = 0x6e6f6465;
constexpr FSModuleType kNoSuchType = 99;

// Calls are handled one after another, on one thread or another.
std::map<uint32_t, Tree> gTrees;  // made when they are first looked at
std::map<int, NodePtr> gOpen;
std::atomic<int> gStreams{0};
unsigned gOperation = 0, gFailing = 0;
int gError = 0;

// True when this operation is the one to fail, with errno.
bool Fails() {
    if (++gOperation != gFailing) return false;
    errno = gError;
    return true;
}
int Refuse(int error) {
    errno = error;
    return -1;
}
FSModuleType TypeOf(uint32_t share) {
    if (share == kUnlisted) return kUnlistedModuleType;
    return share == kDamaged ? kNoSuchType : MemoryModule::kType;
}
std::string PathOf(uint32_t share) {
    return "/share" + std::to_string(share);
}
nfs_fh3 HandleOf(uint32_t share, uint32_t number) {
    nfs_fh3 handle{};
    handle.nfh_len = 16;
    handle.fsmType = TypeOf(share);
    handle.shareId = share;
    const uint32_t words[] = {htonl(number), htonl(kMark)};
    memcpy(handle.objectId, words, sizeof words);
    return handle;
}

class MemoryExport : public Export {
  public:
    explicit MemoryExport(uint32_t number) : Export(PathOf(number)), number_(number) {}
    int AddMountPoint(const CLuIPAddr&, nfs_fh3* root) override {
        if (Fails()) return -1;
        *root = HandleOf(number_, 1);
        return 0;
    }
    FSModuleType GetFSMType() override { return TypeOf(number_); }
    unsigned IsWritable() override { return number_ != kReadOnly; }
    bool IsClientAllowed(XOIPAddr, const std::string&) override { return number_ != kRefused; }

  private:
    const uint32_t number_;
};

// Cut where the entry ends.
void SetName(struct dirent* entry, const std::string& name) {
    entry->d_name[name.copy(entry->d_name, sizeof entry->d_name - 1)] = '\0';
}

struct MemoryStream : DirStream {
    MemoryStream() { ++gStreams; }
    ~MemoryStream() override { --gStreams; }
    NodePtr node;
    uint64_t position = 0;
    struct dirent entry {};
};

class MemoryObject : public BkEndProc, public boost::enable_shared_from_this<MemoryObject> {
  public:
    MemoryObject(uint32_t share, NodePtr node, std::string path)
        : share_(share), node_(std::move(node)), path_(std::move(path)) {}

    int Stat(OxelCtxt*, const std::string&, struct stat* out) override {
        if (Fails()) return -1;
        if (node_->links == 0) return Refuse(ESTALE);
        *out = {};
        out->st_dev = share_;
        out->st_ino = node_->number;
        out->st_mode = node_->mode;
        out->st_nlink = node_->links;
        out->st_uid = node_->uid;
        out->st_gid = node_->gid;
        out->st_size = static_cast<off_t>(node_->data.size());
        out->st_blocks = out->st_size / 512;
        out->st_atime = node_->accessed;
        out->st_mtime = node_->modified;
        out->st_ctime = node_->changed;
        return 0;
    }
    int Access(OxelCtxt* ctxt, const std::string&, int mode) override {
        if (Fails()) return -1;
        const unsigned shift = ctxt->id.uid == node_->uid ? 6 : 0;
        return (node_->mode >> shift & static_cast<unsigned>(mode)) != 0 ? 0 : Refuse(EACCES);
    }
    int Open(OxelCtxt*, const std::string&, int, int) override {
        if (Fails()) return -1;
        if (node_->IsDirectory()) return Refuse(EISDIR);
        if (!S_ISREG(node_->mode)) return Refuse(ELOOP);
        int fd = 3;
        while (gOpen.contains(fd)) ++fd;
        gOpen[fd] = node_;
        return fd;
    }
    int Truncate(OxelCtxt*, const std::string&, uint64_t size) override {
        if (Fails()) return -1;
        if (!S_ISREG(node_->mode)) return Refuse(EINVAL);
        if (size > Tree::kBytesMax) return Refuse(EFBIG);
        node_->data.resize(size);
        return Changed();
    }
    ssize_t Read(OxelCtxt*, int fd, void* buffer, uint64_t offset, uint32_t count) override {
        if (Fails()) return -1;
        const std::string& data = gOpen.at(fd)->data;
        if (offset > INT64_MAX) return Refuse(EINVAL);
        if (offset >= data.size()) return 0;
        const size_t bytes = std::min<size_t>(count, data.size() - offset);
        memcpy(buffer, data.data() + offset, bytes);
        return static_cast<ssize_t>(bytes);
    }
    // At most 1,000 bytes at once, so that the rest is asked for again.
    ssize_t Write(OxelCtxt*, int fd, const void* from, uint64_t offset, uint32_t count,
                  stable_how) override {
        if (Fails()) return -1;
        if (offset > Tree::kBytesMax) return Refuse(EFBIG);
        Demand(count != 0, "a write of nothing");
        const uint32_t bytes = std::min(count, 1000u);
        std::string& data = gOpen.at(fd)->data;
        data.resize(std::max<size_t>(data.size(), offset + bytes));
        memcpy(data.data() + offset, from, bytes);
        return bytes;
    }
    int Close(OxelCtxt*, int fd) override {
        Demand(gOpen.erase(fd) == 1, "a descriptor is closed twice");
        return Fails() ? -1 : 0;
    }
    int Unlink(OxelCtxt* ctxt, const std::string& path) override {
        return Remove(ctxt->secondObject, path, false);
    }
    int RemoveDir(OxelCtxt* ctxt, const std::string& path) override {
        return Remove(ctxt->object, path, true);
    }
    DirStream* OpenDir(OxelCtxt*, const std::string&) override {
        if (Fails()) return nullptr;
        if (!node_->IsDirectory()) {
            errno = ENOTDIR;
            return nullptr;
        }
        auto* stream = new MemoryStream;
        stream->node = node_;
        return stream;
    }
    void SeekDir(OxelCtxt*, DirStream* stream, uint64_t position) override {
        static_cast<MemoryStream*>(stream)->position = position;
    }
    struct dirent* ReadDir(OxelCtxt*, DirStream* of) override {
        if (Fails()) return nullptr;
        auto* stream = static_cast<MemoryStream*>(of);
        struct dirent& entry = stream->entry;
        entry = {};
        if (stream->position < 2) {
            entry.d_ino = stream->node->number;
            SetName(&entry, stream->position == 0 ? "." : "..");
            ++stream->position;
            return &entry;
        }
        const auto next = stream->node->entries.upper_bound(stream->position);
        if (next == stream->node->entries.end()) return nullptr;
        stream->position = next->first;
        entry.d_ino = next->second.node->number;
        SetName(&entry, next->second.name);
        return &entry;
    }
    int64_t TellDir(OxelCtxt*, DirStream* stream) override {
        return static_cast<int64_t>(static_cast<MemoryStream*>(stream)->position);
    }
    void CloseDir(OxelCtxt*, DirStream* stream) override {
        delete static_cast<MemoryStream*>(stream);
    }
    int Chmod(OxelCtxt*, const std::string&, mode_t mode) override {
        if (Fails()) return -1;
        node_->mode = (node_->mode & S_IFMT) | (mode & 07777);
        return Changed();
    }
    int SetTimes(OxelCtxt*, const std::string&, const struct timeval& accessTime,
                 const struct timeval& modificationTime) override {
        if (Fails()) return -1;
        node_->accessed = accessTime.tv_sec;
        node_->modified = modificationTime.tv_sec;
        return 0;
    }
    int Chown(OxelCtxt*, const std::string&, uid_t uid, gid_t gid) override {
        if (Fails()) return -1;
        if (uid != static_cast<uid_t>(-1)) node_->uid = uid;
        if (gid != static_cast<gid_t>(-1)) node_->gid = gid;
        return Changed();
    }
    int Rename(OxelCtxt* ctxt, const std::string& from, const std::string& to) override;
    int HardLink(OxelCtxt* ctxt, const std::string& existing, const std::string& link) override;
    int CreateSymlink(OxelCtxt*, const std::string& target, const std::string& link) override {
        std::string name;
        if (Fails() || !NameIn(link, &name) || !MayMake(name)) return -1;
        const NodePtr made = tree().Make(*node_, name, S_IFLNK | 0777);
        if (!made) return -1;
        made->data = target;
        return Changed();
    }
    ssize_t ReadLink(OxelCtxt*, const std::string&, char* buffer, size_t capacity) override {
        if (Fails()) return -1;
        if (!S_ISLNK(node_->mode)) return Refuse(EINVAL);
        const size_t bytes = std::min(capacity, node_->data.size());
        std::copy_n(node_->data.data(), bytes, buffer);  // no final zero, as readlink(2)
        return static_cast<ssize_t>(bytes);
    }
    BkEndProcPtr CreateChild(OxelCtxt*, const std::string& name, int, mode_t mode) override {
        return Create(name, S_IFREG | (mode & 07777));
    }
    BkEndProcPtr CreateChildDir(OxelCtxt*, const std::string& name, mode_t mode) override {
        return Create(name, S_IFDIR | (mode & 07777));
    }
    BkEndProcPtr FindChild(OxelCtxt*, const std::string& name) override {
        if (Fails()) return BkEndProcPtr();
        if (!node_->IsDirectory()) return Null(ENOTDIR);
        if (const int error = NameError(name, true); error != 0) return Null(error);
        if (name == ".") return shared_from_this();
        if (name == "..") {
            const BkEndProcPtr parent = Parent();
            return parent ? parent : BkEndProcPtr(shared_from_this());
        }
        const NodePtr child = node_->Find(name);
        if (!child) return Null(ENOENT);
        errno = EEXIST;
        return At(child, name);
    }
    BkEndProcPtr GetParent(OxelCtxt*) override {
        if (Fails()) return BkEndProcPtr();
        return Parent();
    }
    int SyncFs(OxelCtxt*, int fd) override {
        Demand(gOpen.count(fd) == 1, "a sync of a closed descriptor");
        return Fails() ? -1 : 0;
    }
    long PathConf(OxelCtxt*, const std::string&, int) override { return Fails() ? -1 : 255; }
    int StatFs(OxelCtxt*, const std::string&, struct statfs* out) override {
        if (Fails()) return gError;
        *out = {};
        out->f_bsize = 4096;
        out->f_blocks = 1000;
        return 0;
    }
    const std::string& GetPath() const override { return path_; }
    void GetFileHandle(nfs_fh3* out) const override { *out = HandleOf(share_, node_->number); }

  private:
    using Ptr = boost::shared_ptr<MemoryObject>;
    Tree& tree() const { return gTrees.at(share_); }
    static BkEndProcPtr Null(int error) {
        errno = error;
        return BkEndProcPtr();
    }
    int Changed() {
        ++node_->changed;
        return 0;
    }
    BkEndProcPtr At(const NodePtr& node, const std::string& name) const {
        return boost::make_shared<MemoryObject>(share_, node, path_ + "/" + name);
    }
    BkEndProcPtr Parent() const;
    // Whether the directory can have the new name.
    bool MayMake(const std::string& name) {
        int error = NameError(name, false);
        if (!node_->IsDirectory()) error = ENOTDIR;
        if (error == 0 && node_->links == 0) error = ENOENT;
        if (error == 0 && node_->Find(name)) error = EEXIST;
        errno = error;
        return error == 0;
    }
    // The name in a path made of this directory's, a slash and the name.
    bool NameIn(const std::string& path, std::string* name) const {
        if (path.size() <= path_.size() || path.compare(0, path_.size(), path_) != 0 ||
            path[path_.size()] != '/') {
            errno = EINVAL;
            return false;
        }
        *name = path.substr(path_.size() + 1);
        return true;
    }
    BkEndProcPtr Create(const std::string& name, mode_t mode) {
        if (Fails() || !MayMake(name)) return BkEndProcPtr();
        const NodePtr made = tree().Make(*node_, name, mode);
        if (!made) return BkEndProcPtr();
        Changed();
        return At(made, name);
    }
    int Remove(const BkEndProcPtr& from, const std::string& path, bool wantDirectory);

    const uint32_t share_;
    const NodePtr node_;
    const std::string path_;
};

std::string PathOfNode(uint32_t share, const Node& node) {
    if (node.parent == nullptr) return PathOf(share);
    for (const auto& [place, entry] : node.parent->entries)
        if (entry.node.get() == &node) return PathOfNode(share, *node.parent) + "/" + entry.name;
    Demand(false, "a directory is not in its parent");
    return "";
}

BkEndProcPtr MemoryObject::Parent() const {
    if (node_->parent == nullptr) return BkEndProcPtr();
    return boost::make_shared<MemoryObject>(share_, tree().ByNumber(node_->parent->number),
                                            PathOfNode(share_, *node_->parent));
}

int MemoryObject::Remove(const BkEndProcPtr& from, const std::string& path, bool wantDirectory) {
    const auto* directory = dynamic_cast<MemoryObject*>(from.get());
    std::string name;
    if (Fails() || directory == nullptr || !directory->NameIn(path, &name)) return -1;
    Demand(directory->share_ == share_, "an object of another share is removed");
    if (const int error = NameError(name, false); error != 0) return Refuse(error);
    if (directory->node_->Find(name) != node_) return Refuse(ENOENT);
    if (node_->IsDirectory() != wantDirectory) return Refuse(wantDirectory ? ENOTDIR : EISDIR);
    if (!node_->entries.empty()) return Refuse(ENOTEMPTY);
    tree().Unlink(*directory->node_, name);
    return 0;
}

int MemoryObject::Rename(OxelCtxt* ctxt, const std::string& from, const std::string& to) {
    auto* source = dynamic_cast<MemoryObject*>(ctxt->object.get());
    auto* target = dynamic_cast<MemoryObject*>(ctxt->secondObject.get());
    if (Fails()) return -1;
    if (source == nullptr || target == nullptr) return Refuse(EINVAL);
    if (source->share_ != share_ || target->share_ != share_) return Refuse(EXDEV);
    if (!target->node_->IsDirectory()) return Refuse(ENOTDIR);
    if (target->node_->links == 0) return Refuse(ENOENT);
    for (const std::string& name : {from, to})
        if (const int error = NameError(name, false); error != 0) return Refuse(error);
    if (source->node_->Find(from) != node_) return Refuse(ENOENT);
    for (const Node* above = target->node_.get(); above != nullptr; above = above->parent)
        if (above == node_.get()) return Refuse(EINVAL);
    if (const NodePtr old = target->node_->Find(to); old == node_) {
        return 0;
    } else if (old) {
        if (old->IsDirectory() != node_->IsDirectory())
            return Refuse(old->IsDirectory() ? EISDIR : ENOTDIR);
        if (!old->entries.empty()) return Refuse(ENOTEMPTY);
        tree().Unlink(*target->node_, to);
    }
    const NodePtr node = node_;
    tree().Unlink(*source->node_, from);
    tree().Link(*target->node_, to, node);
    return 0;
}

int MemoryObject::HardLink(OxelCtxt*, const std::string& existing, const std::string& link) {
    std::string name;
    if (Fails() || !NameIn(link, &name)) return -1;
    // The existing object by its path, which may lie in another share.
    if (existing != PathOf(share_) && existing.rfind(PathOf(share_) + "/", 0) != 0)
        return Refuse(EXDEV);
    NodePtr node = tree().Root();
    for (size_t at = PathOf(share_).size(); node && at < existing.size();) {
        const size_t end = std::min(existing.find('/', at + 1), existing.size());
        node = node->Find(existing.substr(at + 1, end - at - 1));
        at = end;
    }
    if (!node) return Refuse(ENOENT);
    if (node->IsDirectory()) return Refuse(EPERM);
    if (!MayMake(name)) return -1;
    tree().Link(*node_, name, node);
    return 0;
}

std::map<uint32_t, ExportPtr>& Shares() {
    static auto* shares = new std::map<uint32_t, ExportPtr>;
    return *shares;
}

// A path that leads to the node; empty when none does any more.
std::string AnyPathOf(const Node& directory, const std::string& path, const Node& node) {
    if (&directory == &node) return path;
    for (const auto& [place, entry] : directory.entries) {
        std::string below = path + "/" + entry.name;
        if (entry.node.get() == &node) return below;
        if (!entry.node->IsDirectory()) continue;
        if (std::string found = AnyPathOf(*entry.node, below, node); !found.empty()) return found;
    }
    return "";
}

}  // namespace

void MemoryModule::Install() {
    const auto module = boost::make_shared<MemoryModule>();
    FSMCache::SetFSM(kType, module);
    FSMCache::SetFSM(kUnlistedModuleType, module);
    std::vector<std::pair<unsigned, ExportPtr>> shares;
    for (uint32_t number = kWritable; number < kShareEnd; ++number) {
        Shares()[number] = boost::make_shared<MemoryExport>(number);
        shares.emplace_back(number, Shares()[number]);
    }
    gAllExports.Replace(std::move(shares));
}

void MemoryModule::Begin(unsigned failing, int error) {
    gTrees.clear();
    gOperation = 0;
    gFailing = failing;
    gError = error;
}

void MemoryModule::Check() {
    Demand(gOpen.empty(), "a file stays open");
    Demand(gStreams == 0, "a directory stays open");
    for (const auto& [number, tree] : gTrees) tree.Check();
    static const std::string fresh = Tree().Picture();
    for (const uint32_t number : {kReadOnly, kRefused, kDamaged})
        if (const auto tree = gTrees.find(number); tree != gTrees.end())
            Demand(tree->second.Picture() == fresh, "what nobody may change has changed");
}

std::string MemoryModule::GetHandleString(const nfs_fh3& handle) {
    return std::to_string(handle.shareId) + "/" + std::to_string(handle.nfh_len);
}

BkEndProcPtr MemoryModule::GetBkEndProc(ExportPtr& share, const nfs_fh3& handle) {
    if (Fails()) return BkEndProcPtr();
    Demand(share != nullptr, "an object without a share");
    uint32_t words[2];
    memcpy(words, handle.objectId, sizeof words);
    if (handle.nfh_len != 16 || ntohl(words[1]) != kMark || !Shares().contains(handle.shareId) ||
        handle.fsmType != TypeOf(handle.shareId))
        return BkEndProcPtr();
    const Tree& tree = gTrees[handle.shareId];
    const NodePtr node = tree.ByNumber(ntohl(words[0]));
    if (!node) return BkEndProcPtr();
    const std::string path = AnyPathOf(*tree.Root(), PathOf(handle.shareId), *node);
    if (path.empty()) return BkEndProcPtr();
    return boost::make_shared<MemoryObject>(handle.shareId, node, path);
}

bool MemoryModule::GetExportForHandle(const nfs_fh3& handle, ExportPtr& share) {
    const auto found = Shares().find(handle.shareId);
    if (found == Shares().end() || handle.fsmType != TypeOf(handle.shareId) || Fails())
        return false;
    share = found->second;
    return true;
}

}  // namespace oxel::fuzz
