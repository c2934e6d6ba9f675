// SPDX-License-Identifier: Apache-2.0
//
// Two clients and this machine work on one share: what one of them does, the others see at once.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <memory>
#include <vector>

#include "tests/support/modes.h"
#include "tests/support/private_tree.h"
#include "tests/system/libnfs_client.h"

namespace oxel::test {
namespace {

struct Seen {
    int error = 0;
    uint64_t size = 0, inode = 0, nlink = 0;
    uint32_t mode = 0, uid = 0, gid = 0, mtime = 0;
    bool operator==(const Seen&) const = default;
};
void PrintTo(const Seen& seen, std::ostream* out) {
    *out << "error " << seen.error << " inode " << seen.inode << " size " << seen.size << " mode "
         << std::oct << seen.mode << std::dec << " nlink " << seen.nlink << " owner " << seen.uid
         << ":" << seen.gid << " mtime " << seen.mtime;
}

// Somebody who works on the share. Paths begin with a slash; every operation answers 0 or an errno.
class Actor {
  public:
    virtual ~Actor() = default;
    virtual const char* Name() const = 0;
    virtual int Write(const std::string& path, const std::string& text) = 0;  // made if need be
    virtual int Read(const std::string& path, std::string* text) = 0;
    virtual int Rename(const std::string& from, const std::string& to) = 0;
    virtual int Remove(const std::string& path) = 0;
    virtual int MakeDirectory(const std::string& path) = 0;
    virtual int RemoveDirectory(const std::string& path) = 0;
    virtual int Link(const std::string& existing, const std::string& path) = 0;
    virtual int Symlink(const std::string& target, const std::string& path) = 0;
    virtual int ReadLink(const std::string& path, std::string* target) = 0;
    virtual int Chmod(const std::string& path, unsigned mode) = 0;
    virtual int Chown(const std::string& path, unsigned uid, unsigned gid) = 0;
    virtual int Truncate(const std::string& path, uint64_t size) = 0;
    virtual int SetTimes(const std::string& path, uint32_t seconds) = 0;
    virtual Seen Look(const std::string& path) = 0;
    virtual std::vector<std::string> List(const std::string& path) = 0;
};

class Local final : public Actor {
  public:
    explicit Local(std::string root) : root_(std::move(root)) {}
    const char* Name() const override { return "this machine"; }
    int Write(const std::string& path, const std::string& text) override {
        std::ofstream out(At(path), std::ios::binary | std::ios::trunc);
        out << text;
        out.close();
        return out.good() ? 0 : EIO;
    }
    int Read(const std::string& path, std::string* text) override {
        if (access(At(path).c_str(), R_OK) != 0) return errno;
        *text = ReadFile(At(path));
        return 0;
    }
    int Rename(const std::string& from, const std::string& to) override {
        return Errno(rename(At(from).c_str(), At(to).c_str()));
    }
    int Remove(const std::string& path) override { return Errno(unlink(At(path).c_str())); }
    int MakeDirectory(const std::string& path) override {
        return Errno(mkdir(At(path).c_str(), 0755));
    }
    int RemoveDirectory(const std::string& path) override { return Errno(rmdir(At(path).c_str())); }
    int Link(const std::string& existing, const std::string& path) override {
        return Errno(link(At(existing).c_str(), At(path).c_str()));
    }
    int Symlink(const std::string& target, const std::string& path) override {
        return Errno(symlink(target.c_str(), At(path).c_str()));
    }
    int ReadLink(const std::string& path, std::string* target) override {
        char text[4096] = {};
        if (readlink(At(path).c_str(), text, sizeof text - 1) < 0) return errno;
        *target = text;
        return 0;
    }
    int Chmod(const std::string& path, unsigned mode) override {
        return Errno(chmod(At(path).c_str(), mode));
    }
    int Chown(const std::string& path, unsigned uid, unsigned gid) override {
        return Errno(lchown(At(path).c_str(), uid, gid));
    }
    int Truncate(const std::string& path, uint64_t size) override {
        return Errno(truncate(At(path).c_str(), static_cast<off_t>(size)));
    }
    int SetTimes(const std::string& path, uint32_t seconds) override {
        const timeval times[2] = {{seconds, 0}, {seconds, 0}};
        return Errno(utimes(At(path).c_str(), times));
    }
    Seen Look(const std::string& path) override {
        struct stat st;
        if (lstat(At(path).c_str(), &st) != 0) return {errno};
        const uint64_t size = S_ISDIR(st.st_mode) ? 4096 : static_cast<uint64_t>(st.st_size);
        return {0,
                size,
                st.st_ino,
                st.st_nlink,
                st.st_mode & ~01000u,
                st.st_uid,
                st.st_gid,
                static_cast<uint32_t>(st.st_mtime)};
    }
    std::vector<std::string> List(const std::string& path) override {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(At(path)))
            names.push_back(entry.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    }

