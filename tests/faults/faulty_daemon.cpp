// SPDX-License-Identifier: Apache-2.0
//
// Starting the daemon with the faulty back end, and looking at it.
#include "tests/faults/faulty_daemon.h"

#include <fcntl.h>
#include <sys/mman.h>

#include <cstdio>
#include <cstdlib>
#include <new>
#include <nlohmann/json.hpp>

#include "base/unique_fd.h"
#include "tests/support/process_watch.h"

namespace oxel::test {

static constexpr unsigned kHoldTimeoutMs = 60000;

Faults::Faults(const std::string& file) {
    const UniqueFd fd(open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    if (!fd || ftruncate(fd.Get(), sizeof(SharedFaults)) != 0) abort();
    void* mapped =
        mmap(nullptr, sizeof(SharedFaults), PROT_READ | PROT_WRITE, MAP_SHARED, fd.Get(), 0);
    if (mapped == MAP_FAILED) abort();
    shared_ = new (mapped) SharedFaults;
}

Faults::~Faults() {
    Disarm();
    Release();  // the daemon cannot end with a call held; it has the file mapped by itself
    munmap(shared_, sizeof(SharedFaults));
}

void Faults::Arm(const FaultPlan& plan) {
    Disarm();
    shared_->plan = plan;
    shared_->counted = shared_->hits = 0;
    if (plan.action == Action::kHold) {
        shared_->held = 0;
        shared_->holding = 1;
    }
    shared_->armed.store(1, std::memory_order_release);
}

uint32_t Faults::Calls(Operation operation) const {
    return shared_->calls[static_cast<uint32_t>(operation)];
}

Faults::Counts Faults::AllCalls() const {
    Counts counts;
    for (uint32_t i = 0; i < kOperationCount; ++i) counts[i] = shared_->calls[i];
    return counts;
}

uint64_t Faults::CallsInAll() const {
    uint64_t sum = 0;
    for (const uint32_t count : AllCalls()) sum += count;
    return sum;
}

bool Faults::WaitForHeld(uint32_t count) {
    return WaitUntil(
        [&] {
            const uint32_t held = shared_->held;
            if (held < count) WaitWhile(shared_->held, held, 1000);
            return shared_->held >= count;
        },
        kHoldTimeoutMs);
}

void Faults::Release() {
    shared_->holding = 0;
    WakeAll(shared_->holding);
}

void Totals::Print(const char* run) const {
    printf(
        "%s: %llu faults injected in %llu calls of the contract, %llu RPC calls answered, "
        "%llu bytes verified\n",
        run, static_cast<unsigned long long>(faults),
        static_cast<unsigned long long>(contractCalls), static_cast<unsigned long long>(rpcCalls),
        static_cast<unsigned long long>(bytesVerified));
    fflush(stdout);
}

double SoakSeconds(double share) {
    const char* given = getenv("OXEL_SOAK_SECONDS");
    return given != nullptr ? atof(given) * share : 0;
}

void FaultTest::StartDaemon(Mode mode) {
    mode_ = mode;
    tree_.MakeDir("share");
    tree_.WriteConf("wire", "[Oxel]\nnNfs3Port = 0\n" + ModeSettings(mode));
    tree_.WriteExports(
        "wire", "/share -dir=" + tree_.Path("share") + ",id=7 *(rw,no_root_squash,insecure)\n");
    ASSERT_TRUE(daemon_.Start());
}

size_t FaultTest::DescriptorsAtRest() {
    NfsClient client(daemon_.Port());
    FaultPlan plan;
    plan.action = Action::kForgetIdle;
    plan.operations = Bit(Operation::kIsClientAllowed);
    faults_.Arm(plan);
    client.MountShare("/share");
    EXPECT_EQ(faults_.Hits(), 1u);
    faults_.Disarm();
    return OpenDescriptors(daemon_.Pid());
}

void FaultTest::ExpectNoRecordLost() {
    // A record goes back after its reply.
    std::string said;
    EXPECT_TRUE(WaitUntil([&] {
        EXPECT_EQ(daemon_.Control({"--json", "status"}, &said), 0);
        const auto status = nlohmann::json::parse(said, nullptr, false);
        return !status.is_discarded() && status["records"]["total"] > 0 &&
               status["records"]["inUse"] == 0;
    })) << said;
}

}  // namespace oxel::test
