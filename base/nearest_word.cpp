// SPDX-License-Identifier: Apache-2.0
#include "base/nearest_word.h"

#include <algorithm>
#include <cctype>

namespace oxel {

static constexpr size_t kWordBytesMax = 256;

static std::string Lower(const std::string& word) {
    std::string lower = word;
    for (char& byte : lower)
        byte = static_cast<char>(std::tolower(static_cast<unsigned char>(byte)));
    return lower;
}

// How many bytes must be put in, taken out, changed or swapped with their neighbour.
static size_t EditDistance(const std::string& a, const std::string& b) {
    std::vector<std::vector<size_t>> cost(a.size() + 1, std::vector<size_t>(b.size() + 1));
    for (size_t i = 0; i <= a.size(); ++i) cost[i][0] = i;
    for (size_t j = 0; j <= b.size(); ++j) cost[0][j] = j;
    for (size_t i = 1; i <= a.size(); ++i) {
        for (size_t j = 1; j <= b.size(); ++j) {
            size_t change = a[i - 1] == b[j - 1] ? 0 : 1;
            cost[i][j] =
                std::min({cost[i - 1][j] + 1, cost[i][j - 1] + 1, cost[i - 1][j - 1] + change});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
                cost[i][j] = std::min(cost[i][j], cost[i - 2][j - 2] + 1);
        }
    }
    return cost[a.size()][b.size()];
}

std::string NearestWord(const std::string& word, const std::vector<std::string>& valid) {
    if (word.empty() || word.size() > kWordBytesMax) return "";
    const std::string lower = Lower(word);
    std::string best;
    size_t bestDistance = std::max<size_t>(2, word.size() / 3) + 1;
    for (const std::string& candidate : valid) {
        // So many bytes at least must be put in or taken out.
        if (std::max(word.size(), candidate.size()) - std::min(word.size(), candidate.size()) >=
            bestDistance)
            continue;
        const size_t distance = EditDistance(lower, Lower(candidate));
        if (distance < bestDistance && distance < std::max(word.size(), candidate.size())) {
            best = candidate;
            bestDistance = distance;
        }
    }
    return best;
}

std::string DidYouMean(const std::string& word, const std::vector<std::string>& valid) {
    const std::string nearest = NearestWord(word, valid);
    return nearest.empty() ? "" : "; did you mean '" + nearest + "'?";
}

}  // namespace oxel
