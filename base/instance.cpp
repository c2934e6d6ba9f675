// SPDX-License-Identifier: Apache-2.0
//
// Instance locks and the process's preparation.
#include "base/instance.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>

#include "base/log.h"
#include "base/service_manager.h"
#include "base/store.h"
#include "base/sync.h"
#include "base/thread.h"

namespace {

constexpr unsigned long kLogLevelDefault = 1;
constexpr unsigned long kLogLevelMax = 4;
constexpr unsigned long kLogSizeMbDefault = 64;
// The kernel's own ceiling unless somebody raised it. The RPC library's tables and others' loops
// over all descriptors grow with the limit, and containers are known to allow a thousand million.
constexpr rlim_t kDescriptorsMax = 1u << 20;
constexpr uint32_t kNamedLockPollMs = 100;

oxel::UniqueFd OpenLockFile(const std::string& path) {
    return oxel::UniqueFd(
        open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NOCTTY, 0644));
}

int FlockRetrying(int fd, int operation) {
    int result = 0;
    do {
        result = flock(fd, operation);
    } while (result != 0 && errno == EINTR);
    return result;
}

// The locks that this process checked in with: path to descriptor, never closed. After a fork they
// are the parent's.
struct CheckIns {
    XoCriticalSection mutex;
    pid_t pid GUARDED_BY(mutex) = 0;
    std::map<std::string, int> held GUARDED_BY(mutex);
    // Of the instance's last start, in this process or an earlier one.
    time_t lastStart GUARDED_BY(mutex) = 0;
};

CheckIns& TheCheckIns() {
    static auto* checkIns = new CheckIns;
    return *checkIns;
}

// The time of the lock file is that of the instance's last start.
void Stamp(int fd, time_t start) {
    const timespec times[2] = {{start, 0}, {start, 0}};
    if (futimens(fd, times) != 0) OXEL_LOG(0, "The start cannot be noted in the lock file: %m");
}

int CheckInFailed(const std::string& path) {
    (void)fprintf(stderr, "oxelnfsd: cannot make the lock file %s: %s\n",
                  oxel::EscapeControl(path).c_str(), strerror(errno));
    return 0;
}

void RaiseDescriptorLimit() {
    rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
    const rlim_t wanted = std::min(limit.rlim_max, kDescriptorsMax);
    if (limit.rlim_cur >= wanted) return;
    limit.rlim_cur = wanted;
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0)
        OXEL_LOG(0, "The limit of open files stays as it is: %m");
}

bool OpenLog(const oxel::InstancePaths& paths, unsigned sizeMbMax) {
    const char* environment = getenv("OXEL_LOG");
    const bool toStandardError = environment != nullptr && strcmp(environment, "stderr") == 0;
    if (oxel::LogWriter::Open(toStandardError ? nullptr : paths.log.c_str(), sizeMbMax))
        return true;
    OXEL_LOG(-1, "Cannot open the log %s: %m", paths.log.c_str());
    return false;
}

bool MakeDirectoryOrSay(const std::string& path, mode_t mode) {
    if (oxel::MakeDirectories(path, mode)) return true;
    OXEL_LOG(-1, "Cannot make the directory %s: %m", path.c_str());
    return false;
}

}  // namespace

namespace oxel {

bool MakeDirectories(const std::string& path, mode_t mode) {
    struct stat status;
    if (stat(path.c_str(), &status) == 0) {
        if (S_ISDIR(status.st_mode)) return true;
        errno = ENOTDIR;
        return false;
    }
    if (errno != ENOENT) return false;
    const size_t slash = path.find_last_of('/');
    if (slash != std::string::npos && slash != 0 && !MakeDirectories(path.substr(0, slash), 0755))
        return false;
    if (mkdir(path.c_str(), mode) != 0) return errno == EEXIST;
    return chmod(path.c_str(), mode) == 0;  // whatever the umask took away
}

uint32_t NewStartTime() {
    CheckIns& checkIns = TheCheckIns();
    XoCriticalSectionGuard lock(checkIns.mutex);
    time_t start = time(nullptr);
    const bool known = !checkIns.held.empty() && checkIns.lastStart < UINT32_MAX;
    // A clock that does not fit the number must not be where the count goes on from: set right
    // again, it would give the numbers of the lives before.
    if (start < 0 || start > UINT32_MAX) start = known ? 0 : static_cast<uint32_t>(start);
    if (known) start = std::max(start, checkIns.lastStart + 1);
    checkIns.lastStart = start;
    for (const auto& [path, fd] : checkIns.held) Stamp(fd, start);
    return static_cast<uint32_t>(start);
}

}  // namespace oxel