  private:
    std::string At(const std::string& path) const { return root_ + path; }
    static int Errno(int result) { return result == 0 ? 0 : errno; }
    const std::string root_;
};

class Client final : public Actor {
  public:
    Client(const char* name, uint16_t port)
        : name_(name), client_(port, "/tree"), reader_(port, "/look") {}
    const char* Name() const override { return name_; }
    int Write(const std::string& path, const std::string& text) override {
        nfsfh* file = nullptr;
        if (const int made = nfs_creat(nfs(), path.c_str(), 0644, &file); made != 0) return -made;
        int error = 0;
        // The library cuts a file that it is to make anew, or does not, depending on its version.
        if (const int cut = nfs_ftruncate(nfs(), file, 0); cut != 0) error = -cut;
        if (const int n = nfs_pwrite(nfs(), file, 0, text.size(), text.data()); n < 0) error = -n;
        (void)nfs_close(nfs(), file);
        return error;
    }
    int Read(const std::string& path, std::string* text) override {
        nfsfh* file = nullptr;
        // From the share where nothing may be written: the library opens what it may only read.
        const int opened = nfs_open(reader_.Get(), path.c_str(), O_RDONLY, &file);
        if (opened != 0) return -opened;
        text->assign(100000, '\0');
        const int got = nfs_pread(reader_.Get(), file, 0, text->size(), text->data());
        text->resize(static_cast<size_t>(std::max(got, 0)));
        (void)nfs_close(reader_.Get(), file);
        return got < 0 ? -got : 0;
    }
    int Rename(const std::string& from, const std::string& to) override {
        return -nfs_rename(nfs(), from.c_str(), to.c_str());
    }
    int Remove(const std::string& path) override { return -nfs_unlink(nfs(), path.c_str()); }
    int MakeDirectory(const std::string& path) override { return -nfs_mkdir(nfs(), path.c_str()); }
    int RemoveDirectory(const std::string& path) override {
        return -nfs_rmdir(nfs(), path.c_str());
    }
    int Link(const std::string& existing, const std::string& path) override {
        return -nfs_link(nfs(), existing.c_str(), path.c_str());
    }
    int Symlink(const std::string& target, const std::string& path) override {
        return -nfs_symlink(nfs(), target.c_str(), path.c_str());
    }
    int ReadLink(const std::string& path, std::string* target) override {
        char text[4096] = {};
        const int result = nfs_readlink(nfs(), path.c_str(), text, sizeof text);
        *target = text;
        return -result;
    }
    int Chmod(const std::string& path, unsigned mode) override {
        return -nfs_chmod(nfs(), path.c_str(), static_cast<int>(mode));
    }
    int Chown(const std::string& path, unsigned uid, unsigned gid) override {
        return -nfs_lchown(nfs(), path.c_str(), static_cast<int>(uid), static_cast<int>(gid));
    }
    int Truncate(const std::string& path, uint64_t size) override {
        return -nfs_truncate(nfs(), path.c_str(), size);
    }
    int SetTimes(const std::string& path, uint32_t seconds) override {
        timeval times[2] = {{seconds, 0}, {seconds, 0}};
        return -nfs_utimes(nfs(), path.c_str(), times);
    }
    Seen Look(const std::string& path) override {
        nfs_stat_64 st{};
        if (const int error = nfs_lstat64(nfs(), path.c_str(), &st); error != 0) return {-error};
        return {0,
                st.nfs_size,
                st.nfs_ino,
                st.nfs_nlink,
                static_cast<uint32_t>(st.nfs_mode),
                static_cast<uint32_t>(st.nfs_uid),
                static_cast<uint32_t>(st.nfs_gid),
                static_cast<uint32_t>(st.nfs_mtime)};
    }
    std::vector<std::string> List(const std::string& path) override {
        std::vector<std::string> names;
        nfsdir* stream = nullptr;
        if (nfs_opendir(nfs(), path.c_str(), &stream) != 0) return {client_.Error()};
        while (const nfsdirent* entry = nfs_readdir(nfs(), stream)) {
            const std::string name = entry->name;
            if (name != "." && name != "..") names.push_back(name);
        }
        nfs_closedir(nfs(), stream);
        std::sort(names.begin(), names.end());
        return names;
    }
    bool Mounted() const { return client_.Mounted() && reader_.Mounted(); }
    nfs_context* nfs() const { return client_.Get(); }
    nfs_context* Reader() const { return reader_.Get(); }

