// SPDX-License-Identifier: Apache-2.0
//
// What a client is to be told when one operation of the back end fails in the middle of a call.
#pragma once

#include <cstdint>

#include "tests/faults/fault_plan.h"

namespace oxel::test {

// The status of RFC 1813 that stands for an errno, where it has one; otherwise the errno itself.
uint32_t StatusOf(int error);

// What the answer depends on besides program and procedure.
struct CallKind {
    uint32_t program = 0, procedure = 0;
    bool namesOwner = false;  // CREATE, MKDIR: an owner comes with the attributes
    bool mustBeNew = false;   // CREATE: GUARDED or EXCLUSIVE
    uint32_t ok = 0;          // the status without a fault
};

// The status when the `nth` call (from 1) to `operation` within this call has failed with `error`.
uint32_t StatusAfterFault(const CallKind& call, Operation operation, uint32_t nth, int error);

}  // namespace oxel::test
