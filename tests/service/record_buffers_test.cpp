// SPDX-License-Identifier: Apache-2.0
//
// The buffers that records are read into: who has one, for how long, and what memory it takes.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdlib>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "bin/oxelService_records.h"
#include "record_reading.h"

using oxel::UniqueFd;
using oxel::test::gBuffersMade;
using oxel::test::gMemoryIsShort;
using oxel::test::InFragments;
using oxel::test::kBounds;
using oxel::test::kLast;
using oxel::test::Mark;
using oxel::test::Payload;
using oxel::test::Reading;
using oxel::test::Whole;
using Filled = RecordReader::Filled;
using Found = RecordReader::Found;

void* operator new[](size_t bytes, const std::nothrow_t&) noexcept {
    ++gBuffersMade;
    return gMemoryIsShort ? nullptr : malloc(bytes);
}
void* operator new[](size_t bytes) {
    return malloc(bytes);
}
void operator delete[](void* memory) noexcept {
    free(memory);
}
void operator delete[](void* memory, size_t) noexcept {
    free(memory);
}

TEST(RecordBuffers, TellWhatTheyTakeInMemory) {
    Reading reading;
    EXPECT_EQ(reading.reader.BytesHeld(), 0u);
    reading.SendAndTake(Whole("small") + Mark(kLast | 10) + "a");
    EXPECT_EQ(reading.reader.BytesHeld(), 14u);
    reading.SendAndTake("bcdefghij" + Whole(Payload(100000)) + "\x80");
    EXPECT_GT(reading.reader.BytesHeld(), 100000u) << "though there is next to nothing in it now";
    reading.reader.Discard();
    EXPECT_EQ(reading.reader.BytesHeld(), 0u);
    // The next one takes the same memory.
    reading.SendAndTake("a");
    EXPECT_GT(reading.reader.BytesHeld(), 100000u);
}

TEST(RecordBuffers, AreGivenBackWhenThereIsNothingInThem) {
    Reading reading;
    gBuffersMade = 0;
    reading.SendAndTake(Whole("one"));
    reading.reader.Rest();
    const BufferPool::Buffer other = reading.pool.Take();
    EXPECT_EQ(gBuffersMade, 1u) << "it is the reader's";
    reading.SendAndTake(Whole("two"));
    EXPECT_EQ(gBuffersMade, 2u);
    EXPECT_EQ(reading.records, (std::vector<std::string>{"one", "two"}));
}

TEST(RecordBuffers, AreKeptWhileARecordIsUnderWay) {
    const std::vector<std::string> beginnings = {
        std::string(1, '\0'),             // of a mark
        Mark(kLast | 4),                  // a mark
        Mark(kLast | 4) + "a",            // and some
        Mark(4) + "abcd",                 // a fragment
        Mark(0),                          // even an empty one
        Whole("done") + Mark(0) + "\x80"  // after another record
    };
    for (const std::string& beginning : beginnings) {
        Reading reading;
        reading.SendAndTake(beginning);
        EXPECT_TRUE(reading.reader.Begun());
        gBuffersMade = 0;
        reading.reader.Rest();
        const BufferPool::Buffer other = reading.pool.Take();
        EXPECT_EQ(gBuffersMade, 1u) << "the reader's was given away";
    }
}

TEST(RecordBuffers, AreChangedForSmallOnesWhereLittleIsInThem) {
    const std::string call = Whole(Payload(400, 5));
    const std::string fragments = InFragments({Payload(30, 6), Payload(5, 7), Payload(9, 8)});
    const std::string large = Payload(40000), larger = Payload(60000, 2);
    for (const std::string& next : {call, fragments}) {
        for (size_t cut = 1; cut <= next.size(); cut += cut < 60 ? 1 : 43) {
            Reading reading;
            reading.SendAndTake(Whole(large));
            // The next one is whole by the last cut, and is looked at before it is moved.
            reading.Send(next.substr(0, cut));
            ASSERT_EQ(reading.reader.Look(), Found::kPartial);
            ASSERT_EQ(reading.reader.Fill(reading.server.Get()), Filled::kAll);
            (void)reading.reader.Look();
            EXPECT_GT(reading.reader.BytesHeld(), large.size());
            reading.reader.Shrink();
            EXPECT_LE(reading.reader.BytesHeld(), next.size());
            reading.SendAndTake(next.substr(cut) + Whole(larger));
            ASSERT_EQ(reading.records.size(), 3u) << cut;
            EXPECT_EQ(reading.records[1], next == call
                                              ? Payload(400, 5)
                                              : Payload(30, 6) + Payload(5, 7) + Payload(9, 8));
            EXPECT_TRUE(reading.records[2] == larger);
        }
    }
}

