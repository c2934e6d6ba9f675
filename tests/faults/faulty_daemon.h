// SPDX-License-Identifier: Apache-2.0
//
// The daemon with the faulty back end, as a test starts it and arms its faults.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <string>

#include "tests/faults/fault_plan.h"
#include "tests/support/modes.h"
#include "tests/support/nfs_client.h"
#include "tests/support/private_tree.h"

namespace oxel::test {

// The test's side of the shared file. A plan may be armed and disarmed only while no call but held
// ones is under way: a client that has all its replies can do so.
class Faults {
  public:
    explicit Faults(const std::string& file);
    ~Faults();
    Faults(const Faults&) = delete;
    Faults& operator=(const Faults&) = delete;

    void Arm(const FaultPlan& plan);
    void Disarm() { shared_->armed = 0; }
    // Since the plan was armed.
    uint32_t Hits() const { return shared_->hits; }
    uint32_t Counted() const { return shared_->counted; }
    Operation HitOperation() const { return static_cast<Operation>(shared_->hitOperation.load()); }
    // Since the daemon's start.
    uint32_t HitCall() const { return shared_->hitCall; }
    uint32_t Calls(Operation operation) const;
    using Counts = std::array<uint32_t, kOperationCount>;
    Counts AllCalls() const;
    uint64_t CallsInAll() const;

    // Of plans that hold: waits until so many calls are held; lets all go, and those that come.
    bool WaitForHeld(uint32_t count);
    void Release();

  private:
    SharedFaults* shared_;
};

// What a program has tried, for its last line.
struct Totals {
    uint64_t rpcCalls = 0, contractCalls = 0, faults = 0, bytesVerified = 0;
    void Print(const char* run) const;
};

// How long a test may go on that has this share of $OXEL_SOAK_SECONDS; 0 when that is not set.
double SoakSeconds(double share);

// The share is /share, id 7; the files are below tree_.Path("share").
class FaultTest : public testing::Test {
  protected:
    void StartDaemon(Mode mode);
    std::string Local(const std::string& name) const { return tree_.Path("share/" + name); }

    // Descriptors of the daemon after everything was closed that is kept open to save time.
    size_t DescriptorsAtRest();
    // All call records are back.
    void ExpectNoRecordLost();

    PrivateTree tree_;
    Daemon daemon_{tree_};
    Faults faults_{tree_.Path("faults")};
    Mode mode_ = Mode::kManyThreads;
};

}  // namespace oxel::test
