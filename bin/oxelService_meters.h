// SPDX-License-Identifier: Apache-2.0
//
// What is counted of calls: how many, with which outcome, how much data, and how long they took.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include "base/latency_histogram.h"

struct CallInfo3;

// How a call ended. Any nfsstat3 or mountstat3, or:
inline constexpr int32_t kCallThrew = -1;  // its handler threw: the client got SYSTEM_ERR

// What a meter held at one moment.
struct MeterReading {
    oxel::LatencyReading latency;  // from the call's dispatching until its reply is encoded
    uint64_t bytesRead = 0;        // data in replies to READ
    uint64_t bytesWritten = 0;     // data that WRITE has taken
    std::map<std::string, uint64_t> errors;  // by the status' name; "other" for one without

    uint64_t Calls() const { return latency.count; }
    uint64_t Errors() const;
    void Add(const MeterReading& other);
};

// Any thread.
class CallMeter {
  public:
    void Add(const CallInfo3* call, int32_t outcome, uint64_t nanoseconds);
    MeterReading Read() const;

  private:
    // Statuses are small numbers, or stand in a row from 10001 on (RFC 1813 section 2.6); the first
    // place is kCallThrew's and the last is for all others.
    static constexpr size_t kSmall = 1 + 72, kPlaces = kSmall + 9;
    static size_t PlaceOf(int32_t outcome);

    oxel::LatencyHistogram latency_;
    std::atomic<uint64_t> bytesRead_{0}, bytesWritten_{0};
    std::array<std::atomic<uint64_t>, kPlaces> outcomes_{};  // all but success
};
