// SPDX-License-Identifier: Apache-2.0
//
// Clients that mean harm, beside one that does not. Whatever the hostile ones do, every call of the
// other is answered rightly, the daemon's memory stays bounded, and its descriptors come back. How
// long the calls take is printed and not judged.
#pragma once

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/support/measuring_client.h"
#include "tests/support/process_watch.h"
#include "tests/wire/wire_fixture.h"

namespace oxel::test {

inline constexpr uint32_t kTransferBytes = 262144;
// The largest record that a hardened daemon takes: a WRITE of the transfer size with room around.
inline constexpr uint32_t kRecordBytesMax = kTransferBytes + 8192;
inline constexpr uint32_t kFragmentsMax = 1024;
inline constexpr uint32_t kLastFragmentBit = 0x80000000u;

using Crowd = std::vector<std::unique_ptr<RpcConnection>>;

class HostileTest : public WireTest {
  protected:
    void SetUp() override { ASSERT_NO_FATAL_FAILURE(Start("")); }
    void TearDown() override {
        steady_.reset();
        maker_.reset();
    }

    // `conf` is added to section "Oxel". Tracing every call would be what the daemon does most.
    void Start(const std::string& conf) {
        tree_.Write("rw/steady", "nobody changes this");
        tree_.Write("rw/big", std::string(4 * kTransferBytes, 'b'));
        ASSERT_NO_FATAL_FAILURE(StartDaemon(conf, 1));
        maker_ = std::make_unique<NfsClient>(Port());
        root_ = maker_->MountShare("/rw");
        big_ = maker_->Lookup(root_, "big");
    }

    RpcCall Getattr() { return maker_->Nfs(nfs::kGetattr, XdrWriter().Opaque(root_).Bytes()); }
    RpcCall ReadOfTransferSize() {
        return maker_->Nfs(nfs::kRead, ReadArguments(big_, 0, kTransferBytes));
    }
    RpcCall WriteOfTransferSize() {
        return maker_->Nfs(nfs::kWrite,
                           WriteArguments(big_, 0, 0, std::string(kTransferBytes, 'w')));
    }
    static RpcCall Null() { return RpcCall(); }
    std::unique_ptr<RpcConnection> Connect() const {
        return std::make_unique<RpcConnection>(Port());
    }
    // One whose window is small from the start, so that replies pile up in the daemon.
    std::unique_ptr<RpcConnection> ConnectWithSmallWindow() const {
        return std::make_unique<RpcConnection>(Port(), RpcConnection::Family::kIPv4, false, 4096);
    }
    // Sends what the daemon takes without waiting; how much that is. Errors of a connection that
    // the daemon has ended are what hostile clients get.
    static size_t SendWhatGoes(RpcConnection& connection, const std::string& bytes) {
        size_t sent = 0;
        while (sent < bytes.size()) {
            const ssize_t count = send(connection.Descriptor(), bytes.data() + sent,
                                       bytes.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
            if (count <= 0) break;
            sent += static_cast<size_t>(count);
        }
        return sent;
    }
    static bool Answers(RpcConnection& connection) {
        return connection.CallRaw(Null()) == SuccessReply(1, "");
    }

    // Runs `attack` beside the well-behaved client. `attack` gets a function to call once its
    // clients do what they do, or again and again while they act: it tells whether the
    // well-behaved client still has to show that it is served. `growthMiBMax` bounds the memory
    // that the daemon may take meanwhile.
    using StillAttacking = std::function<bool()>;
    void Beside(const std::string& name, unsigned growthMiBMax,
                const std::function<void(const StillAttacking&)>& attack, unsigned forMs = 500) {
        if (!steady_)
            steady_ =
                std::make_unique<MeasuringClient>(Port(), "/rw", "steady", tree_.Path("rw/steady"));
        ASSERT_TRUE(steady_->WaitForCalls(kCallsMin));  // what is slow once
        (void)steady_->Take();
        ASSERT_TRUE(steady_->WaitForCalls(kCallsMin));
        const Measured before = steady_->Take();
        const size_t descriptors = OpenDescriptors(daemon_.Pid());
        const uint64_t residentKiB = ResidentKiB(daemon_.Pid());
        ForgetPeak(daemon_.Pid());

        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(forMs);
        attack([&] {
            return (steady_->Calls() < kCallsMin || std::chrono::steady_clock::now() < end) &&
                   !HasFailure();
        });
        const Measured during = steady_->Take();
        const uint64_t peakKiB = PeakResidentKiB(daemon_.Pid());
        const uint64_t growthKiB = peakKiB > residentKiB ? peakKiB - residentKiB : 0;
        // The sanitizers keep memory for themselves, freed blocks above all.
        if (!SanitizerBuild()) {
            EXPECT_LE(growthKiB / 1024, growthMiBMax) << name;
        }
        size_t now = 0;
        EXPECT_TRUE(WaitUntil([&] {
            return (now = OpenDescriptors(daemon_.Pid())) <= descriptors;
        })) << name
            << ": " << now << " descriptors instead of " << descriptors;
        EXPECT_TRUE(steady_->WaitForCalls(10)) << name;
        ExpectServing();
        printf(
            "ATTACK %s: p99 %llu us undisturbed, %llu us attacked (worst %llu us, %zu calls), "
            "%.1f MiB more, %zu descriptors before, %zu after\n",
            name.c_str(), static_cast<unsigned long long>(before.p99Us),
            static_cast<unsigned long long>(during.p99Us),
            static_cast<unsigned long long>(during.maxUs), during.calls,
            static_cast<double>(growthKiB) / 1024, descriptors, now);
        fflush(stdout);
        RecordProperty("p99UsUndisturbed", std::to_string(before.p99Us));
        RecordProperty("p99UsAttacked", std::to_string(during.p99Us));
        RecordProperty("growthKiB", std::to_string(growthKiB));
    }
    // For attackers that only have to be there.
    void WaitWhile(const StillAttacking& stillAttacking) {
        EXPECT_TRUE(WaitUntil([&] { return !stillAttacking(); }, kServedMs));
    }

    nlohmann::json Status() {
        std::string output;
        EXPECT_EQ(daemon_.Control({"--json", "status"}, &output), 0) << output;
        return nlohmann::json::parse(output, nullptr, false);
    }
    // How many connections were ended for a reason, by its name in the status.
    uint64_t Ended(const std::string& reason) {
        const nlohmann::json status = Status();
        const auto ended = status.find("connectionsEnded");
        if (ended == status.end() || !ended->contains(reason)) return 0;
        return (*ended)[reason].get<uint64_t>();
    }
    // So many for this reason, and the last of them has its line in the log.
    void ExpectEnded(const std::string& reason, uint64_t count, const std::string& text,
                     const std::string& address = "127.0.0.1") {
        uint64_t ended = 0;
        EXPECT_TRUE(WaitUntil([&] { return (ended = Ended(reason)) == count; }, kSaidMs))
            << reason << ": " << ended << " instead of " << count;
        const std::string line = "Ended the connection of [" + address + "]: " + text + ".\n";
        EXPECT_TRUE(daemon_.WaitForLog(line, kSaidMs)) << line;
        EXPECT_NE(daemon_.Log().find(" L-1 "), std::string::npos);
    }

    static constexpr size_t kCallsMin = 300;
    static constexpr unsigned kSaidMs = 10000, kServedMs = 60000;

    std::unique_ptr<NfsClient> maker_;  // makes calls; its own connection is a good one
    std::unique_ptr<MeasuringClient> steady_;
    std::string root_, big_;
};

}  // namespace oxel::test
