// SPDX-License-Identifier: Apache-2.0
//
// A connection's incoming bytes, cut into whole records (RFC 5531 section 11). Nothing is handed on
// before its last byte is there, so nobody ever waits for a client in the middle of a record.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

// What a record may be at most.
struct RecordBounds {
    size_t bytes;        // of payload
    unsigned fragments;  // of which a record may consist
};

// Buffers of one size, kept for the next connection that has something to read. Not thread-safe.
class BufferPool {
  public:
    struct Buffer {
        std::unique_ptr<char[]> bytes;
        size_t used = 0;  // from the beginning, ever: what it takes in memory
    };
    // For records of at most `recordBytes`.
    explicit BufferPool(size_t recordBytes);
    size_t BufferBytes() const { return bufferBytes_; }
    // Null when memory is short.
    Buffer Take();
    // One that takes no memory yet.
    Buffer Make() const;
    void Give(Buffer buffer);

  private:
    size_t bufferBytes_;
    size_t keptMax_;
    std::vector<Buffer> kept_;
};

// Not thread-safe. Has a buffer only while there are bytes that no record was made of. One that is
// destroyed frees its buffer, since that may happen on any thread; the pool is one thread's.
class RecordReader {
  public:
    // The pool outlives the reader.
    RecordReader(const RecordBounds& bounds, BufferPool& pool) : bounds_(bounds), pool_(pool) {}
    RecordReader(const RecordReader&) = delete;
    RecordReader& operator=(const RecordReader&) = delete;

    enum class Filled { kAll, kMore, kEnd, kNoMemory };
    // Reads once from a socket, without waiting. kAll: the socket has no more now. kMore: it may
    // have. kEnd: the client has closed or reset. Only after Look() said kPartial. What comes next
    // is expected to be of the last record's size, or to be small.
    enum class Guess { kLikeTheLast, kSmall };
    Filled Fill(int fd, Guess guess = Guess::kLikeTheLast);

    enum class Found { kRecord, kPartial, kTooLong, kTooManyFragments };
    // Whether a whole record is there. kTooLong and kTooManyFragments are final.
    Found Look();
    // After kRecord: the record's payload, in one piece, until Consume().
    char* Record() { return buffer_.bytes.get() + payloadAt_; }
    size_t RecordBytes() const { return payloadBytes_; }
    void Consume();

    // Gives the buffer back when there is nothing in it.
    void Rest();
    // Exchanges a buffer that large records were in for one that takes no memory yet, when only the
    // beginning of a record is in it.
    void Shrink();
    // Gives the buffer back, whatever is in it: nothing more is read of this record.
    void Discard();
    // Whether a record has begun and is not whole.
    bool Begun() const { return end_ != next_ || fragments_ != 0; }
    // Which record is under way: 1 is the first.
    uint64_t Number() const { return number_; }
    // What the record under way takes in memory, as far as its marks have told.
    size_t BytesExpected() const { return payloadBytes_ + fragmentBytes_; }
    // What the buffer takes in memory, which larger records may have been in before.
    size_t BytesHeld() const { return buffer_.bytes ? buffer_.used : 0; }

  private:
    size_t Unread() const { return end_ - next_; }
    // The next fragment's mark, when its four bytes are there.
    bool Mark(uint32_t* mark) const;
    size_t BytesToAsk(Guess guess) const;
    // Moves what is there to the buffer's beginning.
    void MakeRoom();

    const RecordBounds bounds_;
    BufferPool& pool_;
    BufferPool::Buffer buffer_;
    // | gathered payload | ... | the next fragment's mark | what has come of it | free |
    //   payloadAt_               next_                                           end_
    size_t payloadAt_ = 0, payloadBytes_ = 0;
    size_t next_ = 0, end_ = 0;
    size_t fragmentBytes_ = 0;  // of the fragment under way
    size_t lastRecordBytes_ = 0;
    unsigned fragments_ = 0;  // gathered
    bool whole_ = false;
    uint64_t number_ = 1;
};
