// SPDX-License-Identifier: Apache-2.0
//
// Runs the tests, as an ordinary user when OXEL_TEST_AS_USER is set: root's rights are given up
// before the module is touched.
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv) {
    if (getenv("OXEL_TEST_AS_USER") != nullptr && geteuid() == 0 &&
        (setgroups(0, nullptr) != 0 || setgid(65534) != 0 || setuid(65534) != 0)) {
        perror("cannot become an ordinary user");
        return 1;
    }
    // The change of user took /proc/self away from this process.
    prctl(PR_SET_DUMPABLE, 1);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
