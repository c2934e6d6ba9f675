// SPDX-License-Identifier: Apache-2.0
//
// Formatting, escaping, writing and rotation of log lines. Nothing here throws: what does not fit
// into memory is cut.
#include "base/log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "base/own_rights.h"
#include "base/thread.h"
#include "base/unique_fd.h"

namespace oxel {

std::atomic<int> LogWriter::level_{1};

namespace {

// Events of before the log is opened wait for it; more than this is dropped.
constexpr size_t kPendingBytesMax = 16384;

// Which control characters pass unescaped: bit c for c below 0x20, bit 32 for 0x7f.
uint64_t ControlMask(const char* text) {
    uint64_t mask = 0;
    for (; *text != '\0'; ++text) {
        const auto c = static_cast<unsigned char>(*text);
        if (c < 0x20) mask |= uint64_t{1} << c;
        if (c == 0x7f) mask |= uint64_t{1} << 32;
    }
    return mask;
}

bool MustEscape(unsigned char c, uint64_t keep) {
    if (c >= 0x20 && c != 0x7f) return false;
    return (keep >> (c == 0x7f ? 32 : c) & 1) == 0;
}

void PutEscape(unsigned char c, char* out) {
    static const char kDigits[] = "0123456789abcdef";
    out[0] = '\\';
    out[1] = 'x';
    out[2] = kDigits[c >> 4];
    out[3] = kDigits[c & 15];
}

// Text that grows on the stack first and on the heap when it must; cut when memory is short.
class TextBuffer {
  public:
    TextBuffer() = default;
    ~TextBuffer() {
        if (data_ != stack_) free(data_);
    }
    TextBuffer(const TextBuffer&) = delete;
    TextBuffer& operator=(const TextBuffer&) = delete;

    const char* Data() const { return data_; }
    size_t Size() const { return size_; }

    void Append(const char* text, size_t bytes) {
        bytes = std::min(bytes, Room(bytes));
        memcpy(data_ + size_, text, bytes);
        size_ += bytes;
    }
    void Append(const char* text) { Append(text, strlen(text)); }

    void AppendEscaped(const char* text, size_t bytes, uint64_t keep) {
        size_t begin = 0;
        for (size_t i = 0; i < bytes; ++i) {
            const auto c = static_cast<unsigned char>(text[i]);
            if (!MustEscape(c, keep)) continue;
            Append(text + begin, i - begin);
            char escape[4];
            PutEscape(c, escape);
            Append(escape, sizeof escape);
            begin = i + 1;
        }
        Append(text + begin, bytes - begin);
    }

    // Decimal, filled with zeros up to `width`.
    void AppendNumber(unsigned long number, int width = 1) {
        char digits[24];
        int count = 0;
        do {
            digits[count++] = static_cast<char>('0' + number % 10);
            number /= 10;
        } while (number != 0 || count < width);
        char text[24];
        for (int i = 0; i < count; ++i) text[i] = digits[count - 1 - i];
        Append(text, static_cast<size_t>(count));
    }

    void AppendFormat(const char* format, va_list arguments) {
        va_list again;
        va_copy(again, arguments);
        const int bytes = vsnprintf(data_ + size_, capacity_ - size_, format, arguments);
        if (bytes < 0) {
            Append(format);  // an argument that cannot be printed: at least the message
        } else if (static_cast<size_t>(bytes) < capacity_ - size_) {
            size_ += static_cast<size_t>(bytes);
        } else {
            const size_t room = Room(static_cast<size_t>(bytes) + 1);
            (void)vsnprintf(data_ + size_, room, format, again);  // known to be printable
            size_ += std::min(room - 1, static_cast<size_t>(bytes));
        }
        va_end(again);
    }

    // Ends the text with `c`, which replaces the last character when there is no room for more.
    void Terminate(char c) {
        if (Room(1) == 0) --size_;
        data_[size_++] = c;
    }

  private:
    // Makes room for `bytes` more if it can, and tells how much room there is.
    size_t Room(size_t bytes) {
        if (capacity_ - size_ >= bytes) return capacity_ - size_;
        const size_t capacity = std::max(size_ + bytes, 2 * capacity_);
        char* data = static_cast<char*>(data_ == stack_ ? malloc(capacity)  //
                                                        : realloc(data_, capacity));
        if (data == nullptr) return capacity_ - size_;
        if (data_ == stack_) memcpy(data, stack_, size_);
        data_ = data;
        capacity_ = capacity;
        return capacity_ - size_;
    }

