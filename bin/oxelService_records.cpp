// SPDX-License-Identifier: Apache-2.0
//
// Reading and gathering records. A record of one fragment, as clients send them, stays where it was
// read to; later fragments are moved up to the first one.
#include "bin/oxelService_records.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

namespace {

constexpr size_t kMarkBytes = 4;
constexpr uint32_t kLastFragment = 0x80000000u;
// Asked for when the size of what comes is not known: a batch of small calls.
constexpr size_t kUnknownBytes = 16 << 10;
// Asked for beyond a record that is under way: the beginning of the next one has to be moved.
constexpr size_t kBeyondBytes = 4 << 10;
// Buffers that nobody uses now are kept up to this many bytes.
constexpr size_t kKeptBytes = 4 << 20;

}  // namespace

BufferPool::BufferPool(size_t recordBytes)
    : bufferBytes_(recordBytes + kMarkBytes + kUnknownBytes + kBeyondBytes),
      keptMax_(std::max<size_t>(1, kKeptBytes / bufferBytes_)) {}

BufferPool::Buffer BufferPool::Make() const {
    return {std::unique_ptr<char[]>(new (std::nothrow) char[bufferBytes_]), 0};
}

BufferPool::Buffer BufferPool::Take() {
    // The analyzer loses sight of a unique_ptr in a structure that is returned.
    // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDeleteLeaks)
    if (kept_.empty()) return Make();
    Buffer buffer = std::move(kept_.back());
    kept_.pop_back();
    return buffer;
}

void BufferPool::Give(Buffer buffer) {
    if (kept_.capacity() == 0) kept_.reserve(keptMax_);
    if (kept_.size() < keptMax_) kept_.push_back(std::move(buffer));
}

bool RecordReader::Mark(uint32_t* mark) const {
    if (Unread() < kMarkBytes) return false;
    memcpy(mark, buffer_.bytes.get() + next_, kMarkBytes);
    *mark = ntohl(*mark);
    return true;
}

RecordReader::Found RecordReader::Look() {
    uint32_t mark;
    while (!whole_) {
        if (fragments_ == bounds_.fragments) return Found::kTooManyFragments;
        if (!Mark(&mark)) return Found::kPartial;
        fragmentBytes_ = mark & ~kLastFragment;
        if (fragmentBytes_ > bounds_.bytes - payloadBytes_) return Found::kTooLong;
        if (Unread() - kMarkBytes < fragmentBytes_) return Found::kPartial;
        if (fragments_ == 0)
            payloadAt_ = next_ + kMarkBytes;
        else
            memmove(Record() + payloadBytes_, buffer_.bytes.get() + next_ + kMarkBytes,
                    fragmentBytes_);
        payloadBytes_ += fragmentBytes_;
        next_ += kMarkBytes + fragmentBytes_;
        fragmentBytes_ = 0;
        ++fragments_;
        whole_ = (mark & kLastFragment) != 0;
    }
    return Found::kRecord;
}

void RecordReader::Consume() {
    lastRecordBytes_ = payloadBytes_;
    payloadBytes_ = 0;
    fragments_ = 0;
    whole_ = false;
    ++number_;
    if (next_ == end_) next_ = end_ = 0;
}

size_t RecordReader::BytesToAsk(Guess guess) const {
    uint32_t mark;
    if (Mark(&mark)) return kMarkBytes + fragmentBytes_ - Unread() + kBeyondBytes;
    if (guess == Guess::kSmall) return kUnknownBytes;
    // Clients send calls of one size for a while.
    return std::max(kUnknownBytes, std::min(lastRecordBytes_ + kBeyondBytes, bounds_.bytes));
}

void RecordReader::MakeRoom() {
    size_t to = 0;
    if (fragments_ != 0) {
        memmove(buffer_.bytes.get(), Record(), payloadBytes_);
        payloadAt_ = 0;
        to = payloadBytes_;
    }
    memmove(buffer_.bytes.get() + to, buffer_.bytes.get() + next_, Unread());
    end_ = to + Unread();
    next_ = to;
}

RecordReader::Filled RecordReader::Fill(int fd, Guess guess) {
    if (!buffer_.bytes) buffer_ = pool_.Take();
    if (!buffer_.bytes) return Filled::kNoMemory;
    size_t ask = BytesToAsk(guess);
    // A short beginning is moved in any case: the same few pages are used again and again then.
    if (next_ != 0 && (Unread() <= kBeyondBytes || pool_.BufferBytes() - end_ < ask)) MakeRoom();
    ask = std::min(ask, pool_.BufferBytes() - end_);
    ssize_t got;
    do {
        got = recv(fd, buffer_.bytes.get() + end_, ask, MSG_DONTWAIT);
    } while (got < 0 && errno == EINTR);
    if (got < 0) return errno == EAGAIN ? Filled::kAll : Filled::kEnd;
    if (got == 0) return Filled::kEnd;
    end_ += static_cast<size_t>(got);
    buffer_.used = std::max(buffer_.used, end_);
    return static_cast<size_t>(got) < ask ? Filled::kAll : Filled::kMore;
}

void RecordReader::Rest() {
    if (!Begun()) Discard();
}

// NOLINTBEGIN(clang-analyzer-cplusplus.NewDeleteLeaks): as in Take()
void RecordReader::Shrink() {
    if (!Begun() || payloadBytes_ + Unread() > kBeyondBytes) return;
    BufferPool::Buffer smaller = pool_.Make();
    if (!smaller.bytes) return;
    MakeRoom();
    memcpy(smaller.bytes.get(), buffer_.bytes.get(), end_);
    smaller.used = end_;
    std::swap(buffer_, smaller);
    pool_.Give(std::move(smaller));
}
// NOLINTEND(clang-analyzer-cplusplus.NewDeleteLeaks)

void RecordReader::Discard() {
    next_ = end_ = 0;
    payloadBytes_ = fragmentBytes_ = 0;
    fragments_ = 0;
    whole_ = false;
    if (buffer_.bytes) pool_.Give(std::move(buffer_));
}
