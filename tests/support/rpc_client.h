// SPDX-License-Identifier: Apache-2.0
//
// An RPC client over TCP that knows only bytes (RFC 5531, RFC 4506), so that tests compare the
// daemon's replies with what stands in the RFCs and not with the library that made them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace oxel::test {

// Builds XDR.
class XdrWriter {
  public:
    XdrWriter& U32(uint32_t value);
    XdrWriter& U64(uint64_t value);
    XdrWriter& Bool(bool value) { return U32(value ? 1 : 0); }
    XdrWriter& Fixed(const std::string& bytes);   // padded to four bytes
    XdrWriter& Opaque(const std::string& bytes);  // length, bytes, padding
    XdrWriter& Raw(const std::string& bytes);     // as they are
    const std::string& Bytes() const { return bytes_; }

  private:
    std::string bytes_;
};

// Takes XDR apart. Reading past the end fails the test once and gives zeros.
class XdrReader {
  public:
    explicit XdrReader(std::string bytes) : bytes_(std::move(bytes)) {}
    uint32_t U32();
    uint64_t U64();
    bool Bool() { return U32() != 0; }
    std::string Fixed(size_t length);
    std::string Opaque();
    size_t Left() const { return bytes_.size() - at_; }
    std::string Rest() const { return bytes_.substr(at_); }

  private:
    bool Has(size_t count);
    std::string bytes_;
    size_t at_ = 0;
    bool failed_ = false;
};

// For failing comparisons: four bytes a word.
std::string Hex(const std::string& bytes);

inline constexpr uint32_t kNfsProgram = 100003, kMountProgram = 100005;
inline constexpr uint32_t kAuthNone = 0, kAuthUnix = 1;

// One call message.
struct RpcCall {
    uint32_t xid = 1;
    uint32_t messageType = 0;  // CALL
    uint32_t rpcVersion = 2;
    uint32_t program = kNfsProgram;
    uint32_t version = 3;
    uint32_t procedure = 0;
    uint32_t credentialFlavour = kAuthNone;
    std::string credential;
    uint32_t verifierFlavour = kAuthNone;
    std::string verifier;
    std::string arguments;

    std::string Message() const;
};

// An AUTH_UNIX credential's body.
std::string UnixCredential(uint32_t uid, uint32_t gid, const std::vector<uint32_t>& groups = {},
                           const std::string& machine = "client");

// A message as one record of one fragment, or of fragments of `fragmentBytes`.
std::string Record(const std::string& message, size_t fragmentBytes = 0);

// A reply message taken apart.
struct RpcReply {
    uint32_t xid = 0;
    bool accepted = false;
    // Accepted: the verifier, accept_stat, the versions of a mismatch, and the results.
    uint32_t verifierFlavour = 0;
    std::string verifier;
    uint32_t acceptStat = 0;
    uint32_t low = 0, high = 0;
    std::string results;
    // Denied: reject_stat, auth_stat; low and high as above.
    uint32_t rejectStat = 0, authStat = 0;

    bool Success() const { return accepted && acceptStat == 0; }
};
RpcReply ParseReply(const std::string& message);

// The bytes of an accepted, successful reply with an empty AUTH_NONE verifier.
std::string SuccessReply(uint32_t xid, const std::string& results);
// Accepted with another accept_stat; a version mismatch names both versions.
std::string AcceptedReply(uint32_t xid, uint32_t acceptStat);
std::string MismatchReply(uint32_t xid, uint32_t low, uint32_t high);

// One TCP connection. Waiting is bounded by a time-out that only a hanging daemon meets.
class RpcConnection {
  public:
    static constexpr int kTimeoutMs = 30000;

    // To 127.0.0.1, or to ::1. `fromReservedPort`: from a port below 1024 (needs root).
    enum class Family { kIPv4, kIPv6 };
    explicit RpcConnection(uint16_t port, Family family = Family::kIPv4,
                           bool fromReservedPort = false, int receiveBufferBytes = 0);
    // From an address of this machine's loopback interface: 127.0.0.9, ::1.
    RpcConnection(uint16_t port, const std::string& fromAddress, bool fromReservedPort);
    ~RpcConnection();
    RpcConnection(const RpcConnection&) = delete;
    RpcConnection& operator=(const RpcConnection&) = delete;

    bool Connected() const { return fd_ >= 0; }
    int Descriptor() const { return fd_; }
    // All bytes, waiting as long as the peer takes them; false when it does not.
    bool Send(const std::string& bytes);
    // The next whole record's message; nothing when the peer closed or the time is over.
    std::optional<std::string> Receive(int timeoutMs = kTimeoutMs);
    // Sends the call and receives one reply. An empty text, with the test failed, when none comes.
    std::string CallRaw(const RpcCall& call);
    RpcReply Call(const RpcCall& call);
    // True when the peer has closed or reset the connection within the time.
    bool ClosedByPeer(int timeoutMs = kTimeoutMs);
    // Nothing arrives for so long; for what must not be answered.
    bool Silent(int forMs);
    void CloseSending();
    void Close();
    // Closes with a reset instead of an orderly end.
    void Reset();

  private:
    // Reads until `count` bytes are buffered; false when the peer closes or the time is over.
    bool Fill(size_t count, int timeoutMs);

    int fd_ = -1;
    std::string buffer_;
};

}  // namespace oxel::test
