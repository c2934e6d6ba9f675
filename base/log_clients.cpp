// SPDX-License-Identifier: Apache-2.0
//
// The places that clients' messages come from, each with its own count. A place is known by its
// format's address and its line, so that there are as many as the program has, whatever clients do.
#include "base/log_clients.h"

#include <array>
#include <atomic>
#include <cstring>
#include <new>

#include "base/repeat_limit.h"
#include "base/sync.h"

namespace oxel {

thread_local bool ClientsLog::inside_ = false;

namespace {

constexpr size_t kExampleBytesMax = 200;

std::atomic<bool> gBound{false};

}  // namespace

class LogPlace {
  public:
    LogPlace(int level, const char* function, int line, const char* format)
        : level_(level), line_(line), function_(function), format_(format) {}
    bool Is(int level, int line, const char* format) const {
        return format_ == format && line_ == line && level_ == level;
    }
    bool Count() {
        const RepeatLimit::Verdict verdict = limit_.Count(CoarseSeconds());
        Say(verdict.untold);
        return verdict.tell;
    }
    void SumUp(bool atOnce) { Say(limit_.TakeUntold(CoarseSeconds(), atOnce)); }
    void Remember(const char* text) {
        const size_t bytes = strnlen(text, kExampleBytesMax);
        XoCriticalSectionGuard lock(mutex_);
        memcpy(example_, text, bytes);
        example_[bytes] = '\0';
    }

  private:
    void Say(uint64_t untold) {
        if (untold == 0) return;
        char example[sizeof example_];
        {
            XoCriticalSectionGuard lock(mutex_);
            memcpy(example, example_, sizeof example);
        }
        const ClientsLog clients;  // who made the example
        WriteLogLine(level_, function_, line_, "Repeated %llu times more: %s",
                     static_cast<unsigned long long>(untold), example);
    }

    const int level_, line_;
    const char* const function_;
    const char* const format_;
    RepeatLimit limit_;
    XoCriticalSection mutex_;
    char example_[kExampleBytesMax + 1] GUARDED_BY(mutex_) = {};
};

namespace {

// More than the program has. Places are added and never removed, so that looking one up needs no
// lock.
class Places {
  public:
    LogPlace* Find(int level, const char* function, int line, const char* format) {
        const size_t hash =
            (reinterpret_cast<uintptr_t>(format) >> 3) * 31 + static_cast<unsigned>(line);
        for (size_t i = 0; i < kPlaces; ++i) {
            std::atomic<LogPlace*>& slot = slots_[(hash + i) % kPlaces];
            LogPlace* place = slot.load(std::memory_order_acquire);
            if (place == nullptr) {
                auto* made = new (std::nothrow) LogPlace(level, function, line, format);
                if (made == nullptr || slot.compare_exchange_strong(place, made)) return made;
                delete made;  // another thread was quicker; `place` is what it put there
            }
            if (place->Is(level, line, format)) return place;
        }
        return nullptr;
    }
    void SumUp(bool atOnce) {
        for (const std::atomic<LogPlace*>& slot : slots_)
            if (LogPlace* place = slot.load(std::memory_order_acquire)) place->SumUp(atOnce);
    }

  private:
    static constexpr size_t kPlaces = 1024;
    std::array<std::atomic<LogPlace*>, kPlaces> slots_{};
};

// Never destroyed: threads may still log while the process ends.
Places& ThePlaces() {
    static auto* places = new Places;
    return *places;
}

// The length of the UTF-8 sequence at `text` and its code point; 0 when there is none (RFC 3629).
size_t CodePoint(const char* text, size_t left, uint32_t* point) {
    const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned first = byte(0);
    const size_t length = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
    if (first < 0xc2 || first > 0xf4 || left < length) return 0;
    *point = first & (0x7fu >> length);
    for (size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xc0) != 0x80) return 0;
        *point = *point << 6 | (byte(i) & 0x3fu);
    }
    static constexpr uint32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
    const bool surrogate = *point >= 0xd800 && *point <= 0xdfff;
    return *point < kSmallest[length] || surrogate || *point > 0x10ffff ? 0 : length;
}

}  // namespace

void ClientsLog::Bound(bool bound) {
    gBound.store(bound, std::memory_order_relaxed);
}

bool ClientsLog::Bounded() {
    return inside_ && gBound.load(std::memory_order_relaxed);
}

void ClientsLog::SumUp(bool atOnce) {
    ThePlaces().SumUp(atOnce);
}

LogPlace* FindLogPlace(int level, const char* function, int line, const char* format) noexcept {
    return ThePlaces().Find(level, function, line, format);
}

bool CountLogged(LogPlace* place) noexcept {
    return place->Count();
}

void RememberLogged(LogPlace* place, const char* text) noexcept {
    place->Remember(text);
}

size_t UnsafeBytes(const char* text, size_t left) {
    uint32_t point = 0;
    const size_t length = CodePoint(text, left, &point);
    if (length == 0) return 1;
    const bool control = point < 0xa0;                          // C1: next line, begin of a command
    const bool separator = point == 0x2028 || point == 0x2029;  // of lines and paragraphs
    const bool direction =
        (point >= 0x202a && point <= 0x202e) || (point >= 0x2066 && point <= 0x2069);
    return control || separator || direction ? length : 0;
}

}  // namespace oxel
