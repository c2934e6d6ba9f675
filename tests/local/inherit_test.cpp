// SPDX-License-Identifier: Apache-2.0
//
// What a directory hands down to what is made in it, and what the last step of CREATE and MKDIR,
// the giving of the new object to its caller, leaves alone.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "tests/local/change_fixture.h"

namespace oxel::testing {
namespace {

constexpr uid_t kAlice = 41000, kBob = 41001;
constexpr gid_t kStaff = 42000, kOthers = 42001, kTeam = 42002;
constexpr int kUnchecked = 0x442, kGuarded = 0x40, kExclusive = 0xC0;

class Inherit : public ChangeTest {
  protected:
    void SetUp() override {
        ChangeTest::SetUp();
        MakeDir(InShare("team"));
        MakeDir(InShare("plain"));
        if (geteuid() != 0) return;
        ASSERT_EQ(chown(InShare("team").c_str(), 0, kTeam), 0);
        ASSERT_EQ(chmod(InShare("team").c_str(), 02777), 0);
        ASSERT_EQ(chmod(InShare("plain").c_str(), 0777), 0);
    }

    // CREATE as its handler makes it; the errno of the call that fails.
    int CreateCall(uid_t uid, gid_t gid, const std::string& directory, const std::string& name,
                   mode_t mode, int flags = kUnchecked) {
        ActAs(uid, gid);
        const BkEndProcPtr parent = Resolve(HandleAt(directory));
        OxelCtxt ctxt = Context(parent);
        BkEndProcPtr child = parent->FindChild(&ctxt, name);
        if (!child) child = parent->CreateChild(&ctxt, name, flags, mode);
        return Finish(child, mode, flags != kExclusive);
    }
    int MkdirCall(uid_t uid, gid_t gid, const std::string& directory, const std::string& name,
                  mode_t mode) {
        ActAs(uid, gid);
        const BkEndProcPtr parent = Resolve(HandleAt(directory));
        OxelCtxt ctxt = Context(parent);
        BkEndProcPtr child = parent->FindChild(&ctxt, name);
        if (!child) child = parent->CreateChildDir(&ctxt, name, mode);
        return Finish(child, mode, true);
    }
    // The owner that the client names beside the mode, when it names one.
    std::pair<uid_t, gid_t> named_{-1, -1};

    void ExpectOwner(const std::string& name, uid_t uid, gid_t gid, mode_t mode) {
        const struct stat st = StatOf(InShare(name));
        EXPECT_EQ(st.st_uid, uid) << name;
        EXPECT_EQ(st.st_gid, gid) << name;
        EXPECT_EQ(st.st_mode & 07777, mode) << name;
    }

