// SPDX-License-Identifier: Apache-2.0
#include "backend/FSMCache.h"

#include <gtest/gtest.h>

#include <atomic>
#include <boost/make_shared.hpp>
#include <thread>
#include <vector>

#include "tests/support/contract_mocks.h"

using oxel::test::NiceFSM;

TEST(FSMCache, UnknownTypeIsFalseAndLeavesTheModuleUntouched) {
    FSMPtr kept = boost::make_shared<NiceFSM>();
    FSMPtr module = kept;
    EXPECT_FALSE(FSMCache::GetFSM(4711, module));
    EXPECT_EQ(module, kept);
}

TEST(FSMCache, ModulesAreFoundByTypeReplacedAndRemoved) {
    FSMPtr one = boost::make_shared<NiceFSM>(), two = boost::make_shared<NiceFSM>(), found;
    FSMCache::SetFSM(1, one);
    FSMCache::SetFSM(2, two);
    ASSERT_TRUE(FSMCache::GetFSM(1, found));
    EXPECT_EQ(found, one);
    ASSERT_TRUE(FSMCache::GetFSM(2, found));
    EXPECT_EQ(found, two);
    FSMCache::SetFSM(1, two);
    ASSERT_TRUE(FSMCache::GetFSM(1, found));
    EXPECT_EQ(found, two);
    FSMCache::SetFSM(1, FSMPtr());
    FSMCache::SetFSM(2, FSMPtr());
    FSMCache::SetFSM(2, FSMPtr());
    EXPECT_FALSE(FSMCache::GetFSM(1, found));
    EXPECT_FALSE(FSMCache::GetFSM(2, found));
}

TEST(FSMCache, LookupsRunWhileAModuleIsReplaced) {
    FSMCache::SetFSM(9, boost::make_shared<NiceFSM>());
    std::atomic<bool> stop{false};
    std::atomic<int> misses{0};
    std::vector<std::thread> readers;
    for (int i = 0; i < 2; ++i) {
        readers.emplace_back([&] {
            FSMPtr found;
            while (!stop)
                if (!FSMCache::GetFSM(9, found) || !found) ++misses;
        });
    }
    for (int i = 0; i < 100; ++i) FSMCache::SetFSM(9, boost::make_shared<NiceFSM>());
    stop = true;
    for (std::thread& reader : readers) reader.join();
    FSMCache::SetFSM(9, FSMPtr());
    EXPECT_EQ(misses, 0);
}
