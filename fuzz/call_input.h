// SPDX-License-Identifier: Apache-2.0
//
// An input of the calls' target as a program: what carries the calls, which operation of the file
// system fails, and calls, one after another.
//
//   byte 0   bit 0 the RPC library's way, not the hardened one; bit 1 with threads (library's way
//            only); bits 2 and 3 records in fragments of all, 1, 7 or 64 bytes
//   byte 1   the number of the operation that fails; 0: none
//   byte 2   with which error
//   then for each call a byte for its kind, two for the length, big-endian, and so many bytes.
//
// Kinds: 0 to 21 NFS and 22 to 27 MOUNT 3, with a header that is right and the bytes as arguments;
// 28 to 30 the older MOUNT; 31 a NULL without credential; and with bit 5 set as another user, with
// bit 6 with a verifier; with bit 7 the bytes are the whole record.
#pragma once

#include <arpa/inet.h>

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

namespace oxel::fuzz {

inline uint32_t WordAt(const std::string& bytes, size_t at) {
    uint32_t word = 0;
    if (at <= bytes.size() && bytes.size() - at >= sizeof word)
        memcpy(&word, bytes.data() + at, sizeof word);
    return ntohl(word);
}
inline std::string Words(std::initializer_list<uint32_t> words) {
    std::string bytes;
    for (uint32_t word : words) {
        word = htonl(word);
        bytes.append(reinterpret_cast<const char*>(&word), sizeof word);
    }
    return bytes;
}

struct InputCall {
    bool headerIsRight = false;
    uint32_t program = 0, version = 0, procedure = 0;
    std::string arguments;
    std::string message;
};

struct Input {
    bool libraryWay = false, threads = false;
    unsigned fragmentBytes = 0;  // 0: all in one
    unsigned failing = 0;
    int error = 0;
    std::vector<InputCall> calls;

    static Input Parse(const uint8_t* data, size_t size);
    // A message as the input's fragments.
    std::string Record(const std::string& message) const;
};

// What must be true of the reply to a call whose header is right.
void CheckReply(const InputCall& call, const std::string& reply);

}  // namespace oxel::fuzz
