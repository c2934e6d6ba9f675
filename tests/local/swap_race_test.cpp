// SPDX-License-Identifier: Apache-2.0
//
// Somebody on the server swaps a directory for a symbolic link that leads out of the share, again
// and again, while calls change what is below it. Whatever they answer, nothing outside changes.
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "tests/local/change_fixture.h"

namespace oxel::testing {
namespace {

class SwapRace : public ChangeTest {
  protected:
    void SetUp() override {
        ChangeTest::SetUp();
        for (const std::string& directory : {InShare("d"), Beside("d")}) {
            MakeDir(directory, 0777);
            MakeDir(directory + "/sub", 0777);
            WriteFile(directory + "/f", "untouched");
            WriteFile(directory + "/sub/f", "untouched");
        }
        ASSERT_EQ(symlink(Beside("d").c_str(), InShare("link").c_str()), 0);
    }
    // Everything outside as text: names, modes, contents, link counts.
    std::string Outside() {
        std::string text;
        std::vector<std::string> paths;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(Beside("")))
            paths.push_back(entry.path());
        std::sort(paths.begin(), paths.end());
        for (const std::string& path : paths) {
            const struct stat st = StatOf(path);
            text += path + " " + std::to_string(st.st_mode) + " " + std::to_string(st.st_nlink);
            if (S_ISREG(st.st_mode)) text += " " + TextOf(path);
            text += "\n";
        }
        return text;
    }
};

// The same with the swap between finding the directory and each call, every time.
TEST_F(SwapRace, ADirectoryThatWasFoundIsMeantWhateverItsNameLeadsTo) {
    const std::string before = Outside();
    const BkEndProcPtr d = Find("d"), f = Find("d/f");
    ASSERT_TRUE(d && f);
    ASSERT_EQ(syscall(SYS_renameat2, AT_FDCWD, InShare("d").c_str(), AT_FDCWD,
                      InShare("link").c_str(), RENAME_EXCHANGE),
              0);
    const std::string path = d->GetPath();
    ASSERT_EQ(path, InShare("d"));
    OxelCtxt ctxt = Context(d);
    const BkEndProcPtr made = d->CreateChild(&ctxt, "new", 0x442, 0666);
    ASSERT_TRUE(made);
    EXPECT_TRUE(Exists(InShare("link/new")));
    EXPECT_EQ(WriteToObject(made, "written", 0, FILE_SYNC), 0);
    EXPECT_EQ(TextOf(InShare("link/new")), "written");
    const BkEndProcPtr madeDirectory = d->CreateChildDir(&ctxt, "newd", 0777);
    ASSERT_TRUE(madeDirectory);
    EXPECT_EQ(d->CreateSymlink(&ctxt, "target", path + "/newl"), 0);
    EXPECT_TRUE(Exists(InShare("link/newd")) && Exists(InShare("link/newl")));
    EXPECT_EQ(Outside(), before);

    EXPECT_EQ(RenameObject(f, d, "f", d, "g"), 0);
    EXPECT_TRUE(Exists(InShare("link/g")));
    EXPECT_EQ(UnlinkObject(d, f, "g"), 0);
    EXPECT_EQ(UnlinkObject(d, made, "new"), 0);
    EXPECT_EQ(RemoveDirectoryObject(d, madeDirectory, "newd"), 0);
    EXPECT_FALSE(Exists(InShare("link/g")) || Exists(InShare("link/new")));
    // A path from before leads nowhere outside either.
    EXPECT_EQ(d->HardLink(&ctxt, path + "/sub/f", path + "/hard"), -1);
    EXPECT_EQ(Outside(), before);
}

TEST_F(SwapRace, NothingOutsideChanges) {
    // More when the other thread had no turn meanwhile: the directory is away all the time then, or
    // never.
    constexpr int kRounds = 300, kRoundsMax = 1000000;
    const std::string before = Outside();
    std::atomic<bool> stop{false};
    std::atomic<int> swaps{0};
    std::thread swapper([&] {
        while (!stop) {
            if (syscall(SYS_renameat2, AT_FDCWD, InShare("d").c_str(), AT_FDCWD,
                        InShare("link").c_str(), RENAME_EXCHANGE) == 0)
                ++swaps;
        }
    });
    int done = 0;
    for (int round = 0; round < kRounds || (round < kRoundsMax && (swaps == 0 || done == 0));
         ++round) {
        // Both by a fresh walk and with a directory found before.
        OxelCtxt atRoot = Context(Root());
        const BkEndProcPtr d = Root()->FindChild(&atRoot, "d");
        if (!d) continue;
        const std::string& path = d->GetPath();
        OxelCtxt ctxt = Context(d);
        if (const BkEndProcPtr made = d->CreateChild(&ctxt, "new", 0x442, 0666)) {
            ++done;
            (void)WriteToObject(made, "written", 0, round % 16 == 0 ? FILE_SYNC : UNSTABLE);
            (void)UnlinkObject(d, made, "new");
        }
        if (const BkEndProcPtr made = d->CreateChildDir(&ctxt, "newd", 0777)) {
            (void)RenameObject(made, d, "newd", d, "newe");
            (void)RemoveDirectoryObject(d, made, "newe");
        }
        (void)d->CreateSymlink(&ctxt, "target", path + "/newl");
        if (const BkEndProcPtr link = d->FindChild(&ctxt, "newl"))
            (void)UnlinkObject(d, link, "newl");
        if (const BkEndProcPtr f = d->FindChild(&ctxt, "f")) {
            (void)WriteToObject(f, "changed", 0, UNSTABLE);
            (void)d->HardLink(&ctxt, path + "/f", path + "/hard");
            (void)d->HardLink(&ctxt, path + "/sub/f", path + "/hard");
            if (const BkEndProcPtr hard = d->FindChild(&ctxt, "hard"))
                (void)UnlinkObject(d, hard, "hard");
            (void)RenameObject(f, d, "f", d, "g");
            (void)RenameObject(f, d, "g", d, "f");
        }
        RestoreOwnRights();
    }
    stop = true;
    swapper.join();
    EXPECT_GT(swaps, 0);
    EXPECT_GT(done, 0);
    EXPECT_EQ(Outside(), before);
}

}  // namespace
}  // namespace oxel::testing
