// SPDX-License-Identifier: Apache-2.0
//
// Handles, GETATTR, SETATTR, LOOKUP, ACCESS and READLINK on the wire.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "tests/wire/wire_fixture.h"

namespace oxel::test {
namespace {

constexpr uint32_t kGarbageArguments = 4;
constexpr uint32_t kNoent = 2, kAcces = 13, kNotdir = 20, kInval = 22, kRofs = 30, kStale = 70;

class Attr : public WireTest {
  protected:
    void SetUp() override {
        WireTest::SetUp();
        if (HasFatalFailure()) return;
        tree_.Write("rw/file", "content");
        tree_.MakeDir("rw/dir");
        tree_.Write("ro/file", "content");
        ASSERT_EQ(symlink("target of link", tree_.Path("rw/link").c_str()), 0);
        client_ = std::make_unique<NfsClient>(Port());
        root_ = client_->MountShare("/rw");
    }
    void TearDown() override { client_.reset(); }
    RpcCall OnHandle(uint32_t procedure, const std::string& handle, const std::string& rest = "") {
        return client_->Nfs(procedure, XdrWriter().Opaque(handle).Raw(rest).Bytes());
    }
    std::string Sattr(const SetAttributes& attributes, int64_t guardCtime = -1) {
        XdrWriter writer;
        writer.Raw(attributes.Bytes()).Bool(guardCtime >= 0);
        if (guardCtime >= 0) writer.U32(static_cast<uint32_t>(guardCtime)).U32(0);
        return writer.Bytes();
    }

