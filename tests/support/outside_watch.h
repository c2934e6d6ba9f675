// SPDX-License-Identifier: Apache-2.0
//
// A directory beside a share that nobody may touch or see through it, and what tells that it has
// not been: contents, attributes, all three times, and a mark that no reply may ever hold.
#pragma once

#include <map>
#include <string>

namespace oxel::test {

class OutsideWatch {
  public:
    // Fills `directory` with what an attacker would hope for: d/f, d/sub/f, f, and a name to list.
    explicit OutsideWatch(const std::string& directory);
    const std::string& Directory() const { return directory_; }
    // Everything is as it was made, and has not even been read.
    void ExpectUntouched() const;
    // No reply holds contents or names from outside.
    void ExpectHidden(const std::string& reply) const;

  private:
    using Tree = std::map<std::string, std::string>;  // path to what lstat tells of it
    Tree Look() const;

    const std::string directory_;
    Tree before_;
};

}  // namespace oxel::test
