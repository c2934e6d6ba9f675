// SPDX-License-Identifier: Apache-2.0
//
// The daemon with a handful of shares, in each of its modes: what a well-behaved client sees must
// not tell them apart. A test of what differs by design says so.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "tests/support/modes.h"
#include "tests/support/nfs_client.h"
#include "tests/support/private_tree.h"
#include "tests/support/rpc_client.h"

namespace oxel::test {

// Shares, all with "insecure" unless said otherwise:
//   /rw      id 7   read-write, root is root         /ro     id 8   read-only
//   /hidden  id 9   read-write, unlisted             /secure id 10  ports below 1024 only
//   /other   id 11  for clients in 10.99.0.0/16      /second id 12  read-write
class WireTest : public testing::TestWithParam<Mode> {
  protected:
    void SetUp() override { ASSERT_NO_FATAL_FAILURE(StartDaemon("")); }

    // `conf` is added to section "Oxel".
    void StartDaemon(const std::string& conf, int logLevel = 4) {
        for (const char* name : {"rw", "ro", "hidden", "secure", "other", "second"})
            tree_.MakeDir(name);
        tree_.WriteConf("wire", "[Log]\nnLogLevel = " + std::to_string(logLevel) +
                                    "\n[Oxel]\nnNfs3Port = 0\n" + ModeSettings(GetParam()) + conf);
        const std::string root = tree_.Root();
        tree_.WriteExports(
            "wire",
            "/rw     -dir=" + root + "/rw,id=7              *(rw,no_root_squash,insecure)\n" +
                "/ro     -dir=" + root + "/ro,id=8              *(ro,insecure)\n" +
                "/hidden -dir=" + root + "/hidden,id=9,unlisted *(rw,no_root_squash,insecure)\n" +
                "/secure -dir=" + root + "/secure,id=10         *(rw)\n" + "/other  -dir=" + root +
                "/other,id=11          10.99.0.0/16(rw,insecure)\n" + "/second -dir=" + root +
                "/second,id=12         *(rw,no_root_squash,insecure)\n");
        ASSERT_TRUE(daemon_.Start());
    }

    uint16_t Port() const { return daemon_.Port(); }
    // The daemon answers a new client.
    void ExpectServing() {
        NfsClient client(Port());
        EXPECT_EQ(client.Results(client.Nfs(nfs::kNull, "")), "");
        EXPECT_EQ(client.Results(client.Mount(mnt::kNull, "")), "");
    }

    // post_op_attr of a file below the tree, as the daemon must send it now.
    std::string PostOp(const std::string& name) const {
        return XdrWriter()
            .Bool(true)
            .Raw(AttributesBytes(ExpectedAttributes(tree_.Path(name))))
            .Bytes();
    }
    // pre_op_attr of attributes that were read before an operation.
    static std::string PreOp(const Attributes& before) {
        return XdrWriter()
            .Bool(true)
            .U64(before.size)
            .U32(before.mtime)
            .U32(0)
            .U32(before.ctime)
            .U32(0)
            .Bytes();
    }
    static std::string Nothing() { return XdrWriter().Bool(false).Bytes(); }
    static std::string StatusWord(uint32_t status) { return XdrWriter().U32(status).Bytes(); }

    PrivateTree tree_;
    Daemon daemon_{tree_};
};

}  // namespace oxel::test
