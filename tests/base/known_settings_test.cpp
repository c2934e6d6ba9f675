// SPDX-License-Identifier: Apache-2.0
//
// The table of settings, against what the sources read.
#include "base/known_settings.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <utility>

namespace oxel::test {
namespace {

using Names = std::set<std::string>;

// What the daemon and its tool are made of, without the table itself and without comments.
std::string Sources() {
    const char* root = getenv("OXEL_SOURCE_DIR");
    std::ostringstream text;
    if (root == nullptr) return "";
    for (const char* folder :
         {"base", "net", "backend", "nfs3", "mount3", "modules", "companion", "ctl", "bin"}) {
        for (const auto& entry :
             std::filesystem::recursive_directory_iterator(std::string(root) + "/" + folder)) {
            const std::string name = entry.path().filename();
            if (name == "known_settings.cpp" ||
                (entry.path().extension() != ".cpp" && entry.path().extension() != ".h"))
                continue;
            std::ifstream file(entry.path());
            for (std::string line; std::getline(file, line);)
                text << line.substr(0, line.find("//")) << "\n";
        }
    }
    return text.str();
}

std::vector<std::smatch> Found(const std::string& text, const char* pattern) {
    const std::regex regex(pattern);
    return {std::sregex_iterator(text.begin(), text.end(), regex), std::sregex_iterator()};
}

}  // namespace

TEST(KnownSettings, WhateverIsReadIsInTheTable) {
    const std::string sources = Sources();
    const auto reads = Found(sources, R"re(getNumber\(\s*"(\w+)",\s*"(\w+)")re");
    ASSERT_GE(reads.size(), 10u);
    for (const std::smatch& read : reads)
        EXPECT_EQ(UnknownSetting(read[1], read[2]), "")
            << "add a row to base/known_settings.cpp, and the key to the manual";
}

// Keys that do not stand at the reading itself are known by the form of their names.
TEST(KnownSettings, WhateverLooksLikeAKeyIsInTheTable) {
    Names keys;
    for (const KnownSetting& known : KnownSettings()) keys.insert(known.key);
    const std::string sources = Sources();
    const auto literals = Found(sources, R"re("(n[A-Z]\w*)")re");
    ASSERT_GE(literals.size(), 15u);
    for (const std::smatch& literal : literals)
        EXPECT_TRUE(keys.contains(literal[1])) << literal[1];
}

TEST(KnownSettings, WhateverIsInTheTableIsRead) {
    const std::string sources = Sources();
    for (const KnownSetting& known : KnownSettings())
        EXPECT_NE(sources.find("\"" + std::string(known.key) + "\""), std::string::npos)
            << known.key << ": no source names it";
}

TEST(KnownSettings, EachHasOneRowAndOneLineOfMeaning) {
    std::set<std::pair<std::string, std::string>> seen;
    for (const KnownSetting& known : KnownSettings()) {
        EXPECT_TRUE(seen.emplace(known.section, known.key).second) << known.key;
        EXPECT_NE(std::string(known.defaultText), "") << known.key;
        const std::string meaning = known.meaning;
        EXPECT_NE(meaning, "") << known.key;
        EXPECT_EQ(meaning.find('\n'), std::string::npos) << known.key;
    }
}

TEST(KnownSettings, AKeyThatNothingReadsHasTheNearestOneNamed) {
    EXPECT_EQ(UnknownSetting("Oxel", "nHardend"),
              "nothing reads 'nHardend' in section [Oxel]; did you mean 'nHardened'?");
    EXPECT_EQ(UnknownSetting("Oxel", "nnfs3port"),
              "nothing reads 'nnfs3port' in section [Oxel]; did you mean 'nNfs3Port'?");
    EXPECT_EQ(UnknownSetting("Oxel", "colour"), "nothing reads 'colour' in section [Oxel]");
}

TEST(KnownSettings, AKeyInTheWrongSectionIsToldWhereItBelongs) {
    EXPECT_EQ(UnknownSetting("Oxel", "nLogLevel"),
              "nothing reads 'nLogLevel' in section [Oxel]; it belongs into section [Log]");
    EXPECT_EQ(UnknownSetting("oxel", "nHardened"),
              "nothing reads 'nHardened' in section [oxel]; it belongs into section [Oxel]");
    EXPECT_EQ(UnknownSetting("Log", "nHardend"),
              "nothing reads 'nHardend' in section [Log]; did you mean 'nHardened' in section "
              "[Oxel]?");
}

TEST(KnownSettings, ASectionThatNothingReadsHasTheNearestOneNamed) {
    EXPECT_EQ(UnknownSetting("Oxle", "colour"),
              "nothing reads 'colour' in section [Oxle]; did you mean section [Oxel]?");
    EXPECT_EQ(UnknownSetting("Runtime", "NfsServerPort_v4"),
              "nothing reads 'NfsServerPort_v4' in section [Runtime]; there are the sections [Log] "
              "and [Oxel]");
}

}  // namespace oxel::test
