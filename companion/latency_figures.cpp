// SPDX-License-Identifier: Apache-2.0
#include "companion/latency_figures.h"

namespace oxel {

using nlohmann::json;

static constexpr const char* kBuckets = "buckets";
static constexpr const char* kTotal = "totalNanoseconds";
static constexpr const char* kMax = "maxMicroseconds";

void AddLatencyBuckets(const LatencyReading& latency, json* entry) {
    (*entry)[kTotal] = latency.nanoseconds;
    json& buckets = (*entry)[kBuckets] = json::array();
    for (size_t i = 0; i < LatencyReading::kBuckets; ++i)
        if (latency.buckets[i] != 0) buckets.push_back({i, latency.buckets[i]});
}

LatencyReading LatencyWithBuckets(const json& entry) {
    LatencyReading reading;
    if (const auto total = entry.find(kTotal); total != entry.end() && total->is_number_unsigned())
        reading.nanoseconds = total->get<uint64_t>();
    if (const auto longest = entry.find(kMax); longest != entry.end() && longest->is_number())
        reading.nanosecondsMax = static_cast<uint64_t>(longest->get<double>() * 1000);
    const auto buckets = entry.find(kBuckets);
    if (buckets == entry.end() || !buckets->is_array()) return reading;
    for (const json& bucket : *buckets) {
        if (!bucket.is_array() || bucket.size() != 2 || !bucket[0].is_number_unsigned() ||
            !bucket[1].is_number_unsigned() || bucket[0] >= LatencyReading::kBuckets)
            continue;
        reading.buckets[bucket[0].get<size_t>()] = bucket[1];
        reading.count += bucket[1].get<uint64_t>();
    }
    return reading;
}

void RemoveLatencyBuckets(json* entry) {
    entry->erase(kBuckets);
    entry->erase(kTotal);
}

}  // namespace oxel
