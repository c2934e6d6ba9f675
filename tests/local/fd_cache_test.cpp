// SPDX-License-Identifier: Apache-2.0
//
// The cache of open descriptors, and the bounded map under it.
#include "backend/FdCache.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "backend/LruCache.h"

namespace {

oxel::UniqueFd SomeFile() {
    return oxel::UniqueFd(open("/dev/null", O_RDONLY | O_CLOEXEC));
}
bool IsOpen(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}
CacheKey Key(uint64_t inode, uid_t uid = 0) {
    return {1, inode, 0, O_RDONLY, uid, 0, {}};
}

TEST(LruCache, ForgetsWhatWasUsedLeastRecently) {
    LruCache<int, int> cache(3);
    for (int i = 1; i <= 3; ++i) cache.insert(i, 10 * i);
    int value = 0;
    ASSERT_TRUE(cache.find(1, &value));
    cache.insert(4, 40);
    EXPECT_FALSE(cache.find(2, &value));
    ASSERT_TRUE(cache.find(1, &value));
    EXPECT_EQ(value, 10);
    EXPECT_EQ(cache.count(), 3u);
}

TEST(LruCache, CountsSizesAgainstTheLimit) {
    LruCache<int, int> cache(10);
    cache.insert(1, 1, 4);
    cache.insert(2, 2, 4);
    EXPECT_EQ(cache.total(), 8u);
    cache.insert(1, 1, 6);
    EXPECT_EQ(cache.total(), 10u);
    cache.insert(3, 3, 5);
    int value;
    EXPECT_FALSE(cache.find(2, &value));
    EXPECT_FALSE(cache.find(1, &value));
    EXPECT_EQ(cache.total(), 5u);
    cache.insert(4, 4, 11);
    EXPECT_EQ(cache.count(), 0u);
    EXPECT_EQ(cache.total(), 0u);
}

TEST(LruCache, SettingTheSizeOfAnEmptyCacheOnlyStoresTheLimit) {
    LruCache<int, int> cache;
    cache.setSize(7);
    EXPECT_EQ(cache.limit(), 7u);
    EXPECT_EQ(cache.count(), 0u);
}

// Entries go for as long as the total is not above the OLD limit: all of them, in a cache that has
// kept its bound.
TEST(LruCache, SettingTheSizeEmptiesACacheThatKeptItsBound) {
    LruCache<int, int> cache(5);
    for (int i = 0; i < 5; ++i) cache.insert(i, i);
    cache.setSize(100);
    EXPECT_EQ(cache.count(), 0u);
    EXPECT_EQ(cache.total(), 0u);
    EXPECT_EQ(cache.limit(), 100u);
    cache.insert(1, 1);
    int value;
    EXPECT_TRUE(cache.find(1, &value));
}

TEST(LruCache, ALimitOfZeroKeepsNothing) {
    LruCache<int, int> cache(0);
    cache.insert(1, 1);
    int value;
    EXPECT_FALSE(cache.find(1, &value));
    EXPECT_EQ(cache.count(), 0u);
}

TEST(LruCache, RemovesByKeyByConditionAndByAge) {
    LruCache<int, int> cache(10);
    for (int i = 0; i < 6; ++i) cache.insert(i, i);
    EXPECT_TRUE(cache.erase(0));
    EXPECT_FALSE(cache.erase(0));
    EXPECT_EQ(cache.eraseIf([](int key, int) { return key == 3; }), 1u);
    EXPECT_EQ(cache.eraseIf([](int, int value) { return value == 4; }), 1u);
    cache.eraseOldest(2);
    int value;
    EXPECT_FALSE(cache.find(1, &value));
    EXPECT_FALSE(cache.find(2, &value));
    EXPECT_TRUE(cache.find(5, &value));
    EXPECT_EQ(cache.total(), 1u);
    cache.eraseOldest(100);
    EXPECT_EQ(cache.count(), 0u);
}

TEST(LruCache, HandsEvictedValuesOver) {
    LruCache<int, std::shared_ptr<int>> cache(1);
    auto first = std::make_shared<int>(1);
    cache.insert(1, first);
    std::vector<std::shared_ptr<int>> evicted;
    cache.insert(2, std::make_shared<int>(2), 1, &evicted);
    ASSERT_EQ(evicted.size(), 1u);
    EXPECT_EQ(evicted[0], first);
}

TEST(FdCache, KeepsNothingBeforeInitAndWithACapacityOfZeroOrLess) {
    for (const int size : {-1000, -1, 0}) {
        FdCache cache;
        if (size > -1000) cache.Init(size);
        const int fd = cache.Add(Key(1), SomeFile());
        ASSERT_GE(fd, 0);
        EXPECT_EQ(cache.Count(), 0u);
        EXPECT_TRUE(IsOpen(fd));
        EXPECT_TRUE(cache.Release(fd));
        EXPECT_FALSE(IsOpen(fd));
        EXPECT_EQ(cache.Acquire(Key(1)), -1);
    }
}

TEST(FdCache, KeepsADescriptorAfterItsUse) {
    FdCache cache;
    cache.Init(2);
    EXPECT_EQ(cache.Acquire(Key(1)), -1);
    const int fd = cache.Add(Key(1), SomeFile());
    EXPECT_TRUE(cache.Release(fd));
    EXPECT_FALSE(cache.Release(fd));
    EXPECT_TRUE(IsOpen(fd));
    EXPECT_EQ(cache.Acquire(Key(1)), fd);
    EXPECT_EQ(cache.Acquire(Key(1)), fd);
    EXPECT_TRUE(cache.Release(fd));
    EXPECT_TRUE(cache.Release(fd));
    EXPECT_FALSE(cache.Release(fd));
}

TEST(FdCache, IsBounded) {
    FdCache cache;
    cache.Init(3);
    for (uint64_t i = 0; i < 10; ++i) {
        const int fd = cache.Add(Key(i), SomeFile());
        cache.Release(fd);
        EXPECT_LE(cache.Count(), 3u);
    }
    EXPECT_EQ(cache.Acquire(Key(6)), -1);
    EXPECT_GE(cache.Acquire(Key(7)), 0);
}

TEST(FdCache, EvictionSparesWhatIsInUse) {
    FdCache cache;
    cache.Init(1);
    const int first = cache.Add(Key(1), SomeFile());
    const int second = cache.Add(Key(2), SomeFile());
    EXPECT_NE(first, second);
    EXPECT_TRUE(IsOpen(first));
    EXPECT_TRUE(cache.Release(first));
    EXPECT_FALSE(IsOpen(first));
    EXPECT_TRUE(cache.Release(second));
    EXPECT_TRUE(IsOpen(second));
}

TEST(FdCache, UsesWhatAnotherThreadAddedFirst) {
    FdCache cache;
    cache.Init(5);
    const int first = cache.Add(Key(1), SomeFile());
    oxel::UniqueFd late = SomeFile();
    const int lateNumber = late.Get();
    EXPECT_EQ(cache.Add(Key(1), std::move(late)), first);
    EXPECT_FALSE(IsOpen(lateNumber));
    EXPECT_TRUE(cache.Release(first));
    EXPECT_TRUE(cache.Release(first));
}

TEST(FdCache, TellsCallersAccessAndGenerationsApart) {
    FdCache cache;
    cache.Init(20);
    const CacheKey key{1, 2, 3, O_RDONLY, 4, 5, {6, 7}};
    cache.Release(cache.Add(key, SomeFile()));
    EXPECT_GE(cache.Acquire(key), 0);
    for (int i = 0; i < 8; ++i) {
        CacheKey other = key;
        switch (i) {
            case 0:
                other.device = 9;
                break;
            case 1:
                other.inode = 9;
                break;
            case 2:
                other.generation = 9;
                break;
            case 3:
                other.access = O_RDWR;
                break;
            case 4:
                other.uid = 9;
                break;
            case 5:
                other.gid = 9;
                break;
            case 6:
                other.groups = {6};
                break;
            case 7:
                other.groups = {6, 8};
                break;
        }
        EXPECT_EQ(cache.Acquire(other), -1) << i;
    }
}

TEST(FdCache, ForgetsAllDescriptorsOfAnObject) {
    FdCache cache;
    cache.Init(20);
    const int first = cache.Add(Key(1, 1000), SomeFile());
    const int second = cache.Add(Key(1, 1001), SomeFile());
    const int other = cache.Add(Key(2), SomeFile());
    cache.Release(first);
    cache.Forget(1, 1);
    EXPECT_EQ(cache.Count(), 1u);
    EXPECT_FALSE(IsOpen(first));
    EXPECT_TRUE(IsOpen(second));  // in use
    EXPECT_EQ(cache.Acquire(Key(1, 1001)), -1);
    EXPECT_TRUE(cache.Release(second));
    EXPECT_FALSE(IsOpen(second));
    cache.Forget(9, 2);
    EXPECT_TRUE(cache.Release(other));
    EXPECT_TRUE(IsOpen(other));
}

TEST(FdCache, InitAndClearEmptyIt) {
    FdCache cache;
    cache.Init(5);
    const int fd = cache.Add(Key(1), SomeFile());
    cache.Release(fd);
    cache.Clear();
    EXPECT_EQ(cache.Count(), 0u);
    EXPECT_FALSE(IsOpen(fd));
    cache.Release(cache.Add(Key(1), SomeFile()));
    cache.Init(7);
    EXPECT_EQ(cache.Count(), 0u);
}

TEST(FdCache, ForgetsWhatIsIdle) {
    FdCache cache;
    cache.Init(5);
    cache.Release(cache.Add(Key(1), SomeFile()));
    cache.ForgetIdle(1000 * 1000);
    EXPECT_EQ(cache.Count(), 1u);
    cache.ForgetIdle(0);
    EXPECT_EQ(cache.Count(), 0u);
}

TEST(FdCache, ThreadsNeverSeeAClosedDescriptor) {
    FdCache cache;
    cache.Init(4);
    std::atomic<int> bad{0};
    const auto work = [&](unsigned seed) {
        for (int i = 0; i < 2000; ++i) {
            seed = seed * 1664525 + 1013904223;
            const CacheKey key = Key(seed >> 24 & 7);
            int fd = cache.Acquire(key);
            if (fd < 0) fd = cache.Add(key, SomeFile());
            char byte;
            if (pread(fd, &byte, 1, 0) != 0) ++bad;
            if (i % 50 == 0) cache.Forget(1, seed >> 20 & 7);
            if (i % 333 == 0) cache.Clear();
            if (!cache.Release(fd)) ++bad;
        }
    };
    std::vector<std::thread> threads;
    for (unsigned t = 1; t <= 4; ++t) threads.emplace_back(work, t);
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(bad, 0);
    EXPECT_LE(cache.Count(), 4u);
}

}  // namespace
