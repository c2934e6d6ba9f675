// SPDX-License-Identifier: Apache-2.0
//
// Collects the messages that a test's code logs, instead of the log file.
#pragma once

#include <algorithm>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

#include "base/log.h"

namespace oxel::test {

struct LogLine {
    int level;
    std::string function;
    std::string text;
    bool operator==(const LogLine&) const = default;
};

inline void PrintTo(const LogLine& line, std::ostream* out) {
    *out << line.level << " [" << line.function << "] " << line.text;
}

// While it lives the log's level is `level` and its messages come here; then both are as before
// (no sink). Any thread may log; one capture at a time.
class LogCapture {
  public:
    explicit LogCapture(int level = 4) : levelBefore_(LogWriter::Level()) {
        LogWriter::SetLevel(level);
        LogWriter::SetSink([this](const LogRecord& record) {
            std::lock_guard<std::mutex> lock(mutex_);
            lines_.push_back({record.level, record.function, record.text});
        });
    }
    ~LogCapture() {
        LogWriter::SetSink({});
        LogWriter::SetLevel(levelBefore_);
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<LogLine> Lines() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return lines_;
    }
    // Only the messages of one level.
    std::vector<LogLine> AtLevel(int level) const {
        std::vector<LogLine> found = Lines();
        std::erase_if(found, [level](const LogLine& line) { return line.level != level; });
        return found;
    }
    // How often exactly this message came.
    size_t Count(int level, const std::string& text) const {
        const std::vector<LogLine> lines = Lines();
        return static_cast<size_t>(std::count_if(
            lines.begin(), lines.end(),
            [&](const LogLine& line) { return line.level == level && line.text == text; }));
    }
    bool Has(int level, const std::string& text) const { return Count(level, text) != 0; }
    // Every message, one per line, for a failing assertion's output.
    std::string Dump() const {
        std::string all;
        for (const LogLine& line : Lines())
            all += std::to_string(line.level) + " [" + line.function + "] " + line.text + "\n";
        return all;
    }
    void Clear() {
        std::lock_guard<std::mutex> lock(mutex_);
        lines_.clear();
    }

  private:
    const int levelBefore_;
    mutable std::mutex mutex_;
    std::vector<LogLine> lines_;  // guarded by mutex_
};

}  // namespace oxel::test
