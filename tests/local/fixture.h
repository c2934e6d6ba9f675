// SPDX-License-Identifier: Apache-2.0
//
// A share on a real directory, and the calls that a handler makes on it.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <functional>
#include <string>
#include <vector>

#include "backend/BkEndProc.h"
#include "backend/Export.h"
#include "backend/FSM.h"
#include "backend/exports_file.h"
#include "modules/local/local_module.h"

namespace oxel::testing {

// For tests of what only root can do: switching rights, kernel handles, mounts.
#define SKIP_UNLESS_ROOT()                                          \
    do {                                                            \
        if (geteuid() != 0) GTEST_SKIP() << "this test needs root"; \
    } while (0)

class LocalTest : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

    // Paths on the server: in the share, and beside it.
    std::string InShare(const std::string& name) const { return directory_ + "/share/" + name; }
    std::string Beside(const std::string& name) const { return directory_ + "/outside/" + name; }
    std::string ShareDirectory() const { return directory_ + "/share"; }

    // Everything but the key and the disk is as after a restart.
    void Restart();
    void ForgetEverything();
    // The rule of the one client; writable, no_root_squash and insecure unless changed.
    void SetOptions(const ClientOptions& options);
    ExportPtr MakeShare(const std::string& directory, uint32_t id, bool unlisted = false);

    // One call's context for this caller on `object`.
    OxelCtxt As(uid_t uid, gid_t gid, const BkEndProcPtr& object);
    OxelCtxt AsSelf(const BkEndProcPtr& object) { return As(geteuid(), getegid(), object); }
    IdInfo& Caller() { return caller_; }

    static nfs_fh3 HandleOf(const BkEndProcPtr& object);
    nfs_fh3 RootHandle();
    BkEndProcPtr Resolve(const nfs_fh3& handle);
    BkEndProcPtr Root() { return Resolve(RootHandle()); }
    // Walks names from the root as LOOKUP does, with this process's own ids; null with errno.
    BkEndProcPtr Find(const std::string& path);
    nfs_fh3 HandleAt(const std::string& path);

    // Shares in the registry.
    void Publish(const std::vector<ExportPtr>& shares);

    ClientOptions options_;
    FSMPtr module_;
    ExportPtr share_;
    std::string directory_;  // holds share/ and outside/
    static constexpr uint32_t kShareId = 77;

  private:
    IdInfo caller_;
};

// Direct work on the disk; each fails the test when it cannot be done.
void WriteFile(const std::string& path, const std::string& text, mode_t mode = 0644);
void MakeDir(const std::string& path, mode_t mode = 0755);
void Move(const std::string& from, const std::string& to);
void Remove(const std::string& path);
struct stat StatOf(const std::string& path);
// Open descriptors of this process.
int CountDescriptors();
// What Open, Read and Close give for the whole file; "errno N" on failure.
std::string ReadAll(BkEndProc& object, OxelCtxt& ctxt);
// Runs `body` in a child process; test failures in there fail the test.
void InChild(const std::function<void()>& body);

}  // namespace oxel::testing
