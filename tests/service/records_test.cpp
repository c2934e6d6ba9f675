// SPDX-License-Identifier: Apache-2.0
//
// Records cut out of a connection's bytes: however a stream is split on its way, the same records
// come out of it; and nobody can make the reader take more than its bounds say.
#include "bin/oxelService_records.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "record_reading.h"

using oxel::test::gBuffersMade;
using oxel::test::gMemoryIsShort;
using oxel::test::InFragments;
using oxel::test::kBounds;
using oxel::test::kLast;
using oxel::test::kShort;
using oxel::test::Mark;
using oxel::test::Payload;
using oxel::test::Pieces;
using oxel::test::Reading;
using oxel::test::Whole;
using Filled = RecordReader::Filled;
using Found = RecordReader::Found;

namespace {

// The stream, cut at these positions, gives these records.
void ExpectRecords(const RecordBounds& bounds, const std::string& stream,
                   const std::vector<size_t>& cuts, const std::vector<std::string>& records,
                   const std::string& what) {
    Reading reading(bounds);
    size_t at = 0;
    for (const size_t cut : cuts) {
        reading.SendAndTake(stream.substr(at, cut - at));
        reading.reader.Rest();
        at = cut;
    }
    reading.SendAndTake(stream.substr(at));
    ASSERT_TRUE(reading.records == records) << what << ": " << reading.records.size() << " records";
    EXPECT_FALSE(reading.reader.Begun()) << what;
    EXPECT_EQ(reading.reader.Number(), records.size() + 1) << what;
}

struct Sequence {
    std::string stream;
    std::vector<std::string> records;
    void Add(const std::vector<std::string>& fragments) {
        stream += InFragments(fragments);
        records.emplace_back();
        for (const std::string& fragment : fragments) records.back() += fragment;
    }
};

// Short records of every shape.
Sequence AllShapes() {
    Sequence sequence;
    sequence.Add({Payload(8)});
    sequence.Add({""});
    sequence.Add({Payload(5, 2), Payload(3, 3)});
    sequence.Add({"", Payload(4, 4), "", "", Payload(9, 5), ""});
    sequence.Add({"", ""});
    sequence.Add(Pieces(Payload(12, 6), 1));
    sequence.Add({Payload(44, 7)});
    return sequence;
}

}  // namespace

TEST(Records, OneOfOneFragmentIsFound) {
    Reading reading;
    EXPECT_EQ(reading.reader.Look(), Found::kPartial) << "before anything was read";
    reading.SendAndTake(Whole(Payload(100)));
    EXPECT_EQ(reading.records, std::vector<std::string>{Payload(100)});
}

TEST(Records, FragmentsAreJoined) {
    Reading reading;
    reading.SendAndTake(InFragments({Payload(10), Payload(1, 2), Payload(300, 3)}));
    EXPECT_EQ(reading.records,
              std::vector<std::string>{Payload(10) + Payload(1, 2) + Payload(300, 3)});
}

TEST(Records, FragmentsOfOneByteAreJoined) {
    Reading reading;
    reading.SendAndTake(InFragments(Pieces(Payload(1000), 1)));
    EXPECT_EQ(reading.records, std::vector<std::string>{Payload(1000)});
}

TEST(Records, OneIsNotThereBeforeItsLastByteIs) {
    Reading reading;
    const std::string bytes = Whole(Payload(100));
    reading.SendAndTake(bytes.substr(0, bytes.size() - 1));
    EXPECT_TRUE(reading.records.empty());
    EXPECT_TRUE(reading.reader.Begun());
    reading.SendAndTake(bytes.substr(bytes.size() - 1));
    EXPECT_EQ(reading.records.size(), 1u);
    EXPECT_FALSE(reading.reader.Begun());
}

TEST(Records, AnEmptyOneIsARecord) {
    Reading reading;
    reading.SendAndTake(Whole("") + Whole("") + Whole("after"));
    EXPECT_EQ(reading.records, (std::vector<std::string>{"", "", "after"}));
}

TEST(Records, OneStaysUntilItIsConsumed) {
    Reading reading;
    reading.Send(Whole("first") + Whole("second"));
    ASSERT_EQ(reading.reader.Look(), Found::kPartial);
    ASSERT_EQ(reading.reader.Fill(reading.server.Get()), Filled::kAll);
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(reading.reader.Look(), Found::kRecord);
        EXPECT_EQ(std::string(reading.reader.Record(), reading.reader.RecordBytes()), "first");
        reading.reader.Rest();
    }
    EXPECT_EQ(reading.reader.Number(), 1u);
    reading.reader.Consume();
    EXPECT_EQ(reading.reader.Number(), 2u);
    ASSERT_EQ(reading.reader.Look(), Found::kRecord);
    EXPECT_EQ(std::string(reading.reader.Record(), reading.reader.RecordBytes()), "second");
}

