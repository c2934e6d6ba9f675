// SPDX-License-Identifier: Apache-2.0
//
// Disks run full: the share's, and the one that the daemon keeps its own things on. What was
// answered as done stays, clients are told the reason, and work goes on as soon as there is room.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <thread>

#include "tests/support/modes.h"
#include "tests/support/private_mounts.h"
#include "tests/support/private_tree.h"
#include "tests/system/integrity_client.h"

namespace oxel::test {
namespace {

constexpr uint32_t kNoSpace = 28;
constexpr size_t kBlockBytes = 50000;

#define SKIP_WITHOUT(mount)        \
    if (!(mount)->Error().empty()) \
    GTEST_SKIP() << "file systems in namespaces are not allowed here: " << (mount)->Error()

class FullDisk : public testing::TestWithParam<Mode> {
  protected:
    void SetUp() override {
        tree_.MakeDir("share");
        tree_.WriteConf("wire", "[Oxel]\nnNfs3Port = 0\n" + ModeSettings(GetParam()));
        tree_.WriteExports(
            "wire", "/share -dir=" + tree_.Path("share") + ",id=7 *(rw,no_root_squash,insecure)\n");
    }
    void TearDown() override {
        session_.reset();
        if (daemon_.Running()) {
            EXPECT_EQ(daemon_.Stop(), 0);
        }
        share_.reset();
    }
    void Start() {
        ASSERT_TRUE(daemon_.Start());
        session_ = std::make_unique<Session>(daemon_.Port());
        root_ = session_->Client().MountShare("/share");
    }
    uint32_t Status(uint32_t procedure, const std::string& arguments) {
        return XdrReader(*session_->Call(procedure, arguments)).U32();
    }
    uint32_t Symlink(const std::string& name) {
        return Status(nfs::kSymlink,
                      DirectoryName(root_, name) +
                          XdrWriter().Raw(SetAttributes().Bytes()).Opaque("target").Bytes());
    }
    uint32_t Mkdir(const std::string& name) {
        return Status(nfs::kMkdir, DirectoryName(root_, name) + SetAttributes().Bytes());
    }

    PrivateTree tree_;
    Daemon daemon_{tree_};
    std::unique_ptr<PrivateMount> share_;
    std::unique_ptr<Session> session_;
    std::string root_;
};

// A client that writes file after file until there is no room, and knows what was taken.
class Filler {
  public:
    Filler(uint16_t port, unsigned number) : session_(port), random_(number), number_(number) {
        root_ = session_.Client().MountShare("/share");
    }
    // Until `refusals` writes have been refused.
    void Fill(unsigned refusals) {
        while (refusals > 0 && !testing::Test::HasFailure()) {
            if (handle_.empty() || files_[handle_].size() > 10 * kBlockBytes) {
                const Made made = MadeResults(*session_.Call(
                    nfs::kCreate, CreateArguments(root_, "f" + std::to_string(number_) + "." +
                                                             std::to_string(made_++))));
                if (made.status != 0) {
                    EXPECT_EQ(made.status, kNoSpace);
                    --refusals;
                    continue;
                }
                handle_ = made.handle;
            }
            std::string& content = files_[handle_];
            if (next_.empty()) next_ = UniqueBytes(random_, kBlockBytes);
            const Changed changed = WriteResults(*session_.Call(
                nfs::kWrite,
                WriteArguments(handle_, content.size(), static_cast<uint32_t>(made_ % 3), next_)));
            if (changed.status != 0) {
                EXPECT_EQ(changed.status, kNoSpace);
                --refusals;
                continue;
            }
            EXPECT_EQ(changed.count, next_.size());
            content += next_;
            next_.clear();
        }
    }
    // Of every file, also by another daemon; how many bytes.
    uint64_t ExpectEverythingThere(uint16_t port) {
        session_.Reconnect(port);
        uint64_t bytes = 0;
        for (const auto& [handle, content] : files_) {
            EXPECT_EQ(CommitResults(*session_.Call(nfs::kCommit, CommitArguments(handle))).status,
                      0u);
            std::string found;
            for (;;) {
                const std::string piece = session_.Client().Read(handle, found.size(), 200000);
                if (piece.empty()) break;
                found += piece;
            }
            // Of a write that was refused, what had room stays; it is sent again when there is
            // room.
            const std::string rest =
                handle == handle_ ? next_.substr(0, found.size() - content.size()) : "";
            EXPECT_EQ(Difference(content + rest, found), "");
            bytes += content.size();
        }
        return bytes;
    }
    void RemoveAll() {
        for (unsigned i = 0; i < made_; ++i) {
            const std::string name = "f" + std::to_string(number_) + "." + std::to_string(i);
            EXPECT_EQ(XdrReader(*session_.Call(nfs::kRemove, DirectoryName(root_, name))).U32(),
                      0u);
        }
        files_.clear();
        handle_.clear();
        next_.clear();
    }

