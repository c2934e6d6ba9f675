// SPDX-License-Identifier: Apache-2.0
//
// A reader of records with the socket that it reads from, and the records to send there.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <string>
#include <vector>

#include "base/unique_fd.h"
#include "bin/oxelService_records.h"

namespace oxel::test {

// What buffers are made with: counted, and refused on demand (record_buffers_test.cpp).
inline size_t gBuffersMade = 0;
inline bool gMemoryIsShort = false;

inline constexpr uint32_t kLast = 0x80000000u;
inline constexpr RecordBounds kBounds{(256 << 10) + (8 << 10), 1024};
// Their buffers are made soonest.
inline constexpr RecordBounds kShort{4 << 10, 1024};

inline std::string Mark(uint32_t word) {
    word = htonl(word);
    return std::string(reinterpret_cast<const char*>(&word), sizeof word);
}

// One record of the given fragments.
inline std::string InFragments(const std::vector<std::string>& fragments) {
    std::string bytes;
    for (size_t i = 0; i < fragments.size(); ++i)
        bytes += Mark(static_cast<uint32_t>(fragments[i].size()) |
                      (i + 1 == fragments.size() ? kLast : 0)) +
                 fragments[i];
    return bytes;
}
inline std::string Whole(const std::string& payload) {
    return InFragments({payload});
}

// Bytes that differ from place to place and from record to record.
inline std::string Payload(size_t size, unsigned seed = 1) {
    std::string bytes(size, '\0');
    uint32_t state = seed * 2654435761u + 1;
    for (char& byte : bytes) {
        state = state * 1664525u + 1013904223u;
        byte = static_cast<char>(state >> 24);
    }
    return bytes;
}

inline std::vector<std::string> Pieces(const std::string& payload, size_t bytes) {
    std::vector<std::string> pieces;
    for (size_t at = 0; at < payload.size(); at += bytes)
        pieces.push_back(payload.substr(at, bytes));
    return pieces;
}

// A reader and the socket that it reads from.
class Reading {
  public:
    explicit Reading(const RecordBounds& bounds = kBounds)
        : pool(bounds.bytes), reader(bounds, pool) {
        int ends[2] = {-1, -1};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        client.Reset(ends[0]);
        server.Reset(ends[1]);
        const int bytes = 4 << 20;
        EXPECT_EQ(setsockopt(client.Get(), SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes), 0);
    }

    void Send(const std::string& bytes) const {
        ASSERT_EQ(send(client.Get(), bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }
    // Takes everything that has come; false when the reader has found what is final.
    bool Take() {
        for (bool drained = false;;) {
            switch (last = reader.Look()) {
                case RecordReader::Found::kRecord:
                    records.emplace_back(reader.Record(), reader.RecordBytes());
                    misaligned += reinterpret_cast<uintptr_t>(reader.Record()) % 4 != 0;
                    reader.Consume();
                    continue;
                case RecordReader::Found::kPartial:
                    break;
                default:
                    return false;
            }
            if (drained) return true;
            ++fills;
            switch (filled = reader.Fill(server.Get())) {
                case RecordReader::Filled::kAll:
                    drained = true;
                    break;
                case RecordReader::Filled::kMore:
                    break;
                default:
                    return false;
            }
        }
    }
    void SendAndTake(const std::string& bytes) {
        Send(bytes);
        EXPECT_TRUE(Take());
    }

    UniqueFd client, server;
    BufferPool pool;
    RecordReader reader;
    std::vector<std::string> records;
    size_t misaligned = 0, fills = 0;
    RecordReader::Found last = RecordReader::Found::kPartial;
    RecordReader::Filled filled = RecordReader::Filled::kAll;
};

}  // namespace oxel::test
