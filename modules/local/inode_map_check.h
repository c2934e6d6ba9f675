// SPDX-License-Identifier: Apache-2.0
//
// Proof that a store's file is sound before LMDB, which trusts what it maps into memory, sees it.
#pragma once

#include <string>

namespace oxel::local {

// Reads the pages of an LMDB 0.9 data file that its newest state is made of: every page belongs to
// one place of the tree or of the list of free pages, and nothing in it points outside. Empty when
// that holds, or when there is no file or nothing in it; otherwise what is wrong.
std::string CheckInodeStoreFile(const std::string& file);

}  // namespace oxel::local
