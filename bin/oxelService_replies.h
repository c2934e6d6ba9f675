// SPDX-License-Identifier: Apache-2.0
//
// A connection's outgoing replies. A reply is encoded into the queue; replies that are ready
// together go out in one system call; what the socket does not take stays queued. Nobody waits.
#pragma once

#include <rpc/rpc.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "base/sync.h"

// Bytes that grow at their end. Memory comes from malloc and is not initialised.
class ReplyBytes {
  public:
    ReplyBytes() = default;
    ~ReplyBytes() { Free(); }
    ReplyBytes(const ReplyBytes&) = delete;
    ReplyBytes& operator=(const ReplyBytes&) = delete;
    void Swap(ReplyBytes& other);

    size_t Size() const { return size_; }
    char* At(size_t offset) { return bytes_ + offset; }
    // Room for `bytes` more behind the end, which moves; null when memory is short.
    char* Add(size_t bytes);
    // Cuts off what stands behind `size`.
    void Shorten(size_t size) { size_ = size; }
    void Free();

  private:
    char* bytes_ = nullptr;
    size_t size_ = 0, capacity_ = 0;
};

// Any thread.
class ReplyQueue {
  public:
    ReplyQueue() = default;
    ~ReplyQueue();
    ReplyQueue(const ReplyQueue&) = delete;
    ReplyQueue& operator=(const ReplyQueue&) = delete;

    enum class Sent {
        kAll,      // nothing is queued, or another thread is sending
        kQueued,   // for a later Flush()
        kBlocked,  // the socket is full: Continue() when it takes bytes again
        kFailed,   // the client is gone, now or before; errno
        kEncode,   // the reply cannot be encoded, or memory is short; nothing is queued for it
    };
    // Encodes a reply as one record of one fragment. A large run of bytes in it (READ's data) is
    // not copied, but sent at once from where it is. kBlocked is told to one caller only.
    Sent Put(int fd, rpc_msg* message);
    // Sends what is queued, in one call to the system as long as the socket takes it.
    Sent Flush(int fd);
    // The socket takes bytes again. Only by the thread that waits for that.
    Sent Continue(int fd);
    // Whether bytes wait for the client to read.
    bool Blocked() const { return blocked_.load(std::memory_order_relaxed); }
    // Bytes that wait for a Flush().
    size_t Queued() const { return queuedBytes_.load(std::memory_order_relaxed); }
    // Bytes that all queues of the process keep for clients that do not read.
    static uint64_t BytesBlocked() { return bytesBlocked_.load(std::memory_order_relaxed); }

  private:
    struct Reference;
    // Makes what is queued the calling thread's to send.
    void Take() REQUIRES(lock_);
    // By the thread that took: sends until nothing is queued or the socket is full.
    Sent SendOut(int fd, Reference* reference) EXCLUDES(lock_);
    // What was taken, with a run of bytes of the caller's inside it. What of that run the socket
    // does not take is copied.
    Sent SendTaken(int fd, Reference* reference) EXCLUDES(lock_);
    bool Keep(const Reference& reference);
    // Tells bytesBlocked_ how much waits here.
    void Count(uint64_t bytes) REQUIRES(lock_);

    static std::atomic<uint64_t> bytesBlocked_;

    XoCriticalSection lock_;
    ReplyBytes queued_ GUARDED_BY(lock_);
    bool sending_ GUARDED_BY(lock_) = false;  // some thread has taken
    ReplyBytes taken_;                        // that thread's; when blocked_, nobody's
    size_t takenSent_ = 0;
    std::atomic<bool> blocked_{false};       // written under lock_
    bool failed_ GUARDED_BY(lock_) = false;  // part of a reply may be out, nothing follows
    std::atomic<size_t> queuedBytes_{0};
    uint64_t counted_ GUARDED_BY(lock_) = 0;
};
