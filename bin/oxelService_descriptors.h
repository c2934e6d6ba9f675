// SPDX-License-Identifier: Apache-2.0
//
// Descriptor numbers for connections. The receive loop's select() watches numbers below FD_SETSIZE
// only, and whatever else the process keeps open (the shares' objects, files, caches) takes the
// lowest number that is free: without a reserve no client could connect any more after a thousand
// objects were looked at.
#pragma once

#include "base/unique_fd.h"

namespace oxel {

// From now on the numbers below FD_SETSIZE that are free now are for connections only. Does nothing
// when the process may not have many more descriptors than that. After the listening socket and
// what else the loop watches was opened. Once; receive thread.
void ReserveLowDescriptors();

// The same socket at a number that select() can watch; as it is when it has one already, or when
// none is left. Receive thread.
UniqueFd AtLowDescriptor(UniqueFd socket);

// A connection's socket is to be closed: does so, keeps its number for the next connection, and
// returns another descriptor to close in its place. Returns `fd` itself, still open, when nothing
// is reserved. Any thread.
int GiveLowDescriptorBack(int fd);

}  // namespace oxel
