// SPDX-License-Identifier: Apache-2.0
//
// An ordinary user serves an overlay file system, where the kernel has no file handles to give:
// what clients hold stays good across restarts, sudden ends and renames, and is not searched for.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>

#include "tests/support/nfs_client.h"
#include "tests/support/private_mounts.h"
#include "tests/support/private_tree.h"

namespace oxel::test {
namespace {

constexpr uid_t kNobody = 65534;
constexpr uint32_t kStale = 70;

class Overlay : public testing::Test {
  protected:
    void SetUp() override {
        std::string reason = EnterPrivateMounts();
        if (reason.empty()) reason = MountOverlay();
        if (!reason.empty())
            GTEST_SKIP() << "overlay file systems in namespaces are not allowed here: " << reason;
        tree_.WriteConf("wire", "[Oxel]\nnNfs3Port = 0\n[Log]\nnLogLevel = 2\n");
        tree_.WriteExports("wire", "/share -dir=" + share_ + ",id=7 *(rw,insecure)\n");
        if (geteuid() == 0) {
            daemon_.SetWrapper({"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups",
                                "--pdeathsig=KILL"});
            ASSERT_EQ(chown(tree_.Root().c_str(), kNobody, kNobody), 0);
        }
        Make();
        ASSERT_TRUE(daemon_.Start());
        ASSERT_TRUE(daemon_.LogHas("file handles are made of inode numbers"));
        Connect();
        Collect("", root_);
        ASSERT_EQ(handles_.size(), 44u);
    }
    void TearDown() override {
        client_.reset();
        if (daemon_.Running()) {
            EXPECT_EQ(daemon_.Stop(), 0);
        }
        if (mounted_) {
            EXPECT_EQ(umount2(share_.c_str(), MNT_DETACH), 0);
        }
        if (ownLayers_) {
            EXPECT_EQ(umount2(tree_.Path("layers").c_str(), MNT_DETACH), 0);
        }
    }

    // Where the file system below takes no layers (it is an overlay itself), one in memory does.
    std::string MountOverlay() {
        share_ = tree_.MakeDir("share");
        for (ownLayers_ = false;; ownLayers_ = true) {
            const std::string layers = tree_.MakeDir("layers");
            if (ownLayers_ && mount("tmpfs", layers.c_str(), "tmpfs", 0, nullptr) != 0)
                return std::string("mounting layers: ") + strerror(errno);
            for (const char* name : {"lower", "upper", "work"})
                tree_.MakeDir(std::string("layers/") + name);
            lower_ = layers + "/lower";
            MakeLower();
            std::string options =
                "lowerdir=" + lower_ + ",upperdir=" + layers + "/upper,workdir=" + layers + "/work";
            if (geteuid() != 0) options += ",userxattr";
            mounted_ = mount("overlay", share_.c_str(), "overlay", 0, options.c_str()) == 0;
            if (mounted_) return std::string();
            if (ownLayers_) return std::string("mounting the overlay: ") + strerror(errno);
        }
    }
    void OwnedByTheUser(const std::string& path) {
        if (geteuid() == 0) {
            ASSERT_EQ(lchown(path.c_str(), kNobody, kNobody), 0);
        }
    }
    void MakeFile(const std::string& path, const std::string& text) {
        const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        ASSERT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
        close(fd);
        OwnedByTheUser(path);
    }
    void MakeDirectory(const std::string& path) {
        ASSERT_TRUE(mkdir(path.c_str(), 0755) == 0 || errno == EEXIST) << path;
        OwnedByTheUser(path);
    }
    void MakeLower() {
        OwnedByTheUser(lower_);
        OwnedByTheUser(tree_.Path("layers/upper"));
        MakeDirectory(lower_ + "/low");
        MakeDirectory(lower_ + "/low/deep");
        MakeFile(lower_ + "/low/file", "low/file");
        MakeFile(lower_ + "/low/deep/file", "low/deep/file");
    }
    // Every file holds the path that it has at first.
    void Make() {
        for (const char* name : {"a", "a/b", "a/b/c", "d"}) MakeDirectory(share_ + "/" + name);
        for (const std::string directory : {"a", "a/b", "a/b/c", "d"}) {
            for (int i = 0; i < 9; ++i) {
                const std::string path = directory + "/" + std::to_string(i);
                MakeFile(share_ + "/" + path, path);
            }
        }
    }

