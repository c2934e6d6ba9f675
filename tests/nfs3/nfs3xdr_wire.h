// SPDX-License-Identifier: Apache-2.0
//
// For tests of the codec: builds the bytes that RFC 4506 and RFC 1813 ask for, independently of the
// code under test, and holds a routine to them both ways.
#pragma once

#include <gtest/gtest.h>
#include <rpc/rpc.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iomanip>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "nfs3/nfs3types.h"

namespace oxel::test {

// Bytes on the wire, appended to piece by piece.
class Wire {
  public:
    Wire& U32(uint32_t value) {
        for (int shift = 24; shift >= 0; shift -= 8)
            bytes_.push_back(static_cast<unsigned char>(value >> shift));
        return *this;
    }
    Wire& U64(uint64_t value) {
        for (int shift = 56; shift >= 0; shift -= 8)
            bytes_.push_back(static_cast<unsigned char>(value >> shift));
        return *this;
    }
    // As they are, padded with zeros to whole words.
    Wire& Raw(const std::string& bytes) {
        bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
        while (bytes_.size() % 4 != 0) bytes_.push_back(0);
        return *this;
    }
    Wire& Opaque(const std::string& bytes) {
        return U32(static_cast<uint32_t>(bytes.size())).Raw(bytes);
    }
    Wire& Add(const Wire& other) {
        bytes_.insert(bytes_.end(), other.bytes_.begin(), other.bytes_.end());
        return *this;
    }
    const std::vector<unsigned char>& Bytes() const { return bytes_; }
    size_t Size() const { return bytes_.size(); }

  private:
    std::vector<unsigned char> bytes_;
};

inline std::string Hex(const std::vector<unsigned char>& bytes) {
    std::ostringstream text;
    text << std::hex << std::setfill('0');
    for (size_t i = 0; i < bytes.size(); ++i)
        text << std::setw(2) << unsigned{bytes[i]} << (i % 4 == 3 ? " " : "");
    return text.str();
}

// Memory of exactly this size (a sanitizer sees every byte beyond it), aligned to words or, for the
// library's unaligned streams which hand out no pieces of their buffer, off by one.
class ExactMemory {
  public:
    ExactMemory(size_t size, bool aligned)
        : offset_(aligned ? 0 : 1), memory_(new char[size + offset_]) {}
    char* data() { return memory_.get() + offset_; }

