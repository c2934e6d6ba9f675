// SPDX-License-Identifier: Apache-2.0
//
// Making, removing, renaming and linking names on the wire.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/wire/wire_fixture.h"

namespace oxel::test {
namespace {

constexpr uint32_t kUnchecked = 0, kGuarded = 1, kExclusive = 2;
constexpr uint32_t kNoent = 2, kAcces = 13, kExist = 17, kXdev = 18, kNotempty = 66, kStale = 70,
                   kNotsupp = 10004, kBadtype = 10007;

class Names : public WireTest {
  protected:
    void SetUp() override {
        WireTest::SetUp();
        if (HasFatalFailure()) return;
        client_ = std::make_unique<NfsClient>(Port());
        root_ = client_->MountShare("/rw");
    }
    void TearDown() override { client_.reset(); }

    std::string Ask(uint32_t procedure, const std::string& arguments) {
        return client_->Results(client_->Nfs(procedure, arguments));
    }
    std::string Create(const std::string& name, uint32_t how,
                       const SetAttributes& attributes = {}) {
        return Ask(nfs::kCreate, DirectoryName(root_, name) +
                                     XdrWriter().U32(how).Raw(attributes.Bytes()).Bytes());
    }
    std::string Mkdir(const std::string& name, const SetAttributes& attributes = {}) {
        return Ask(nfs::kMkdir, DirectoryName(root_, name) + attributes.Bytes());
    }
    std::string Symlink(const std::string& name, const std::string& target) {
        return Ask(nfs::kSymlink,
                   DirectoryName(root_, name) +
                       XdrWriter().Raw(SetAttributes().Bytes()).Opaque(target).Bytes());
    }
    std::string Rename(const std::string& from, const std::string& to) {
        return Ask(nfs::kRename, DirectoryName(root_, from) + DirectoryName(root_, to));
    }
    std::string Link(const std::string& handle, const std::string& name) {
        return Ask(nfs::kLink, XdrWriter().Opaque(handle).Raw(DirectoryName(root_, name)).Bytes());
    }
    // post_op_fh3 of a name that now exists.
    std::string HandleOf(const std::string& name) {
        return XdrWriter().Bool(true).Opaque(client_->Lookup(root_, name)).Bytes();
    }
    Attributes Before() { return ExpectedAttributes(tree_.Path("rw")); }
    bool Exists(const std::string& name) {
        struct stat status;
        return lstat(tree_.Path("rw/" + name).c_str(), &status) == 0;
    }

