// SPDX-License-Identifier: Apache-2.0
//
// Calls that a back end does not come back from for a while. A held call is let go by the test only
// after what it must not hold up has been answered.
#include <gtest/gtest.h>

#include <cerrno>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "tests/faults/sweep.h"
#include "tests/system/integrity_client.h"

namespace oxel::test {
namespace {

class Delay : public FaultTest, public testing::WithParamInterface<Mode> {
  protected:
    void SetUp() override {
        StartDaemon(GetParam());
        if (HasFatalFailure()) return;
        content_ = std::string(5000, 'c');
        tree_.Write("share/f", content_);
        client_ = std::make_unique<NfsClient>(daemon_.Port());
        other_ = std::make_unique<NfsClient>(daemon_.Port());
        root_ = client_->MountShare("/share");
        file_ = client_->Lookup(root_, "f");
        Calls(other_.get(), 1);  // both connections are known
    }
    void TearDown() override {
        faults_.Disarm();
        faults_.Release();
        if (daemon_.Running() && !HasFailure()) ExpectNoRecordLost();
    }
    // The next `count` calls to the operation are held.
    void HoldNext(Operation operation, uint32_t count = 1, int error = 0) {
        FaultPlan plan;
        plan.action = Action::kHold;
        plan.error = error;
        plan.last = count;
        plan.operations = Bit(operation);
        faults_.Arm(plan);
    }
    // Sends a READ of the file and does not wait for the reply; its xid.
    uint32_t SendRead(NfsClient* client) {
        const RpcCall call = client->Nfs(nfs::kRead, ReadArguments(file_, 0, 5000));
        EXPECT_TRUE(client->Connection().Send(Record(call.Message())));
        return call.xid;
    }
    void ExpectData(const RpcReply& reply) {
        EXPECT_TRUE(reply.Success());
        const Piece piece = ReadResults(reply.results);
        EXPECT_EQ(piece.status, 0u);
        EXPECT_EQ(Difference(content_, piece.data), "");
    }
    // So many calls of several kinds, one after the other, each answered as it must be.
    void Calls(NfsClient* client, int count) {
        for (int i = 0; i < count && !HasFailure(); ++i) {
            EXPECT_EQ(client->GetAttributes(root_).type, 2u);
            EXPECT_EQ(client->Lookup(root_, "f"), file_);
            EXPECT_EQ(client->ReadDirectory(root_, 0, 8192).entries.size(), 3u);
        }
    }
    static std::optional<RpcReply> Next(NfsClient* client) {
        const std::optional<std::string> message = client->Connection().Receive();
        return message ? std::optional(ParseReply(*message)) : std::nullopt;
    }

