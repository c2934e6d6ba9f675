// SPDX-License-Identifier: Apache-2.0
//
// One daemon and one kernel for all tests of a program, with the shares mounted below /mnt.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "tests/kernel/kernel_client.h"
#include "tests/support/private_tree.h"

namespace oxel::test {

class KernelTest : public testing::Test {
  protected:
    // The shares; each is the directory of its name in the tree, and mounted at /mnt/<name>.
    //   memory    in memory (tmpfs): for scripts that make many files
    //   disk      on the disk that has /tmp
    //   squashed  the disk's directory again, root squashed as by default
    //   readonly  the disk's directory again, read only for everybody
    // and, not mounted, read_by_us: read only for the kernel, writable for others.
    static void SetUpTestSuite();
    static void TearDownTestSuite();
    void SetUp() override;

    // Runs it to its end and fails with what it printed when it fails.
    static void Succeeds(const std::string& script, unsigned secondsMax = 600);
    static void Succeeds(const KernelClient::Outcome& outcome);

    static PrivateTree& Tree();
    static Daemon& Server();
    static KernelClient& Client();

  private:
    struct Stage;
    static std::unique_ptr<Stage> stage_;
    static std::string forbidden_;  // why there is none
};

// What scripts begin with.
inline constexpr char kLibrary[] = ". /run/source/tests/kernel/lib.sh\n";

}  // namespace oxel::test
