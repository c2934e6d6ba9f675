// SPDX-License-Identifier: Apache-2.0
//
// Which of the valid words somebody meant who wrote another one.
#pragma once

#include <string>
#include <vector>

namespace oxel {

// The word of `valid` that is nearest to `word`, small and capital letters being the same, or ""
// when none is near enough to be meant. Swapped neighbours count as one change.
std::string NearestWord(const std::string& word, const std::vector<std::string>& valid);

// "; did you mean 'rw'?", or "" when no word is near enough.
std::string DidYouMean(const std::string& word, const std::vector<std::string>& valid);

}  // namespace oxel
