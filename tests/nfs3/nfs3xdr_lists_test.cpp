// SPDX-License-Identifier: Apache-2.0
//
// The codec of READDIR's and READDIRPLUS's lists: any length, in any pieces of the stream's buffer.
#include <deque>
#include <string>

#include "nfs3/nfs3xdr.h"
#include "tests/nfs3/nfs3xdr_wire.h"

using namespace oxel::test;

namespace {

// A list as a handler builds it, beside its bytes. The nodes live as long as this does.
class Listing {
  public:
    void Add(const std::string& name) {
        names_.push_back(name);
        const uint64_t number = names_.size();
        entries_.emplace_back();
        Link(head_, entries_);
        entries_.back().fileid = 0x0100000000000000 + number;
        entries_.back().name = names_.back().data();
        entries_.back().cookie = 0x0200000000000000 + number;
        bytes_.U32(1)
            .U64(0x0100000000000000 + number)
            .Opaque(name)
            .U64(0x0200000000000000 + number);
    }
    dirlist3 head() const { return head_; }
    Wire bytes() const { return Wire(bytes_).U32(0); }

    template <typename Head, typename Entries>
    static void Link(Head& head, Entries& entries) {
        Head& link = entries.size() == 1 ? head : entries[entries.size() - 2].next;
        link = {TRUE, &entries.back()};
    }

  private:
    std::deque<std::string> names_;
    std::deque<entry3> entries_;
    dirlist3 head_{};
    Wire bytes_;
};

enum class With { Nothing, Attributes, Handle, Both };

class PlusListing {
  public:
    void Add(const std::string& name, With with, uint32_t objectIdBytes = 32) {
        names_.push_back(name);
        const uint64_t number = names_.size();
        entries_.emplace_back();
        Listing::Link(head_, entries_);
        entryplus3& entry = entries_.back();
        entry.fileid = 0x0100000000000000 + number;
        entry.name = names_.back().data();
        entry.cookie = 0x0200000000000000 + number;
        bytes_.U32(1).U64(entry.fileid).Opaque(name).U64(entry.cookie);
        if (with == With::Attributes || with == With::Both) {
            entry.name_attributes = SamplePostOp();
            bytes_.Add(PostOpWire());
        } else {
            bytes_.U32(0);
        }
        if (with == With::Handle || with == With::Both) {
            entry.name_handle = {TRUE, SampleHandle(objectIdBytes)};
            bytes_.U32(1).Add(HandleWire(objectIdBytes));
        } else {
            bytes_.U32(0);
        }
    }
    dirlistplus3 head() const { return head_; }
    Wire bytes() const { return Wire(bytes_).U32(0); }
    entryplus3& last() { return entries_.back(); }

  private:
    std::deque<std::string> names_;
    std::deque<entryplus3> entries_;
    dirlistplus3 head_{};
    Wire bytes_;
};

// Collects what a record stream sends.
int Collect(void* handle, void* buffer, int size) {
    static_cast<std::string*>(handle)->append(static_cast<char*>(buffer),
                                              static_cast<size_t>(size));
    return size;
}

int ReadNothing(void*, void*, int) {
    return -1;
}

// The record without its fragments' headers.
std::vector<unsigned char> Unframed(const std::string& stream, size_t* fragments) {
    std::vector<unsigned char> record;
    *fragments = 0;
    for (size_t at = 0; at + 4 <= stream.size();) {
        uint32_t header;
        memcpy(&header, stream.data() + at, 4);
        const size_t length = ntohl(header) & 0x7fffffff;
        record.insert(record.end(), stream.begin() + static_cast<long>(at + 4),
                      stream.begin() + static_cast<long>(at + 4 + length));
        at += 4 + length;
        ++*fragments;
    }
    return record;
}

template <typename T>
void ExpectEncodesThroughARecordStream(Codec<T> codec, T value, const Wire& wire) {
    std::string sent;
    XDR xdrs{};
    xdrrec_create(&xdrs, 4000, 4000, &sent, ReadNothing, Collect);
    xdrs.x_op = XDR_ENCODE;
    EXPECT_TRUE(codec(&xdrs, &value));
    EXPECT_TRUE(xdrrec_endofrecord(&xdrs, TRUE));
    xdr_destroy(&xdrs);
    size_t fragments;
    EXPECT_EQ(Hex(wire.Bytes()), Hex(Unframed(sent, &fragments)));
    EXPECT_GT(fragments, 1u) << "the entries should have met the end of a buffer";
}

}  // namespace

