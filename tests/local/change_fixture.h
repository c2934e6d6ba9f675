// SPDX-License-Identifier: Apache-2.0
//
// The calls that change a share, as a handler makes them. Each answers 0 or the errno.
#pragma once

#include <sys/types.h>

#include <string>

#include "tests/local/fixture.h"

namespace oxel::testing {

class ChangeTest : public LocalTest {
  protected:
    void SetUp() override;
    void TearDown() override;

    // Whose calls the following ones are; at first this process's own ids.
    void ActAs(uid_t uid, gid_t gid) { uid_ = uid, gid_ = gid; }
    // The client that they come from.
    void ComeFrom(const char* address);

    // `directory` is a path in the share, empty for its root.
    int Create(const std::string& directory, const std::string& name, int flags = 0x40,
               mode_t mode = 0644);
    int MakeDirectory(const std::string& directory, const std::string& name, mode_t mode = 0755);
    int Symlink(const std::string& directory, const std::string& name, const std::string& target);
    // REMOVE and RMDIR: the child is looked up, then removed. A missing child is ENOENT.
    int Unlink(const std::string& directory, const std::string& name);
    int RemoveDirectory(const std::string& directory, const std::string& name);
    int Rename(const std::string& from, const std::string& fromName, const std::string& to,
               const std::string& toName);
    int Link(const std::string& existing, const std::string& directory, const std::string& name);
    int WriteTo(const std::string& path, const std::string& text, uint64_t offset = 0,
                stable_how stable = UNSTABLE);
    int Commit(const std::string& path);

    // The same on objects, for what is no longer where a path says.
    OxelCtxt Context(const BkEndProcPtr& object, const BkEndProcPtr& second = nullptr);
    int UnlinkObject(const BkEndProcPtr& directory, const BkEndProcPtr& child,
                     const std::string& name);
    int RemoveDirectoryObject(const BkEndProcPtr& directory, const BkEndProcPtr& child,
                              const std::string& name);
    int RenameObject(const BkEndProcPtr& child, const BkEndProcPtr& from,
                     const std::string& fromName, const BkEndProcPtr& to,
                     const std::string& toName);
    int WriteToObject(const BkEndProcPtr& object, const std::string& text, uint64_t offset,
                      stable_how stable);

    // What the last successful Create or MakeDirectory gave.
    BkEndProcPtr made_;

  private:
    uid_t uid_ = geteuid();
    gid_t gid_ = getegid();
};

// Reads a file of the disk.
std::string TextOf(const std::string& path);
bool Exists(const std::string& path);

// The errno that a call leaves, 0 when it does not fail.
template <typename Call>
int ErrnoOf(Call call) {
    errno = 0;
    return call() < 0 ? errno : 0;
}

}  // namespace oxel::testing
