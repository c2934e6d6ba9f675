// SPDX-License-Identifier: Apache-2.0
//
// Lines, continuation, comments, quotes and escapes of the exports file.
#include "backend/exports_words.h"

#include <gtest/gtest.h>

#include <random>

namespace oxel {
namespace {

struct Read {
    std::vector<std::vector<std::string>> lines;  // words
    std::vector<int> numbers;
    std::vector<std::string> errors;  // "line: reason"
};

Read ReadAll(const std::string& text) {
    Read read;
    ExportsLineReader reader(text);
    ExportsLine line;
    while (reader.Next(&line)) {
        std::vector<std::string> words;
        for (const ExportsWord& word : line.words) words.push_back(word.text());
        read.lines.push_back(words);
        read.numbers.push_back(line.line);
        for (const auto& [number, reason] : line.errors)
            read.errors.push_back(std::to_string(number) + ": " + reason);
    }
    return read;
}

using Lines = std::vector<std::vector<std::string>>;

TEST(ExportsWords, BlankLinesAndCommentsAreSkipped) {
    Read read = ReadAll("\n  \t\n# all of it\n/a b # rest\n/c#d\n   # indented");
    EXPECT_EQ(read.lines, (Lines{{"/a", "b"}, {"/c"}}));
    EXPECT_EQ(read.numbers, (std::vector<int>{4, 5}));
    EXPECT_TRUE(read.errors.empty());
}

TEST(ExportsWords, NoTextHasNoLines) {
    EXPECT_TRUE(ReadAll("").lines.empty());
    EXPECT_TRUE(ReadAll("\\").lines.empty());
    EXPECT_TRUE(ReadAll("\\\n").lines.empty());
    EXPECT_TRUE(ReadAll("#").lines.empty());
}

TEST(ExportsWords, ABackslashAtTheEndContinuesTheLine) {
    EXPECT_EQ(ReadAll("/a b \\\n   c\\\nd\n/e").lines, (Lines{{"/a", "b", "c", "d"}, {"/e"}}));
    EXPECT_EQ(ReadAll("/a b \\\r\n   c\r\n").lines, (Lines{{"/a", "b", "c"}}));
    EXPECT_EQ(ReadAll("/a \\").lines, (Lines{{"/a"}}));
    EXPECT_EQ(ReadAll("\\\n/a").numbers, (std::vector<int>{2}));
}

TEST(ExportsWords, ACommentIsContinuedToo) {
    // Commenting out the first line of a continued share takes all of it away.
    EXPECT_EQ(ReadAll("# /a 10.0.0.1 \\\n   10.0.0.2\n/b").lines, (Lines{{"/b"}}));
}

TEST(ExportsWords, QuotesKeepBlanksAndHashes) {
    EXPECT_EQ(ReadAll("\"/my data#1\" x").lines, (Lines{{"/my data#1", "x"}}));
    EXPECT_EQ(ReadAll("-dir=\"/my data\",id=1").lines, (Lines{{"-dir=/my data,id=1"}}));
    EXPECT_EQ(ReadAll("\"\" x").lines, (Lines{{"", "x"}}));
}

TEST(ExportsWords, OctalEscapesWorkInsideAndOutsideQuotes) {
    EXPECT_EQ(ReadAll("\"/a\\040b\"").lines, (Lines{{"/a b"}}));
    EXPECT_EQ(ReadAll("/a\\040b\\134\\377\\043c").lines, (Lines{{"/a b\\\377#c"}}));
}

TEST(ExportsWords, WhatCameFromQuotesAndEscapesSeparatesNothing) {
    std::string text = "a,\"b,c\"\\054d,e";
    ExportsLineReader reader(text);
    ExportsLine line;
    ASSERT_TRUE(reader.Next(&line));
    ASSERT_EQ(line.words.size(), 1u);
    std::vector<ExportsWord> parts = line.words[0].Split(',');
    ASSERT_EQ(parts.size(), 3u);
    EXPECT_EQ(parts[1].text(), "b,c,d");
    EXPECT_FALSE(parts[1].Is(1, ','));
    EXPECT_TRUE(line.words[0].Is(1, ','));
}

TEST(ExportsWords, WrongEscapesQuotesAndControlCharactersAreErrors) {
    EXPECT_EQ(ReadAll("/ok\n/a\\b\n").errors,
              (std::vector<std::string>{"2: a backslash needs three octal digits after it; a "
                                        "backslash itself is written \\134"}));
    EXPECT_EQ(ReadAll("/a\\04").errors.size(), 1u);
    EXPECT_EQ(ReadAll("/a\\089").errors.size(), 1u);
    EXPECT_EQ(
        ReadAll("/a\\000").errors,
        (std::vector<std::string>{"1: the escape '\\000' names no byte from \\001 to \\377"}));
    EXPECT_EQ(ReadAll("/a\\400").errors.size(), 1u);
    EXPECT_EQ(ReadAll("\"/a\n/b").errors,
              (std::vector<std::string>{"1: the quotes are not closed on their line"}));
    EXPECT_EQ(ReadAll("\"/a \\\n b\"").errors.size(), 1u);
    EXPECT_EQ(ReadAll(std::string("/a\0b", 4)).errors.size(), 1u);
    EXPECT_EQ(ReadAll("/a\001b").errors.size(), 1u);
}

TEST(ExportsWords, AnErrorEndsItsOwnLineOnly) {
    Read read = ReadAll("/a\\b \\\n more\n/c d");
    EXPECT_EQ(read.lines.back(), (std::vector<std::string>{"/c", "d"}));
    EXPECT_EQ(read.numbers.back(), 3);
    EXPECT_EQ(read.errors.size(), 1u);
}

TEST(ExportsWords, ALineHasABound) {
    std::string fits(ExportsLineReader::kLineBytesMax, 'a');
    EXPECT_TRUE(ReadAll(fits + "\n/b").errors.empty());
    Read read = ReadAll(fits + "a\n/b");
    EXPECT_EQ(read.errors.size(), 1u);
    EXPECT_EQ(read.lines.back(), (std::vector<std::string>{"/b"}));
    EXPECT_EQ(read.numbers.back(), 2);
}

TEST(ExportsWords, DecimalNumbersAreStrict) {
    uint32_t value = 99;
    for (const char* text :
         {"", "-1", "+1", " 1", "1 ", "0x10", "1e3", "4294967296", "99999999999999999999", "1a"})
        EXPECT_FALSE(ParseDecimal(text, UINT32_MAX, &value)) << text;
    EXPECT_EQ(value, 99u);
    EXPECT_TRUE(ParseDecimal("4294967295", UINT32_MAX, &value));
    EXPECT_EQ(value, UINT32_MAX);
    EXPECT_TRUE(ParseDecimal("0", 0, &value));
    EXPECT_FALSE(ParseDecimal("129", 128, &value));
}

TEST(ExportsWords, QuotedErrorTextIsShortAndWithoutControlCharacters) {
    EXPECT_EQ(QuoteForError("a\nb"), "'a\\x0ab'");
    EXPECT_LT(QuoteForError(std::string(100000, 'a')).size(), 200u);
}

TEST(ExportsWords, AnyBytesEndAfterAtMostOneLinePerByte) {
    std::mt19937 random(20260101);
    const std::string alphabet("\\\n\r\" #(),=-/a0147\t\0\377", 20);
    for (int round = 0; round < 2000; ++round) {
        std::string text;
        for (size_t i = random() % 60; i > 0; --i) text += alphabet[random() % alphabet.size()];
        ASSERT_LE(ReadAll(text).lines.size(), text.size());
    }
}

}  // namespace
}  // namespace oxel
