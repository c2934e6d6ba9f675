// SPDX-License-Identifier: Apache-2.0
//
// Sampling, and what flat means.
#include "tests/system/soak_watch.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>

#include "tests/support/process_watch.h"

namespace oxel::test {

// The least that the smallest object takes from an allocator is 32 bytes, so that half of it for
// each call is less than any leak of one object per call would be.
static constexpr uint64_t kBytesPerCallMax = 16;
// Medians of a quiet daemon differ by this much: whole arenas come and go, and of the buffers that
// each call record and connection keeps some are grown late.
static constexpr uint64_t kNoiseKiB = 4096;
static constexpr uint64_t kNoiseDescriptors = 16;
static constexpr double kTellingBytesPerCall = 100;
// Fewer than these are no median.
static constexpr size_t kSamplesMin = 60;

SoakWatch::SoakWatch(const Daemon& daemon, const SoakCounts& counts, double seconds,
                     std::string csv)
    : daemon_(daemon),
      counts_(counts),
      everySeconds_(std::clamp(seconds / 300, 0.5, 5.0)),
      csv_(std::move(csv)),
      thread_([this] { Run(); }) {}

SoakWatch::~SoakWatch() {
    End();
}

void SoakWatch::End() {
    over_ = true;
    if (thread_.joinable()) thread_.join();
}

void SoakWatch::Run() {
    auto next = begin_;
    while (!over_) {
        Take();
        next += std::chrono::duration_cast<std::chrono::steady_clock::duration>(
            std::chrono::duration<double>(everySeconds_));
        while (!over_ && std::chrono::steady_clock::now() < next)
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    if (csv_.empty()) return;
    std::ofstream out(csv_);
    out << "seconds,calls,connections,resident_kib,descriptors,records_in_use\n";
    for (const Sample& sample : samples_) {
        char line[160];
        snprintf(line, sizeof line, "%.1f,%llu,%llu,%llu,%llu,%llu\n", sample.seconds,
                 static_cast<unsigned long long>(sample.calls),
                 static_cast<unsigned long long>(sample.connections),
                 static_cast<unsigned long long>(sample.residentKiB),
                 static_cast<unsigned long long>(sample.descriptors),
                 static_cast<unsigned long long>(sample.recordsInUse));
        out << line;
    }
    out.close();
    EXPECT_TRUE(out.good()) << csv_;
}

void SoakWatch::Take() {
    Sample sample{};
    sample.seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - begin_).count();
    sample.calls = counts_.calls;
    sample.connections = counts_.connections;
    sample.residentKiB = ResidentKiB(daemon_.Pid());
    sample.descriptors = OpenDescriptors(daemon_.Pid());
    std::string output;
    EXPECT_EQ(daemon_.Control({"--json", "status"}, &output), 0) << output;
    const auto status = nlohmann::json::parse(output, nullptr, false);
    if (status.contains("records")) sample.recordsInUse = status["records"]["inUse"];
    samples_.push_back(sample);
}

uint64_t SoakWatch::Median(size_t from, size_t to, uint64_t Sample::*field) const {
    std::vector<uint64_t> values;
    for (size_t i = from; i < to; ++i) values.push_back(samples_[i].*field);
    std::nth_element(values.begin(), values.begin() + values.size() / 2, values.end());
    return values[values.size() / 2];
}

void SoakWatch::ExpectFlat() {
    End();
    const size_t count = samples_.size(), third = count / 3;
    if (count < kSamplesMin) {
        printf("%zu samples: too few to tell a leak from a start\n", count);
        return;
    }
    const auto medians = [&](uint64_t Sample::*field) {
        return std::pair(Median(third, 2 * third, field), Median(2 * third, count, field));
    };
    const auto [residentBefore, resident] = medians(&Sample::residentKiB);
    const auto [descriptorsBefore, descriptors] = medians(&Sample::descriptors);
    const auto [callsBefore, calls] = medians(&Sample::calls);
    const auto [connectionsBefore, connections] = medians(&Sample::connections);
    const uint64_t between = calls - callsBefore;
    const uint64_t bytesMax = std::max(kNoiseKiB << 10, kBytesPerCallMax * between);
    const double growth =
        (static_cast<double>(resident) - static_cast<double>(residentBefore)) * 1024;
    printf(
        "RSS %llu KiB in the second third, %llu KiB in the last; %llu calls and %llu connections "
        "later: %.1f bytes a call (a leak of %.0f bytes would fail); descriptors %llu and %llu\n",
        static_cast<unsigned long long>(residentBefore), static_cast<unsigned long long>(resident),
        static_cast<unsigned long long>(between),
        static_cast<unsigned long long>(connections - connectionsBefore),
        growth / static_cast<double>(between),
        static_cast<double>(bytesMax) / static_cast<double>(between),
        static_cast<unsigned long long>(descriptorsBefore),
        static_cast<unsigned long long>(descriptors));
    EXPECT_LE(descriptors, descriptorsBefore + kNoiseDescriptors);
    // So few calls hide a leak, and a sanitizer's start looks like one.
    if (static_cast<double>(bytesMax) / static_cast<double>(between) > kTellingBytesPerCall) {
        printf("%llu calls: too few to tell a leak from a start\n",
               static_cast<unsigned long long>(between));
        return;
    }
    EXPECT_LE(growth, static_cast<double>(bytesMax));
}

}  // namespace oxel::test
