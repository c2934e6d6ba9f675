// SPDX-License-Identifier: Apache-2.0
//
// The daemon's ways of handling calls, each of which a client must get the same answers from. Tests
// take the mode as a parameter; those that do not are run a second time by ctest, as
// "<name>_hardened", with OXEL_TEST_HARDENED set.
#pragma once

#include <gtest/gtest.h>

#include <ostream>
#include <string>

namespace oxel::test {

enum class Mode {
    kManyThreads,        // receive thread, handler threads, sender threads
    kOneThread,          // everything on the receive thread
    kHardened,           // one client cannot hurt another
    kHardenedOneThread,  // the same without handler threads
};
inline void PrintTo(Mode mode, std::ostream* out) {
    constexpr const char* kNames[] = {"ManyThreads", "OneThread", "Hardened", "HardenedOneThread"};
    *out << kNames[static_cast<int>(mode)];
}
inline bool IsHardened(Mode mode) {
    return mode == Mode::kHardened || mode == Mode::kHardenedOneThread;
}
inline bool IsOneThread(Mode mode) {
    return mode == Mode::kOneThread || mode == Mode::kHardenedOneThread;
}
// The lines of section "Oxel" that choose.
inline std::string ModeSettings(Mode mode) {
    return std::string("nDisableMultiThreadRPC = ") + (IsOneThread(mode) ? "1" : "0") +
           "\nnHardened = " + (IsHardened(mode) ? "1" : "0") + "\n";
}

}  // namespace oxel::test

// Instantiates a suite that has the mode as its parameter. Threads make no difference to what is
// hardened but to who handles calls, so that one of the two is enough for most suites.
#define OXEL_ALL_MODES(suite)                                                         \
    INSTANTIATE_TEST_SUITE_P(                                                         \
        Modes, suite,                                                                 \
        testing::Values(oxel::test::Mode::kManyThreads, oxel::test::Mode::kOneThread, \
                        oxel::test::Mode::kHardened),                                 \
        testing::PrintToStringParamName())
#define OXEL_DEFAULT_MODES(suite)                                                      \
    INSTANTIATE_TEST_SUITE_P(                                                          \
        Modes, suite,                                                                  \
        testing::Values(oxel::test::Mode::kManyThreads, oxel::test::Mode::kOneThread), \
        testing::PrintToStringParamName())
#define OXEL_HARDENED_MODES(suite)                                                          \
    INSTANTIATE_TEST_SUITE_P(                                                               \
        Modes, suite,                                                                       \
        testing::Values(oxel::test::Mode::kHardened, oxel::test::Mode::kHardenedOneThread), \
        testing::PrintToStringParamName())
