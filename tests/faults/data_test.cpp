// SPDX-License-Identifier: Apache-2.0
//
// Data while the back end comes short or fails half-way: what a reply says has been read or written
// is what is on the disk.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tests/faults/sweep.h"
#include "tests/system/integrity_client.h"

namespace oxel::test {
namespace {

class Data : public FaultTest, public testing::WithParamInterface<Mode> {
  protected:
    void SetUp() override {
        StartDaemon(GetParam());
        if (HasFatalFailure()) return;
        client_ = std::make_unique<NfsClient>(daemon_.Port());
        root_ = client_->MountShare("/share");
        file_ =
            MadeResults(client_->Results(client_->Nfs(nfs::kCreate, CreateArguments(root_, "f"))))
                .handle;
        content_ = UniqueBytes(random_, 100000);
        EXPECT_EQ(Write(0, kFileSync, content_).count, content_.size());
    }
    void TearDown() override {
        if (HasFailure()) return;
        totals_.contractCalls = faults_.CallsInAll();
        totals_.Print(testing::UnitTest::GetInstance()->current_test_info()->name());
    }
    Changed Write(uint64_t offset, uint32_t stable, const std::string& data) {
        ++totals_.rpcCalls;
        return WriteResults(client_->Results(
            client_->Nfs(nfs::kWrite, WriteArguments(file_, offset, stable, data))));
    }
    Piece Read(uint64_t offset, uint32_t count) {
        ++totals_.rpcCalls;
        return ReadResults(
            client_->Results(client_->Nfs(nfs::kRead, ReadArguments(file_, offset, count))));
    }
    void Verify() {
        EXPECT_EQ(Difference(content_, ReadFile(Local("f"))), "");
        const Piece piece = Read(0, static_cast<uint32_t>(content_.size()) + 1);
        EXPECT_EQ(Difference(content_, piece.data), "");
        EXPECT_TRUE(piece.eof);
        totals_.bytesVerified += 2 * content_.size();
    }
    void ArmShort(Operation operation, uint32_t bytes, uint32_t last = UINT32_MAX, int error = 0) {
        FaultPlan plan;
        plan.action = Action::kShort;
        plan.bytes = bytes;
        plan.last = last;
        plan.error = error;
        plan.operations = Bit(operation);
        faults_.Arm(plan);
    }

