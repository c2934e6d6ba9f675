// SPDX-License-Identifier: Apache-2.0
//
// The thread that tells the service manager how the daemon is doing: a line for people every few
// seconds, and, when the manager watches, a sign of life while the receive loops turn.
#pragma once

#include <cstdint>
#include <string>

// Starts the thread; does nothing without a service manager.
void StartNotifying();
// Has the line refreshed now.
void RefreshStatusLine();
// Tells that the end has begun, unless the manager does not take it within `milliseconds`.
void StopNotifying(uint32_t milliseconds);

// The line, given how many calls came in the last second.
std::string StatusLine(uint64_t callsPerSecond);
