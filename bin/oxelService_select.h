// SPDX-License-Identifier: Apache-2.0
//
// Listening transports of the receive loop that reads as the RPC library does.
#pragma once

#include <rpc/rpc.h>

// Makes a listening transport accept through this daemon instead of the library's own function.
void GuardListener(SVCXPRT* listener);
// Gives a listening transport its own operations back, so that it can be destroyed: the library
// recognises its listeners by them.
void UnguardListener(SVCXPRT* listener);
