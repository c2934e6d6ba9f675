// SPDX-License-Identifier: Apache-2.0
//
// A histogram of durations as the control protocol has it: the figures that people are shown, and
// the buckets for those who take an earlier reading off. Written by the daemon and by whoever has
// subtracted, and read again by the latter.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>

#include "base/latency_histogram.h"

namespace oxel {

struct LatencyFigure {
    const char* member;  // in microseconds
    uint64_t (*nanoseconds)(const LatencyReading&);
};
// In the order in which they are shown.
inline constexpr LatencyFigure kLatencyFigures[] = {
    {"meanMicroseconds", [](const LatencyReading& all) { return all.Mean(); }},
    {"p50Microseconds", [](const LatencyReading& all) { return all.Percentile(0.5); }},
    {"p95Microseconds", [](const LatencyReading& all) { return all.Percentile(0.95); }},
    {"p99Microseconds", [](const LatencyReading& all) { return all.Percentile(0.99); }},
    {"maxMicroseconds", [](const LatencyReading& all) { return all.nanosecondsMax; }},
};

// Adds "buckets", pairs of a bucket's number and its count, and "totalNanoseconds".
void AddLatencyBuckets(const LatencyReading& latency, nlohmann::json* entry);
// What an entry with buckets and figures says; whatever is missing or strange counts as nothing.
LatencyReading LatencyWithBuckets(const nlohmann::json& entry);
void RemoveLatencyBuckets(nlohmann::json* entry);

}  // namespace oxel
