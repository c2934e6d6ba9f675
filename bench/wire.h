// SPDX-License-Identifier: Apache-2.0
//
// Building RPC calls and picking replies apart, byte by byte, without the RPC library: the load
// generator must cost less than the server that it measures.
#pragma once

#include <arpa/inet.h>

#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>

namespace bench {

// Appends XDR items (RFC 4506).
class Writer {
  public:
    Writer& U32(uint32_t value) {
        value = htonl(value);
        bytes_.append(reinterpret_cast<const char*>(&value), sizeof value);
        return *this;
    }
    Writer& U64(uint64_t value) {
        return U32(static_cast<uint32_t>(value >> 32)).U32(static_cast<uint32_t>(value));
    }
    Writer& Opaque(std::string_view data) {
        U32(static_cast<uint32_t>(data.size()));
        bytes_.append(data);
        bytes_.append((4 - data.size() % 4) % 4, '\0');
        return *this;
    }
    const std::string& Bytes() const { return bytes_; }

  private:
    std::string bytes_;
};

// Reads XDR items; running past the end throws.
class Reader {
  public:
    explicit Reader(std::string_view bytes) : bytes_(bytes) {}
    uint32_t U32() {
        uint32_t value;
        memcpy(&value, Take(sizeof value).data(), sizeof value);
        return ntohl(value);
    }
    uint64_t U64() {
        const uint64_t high = U32();
        return high << 32 | U32();
    }
    std::string_view Opaque() {
        const uint32_t length = U32();
        const std::string_view data = Take(length);
        Take((4 - length % 4) % 4);
        return data;
    }
    std::string_view Take(size_t count) {
        if (bytes_.size() < count) throw std::runtime_error("reply ends early");
        const std::string_view taken = bytes_.substr(0, count);
        bytes_.remove_prefix(count);
        return taken;
    }
    void SkipAttributes() {  // post_op_attr
        if (U32() != 0) Take(84);
    }
    size_t Left() const { return bytes_.size(); }

  private:
    std::string_view bytes_;
};

// One call as a single-fragment record, with an AUTH_UNIX credential of the given ids. The
// transaction id stands at kXidOffset and is filled in when the call is sent.
inline constexpr size_t kXidOffset = 4;
inline std::string MakeCall(uint32_t program, uint32_t version, uint32_t procedure, uint32_t uid,
                            uint32_t gid, const std::string& arguments) {
    Writer credential;
    credential.U32(0).Opaque("bench").U32(uid).U32(gid).U32(0);
    Writer call;
    call.U32(0).U32(0).U32(2).U32(program).U32(version).U32(procedure);
    call.U32(1).Opaque(credential.Bytes()).U32(0).U32(0);
    const std::string body = call.Bytes() + arguments;
    Writer mark;
    mark.U32(0x80000000u | static_cast<uint32_t>(body.size()));
    return mark.Bytes() + body;
}

// Checks a reply's header (RFC 5531: accepted, successful) and returns what follows it.
inline Reader OpenReply(std::string_view record) {
    Reader reader(record);
    reader.U32();  // transaction id
    if (reader.U32() != 1 || reader.U32() != 0) throw std::runtime_error("call was denied");
    reader.U32();
    reader.Opaque();
    if (const uint32_t stat = reader.U32(); stat != 0)
        throw std::runtime_error("call was not executed: accept_stat " + std::to_string(stat));
    return reader;
}

}  // namespace bench
