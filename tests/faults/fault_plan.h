// SPDX-License-Identifier: Apache-2.0
//
// What a test and the daemon with the faulty back end share: a small file that both have mapped.
// The test arms a plan in it; the daemon counts its calls into the contract there and says which of
// them it has hit.
#pragma once

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <ctime>

namespace oxel::test {

// The operations of the contract: first those that can tell a failure, then those that cannot.
#define FAULT_OPERATIONS(X) \
    X(GetExportForHandle)   \
    X(IsWritable)           \
    X(IsClientAllowed)      \
    X(AddMountPoint)        \
    X(GetBkEndProc)         \
    X(Stat)                 \
    X(Access)               \
    X(Open)                 \
    X(Truncate)             \
    X(Read)                 \
    X(Write)                \
    X(Close)                \
    X(Unlink)               \
    X(OpenDir)              \
    X(ReadDir)              \
    X(RemoveDir)            \
    X(Chmod)                \
    X(SetTimes)             \
    X(Chown)                \
    X(Rename)               \
    X(HardLink)             \
    X(CreateSymlink)        \
    X(ReadLink)             \
    X(CreateChild)          \
    X(CreateChildDir)       \
    X(FindChild)            \
    X(GetParent)            \
    X(SyncFs)               \
    X(PathConf)             \
    X(StatFs)               \
    X(GetHandleString)      \
    X(SeekDir)              \
    X(TellDir)              \
    X(CloseDir)             \
    X(GetPath)              \
    X(GetFileHandle)

enum class Operation : uint32_t {
#define FAULT_ENUMERATOR(name) k##name,
    FAULT_OPERATIONS(FAULT_ENUMERATOR)
#undef FAULT_ENUMERATOR
};
inline constexpr const char* kOperationNames[] = {
#define FAULT_NAME(name) #name,
    FAULT_OPERATIONS(FAULT_NAME)
#undef FAULT_NAME
};
inline constexpr uint32_t kOperationCount = sizeof kOperationNames / sizeof kOperationNames[0];
inline constexpr uint64_t Bit(Operation operation) {
    return uint64_t{1} << static_cast<uint32_t>(operation);
}
inline constexpr uint64_t kAllOperations = (uint64_t{1} << kOperationCount) - 1;
inline constexpr uint64_t kFallibleOperations = Bit(Operation::kGetHandleString) - 1;

enum class Action : uint32_t {
    kFail,           // the operation is not done, and fails with `error`
    kThrowBadAlloc,  // it is not done (but Close and CloseDir), and throws
    kThrowRuntimeError,
    kThrowNumber,  // something that is no std::exception
    kShort,        // Read and Write move at most `bytes`; with an `error`, later hits fail with it
    kHold,         // the calling thread waits until Release(); with an `error`, it fails then
    kForgetIdle,   // what the local module keeps open for later is closed before
};

struct FaultPlan {
    Action action = Action::kFail;
    int32_t error = 0;
    uint32_t bytes = 0;
    // Which of the calls into `operations` are hit, counted from 1 since the plan was armed.
    uint32_t first = 1, last = UINT32_MAX, every = 1;
    uint64_t operations = kFallibleOperations;
};

// The file's content. The daemon reads `plan` only while `armed` is set, and the test writes it
// only while it is not and no call is under way.
struct SharedFaults {
    std::atomic<uint32_t> armed{0};
    FaultPlan plan;
    std::atomic<uint32_t> counted{0};  // calls into plan.operations
    std::atomic<uint32_t> hits{0};
    // The last hit: the operation, and which of its calls since the beginning it was.
    std::atomic<uint32_t> hitOperation{0}, hitCall{0};
    std::atomic<uint32_t> calls[kOperationCount] = {};  // since the beginning
    std::atomic<uint32_t> holding{0};                   // a held call waits while it is 1
    std::atomic<uint32_t> held{0};                      // calls that have begun to wait
};

// std::atomic's own waiting stays inside a process.
inline void WaitWhile(std::atomic<uint32_t>& word, uint32_t value, unsigned timeoutMs) {
    const timespec timeout{timeoutMs / 1000, static_cast<long>(timeoutMs % 1000) * 1000000};
    (void)syscall(SYS_futex, &word, FUTEX_WAIT, value, &timeout, nullptr, 0);
}
inline void WakeAll(std::atomic<uint32_t>& word) {
    (void)syscall(SYS_futex, &word, FUTEX_WAKE, INT32_MAX, nullptr, nullptr, 0);
}

}  // namespace oxel::test
