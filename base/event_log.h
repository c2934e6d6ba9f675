// SPDX-License-Identifier: Apache-2.0
//
// The event log: the few messages of process life (start, refusal, end) that also go to standard
// error, and major events for a monitoring system.
#pragma once

#include <string>

// One connection to the event log. Cheap; each user makes its own.
class EvEvent {
  public:
    using Callback = void (*)(unsigned eventCode);

    // Prepares the event log once per process. Returns 1 on success.
    static int initialize(int mode, unsigned programId, int flags, Callback callback,
                          const std::string& options);
    // Ends it: what was said so far has reached the log when this returns.
    static void terminate();

    // Records a major event: its code is `code` as given (hexadecimal in the log).
    void MajorEvent(unsigned code, int severity, int category);
    void disconnect();

  private:
    bool connected_ = true;
};

class EvDebug {
  public:
    // Writes one line to the log and to standard error, under the caller's function name.
    static void Debug(const char* function, const char* format, ...)
        __attribute__((format(printf, 2, 3)));
    static void Error(const char* function, const char* format, ...)
        __attribute__((format(printf, 2, 3)));
    // Waits for a debugger when the environment variable OXEL_DEBUG_WAIT names `program`;
    // otherwise returns at once.
    static void debugWait(const char* program);
};
