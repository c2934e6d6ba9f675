// SPDX-License-Identifier: Apache-2.0
//
// One connection of the load with its calls in flight. Nothing is allocated per call: a call is
// built in the slot that it occupies until its reply has come, and all calls that are ready go out
// in one system call.
#pragma once

#include <sys/uio.h>

#include <array>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include "base/unique_fd.h"
#include "bench/wire.h"

namespace bench {

// A call in flight.
struct Slot {
    uint32_t number = 0;      // unique in the load, from 0
    uint32_t connection = 0;  // its connection's number, from 0
    uint32_t xid = 0;
    bool inFlight = false;
    int64_t sentNs = 0;
    size_t length = 0;      // of `call`
    std::string_view data;  // goes out behind `call`; must live until the reply is there
    std::array<char, 512> call;
};

// Builds a call in a slot. The transaction id is left to the connection.
class CallBuilder {
  public:
    CallBuilder(Slot* slot, Procedure procedure);
    ~CallBuilder();  // writes the record mark
    CallBuilder(const CallBuilder&) = delete;
    CallBuilder& operator=(const CallBuilder&) = delete;

    CallBuilder& U32(uint32_t value);
    CallBuilder& U64(uint64_t value);
    CallBuilder& Opaque(std::string_view bytes);
    // An opaque item that is sent from where it is; the last of the call, a multiple of 4 bytes.
    CallBuilder& Data(std::string_view bytes);

  private:
    void Append(const void* bytes, size_t length);
    Slot* const slot_;
};

// A connection's incoming bytes, cut into whole reply records.
class RecordReader {
  public:
    // Of a longer record only the first `keepBytes` are kept; the rest is thrown away inside the
    // kernel, which spares a client that would not look at it the copy.
    explicit RecordReader(size_t keepBytes);
    // Reads once what is there. False at the end of the stream.
    bool Fill(int fd);
    // The next whole record without its mark, valid until Fill; false when none is complete.
    bool Next(std::string_view* record, size_t* thrownAway);

  private:
    void MakeRoom(size_t bytes);
    bool FillKeeping(int fd);
    bool FillThrowing(int fd);

    const size_t keepBytes_;
    std::unique_ptr<char[]> buffer_;
    size_t capacity_, begin_ = 0, end_ = 0;
    size_t wanted_ = 0;            // bytes of the record at begin_, as far as known
    size_t leftToThrow_ = 0;       // of the record at begin_
    size_t thrownAway_ = 0;        // of the record at begin_
    std::vector<char> fragments_;  // a record of several fragments, put together
};

class Connection {
  public:
    // Connects. `firstSlot` is the number of its first slot.
    Connection(uint16_t port, uint32_t number, uint32_t firstSlot, unsigned depth,
               size_t keepBytes);

    int Fd() const { return socket_.Get(); }
    std::vector<Slot>& Slots() { return slots_; }
    // Adds a slot's call to what goes out with the next Flush.
    void Queue(Slot* slot, int64_t nowNs);
    // Sends what the socket takes. False when something is left: call again when it is writable.
    bool Flush();
    bool Fill() { return input_.Fill(socket_.Get()); }
    // The slot that the next whole reply belongs to, null when there is none; a reply to no call
    // throws. `reply` is at the result, behind the RPC header, valid until Fill.
    Slot* NextReply(Reader* reply);

    bool waitsToSend = false;  // for the poller

  private:
    oxel::UniqueFd socket_;
    std::vector<Slot> slots_;
    RecordReader input_;
    std::vector<iovec> out_;
    size_t outBegin_ = 0;
    uint32_t sequence_;
};

}  // namespace bench