  private:
    const char* const name_;
    LibnfsClient client_, reader_;
};

class Visibility : public testing::TestWithParam<Mode> {
  protected:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "files change their owners here";
        root_ = tree_.MakeDir("share");
        tree_.WriteConf("wire", "[Oxel]\nnNfs3Port = 0\n" + ModeSettings(GetParam()));
        tree_.WriteExports("wire", "/tree -dir=" + root_ +
                                       " *(rw,no_root_squash,insecure)\n/look -dir=" + root_ +
                                       " *(ro,no_root_squash,insecure)\n");
        ASSERT_TRUE(daemon_.Start());
        auto first = std::make_unique<Client>("the first client", daemon_.Port());
        auto second = std::make_unique<Client>("the second client", daemon_.Port());
        ASSERT_TRUE(first->Mounted() && second->Mounted());
        first_ = first.get();
        actors_.push_back(std::move(first));
        actors_.push_back(std::move(second));
        actors_.push_back(std::make_unique<Local>(root_));
    }
    void TearDown() override { actors_.clear(); }

    // Everybody sees what is on the disk, attribute by attribute.
    void ExpectAllSee(const std::string& path) {
        const Seen wanted = actors_.back()->Look(path);
        EXPECT_EQ(wanted.error, 0) << path;
        for (const auto& actor : actors_) EXPECT_EQ(actor->Look(path), wanted) << actor->Name();
    }
    void ExpectAllRead(const std::string& path, const std::string& text) {
        for (const auto& actor : actors_) {
            std::string read = "not read";
            EXPECT_EQ(actor->Read(path, &read), 0) << actor->Name() << " " << path;
            EXPECT_EQ(read, text) << actor->Name();
        }
        ExpectAllSee(path);
    }
    void ExpectNobodySees(const std::string& path) {
        for (const auto& actor : actors_) {
            EXPECT_EQ(actor->Look(path).error, ENOENT) << actor->Name() << " " << path;
            std::string text;
            EXPECT_EQ(actor->Read(path, &text), ENOENT) << actor->Name() << " " << path;
        }
    }
    void ExpectAllList(const std::string& path, const std::vector<std::string>& names) {
        for (const auto& actor : actors_) EXPECT_EQ(actor->List(path), names) << actor->Name();
    }
    // One who does something, after everybody has looked.
    template <typename Act>
    void EachInTurn(Act act) {
        for (int round = 0; round < 3; ++round) {
            for (const auto& actor : actors_) {
                SCOPED_TRACE(actor->Name());
                act(*actor, std::to_string(round));
                if (HasFailure()) return;
            }
        }
    }

