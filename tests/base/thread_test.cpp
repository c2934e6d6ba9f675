// SPDX-License-Identifier: Apache-2.0
//
// Thread names, starting and joining, and the stop wake-up.
#include "base/thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <string>
#include <thread>

#include "base/sync.h"

namespace {

struct Seen {
    std::string logName;
    char kernelName[16] = "";
    XoEvent done;
};

void* Look(void* opaque) {
    auto* seen = static_cast<Seen*>(opaque);
    seen->logName = oxel::ThreadName();
    pthread_getname_np(pthread_self(), seen->kernelName, sizeof seen->kernelName);
    seen->done.set();
    return nullptr;
}

}  // namespace

TEST(Thread, HasItsNameInTheLogAndInTheKernel) {
    Seen seen;
    XoThread thread;
    ASSERT_TRUE(thread.start("RECEIVE", Look, &seen));
    thread.join();
    EXPECT_EQ(seen.logName, "RECEIVE");
    EXPECT_STREQ(seen.kernelName, "RECEIVE");
}

TEST(Thread, LongNameIsCutForTheKernelOnly) {
    Seen seen;
    XoThread thread;
    ASSERT_TRUE(thread.start("A-NAME-OF-TWENTY-TWO-B", Look, &seen));
    thread.join();
    EXPECT_EQ(seen.logName, "A-NAME-OF-TWENTY-TWO-B");
    EXPECT_STREQ(seen.kernelName, "A-NAME-OF-TWENT");
}

TEST(Thread, NameOfAnyLengthIsSafe) {
    Seen seen;
    XoThread thread;
    ASSERT_TRUE(thread.start(std::string(1000, 'n').c_str(), Look, &seen));
    thread.join();
    EXPECT_EQ(seen.logName, std::string(31, 'n'));
}

TEST(Thread, WithoutANameIsMain) {
    std::string name;
    std::thread([&] { name = oxel::ThreadName(); }).join();
    EXPECT_EQ(name, "main");
}

TEST(Thread, StartedTwiceIsBusyUntilJoined) {
    Seen seen;
    XoThread thread;
    ASSERT_TRUE(thread.start("ONE", Look, &seen));
    EXPECT_FALSE(thread.start("TWO", Look, &seen));
    EXPECT_EQ(errno, EBUSY);
    thread.join();
    EXPECT_EQ(seen.logName, "ONE");
    ASSERT_TRUE(thread.start("TWO", Look, &seen));
    thread.join();
    EXPECT_EQ(seen.logName, "TWO");
}

TEST(Thread, NobodyNeedJoinIt) {
    Seen seen;
    {
        XoThread thread;
        ASSERT_TRUE(thread.start("ALONE", Look, &seen));
    }
    seen.done.wait();
    EXPECT_EQ(seen.logName, "ALONE");
}

TEST(Thread, JoinWithoutAThreadReturns) {
    XoThread thread;
    thread.join();
}

TEST(Sleep, WholeTimeGoesBy) {
    EXPECT_TRUE(LUSLEEP(1));
}

TEST(Sleep, EndsForEverySleeperWhenTheProcessIsToStop) {
    std::atomic<int> interrupted{0};
    std::thread sleepers[2];
    for (std::thread& sleeper : sleepers)
        sleeper = std::thread([&] {
            if (!LUSLEEP(3600 * 1000)) ++interrupted;
        });
    oxel::WakeSleepers();
    for (std::thread& sleeper : sleepers) sleeper.join();
    EXPECT_EQ(interrupted, 2);
    EXPECT_FALSE(LUSLEEP(3600 * 1000)) << "later sleeps end at once";
    oxel::ResetSleepers();
    EXPECT_TRUE(LUSLEEP(1));
}
