// SPDX-License-Identifier: Apache-2.0
//
// Mounts that nobody but the test and the daemons that it starts sees.
#pragma once

#include <string>

namespace oxel::test {

// A mount namespace of the test's own, once; the reason when that is forbidden here. Who is not
// root is himself in a user namespace, so that the daemon is an ordinary user there too. Before
// any other thread of the test.
std::string EnterPrivateMounts();

// A file system of its own at a directory, for as long as the object lives.
class PrivateMount {
  public:
    // A file system in memory with these options ("size=4m"), for everybody to write into.
    PrivateMount(const std::string& directory, const std::string& options);
    ~PrivateMount();
    PrivateMount(const PrivateMount&) = delete;
    PrivateMount& operator=(const PrivateMount&) = delete;

    // The reason, or nothing when it is there.
    const std::string& Error() const { return error_; }
    const std::string& Directory() const { return directory_; }
    // Whether it could be made so; not while somebody has a file open for writing.
    bool Remount(bool readOnly) const;
    // Takes what room is left, with the file "filler", and gives it back.
    void Fill() const;
    void Empty() const;

  private:
    const std::string directory_, options_;
    std::string error_;
};

}  // namespace oxel::test
