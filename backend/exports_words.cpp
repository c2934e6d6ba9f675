// SPDX-License-Identifier: Apache-2.0
//
// Lines and words of the exports file.
#include "backend/exports_words.h"

#include <algorithm>
#include <cstdint>

#include "base/log.h"

namespace oxel {

static constexpr size_t kQuotedBytesMax = 128;

size_t ExportsWord::Find(char byte, size_t from) const {
    for (size_t i = from; i < text_.size(); ++i)
        if (Is(i, byte)) return i;
    return std::string::npos;
}

ExportsWord ExportsWord::Part(size_t from, size_t count) const {
    ExportsWord part(line_);
    for (size_t i = from; i < text_.size() && i - from < count; ++i)
        part.Add(text_[i], literal_[i]);
    return part;
}

std::vector<ExportsWord> ExportsWord::Split(char separator) const {
    std::vector<ExportsWord> parts;
    size_t from = 0;
    for (size_t end = Find(separator); end != std::string::npos; end = Find(separator, from)) {
        parts.push_back(Part(from, end - from));
        from = end + 1;
    }
    parts.push_back(Part(from));
    return parts;
}

static bool IsBlank(char byte) {
    return byte == ' ' || byte == '\t' || byte == '\v' || byte == '\f' || byte == '\r';
}

static bool IsControl(char byte) {
    return static_cast<unsigned char>(byte) < 0x20 || byte == 0x7f;
}

static bool IsOctal(char byte) {
    return byte >= '0' && byte <= '7';
}

bool ExportsLineReader::AtLineEnd(size_t at) const {
    if (at >= text_.size() || text_[at] == '\n') return true;
    // A line may end the way Windows editors end it.
    return text_[at] == '\r' && (at + 1 >= text_.size() || text_[at + 1] == '\n');
}

// At a backslash that ends a line: goes to the next line's first byte that is no blank.
bool ExportsLineReader::SkipContinuation() {
    if (text_[at_] != '\\' || !AtLineEnd(at_ + 1)) return false;
    at_ = std::min(text_.find('\n', at_), text_.size());
    if (at_ < text_.size()) {
        ++at_;
        ++line_;
    }
    while (at_ < text_.size() && !AtLineEnd(at_) && IsBlank(text_[at_])) ++at_;
    return true;
}

// At a backslash inside a word.
void ExportsLineReader::ReadEscape(ExportsLine* out, ExportsWord* word) {
    size_t digits = 0;
    unsigned value = 0;
    while (digits < 3 && at_ + 1 + digits < text_.size() && IsOctal(text_[at_ + 1 + digits])) {
        value = value * 8 + static_cast<unsigned>(text_[at_ + 1 + digits] - '0');
        ++digits;
    }
    if (digits < 3) {
        out->errors.emplace_back(
            line_,
            "a backslash needs three octal digits after it; a backslash itself "
            "is written \\134");
    } else if (value == 0 || value > 255) {
        out->errors.emplace_back(line_, "the escape " +
                                            QuoteForError(text_.substr(at_, digits + 1)) +
                                            " names no byte from \\001 to \\377");
    } else {
        word->Add(static_cast<char>(value), true);
    }
    at_ += digits + 1;
}

bool ExportsLineReader::Next(ExportsLine* out) {
    *out = ExportsLine();
    while (at_ < text_.size() && out->words.empty() && out->errors.empty()) {
        ExportsWord word(line_);
        bool inWord = false, inQuotes = false, inComment = false;
        size_t bytes = 0;
        auto endWord = [&] {
            if (inWord && out->errors.empty()) out->words.push_back(std::move(word));
            inWord = false;
        };
        auto beginWord = [&] {
            if (!inWord) word = ExportsWord(line_);
            inWord = true;
        };
        while (!AtLineEnd(at_)) {
            char byte = text_[at_];
            int lineBefore = line_;
            size_t atBefore = at_;
            if (SkipContinuation()) {
                if (inQuotes) {
                    out->errors.emplace_back(lineBefore, "the quotes are not closed on their line");
                    inQuotes = false;
                }
                endWord();
                bytes += at_ - atBefore;
            } else if (inComment || ++bytes > kLineBytesMax || !out->errors.empty()) {
                // Only the line's end still counts.
                if (bytes == kLineBytesMax + 1 && out->errors.empty())
                    out->errors.emplace_back(line_, "the line is longer than " +
                                                        std::to_string(kLineBytesMax) + " bytes");
                ++at_;
            } else if (byte == '"') {
                beginWord();
                inQuotes = !inQuotes;
                ++at_;
            } else if (byte == '\\') {
                beginWord();
                ReadEscape(out, &word);
            } else if (!inQuotes && byte == '#') {
                inComment = true;
                ++at_;
            } else if (!inQuotes && IsBlank(byte)) {
                endWord();
                ++at_;
            } else if (IsControl(byte)) {
                out->errors.emplace_back(
                    line_,
                    "a control character must be written as a backslash and three octal digits");
                ++at_;
            } else {
                beginWord();
                word.Add(byte, inQuotes);
                ++at_;
            }
        }
        if (inQuotes && out->errors.empty())
            out->errors.emplace_back(line_, "the quotes are not closed on their line");
        endWord();
        at_ = std::min(text_.find('\n', at_), text_.size());
        if (at_ < text_.size()) {
            ++at_;
            ++line_;
        }
    }
    if (!out->words.empty())
        out->line = out->words.front().line();
    else if (!out->errors.empty())
        out->line = out->errors.front().first;
    return out->line != 0;
}

std::string QuoteForError(const std::string& word) {
    std::string shown = word.substr(0, kQuotedBytesMax);
    if (shown.size() < word.size()) shown += "...";
    return "'" + EscapeControl(shown) + "'";
}

bool ParseDecimal(const std::string& text, uint32_t max, uint32_t* out) {
    uint64_t value = 0;
    for (char byte : text) {
        if (byte < '0' || byte > '9') return false;
        value = value * 10 + static_cast<uint64_t>(byte - '0');
        if (value > max) return false;
    }
    if (text.empty()) return false;
    *out = static_cast<uint32_t>(value);
    return true;
}

}  // namespace oxel
