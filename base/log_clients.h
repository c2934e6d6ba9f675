// SPDX-License-Identifier: Apache-2.0
//
// Messages that clients cause: where a client must not be able to fill the log, or to make it say
// what it likes, these have their lines counted, their texts cut and their characters escaped.
#pragma once

#include <cstddef>
#include <cstdint>

namespace oxel {

// While one lives, what its thread logs is what a client has caused. Cheap; may be nested.
class ClientsLog {
  public:
    ClientsLog() : outer_(inside_) { inside_ = true; }
    ~ClientsLog() { inside_ = outer_; }
    ClientsLog(const ClientsLog&) = delete;
    ClientsLog& operator=(const ClientsLog&) = delete;

    // Bounds such messages from now on, or no longer.
    static void Bound(bool bound);
    // Whether a message of this thread is bounded. Traces (levels from 2 on) are counted never:
    // whoever turns them on wants to see each.
    static bool Bounded();
    // Writes how often the messages of each place were not written, where the minute is over, or
    // (`atOnce`) in any case. To be called every few seconds, and at the end of the process.
    static void SumUp(bool atOnce = false);

    // The most that is written of one text.
    static constexpr size_t kTextBytesMax = 1024;

  private:
    static thread_local bool inside_;
    const bool outer_;
};

// The place in the code that messages come from, with how many there were. Lives for good.
class LogPlace;
// The place of a format; every place has one at most. Null when memory is short.
LogPlace* FindLogPlace(int level, const char* function, int line, const char* format) noexcept;
// Whether a message of the place is to be written now. Writes the sum of the minute before first.
bool CountLogged(LogPlace* place) noexcept;
// What the message that is written now says: an example for the sum.
void RememberLogged(LogPlace* place, const char* text) noexcept;

// As LogWriter::Write, and never bounded in number. log.cpp has it.
void WriteLogLine(int level, const char* function, int line, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

// Whether the bytes from `text` on, `left` of them, begin with something that a terminal or a
// viewer may take for the end of a line or for a command, or that is no text at all (not UTF-8):
// how many bytes that is; 0: none. For bytes from 0x80 on.
size_t UnsafeBytes(const char* text, size_t left);

}  // namespace oxel
