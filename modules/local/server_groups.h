// SPDX-License-Identifier: Apache-2.0
//
// The supplementary groups of a user as this machine knows them (client option manage_gids): an RPC
// call carries 16 groups at most, and a client can claim any.
#pragma once

#include <sys/types.h>

#include <vector>

namespace oxel::local {

// Empty for a user that this machine does not know. An answer is kept for five minutes. Any thread;
// may ask the system's name services with the process's own rights.
std::vector<gid_t> GroupsOfUser(uid_t uid);

}  // namespace oxel::local
