// SPDX-License-Identifier: Apache-2.0
//
// What the service manager is told (sd_notify(3)). Without one ($NOTIFY_SOCKET is not set) all of
// it does nothing. Any thread; what is told is in one order whichever threads tell it.
#pragma once

#include <cstdint>
#include <string>

namespace oxel {

bool HasServiceManager();

// How long the manager waits for a sign of life before it ends the process, in microseconds; 0 when
// it does not watch this process.
uint64_t WatchdogMicroseconds();

// The service is up. 0, or a negative errno when the manager cannot be told.
int TellReady();
// One line for people, and a sign of life when `alive`.
void TellStatus(const std::string& status, bool alive);
// The end has begun; nothing is told after it.
void TellStopping();

// Tells that the configuration is read anew, as long as it lives. Of several at once the first one
// begins it and the last one ends it.
class Reloading {
  public:
    Reloading();
    ~Reloading();
    Reloading(const Reloading&) = delete;
    Reloading& operator=(const Reloading&) = delete;

  private:
    bool counted_ = false;
};

}  // namespace oxel
