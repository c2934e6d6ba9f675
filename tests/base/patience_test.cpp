// SPDX-License-Identifier: Apache-2.0
//
// Who waits for memory, and who is told that there is none.
#include "base/patience.h"

#include <gtest/gtest.h>

#include <new>
#include <thread>

using oxel::ImpatientNew;
using oxel::PatientNew;

namespace {

class Patience : public testing::Test {
  protected:
    void SetUp() override { oxel::InstallPatience(); }
    void TearDown() override { std::set_new_handler(nullptr); }
    // What `new` calls when it has no memory; when it comes back, it is asked for once more.
    static bool Waits() {
        try {
            std::get_new_handler()();
            return true;
        } catch (const std::bad_alloc&) {
            return false;
        }
    }
};

TEST_F(Patience, NewThrowsUnlessItsThreadIsPatient) {
    EXPECT_FALSE(Waits());
    {
        const PatientNew patient;
        EXPECT_TRUE(Waits());
        std::thread([] { EXPECT_FALSE(Waits()); }).join();
        {
            const ImpatientNew call;
            EXPECT_FALSE(Waits());
            const PatientNew again;
            EXPECT_TRUE(Waits());
        }
        EXPECT_TRUE(Waits());
    }
    EXPECT_FALSE(Waits());
}

}  // namespace
