// SPDX-License-Identifier: Apache-2.0
//
// A large real tree of this machine, for tests that compare what a client sees with what is there.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace oxel::test {

// A directory with tens of thousands of files; one that a sanitizer build gets through in a few
// minutes when this is one. $OXEL_TEST_TREE names another.
std::string LargeTree();
// How many files the tree must have for the comparison to say something.
size_t LargeTreeFilesMin();

// The names in a local directory, sorted, without "." and "..".
std::vector<std::string> LocalNames(const std::string& directory);

}  // namespace oxel::test