TEST(XdrReaddir, ReplyWithoutEntriesIsTheFlagFalseAndThenEof) {
    READDIR3resok resok{};
    resok.eof = TRUE;
    ExpectBothWays(xdr_READDIR3resok, resok, Wire().U32(0).U64(0).U32(0).U32(1));
    READDIRPLUS3resok plus{};
    plus.eof = TRUE;
    ExpectBothWays(xdr_READDIRPLUS3resok, plus, Wire().U32(0).U64(0).U32(0).U32(1));
}

TEST(XdrReaddir, EntriesStandInTheirOrder) {
    Listing list;
    for (const char* name : {".", "..", "abc", "abcd", "a longer name"}) list.Add(name);
    ExpectBothWays(xdr_dirlist3, list.head(), list.bytes());

    READDIR3res result{};
    result.resok.dir_attributes = SamplePostOp();
    result.resok.cookieverf = 0x0102030405060708;
    result.resok.reply = list.head();
    result.resok.eof = TRUE;
    Wire arm = PostOpWire().U64(0x0102030405060708).Add(list.bytes()).U32(1);
    ExpectBothWays(xdr_READDIR3res, result, Wire().U32(0).Add(arm));
    ExpectBothWays(xdr_READDIR3resok, result.resok, arm);
}

TEST(XdrReaddir, FailureHasTheDirectorysAttributes) {
    READDIR3res result{};
    result.status = NFS3ERR_NOTDIR;
    result.resfail.dir_attributes = SamplePostOp();
    ExpectBothWays(xdr_READDIR3res, result, Wire().U32(20).Add(PostOpWire()));
    ExpectBothWays(xdr_READDIR3resfail, READDIR3resfail{SamplePostOp()}, PostOpWire());
}

TEST(XdrReaddir, AnEntryIsCodedWithAllThatFollowIt) {
    Listing list;
    for (const char* name : {"one", "two"}) list.Add(name);
    const std::vector<unsigned char> all = list.bytes().Bytes();
    Wire withoutFirstFlag;
    for (size_t at = 4; at < all.size(); at += 4)
        withoutFirstFlag.U32(uint32_t{all[at]} << 24 | uint32_t{all[at + 1]} << 16 |
                             uint32_t{all[at + 2]} << 8 | all[at + 3]);
    ExpectBothWays(xdr_entry3, *list.head().entry, withoutFirstFlag);
}

TEST(XdrReaddir, AFlagWithoutAnEntryEndsTheList) {
    dirlist3 link{TRUE, nullptr};
    ExpectEncodes(xdr_dirlist3, &link, Wire().U32(0));
    dirlistplus3 plus{TRUE, nullptr};
    ExpectEncodes(xdr_dirlistplus3, &plus, Wire().U32(0));
}

TEST(XdrReaddir, AnEntryWithoutNameFailsTheEncode) {
    entry3 entry{};
    ExpectEncodeFails(xdr_dirlist3, dirlist3{TRUE, &entry});
    entryplus3 plus{};
    ExpectEncodeFails(xdr_dirlistplus3, dirlistplus3{TRUE, &plus});
}

TEST(XdrReaddir, ANameBeyond4096BytesFailsBothWays) {
    Listing list;
    list.Add(std::string(4096, 'n'));
    dirlist3 head = list.head();
    std::vector<unsigned char> bytes;
    EXPECT_TRUE(Encode(xdr_dirlist3, &head, list.bytes().Size(), true, &bytes));
    EXPECT_EQ(Hex(list.bytes().Bytes()), Hex(bytes));
    Listing tooLong;
    tooLong.Add(std::string(4097, 'n'));
    ExpectEncodeFails(xdr_dirlist3, tooLong.head());
    ExpectDecodeFails(xdr_dirlist3, tooLong.bytes());
}

