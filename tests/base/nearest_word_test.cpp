// SPDX-License-Identifier: Apache-2.0
//
// The word that was meant, and none where nothing is near.
#include "base/nearest_word.h"

#include <gtest/gtest.h>

namespace oxel {

TEST(NearestWord, IsSuggestedOnlyWhenItIsNear) {
    const std::vector<std::string> valid = {"ro", "rw", "root_squash", "insecure"};
    EXPECT_EQ(DidYouMean("rww", valid), "; did you mean 'rw'?");
    EXPECT_EQ(DidYouMean("RW", valid), "; did you mean 'rw'?");
    EXPECT_EQ(DidYouMean("wr", valid), "; did you mean 'rw'?");
    EXPECT_EQ(DidYouMean("rootsquash", valid), "; did you mean 'root_squash'?");
    EXPECT_EQ(DidYouMean("unsecure", valid), "; did you mean 'insecure'?");
    EXPECT_EQ(DidYouMean("crossmnt", valid), "");
    EXPECT_EQ(DidYouMean("", valid), "");
    EXPECT_EQ(DidYouMean(std::string(1000, 'r'), valid), "");
}

TEST(NearestWord, CapitalLettersDoNotCount) {
    const std::vector<std::string> valid = {"nNfs3Port", "nHardened"};
    EXPECT_EQ(NearestWord("NNFS3PORT", valid), "nNfs3Port");
    EXPECT_EQ(NearestWord("nhardend", valid), "nHardened");
}

TEST(NearestWord, SwappedNeighboursAreOneChange) {
    EXPECT_EQ(NearestWord("abdcef", {"abcxyf", "abcdef"}), "abcdef");
    EXPECT_EQ(NearestWord("ab", {"ba"}), "ba");
}

TEST(NearestWord, OfNoWordsIsNone) {
    EXPECT_EQ(NearestWord("word", {}), "");
}

}  // namespace oxel
