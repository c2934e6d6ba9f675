// SPDX-License-Identifier: Apache-2.0
//
// A daemon with two shares in memory and one of a local directory.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "tests/support/modes.h"
#include "tests/support/nfs_client.h"
#include "tests/support/private_tree.h"

namespace oxel::test {

class MemoryTest : public testing::TestWithParam<Mode> {
  protected:
    void SetUp() override {
        tree_.MakeDir("disk");
        tree_.WriteConf("wire", "[Oxel]\nnNfs3Port = 0\n" + ModeSettings(GetParam()));
        WriteShares("*(rw,no_root_squash,insecure)");
        ASSERT_TRUE(daemon_.Start());
    }
    // /scratch with these clients, and two more for everybody.
    void WriteShares(const std::string& clients) {
        tree_.WriteExports("wire", "/scratch -module=memory,id=1 " + clients +
                                       "\n/second -module=memory,id=2 "
                                       "*(rw,no_root_squash,insecure)\n"
                                       "/disk -dir=" +
                                       tree_.Path("disk") +
                                       ",id=3 *(rw,no_root_squash,insecure)\n");
    }

    PrivateTree tree_;
    Daemon daemon_{tree_};
};

}  // namespace oxel::test
