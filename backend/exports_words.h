// SPDX-License-Identifier: Apache-2.0
//
// The lowest layer of the exports file: lines, continuation, comments, quotes and escapes. What the
// words mean is for exports_file.cpp and exports_client.cpp.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace oxel {

// One word with its quotes and escapes resolved. A byte that came out of quotes or an escape is
// only ever itself: it separates nothing.
class ExportsWord {
  public:
    explicit ExportsWord(int line) : line_(line) {}
    void Add(char byte, bool literal) {
        text_.push_back(byte);
        literal_.push_back(literal);
    }

    const std::string& text() const { return text_; }
    int line() const { return line_; }  // where the word begins
    bool empty() const { return text_.empty(); }
    // Whether the byte at `index` is `byte` and means what the grammar gives it.
    bool Is(size_t index, char byte) const {
        return index < text_.size() && text_[index] == byte && !literal_[index];
    }
    // The first such byte from `from` on; npos when there is none.
    size_t Find(char byte, size_t from = 0) const;
    // The bytes from `from`, at most `count` of them, as a word of their own.
    ExportsWord Part(size_t from, size_t count = std::string::npos) const;
    // The parts between separators; one empty part for an empty word.
    std::vector<ExportsWord> Split(char separator) const;

  private:
    std::string text_;
    std::vector<bool> literal_;
    int line_;
};

// One line with its continuations. With an error, the words are those before it.
struct ExportsLine {
    int line = 0;  // of its first word
    std::vector<ExportsWord> words;
    std::vector<std::pair<int, std::string>> errors;  // line, reason
};

// Cuts a text into lines. The text must outlive the reader.
class ExportsLineReader {
  public:
    // A line with its continuations may have this many bytes.
    static constexpr size_t kLineBytesMax = 256 << 10;

    explicit ExportsLineReader(const std::string& text) : text_(text) {}
    // The next line that has a word or an error; false at the end of the text.
    bool Next(ExportsLine* out);

  private:
    bool AtLineEnd(size_t at) const;
    bool SkipContinuation();
    void ReadEscape(ExportsLine* out, ExportsWord* word);

    const std::string& text_;
    size_t at_ = 0;
    int line_ = 1;
};

// `word` in quotes for an error message, cut when it is long, control characters escaped.
std::string QuoteForError(const std::string& word);

// Decimal digits and nothing else, at most `max`; false otherwise, with *out untouched.
bool ParseDecimal(const std::string& text, uint32_t max, uint32_t* out);

}  // namespace oxel
