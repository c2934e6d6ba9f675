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

inline constexpr uint32_t kNfs = 100003, kMount = 100005, kVersion = 3;

enum Procedure : uint32_t {
    kNull = 0,
    kGetattr = 1,
    kSetattr = 2,
    kLookup = 3,
    kAccess = 4,
    kReadlink = 5,
    kRead = 6,
    kWrite = 7,
    kCreate = 8,
    kMkdir = 9,
    kRemove = 12,
    kRmdir = 13,
    kReaddir = 16,
    kReaddirplus = 17,
    kFsstat = 18,
    kCommit = 21,
};

inline size_t PaddingOf(size_t length) {
    return (4 - length % 4) % 4;
}

// Appends XDR items (RFC 4506). For calls that are made once; the calls of the load are made by
// CallBuilder, which allocates nothing.
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
        bytes_.append(PaddingOf(data.size()), '\0');
        return *this;
    }
    const std::string& Bytes() const { return bytes_; }

  private:
    std::string bytes_;
};

// Reads XDR items; running past the end throws.
class Reader {
  public:
    // `thrownAway`: bytes at the record's end that were received and not kept.
    explicit Reader(std::string_view bytes, size_t thrownAway = 0)
        : bytes_(bytes), thrownAway_(thrownAway) {}
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
        Take(PaddingOf(length));
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
    void SkipWeakCacheData() {  // wcc_data
        if (U32() != 0) Take(24);
        SkipAttributes();
    }
    // What was received behind this point, kept or thrown away.
    size_t Left() const { return bytes_.size() + thrownAway_; }
    bool HasThrownAway() const { return thrownAway_ != 0; }

  private:
    std::string_view bytes_;
    size_t thrownAway_;
};

// An RPC call's header (RFC 5531) with its record mark and an AUTH_UNIX credential of root. The
// transaction id, the procedure and the mark are filled in where the offsets say.
inline constexpr size_t kMarkBytes = 4, kXidOffset = 4, kProcedureOffset = 24;
inline constexpr uint32_t kLastFragment = 0x80000000u;
inline std::string CallHeader(uint32_t program, uint32_t procedure) {
    Writer credential;
    credential.U32(0).Opaque("bench").U32(0).U32(0).U32(0);
    Writer call;
    call.U32(0).U32(0).U32(0).U32(2).U32(program).U32(kVersion).U32(procedure);
    call.U32(1).Opaque(credential.Bytes()).U32(0).U32(0);
    return call.Bytes();
}

// A whole call as a single-fragment record.
inline std::string MakeCall(uint32_t program, uint32_t procedure, uint32_t xid,
                            const std::string& arguments) {
    std::string call = CallHeader(program, procedure) + arguments;
    const uint32_t mark = htonl(kLastFragment | static_cast<uint32_t>(call.size() - kMarkBytes));
    memcpy(call.data(), &mark, sizeof mark);
    xid = htonl(xid);
    memcpy(call.data() + kXidOffset, &xid, sizeof xid);
    return call;
}

// Checks a reply's header behind its transaction id: accepted, successful.
inline void CheckReplyHeader(Reader* reply) {
    if (reply->U32() != 1 || reply->U32() != 0) throw std::runtime_error("call was denied");
    reply->U32();
    reply->Opaque();
    if (const uint32_t stat = reply->U32(); stat != 0)
        throw std::runtime_error("call was not executed: accept_stat " + std::to_string(stat));
}

inline void CheckStatus(Reader* reply, const char* operation) {
    if (const uint32_t status = reply->U32(); status != 0)
        throw std::runtime_error(std::string(operation) + ": status " + std::to_string(status));
}

}  // namespace bench
