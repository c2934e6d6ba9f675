// SPDX-License-Identifier: Apache-2.0
//
// Calls and results of the data-integrity tests.
#include "tests/system/integrity_client.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>

namespace oxel::test {

uint64_t IntegritySeed() {
    const char* given = getenv("OXEL_SEED");
    const uint64_t seed = given != nullptr ? strtoull(given, nullptr, 0)
                                           : uint64_t{std::random_device()()} << 16 | 0x5eed;
    printf("OXEL_SEED=%llu\n", static_cast<unsigned long long>(seed));
    fflush(stdout);
    return seed;
}

std::chrono::steady_clock::time_point IntegrityEnd(double share) {
    const char* given = getenv("OXEL_INTEGRITY_SECONDS");
    const std::chrono::duration<double> time((given != nullptr ? atof(given) : 40) * share);
    return std::chrono::steady_clock::now() +
           std::chrono::duration_cast<std::chrono::steady_clock::duration>(time);
}

uint64_t Below(Random& random, uint64_t bound) {
    return random() % bound;
}

std::string UniqueBytes(Random& random, size_t length) {
    std::string bytes((length + 7) / 8 * 8, '\0');
    uint64_t value = random() | 1;
    for (size_t at = 0; at < bytes.size(); at += 8) {
        value = value * 6364136223846793005u + 1442695040888963407u;
        memcpy(&bytes[at], &value, 8);
    }
    bytes.resize(length);
    return bytes;
}

Session::Results Session::Call(uint32_t procedure, const std::string& arguments) {
    return Calls({{procedure, arguments}}).front();
}

std::vector<Session::Results> Session::Calls(const std::vector<Request>& requests) {
    std::vector<Results> results(requests.size());
    std::map<uint32_t, size_t> open;
    for (size_t i = 0; i < requests.size(); ++i) {
        const RpcCall call = client_->Nfs(requests[i].first, requests[i].second);
        open[call.xid] = i;
        if (!client_->Connection().Send(Record(call.Message()))) break;
    }
    while (!open.empty()) {
        const std::optional<std::string> message = client_->Connection().Receive();
        if (!message) break;
        RpcReply reply = ParseReply(*message);
        const auto asked = open.find(reply.xid);
        if (asked == open.end()) {
            ADD_FAILURE() << "a reply that nobody waits for: " << Hex(*message);
            break;
        }
        EXPECT_TRUE(reply.Success()) << "procedure " << requests[asked->second].first
                                     << ": accept_stat " << reply.acceptStat;
        results[asked->second] = std::move(reply.results);
        open.erase(asked);
    }
    return results;
}

static void SkipWcc(XdrReader* reader) {
    if (reader->Bool()) reader->Fixed(24);
    if (reader->Bool()) ReadAttributes(reader);
}

Changed WriteResults(const std::string& results) {
    XdrReader reader(results);
    Changed changed;
    changed.status = reader.U32();
    SkipWcc(&reader);
    if (changed.status == 0) {
        changed.count = reader.U32();
        changed.committed = reader.U32();
        changed.verifier = reader.U64();
    }
    EXPECT_EQ(reader.Left(), 0u);
    return changed;
}

Changed CommitResults(const std::string& results) {
    XdrReader reader(results);
    Changed changed;
    changed.status = reader.U32();
    SkipWcc(&reader);
    if (changed.status == 0) changed.verifier = reader.U64();
    EXPECT_EQ(reader.Left(), 0u);
    return changed;
}

Piece ReadResults(const std::string& results) {
    XdrReader reader(results);
    Piece piece;
    piece.status = reader.U32();
    if (reader.Bool()) ReadAttributes(&reader);
    if (piece.status != 0) return piece;
    const uint32_t count = reader.U32();
    piece.eof = reader.Bool();
    piece.data = reader.Opaque();
    EXPECT_EQ(piece.data.size(), count);
    EXPECT_EQ(reader.Left(), 0u);
    return piece;
}

Made MadeResults(const std::string& results) {
    XdrReader reader(results);
    Made made;
    made.status = reader.U32();
    if (made.status != 0) return made;
    if (reader.Bool()) made.handle = reader.Opaque();
    if (reader.Bool()) made.fileid = ReadAttributes(&reader).fileid;
    return made;
}

std::string CommitArguments(const std::string& handle) {
    return XdrWriter().Opaque(handle).U64(0).U32(0).Bytes();
}

std::string SizeArguments(const std::string& handle, uint64_t size) {
    SetAttributes attributes;
    attributes.size = static_cast<int64_t>(size);
    return XdrWriter().Opaque(handle).Raw(attributes.Bytes()).Bool(false).Bytes();
}

std::string CreateArguments(const std::string& directory, const std::string& name) {
    SetAttributes attributes;
    attributes.mode = 0644;
    return DirectoryName(directory, name) + XdrWriter().U32(1).Raw(attributes.Bytes()).Bytes();
}

std::string Difference(const std::string& expected, const std::string& found) {
    if (expected == found) return "";
    size_t at = 0;
    while (at < expected.size() && at < found.size() && expected[at] == found[at]) ++at;
    size_t same = at;
    while (same < expected.size() && same < found.size() && expected[same] != found[same]) ++same;
    return "sizes " + std::to_string(expected.size()) + " and " + std::to_string(found.size()) +
           ", bytes " + std::to_string(at) + " to " + std::to_string(same) + " differ: expected " +
           Hex(expected.substr(at, 32)) + ", found " + Hex(found.substr(at, 32));
}

}  // namespace oxel::test
