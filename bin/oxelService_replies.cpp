// SPDX-License-Identifier: Apache-2.0
//
// Encoding replies into a connection's queue, and sending them.
#include "bin/oxelService_replies.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace {

constexpr size_t kMarkBytes = 4;
constexpr uint32_t kLastFragment = 0x80000000u;
constexpr size_t kFirstBytes = 4 << 10;
// From here on a call to the system of its own is cheaper than copying a run of bytes.
constexpr u_int kReferredBytes = 16 << 10;

}  // namespace

void ReplyBytes::Swap(ReplyBytes& other) {
    std::swap(bytes_, other.bytes_);
    std::swap(size_, other.size_);
    std::swap(capacity_, other.capacity_);
}

char* ReplyBytes::Add(size_t bytes) {
    if (capacity_ - size_ < bytes) {
        const size_t wanted = std::max({2 * capacity_, size_ + bytes, kFirstBytes});
        auto* grown = static_cast<char*>(realloc(bytes_, wanted));
        if (grown == nullptr) return nullptr;
        bytes_ = grown;
        capacity_ = wanted;
    }
    char* added = bytes_ + size_;
    size_ += bytes;
    return added;
}

void ReplyBytes::Free() {
    free(bytes_);
    bytes_ = nullptr;
    size_ = capacity_ = 0;
}

// A run of bytes that is sent from where it is.
struct ReplyQueue::Reference {
    const char* bytes = nullptr;
    size_t size = 0;
    size_t at = 0;  // where it stands among the queued bytes
};

namespace {

// The library's stream (RFC 4506) over a queue's end.
struct ReplyStream {
    ReplyBytes& bytes;
    size_t begin;   // the position that the stream calls 0
    bool mayRefer;  // a large run may stay where it is
    const char* run = nullptr;
    size_t runBytes = 0, runAt = 0;
};

ReplyStream& StreamOf(XDR* xdrs) {
    return *static_cast<ReplyStream*>(xdrs->x_private);
}

int32_t* Inline(XDR* xdrs, u_int length) {
    return reinterpret_cast<int32_t*>(StreamOf(xdrs).bytes.Add(length));
}

bool_t PutLong(XDR* xdrs, const long* value) {
    int32_t* word = Inline(xdrs, sizeof(int32_t));
    if (word == nullptr) return FALSE;
    *word = static_cast<int32_t>(htonl(static_cast<uint32_t>(*value)));
    return TRUE;
}

bool_t PutBytes(XDR* xdrs, const char* from, u_int length) {
    ReplyStream& stream = StreamOf(xdrs);
    if (stream.mayRefer && length >= kReferredBytes) {
        stream.mayRefer = false;
        stream.run = from;
        stream.runBytes = length;
        stream.runAt = stream.bytes.Size();
        return TRUE;
    }
    char* to = stream.bytes.Add(length);
    if (to == nullptr) return FALSE;
    memcpy(to, from, length);
    return TRUE;
}

u_int Position(XDR* xdrs) {
    const ReplyStream& stream = StreamOf(xdrs);
    return static_cast<u_int>(stream.bytes.Size() - stream.begin + stream.runBytes);
}

// The stream is written from its beginning to its end.
bool_t GetLong(XDR*, long*) {
    return FALSE;
}
bool_t GetBytes(XDR*, char*, u_int) {
    return FALSE;
}
bool_t SetPosition(XDR*, u_int) {
    return FALSE;
}
void Destroy(XDR*) {}
bool_t Control(XDR*, int, void*) {
    return FALSE;
}

const std::remove_pointer_t<decltype(XDR::x_ops)> kStreamOperations = {
    GetLong, PutLong, GetBytes, PutBytes, Position, SetPosition, Inline, Destroy, Control};

// One record of one fragment at the end of the stream's bytes.
bool Encode(ReplyStream* stream, rpc_msg* message) {
    char* mark = stream->bytes.Add(kMarkBytes);
    if (mark == nullptr) return false;
    XDR xdrs{};
    xdrs.x_op = XDR_ENCODE;
    xdrs.x_ops = &kStreamOperations;
    xdrs.x_private = stream;
    const size_t at = stream->bytes.Size() - kMarkBytes;
    if (!xdr_replymsg(&xdrs, message)) return false;
    const size_t size = stream->bytes.Size() - at - kMarkBytes + stream->runBytes;
    const uint32_t word = htonl(kLastFragment | static_cast<uint32_t>(size));
    memcpy(stream->bytes.At(at), &word, kMarkBytes);
    return true;
}

}  // namespace