    void Connect() {
        client_ = std::make_unique<NfsClient>(daemon_.Port());
        root_ = client_->MountShare("/share");
        ASSERT_FALSE(root_.empty());
    }
    void Collect(const std::string& path, const std::string& directory) {
        const DirectoryPage page = client_->ReadDirectoryPlus(directory, 0, 8192, 65536);
        ASSERT_EQ(page.status, 0u);
        ASSERT_TRUE(page.eof);
        for (const DirectoryEntry& entry : page.entries) {
            if (entry.name == "." || entry.name == "..") continue;
            const std::string below = path.empty() ? entry.name : path + "/" + entry.name;
            ASSERT_TRUE(entry.hasHandle) << below;
            handles_[below] = entry.handle;
            if (entry.attributes.type == 2) Collect(below, entry.handle);
        }
    }
    // Every handle leads to the object that it was given for.
    void Check(const char* when) {
        SCOPED_TRACE(when);
        for (const auto& [path, handle] : handles_) {
            uint32_t status = 0;
            const Attributes attributes = client_->GetAttributes(handle, &status);
            ASSERT_EQ(status, 0u) << path;
            if (attributes.type != 1) continue;
            ASSERT_EQ(client_->Read(handle, 0, 4096, nullptr, &status), path);
            ASSERT_EQ(status, 0u) << path;
        }
    }
    void Restart(bool suddenly) {
        client_.reset();
        if (suddenly)
            daemon_.Kill();
        else
            ASSERT_EQ(daemon_.Stop(), 0);
        logBefore_ = daemon_.Log().size();
        ASSERT_TRUE(daemon_.Start());
        Connect();
    }
    // Since the last restart.
    size_t Searches() const {
        const std::string log = daemon_.Log();
        size_t count = 0;
        for (size_t at = logBefore_; (at = log.find("Searching share", at)) != std::string::npos;)
            ++count, ++at;
        return count;
    }
    uint32_t Rename(const std::string& from, const std::string& fromName, const std::string& to,
                    const std::string& toName) {
        return client_->Status(
            client_->Nfs(nfs::kRename, DirectoryName(from, fromName) + DirectoryName(to, toName)));
    }
    void Move(const std::string& from, const std::string& to) {
        ASSERT_EQ(rename((share_ + "/" + from).c_str(), (share_ + "/" + to).c_str()), 0)
            << from << ": " << strerror(errno);
    }
    // Whether the kernel tells which file of a lower layer a changed one was.
    bool OriginsAreTold() const {
        alignas(file_handle) char bytes[sizeof(file_handle) + 128] = {};
        auto* handle = reinterpret_cast<file_handle*>(bytes);
        handle->handle_bytes = 128;
        int mountId;
        return name_to_handle_at(AT_FDCWD, (share_ + "/low/file").c_str(), handle, &mountId,
                                 0x200) == 0 &&
               handle->handle_type == 0xf8;
    }