TEST(Records, AreTheSameWhereverTheStreamIsSplit) {
    const Sequence sequence = AllShapes();
    for (size_t cut = 0; cut <= sequence.stream.size(); ++cut)
        ExpectRecords(kShort, sequence.stream, {cut}, sequence.records,
                      "cut at " + std::to_string(cut));
}

TEST(Records, AreTheSameWhereverTheStreamIsSplitTwice) {
    const Sequence sequence = AllShapes();
    for (size_t first = 0; first <= sequence.stream.size(); first += 5)
        for (size_t second = first; second <= sequence.stream.size(); second += 9)
            ExpectRecords(kShort, sequence.stream, {first, second}, sequence.records,
                          "cut at " + std::to_string(first) + " and " + std::to_string(second));
}

TEST(Records, AreTheSameByteByByte) {
    const Sequence sequence = AllShapes();
    std::vector<size_t> cuts;
    for (size_t cut = 1; cut < sequence.stream.size(); ++cut) cuts.push_back(cut);
    ExpectRecords(kShort, sequence.stream, cuts, sequence.records, "byte by byte");
}

TEST(Records, LargeOnesAreTheSameAroundEachFragmentsBegin) {
    Sequence sequence;
    std::vector<size_t> begins;
    const auto add = [&](const std::vector<std::string>& fragments) {
        begins.push_back(sequence.stream.size());
        sequence.Add(fragments);
    };
    add({Payload(40, 1)});
    add({Payload(30000, 2)});
    add({Payload(13333, 3), Payload(1, 4), Payload(20001, 5)});
    begins.push_back(begins.back() + 4 + 13333);
    begins.push_back(begins.back() + 4 + 1);
    add({Payload(40, 6)});
    for (const size_t begin : begins)
        for (size_t cut = begin < 4 ? 0 : begin - 4; cut <= begin + 5; ++cut)
            ExpectRecords(kBounds, sequence.stream, {cut}, sequence.records,
                          "cut at " + std::to_string(cut));
}

// Any stream, any split: what was sent comes out.

TEST(Records, OfRandomStreamsAreTheSameInRandomPieces) {
    constexpr unsigned kSeed = 20260514;
    std::mt19937 random(kSeed);
    for (int round = 0; round < 100; ++round) {
        Sequence sequence;
        const size_t count = 1 + random() % 6;
        for (size_t i = 0; i < count; ++i) {
            const size_t size = random() % (random() % 4 == 0 ? 20000 : 200);
            std::vector<std::string> fragments;
            const std::string payload = Payload(size, random());
            for (size_t at = 0; at < size;) {
                const size_t bytes = std::min(size - at, random() % (size / 3 + 2));
                fragments.push_back(payload.substr(at, bytes));
                at += bytes;
            }
            if (fragments.empty()) fragments.emplace_back();
            sequence.Add(fragments);
        }
        std::vector<size_t> cuts;
        for (size_t at = 0;;) {
            at += 1 + random() % (sequence.stream.size() / 4 + 8);
            if (at >= sequence.stream.size()) break;
            cuts.push_back(at);
        }
        ExpectRecords(kBounds, sequence.stream, cuts, sequence.records,
                      "round " + std::to_string(round) + " of seed " + std::to_string(kSeed));
        if (HasFatalFailure()) return;
    }
}

TEST(Records, OfLargestSizeFollowEachOtherThroughOneBuffer) {
    Reading reading;
    Sequence sequence;
    for (unsigned i = 0; i < 4; ++i) sequence.Add({Payload(kBounds.bytes, i)});
    sequence.Add(Pieces(Payload(kBounds.bytes, 9), kBounds.bytes / kBounds.fragments));
    sequence.Add({Payload(40, 10)});
    std::mt19937 random(7);
    gBuffersMade = 0;
    for (size_t at = 0; at < sequence.stream.size();) {
        const size_t bytes = std::min<size_t>(1 + random() % 100000, sequence.stream.size() - at);
        reading.SendAndTake(sequence.stream.substr(at, bytes));
        at += bytes;
    }
    EXPECT_TRUE(reading.records == sequence.records);
    EXPECT_EQ(gBuffersMade, 1u);
}