    std::unique_ptr<NfsClient> client_, other_;
    std::string root_, file_, content_;
};

// In whatever mode, a late answer is the right one, and what was sent behind it is answered too.
TEST_P(Delay, HeldCallIsAnsweredOnceItIsLetGo) {
    HoldNext(Operation::kRead);
    std::map<uint32_t, bool> waited{{SendRead(client_.get()), true}};
    ASSERT_TRUE(faults_.WaitForHeld(1));
    for (int i = 0; i < 10; ++i) waited[SendRead(client_.get())] = true;
    faults_.Release();
    for (int i = 0; i < 11; ++i) {
        const std::optional<RpcReply> reply = Next(client_.get());
        ASSERT_TRUE(reply);
        EXPECT_EQ(waited.erase(reply->xid), 1u) << "another call's reply, or a second one";
        ExpectData(*reply);
    }
}

// Who asks what the clients do is told of a call that does not end, and for how long already.
TEST_P(Delay, HeldCallIsInFlightAndGrowsOld) {
    const auto client = [this] {
        std::string output;
        EXPECT_EQ(daemon_.Control({"clients", "--json"}, &output), 0) << output;
        return nlohmann::json::parse(output, nullptr, false)["clients"][0];
    };
    HoldNext(Operation::kRead);
    SendRead(client_.get());
    ASSERT_TRUE(faults_.WaitForHeld(1));
    EXPECT_EQ(client()["inFlight"], 1);
    EXPECT_TRUE(WaitUntil([&] { return client()["oldestMilliseconds"] >= 50; }));
    faults_.Release();
    ASSERT_TRUE(Next(client_.get()));
    EXPECT_TRUE(WaitUntil([&] { return client()["inFlight"] == 0; }));
    EXPECT_EQ(client()["oldestMilliseconds"], 0);
}

TEST_P(Delay, HeldCallMayFailInTheEnd) {
    HoldNext(Operation::kRead, 1, EIO);
    const uint32_t xid = SendRead(client_.get());
    ASSERT_TRUE(faults_.WaitForHeld(1));
    faults_.Release();
    const std::optional<RpcReply> reply = Next(client_.get());
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->xid, xid);
    EXPECT_EQ(XdrReader(reply->results).U32(), 5u);
    faults_.Disarm();
    Calls(client_.get(), 1);
}

TEST_P(Delay, ClientThatLeavesMeanwhileLeavesNothingBehind) {
    HoldNext(Operation::kRead, 3);
    for (int i = 0; i < 3; ++i) SendRead(client_.get());
    ASSERT_TRUE(faults_.WaitForHeld(1));
    client_->Connection().Reset();
    faults_.Release();
    Calls(other_.get(), 10);
    ExpectNoRecordLost();
}

// With handler threads, one call's disk is nobody else's, the same client's other calls included.
class DelayWithThreads : public Delay {};

TEST_P(DelayWithThreads, OthersAreAnsweredWhileOneCallIsHeld) {
    HoldNext(Operation::kRead);
    const uint32_t xid = SendRead(client_.get());
    ASSERT_TRUE(faults_.WaitForHeld(1));
    Calls(other_.get(), 50);
    Calls(client_.get(), 50);
    NfsClient third(daemon_.Port());
    EXPECT_EQ(third.MountShare("/share"), root_);
    Calls(&third, 5);
    faults_.Release();
    const std::optional<RpcReply> reply = Next(client_.get());
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->xid, xid);
    ExpectData(*reply);
}

TEST_P(DelayWithThreads, SeveralHeldCallsOfSeveralClientsHoldNobodyElseUp) {
    HoldNext(Operation::kRead, 4);
    std::vector<std::unique_ptr<NfsClient>> held;
    for (uint32_t i = 0; i < 4; ++i) {
        held.push_back(std::make_unique<NfsClient>(daemon_.Port()));
        SendRead(held.back().get());
        ASSERT_TRUE(faults_.WaitForHeld(i + 1));
        Calls(other_.get(), 5);
    }
    Calls(other_.get(), 20);
    faults_.Release();
    for (auto& client : held) {
        const std::optional<RpcReply> reply = Next(client.get());
        ASSERT_TRUE(reply);
        ExpectData(*reply);
    }
}

class DelayHardened : public Delay {};

// By default MOUNT is answered by the thread that reads everybody's calls.
TEST_P(DelayHardened, AMountThatIsHeldHoldsNobodyElseUp) {
    HoldNext(Operation::kAddMountPoint);
    const RpcCall call = client_->Mount(mnt::kMnt, XdrWriter().Opaque("/share").Bytes());
    EXPECT_TRUE(client_->Connection().Send(Record(call.Message())));
    ASSERT_TRUE(faults_.WaitForHeld(1));
    Calls(other_.get(), 50);
    NfsClient third(daemon_.Port());
    Calls(&third, 5);
    faults_.Release();
    const std::optional<RpcReply> reply = Next(client_.get());
    ASSERT_TRUE(reply);
    XdrReader reader(reply->results);
    EXPECT_EQ(reader.U32(), 0u);
    EXPECT_EQ(reader.Opaque(), root_);
}

FAULTS_IN_ALL_MODES(Delay);
INSTANTIATE_TEST_SUITE_P(Modes, DelayWithThreads,
                         testing::Values(Mode::kManyThreads, Mode::kHardened),
                         testing::PrintToStringParamName());
INSTANTIATE_TEST_SUITE_P(Modes, DelayHardened, testing::Values(Mode::kHardened),
                         testing::PrintToStringParamName());

}  // namespace
}  // namespace oxel::test
