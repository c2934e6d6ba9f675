// SPDX-License-Identifier: Apache-2.0
//
// The reserve of low descriptor numbers: each is held open by a descriptor of no use, which a
// connection's socket replaces in one step and leaves in its place, so that nobody else gets it.
#include "bin/oxelService_descriptors.h"

#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <unistd.h>

#include <utility>
#include <vector>

#include "base/sync.h"

namespace oxel {

namespace {

struct LowNumbers {
    XoCriticalSection mutex;
    UniqueFd placeholder GUARDED_BY(mutex);  // empty: nothing is reserved
    std::vector<int> free GUARDED_BY(mutex);
};

// Never destroyed: a call may end while the process does.
LowNumbers& Numbers() {
    static auto* numbers = new LowNumbers;
    return *numbers;
}

}  // namespace

void ReserveLowDescriptors() {
    rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur < rlim_t{2} * FD_SETSIZE) return;
    LowNumbers& numbers = Numbers();
    XoCriticalSectionGuard lock(numbers.mutex);
    if (numbers.placeholder) return;
    numbers.free.reserve(FD_SETSIZE);
    UniqueFd placeholder(eventfd(0, EFD_CLOEXEC));
    for (;;) {
        UniqueFd one(fcntl(placeholder.Get(), F_DUPFD_CLOEXEC, 0));
        if (!one || one.Get() >= FD_SETSIZE) break;
        numbers.free.push_back(one.Release());
    }
    numbers.placeholder = std::move(placeholder);
}

UniqueFd AtLowDescriptor(UniqueFd socket) {
    if (socket.Get() < FD_SETSIZE) return socket;
    LowNumbers& numbers = Numbers();
    XoCriticalSectionGuard lock(numbers.mutex);
    if (numbers.free.empty()) return socket;
    UniqueFd low(dup3(socket.Get(), numbers.free.back(), O_CLOEXEC));
    if (!low) return socket;
    numbers.free.pop_back();
    return low;
}

int GiveLowDescriptorBack(int fd) {
    if (fd >= FD_SETSIZE) return fd;
    LowNumbers& numbers = Numbers();
    XoCriticalSectionGuard lock(numbers.mutex);
    if (!numbers.placeholder) return fd;
    UniqueFd instead(fcntl(numbers.placeholder.Get(), F_DUPFD_CLOEXEC, FD_SETSIZE));
    if (!instead || dup3(numbers.placeholder.Get(), fd, O_CLOEXEC) < 0) return fd;
    numbers.free.push_back(fd);  // there is room: it had one number for each
    return instead.Release();
}

}  // namespace oxel
