// SPDX-License-Identifier: Apache-2.0
//
// The daemon ends, is killed or stands still while the kernel's client works: hard mounts wait and
// go on, and nothing that was written is lost.
#include <signal.h>

#include <filesystem>
#include <thread>

#include "tests/kernel/kernel_fixture.h"

namespace oxel::test {
namespace {

// Four processes work until /run/host/enough is there, and compare everything then.
std::string Work(const std::string& share, unsigned repeats) {
    return kLibrary + ("folder=/mnt/" + share + "/work\n") + R"(
mkdir $folder
touch /run/host/working
probe work $folder /run/host/enough )" +
           std::to_string(repeats) + R"(
diff -r --no-dereference $folder /run/host/)" +
           share + R"(/work
mount_share )" +
           share + R"( /tmp/fresh nosharecache
diff -r --no-dereference $folder /tmp/fresh/work
umount /tmp/fresh
rm -rf $folder
)";
}

class Restart : public KernelTest, public testing::WithParamInterface<const char*> {
  protected:
    void SetUp() override {
        KernelTest::SetUp();
        if (IsSkipped() || HasFatalFailure()) return;
        for (const char* file : {"enough", "working"}) std::filesystem::remove(Tree().Path(file));
    }
    void Begin(unsigned repeats = 0) {
        script_ = Client().Start(Work(GetParam(), repeats), 600);
        ASSERT_TRUE(WaitUntil([&] {
            return std::filesystem::exists(Tree().Path("working")) || Client().HasEnded(script_);
        }));
        LetWork();
    }
    static void LetWork() { std::this_thread::sleep_for(std::chrono::milliseconds(1500)); }
    void Finish() {
        LetWork();
        Tree().Write("enough", "");
        const KernelClient::Outcome outcome = Client().Wait(script_);
        Succeeds(outcome);
        printf("%s", outcome.output.c_str());
    }
    unsigned script_ = 0;
};

TEST_P(Restart, WorkGoesOnWhenTheDaemonIsRestarted) {
    Begin();
    for (int round = 0; round < 5; ++round) {
        ASSERT_EQ(Server().Stop(), 0);
        ASSERT_TRUE(Server().Start());
        LetWork();
    }
    Finish();
}

TEST_P(Restart, WorkGoesOnWhenTheDaemonIsKilled) {
    constexpr unsigned kKills = 5;
    // A RENAME, LINK or SYMLINK whose answer was lost is sent again, and has then been done before.
    Begin(kKills);
    for (unsigned round = 0; round < kKills; ++round) {
        Server().Kill();
        ASSERT_TRUE(Server().Start());
        LetWork();
    }
    Finish();
}

TEST_P(Restart, WorkGoesOnWhenTheDaemonStoodStillFor20Seconds) {
    Begin();
    Server().Signal(SIGSTOP);
    std::this_thread::sleep_for(std::chrono::seconds(20));
    EXPECT_FALSE(Client().HasEnded(script_));
    Server().Signal(SIGCONT);
    Finish();
}

INSTANTIATE_TEST_SUITE_P(Kernel, Restart, testing::Values("memory", "disk"),
                         [](const auto& info) { return std::string(info.param); });

}  // namespace
}  // namespace oxel::test
