// SPDX-License-Identifier: Apache-2.0
//
// The text of a log line while it is put together, for the log writer: escaping, and a buffer that
// never throws.
#pragma once

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/log_clients.h"

namespace oxel {

// Which control characters pass unescaped: bit c for c below 0x20, bit 32 for 0x7f.
inline uint64_t ControlMask(const char* text) {
    uint64_t mask = 0;
    for (; *text != '\0'; ++text) {
        const auto c = static_cast<unsigned char>(*text);
        if (c < 0x20) mask |= uint64_t{1} << c;
        if (c == 0x7f) mask |= uint64_t{1} << 32;
    }
    return mask;
}

inline bool MustEscape(unsigned char c, uint64_t keep) {
    if (c >= 0x20 && c != 0x7f) return false;
    return (keep >> (c == 0x7f ? 32 : c) & 1) == 0;
}

inline void PutEscape(unsigned char c, char* out) {
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

    // `strictly`: what only some programs take for a control character is escaped too.
    void AppendEscaped(const char* text, size_t bytes, uint64_t keep, bool strictly = false) {
        size_t begin = 0;
        for (size_t i = 0; i < bytes; ++i) {
            const auto c = static_cast<unsigned char>(text[i]);
            size_t unsafe = MustEscape(c, keep) ? 1 : 0;
            if (c >= 0x80 && strictly) {
                unsafe = UnsafeBytes(text + i, bytes - i);
                // The whole of a safe character is passed over.
                while (unsafe == 0 && i + 1 < bytes && (text[i + 1] & 0xc0) == 0x80) ++i;
            }
            if (unsafe == 0) continue;
            Append(text + begin, i - begin);
            for (size_t end = i + unsafe; i < end; ++i) {
                char escape[4];
                PutEscape(static_cast<unsigned char>(text[i]), escape);
                Append(escape, sizeof escape);
            }
            begin = i--;
        }
        Append(text + begin, bytes - begin);
    }
    // Leaves `bytesMax` bytes of it, and says how many there were.
    void Cut(size_t bytesMax) {
        if (size_ <= bytesMax) return;
        const size_t all = size_;
        size_ = bytesMax;
        Append("... [");
        AppendNumber(all);
        Append(" bytes]");
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

}  // namespace oxel
