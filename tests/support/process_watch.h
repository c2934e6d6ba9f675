// SPDX-License-Identifier: Apache-2.0
//
// What a running process uses, as /proc tells it.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace oxel::test {

// Memory in use now, and the most since the last ForgetPeak(); KiB. 0, with the test failed, when
// the process is gone.
uint64_t ResidentKiB(pid_t pid);
uint64_t PeakResidentKiB(pid_t pid);
void ForgetPeak(pid_t pid);

size_t OpenDescriptors(pid_t pid);
// What they lead to, sorted, one a line: for a test that has found too many.
std::string DescriptorList(pid_t pid);

}  // namespace oxel::test
