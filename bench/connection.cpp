// SPDX-License-Identifier: Apache-2.0
#include "bench/connection.h"

#include <sys/random.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstddef>

#include "bench/session.h"

namespace bench {
namespace {

// A transaction id is a sequence number and, in its low bits, the slot within the connection.
constexpr uint32_t kSlotBits = 10, kSlotMask = (1u << kSlotBits) - 1;
constexpr size_t kFirstCapacity = 16 << 10;

}  // namespace

CallBuilder::CallBuilder(Slot* slot, Procedure procedure) : slot_(slot) {
    static const std::string header = CallHeader(kNfs, kNull);
    slot->length = 0;
    slot->data = {};
    Append(header.data(), header.size());
    const uint32_t number = htonl(procedure);
    memcpy(slot->call.data() + kProcedureOffset, &number, sizeof number);
}

CallBuilder::~CallBuilder() {
    const size_t length = slot_->length + slot_->data.size() - kMarkBytes;
    const uint32_t mark = htonl(kLastFragment | static_cast<uint32_t>(length));
    memcpy(slot_->call.data(), &mark, sizeof mark);
}

void CallBuilder::Append(const void* bytes, size_t length) {
    if (slot_->call.size() - slot_->length < length) throw std::runtime_error("call is too long");
    memcpy(slot_->call.data() + slot_->length, bytes, length);
    slot_->length += length;
}

CallBuilder& CallBuilder::U32(uint32_t value) {
    value = htonl(value);
    Append(&value, sizeof value);
    return *this;
}

CallBuilder& CallBuilder::U64(uint64_t value) {
    return U32(static_cast<uint32_t>(value >> 32)).U32(static_cast<uint32_t>(value));
}

CallBuilder& CallBuilder::Opaque(std::string_view bytes) {
    static const char zeros[4] = {};
    U32(static_cast<uint32_t>(bytes.size()));
    Append(bytes.data(), bytes.size());
    Append(zeros, PaddingOf(bytes.size()));
    return *this;
}

CallBuilder& CallBuilder::Data(std::string_view bytes) {
    if (PaddingOf(bytes.size()) != 0)
        throw std::runtime_error("data must be a multiple of 4 bytes");
    U32(static_cast<uint32_t>(bytes.size()));
    slot_->data = bytes;
    return *this;
}

RecordReader::RecordReader(size_t keepBytes)
    : keepBytes_(keepBytes),
      buffer_(std::make_unique_for_overwrite<char[]>(kFirstCapacity)),
      capacity_(kFirstCapacity) {}

bool RecordReader::Fill(int fd) {
    return keepBytes_ == SIZE_MAX ? FillKeeping(fd) : FillThrowing(fd);
}

// Makes room for so many bytes behind begin_.
void RecordReader::MakeRoom(size_t bytes) {
    if (begin_ == end_) begin_ = end_ = 0;
    if (begin_ > 0 && (capacity_ - begin_ < bytes || capacity_ - end_ < capacity_ / 4)) {
        memmove(buffer_.get(), buffer_.get() + begin_, end_ - begin_);
        end_ -= begin_;
        begin_ = 0;
    }
    if (capacity_ >= bytes && end_ < capacity_) return;
    const size_t larger = std::max(bytes, capacity_) * 2;
    auto buffer = std::make_unique_for_overwrite<char[]>(larger);
    memcpy(buffer.get(), buffer_.get(), end_);
    buffer_ = std::move(buffer);
    capacity_ = larger;
}

bool RecordReader::FillKeeping(int fd) {
    MakeRoom(wanted_);
    const ssize_t got = recv(fd, buffer_.get() + end_, capacity_ - end_, MSG_DONTWAIT);
    if (got < 0) return errno == EAGAIN || errno == EINTR;
    end_ += static_cast<size_t>(got);
    return got > 0;
}

// Never reads more than the beginning of one record before it is known how long that one is.
bool RecordReader::FillThrowing(int fd) {
    for (;;) {
        ssize_t got;
        if (leftToThrow_ > 0) {
            got = recv(fd, nullptr, leftToThrow_, MSG_DONTWAIT | MSG_TRUNC);
        } else {
            MakeRoom(kMarkBytes + keepBytes_);
            got = recv(fd, buffer_.get() + end_, kMarkBytes + keepBytes_ - (end_ - begin_),
                       MSG_DONTWAIT);
        }
        if (got < 0) return errno == EAGAIN || errno == EINTR;
        if (got == 0) return false;
        if (leftToThrow_ > 0) {
            leftToThrow_ -= static_cast<size_t>(got);
            if (leftToThrow_ == 0) return true;
            continue;
        }
        end_ += static_cast<size_t>(got);
        if (end_ - begin_ < kMarkBytes) continue;
        uint32_t mark;
        memcpy(&mark, buffer_.get() + begin_, sizeof mark);
        mark = ntohl(mark);
        const size_t length = mark & ~kLastFragment;
        if (length <= keepBytes_) {
            if (end_ - begin_ >= kMarkBytes + length) return true;
        } else if (end_ - begin_ == kMarkBytes + keepBytes_) {
            if ((mark & kLastFragment) == 0)
                throw std::runtime_error("a long reply of several fragments");
            leftToThrow_ = thrownAway_ = length - keepBytes_;
        }
    }
}

bool RecordReader::Next(std::string_view* record, size_t* thrownAway) {
    *thrownAway = thrownAway_;
    if (thrownAway_ > 0) {
        if (leftToThrow_ > 0) return false;
        *record = {buffer_.get() + begin_ + kMarkBytes, keepBytes_};
        begin_ += kMarkBytes + keepBytes_;
        thrownAway_ = 0;
        return true;
    }
    fragments_.clear();
    for (size_t at = begin_;;) {
        uint32_t mark;
        wanted_ = at - begin_ + kMarkBytes;
        if (end_ - at < kMarkBytes) return false;
        memcpy(&mark, buffer_.get() + at, sizeof mark);
        mark = ntohl(mark);
        const size_t length = mark & ~kLastFragment;
        wanted_ += length;
        if (end_ - at - kMarkBytes < length) return false;
        const std::string_view fragment(buffer_.get() + at + kMarkBytes, length);
        at += kMarkBytes + length;
        const bool last = (mark & kLastFragment) != 0;
        if (last && fragments_.empty()) {
            *record = fragment;
        } else {
            fragments_.insert(fragments_.end(), fragment.begin(), fragment.end());
            *record = {fragments_.data(), fragments_.size()};
        }
        if (last) {
            begin_ = at;
            wanted_ = 0;
            return true;
        }
    }
}

Connection::Connection(uint16_t port, uint32_t number, uint32_t firstSlot, unsigned depth,
                       size_t keepBytes)
    : socket_(Connect(port)), slots_(depth), input_(keepBytes) {
    // A server may remember calls: no two runs shall use the same transaction ids.
    if (getrandom(&sequence_, sizeof sequence_, 0) != sizeof sequence_)
        throw std::runtime_error("getrandom");
    for (unsigned i = 0; i < depth; ++i) {
        slots_[i].number = firstSlot + i;
        slots_[i].connection = number;
    }
    out_.reserve(size_t{2} * depth);
}

void Connection::Queue(Slot* slot, int64_t nowNs) {
    slot->xid = ++sequence_ << kSlotBits | static_cast<uint32_t>(slot - slots_.data());
    const uint32_t xid = htonl(slot->xid);
    memcpy(slot->call.data() + kXidOffset, &xid, sizeof xid);
    slot->inFlight = true;
    slot->sentNs = nowNs;
    out_.push_back({slot->call.data(), slot->length});
    if (!slot->data.empty())
        out_.push_back({const_cast<char*>(slot->data.data()), slot->data.size()});
}

bool Connection::Flush() {
    while (outBegin_ < out_.size()) {
        msghdr message{};
        message.msg_iov = out_.data() + outBegin_;
        message.msg_iovlen = std::min<size_t>(out_.size() - outBegin_, IOV_MAX);
        const ssize_t sent = sendmsg(socket_.Get(), &message, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent < 0) {
            if (errno == EAGAIN) return false;
            if (errno == EINTR) continue;
            throw std::runtime_error(std::string("send: ") + strerror(errno));
        }
        size_t left = static_cast<size_t>(sent);
        while (outBegin_ < out_.size() && left >= out_[outBegin_].iov_len)
            left -= out_[outBegin_++].iov_len;
        if (left > 0) {
            out_[outBegin_].iov_base = static_cast<char*>(out_[outBegin_].iov_base) + left;
            out_[outBegin_].iov_len -= left;
        }
    }
    out_.clear();
    outBegin_ = 0;
    return true;
}

Slot* Connection::NextReply(Reader* reply) {
    std::string_view record;
    size_t thrownAway = 0;
    if (!input_.Next(&record, &thrownAway)) return nullptr;
    *reply = Reader(record, thrownAway);
    const uint32_t xid = reply->U32(), index = xid & kSlotMask;
    if (index >= slots_.size() || !slots_[index].inFlight || slots_[index].xid != xid)
        throw std::runtime_error("reply with transaction id " + std::to_string(xid) +
                                 ", which no call in flight has");
    slots_[index].inFlight = false;
    CheckReplyHeader(reply);
    return &slots_[index];
}

}  // namespace bench
