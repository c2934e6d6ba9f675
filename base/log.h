// SPDX-License-Identifier: Apache-2.0
//
// The process's log writer. Every message of the service layer and of the procedure handlers goes
// through OXEL_LOG with a level: -1 errors and failed steps, 0 warnings, 1 information,
// 2 failed back-end calls, 3 and 4 tracing.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>

namespace oxel {

// The level under which a sink sees an event-log line.
inline constexpr int kLogLevelEvent = -2;

// One message as it is about to be written. Pointers are valid during the sink's call only.
struct LogRecord {
    int level;
    const char* function;  // the emitting function's signature, as GCC spells it
    int line;
    const char* text;  // formatted, not yet escaped
};

class LogWriter {
  public:
    // Opens (appending) the log file; "" or nullptr writes to standard error. `sizeMbMax`: the file
    // is renamed to "<path>.old" when it grows past this many MiB; 0 = never. False with errno when
    // the file cannot be opened; the writer then goes on with what it had.
    static bool Open(const char* path, unsigned sizeMbMax);
    // Opens the same path anew, after somebody moved the file away. Any thread.
    static bool Reopen();

    static int Level() { return level_.load(std::memory_order_relaxed); }
    static void SetLevel(int level) { level_.store(level, std::memory_order_relaxed); }
    // Messages of level 0 and below are always written.
    static bool Wants(int level) { return level <= 0 || level <= Level(); }

    // Formats and writes one line, in one write(2). Control characters that came in through the
    // arguments are written as \xNN, so that a client's file name cannot forge a line; those that
    // stand in `format` itself are kept. Any thread; never throws.
    static void Write(int level, const char* function, int line, const char* format, ...)
        __attribute__((format(printf, 4, 5)));

    // An event-log line: "Lev" stands for the level, and the caller's name for the signature. What
    // is said before the first Open() waits for it. True when the line went to standard error.
    static bool WriteEvent(const char* function, const char* text);

    // Tests see every message through a sink instead of the file; an empty function removes it.
    static void SetSink(std::function<void(const LogRecord&)> function);

  private:
    static std::atomic<int> level_;
};

// `text` with every control character (below 0x20, and 0x7f) that does not also occur in `keep`
// written as \xNN.
std::string EscapeControl(const std::string& text, const char* keep = "");

}  // namespace oxel

// The arguments are evaluated only when the level is on.
#define OXEL_LOG(level, ...)                                                               \
    do {                                                                                   \
        if (::oxel::LogWriter::Wants(level))                                               \
            ::oxel::LogWriter::Write((level), __PRETTY_FUNCTION__, __LINE__, __VA_ARGS__); \
    } while (0)