    Random random_{GetParam() == Mode::kManyThreads ? 1u : 2u};
    Totals totals_;
    std::unique_ptr<NfsClient> client_;
    std::string root_, file_, content_;
};

// Nothing in RFC 1813 tells a client of a short WRITE that it has not ended well: so it is none.
TEST_P(Data, ShortWritesAreGoneOnWithUntilAllIsWritten) {
    for (const uint32_t stable : {kUnstable, kDataSync, kFileSync})
        for (const uint32_t bytes : {1u, 7u, 4096u, 9999u}) {
            const std::string data = UniqueBytes(random_, std::min(20001u, 30 * bytes + 1));
            ArmShort(Operation::kWrite, bytes);
            const Changed changed = Write(3333, stable, data);
            EXPECT_EQ(changed.status, 0u);
            EXPECT_EQ(changed.count, data.size());
            EXPECT_EQ(changed.committed, stable);
            EXPECT_EQ(faults_.Hits(), (data.size() + bytes - 1) / bytes);
            totals_.faults += faults_.Hits();
            faults_.Disarm();
            content_.replace(3333, data.size(), data);
            Verify();
        }
}

// What came before the failure stays written and nothing else is touched; the client is told of the
// failure and not of a count, so it sends all of it again.
TEST_P(Data, AWriteThatFailsHalfWayHasWrittenItsBeginningAndNothingElse) {
    for (const int error : {ENOSPC, EIO, EDQUOT, EFBIG, ESTALE})
        for (const uint32_t bytes : {1u, 511u, 4096u, 19999u}) {
            const std::string data = UniqueBytes(random_, 20000);
            ArmShort(Operation::kWrite, bytes, 2, error);
            EXPECT_EQ(Write(50000, kFileSync, data).status, static_cast<uint32_t>(error));
            EXPECT_EQ(faults_.Hits(), 2u);
            totals_.faults += faults_.Hits();
            faults_.Disarm();
            content_.replace(50000, bytes, data, 0, bytes);
            Verify();
            EXPECT_EQ(Write(50000, kFileSync, data).count, data.size());
            content_.replace(50000, data.size(), data);
            Verify();
        }
}

// A file grows by no more than was written, also when the disk is full.
TEST_P(Data, AFullDiskLeavesNoHoleAndNoRest) {
    const std::string data = UniqueBytes(random_, 30000);
    ArmShort(Operation::kWrite, 10000, 2, ENOSPC);
    EXPECT_EQ(Write(content_.size(), kUnstable, data).status, 28u);
    totals_.faults += faults_.Hits();
    faults_.Disarm();
    content_ += data.substr(0, 10000);
    Verify();
    EXPECT_EQ(
        CommitResults(client_->Results(client_->Nfs(nfs::kCommit, CommitArguments(file_)))).status,
        0u);
    EXPECT_EQ(Write(100000, kUnstable, data).count, data.size());
    content_.replace(100000, 10000, data);
    Verify();
}

// A back end comes short only where the file ends, so READ's eof goes by the transfer alone. The
// data are right even if it does not keep to that, and the count is theirs.
TEST_P(Data, AShortReadIsAnsweredWithItsBytesAndTakenForTheEnd) {
    for (const uint32_t bytes : {1u, 513u, 4096u, 65535u, 0u}) {
        ArmShort(Operation::kRead, bytes, 1);
        const Piece piece = Read(12345, 65536);
        EXPECT_EQ(piece.status, 0u);
        EXPECT_TRUE(piece.eof);
        EXPECT_EQ(Difference(content_.substr(12345, bytes), piece.data), "");
        totals_.faults += faults_.Hits();
        faults_.Disarm();
        const Piece rest = Read(12345 + bytes, 65536 - bytes);
        EXPECT_FALSE(rest.eof);
        EXPECT_EQ(Difference(content_.substr(12345, 65536), piece.data + rest.data), "");
        totals_.bytesVerified += 65536;
    }
}

// Several clients at once, each with a file of its own, while one call of so many goes wrong,
// whosever it is. Each goes on until it has been done.
class Storm : public Data {
  protected:
    static constexpr int kClients = 4, kTurns = 40;
    struct Client {
        explicit Client(uint16_t port) : nfs(port) {}
        NfsClient nfs;
        std::string file, content;
        uint64_t calls = 0, verified = 0;
    };
    // The results once the call succeeds.
    static std::string UntilDone(Client* client, uint32_t procedure, const std::string& arguments) {
        std::string last;
        for (int attempt = 0; attempt < 200; ++attempt) {
            const RpcCall call = client->nfs.Nfs(procedure, arguments);
            ++client->calls;
            const RpcReply reply = client->nfs.Connection().Call(call);
            EXPECT_EQ(reply.xid, call.xid);
            if (testing::Test::HasFailure()) break;
            if (reply.Success() && XdrReader(reply.results).U32() == 0) return reply.results;
            last = std::to_string(reply.acceptStat) + " " + Hex(reply.results);
        }
        ADD_FAILURE() << "procedure " << procedure
                      << " never succeeds, the last accept_stat and results " << last;
        return "";
    }
    static void Work(Client* client, Random random) {
        for (int turn = 0; turn < kTurns && !testing::Test::HasFailure(); ++turn) {
            const uint64_t offset = Below(random, 60000);
            const std::string data = UniqueBytes(random, 1 + Below(random, 20000));
            const uint32_t stable = static_cast<uint32_t>(Below(random, 3));
            const Changed changed = WriteResults(
                UntilDone(client, nfs::kWrite, WriteArguments(client->file, offset, stable, data)));
            EXPECT_EQ(changed.count, data.size());
            if (client->content.size() < offset + data.size())
                client->content.resize(offset + data.size());
            client->content.replace(offset, data.size(), data);
            const uint64_t from = Below(random, client->content.size());
            const Piece piece = ReadResults(
                UntilDone(client, nfs::kRead, ReadArguments(client->file, from, 30000)));
            EXPECT_EQ(Difference(client->content.substr(from, piece.data.size()), piece.data), "");
            EXPECT_TRUE(piece.data.size() ==
                            std::min<size_t>(30000, client->content.size() - from) ||
                        piece.eof);
            client->verified += piece.data.size();
            if (turn % 8 == 0) UntilDone(client, nfs::kCommit, CommitArguments(client->file));
        }
    }
    std::string Name(int client) const {
        return std::to_string(phase_) + "-" + std::to_string(client);
    }
    void Go(const FaultPlan& plan) {
        ++phase_;
        std::vector<std::unique_ptr<Client>> clients;
        std::vector<std::thread> threads;
        for (int i = 0; i < kClients; ++i) {
            clients.push_back(std::make_unique<Client>(daemon_.Port()));
            clients[i]->file = MadeResults(client_->Results(client_->Nfs(
                                               nfs::kCreate, CreateArguments(root_, Name(i)))))
                                   .handle;
            EXPECT_FALSE(clients[i]->file.empty());
        }
        faults_.Arm(plan);
        for (auto& client : clients) threads.emplace_back(Work, client.get(), Random(random_()));
        for (std::thread& thread : threads) thread.join();
        totals_.faults += faults_.Hits();
        faults_.Disarm();
        EXPECT_GT(totals_.faults, 0u);
        for (int i = 0; i < kClients; ++i) {
            const std::string& content = clients[i]->content;
            EXPECT_EQ(Difference(content, ReadFile(Local(Name(i)))), "");
            totals_.rpcCalls += clients[i]->calls;
            totals_.bytesVerified += clients[i]->verified + content.size();
        }
        ExpectNoRecordLost();
    }

  private:
    int phase_ = 0;
};

TEST_P(Storm, OneCallInSoManyFailsOrThrowsOrComesShort) {
    const auto end =
        std::chrono::steady_clock::now() + std::chrono::duration<double>(SoakSeconds(0.05));
    do {
        for (const Action action :
             {Action::kFail, Action::kThrowBadAlloc, Action::kThrowRuntimeError, Action::kShort}) {
            FaultPlan plan;
            plan.action = action;
            plan.error = action == Action::kFail ? ENOSPC : 0;
            plan.bytes = 1000;
            // A WRITE makes nine calls and more, of which some must all pass.
            plan.every = 15 + static_cast<uint32_t>(Below(random_, 8));
            if (action == Action::kShort) plan.every = 2;
            plan.operations = action == Action::kShort
                                  ? Bit(Operation::kRead) | Bit(Operation::kWrite)
                                  : kAllOperations & ~Bit(Operation::kClose);
            Go(plan);
            if (HasFailure()) return;
        }
    } while (std::chrono::steady_clock::now() < end);
}

FAULTS_IN_ALL_MODES(Data);
FAULTS_IN_ALL_MODES(Storm);

}  // namespace
}  // namespace oxel::test
