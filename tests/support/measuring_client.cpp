// SPDX-License-Identifier: Apache-2.0
//
// The thread of the measuring client, and its arithmetic.
#include "tests/support/measuring_client.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <optional>

#include "tests/support/private_tree.h"

namespace oxel::test {

// Longer than the RPC library waits for the rest of a record, which is what holds a daemon up that
// is not hardened.
static constexpr int kHangingMs = 180000;

MeasuringClient::MeasuringClient(uint16_t port, const std::string& share, const std::string& name,
                                 const std::string& localPath)
    : client_(port),
      handle_(client_.Lookup(client_.MountShare(share), name)),
      expectedResults_(XdrWriter().U32(0).Bytes() + AttributesBytes(ExpectedAttributes(localPath))),
      sent_(Clock::now()),
      thread_([this] { Run(); }) {}

MeasuringClient::~MeasuringClient() {
    end_ = true;
    thread_.join();
}

void MeasuringClient::Run() {
    RpcCall call = client_.Nfs(nfs::kGetattr, XdrWriter().Opaque(handle_).Bytes());
    while (!end_) {
        ++call.xid;
        const auto start = Clock::now();
        sent_ = start;
        const bool sent = client_.Connection().Send(Record(call.Message()));
        const std::optional<std::string> reply = client_.Connection().Receive(kHangingMs);
        const auto took = Clock::now() - start;
        if (!sent || !reply || *reply != SuccessReply(call.xid, expectedResults_)) {
            ADD_FAILURE() << "the well-behaved client got "
                          << (reply ? "a wrong answer: " + Hex(*reply) : "no answer");
            failed_ = true;
            return;
        }
        const std::lock_guard lock(mutex_);
        latenciesUs_.push_back(static_cast<uint64_t>(
            std::chrono::duration_cast<std::chrono::microseconds>(took).count()));
    }
}

size_t MeasuringClient::Calls() const {
    const std::lock_guard lock(mutex_);
    return latenciesUs_.size();
}

bool MeasuringClient::WaitForCalls(size_t more) {
    const size_t wanted = Calls() + more;
    const bool came = WaitUntil([&] { return failed_ || Calls() >= wanted; }, kHangingMs);
    EXPECT_TRUE(came) << "the well-behaved client's calls are not answered";
    return came && !failed_;
}

Measured MeasuringClient::Take() {
    std::vector<uint64_t> taken;
    {
        const std::lock_guard lock(mutex_);
        taken.swap(latenciesUs_);
    }
    if (taken.empty()) return Measured();
    std::sort(taken.begin(), taken.end());
    return {taken.size(), taken[taken.size() * 99 / 100], taken.back()};
}

uint64_t MeasuringClient::WaitingMs() const {
    return static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - sent_.load()).count());
}

}  // namespace oxel::test
