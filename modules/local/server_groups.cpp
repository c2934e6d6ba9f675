// SPDX-License-Identifier: Apache-2.0
//
// Looking up groups, with a cache in front because name services can take long.
#include "modules/local/server_groups.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <cerrno>

#include "backend/LruCache.h"
#include "modules/local/caller_rights.h"
#include "modules/local/syscalls.h"

namespace oxel::local {
namespace {

constexpr int64_t kKeepMs = 300'000;  // five minutes
constexpr int kGroupsMax = 65536;     // the kernel's NGROUPS_MAX

struct Answer {
    std::vector<gid_t> groups;
    int64_t atMs;
};
LruCache<uid_t, Answer>& cache() {
    static LruCache<uid_t, Answer>* instance = new LruCache<uid_t, Answer>(1024);
    return *instance;
}

std::vector<gid_t> AskSystem(uid_t uid) {
    passwd entry;
    passwd* found = nullptr;
    std::vector<char> text(4096);
    int result;
    while ((result = getpwuid_r(uid, &entry, text.data(), text.size(), &found)) == ERANGE &&
           text.size() < (1u << 20)) {
        text.resize(2 * text.size());
    }
    if (result != 0 || found == nullptr) return {};
    std::vector<gid_t> groups(64);
    int count = static_cast<int>(groups.size());
    while (getgrouplist(entry.pw_name, entry.pw_gid, groups.data(), &count) < 0) {
        if (count <= static_cast<int>(groups.size())) count = 2 * static_cast<int>(groups.size());
        if (count > kGroupsMax) return {};
        groups.resize(static_cast<size_t>(count));
    }
    groups.resize(static_cast<size_t>(count));
    return groups;
}

}  // namespace

std::vector<gid_t> GroupsOfUser(uid_t uid) {
    Answer answer;
    if (cache().find(uid, &answer) && NowMs() - answer.atMs < kKeepMs) return answer.groups;
    BecomeOwn();
    answer = {AskSystem(uid), NowMs()};
    cache().insert(uid, answer);
    return answer.groups;
}

}  // namespace oxel::local
