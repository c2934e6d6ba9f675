// SPDX-License-Identifier: Apache-2.0
//
// The daemon's two ways of handling calls: with its thread pools, and all on the receive thread.
#pragma once

#include <ostream>
#include <string>

namespace oxel::test {

enum class Threads { kMany, kOne };
inline void PrintTo(Threads threads, std::ostream* out) {
    *out << (threads == Threads::kMany ? "ManyThreads" : "OneThread");
}
// The line of section "Oxel" that chooses.
inline std::string ThreadsSetting(Threads threads) {
    return std::string("nDisableMultiThreadRPC = ") + (threads == Threads::kOne ? "1" : "0") + "\n";
}

}  // namespace oxel::test
