// SPDX-License-Identifier: Apache-2.0
//
// A local tree with everything in it that a copy can get wrong.
#pragma once

#include <cstddef>
#include <string>

namespace oxel::test {

// Makes `objects` files, directories, symbolic and hard links below `directory`, which exists: odd
// names, sizes around the borders of pages and transfers, all kinds of modes, owners and times. The
// same number and seed give the same tree. Needs root. What cannot be made fails the test.
void GenerateTree(const std::string& directory, size_t objects, unsigned seed);

// Bytes that tell one file from another and one place in it from another.
std::string GeneratedBytes(unsigned file, size_t length);

}  // namespace oxel::test
