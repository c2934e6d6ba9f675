// SPDX-License-Identifier: Apache-2.0
//
// The reader of records against a plain one of a few lines: the same records, and the same end,
// whatever the bytes and the pieces in which they come. The first byte picks the bounds, the second
// the sizes of the pieces; the rest is the stream.
#include <sys/socket.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "bin/oxelService_records.h"

namespace {

using Found = RecordReader::Found;

struct Outcome {
    std::vector<std::string> records;
    Found last = Found::kPartial;
    bool operator==(const Outcome&) const = default;
};

Outcome ReadPlainly(const std::string& stream, const RecordBounds& bounds) {
    Outcome outcome;
    std::string record;
    unsigned fragments = 0;
    for (size_t at = 0;;) {
        if (fragments == bounds.fragments) {
            outcome.last = Found::kTooManyFragments;
            return outcome;
        }
        if (stream.size() - at < 4) return outcome;
        const auto* mark = reinterpret_cast<const uint8_t*>(stream.data()) + at;
        const bool isLast = (mark[0] & 0x80) != 0;
        const size_t bytes = (mark[0] & 0x7fu) << 24 | mark[1] << 16 | mark[2] << 8 | mark[3];
        if (record.size() + bytes > bounds.bytes) {
            outcome.last = Found::kTooLong;
            return outcome;
        }
        at += 4;
        if (stream.size() - at < bytes) return outcome;
        record.append(stream, at, bytes);
        at += bytes;
        ++fragments;
        if (!isLast) continue;
        outcome.records.push_back(record);
        record.clear();
        fragments = 0;
    }
}

// Sends the stream in pieces and takes what has come after each.
Outcome ReadInPieces(const std::string& stream, uint8_t pieces, const RecordBounds& bounds) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) abort();
    const oxel::UniqueFd client(ends[0]), server(ends[1]);
    BufferPool pool(bounds.bytes);
    RecordReader reader(bounds, pool);
    Outcome outcome;
    uint32_t state = pieces;
    for (size_t at = 0; at < stream.size();) {
        state = state * 1664525u + 1013904223u;
        const size_t piece =
            std::min<size_t>(stream.size() - at, 1 + (state >> 16) % (1 + pieces * 16u));
        if (send(client.Get(), stream.data() + at, piece, MSG_DONTWAIT) !=
            static_cast<ssize_t>(piece))
            abort();
        at += piece;
        for (bool drained = false;;) {
            outcome.last = reader.Look();
            if (outcome.last == Found::kRecord) {
                outcome.records.emplace_back(reader.Record(), reader.RecordBytes());
                reader.Consume();
                continue;
            }
            if (outcome.last != Found::kPartial) return outcome;
            if (reader.BytesExpected() > bounds.bytes) abort();
            if (drained) break;
            drained = reader.Fill(server.Get()) == RecordReader::Filled::kAll;
        }
        reader.Rest();
    }
    return outcome;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2 || size > 60000) return 0;
    static constexpr RecordBounds kBounds[] = {{0, 1}, {1, 2}, {40, 3}, {5000, 20}, {270336, 1024}};
    const RecordBounds& bounds = kBounds[data[0] % std::size(kBounds)];
    const std::string stream(reinterpret_cast<const char*>(data) + 2, size - 2);
    if (!(ReadInPieces(stream, data[1], bounds) == ReadPlainly(stream, bounds))) abort();
    return 0;
}
