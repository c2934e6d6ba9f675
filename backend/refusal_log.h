// SPDX-License-Identifier: Apache-2.0
//
// One line of the log for what a client is refused: who, what, by which rule, and what to do about
// it. In addition to what the procedures say of a refusal; level 1. A client that goes on asking is
// told of once a minute for each reason, then with how often it was.
#pragma once

#include <cstdint>
#include <string>

#include "backend/LruCache.h"
#include "backend/client_rules.h"
#include "base/sync.h"

namespace oxel {

enum class RefusalReason : unsigned char { kPath, kClient, kPort, kChange };

// Any thread, none of these throws. Nothing of this is on the way of a call that is allowed.

// MNT of a path that is no share.
void LogRefusedPath(const CLuIPAddr& client, const char* path) noexcept;
// A client that ClientRules::Allows refuses: no rule, or its port.
void LogRefusedClient(const XOIPAddr& client, const std::string& share,
                      const ClientRules& rules) noexcept;
// A change by a client whose rule says ro; a null rule: the share has no client with rw.
void LogRefusedChange(const CLuIPAddr& client, const std::string& share,
                      const ClientRule* rule) noexcept;

// Who was told of what, and when. Bounded: of many clients those are forgotten whose last line is
// the oldest, with what was not told of them.
class RefusalTable {
  public:
    static constexpr size_t kEntriesMax = 2048;
    static constexpr int64_t kSeconds = 60;
    struct Verdict {
        bool tell;
        uint64_t untold;  // so many since the last line
    };
    // One more at the time `now`, in seconds of a clock that never goes back. The port does not
    // count.
    Verdict Count(const XOIPAddr& client, RefusalReason reason, int64_t now);

  private:
    struct Told {
        int64_t at;
        uint64_t untold;
    };
    XoCriticalSection mutex_;  // from looking to putting in
    LruCache<std::string, Told> told_ GUARDED_BY(mutex_){kEntriesMax};
};

}  // namespace oxel