  private:
    const size_t offset_;
    const std::unique_ptr<char[]> memory_;
};

// A bool_t xdr_T(XDR*, T*).
template <typename T>
using Codec = bool_t (*)(XDR*, T*);

// The encoded form, or nothing when the routine fails with `room` bytes.
template <typename T>
bool Encode(Codec<T> codec, T* value, size_t room, bool aligned, std::vector<unsigned char>* out) {
    ExactMemory memory(room, aligned);
    XDR xdrs;
    xdrmem_create(&xdrs, memory.data(), static_cast<u_int>(room), XDR_ENCODE);
    const bool done = codec(&xdrs, value);
    const u_int used = xdr_getpos(&xdrs);
    if (done) out->assign(memory.data(), memory.data() + used);
    xdr_destroy(&xdrs);
    return done;
}

// Decodes `size` bytes of `bytes` into *value; *used tells how many were taken.
template <typename T>
bool Decode(Codec<T> codec, const std::vector<unsigned char>& bytes, size_t size, bool aligned,
            T* value, size_t* used = nullptr) {
    ExactMemory memory(size, aligned);
    if (size != 0) memcpy(memory.data(), bytes.data(), size);
    XDR xdrs;
    xdrmem_create(&xdrs, memory.data(), static_cast<u_int>(size), XDR_DECODE);
    const bool done = codec(&xdrs, value);
    if (used != nullptr) *used = xdr_getpos(&xdrs);
    xdr_destroy(&xdrs);
    return done;
}

template <typename T>
bool Decode(Codec<T> codec, const Wire& wire, T* value) {
    return Decode(codec, wire.Bytes(), wire.Size(), true, value);
}

template <typename T>
void Free(Codec<T> codec, T* value) {
    XDR xdrs{};
    xdrs.x_op = XDR_FREE;
    EXPECT_TRUE(codec(&xdrs, value));
}

// A zeroed record, as the dispatcher gives it to the decoder. WRITE's arguments need the room
// behind them and have tests of their own.
template <typename T>
struct Zeroed {
    Zeroed() { memset(static_cast<void*>(&value), 0, sizeof(T)); }
    T value;
};

// The routine encodes *value to exactly `wire`, in whatever pieces the stream gives its buffer, and
// fails where the buffer ends too early.
template <typename T>
void ExpectEncodes(Codec<T> codec, T* value, const Wire& wire) {
    for (bool aligned : {true, false}) {
        SCOPED_TRACE(aligned ? "aligned" : "unaligned");
        std::vector<unsigned char> encoded;
        ASSERT_TRUE(Encode(codec, value, wire.Size(), aligned, &encoded));
        EXPECT_EQ(Hex(wire.Bytes()), Hex(encoded));
        for (size_t room = 0; room < wire.Size(); ++room) {
            std::vector<unsigned char> ignored;
            EXPECT_FALSE(Encode(codec, value, room, aligned, &ignored)) << "room " << room;
        }
    }
}

// `wire` decodes to a record that encodes to `wire` again; any part of it fails and leaves nothing
// that freeing would not release.
template <typename T>
void ExpectDecodes(Codec<T> codec, const Wire& wire) {
    for (bool aligned : {true, false}) {
        SCOPED_TRACE(aligned ? "aligned" : "unaligned");
        Zeroed<T> record;
        size_t used = 0;
        ASSERT_TRUE(Decode(codec, wire.Bytes(), wire.Size(), aligned, &record.value, &used));
        EXPECT_EQ(wire.Size(), used);
        std::vector<unsigned char> encoded;
        ASSERT_TRUE(Encode(codec, &record.value, wire.Size(), true, &encoded));
        EXPECT_EQ(Hex(wire.Bytes()), Hex(encoded));
        Free(codec, &record.value);
        Free(codec, &record.value);  // once more: what was freed is null

        for (size_t size = 0; size < wire.Size(); ++size) {
            Zeroed<T> part;
            EXPECT_FALSE(Decode(codec, wire.Bytes(), size, aligned, &part.value))
                << "size " << size;
            Free(codec, &part.value);
        }
    }
}

template <typename T>
void ExpectBothWays(Codec<T> codec, T value, const Wire& wire) {
    ExpectEncodes(codec, &value, wire);
    ExpectDecodes(codec, wire);
}

template <typename T>
void ExpectDecodeFails(Codec<T> codec, const Wire& wire) {
    for (bool aligned : {true, false}) {
        Zeroed<T> record;
        EXPECT_FALSE(Decode(codec, wire.Bytes(), wire.Size(), aligned, &record.value));
        Free(codec, &record.value);
    }
}

template <typename T>
void ExpectEncodeFails(Codec<T> codec, T value) {
    for (bool aligned : {true, false}) {
        std::vector<unsigned char> ignored;
        EXPECT_FALSE(Encode(codec, &value, 8192, aligned, &ignored));
    }
}

// ---- Sample records beside their bytes ----

inline nfs_fh3 SampleHandle(uint32_t objectIdBytes = 9) {
    nfs_fh3 handle{};
    handle.nfh_len = 8 + objectIdBytes;
    handle.fsmType = 0x01020304;
    handle.shareId = 0x0a0b0c0d;
    for (uint32_t i = 0; i < objectIdBytes; ++i)
        handle.objectId[i] = static_cast<unsigned char>(0x80 + i);
    return handle;
}

inline Wire HandleWire(uint32_t objectIdBytes = 9) {
    std::string objectId;
    for (uint32_t i = 0; i < objectIdBytes; ++i) objectId.push_back(static_cast<char>(0x80 + i));
    return Wire().U32(8 + objectIdBytes).U32(0x01020304).U32(0x0a0b0c0d).Raw(objectId);
}

inline fattr3 SampleAttributes() {
    fattr3 a{};
    a.type = NF3DIR;
    a.mode = 0755;
    a.nlink = 3;
    a.uid = 1000;
    a.gid = 0xfffffffe;
    a.size = 0x0102030405060708;
    a.used = 0x1112131415161718;
    a.rdev = {0x21222324, 0x25262728};
    a.fsid = 0x3132333435363738;
    a.fileid = 0x4142434445464748;
    a.atime = {0x51525354, 0x55565758};
    a.mtime = {0x61626364, 0x65666768};
    a.ctime = {0x71727374, 0x75767778};
    return a;
}

inline Wire AttributesWire() {
    return Wire()
        .U32(2)
        .U32(0755)
        .U32(3)
        .U32(1000)
        .U32(0xfffffffe)
        .U64(0x0102030405060708)
        .U64(0x1112131415161718)
        .U32(0x21222324)
        .U32(0x25262728)
        .U64(0x3132333435363738)
        .U64(0x4142434445464748)
        .U32(0x51525354)
        .U32(0x55565758)
        .U32(0x61626364)
        .U32(0x65666768)
        .U32(0x71727374)
        .U32(0x75767778);
}

inline post_op_attr SamplePostOp() {
    return {TRUE, SampleAttributes()};
}

inline Wire PostOpWire() {
    return Wire().U32(1).Add(AttributesWire());
}

inline wcc_data SampleWcc() {
    wcc_data wcc{};
    wcc.before = {TRUE, {0x0807060504030201, {7, 8}, {9, 10}}};
    wcc.after = SamplePostOp();
    return wcc;
}

inline Wire WccWire() {
    return Wire().U32(1).U64(0x0807060504030201).U32(7).U32(8).U32(9).U32(10).Add(PostOpWire());
}

inline wcc_data NoWcc() {
    return wcc_data{};
}

inline Wire NoWccWire() {
    return Wire().U32(0).U32(0);
}

// Every attribute set, the times by client and by server.
inline sattr3 SampleSattr() {
    sattr3 s{};
    s.mode = {TRUE, 0640};
    s.uid = {TRUE, 11};
    s.gid = {TRUE, 12};
    s.size = {TRUE, 0x1122334455667788};
    s.atime = {SET_TO_CLIENT_TIME, {13, 14}};
    s.mtime = {SET_TO_SERVER_TIME, {0, 0}};
    return s;
}

inline Wire SattrWire() {
    return Wire()
        .U32(1)
        .U32(0640)
        .U32(1)
        .U32(11)
        .U32(1)
        .U32(12)
        .U32(1)
        .U64(0x1122334455667788)
        .U32(2)
        .U32(13)
        .U32(14)
        .U32(1);
}

inline Wire EmptySattrWire() {
    return Wire().U32(0).U32(0).U32(0).U32(0).U32(0).U32(0);
}

// For records that are only encoded: the codec does not write to a string that it encodes.
inline char* Text(const char* text) {
    return const_cast<char*>(text);
}

}  // namespace oxel::test