  private:
    Session session_;
    Random random_;
    const unsigned number_;
    std::string root_, handle_;  // the file that is being written
    std::string next_;           // what is to be written next
    unsigned made_ = 0;
    std::map<std::string, std::string> files_;  // by handle
};

TEST_P(FullDisk, NothingThatWasAnsweredIsLostAndWorkGoesOnWhenThereIsRoom) {
    share_ = std::make_unique<PrivateMount>(tree_.Path("share"), "size=12m");
    SKIP_WITHOUT(share_);
    ASSERT_NO_FATAL_FAILURE(Start());
    constexpr unsigned kFillers = 3;
    std::vector<std::unique_ptr<Filler>> fillers;
    for (unsigned i = 0; i < kFillers; ++i)
        fillers.push_back(std::make_unique<Filler>(daemon_.Port(), i));
    uint64_t verified = 0;
    for (int round = 0; round < 4; ++round) {
        std::vector<std::thread> threads;
        for (auto& filler : fillers) threads.emplace_back([&] { filler->Fill(20); });
        for (std::thread& thread : threads) thread.join();
        // By the daemon that ran full, and by the next one.
        for (auto& filler : fillers) verified += filler->ExpectEverythingThere(daemon_.Port());
        if (round == 2) {
            daemon_.Kill();
            ASSERT_NO_FATAL_FAILURE(Start());
        }
        for (auto& filler : fillers) verified += filler->ExpectEverythingThere(daemon_.Port());
        // The room of a removed file is there at once: nobody keeps it open.
        fillers[static_cast<size_t>(round) % kFillers]->RemoveAll();
    }
    printf("%llu bytes verified\n", static_cast<unsigned long long>(verified));
    EXPECT_GT(verified, 4u * (10 << 20));
}

TEST_P(FullDisk, NamesAreRefusedWhenThereAreNoMoreOfThem) {
    share_ = std::make_unique<PrivateMount>(tree_.Path("share"), "size=4m,nr_inodes=40");
    SKIP_WITHOUT(share_);
    ASSERT_NO_FATAL_FAILURE(Start());
    for (int round = 0; round < 3; ++round) {
        std::vector<std::string> made;
        uint32_t status = 0;
        for (int i = 0; status == 0; ++i) {
            const std::string name = "n" + std::to_string(i);
            status = i % 3 == 0   ? Mkdir(name)
                     : i % 3 == 1 ? Symlink(name)
                                  : Status(nfs::kCreate, CreateArguments(root_, name));
            if (status == 0) made.push_back(name);
            ASSERT_LT(i, 100);
        }
        EXPECT_EQ(status, kNoSpace);
        EXPECT_EQ(Mkdir("more"), kNoSpace);
        EXPECT_EQ(Symlink("more"), kNoSpace);
        EXPECT_EQ(Status(nfs::kCreate, CreateArguments(root_, "more")), kNoSpace);
        // Everything else goes on: what there is can be used and renamed.
        EXPECT_EQ(Status(nfs::kRename,
                         DirectoryName(root_, made.back()) + DirectoryName(root_, "renamed")),
                  0u);
        made.back() = "renamed";
        EXPECT_EQ(session_->Client().ReadDirectory(root_, 0, 8000).entries.size(), made.size() + 2);
        for (const std::string& name : made) {
            struct stat st {};
            ASSERT_EQ(lstat((tree_.Path("share") + "/" + name).c_str(), &st), 0);
            EXPECT_EQ(Status(S_ISDIR(st.st_mode) ? nfs::kRmdir : nfs::kRemove,
                             DirectoryName(root_, name)),
                      0u);
        }
    }
}

// Registry, log, published numbers, all on one small disk.
class FullStateDisk : public FullDisk {
  protected:
    void SetUp() override {
        FullDisk::SetUp();
        tree_.MakeDir("var");
        state_ = std::make_unique<PrivateMount>(tree_.MakeDir("var"), "size=1m");
        tree_.MakeDir("run");
        run_ = std::make_unique<PrivateMount>(tree_.MakeDir("run"), "size=1m");
    }
    void TearDown() override {
        FullDisk::TearDown();
        state_.reset();
        run_.reset();
    }
    void FillAll() {
        ASSERT_NO_FATAL_FAILURE(state_->Fill());
        ASSERT_NO_FATAL_FAILURE(run_->Fill());
    }
    void EmptyAll() {
        state_->Empty();
        run_->Empty();
    }
    void ExpectWork(const std::string& name) {
        const Made made = MadeResults(*session_->Call(nfs::kCreate, CreateArguments(root_, name)));
        ASSERT_EQ(made.status, 0u);
        EXPECT_EQ(WriteResults(
                      *session_->Call(nfs::kWrite, WriteArguments(made.handle, 0, kFileSync, name)))
                      .status,
                  0u);
        EXPECT_EQ(session_->Client().Read(made.handle, 0, 100), name);
        std::string output;
        EXPECT_EQ(daemon_.Control({"--json", "status"}, &output), 0) << output;
        EXPECT_EQ(session_->Client().MountShare("/share"), root_);
    }
    nlohmann::json Registry() const {
        return nlohmann::json::parse(ReadFile(tree_.Path("var/lib/oxelnfsd/wire/registry.json")),
                                     nullptr, false);
    }