int uxsvc_checkin(const char* service) {
    const oxel::InstancePaths paths(XOPI_Focus::focus());
    const std::string path = paths.runDir + "/" + service + ".lock";
    CheckIns& checkIns = TheCheckIns();
    XoCriticalSectionGuard lock(checkIns.mutex);
    if (checkIns.pid != getpid()) {
        checkIns.held.clear();
        checkIns.pid = getpid();
    }
    if (checkIns.held.contains(path)) return 1;
    if (!oxel::MakeDirectories(paths.runDir, 0755)) return CheckInFailed(path);
    oxel::UniqueFd fd = OpenLockFile(path);
    if (!fd) return CheckInFailed(path);
    if (FlockRetrying(fd.Get(), LOCK_EX | LOCK_NB) != 0)
        return errno == EWOULDBLOCK ? 0 : CheckInFailed(path);
    struct stat before;
    if (fstat(fd.Get(), &before) != 0) return CheckInFailed(path);
    const std::string pid = std::to_string(getpid()) + "\n";
    // In this order: on a full disk the room that the file has is not given away in between.
    if (pwrite(fd.Get(), pid.data(), pid.size(), 0) != static_cast<ssize_t>(pid.size()) ||
        ftruncate(fd.Get(), static_cast<off_t>(pid.size())) != 0)
        return CheckInFailed(path);
    if (before.st_size != 0) {
        if (before.st_mtime <= UINT32_MAX)
            checkIns.lastStart = std::max(checkIns.lastStart, before.st_mtime);
        Stamp(fd.Get(), before.st_mtime);
    }
    checkIns.held[path] = fd.Release();  // the lock lasts as long as the process
    return 1;
}

int BasicInit() {
    const oxel::InstancePaths paths(XOPI_Focus::focus());
    if (!MakeDirectoryOrSay(paths.runDir, 0755) || !MakeDirectoryOrSay(paths.stateDir, 0700) ||
        !MakeDirectoryOrSay(paths.logDir, 0755))
        return 0;
    (void)signal(SIGPIPE, SIG_IGN);  // cannot fail for this signal
    // A write past the process's limit of file sizes fails with EFBIG instead.
    (void)signal(SIGXFSZ, SIG_IGN);
    if (!OpenLog(paths, kLogSizeMbDefault)) return 0;
    RaiseDescriptorLimit();
    // Only now, so that what is wrong with the store stands in the log.
    const XOPlatformInfo store;
    unsigned long level = kLogLevelDefault, sizeMb = kLogSizeMbDefault;
    (void)store.getNumber("Log", "nLogLevel", &level);  // absent: the default stays
    (void)store.getNumber("Log", "nMaxSizeMB", &sizeMb);
    oxel::LogWriter::SetLevel(static_cast<int>(std::min(level, kLogLevelMax)));
    if (sizeMb == kLogSizeMbDefault) return 1;
    return OpenLog(paths, static_cast<unsigned>(std::min(sizeMb, 0xfffffffful))) ? 1 : 0;
}

int AdvancedInit() {
    const int result = oxel::TellReady();
    // Not worth ending for: the manager that is not reached ends the daemon by its own rules.
    if (result < 0) OXEL_LOG(0, "The service manager cannot be told: %s", strerror(-result));
    return 1;
}

XoNamedMutex::XoNamedMutex(const std::string& name) : name_(name) {}

bool XoNamedMutex::lock() {
    const oxel::InstancePaths paths(XOPI_Focus::focus());
    if (name_.empty() || name_.find('/') != std::string::npos) {
        errno = EINVAL;
        return false;
    }
    if (!oxel::MakeDirectories(paths.runDir, 0755)) return false;
    oxel::UniqueFd fd = OpenLockFile(paths.NamedLock(name_));
    if (!fd) return false;
    // Asked for again and again rather than waited for, so that the end of the process need not
    // wait for another process.
    while (FlockRetrying(fd.Get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK) return false;
        if (!LUSLEEP(kNamedLockPollMs)) {
            errno = EINTR;
            return false;
        }
    }
    fd_ = std::move(fd);
    return true;
}

void XoNamedMutex::unlock() {
    fd_.Reset();
}
