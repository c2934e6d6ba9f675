// SPDX-License-Identifier: Apache-2.0
//
// Memory runs out, for one allocation at a time and for many: the daemon lives on, and serves as
// before when there is memory again. A call that met it may be refused, be left without an answer
// or lose its connection; nothing of it stays behind.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <thread>

#include "tests/support/modes.h"
#include "tests/support/private_tree.h"
#include "tests/support/process_watch.h"
#include "tests/system/integrity_client.h"
#include "tests/system/shared_words.h"

namespace oxel::test {
namespace {

enum : size_t { kCountdown, kEvery, kWhose, kFailed };
enum : int64_t { kEverybody, kProgram, kRpcLibrary };

// A call without an answer is not waited for longer; nothing is concluded from one that is late.
constexpr int kAnswerMs = 100;
constexpr uint32_t kSystemError = 5;

struct Outcomes {
    unsigned calls = 0, answered = 0, systemError = 0, unanswered = 0, ended = 0;
};

class Memory : public testing::TestWithParam<Mode> {
  protected:
    void SetUp() override {
        if (SanitizerBuild()) GTEST_SKIP() << "a sanitizer has an allocator of its own";
        for (const char* name : {"share/d", "share/e"}) tree_.MakeDir(name);
        tree_.Write("share/file", std::string(100000, 'f'));
        tree_.WriteConf("wire",
                        "[Log]\nnLogLevel = 1\n[Oxel]\nnNfs3Port = 0\n" + ModeSettings(GetParam()));
        tree_.WriteExports(
            "wire", "/share -dir=" + tree_.Path("share") + ",id=7 *(rw,no_root_squash,insecure)\n");
        memory_ = std::make_unique<SharedWords>(tree_.Path("memory"));
        daemon_.SetWrapper(
            Preloading("OXEL_FAILING_ALLOCATOR", "OXEL_ALLOCATIONS=" + tree_.Path("memory")));
        ASSERT_TRUE(daemon_.Start());
        NfsClient client(daemon_.Port());
        root_ = client.MountShare("/share");
        file_ = client.Lookup(root_, "file");
    }
    void TearDown() override {
        if (memory_) memory_->Set(kCountdown, 0);
    }

    // The next failure is so many allocations from now; then every so many.
    void Fail(int64_t whose, int64_t countdown, int64_t every) {
        memory_->Set(kWhose, whose);
        memory_->Set(kEvery, every);
        memory_->Set(kCountdown, countdown);
    }
    int64_t Failed() const { return memory_->Get(kFailed); }