    std::unique_ptr<PrivateMount> state_, run_;
};

TEST_P(FullStateDisk, ClientsNoticeNothing) {
    SKIP_WITHOUT(state_);
    ASSERT_NO_FATAL_FAILURE(Start());
    ASSERT_FALSE(Registry().is_discarded());
    ASSERT_NO_FATAL_FAILURE(FillAll());
    ASSERT_NO_FATAL_FAILURE(ExpectWork("full"));
    // Enough lines that some are lost.
    for (int i = 0; i < 200; ++i) EXPECT_EQ(session_->Client().MountShare("/share"), root_);
    daemon_.Signal(SIGHUP);
    std::string output;
    EXPECT_EQ(daemon_.Control({"reload"}, &output), 0) << output;
    ASSERT_NO_FATAL_FAILURE(ExpectWork("still full"));
    // The last registry that could be written is whole.
    EXPECT_FALSE(Registry().is_discarded());
    EmptyAll();
    ASSERT_NO_FATAL_FAILURE(ExpectWork("empty again"));
    EXPECT_TRUE(daemon_.WaitForLog("Request to mount [/share]."));
    EXPECT_FALSE(Registry().is_discarded());
}

TEST_P(FullStateDisk, ADaemonThatIsStartedOnOneServes) {
    SKIP_WITHOUT(state_);
    ASSERT_NO_FATAL_FAILURE(Start());
    ASSERT_NO_FATAL_FAILURE(ExpectWork("before"));
    const std::string before = session_->Client().Lookup(root_, "before");
    for (const bool killed : {true, false}) {
        ASSERT_NO_FATAL_FAILURE(FillAll());
        if (killed)
            daemon_.Kill();
        else
            EXPECT_EQ(daemon_.Stop(), 0);
        // The log has no room for what Start() waits for.
        daemon_.Launch({"-no_pm_reg"});
        std::string output;
        ASSERT_TRUE(WaitUntil([&] {
            if (!daemon_.Running()) return true;
            if (daemon_.Control({"--json", "status"}, &output) != 0) return false;
            return nlohmann::json::parse(output, nullptr, false)["state"] == 2;
        })) << output;
        ASSERT_TRUE(daemon_.Running());
        const auto status = nlohmann::json::parse(output, nullptr, false);
        session_ = std::make_unique<Session>(status["nfsPort"].get<uint16_t>());
        EXPECT_EQ(session_->Client().Read(before, 0, 100), "before");
        ASSERT_NO_FATAL_FAILURE(ExpectWork(killed ? "killed" : "stopped"));
        EmptyAll();
        ASSERT_NO_FATAL_FAILURE(ExpectWork(killed ? "killed, empty" : "stopped, empty"));
        EXPECT_FALSE(Registry().is_discarded());
    }
}

// An ordinary user's daemon keeps the places of files there too.
class FullPlacesDisk : public FullStateDisk {
  protected:
    static constexpr unsigned kFiles = 300, kClients = 8;

