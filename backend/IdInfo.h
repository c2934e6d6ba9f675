// SPDX-License-Identifier: Apache-2.0
//
// Who makes a call: AUTH_UNIX ids as the client sent them, before any squashing.
#pragma once

#include <sys/types.h>

#include <vector>

#include "net/CLuIPAddr.h"

struct IdInfo {
    uid_t uid = 0;
    gid_t gid = 0;
    std::vector<gid_t> groups;          // left empty by the dispatcher
    const char* machineName = nullptr;  // not owned; valid during the call only
    CLuIPAddr clientAddress;
};