    char stack_[1024];
    char* data_ = stack_;
    size_t size_ = 0;
    size_t capacity_ = sizeof stack_;
};

// "2026-11-21T07:40:01.123456Z 4711 [OXEL-3] ". Done by hand: gmtime_r takes a process-wide lock.
void AppendPrefix(TextBuffer& line) {
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    const auto seconds = static_cast<unsigned long>(now.tv_sec);
    const unsigned long secondOfDay = seconds % 86400;
    // Days to a date of the Gregorian calendar, years counted from 1 March so that the leap day is
    // the last of its year.
    const unsigned long day = seconds / 86400 + 719468;
    const unsigned long era = day / 146097, dayOfEra = day % 146097;
    const unsigned long yearOfEra =
        (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const unsigned long dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const unsigned long monthFromMarch = (5 * dayOfYear + 2) / 153;
    const unsigned long month = monthFromMarch < 10 ? monthFromMarch + 3 : monthFromMarch - 9;
    line.AppendNumber(era * 400 + yearOfEra + (month <= 2 ? 1 : 0), 4);
    line.Append("-", 1);
    line.AppendNumber(month, 2);
    line.Append("-", 1);
    line.AppendNumber(dayOfYear - (153 * monthFromMarch + 2) / 5 + 1, 2);
    line.Append("T", 1);
    line.AppendNumber(secondOfDay / 3600, 2);
    line.Append(":", 1);
    line.AppendNumber(secondOfDay / 60 % 60, 2);
    line.Append(":", 1);
    line.AppendNumber(secondOfDay % 60, 2);
    line.Append(".", 1);
    line.AppendNumber(static_cast<unsigned long>(now.tv_nsec) / 1000, 6);
    line.Append("Z ", 2);
    line.AppendNumber(static_cast<unsigned long>(getpid()));
    line.Append(" [", 2);
    line.Append(ThreadName());
    line.Append("] ", 2);
}

void WriteAll(int fd, const char* data, size_t bytes) {
    while (bytes > 0) {
        const ssize_t written = write(fd, data, bytes);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return;  // a full disk loses log lines, nothing else
        data += written;
        bytes -= static_cast<size_t>(written);
    }
}

// The log's destination. Writing happens under the lock, so that a rotation never pulls the
// descriptor from under another thread's line.
class Destination {
  public:
    bool Open(const char* path, unsigned sizeMbMax) {
        std::lock_guard<std::mutex> lock(mutex_);
        const bool toFile = path != nullptr && *path != '\0';
        if (toFile && !OpenFile(path)) return false;
        path_ = toFile ? path : "";
        if (!toFile) file_.Reset();
        bytesMax_ = uint64_t{sizeMbMax} << 20;
        opened_ = true;
        WriteAll(Descriptor(), pending_.data(), pending_.size());
        bytes_ += pending_.size();
        std::string().swap(pending_);
        return true;
    }

    bool Reopen() {
        std::lock_guard<std::mutex> lock(mutex_);
        return path_.empty() || OpenFile(path_.c_str());
    }

    void Write(const char* line, size_t bytes) {
        std::lock_guard<std::mutex> lock(mutex_);
        WriteLocked(line, bytes);
    }

    // True when the line went to standard error.
    bool WriteEvent(const char* line, size_t bytes) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (opened_) {
            WriteLocked(line, bytes);
            return !file_;
        }
        if (pending_.size() + bytes <= kPendingBytesMax) pending_.append(line, bytes);
        return false;
    }

  private:
    int Descriptor() const { return file_ ? file_.Get() : STDERR_FILENO; }

    bool OpenFile(const char* path) {
        UniqueFd fd(open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY, 0644));
        if (!fd) return false;
        struct stat status;
        bytes_ = fstat(fd.Get(), &status) == 0 ? static_cast<uint64_t>(status.st_size) : 0;
        file_ = std::move(fd);
        return true;
    }