    PrivateTree tree_;
    Daemon daemon_{tree_};
    std::string root_;
    std::vector<std::unique_ptr<Actor>> actors_;
    Client* first_ = nullptr;
};

TEST_P(Visibility, FilesThatAreMadeWrittenAndRemoved) {
    EachInTurn([&](Actor& actor, const std::string& round) {
        ExpectNobodySees("/file");
        EXPECT_EQ(actor.Write("/file", "made " + round), 0);
        ExpectAllRead("/file", "made " + round);
        ExpectAllList("/", {"file"});
        for (const std::string& text : {std::string(70000, 'l') + round, "short" + round}) {
            EXPECT_EQ(actor.Write("/file", text), 0);
            ExpectAllRead("/file", text);
        }
        EXPECT_EQ(actor.Remove("/file"), 0);
        ExpectNobodySees("/file");
        ExpectAllList("/", {});
    });
}

TEST_P(Visibility, NamesThatChange) {
    EachInTurn([&](Actor& actor, const std::string& round) {
        EXPECT_EQ(actors_[0]->Write("/from", "moved " + round), 0);
        EXPECT_EQ(actors_[1]->Write("/to", "replaced"), 0);
        ExpectAllRead("/from", "moved " + round);
        ExpectAllRead("/to", "replaced");
        EXPECT_EQ(actor.Rename("/from", "/to"), 0);
        ExpectNobodySees("/from");
        ExpectAllRead("/to", "moved " + round);
        EXPECT_EQ(actor.Link("/to", "/link"), 0);
        ExpectAllRead("/link", "moved " + round);
        ExpectAllSee("/to");
        EXPECT_EQ(actor.Symlink("to", "/soft"), 0);
        for (const auto& other : actors_) {
            std::string target;
            EXPECT_EQ(other->ReadLink("/soft", &target), 0) << other->Name();
            EXPECT_EQ(target, "to");
        }
        ExpectAllList("/", {"link", "soft", "to"});
        EXPECT_EQ(actor.Remove("/to"), 0);
        EXPECT_EQ(actor.Remove("/soft"), 0);
        ExpectNobodySees("/to");
        ExpectAllRead("/link", "moved " + round);
        EXPECT_EQ(actor.Remove("/link"), 0);
        ExpectAllList("/", {});
    });
}

TEST_P(Visibility, DirectoriesThatAreMadeMovedAndRemoved) {
    EachInTurn([&](Actor& actor, const std::string& round) {
        EXPECT_EQ(actor.MakeDirectory("/dir"), 0);
        ExpectAllSee("/dir");
        for (size_t i = 0; i < actors_.size(); ++i)
            EXPECT_EQ(actors_[i]->Write("/dir/file" + std::to_string(i), round), 0);
        ExpectAllList("/dir", {"file0", "file1", "file2"});
        EXPECT_EQ(actor.RemoveDirectory("/dir"), ENOTEMPTY);
        EXPECT_EQ(actor.Rename("/dir", "/moved"), 0);
        ExpectNobodySees("/dir");
        ExpectNobodySees("/dir/file0");
        ExpectAllList("/moved", {"file0", "file1", "file2"});
        ExpectAllRead("/moved/file1", round);
        for (size_t i = 0; i < actors_.size(); ++i)
            EXPECT_EQ(actors_[i]->Remove("/moved/file" + std::to_string(i)), 0);
        ExpectAllList("/moved", {});
        EXPECT_EQ(actor.RemoveDirectory("/moved"), 0);
        ExpectNobodySees("/moved");
    });
}

TEST_P(Visibility, AttributesThatChange) {
    EachInTurn([&](Actor& actor, const std::string& round) {
        const std::string path = "/file";
        EXPECT_EQ(actors_.back()->Write(path, "some text"), 0);
        ExpectAllRead(path, "some text");
        for (const unsigned mode : {0600u, 0644u, 04711u, 0444u, 0644u}) {
            EXPECT_EQ(actor.Chmod(path, mode), 0);
            EXPECT_EQ(actors_.back()->Look(path).mode & 07777, mode);
            ExpectAllSee(path);
        }
        EXPECT_EQ(actor.Chown(path, 12345, 23456), 0);
        EXPECT_EQ(actors_.back()->Look(path).gid, 23456u);
        ExpectAllSee(path);
        const uint32_t time = 1000000000 + static_cast<uint32_t>(std::stoul(round));
        EXPECT_EQ(actor.SetTimes(path, time), 0);
        EXPECT_EQ(actors_.back()->Look(path).mtime, time);
        ExpectAllSee(path);
        EXPECT_EQ(actor.Truncate(path, 4), 0);
        ExpectAllRead(path, "some");
        EXPECT_EQ(actor.Truncate(path, 6), 0);
        ExpectAllRead(path, std::string("some\0\0", 6));
        EXPECT_EQ(actor.Remove(path), 0);
    });
}

TEST_P(Visibility, AnOpenFileThatOthersRemoveIsStale) {
    for (const auto& actor : actors_) {
        SCOPED_TRACE(actor->Name());
        EXPECT_EQ(actor->Write("/file", "text"), 0);
        nfsfh* file = nullptr;
        ASSERT_EQ(nfs_open(first_->Reader(), "/file", O_RDONLY, &file), 0);
        char text[10] = {};
        EXPECT_EQ(nfs_pread(first_->Reader(), file, 0, sizeof text, text), 4);
        EXPECT_EQ(actor->Remove("/file"), 0);
        // With a number of the library's own.
        EXPECT_LT(nfs_pread(first_->Reader(), file, 0, sizeof text, text), 0);
        (void)nfs_close(first_->Reader(), file);  // fails as the read did

        // One of the same name is another file.
        EXPECT_EQ(actor->Write("/file", "other"), 0);
        ExpectAllRead("/file", "other");
        EXPECT_EQ(actor->Remove("/file"), 0);
    }
}

OXEL_ALL_MODES(Visibility);

}  // namespace
}  // namespace oxel::test