TEST(XdrReaddir, AHundredThousandEntriesDoNotDeepenTheStack) {
    Listing list;
    for (int i = 0; i < 100000; ++i) list.Add("entry" + std::to_string(i));
    dirlist3 head = list.head();
    const std::vector<unsigned char> expected = list.bytes().Bytes();
    std::vector<unsigned char> bytes;
    ASSERT_TRUE(Encode(xdr_dirlist3, &head, expected.size(), true, &bytes));
    EXPECT_TRUE(expected == bytes);
    dirlist3 decoded{};
    ASSERT_TRUE(Decode(xdr_dirlist3, bytes, bytes.size(), true, &decoded));
    size_t count = 0;
    for (entry3* entry = decoded.entry; entry != nullptr; entry = entry->next.entry) ++count;
    EXPECT_EQ(100000u, count);
    Free(xdr_dirlist3, &decoded);
    EXPECT_EQ(nullptr, decoded.entry);
}

TEST(XdrReaddir, EntriesGoThroughTheEndOfARecordStreamsBuffer) {
    Listing list;
    for (int i = 0; i < 500; ++i) list.Add(std::string(static_cast<size_t>(i % 97), 'x'));
    ExpectEncodesThroughARecordStream(xdr_dirlist3, list.head(), list.bytes());
}

TEST(XdrReaddirplus, EntriesHaveAttributesAndHandleOrNot) {
    PlusListing list;
    list.Add(".", With::Both);
    list.Add("..", With::Attributes);
    list.Add("abc", With::Handle);
    list.Add("abcd", With::Nothing);
    list.Add("abcde", With::Both, 0);
    list.Add("abcdef", With::Both, 56);
    list.Add("abcdefg", With::Both, 33);
    ExpectBothWays(xdr_dirlistplus3, list.head(), list.bytes());

    READDIRPLUS3res result{};
    result.resok.dir_attributes = SamplePostOp();
    result.resok.reply = list.head();
    Wire arm = PostOpWire().U64(0).Add(list.bytes()).U32(0);
    ExpectBothWays(xdr_READDIRPLUS3res, result, Wire().U32(0).Add(arm));
    ExpectBothWays(xdr_READDIRPLUS3resok, result.resok, arm);
}

TEST(XdrReaddirplus, FailureHasTheDirectorysAttributes) {
    READDIRPLUS3res result{};
    result.status = NFS3ERR_STALE;
    ExpectBothWays(xdr_READDIRPLUS3res, result, Wire().U32(70).U32(0));
    ExpectBothWays(xdr_READDIRPLUS3resfail, READDIRPLUS3resfail{SamplePostOp()}, PostOpWire());
}

TEST(XdrReaddirplus, AnEntryIsCodedWithAllThatFollowIt) {
    PlusListing list;
    list.Add("only", With::Nothing);
    ExpectBothWays(
        xdr_entryplus3, *list.head().entry,
        Wire().U64(0x0100000000000001).Opaque("only").U64(0x0200000000000001).U32(0).U32(0).U32(0));
}

TEST(XdrReaddirplus, AnEntryWithoutHandleBytesHasAnEmptyOne) {
    PlusListing list;
    list.Add("odd", With::Nothing);
    list.last().name_handle = {TRUE, {}};
    dirlistplus3 head = list.head();
    ExpectEncodes(xdr_dirlistplus3, &head,
                  Wire()
                      .U32(1)
                      .U64(0x0100000000000001)
                      .Opaque("odd")
                      .U64(0x0200000000000001)
                      .U32(0)
                      .U32(1)
                      .U32(0)
                      .U32(0));
}

TEST(XdrReaddirplus, AHandleOfABadLengthFailsTheEncode) {
    PlusListing list;
    list.Add("odd", With::Handle);
    list.last().name_handle.handle.nfh_len = 65;
    ExpectEncodeFails(xdr_dirlistplus3, list.head());
}

TEST(XdrReaddirplus, EntriesGoThroughTheEndOfARecordStreamsBuffer) {
    PlusListing list;
    for (uint32_t i = 0; i < 200; ++i)
        list.Add(std::string(i % 61, 'x'), static_cast<With>(i % 4), i % 57);
    ExpectEncodesThroughARecordStream(xdr_dirlistplus3, list.head(), list.bytes());
}