    // One of each procedure; each can be sent again and again.
    std::vector<RpcCall> AllCalls(NfsClient& client) const {
        const std::string root = XdrWriter().Opaque(root_).Bytes();
        const std::string file = XdrWriter().Opaque(file_).Bytes();
        const std::string attributes = SetAttributes().Bytes();
        const std::string page = XdrWriter().U64(0).U64(0).U32(8000).Bytes();
        std::vector<RpcCall> calls;
        const auto add = [&](uint32_t procedure, const std::string& arguments) {
            calls.push_back(client.Nfs(procedure, arguments));
        };
        add(nfs::kNull, "");
        add(nfs::kGetattr, file);
        add(nfs::kSetattr, SizeArguments(file_, 100000));
        add(nfs::kLookup, DirectoryName(root_, "file"));
        add(nfs::kAccess, file + XdrWriter().U32(0x3f).Bytes());
        add(nfs::kRead, ReadArguments(file_, 0, 100000));
        add(nfs::kWrite, WriteArguments(file_, 0, kUnstable, std::string(70000, 'f')));
        add(nfs::kWrite, WriteArguments(file_, 0, kFileSync, "fff"));
        add(nfs::kCommit, CommitArguments(file_));
        add(nfs::kCreate, CreateArguments(root_, "new"));
        add(nfs::kMkdir, DirectoryName(root_, "newdir") + attributes);
        add(nfs::kSymlink,
            DirectoryName(root_, "link") + attributes + XdrWriter().Opaque("to").Bytes());
        add(nfs::kMknod, DirectoryName(root_, "x") + XdrWriter().U32(7).Raw(attributes).Bytes());
        add(nfs::kReaddir, root + page);
        add(nfs::kReaddirplus, root + page + XdrWriter().U32(8000).Bytes());
        add(nfs::kFsstat, root);
        add(nfs::kFsinfo, root);
        add(nfs::kPathconf, root);
        add(nfs::kLink, file + DirectoryName(root_, "hard"));
        add(nfs::kRename, DirectoryName(root_, "new") + DirectoryName(root_, "renamed"));
        add(nfs::kRemove, DirectoryName(root_, "renamed"));
        add(nfs::kRemove, DirectoryName(root_, "hard"));
        add(nfs::kRmdir, DirectoryName(root_, "newdir"));
        const std::string path = XdrWriter().Opaque("/share").Bytes();
        for (uint32_t procedure :
             {mnt::kNull, mnt::kMnt, mnt::kDump, mnt::kUmnt, mnt::kUmntall, mnt::kExport})
            calls.push_back(client.Mount(
                procedure, procedure == mnt::kMnt || procedure == mnt::kUmnt ? path : ""));
        return calls;
    }

    // What comes of a call that may meet a failure. The connection may end.
    void Send(NfsClient& client, const RpcCall& call) {
        ++outcomes_.calls;
        if (!client.Connection().Send(Record(call.Message()))) {
            ++outcomes_.ended;
            return;
        }
        const auto message = client.Connection().Receive(kAnswerMs);
        if (message) {
            const RpcReply reply = ParseReply(*message);
            ++(reply.acceptStat == kSystemError ? outcomes_.systemError : outcomes_.answered);
        } else {
            ++(client.Connection().ClosedByPeer(0) ? outcomes_.ended : outcomes_.unanswered);
        }
    }

    // With nobody's memory failing any more.
    void ExpectAllAsBefore() {
        memory_->Set(kCountdown, 0);
        ASSERT_TRUE(daemon_.Running());
        NfsClient client(daemon_.Port());
        EXPECT_EQ(client.MountShare("/share"), root_);
        EXPECT_EQ(client.Read(file_, 0, 100000), std::string(100000, 'f'));
        const DirectoryPage page = client.ReadDirectoryPlus(root_, 0, 8000, 16000);
        EXPECT_EQ(page.status, 0u);
        EXPECT_GE(page.entries.size(), 5u);
    }
    nlohmann::json Status() {
        std::string output;
        EXPECT_EQ(daemon_.Control({"--json", "status"}, &output), 0) << output;
        return nlohmann::json::parse(output, nullptr, false);
    }
    void ExpectNothingLeft(size_t descriptors) {
        nlohmann::json status;
        EXPECT_TRUE(WaitUntil([&] {
            status = Status();
            return status["records"]["inUse"] == 0 && status["connections"] == 0;
        })) << status.dump();
        size_t now = 0;
        EXPECT_TRUE(WaitUntil([&] {
            return (now = OpenDescriptors(daemon_.Pid())) <= descriptors + kDescriptorsKept;
        })) << now
            << " descriptors instead of " << descriptors << "\n"
            << DescriptorList(daemon_.Pid());
    }
    void Tell() {
        printf("%u calls, %lld failures: %u answered, %u system error, %u unanswered, %u ended\n",
               outcomes_.calls, static_cast<long long>(Failed()), outcomes_.answered,
               outcomes_.systemError, outcomes_.unanswered, outcomes_.ended);
    }
    // Those of files and directories that are kept open.
    static constexpr size_t kDescriptorsKept = 8;