    std::unique_ptr<NfsClient> client_;
    std::string root_;
};

TEST_P(Attr, GetattrTellsEveryKindOfObject) {
    ASSERT_EQ(mkfifo(tree_.Path("rw/pipe").c_str(), 0640), 0);
    ASSERT_EQ(chmod(tree_.Path("rw/dir").c_str(), 01777), 0);
    for (const char* name : {"file", "dir", "link", "pipe"}) {
        const std::string handle = client_->Lookup(root_, name);
        EXPECT_EQ(Hex(client_->Results(OnHandle(nfs::kGetattr, handle))),
                  Hex(StatusWord(0) +
                      AttributesBytes(ExpectedAttributes(tree_.Path(std::string("rw/") + name)))))
            << name;
    }
}

TEST_P(Attr, HandlesOutsideTheirLengthsAreGarbage) {
    for (size_t length : {0u, 1u, 7u, 65u, 66u, 100u}) {
        RpcCall call = OnHandle(nfs::kGetattr, std::string(length, '\0'));
        EXPECT_EQ(Hex(client_->Connection().CallRaw(call)),
                  Hex(AcceptedReply(call.xid, kGarbageArguments)))
            << length;
    }
    // A length that the message does not hold.
    RpcCall call = client_->Nfs(nfs::kGetattr, XdrWriter().U32(64).Raw("short").Bytes());
    EXPECT_EQ(client_->Connection().CallRaw(call), AcceptedReply(call.xid, kGarbageArguments));
}

TEST_P(Attr, ForgedHandlesAreStale) {
    const std::string handle = client_->Lookup(root_, "file");
    for (size_t length : {8u, 9u, 63u, 64u}) {
        std::string forged = handle.substr(0, 8);
        forged.resize(length, 'x');
        EXPECT_EQ(Hex(client_->Results(OnHandle(nfs::kGetattr, forged))), Hex(StatusWord(kStale)))
            << length;
    }
    for (size_t at = 0; at < handle.size(); ++at) {
        std::string forged = handle;
        forged[at] = static_cast<char>(forged[at] ^ 0x40);
        EXPECT_EQ(client_->Status(OnHandle(nfs::kGetattr, forged)), kStale) << at;
    }
    for (size_t length = 8; length < handle.size(); ++length)
        EXPECT_EQ(client_->Status(OnHandle(nfs::kGetattr, handle.substr(0, length))), kStale);
    EXPECT_EQ(client_->Status(OnHandle(nfs::kGetattr, handle + std::string(4, '\0'))), kStale);
    EXPECT_EQ(client_->Status(OnHandle(nfs::kGetattr, handle)), 0u);
}

TEST_P(Attr, AHandleOfOneShareDoesNotWorkInAnother) {
    std::string handle = client_->Lookup(root_, "file");
    handle.replace(4, 4, XdrWriter().U32(12).Bytes());  // the id of /second
    EXPECT_EQ(client_->Status(OnHandle(nfs::kGetattr, handle)), kStale);
}

TEST_P(Attr, AnUnknownModuleIsStaleAndSaidWithTheThreeWords) {
    EXPECT_EQ(client_->Status(OnHandle(nfs::kGetattr, XdrWriter().U32(5).U32(7).U32(1).Bytes())),
              kStale);
    EXPECT_TRUE(daemon_.WaitForLog("FSM Not Found fsmType [5] shareId [7] nfh_len [12]."));
}

TEST_P(Attr, AHandleWhoseFileIsGoneIsStale) {
    const std::string handle = client_->Lookup(root_, "file");
    ASSERT_EQ(unlink(tree_.Path("rw/file").c_str()), 0);
    tree_.Write("rw/file", "another");  // may well get the inode number
    EXPECT_EQ(Hex(client_->Results(OnHandle(nfs::kGetattr, handle))), Hex(StatusWord(kStale)));
    EXPECT_TRUE(daemon_.WaitForLog("Error: Stale File Handle. FH [] IP [127.0.0.1]"));
}

TEST_P(Attr, HandlesSurviveARestart) {
    const std::string handle = client_->Lookup(root_, "file");
    client_.reset();
    ASSERT_EQ(daemon_.Stop(), 0);
    ASSERT_TRUE(daemon_.Start());
    client_ = std::make_unique<NfsClient>(Port());
    EXPECT_EQ(AttributesBytes(client_->GetAttributes(handle)),
              AttributesBytes(ExpectedAttributes(tree_.Path("rw/file"))));
}

TEST_P(Attr, HandlesSurviveAKill) {
    const std::string handle = client_->Lookup(root_, "file");
    client_.reset();
    daemon_.Kill();
    ASSERT_TRUE(daemon_.Start());
    client_ = std::make_unique<NfsClient>(Port());
    EXPECT_EQ(client_->GetAttributes(handle).fileid,
              ExpectedAttributes(tree_.Path("rw/file")).fileid);
}

TEST_P(Attr, LookupAnswersHandleAndBothAttributes) {
    XdrReader reader(client_->Results(client_->Nfs(nfs::kLookup, DirectoryName(root_, "file"))));
    EXPECT_EQ(reader.U32(), 0u);
    const std::string handle = reader.Opaque();
    EXPECT_EQ(Hex(reader.Rest()), Hex(PostOp("rw/file") + PostOp("rw")));
    EXPECT_EQ(Hex(handle), Hex(client_->Lookup(root_, "file"))) << "handles are stable";
}

TEST_P(Attr, LookupOfAMissingNameIsNoent) {
    RpcCall call = client_->Nfs(nfs::kLookup, DirectoryName(root_, "missing"));
    EXPECT_EQ(Hex(client_->Results(call)), Hex(StatusWord(kNoent) + Nothing()));
    EXPECT_TRUE(daemon_.WaitForLog("FindChild() failed [missing] under [" + tree_.Path("rw") +
                                   "]. err [2]"));
}

TEST_P(Attr, LookupOfAnEmptyNameIsInvalidBeforeTheHandleIsLookedAt) {
    for (const std::string& directory : {root_, std::string(16, 'x')}) {
        RpcCall call = client_->Nfs(nfs::kLookup, DirectoryName(directory, ""));
        EXPECT_EQ(Hex(client_->Results(call)), Hex(StatusWord(kInval) + Nothing()));
    }
    EXPECT_TRUE(daemon_.WaitForLog("Error: Client sent empty name to look."));
}

TEST_P(Attr, LookupDoesNotLeaveTheShare) {
    EXPECT_EQ(Hex(client_->Lookup(root_, "..")), Hex(root_));
    EXPECT_EQ(Hex(client_->Lookup(root_, ".")), Hex(root_));
    const std::string dir = client_->Lookup(root_, "dir");
    EXPECT_EQ(Hex(client_->Lookup(dir, "..")), Hex(root_));
    for (const char* name : {"../ro", "dir/..", "/etc", "../../etc/passwd"}) {
        uint32_t status = 0;
        EXPECT_EQ(client_->Lookup(root_, name, &status), "");
        EXPECT_NE(status, 0u) << name;
    }
    uint32_t status = 0;
    client_->Lookup(client_->Lookup(root_, "file"), "x", &status);
    EXPECT_EQ(status, kNotdir);
}

TEST_P(Attr, ANewlineInANameCannotForgeALogLine) {
    uint32_t status = 0;
    client_->Lookup(root_, "evil\n2026-01-01T00:00:00.000000Z 1 [main] L1 forged():1 text",
                    &status);
    EXPECT_EQ(status, kNoent);
    EXPECT_TRUE(daemon_.WaitForLog("FindChild() failed [evil\\x0a2026-01-01T00"));
    EXPECT_FALSE(daemon_.LogHas("\n2026-01-01T00"));
}

TEST_P(Attr, AccessTellsWhatTheModuleGrantsWhateverIsAsked) {
    // Root, not squashed, may do everything but execute a file without an x bit.
    struct {
        std::string share, name;
        uint32_t granted;
    } rows[] = {{"rw", "dir", 0x3f}, {"rw", "file", 0x1d}};
    for (const auto& row : rows) {
        const std::string handle = client_->Lookup(client_->MountShare("/" + row.share), row.name);
        for (uint32_t asked : {0u, 1u, 0x3fu}) {
            EXPECT_EQ(Hex(client_->Results(
                          OnHandle(nfs::kAccess, handle, XdrWriter().U32(asked).Bytes()))),
                      Hex(StatusWord(0) + PostOp(row.share + "/" + row.name) +
                          XdrWriter().U32(row.granted).Bytes()))
                << row.name;
        }
    }
}

TEST_P(Attr, AccessGivesNoWriteBitsToAReadOnlyClient) {
    const std::string handle = client_->Lookup(client_->MountShare("/ro"), "file");
    const std::string results =
        client_->Results(OnHandle(nfs::kAccess, handle, XdrWriter().U32(0x3f).Bytes()));
    EXPECT_EQ(XdrReader(results.substr(results.size() - 4)).U32() & 0x1c, 0u);
}

TEST_P(Attr, ReadlinkAnswersTheTarget) {
    const std::string handle = client_->Lookup(root_, "link");
    const std::string results = client_->Results(OnHandle(nfs::kReadlink, handle));
    EXPECT_EQ(Hex(results), Hex(StatusWord(0) + PostOp("rw/link") +
                                XdrWriter().Opaque("target of link").Bytes()));
}

TEST_P(Attr, ReadlinkOfAFileIsInvalidAndTellsItsAttributes) {
    const std::string handle = client_->Lookup(root_, "file");
    EXPECT_EQ(Hex(client_->Results(OnHandle(nfs::kReadlink, handle))),
              Hex(StatusWord(kInval) + PostOp("rw/file")));
}

TEST_P(Attr, SetattrChangesModeAndSize) {
    const std::string handle = client_->Lookup(root_, "file");
    const Attributes before = ExpectedAttributes(tree_.Path("rw/file"));
    SetAttributes set;
    set.mode = 0604;
    set.size = 3;
    const std::string results = client_->Results(OnHandle(nfs::kSetattr, handle, Sattr(set)));
    EXPECT_EQ(Hex(results), Hex(StatusWord(0) + PreOp(before) + PostOp("rw/file")));
    EXPECT_EQ(ReadFile(tree_.Path("rw/file")), "con");
    EXPECT_EQ(ExpectedAttributes(tree_.Path("rw/file")).mode, 0604u);
}

TEST_P(Attr, SetattrOfOneIdAloneChangesNothing) {
    if (geteuid() != 0) GTEST_SKIP() << "changing owners needs root";
    const std::string handle = client_->Lookup(root_, "file");
    SetAttributes set;
    set.uid = 1234;
    EXPECT_EQ(client_->Status(OnHandle(nfs::kSetattr, handle, Sattr(set))), 0u);
    EXPECT_EQ(ExpectedAttributes(tree_.Path("rw/file")).uid, 0u);
    set.gid = 1235;
    EXPECT_EQ(client_->Status(OnHandle(nfs::kSetattr, handle, Sattr(set))), 0u);
    EXPECT_EQ(ExpectedAttributes(tree_.Path("rw/file")).uid, 1234u);
    EXPECT_EQ(ExpectedAttributes(tree_.Path("rw/file")).gid, 1235u);
}

TEST_P(Attr, SetattrSetsBothTimesToTheClients) {
    const std::string handle = client_->Lookup(root_, "file");
    SetAttributes set;
    set.setAtime = set.setMtime = 2;
    set.atime = 1000000001;
    set.mtime = 1000000002;
    EXPECT_EQ(client_->Status(OnHandle(nfs::kSetattr, handle, Sattr(set))), 0u);
    EXPECT_EQ(ExpectedAttributes(tree_.Path("rw/file")).atime, 1000000001u);
    EXPECT_EQ(ExpectedAttributes(tree_.Path("rw/file")).mtime, 1000000002u);
}

TEST_P(Attr, SettingTheMtimeAloneLeavesItAndMovesTheAtime) {
    const std::string handle = client_->Lookup(root_, "file");
    SetAttributes set;
    set.setAtime = set.setMtime = 2;
    set.atime = set.mtime = 1000000000;
    EXPECT_EQ(client_->Status(OnHandle(nfs::kSetattr, handle, Sattr(set))), 0u);
    set.setAtime = 0;
    set.mtime = 1500000000;
    EXPECT_EQ(client_->Status(OnHandle(nfs::kSetattr, handle, Sattr(set))), 0u);
    EXPECT_EQ(ExpectedAttributes(tree_.Path("rw/file")).mtime, 1000000000u);
    EXPECT_GT(ExpectedAttributes(tree_.Path("rw/file")).atime, 1700000000u);
}

TEST_P(Attr, AGuardThatIsOlderLeavesTheTimesAndStillAppliesTheRest) {
    const std::string handle = client_->Lookup(root_, "file");
    const Attributes before = ExpectedAttributes(tree_.Path("rw/file"));
    SetAttributes set;
    set.mode = 0611;
    set.setAtime = set.setMtime = 2;
    set.atime = set.mtime = 1000000000;
    EXPECT_EQ(client_->Status(OnHandle(nfs::kSetattr, handle, Sattr(set, 1))), 0u);
    EXPECT_EQ(ExpectedAttributes(tree_.Path("rw/file")).mode, 0611u);
    EXPECT_EQ(ExpectedAttributes(tree_.Path("rw/file")).mtime, before.mtime);
}

TEST_P(Attr, SetattrOfADirectorysSizeFails) {
    SetAttributes set;
    set.size = 0;
    const std::string handle = client_->Lookup(root_, "dir");
    EXPECT_EQ(client_->Status(OnHandle(nfs::kSetattr, handle, Sattr(set))), 21u);
}

TEST_P(Attr, ChangesOnAReadOnlyShareAreRefused) {
    const std::string handle = client_->Lookup(client_->MountShare("/ro"), "file");
    SetAttributes set;
    set.mode = 0777;
    EXPECT_EQ(Hex(client_->Results(OnHandle(nfs::kSetattr, handle, Sattr(set)))),
              Hex(StatusWord(kAcces) + Nothing() + Nothing()));
    EXPECT_TRUE(daemon_.WaitForLog("Write Access denied for share [/ro]"));
    EXPECT_TRUE(daemon_.LogHas("INFO: Share [/ro] is read-only"));
}

TEST_P(Attr, AReadOnlyClientOfAWritableShareGetsRofs) {
    client_.reset();
    ASSERT_EQ(daemon_.Stop(), 0);
    tree_.WriteExports("wire",
                       "/rw -dir=" + tree_.Path("rw") + ",id=7 *(ro,insecure) 10.99.0.1(rw)\n");
    ASSERT_TRUE(daemon_.Start());
    client_ = std::make_unique<NfsClient>(Port());
    root_ = client_->MountShare("/rw");
    SetAttributes set;
    set.mode = 0777;
    EXPECT_EQ(client_->Status(OnHandle(nfs::kSetattr, client_->Lookup(root_, "file"), Sattr(set))),
              kRofs);
}

TEST_P(Attr, ARefusedClientWithAHandleGetsNothing) {
    client_.reset();
    ASSERT_EQ(daemon_.Stop(), 0);
    tree_.WriteExports("wire", "/rw -dir=" + tree_.Path("rw") + ",id=7 10.99.0.1(rw)\n");
    ASSERT_TRUE(daemon_.Start());
    client_ = std::make_unique<NfsClient>(Port());
    EXPECT_EQ(client_->Status(OnHandle(nfs::kGetattr, root_)), kAcces);
    EXPECT_TRUE(daemon_.WaitForLog("This object is not accessible to client [127.0.0.1]"));
}

OXEL_ALL_MODES(Attr);

}  // namespace
}  // namespace oxel::test