TEST(Records, ALargeOneComesAfterSmallOnes) {
    Reading reading;
    Sequence sequence;
    for (unsigned i = 0; i < 300; ++i) sequence.Add({Payload(100, i)});
    sequence.Add({Payload(kBounds.bytes, 1000)});
    for (unsigned i = 0; i < 300; ++i) sequence.Add({Payload(100, i)});
    reading.SendAndTake(sequence.stream);
    EXPECT_TRUE(reading.records == sequence.records);
}

TEST(Records, MoreThanIsAskedForAtOnceIsToldAndReadOn) {
    Reading reading;
    Sequence sequence;
    for (unsigned i = 0; i < 1000; ++i) sequence.Add({Payload(100, i)});
    reading.Send(sequence.stream);
    ASSERT_EQ(reading.reader.Look(), Found::kPartial);
    EXPECT_EQ(reading.reader.Fill(reading.server.Get()), Filled::kMore);
    EXPECT_TRUE(reading.Take());
    EXPECT_EQ(reading.filled, Filled::kAll);
    EXPECT_TRUE(reading.records == sequence.records);
}

TEST(Records, ALargeOneIsReadInTwoStepsAndTheNextOfItsKindInOne) {
    Reading reading;
    reading.SendAndTake(Whole(Payload(200000)));
    EXPECT_EQ(reading.fills, 2u);
    reading.fills = 0;
    reading.SendAndTake(Whole(Payload(200000, 2)));
    EXPECT_EQ(reading.fills, 1u);
    EXPECT_EQ(reading.records.size(), 2u);
}

// The library decodes in whole words where it finds them aligned.

TEST(Records, PayloadsAreAlignedWhenRecordsAreWholeWords) {
    Reading reading;
    std::string stream;
    for (unsigned i = 0; i < 60; ++i) stream += Whole(Payload(4 * (i % 7) * (i % 7) * (i % 7), i));
    stream += InFragments({Payload(20), Payload(7), Payload(1)}) + Whole(Payload(120000));
    for (size_t at = 0; at < stream.size(); at += 1001)
        reading.SendAndTake(stream.substr(at, 1001));
    EXPECT_EQ(reading.records.size(), 62u);
    EXPECT_EQ(reading.misaligned, 0u);
}

TEST(Records, OfTheLargestSizeIsTakenAndOneByteMoreIsTooLong) {
    {
        Reading reading;
        reading.SendAndTake(Whole(Payload(kBounds.bytes)));
        EXPECT_EQ(reading.records.size(), 1u);
    }
    Reading reading;
    reading.Send(Mark(kLast | (kBounds.bytes + 1)));
    EXPECT_FALSE(reading.Take());
    EXPECT_EQ(reading.last, Found::kTooLong);
    EXPECT_EQ(reading.reader.BytesExpected(), kBounds.bytes + 1);
}

TEST(Records, MarksOfTheLargestNumberAreTooLong) {
    for (const uint32_t mark : {0x7fffffffu, 0xffffffffu, 0x40000000u, 0xfffffffcu}) {
        Reading reading;
        reading.Send(Whole("before") + Mark(mark) + Payload(1000));
        EXPECT_FALSE(reading.Take());
        EXPECT_EQ(reading.last, Found::kTooLong) << mark;
        EXPECT_EQ(reading.records, std::vector<std::string>{"before"});
        EXPECT_EQ(reading.reader.Look(), Found::kTooLong) << "it is final";
    }
}

TEST(Records, FragmentsThatAreTooLongTogetherAre) {
    for (const uint32_t more : {2u, 0x7fffffffu, 0x80000002u, 0xffffffffu}) {
        Reading reading;
        reading.Send(Mark(kBounds.bytes - 1) + Payload(kBounds.bytes - 1) + Mark(more));
        EXPECT_FALSE(reading.Take());
        EXPECT_EQ(reading.last, Found::kTooLong) << more;
        EXPECT_TRUE(reading.records.empty());
    }
    Reading reading;
    reading.SendAndTake(InFragments({Payload(kBounds.bytes - 1), Payload(1, 2), ""}));
    EXPECT_EQ(reading.records.size(), 1u);
}

TEST(Records, MayHaveAsManyFragmentsAsTheBoundAndNoMore) {
    constexpr RecordBounds kFew{1000, 5};
    for (const std::string& fragment : {std::string(), std::string("1234")}) {
        {
            Reading reading(kFew);
            reading.SendAndTake(InFragments(std::vector<std::string>(5, fragment)) + Whole("next"));
            EXPECT_EQ(reading.records.size(), 2u);
        }
        // The client is found out as soon as it has sent the last one that it may.
        Reading reading(kFew);
        for (unsigned i = 0; i < 4; ++i) {
            reading.SendAndTake(Mark(static_cast<uint32_t>(fragment.size())) + fragment);
            EXPECT_EQ(reading.last, Found::kPartial);
        }
        reading.Send(Mark(static_cast<uint32_t>(fragment.size())) + fragment);
        EXPECT_FALSE(reading.Take());
        EXPECT_EQ(reading.last, Found::kTooManyFragments);
        EXPECT_EQ(reading.reader.Look(), Found::kTooManyFragments) << "it is final";
    }
}

