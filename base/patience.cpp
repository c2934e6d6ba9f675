// SPDX-License-Identifier: Apache-2.0
//
// The handler that `new` calls when it has no memory.
#include "base/patience.h"

#include <poll.h>

#include <new>
#include <utility>

namespace oxel {

static thread_local bool tPatient = false;

static void WaitOrThrow() {
    constexpr int kLookMs = 10;
    if (!tPatient) throw std::bad_alloc();
    (void)poll(nullptr, 0, kLookMs);
}

void InstallPatience() {
    std::set_new_handler(WaitOrThrow);
}

PatientNew::PatientNew() : before_(std::exchange(tPatient, true)) {}
PatientNew::~PatientNew() {
    tPatient = before_;
}

ImpatientNew::ImpatientNew() : before_(std::exchange(tPatient, false)) {}
ImpatientNew::~ImpatientNew() {
    tPatient = before_;
}

}  // namespace oxel
