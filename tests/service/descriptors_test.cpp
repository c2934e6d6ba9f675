// SPDX-License-Identifier: Apache-2.0
//
// The reserve of low descriptor numbers: taken by connections only, and theirs again when they end.
#include "bin/oxelService_descriptors.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/select.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <set>
#include <thread>
#include <utility>
#include <vector>

#include "private_root.h"
#include "rpc_wire.h"

using oxel::AtLowDescriptor;
using oxel::GiveLowDescriptorBack;
using oxel::ReserveLowDescriptors;
using oxel::UniqueFd;
using oxel::test::IsOpen;

namespace {

bool LimitDescriptors(rlim_t most) {
    rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_max < most) return false;
    limit.rlim_cur = most;
    return setrlimit(RLIMIT_NOFILE, &limit) == 0;
}

UniqueFd OpenAny() {
    return UniqueFd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
}

// Ends a socket as a connection does.
void End(UniqueFd socket) {
    const UniqueFd instead(GiveLowDescriptorBack(socket.Release()));
}

}  // namespace

TEST_IN_CHILD(LowDescriptors, WithoutAReserveEverythingStaysAsItIs) {
    UniqueFd socket = OpenAny();
    const int number = socket.Get();
    EXPECT_EQ(AtLowDescriptor(std::move(socket)).Get(), number);
    EXPECT_FALSE(IsOpen(number));
    const int fd = OpenAny().Release();
    EXPECT_EQ(GiveLowDescriptorBack(fd), fd);
    EXPECT_TRUE(IsOpen(fd));
}

TEST_IN_CHILD(LowDescriptors, ProcessWithFewDescriptorsReservesNone) {
    ASSERT_TRUE(LimitDescriptors(2 * FD_SETSIZE - 1));
    ReserveLowDescriptors();
    EXPECT_LT(OpenAny().Get(), FD_SETSIZE);
}

TEST_IN_CHILD(LowDescriptors, ReservedNumbersGoToConnectionsOnly) {
    if (!LimitDescriptors(4096)) GTEST_SKIP() << "this machine allows too few descriptors";
    auto [client, server] = oxel::test::TcpPair();
    ReserveLowDescriptors();
    ReserveLowDescriptors();  // a second time changes nothing
    EXPECT_GE(OpenAny().Get(), FD_SETSIZE);

    UniqueFd high(fcntl(server.Get(), F_DUPFD_CLOEXEC, FD_SETSIZE));
    server.Reset();
    UniqueFd low = AtLowDescriptor(std::move(high));
    EXPECT_LT(low.Get(), FD_SETSIZE);
    EXPECT_NE(fcntl(low.Get(), F_GETFD) & FD_CLOEXEC, 0);
    ASSERT_EQ(write(low.Get(), "x", 1), 1);
    char byte;
    EXPECT_EQ(read(client.Get(), &byte, 1), 1) << "it is the same socket";

    const int number = low.Get();
    End(std::move(low));
    EXPECT_EQ(read(client.Get(), &byte, 1), 0) << "the socket is closed";
    EXPECT_TRUE(IsOpen(number)) << "and its number is held";
    EXPECT_EQ(AtLowDescriptor(UniqueFd(fcntl(client.Get(), F_DUPFD_CLOEXEC, FD_SETSIZE))).Get(),
              number)
        << "for the next one";
}

TEST_IN_CHILD(LowDescriptors, WhenAllAreTakenASocketStaysWhereItIs) {
    if (!LimitDescriptors(4096)) GTEST_SKIP() << "this machine allows too few descriptors";
    ReserveLowDescriptors();
    std::vector<UniqueFd> connections;
    while (connections.empty() || connections.back().Get() < FD_SETSIZE) {
        connections.push_back(AtLowDescriptor(OpenAny()));
        ASSERT_LE(connections.size(), size_t{FD_SETSIZE});
    }
    std::set<int> numbers;
    for (const UniqueFd& connection : connections) numbers.insert(connection.Get());
    EXPECT_EQ(numbers.size(), connections.size()) << "no number twice";
    End(std::move(connections[7]));
    EXPECT_LT(AtLowDescriptor(OpenAny()).Get(), FD_SETSIZE);
}

TEST_IN_CHILD(LowDescriptors, ConnectionsMayEndOnAnyThread) {
    if (!LimitDescriptors(4096)) GTEST_SKIP() << "this machine allows too few descriptors";
    ReserveLowDescriptors();
    std::mutex mutex;
    std::vector<UniqueFd> ending;  // guarded by mutex
    std::atomic<bool> done{false};
    std::vector<std::thread> senders;
    for (int i = 0; i < 3; ++i) {
        senders.emplace_back([&] {
            for (;;) {
                const bool last = done;
                UniqueFd mine;
                {
                    std::lock_guard<std::mutex> lock(mutex);
                    if (!ending.empty()) {
                        mine = std::move(ending.back());
                        ending.pop_back();
                    }
                }
                if (mine)
                    End(std::move(mine));
                else if (last)
                    return;
            }
        });
    }
    // Never more open than the reserve has numbers, however slow the senders are.
    const auto tooManyOpen = [&] {
        std::lock_guard<std::mutex> lock(mutex);
        return ending.size() > FD_SETSIZE / 2;
    };
    for (int i = 0; i < 3000; ++i) {
        while (tooManyOpen()) std::this_thread::yield();
        UniqueFd low = AtLowDescriptor(OpenAny());
        EXPECT_LT(low.Get(), FD_SETSIZE);
        std::lock_guard<std::mutex> lock(mutex);
        ending.push_back(std::move(low));
    }
    done = true;
    for (std::thread& sender : senders) sender.join();
    EXPECT_GE(OpenAny().Get(), FD_SETSIZE) << "the reserve is whole";
}