    PrivateTree tree_;
    std::string share_, lower_, root_;
    bool mounted_ = false, ownLayers_ = false;
    Daemon daemon_{tree_};
    std::unique_ptr<NfsClient> client_;
    std::map<std::string, std::string> handles_;  // by the path at first
    size_t logBefore_ = 0;
};

TEST_F(Overlay, HandlesOutliveRestartsWithoutASearch) {
    for (const bool suddenly : {false, true, false}) {
        Restart(suddenly);
        Check(suddenly ? "after a sudden end" : "after an orderly end");
        EXPECT_EQ(Searches(), 0u);
    }
    struct stat st;
    ASSERT_EQ(stat(tree_.Path("var/lib/oxelnfsd/wire/inodes").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0700u);
}

TEST_F(Overlay, HandlesOutliveRenamesThroughTheDaemonWithoutASearch) {
    EXPECT_EQ(Rename(handles_["a/b"], "3", handles_["d"], "moved"), 0u);
    EXPECT_EQ(Rename(handles_["a"], "b", root_, "b2"), 0u);
    EXPECT_EQ(Rename(root_, "a", handles_["d"], "a2"), 0u);
    EXPECT_EQ(Rename(handles_["a/b/c"], "0", handles_["a/b/c"], "zero"), 0u);
    Check("after the renames");
    for (const bool suddenly : {true, false}) {
        Restart(suddenly);
        Check(suddenly ? "after a sudden end" : "after an orderly end");
        EXPECT_EQ(Searches(), 0u);
    }
    EXPECT_EQ(client_->Walk(root_, "d/a2/0"), handles_["a/0"]);
    EXPECT_EQ(client_->Walk(root_, "b2/c/zero"), handles_["a/b/c/0"]);
}

TEST_F(Overlay, HandlesOutliveRenamesBehindTheBackOfTheDaemon) {
    Move("a/b/c", "d/c");
    Move("a/b", "b2");
    Check("while it runs");
    client_.reset();
    ASSERT_EQ(daemon_.Stop(), 0);
    Move("d/c/5", "five");
    Move("b2", "d/b3");
    Move("a", "a2");
    ASSERT_TRUE(daemon_.Start());
    Connect();
    Check("after a restart");
    // What a search has found is known from then on.
    Restart(true);
    Check("after a sudden end");
    EXPECT_EQ(Searches(), 0u);
}

TEST_F(Overlay, HandlesOutliveTheLossOfTheStore) {
    client_.reset();
    ASSERT_EQ(daemon_.Stop(), 0);
    const std::string data = "var/lib/oxelnfsd/wire/inodes/data.mdb";
    ASSERT_FALSE(ReadFile(tree_.Path(data)).empty());
    tree_.Write(data, std::string(50000, 'x'));
    logBefore_ = daemon_.Log().size();
    ASSERT_TRUE(daemon_.Start());
    EXPECT_TRUE(daemon_.LogHas("Warning: The places of files in ["));
    Connect();
    Check("after a search");
    EXPECT_EQ(Searches(), 1u);
    Restart(true);
    Check("after a sudden end");
    EXPECT_EQ(Searches(), 0u);
}

TEST_F(Overlay, ASecondNameKeepsAFileAndARemovedOneIsStale) {
    EXPECT_EQ(client_->Status(client_->Nfs(nfs::kLink, XdrWriter().Opaque(handles_["a/1"]).Bytes() +
                                                           DirectoryName(handles_["d"], "one"))),
              0u);
    EXPECT_EQ(client_->Status(client_->Nfs(nfs::kRemove, DirectoryName(handles_["a"], "1"))), 0u);
    EXPECT_EQ(client_->Status(client_->Nfs(nfs::kRemove, DirectoryName(handles_["a"], "2"))), 0u);
    const std::string removed = handles_["a/2"];
    handles_.erase("a/2");
    Restart(false);
    Check("after a restart");
    uint32_t status = 0;
    (void)client_->GetAttributes(removed, &status);
    EXPECT_EQ(status, kStale);
}

// The first change of a file or directory of a lower layer copies it, with another birth time.
TEST_F(Overlay, HandlesOfTheLowerLayerOutliveTheFirstChange) {
    if (!OriginsAreTold()) GTEST_SKIP() << "the kernel does not tell what a copied file was";
    EXPECT_EQ(client_->Status(client_->Nfs(nfs::kWrite,
                                           WriteArguments(handles_["low/file"], 0, 2, "low/file"))),
              0u);
    SetAttributes mode;
    mode.mode = 0600;
    EXPECT_EQ(client_->Status(client_->Nfs(nfs::kSetattr,
                                           XdrWriter().Opaque(handles_["low/deep/file"]).Bytes() +
                                               mode.Bytes() + XdrWriter().Bool(false).Bytes())),
              0u);
    EXPECT_EQ(client_->Status(client_->Nfs(
                  nfs::kMkdir, DirectoryName(handles_["low"], "new") + SetAttributes().Bytes())),
              0u);
    EXPECT_EQ(client_->Walk(root_, "low/file"), handles_["low/file"]);
    EXPECT_EQ(client_->Walk(root_, "low/deep"), handles_["low/deep"]);
    Check("after the changes");
    Restart(true);
    Check("after a sudden end");
    EXPECT_EQ(Searches(), 0u);
    EXPECT_EQ(Rename(handles_["low"], "file", handles_["d"], "moved"), 0u);
    Restart(false);
    Check("after a rename");
    EXPECT_EQ(Searches(), 0u);
}

}  // namespace
}  // namespace oxel::test