    void SetUp() override {
        FullStateDisk::SetUp();
        if (!state_->Error().empty()) return;
        share_ = std::make_unique<PrivateMount>(tree_.Path("share"), "size=8m");
        if (geteuid() == 0) {
            daemon_.SetWrapper({"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups",
                                "--pdeathsig=KILL"});
            ASSERT_EQ(chown(tree_.Root().c_str(), 65534, 65534), 0);
        }
    }
    // Files with their names as contents, and all handles of before.
    void Make(const std::string& prefix) {
        for (unsigned i = 0; i < kFiles; ++i) {
            const std::string name = prefix + std::to_string(i);
            const Made made =
                MadeResults(*session_->Call(nfs::kCreate, CreateArguments(root_, name)));
            ASSERT_EQ(made.status, 0u);
            ASSERT_EQ(
                WriteResults(*session_->Call(nfs::kWrite, WriteArguments(made.handle, 0, 2, name)))
                    .status,
                0u);
            handles_[name] = made.handle;
        }
    }
    // By clients that all ask at once.
    void ExpectAllHandlesGood() {
        std::vector<std::thread> threads;
        for (unsigned n = 0; n < kClients; ++n) {
            threads.emplace_back([this] {
                Session session(daemon_.Port());
                std::vector<Session::Request> requests;
                for (const auto& [name, handle] : handles_)
                    requests.emplace_back(nfs::kRead, ReadArguments(handle, 0, 100));
                const auto results = session.Calls(requests);
                auto handle = handles_.begin();
                for (const auto& result : results) {
                    ASSERT_TRUE(result.has_value());
                    EXPECT_EQ(ReadResults(*result).data, handle->first);
                    ++handle;
                }
            });
        }
        for (std::thread& thread : threads) thread.join();
    }

    std::map<std::string, std::string> handles_;
};

TEST_P(FullPlacesDisk, HandlesStayGoodWithTheirPlacesInMemoryAndAfterASuddenEnd) {
    SKIP_WITHOUT(state_);
    tree_.WriteConf("wire",
                    "[Oxel]\nnNfs3Port = 0\nnMaxNFSRPCThread = 50\n" + ModeSettings(GetParam()));
    ASSERT_NO_FATAL_FAILURE(Start());
    ASSERT_TRUE(daemon_.LogHas("file handles are made of inode numbers"));
    ASSERT_NO_FATAL_FAILURE(Make("before"));
    ASSERT_NO_FATAL_FAILURE(state_->Fill());
    ASSERT_NO_FATAL_FAILURE(Make("full"));
    EXPECT_EQ(Status(nfs::kRename, DirectoryName(root_, "before7") + DirectoryName(root_, "moved")),
              0u);
    ExpectAllHandlesGood();
    daemon_.Kill();
    state_->Empty();
    // What could not be written is found by a search.
    ASSERT_NO_FATAL_FAILURE(Start());
    ExpectAllHandlesGood();
    ASSERT_NO_FATAL_FAILURE(state_->Fill());
    ASSERT_NO_FATAL_FAILURE(Make("full again"));
    state_->Empty();
    EXPECT_EQ(daemon_.Stop(), 0);
    ASSERT_NO_FATAL_FAILURE(Start());
    ExpectAllHandlesGood();
}

#define FULL_DISK_MODES(suite)                                                                   \
    INSTANTIATE_TEST_SUITE_P(Modes, suite, testing::Values(Mode::kManyThreads, Mode::kHardened), \
                             testing::PrintToStringParamName())
FULL_DISK_MODES(FullDisk);
FULL_DISK_MODES(FullStateDisk);
FULL_DISK_MODES(FullPlacesDisk);

}  // namespace
}  // namespace oxel::test
