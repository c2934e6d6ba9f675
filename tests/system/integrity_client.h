// SPDX-License-Identifier: Apache-2.0
//
// What the data-integrity tests share: a client that bears the loss of its server, files with a
// mirror in memory, and the seed that makes a run repeatable.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/nfs_client.h"

namespace oxel::test {

inline constexpr uint32_t kUnstable = 0, kDataSync = 1, kFileSync = 2;

// $OXEL_SEED, or a new one; said on standard output, so that a run can be repeated.
uint64_t IntegritySeed();
// How long a test goes on that has this share of $OXEL_INTEGRITY_SECONDS, which is 40 by default.
std::chrono::steady_clock::time_point IntegrityEnd(double share);

using Random = std::mt19937_64;
// A number from 0 to `bound` - 1.
uint64_t Below(Random& random, uint64_t bound);
// Bytes that no other call of this gives.
std::string UniqueBytes(Random& random, size_t length);

// Calls on one connection. When the server goes away, calls give nothing until Reconnect.
class Session {
  public:
    using Request = std::pair<uint32_t, std::string>;  // procedure, arguments
    using Results = std::optional<std::string>;        // nothing when the connection ended

    explicit Session(uint16_t port) : client_(std::make_unique<NfsClient>(port)) {}
    void Reconnect(uint16_t port) { client_ = std::make_unique<NfsClient>(port); }
    NfsClient& Client() { return *client_; }

    Results Call(uint32_t procedure, const std::string& arguments);
    // All are sent before the first reply is awaited. The server may do them in any order.
    std::vector<Results> Calls(const std::vector<Request>& requests);

  private:
    std::unique_ptr<NfsClient> client_;
};

struct Changed {  // the results of WRITE and COMMIT
    uint32_t status = 0, count = 0, committed = 0;
    uint64_t verifier = 0;
};
Changed WriteResults(const std::string& results);
Changed CommitResults(const std::string& results);
// READ: the status, the data, and whether the end was reached.
struct Piece {
    uint32_t status = 0;
    std::string data;
    bool eof = false;
};
Piece ReadResults(const std::string& results);
// The handle and file id of a CREATE or MKDIR.
struct Made {
    uint32_t status = 0;
    std::string handle;
    uint64_t fileid = 0;
};
Made MadeResults(const std::string& results);

std::string CommitArguments(const std::string& handle);
std::string SizeArguments(const std::string& handle, uint64_t size);
std::string CreateArguments(const std::string& directory, const std::string& name);

// Where two texts part, in words; empty when they are equal.
std::string Difference(const std::string& expected, const std::string& found);

}  // namespace oxel::test
