// SPDX-License-Identifier: Apache-2.0
//
// Event-log lines: to the log under the caller's name, and as plain words to standard error, where
// whoever starts the daemon by hand sees them.
#include "base/event_log.h"

#include <strings.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/log.h"
#include "base/thread.h"

namespace {

constexpr size_t kEventTextBytes = 2048;
constexpr uint32_t kDebuggerPollMs = 200;

void ToStandardError(const std::string& line) {
    // One write, so that lines of several threads do not mix; nobody to tell when it fails.
    if (write(STDERR_FILENO, line.data(), line.size()) < 0) return;
}

bool IsTraced() {
    FILE* file = fopen("/proc/self/status", "re");
    if (file == nullptr) return false;
    char line[256];
    long tracer = 0;
    while (fgets(line, sizeof line, file) != nullptr) {
        if (strncmp(line, "TracerPid:", 10) == 0) tracer = strtol(line + 10, nullptr, 10);
    }
    (void)fclose(file);  // it was only read
    return tracer != 0;
}

}  // namespace

int EvEvent::initialize(int, unsigned, int, Callback, const std::string&) {
    return 1;
}

void EvEvent::terminate() {
    // Every line was written when it was said.
}

void EvEvent::MajorEvent(unsigned code, int severity, int category) {
    if (!connected_) return;
    OXEL_LOG(-1, "Major event 0x%08X severity [%d] category [%d]", code, severity, category);
}

void EvEvent::disconnect() {
    connected_ = false;
}

void EvDebug::Debug(const char* function, const char* format, ...) {
    char text[kEventTextBytes];
    va_list arguments;
    va_start(arguments, format);
    (void)vsnprintf(text, sizeof text, format, arguments);  // longer texts are cut
    va_end(arguments);
    if (!oxel::LogWriter::WriteEvent(function, text))
        ToStandardError(oxel::EscapeControl(text) + "\n");
}

void EvDebug::Error(const char* function, const char* format, ...) {
    char text[kEventTextBytes];
    va_list arguments;
    va_start(arguments, format);
    (void)vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    // An error's function names the failed step, without which its text says little.
    if (!oxel::LogWriter::WriteEvent(function, text))
        ToStandardError(std::string(function) + ": " + oxel::EscapeControl(text) + "\n");
}

void EvDebug::debugWait(const char* program) {
    const char* wanted = getenv("OXEL_DEBUG_WAIT");
    if (wanted == nullptr || strcasecmp(wanted, program) != 0) return;
    Debug("debugWait", "Process %d waits for a debugger.", static_cast<int>(getpid()));
    while (!IsTraced() && LUSLEEP(kDebuggerPollMs)) {
    }
}