    PrivateTree tree_;
    Daemon daemon_{tree_};
    std::unique_ptr<SharedWords> memory_;
    std::string root_, file_;
    Outcomes outcomes_;
};

TEST_P(Memory, EachAllocationOfEachCallMayFail) {
    const size_t descriptors = OpenDescriptors(daemon_.Pid());
    auto client = std::make_unique<NfsClient>(daemon_.Port());
    const size_t count = AllCalls(*client).size();
    for (size_t which = 0; which < 2 * count; ++which) {
        const int64_t whose = which < count ? kProgram : kRpcLibrary;
        for (int64_t at = 1; at < 1000 && !HasFailure(); ++at) {
            const int64_t before = Failed();
            Fail(whose, at, 0);
            Send(*client, AllCalls(*client)[which % count]);
            memory_->Set(kCountdown, 0);
            ASSERT_TRUE(daemon_.Running()) << "call " << which << ", allocation " << at;
            if (Failed() == before) break;
            // Whatever has become of the connection, another client is served.
            client = std::make_unique<NfsClient>(daemon_.Port());
            EXPECT_EQ(client->GetAttributes(file_).type, 1u) << which << " " << at;
        }
    }
    ASSERT_NO_FATAL_FAILURE(ExpectAllAsBefore());
    client.reset();
    ExpectNothingLeft(descriptors);
    Tell();
    EXPECT_GT(Failed(), 100);
}

// Whoever meets it may be turned away, and comes again. One at a time: the library itself does not
// live through its stream and an address failing together.
TEST_P(Memory, EachAllocationOfANewConnectionMayFail) {
    const size_t descriptors = OpenDescriptors(daemon_.Pid());
    for (int round = 0; round < 3 && !HasFailure(); ++round) {
        for (int64_t at = 1; at < 1000; ++at) {
            const int64_t before = Failed();
            Fail(kEverybody, at, 0);
            NfsClient client(daemon_.Port());
            Send(client, client.Nfs(nfs::kGetattr, XdrWriter().Opaque(file_).Bytes()));
            memory_->Set(kCountdown, 0);
            ASSERT_TRUE(daemon_.Running()) << "allocation " << at;
            if (Failed() == before) break;
        }
        ASSERT_NO_FATAL_FAILURE(ExpectAllAsBefore());
    }
    ExpectNothingLeft(descriptors);
    Tell();
    EXPECT_GT(Failed(), 10);
}

TEST_P(Memory, ManyAllocationsOfManyClientsMayFail) {
    const size_t descriptors = OpenDescriptors(daemon_.Pid());
    std::atomic<unsigned> answered{0};
    for (const int64_t every : {1, 2, 3, 7, 20, 101}) {
        Fail(kProgram, 1, every);
        std::vector<std::thread> threads;
        std::vector<std::unique_ptr<NfsClient>> clients;
        for (int i = 0; i < 4; ++i) clients.push_back(std::make_unique<NfsClient>(daemon_.Port()));
        for (auto& client : clients) {
            threads.emplace_back([&] {
                std::string bytes;
                for (const RpcCall& call : AllCalls(*client)) bytes += Record(call.Message());
                for (int i = 0; i < 5; ++i) {
                    // A client whose connection has ended comes again, which takes memory too.
                    if (!client->Connection().Send(bytes))
                        client = std::make_unique<NfsClient>(daemon_.Port());
                }
                // Until nothing more comes.
                while (client->Connection().Receive(kAnswerMs)) ++answered;
            });
        }
        for (std::thread& thread : threads) thread.join();
        ASSERT_TRUE(daemon_.Running()) << every;
        clients.clear();
        ASSERT_NO_FATAL_FAILURE(ExpectAllAsBefore()) << "every " << every;
    }
    ExpectNothingLeft(descriptors);
    printf("%lld failures, %u answers\n", static_cast<long long>(Failed()), answered.load());
}

OXEL_ALL_MODES(Memory);

}  // namespace
}  // namespace oxel::test