    std::unique_ptr<NfsClient> client_;
    std::string root_;
};

TEST_P(Names, CreateAnswersTheNewFileAndTheDirectory) {
    SetAttributes attributes;
    attributes.mode = 0640;
    for (uint32_t how : {kUnchecked, kGuarded}) {
        const std::string name = "new" + std::to_string(how);
        const std::string results = Create(name, how, attributes);
        // The directory's attributes from before are announced and never filled.
        const std::string empty = PreOp(Attributes());
        EXPECT_EQ(Hex(results), Hex(StatusWord(0) + HandleOf(name) + PostOp("rw/" + name) + empty +
                                    PostOp("rw")));
        EXPECT_EQ(ExpectedAttributes(tree_.Path("rw/" + name)).mode, 0640u);
    }
}

TEST_P(Names, CreateUncheckedKeepsAnExistingFilesContent) {
    tree_.Write("rw/file", "content");
    EXPECT_EQ(XdrReader(Create("file", kUnchecked)).U32(), 0u);
    EXPECT_EQ(ReadFile(tree_.Path("rw/file")), "content");
    SetAttributes cut;
    cut.size = 3;
    EXPECT_EQ(XdrReader(Create("file", kUnchecked, cut)).U32(), 0u);
    EXPECT_EQ(ReadFile(tree_.Path("rw/file")), "con");
}

TEST_P(Names, CreateGuardedOrExclusiveOfAnExistingNameFails) {
    tree_.Write("rw/file", "content");
    EXPECT_EQ(Hex(Create("file", kGuarded)), Hex(StatusWord(kExist) + Nothing() + Nothing()));
    const std::string exclusive =
        DirectoryName(root_, "fresh") + XdrWriter().U32(kExclusive).U64(0x1122334455667788).Bytes();
    EXPECT_EQ(XdrReader(Ask(nfs::kCreate, exclusive)).U32(), 0u);
    // The verifier is not kept: a repeated call is told that the name exists.
    EXPECT_EQ(Hex(Ask(nfs::kCreate, exclusive)), Hex(StatusWord(kExist) + Nothing() + Nothing()));
    EXPECT_TRUE(
        daemon_.WaitForLog("Error: Object to be CREATED is already present. Cant overwrite."));
}

TEST_P(Names, CreateGivesTheFileToTheCaller) {
    if (geteuid() != 0) GTEST_SKIP() << "other users need root";
    ASSERT_EQ(chmod(tree_.Path("rw").c_str(), 0777), 0);
    NfsClient other(Port(), 12345, 23456);
    EXPECT_EQ(
        other.Status(other.Nfs(nfs::kCreate,
                               DirectoryName(root_, "theirs") +
                                   XdrWriter().U32(kGuarded).Raw(SetAttributes().Bytes()).Bytes())),
        0u);
    EXPECT_EQ(ExpectedAttributes(tree_.Path("rw/theirs")).uid, 12345u);
    EXPECT_EQ(ExpectedAttributes(tree_.Path("rw/theirs")).gid, 23456u);
}

TEST_P(Names, ASetgidDirectoryGivesItsGroupToWhatIsMadeInIt) {
    if (geteuid() != 0) GTEST_SKIP() << "other users need root";
    ASSERT_EQ(chown(tree_.Path("rw").c_str(), 0, 34567), 0);
    ASSERT_EQ(chmod(tree_.Path("rw").c_str(), 02777), 0);
    SetAttributes attributes;
    attributes.mode = 0750;
    NfsClient other(Port(), 12345, 23456);
    // Twice: a call whose reply is lost is sent again.
    for (int i = 0; i < 2; ++i) {
        const std::string wish = XdrWriter().U32(kUnchecked).Raw(attributes.Bytes()).Bytes();
        EXPECT_EQ(other.Status(other.Nfs(nfs::kCreate, DirectoryName(root_, "file") + wish)), 0u);
        EXPECT_EQ(
            other.Status(other.Nfs(nfs::kMkdir, DirectoryName(root_, "dir") + attributes.Bytes())),
            0u);
        for (const char* name : {"file", "dir"}) {
            const Attributes made = ExpectedAttributes(tree_.Path(std::string("rw/") + name));
            EXPECT_EQ(made.uid, 12345u) << name;
            EXPECT_EQ(made.gid, 34567u) << name;
            EXPECT_EQ(made.mode, name == std::string("dir") ? 02750u : 0750u);
        }
    }
}

TEST_P(Names, ModesAreWhatTheClientAsksForWhateverTheServersUmask) {
    client_.reset();
    ASSERT_EQ(daemon_.Stop(), 0);
    daemon_.SetWrapper({"sh", "-c", "umask 077; exec \"$@\"", "sh"});
    ASSERT_TRUE(daemon_.Start());
    client_ = std::make_unique<NfsClient>(Port());
    root_ = client_->MountShare("/rw");
    for (const uint32_t mode : {0777u, 0666u, 04755u, 06711u, 0u}) {
        SetAttributes attributes;
        attributes.mode = mode;
        const std::string name = std::to_string(mode);
        EXPECT_EQ(XdrReader(Create(name, kGuarded, attributes)).U32(), 0u);
        EXPECT_EQ(ExpectedAttributes(tree_.Path("rw/" + name)).mode, mode);
        EXPECT_EQ(XdrReader(Mkdir(name + "d", attributes)).U32(), 0u);
        EXPECT_EQ(ExpectedAttributes(tree_.Path("rw/" + name + "d")).mode, mode);
    }
}

TEST_P(Names, MkdirAnswersNoDirectoryData) {
    SetAttributes attributes;
    attributes.mode = 0750;
    const std::string results = Mkdir("new", attributes);
    EXPECT_EQ(Hex(results),
              Hex(StatusWord(0) + HandleOf("new") + PostOp("rw/new") + Nothing() + Nothing()));
    EXPECT_EQ(ExpectedAttributes(tree_.Path("rw/new")).mode, 0750u);
}

TEST_P(Names, MkdirOfAnExistingNameSucceeds) {
    tree_.MakeDir("rw/there");
    const std::string results = Mkdir("there");
    EXPECT_EQ(Hex(results),
              Hex(StatusWord(0) + HandleOf("there") + PostOp("rw/there") + Nothing() + Nothing()));
}

TEST_P(Names, SymlinkAnswersTheLinkAndTheDirectory) {
    const Attributes before = Before();
    const std::string results = Symlink("link", "../any where");
    EXPECT_EQ(Hex(results), Hex(StatusWord(0) + HandleOf("link") + PostOp("rw/link") +
                                PreOp(before) + PostOp("rw")));
    char target[64] = {};
    EXPECT_EQ(readlink(tree_.Path("rw/link").c_str(), target, sizeof target - 1), 12);
    EXPECT_STREQ(target, "../any where");
    EXPECT_EQ(Hex(Symlink("link", "x")), Hex(StatusWord(kExist) + PreOp(Before()) + Nothing()));
}

TEST_P(Names, MknodMakesNothing) {
    for (uint32_t type : {3u, 4u, 6u, 7u}) {
        XdrWriter what;
        what.U32(type).Raw(SetAttributes().Bytes());
        if (type == 3 || type == 4) what.U32(1).U32(3);
        EXPECT_EQ(Hex(Ask(nfs::kMknod, DirectoryName(root_, "node") + what.Bytes())),
                  Hex(StatusWord(kNotsupp) + Nothing() + Nothing()));
    }
    for (uint32_t type : {1u, 2u, 5u})
        EXPECT_EQ(
            Hex(Ask(nfs::kMknod, DirectoryName(root_, "node") + XdrWriter().U32(type).Bytes())),
            Hex(StatusWord(kBadtype) + Nothing() + Nothing()));
    EXPECT_TRUE(daemon_.WaitForLog("WARNING:\tShould Not Reached Here For Regular File"));
    EXPECT_FALSE(Exists("node"));
}

TEST_P(Names, RemoveAndRmdirAnswerTheDirectory) {
    tree_.Write("rw/file", "");
    tree_.MakeDir("rw/dir");
    Attributes before = Before();
    std::string results = Ask(nfs::kRemove, DirectoryName(root_, "file"));
    EXPECT_EQ(Hex(results), Hex(StatusWord(0) + PreOp(before) + PostOp("rw")));
    before = Before();
    results = Ask(nfs::kRmdir, DirectoryName(root_, "dir"));
    EXPECT_EQ(Hex(results), Hex(StatusWord(0) + PreOp(before) + PostOp("rw")));
    EXPECT_FALSE(Exists("file"));
    EXPECT_FALSE(Exists("dir"));
}

TEST_P(Names, RemovingAMissingNameSucceeds) {
    for (uint32_t procedure : {nfs::kRemove, nfs::kRmdir}) {
        const Attributes before = Before();
        EXPECT_EQ(Hex(Ask(procedure, DirectoryName(root_, "missing"))),
                  Hex(StatusWord(0) + PreOp(before) + PostOp("rw")));
    }
}

TEST_P(Names, ADirectoryWithNamesIsNotRemoved) {
    tree_.Write("rw/dir/file", "");
    const Attributes before = Before();
    EXPECT_EQ(Hex(Ask(nfs::kRmdir, DirectoryName(root_, "dir"))),
              Hex(StatusWord(kNotempty) + PreOp(before) + PostOp("rw")));
    EXPECT_TRUE(Exists("dir/file"));
}

TEST_P(Names, RenameAnswersBothDirectories) {
    tree_.Write("rw/from", "content");
    const Attributes before = Before();
    const std::string results = Rename("from", "to");
    EXPECT_EQ(Hex(results),
              Hex(StatusWord(0) + PreOp(before) + PostOp("rw") + PreOp(before) + PostOp("rw")));
    EXPECT_EQ(ReadFile(tree_.Path("rw/to")), "content");
    EXPECT_FALSE(Exists("from"));
}

TEST_P(Names, HandlesSurviveARename) {
    tree_.Write("rw/from", "content");
    const std::string handle = client_->Lookup(root_, "from");
    EXPECT_EQ(XdrReader(Rename("from", "to")).U32(), 0u);
    EXPECT_EQ(client_->Read(handle, 0, 100), "content");
}

TEST_P(Names, RenameOfAMissingNameIsNoent) {
    EXPECT_EQ(Hex(Rename("missing", "to")),
              Hex(StatusWord(kNoent) + Nothing() + Nothing() + Nothing() + Nothing()));
    EXPECT_TRUE(daemon_.WaitForLog("Error: Failed to rename. Source [missing] not present."));
}

TEST_P(Names, NothingIsRenamedOrLinkedIntoAnotherShare) {
    tree_.Write("rw/file", "content");
    const std::string second = client_->MountShare("/second");
    EXPECT_EQ(
        XdrReader(Ask(nfs::kRename, DirectoryName(root_, "file") + DirectoryName(second, "x")))
            .U32(),
        kXdev);
    EXPECT_EQ(XdrReader(Ask(nfs::kLink, XdrWriter()
                                            .Opaque(client_->Lookup(root_, "file"))
                                            .Raw(DirectoryName(second, "x"))
                                            .Bytes()))
                  .U32(),
              kXdev);
    EXPECT_TRUE(Exists("file"));
}

TEST_P(Names, LinkAnswersTheFileAndTheDirectory) {
    tree_.Write("rw/file", "content");
    const std::string handle = client_->Lookup(root_, "file");
    Attributes before = Before();
    std::string results = Link(handle, "second name");
    EXPECT_EQ(Hex(results), Hex(StatusWord(0) + PostOp("rw/file") + PreOp(before) + PostOp("rw")));
    EXPECT_EQ(ExpectedAttributes(tree_.Path("rw/second name")).nlink, 2u);
    // A failure tells the directory too; the file's attributes are not taken.
    before = Before();
    results = Link(handle, "second name");
    EXPECT_EQ(Hex(results), Hex(StatusWord(kExist) + Nothing() + PreOp(before) + PostOp("rw")));
}

TEST_P(Names, LinkToAVanishedFileIsStale) {
    tree_.Write("rw/file", "content");
    const std::string handle = client_->Lookup(root_, "file");
    ASSERT_EQ(unlink(tree_.Path("rw/file").c_str()), 0);
    EXPECT_EQ(Hex(Link(handle, "x")), Hex(StatusWord(kStale) + Nothing() + Nothing() + Nothing()));
    EXPECT_TRUE(daemon_.WaitForLog("Error: Target is not found. FH [] IP [127.0.0.1]"));
}

TEST_P(Names, NamesThatLeaveTheDirectoryAreRefused) {
    tree_.MakeDir("rw/dir");
    const std::string dir = client_->Lookup(root_, "dir");
    for (const char* name : {".", "..", "a/b", "../out", "/out"}) {
        NfsClient& c = *client_;
        EXPECT_NE(
            c.Status(c.Nfs(nfs::kCreate,
                           DirectoryName(dir, name) +
                               XdrWriter().U32(kGuarded).Raw(SetAttributes().Bytes()).Bytes())),
            0u)
            << name;
        EXPECT_NE(c.Status(c.Nfs(nfs::kSymlink,
                                 DirectoryName(dir, name) +
                                     XdrWriter().Raw(SetAttributes().Bytes()).Opaque("x").Bytes())),
                  0u)
            << name;
        tree_.Write("rw/file", "");
        EXPECT_NE(
            c.Status(c.Nfs(nfs::kRename, DirectoryName(root_, "file") + DirectoryName(dir, name))),
            0u)
            << name;
    }
    EXPECT_FALSE(Exists("out"));
    EXPECT_FALSE(Exists("../out"));
    EXPECT_TRUE(Exists("dir"));
}

TEST_P(Names, ChangesOnAReadOnlyShareAreRefused) {
    tree_.Write("ro/file", "");
    const std::string ro = client_->MountShare("/ro");
    const std::string none = Nothing() + Nothing();
    const std::string name = DirectoryName(ro, "file");
    const std::string attributes = SetAttributes().Bytes();
    EXPECT_EQ(Hex(Ask(nfs::kCreate, name + XdrWriter().U32(0).Raw(attributes).Bytes())),
              Hex(StatusWord(kAcces) + none));
    EXPECT_EQ(Hex(Ask(nfs::kMkdir, name + attributes)), Hex(StatusWord(kAcces) + none));
    EXPECT_EQ(Hex(Ask(nfs::kSymlink, name + attributes + XdrWriter().Opaque("x").Bytes())),
              Hex(StatusWord(kAcces) + none));
    EXPECT_EQ(Hex(Ask(nfs::kMknod, name + XdrWriter().U32(7).Raw(attributes).Bytes())),
              Hex(StatusWord(kAcces) + none));
    EXPECT_EQ(Hex(Ask(nfs::kRemove, name)), Hex(StatusWord(kAcces) + none));
    EXPECT_EQ(Hex(Ask(nfs::kRmdir, name)), Hex(StatusWord(kAcces) + none));
    EXPECT_EQ(Hex(Ask(nfs::kRename, name + name)), Hex(StatusWord(kAcces) + none + none));
    EXPECT_EQ(
        Hex(Ask(nfs::kLink, XdrWriter().Opaque(client_->Lookup(ro, "file")).Raw(name).Bytes())),
        Hex(StatusWord(kAcces) + Nothing() + none));
}

OXEL_ALL_MODES(Names);

}  // namespace
}  // namespace oxel::test