TEST(Records, WithoutEndOfEmptyFragmentsAreFoundOutWithinTheFirstBytes) {
    Reading reading;
    reading.Send(std::string(4 * (kBounds.fragments + 10), '\0'));
    EXPECT_FALSE(reading.Take());
    EXPECT_EQ(reading.last, Found::kTooManyFragments);
}

TEST(Records, EndOfTheStreamIsToldWhereverItComes) {
    const std::string record = InFragments({Payload(30), Payload(20, 2)});
    for (size_t cut = 0; cut <= record.size(); ++cut) {
        Reading reading;
        reading.SendAndTake(record.substr(0, cut));
        reading.client.Reset();
        EXPECT_FALSE(reading.Take());
        EXPECT_EQ(reading.filled, Filled::kEnd) << cut;
        EXPECT_EQ(reading.records.size(), cut == record.size() ? 1u : 0u);
        EXPECT_EQ(reading.reader.Begun(), cut != 0 && cut != record.size());
    }
}

TEST(Records, ThatCameBeforeTheEndAreThere) {
    Reading reading;
    reading.Send(Whole("one") + Whole("two") + Mark(kLast | 100) + "half");
    reading.client.Reset();
    EXPECT_TRUE(reading.Take());
    EXPECT_EQ(reading.records, (std::vector<std::string>{"one", "two"}));
    EXPECT_FALSE(reading.Take());
    EXPECT_EQ(reading.filled, Filled::kEnd);
}

TEST(Records, ADescriptorThatIsNoSocketCountsAsTheEnd) {
    Reading reading;
    ASSERT_EQ(reading.reader.Look(), Found::kPartial);
    EXPECT_EQ(reading.reader.Fill(-1), Filled::kEnd);
}

TEST(Records, NothingToReadIsNoEnd) {
    Reading reading;
    ASSERT_EQ(reading.reader.Look(), Found::kPartial);
    EXPECT_EQ(reading.reader.Fill(reading.server.Get()), Filled::kAll);
    EXPECT_FALSE(reading.reader.Begun());
}

TEST(Records, UnderWayTellWhatTheyWillTake) {
    Reading reading;
    EXPECT_EQ(reading.reader.BytesExpected(), 0u);
    reading.SendAndTake(Mark(70000) + Payload(10));
    EXPECT_EQ(reading.reader.BytesExpected(), 70000u);
    reading.SendAndTake(Payload(69990));
    EXPECT_EQ(reading.reader.BytesExpected(), 70000u);
    reading.SendAndTake(Mark(kLast | 5000));
    EXPECT_EQ(reading.reader.BytesExpected(), 75000u);
    reading.SendAndTake(Payload(5000));
    EXPECT_EQ(reading.records.size(), 1u);
    EXPECT_EQ(reading.reader.BytesExpected(), 0u);
}

TEST(Records, AreReadInSmallStepsWhereThatIsWanted) {
    Reading reading;
    reading.SendAndTake(Whole(Payload(100000)));
    reading.Send(Whole(Payload(100000, 2)));
    ASSERT_EQ(reading.reader.Look(), Found::kPartial);
    EXPECT_EQ(reading.reader.Fill(reading.server.Get(), RecordReader::Guess::kSmall),
              Filled::kMore);
    EXPECT_EQ(reading.reader.Look(), Found::kPartial) << "its mark is known now";
    EXPECT_TRUE(reading.Take());
    EXPECT_EQ(reading.records.size(), 2u);
}

TEST(Records, WithoutMemoryNothingIsReadAndNothingIsLost) {
    Reading reading;
    reading.Send(Whole("patient"));
    ASSERT_EQ(reading.reader.Look(), Found::kPartial);
    gMemoryIsShort = true;
    EXPECT_EQ(reading.reader.Fill(reading.server.Get()), Filled::kNoMemory);
    EXPECT_FALSE(reading.reader.Begun());
    gMemoryIsShort = false;
    EXPECT_TRUE(reading.Take());
    EXPECT_EQ(reading.records, std::vector<std::string>{"patient"});
}