std::atomic<uint64_t> ReplyQueue::bytesBlocked_{0};

ReplyQueue::~ReplyQueue() {
    XoCriticalSectionGuard hold(lock_);
    Count(0);
}

void ReplyQueue::Count(uint64_t bytes) {
    bytesBlocked_.fetch_add(bytes - counted_, std::memory_order_relaxed);
    counted_ = bytes;
}

void ReplyQueue::Take() {
    sending_ = true;
    takenSent_ = 0;
    taken_.Swap(queued_);
    queued_.Free();
    queuedBytes_.store(0, std::memory_order_relaxed);
}

ReplyQueue::Sent ReplyQueue::Put(int fd, rpc_msg* message) {
    Reference reference;
    {
        XoCriticalSectionGuard hold(lock_);
        if (failed_) {
            errno = EPIPE;
            return Sent::kFailed;
        }
        const size_t before = queued_.Size();
        ReplyStream stream{queued_, before, !sending_ && !blocked_};
        if (!Encode(&stream, message)) {
            queued_.Shorten(before);
            return Sent::kEncode;
        }
        queuedBytes_.store(queued_.Size(), std::memory_order_relaxed);
        if (blocked_) Count(counted_ + queued_.Size() - before);
        if (stream.run == nullptr) return Sent::kQueued;
        reference = {stream.run, stream.runBytes, stream.runAt};
        Take();
    }
    return SendOut(fd, &reference);
}

ReplyQueue::Sent ReplyQueue::Flush(int fd) {
    {
        XoCriticalSectionGuard hold(lock_);
        if (sending_ || blocked_ || queued_.Size() == 0) return Sent::kAll;
        Take();
    }
    return SendOut(fd, nullptr);
}

ReplyQueue::Sent ReplyQueue::Continue(int fd) {
    {
        XoCriticalSectionGuard hold(lock_);
        if (!blocked_) return Sent::kAll;
        blocked_ = false;
        sending_ = true;
        Count(0);
    }
    return SendOut(fd, nullptr);
}

ReplyQueue::Sent ReplyQueue::SendOut(int fd, Reference* reference) {
    for (;;) {
        const Sent sent = SendTaken(fd, reference);
        reference = nullptr;
        const int error = errno;
        XoCriticalSectionGuard hold(lock_);
        if (sent == Sent::kAll) {
            taken_.Free();
            if (queued_.Size() != 0) {
                Take();
                continue;
            }
        } else if (sent == Sent::kBlocked) {
            blocked_ = true;
            Count(taken_.Size() - takenSent_ + queued_.Size());
        } else {
            failed_ = true;
            taken_.Free();
            queued_.Free();
            queuedBytes_.store(0, std::memory_order_relaxed);
        }
        sending_ = false;
        errno = error;
        return sent;
    }
}

ReplyQueue::Sent ReplyQueue::SendTaken(int fd, Reference* reference) {
    // | taken, up to the reference | reference | the rest of taken |
    const size_t all = taken_.Size() + (reference != nullptr ? reference->size : 0);
    while (takenSent_ < all) {
        iovec parts[3];
        size_t count = 0;
        size_t skip = takenSent_;
        const auto add = [&](const char* bytes, size_t size) {
            const size_t skipped = std::min(skip, size);
            skip -= skipped;
            if (size != skipped)
                parts[count++] = {const_cast<char*>(bytes) + skipped, size - skipped};
        };
        const size_t front = reference != nullptr ? reference->at : taken_.Size();
        add(taken_.At(0), front);
        if (reference != nullptr) add(reference->bytes, reference->size);
        add(taken_.At(front), taken_.Size() - front);

        msghdr message{};
        message.msg_iov = parts;
        message.msg_iovlen = count;
        const ssize_t sent = sendmsg(fd, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent >= 0) {
            takenSent_ += static_cast<size_t>(sent);
        } else if (errno == EAGAIN) {
            // The run belongs to the call, which ends now: what of it is left is kept here.
            if (reference != nullptr && !Keep(*reference)) return Sent::kFailed;
            return Sent::kBlocked;
        } else if (errno != EINTR) {
            return Sent::kFailed;
        }
    }
    return Sent::kAll;
}

// Puts the run's bytes among the taken ones.
bool ReplyQueue::Keep(const Reference& reference) {
    const size_t behind = taken_.Size() - reference.at;
    if (taken_.Add(reference.size) == nullptr) return false;
    char* at = taken_.At(reference.at);
    memmove(at + reference.size, at, behind);
    memcpy(at, reference.bytes, reference.size);
    return true;
}