  private:
    int Finish(const BkEndProcPtr& child, mode_t mode, bool attributes) {
        if (!child) return errno;
        OxelCtxt ctxt(Caller(), share_, child);
        const std::string path = child->GetPath();
        if (attributes) (void)child->Chmod(&ctxt, path, mode);
        if (named_.first != static_cast<uid_t>(-1)) {
            (void)child->Chown(&ctxt, path, named_.first, named_.second);
        }
        const int error =
            ErrnoOf([&] { return child->Chown(&ctxt, "/", Caller().uid, Caller().gid); });
        RestoreOwnRights();
        return error;
    }
};

TEST_F(Inherit, ASetgidDirectoryHandsDownItsGroup) {
    SKIP_UNLESS_ROOT();
    for (const int flags : {kUnchecked, kGuarded, kExclusive}) {
        const std::string name = "f" + std::to_string(flags);
        EXPECT_EQ(CreateCall(kAlice, kStaff, "team", name, 0640, flags), 0);
        ExpectOwner("team/" + name, kAlice, kTeam, 0640);
    }
    EXPECT_EQ(MkdirCall(kAlice, kStaff, "team", "d", 0750), 0);
    ExpectOwner("team/d", kAlice, kTeam, 02750);
    EXPECT_EQ(CreateCall(kBob, kOthers, "team", "of bob", 0600), 0);
    ExpectOwner("team/of bob", kBob, kTeam, 0600);
    EXPECT_EQ(CreateCall(0, 0, "team", "of root", 0600), 0);
    ExpectOwner("team/of root", 0, kTeam, 0600);
    // And further down.
    EXPECT_EQ(MkdirCall(0, 0, "team/d", "e", 0700), 0);
    ExpectOwner("team/d/e", 0, kTeam, 02700);
}

TEST_F(Inherit, ARepeatedCallLeavesWhatTheFirstOneMade) {
    SKIP_UNLESS_ROOT();
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(CreateCall(kAlice, kStaff, "team", "f", 0640), 0);
        ExpectOwner("team/f", kAlice, kTeam, 0640);
        EXPECT_EQ(MkdirCall(kAlice, kStaff, "team", "d", 0750), 0);
        ExpectOwner("team/d", kAlice, kTeam, 02750);
        Restart();
    }
}

TEST_F(Inherit, OtherDirectoriesHandDownNothing) {
    SKIP_UNLESS_ROOT();
    ASSERT_EQ(chown(InShare("plain").c_str(), 0, kTeam), 0);
    EXPECT_EQ(CreateCall(kAlice, kStaff, "plain", "f", 0640), 0);
    ExpectOwner("plain/f", kAlice, kStaff, 0640);
    EXPECT_EQ(MkdirCall(kAlice, kStaff, "plain", "d", 0750), 0);
    ExpectOwner("plain/d", kAlice, kStaff, 0750);
}

// RFC 1813 leaves open who owns a file that CREATE finds; this server gives it to the caller.
TEST_F(Inherit, AnExistingFileBecomesTheCallers) {
    SKIP_UNLESS_ROOT();
    WriteFile(InShare("plain/f"), "text");
    ASSERT_EQ(chown(InShare("plain/f").c_str(), kAlice, kStaff), 0);
    EXPECT_EQ(CreateCall(kBob, kOthers, "plain", "f", 0644), EPERM);
    ExpectOwner("plain/f", kAlice, kStaff, 0644);
    EXPECT_EQ(CreateCall(0, 0, "plain", "f", 0644), 0);
    ExpectOwner("plain/f", 0, 0, 0644);
    // In a setgid directory only what has the directory's group keeps it.
    WriteFile(InShare("team/f"), "text");
    ASSERT_EQ(chown(InShare("team/f").c_str(), kAlice, kOthers), 0);
    EXPECT_EQ(CreateCall(0, 0, "team", "f", 0644), 0);
    ExpectOwner("team/f", 0, 0, 0644);
    ASSERT_EQ(chown(InShare("team/f").c_str(), kAlice, kTeam), 0);
    EXPECT_EQ(CreateCall(0, 0, "team", "f", 0644), 0);
    ExpectOwner("team/f", 0, kTeam, 0644);
}

TEST_F(Inherit, AnOwnerThatIsNamedIsReplacedByTheCaller) {
    SKIP_UNLESS_ROOT();
    named_ = {kBob, kOthers};
    EXPECT_EQ(CreateCall(0, 0, "plain", "f", 0644), 0);
    ExpectOwner("plain/f", 0, 0, 0644);
    EXPECT_EQ(MkdirCall(0, 0, "team", "d", 0755), 0);
    ExpectOwner("team/d", 0, 0, 02755);
}

TEST_F(Inherit, SetIdBitsThatWereAskedForStay) {
    const uid_t uid = geteuid();
    const gid_t gid = getegid();
    for (const mode_t mode : {04755, 02755, 06711, 01644}) {
        const std::string name = "f" + std::to_string(mode);
        EXPECT_EQ(CreateCall(uid, gid, "plain", name, mode), 0);
        EXPECT_EQ(StatOf(InShare("plain/" + name)).st_mode & 07777, mode);
        EXPECT_EQ(CreateCall(uid, gid, "plain", name + "x", mode, kExclusive), 0);
        EXPECT_EQ(StatOf(InShare("plain/" + name + "x")).st_mode & 07777, mode);
        EXPECT_EQ(MkdirCall(uid, gid, "plain", name + "d", mode), 0);
        EXPECT_EQ(StatOf(InShare("plain/" + name + "d")).st_mode & 07777, mode);
    }
}

TEST_F(Inherit, SetattrStillTakesTheBitFromADirectory) {
    SKIP_UNLESS_ROOT();
    ASSERT_EQ(MkdirCall(0, 0, "team", "d", 0755), 0);
    ExpectOwner("team/d", 0, kTeam, 02755);
    const BkEndProcPtr d = Resolve(HandleAt("team/d"));
    OxelCtxt ctxt = Context(d);
    EXPECT_EQ(d->Chmod(&ctxt, d->GetPath(), 0755), 0);
    ExpectOwner("team/d", 0, kTeam, 0755);
    // And a chown to the caller's own ids is one like any other.
    EXPECT_EQ(d->Chown(&ctxt, d->GetPath(), 0, 0), 0);
    ExpectOwner("team/d", 0, 0, 0755);
}

TEST_F(Inherit, SquashedCallersMakeFilesOfTheDirectorysGroup) {
    SKIP_UNLESS_ROOT();
    options_.rootSquash = true;
    options_.anonUid = kAlice;
    options_.anonGid = kStaff;
    SetOptions(options_);
    EXPECT_EQ(CreateCall(0, 0, "team", "f", 0644), 0);
    ExpectOwner("team/f", kAlice, kTeam, 0644);
    EXPECT_EQ(CreateCall(0, 0, "plain", "f", 0644), 0);
    ExpectOwner("plain/f", kAlice, kStaff, 0644);
}

}  // namespace
}  // namespace oxel::testing