    void WriteLocked(const char* line, size_t bytes) {
        if (file_ && bytesMax_ != 0 && bytes_ > bytesMax_) Rotate();
        WriteAll(Descriptor(), line, bytes);
        bytes_ += bytes;
    }

    void Rotate() {
        const OwnRights own;
        const std::string old = path_ + ".old";
        if (rename(path_.c_str(), old.c_str()) != 0 || !OpenFile(path_.c_str())) {
            // Goes on with the file that it has; the next try comes a whole size later.
            bytes_ = 0;
        }
    }

    std::mutex mutex_;
    // All below guarded by mutex_.
    UniqueFd file_;  // empty: standard error
    std::string path_;
    uint64_t bytes_ = 0;
    uint64_t bytesMax_ = 0;
    bool opened_ = false;
    std::string pending_;
};

// Never destroyed: threads may still log while the process ends.
Destination& TheDestination() {
    static auto* destination = new Destination;
    return *destination;
}

struct Sink {
    std::mutex mutex;  // calls of the sink come one at a time, and none after it was removed
    std::function<void(const LogRecord&)> function;
};

Sink& TheSink() {
    static auto* sink = new Sink;
    return *sink;
}

std::atomic<bool> gSinkSet{false};

// True when a sink took the message.
bool GiveToSink(const LogRecord& record) {
    if (!gSinkSet.load(std::memory_order_acquire)) return false;
    Sink& sink = TheSink();
    std::lock_guard<std::mutex> lock(sink.mutex);
    if (!sink.function) return false;
    sink.function(record);
    return true;
}

}  // namespace

bool LogWriter::Open(const char* path, unsigned sizeMbMax) {
    return TheDestination().Open(path, sizeMbMax);
}

bool LogWriter::Reopen() {
    return TheDestination().Reopen();
}

void LogWriter::Write(int level, const char* function, int line, const char* format, ...) {
    const int savedErrno = errno;  // callers report errno after they have logged, and %m needs it
    try {
        TextBuffer text;
        va_list arguments;
        va_start(arguments, format);
        text.AppendFormat(format, arguments);
        va_end(arguments);
        text.Terminate('\0');
        if (!GiveToSink({level, function, line, text.Data()})) {
            TextBuffer out;
            AppendPrefix(out);
            out.Append(level < 0 ? "L-" : "L");
            out.AppendNumber(level < 0 ? 0ul - static_cast<unsigned long>(level)
                                       : static_cast<unsigned long>(level));
            out.Append(" ", 1);
            out.Append(function);
            out.Append(":", 1);
            out.AppendNumber(static_cast<unsigned long>(line));
            out.Append(" ", 1);
            out.AppendEscaped(text.Data(), text.Size() - 1, ControlMask(format));
            out.Terminate('\n');
            TheDestination().Write(out.Data(), out.Size());
        }
    } catch (...) {
        // A lost line is better than a lost call.
    }
    errno = savedErrno;
}

bool LogWriter::WriteEvent(const char* function, const char* text) {
    const int savedErrno = errno;
    bool onStandardError = false;
    try {
        if (!GiveToSink({kLogLevelEvent, function, 0, text})) {
            TextBuffer out;
            AppendPrefix(out);
            out.Append("Lev ");
            out.Append(function);
            out.Append(": ", 2);
            out.AppendEscaped(text, strlen(text), 0);
            out.Terminate('\n');
            onStandardError = TheDestination().WriteEvent(out.Data(), out.Size());
        }
    } catch (...) {
        // As above.
    }
    errno = savedErrno;
    return onStandardError;
}

void LogWriter::SetSink(std::function<void(const LogRecord&)> function) {
    Sink& sink = TheSink();
    std::lock_guard<std::mutex> lock(sink.mutex);
    sink.function = std::move(function);
    gSinkSet.store(static_cast<bool>(sink.function), std::memory_order_release);
}

std::string EscapeControl(const std::string& text, const char* keep) {
    const uint64_t mask = ControlMask(keep);
    std::string out;
    out.reserve(text.size());
    for (const char character : text) {
        const auto c = static_cast<unsigned char>(character);
        if (MustEscape(c, mask)) {
            char escape[4];
            PutEscape(c, escape);
            out.append(escape, sizeof escape);
        } else {
            out.push_back(character);
        }
    }
    return out;
}

}  // namespace oxel