TEST(RecordBuffers, AreNotChangedWhereThereIsMoreInThemOrNoMemory) {
    Reading reading;
    reading.reader.Shrink();
    reading.SendAndTake(Whole(Payload(100000)) + Mark(kLast | 9000) + Payload(8000));
    gBuffersMade = 0;
    reading.reader.Shrink();
    EXPECT_EQ(gBuffersMade, 0u);
    reading.SendAndTake(Payload(1000) + Mark(kLast | 4) + "ab");
    gMemoryIsShort = true;
    reading.reader.Shrink();
    gMemoryIsShort = false;
    reading.SendAndTake("cd");
    EXPECT_EQ(reading.records.size(), 3u);
    EXPECT_EQ(reading.records.back(), "abcd");
}

TEST(RecordBuffers, AreGivenBackWhateverIsInThemWhenNothingMoreIsRead) {
    for (const std::string& bytes :
         {Mark(kLast | 100) + "half", Mark(50) + Payload(50) + Mark(kLast), Whole("unread"),
          std::string("\1")}) {
        Reading reading;
        reading.Send(bytes);
        ASSERT_EQ(reading.reader.Look(), Found::kPartial);
        ASSERT_EQ(reading.reader.Fill(reading.server.Get()), Filled::kAll);
        (void)reading.reader.Look();
        gBuffersMade = 0;
        reading.reader.Discard();
        EXPECT_FALSE(reading.reader.Begun());
        EXPECT_EQ(reading.reader.BytesExpected(), 0u);
        const BufferPool::Buffer other = reading.pool.Take();
        EXPECT_EQ(gBuffersMade, 0u);
        reading.reader.Discard();
    }
}

TEST(RecordBuffers, AreGivenBackByAReaderThatStops) {
    BufferPool pool(kBounds.bytes);
    gBuffersMade = 0;
    for (int i = 0; i < 10; ++i) {
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        const UniqueFd client(ends[0]), server(ends[1]);
        ASSERT_EQ(send(client.Get(), "half", 4, 0), 4);
        RecordReader reader(kBounds, pool);
        ASSERT_EQ(reader.Look(), Found::kPartial);
        ASSERT_EQ(reader.Fill(server.Get()), Filled::kAll);
        reader.Discard();
    }
    EXPECT_EQ(gBuffersMade, 1u);
}

TEST(RecordBuffers, AreNotNeededToFindOutThatThereIsNothing) {
    BufferPool pool(kBounds.bytes);
    RecordReader reader(kBounds, pool);
    gBuffersMade = 0;
    EXPECT_EQ(reader.Look(), Found::kPartial);
    reader.Rest();
    EXPECT_FALSE(reader.Begun());
    EXPECT_EQ(gBuffersMade, 0u);
}

TEST(RecordBuffers, OfFourMebibytesAreKeptAtMostButOneInAnyCase) {
    for (const size_t recordBytes :
         {size_t{9000}, kBounds.bytes, size_t{3} << 20, size_t{17} << 20}) {
        BufferPool pool(recordBytes);
        const size_t kept = std::max<size_t>(1, (4 << 20) / pool.BufferBytes());
        std::vector<BufferPool::Buffer> buffers;
        for (size_t i = 0; i < kept + 20; ++i) buffers.push_back(pool.Take());
        for (BufferPool::Buffer& buffer : buffers) pool.Give(std::move(buffer));
        gBuffersMade = 0;
        for (BufferPool::Buffer& buffer : buffers) buffer = pool.Take();
        EXPECT_EQ(gBuffersMade, 20u) << recordBytes;
    }
}
