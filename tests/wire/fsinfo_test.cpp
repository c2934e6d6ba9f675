// SPDX-License-Identifier: Apache-2.0
//
// FSSTAT, FSINFO and PATHCONF on the wire.
#include <gtest/gtest.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cstring>

#include "tests/wire/wire_fixture.h"

namespace oxel::test {
namespace {

class Fsinfo : public WireTest {
  protected:
    void SetUp() override {
        WireTest::SetUp();
        if (HasFatalFailure()) return;
        tree_.Write("rw/file", "content");
        client_ = std::make_unique<NfsClient>(Port());
        root_ = client_->MountShare("/rw");
    }
    void TearDown() override { client_.reset(); }
    std::string Ask(uint32_t procedure, const std::string& handle) {
        return client_->Results(client_->Nfs(procedure, XdrWriter().Opaque(handle).Bytes()));
    }
    std::string FsinfoBytes(uint32_t transfer, const std::string& name) {
        return StatusWord(0) + PostOp(name) +
               XdrWriter()
                   .U32(transfer)
                   .U32(transfer)
                   .U32(1)
                   .U32(transfer)
                   .U32(transfer)
                   .U32(1)
                   .U32(transfer)
                   .U64(0x640000000000)
                   .U32(0)
                   .U32(1000000000)
                   .U32(0x1b)
                   .Bytes();
    }

    std::unique_ptr<NfsClient> client_;
    std::string root_;
};

TEST_P(Fsinfo, ReportsTheTransferSizeAndTheConstants) {
    EXPECT_EQ(Hex(Ask(nfs::kFsinfo, root_)), Hex(FsinfoBytes(262144, "rw")));
    EXPECT_EQ(Hex(Ask(nfs::kFsinfo, client_->Lookup(root_, "file"))),
              Hex(FsinfoBytes(262144, "rw/file")));
}

TEST_P(Fsinfo, ReportsTheConfiguredTransferSize) {
    client_.reset();
    ASSERT_EQ(daemon_.Stop(), 0);
    StartDaemon("nMaxBufSize = 64\n");
    client_ = std::make_unique<NfsClient>(Port());
    EXPECT_EQ(Hex(Ask(nfs::kFsinfo, root_)), Hex(FsinfoBytes(65536, "rw")));
}

TEST_P(Fsinfo, FsstatReportsTheFileSystem) {
    // Others use the disk too: ask until nothing changed meanwhile.
    std::string reply, expected = "-";
    for (int i = 0; i < 200 && reply != expected; ++i) {
        struct statfs fs;
        reply = Ask(nfs::kFsstat, root_);
        ASSERT_EQ(statfs(tree_.Path("rw").c_str(), &fs), 0);
        const uint64_t block = static_cast<uint64_t>(fs.f_bsize);
        expected = StatusWord(0) + PostOp("rw") +
                   XdrWriter()
                       .U64(block * fs.f_blocks)
                       .U64(block * fs.f_bfree)
                       .U64(block * fs.f_bavail)
                       .U64(fs.f_files)
                       .U64(fs.f_ffree)
                       .U64(fs.f_ffree)
                       .U32(1)
                       .Bytes();
    }
    EXPECT_EQ(Hex(reply), Hex(expected));
}

TEST_P(Fsinfo, PathconfReportsWhatTheFileSystemSays) {
    const std::string path = tree_.Path("rw/file");
    auto limit = [&](int name) { return static_cast<uint32_t>(pathconf(path.c_str(), name)); };
    EXPECT_EQ(Hex(Ask(nfs::kPathconf, client_->Lookup(root_, "file"))),
              Hex(StatusWord(0) + PostOp("rw/file") +
                  XdrWriter()
                      .U32(limit(_PC_LINK_MAX))
                      .U32(limit(_PC_NAME_MAX))
                      .U32(limit(_PC_NO_TRUNC))
                      .U32(limit(_PC_CHOWN_RESTRICTED))
                      .Bool(false)
                      .Bool(true)
                      .Bytes()));
}

TEST_P(Fsinfo, AVanishedObjectIsNoentForTheFileSystemAndStaleForPathconf) {
    const std::string handle = client_->Lookup(root_, "file");
    ASSERT_EQ(unlink(tree_.Path("rw/file").c_str()), 0);
    EXPECT_EQ(Hex(Ask(nfs::kFsstat, handle)), Hex(StatusWord(2) + Nothing()));
    EXPECT_EQ(Hex(Ask(nfs::kFsinfo, handle)), Hex(StatusWord(2) + Nothing()));
    EXPECT_EQ(Hex(Ask(nfs::kPathconf, handle)), Hex(StatusWord(70) + Nothing()));
    EXPECT_TRUE(daemon_.WaitForLog("Error: FS Root obect is not found."));
}

OXEL_ALL_MODES(Fsinfo);

}  // namespace
}  // namespace oxel::test
