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

#include "base/log_clients.h"
#include "base/log_text.h"
#include "base/own_rights.h"
#include "base/sync.h"
#include "base/thread.h"
#include "base/unique_fd.h"

namespace oxel {

std::atomic<int> LogWriter::level_{1};

namespace {

// Events of before the log is opened wait for it; more than this is dropped.
constexpr size_t kPendingBytesMax = 16384;

// Messages up to this level are counted where they are bounded; above it are traces.
constexpr int kLogLevelCounted = 1;

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
        XoCriticalSectionGuard lock(mutex_);
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
        XoCriticalSectionGuard lock(mutex_);
        return path_.empty() || OpenFile(path_.c_str());
    }

    void Write(const char* line, size_t bytes) {
        XoCriticalSectionGuard lock(mutex_);
        WriteLocked(line, bytes);
    }

    // True when the line went to standard error.
    bool WriteEvent(const char* line, size_t bytes) {
        XoCriticalSectionGuard lock(mutex_);
        if (opened_) {
            WriteLocked(line, bytes);
            return !file_;
        }
        if (pending_.size() + bytes <= kPendingBytesMax) pending_.append(line, bytes);
        return false;
    }

  private:
    int Descriptor() const REQUIRES(mutex_) { return file_ ? file_.Get() : STDERR_FILENO; }

    bool OpenFile(const char* path) REQUIRES(mutex_) {
        UniqueFd fd(open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY, 0644));
        if (!fd) return false;
        struct stat status;
        bytes_ = fstat(fd.Get(), &status) == 0 ? static_cast<uint64_t>(status.st_size) : 0;
        file_ = std::move(fd);
        return true;
    }

    void WriteLocked(const char* line, size_t bytes) REQUIRES(mutex_) {
        if (file_ && bytesMax_ != 0 && bytes_ > bytesMax_) Rotate();
        WriteAll(Descriptor(), line, bytes);
        bytes_ += bytes;
    }

    void Rotate() REQUIRES(mutex_) {
        const OwnRights own;
        const std::string old = path_ + ".old";
        if (rename(path_.c_str(), old.c_str()) != 0 || !OpenFile(path_.c_str())) {
            // Goes on with the file that it has; the next try comes a whole size later.
            bytes_ = 0;
        }
    }

    XoCriticalSection mutex_;
    UniqueFd file_ GUARDED_BY(mutex_);  // empty: standard error
    std::string path_ GUARDED_BY(mutex_);
    uint64_t bytes_ GUARDED_BY(mutex_) = 0;
    uint64_t bytesMax_ GUARDED_BY(mutex_) = 0;
    bool opened_ GUARDED_BY(mutex_) = false;
    std::string pending_ GUARDED_BY(mutex_);
};

// Never destroyed: threads may still log while the process ends.
Destination& TheDestination() {
    static auto* destination = new Destination;
    return *destination;
}

struct Sink {
    // Calls of the sink come one at a time, and none after it was removed.
    XoCriticalSection mutex;
    std::function<void(const LogRecord&)> function GUARDED_BY(mutex);
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
    XoCriticalSectionGuard lock(sink.mutex);
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

// `place`: where the message is counted, or null.
static void WriteFormatted(LogPlace* place, int level, const char* function, int line,
                           const char* format, va_list arguments) {
    const int savedErrno = errno;
    const bool bounded = ClientsLog::Bounded();
    try {
        TextBuffer text;
        text.AppendFormat(format, arguments);
        if (bounded) text.Cut(ClientsLog::kTextBytesMax);
        text.Terminate('\0');
        if (place != nullptr) RememberLogged(place, text.Data());
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
            out.AppendEscaped(text.Data(), text.Size() - 1, ControlMask(format), bounded);
            out.Terminate('\n');
            TheDestination().Write(out.Data(), out.Size());
        }
    } catch (...) {
        // A lost line is better than a lost call.
    }
    errno = savedErrno;
}

void LogWriter::Write(int level, const char* function, int line, const char* format, ...) {
    const int savedErrno = errno;  // callers report errno after they have logged, and %m needs it
    LogPlace* place = nullptr;
    if (level <= kLogLevelCounted && ClientsLog::Bounded()) {
        place = FindLogPlace(level, function, line, format);
        if (place != nullptr && !CountLogged(place)) {
            errno = savedErrno;
            return;
        }
        errno = savedErrno;
    }
    va_list arguments;
    va_start(arguments, format);
    WriteFormatted(place, level, function, line, format, arguments);
    va_end(arguments);
}

void WriteLogLine(int level, const char* function, int line, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    WriteFormatted(nullptr, level, function, line, format, arguments);
    va_end(arguments);
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
    XoCriticalSectionGuard lock(sink.mutex);
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
