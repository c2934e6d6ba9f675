// SPDX-License-Identifier: Apache-2.0
//
// The call record (its areas, what Reset keeps) and the blocking pool of records.
#include "bin/oxelService_callinfo.h"

#include <gmock/gmock.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <future>
#include <new>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/contract_mocks.h"

using oxel::test::NiceExport;

namespace {

// Sets the transfer size for one test.
class TransferSize {
  public:
    explicit TransferSize(uint64_t bytes) : before_(NFS3_MAXBUF_SIZE) { NFS3_MAXBUF_SIZE = bytes; }
    ~TransferSize() { NFS3_MAXBUF_SIZE = before_; }

  private:
    const uint64_t before_;
};

template <typename T>
bool AllZero(const T& area) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(&area);
    for (size_t i = 0; i < sizeof(T); ++i)
        if (bytes[i] != 0) return false;
    return true;
}

// How many of the argument area's pages hold memory.
size_t ResidentPages(CallInfo3& record) {
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t pages = (sizeof(CallArguments3) + WriteAreaBytes() + page - 1) / page;
    std::vector<unsigned char> resident(pages);
    EXPECT_EQ(0, mincore(&record.arguments(), pages * page, resident.data()));
    size_t count = 0;
    for (unsigned char one : resident) count += one & 1;
    return count;
}

int freedCopies = 0;
SVCXPRT* freedCopy = nullptr;
void CountFreedCopy(SVCXPRT* copy) {
    ++freedCopies;
    freedCopy = copy;
}

}  // namespace

TEST(CallInfo, AFreshRecordIsZeroAndHasNeitherTransportNorRowNorShare) {
    CallInfo3 record;
    EXPECT_EQ(nullptr, record.transport);
    EXPECT_EQ(0u, record.identity.uid);
    EXPECT_EQ(0u, record.identity.gid);
    EXPECT_TRUE(record.identity.groups.empty());
    EXPECT_EQ(0, record.procedure);
    EXPECT_TRUE(AllZero(record.arguments()));
    EXPECT_TRUE(AllZero(record.result));
    EXPECT_EQ(nullptr, record.row);
    EXPECT_EQ(nullptr, record.exportPtr);
    EXPECT_EQ(0u, record.replyBytes);
    EXPECT_EQ(nullptr, record.transportCopy);
}

TEST(CallInfo, ResetZeroesTheCallAndKeepsTheCallersIds) {
    CallInfo3 record;
    SVCXPRT transport{};
    SVCXPRT copy{};
    const ProcedureRow row{};
    record.transport = &transport;
    record.transportCopy = &copy;
    record.row = &row;
    record.procedure = 7;
    record.replyBytes = 99;
    record.identity.uid = 1000;
    record.identity.gid = 100;
    memset(static_cast<void*>(&record.arguments()), 0xff, sizeof(CallArguments3));
    memset(&record.result, 0xff, sizeof(record.result));

    record.Reset();

    EXPECT_EQ(nullptr, record.transport);
    EXPECT_EQ(nullptr, record.row);
    EXPECT_EQ(0, record.procedure);
    EXPECT_EQ(0u, record.replyBytes);
    EXPECT_TRUE(AllZero(record.arguments()));
    EXPECT_TRUE(AllZero(record.result));
    EXPECT_EQ(1000u, record.identity.uid);
    EXPECT_EQ(100u, record.identity.gid);
    EXPECT_EQ(&copy, record.transportCopy) << "the copy is re-armed for the next call";
}

TEST(CallInfo, ResetAndTheDestructorLetGoOfTheShare) {
    boost::shared_ptr<NiceExport> share(new NiceExport("/srv"));
    {
        CallInfo3 record;
        record.exportPtr = share;
        EXPECT_EQ(2, share.use_count());
        record.Reset();
        EXPECT_EQ(1, share.use_count());
        record.exportPtr = share;
    }
    EXPECT_EQ(1, share.use_count());
}

TEST(CallInfo, ClearCallZeroesProcedureArgumentsAndResultOnly) {
    CallInfo3 record;
    SVCXPRT transport{};
    record.transport = &transport;
    record.procedure = 3;
    record.replyBytes = 5;
    memset(static_cast<void*>(&record.arguments()), 0xff, sizeof(CallArguments3));
    memset(&record.result, 0xff, sizeof(record.result));
    record.ClearCall();
    EXPECT_EQ(0, record.procedure);
    EXPECT_TRUE(AllZero(record.arguments()));
    EXPECT_TRUE(AllZero(record.result));
    EXPECT_EQ(&transport, record.transport);
    EXPECT_EQ(5u, record.replyBytes);
}

TEST(CallInfo, TheDataAreaHasRoomForTwoMebibytesBehindTheWriteArguments) {
    CallInfo3 record;
    char* data = record.arguments().write.data();
    EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(data) % 16);
    EXPECT_EQ(2u << 20, WriteAreaBytes());
    memset(data, 0x5a, WriteAreaBytes());
    EXPECT_EQ(0x5a, data[WriteAreaBytes() - 1]);
}

TEST(CallInfo, TheDataAreaHasRoomForALargerTransferSize) {
    TransferSize size(16u << 20);
    CallInfo3 record;
    char* data = record.arguments().write.data();
    EXPECT_EQ(16u << 20, WriteAreaBytes());
    memset(data, 0x5a, WriteAreaBytes());
    EXPECT_EQ(0x5a, data[WriteAreaBytes() - 1]);
}

TEST(CallInfo, ARecordMadeBeforeTheTransferSizeWasReadGrowsWithItsNextCall) {
    CallInfo3 record;
    TransferSize size(16u << 20);
    record.ClearCall();
    EXPECT_TRUE(AllZero(record.arguments()));
    char* data = record.arguments().write.data();
    memset(data, 0x5a, WriteAreaBytes());
    EXPECT_EQ(0x5a, data[WriteAreaBytes() - 1]);
}

TEST(CallInfo, ARecordThatCannotGrowSaysSo) {
    CallInfo3 record;
    memset(static_cast<void*>(&record.arguments()), 0xff, sizeof(CallArguments3));
    TransferSize size(uint64_t{1} << 62);
    EXPECT_THROW(record.ClearCall(), std::bad_alloc);
    EXPECT_TRUE(AllZero(record.arguments()));
    record.Reset();  // goes back to its pool all the same
}

TEST(CallInfo, ARecordWithoutMemoryIsNotMade) {
    TransferSize size(uint64_t{1} << 62);
    EXPECT_THROW(CallInfo3 record, std::bad_alloc);
}

TEST(CallInfoDeathTest, AnOverrunOfTheDataAreaMeetsAGuardPage) {
    CallInfo3 record;
    const auto page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    const auto end = reinterpret_cast<uintptr_t>(&record.arguments()) + sizeof(CallArguments3) +
                     WriteAreaBytes();
    auto* beyond = reinterpret_cast<volatile char*>((end + page - 1) / page * page);
    EXPECT_DEATH(*beyond = 1, "");
}

TEST(CallInfo, TheReadBufferIsKeptForLaterCalls) {
    CallInfo3 record;
    char* first = record.ReadBuffer(100);
    ASSERT_NE(nullptr, first);
    char* largest = record.ReadBuffer(NFS3_MAXBUF_SIZE + 1);
    EXPECT_EQ(first, largest);
    memset(largest, 0x5a, NFS3_MAXBUF_SIZE + 1);
    record.Reset();
    EXPECT_EQ(first, record.ReadBuffer(1));
}

TEST(CallInfo, TheReadBufferGrowsWithTheTransferSize) {
    CallInfo3 record;
    ASSERT_NE(nullptr, record.ReadBuffer(100));
    TransferSize size(16u << 20);
    char* larger = record.ReadBuffer(NFS3_MAXBUF_SIZE + 1);
    ASSERT_NE(nullptr, larger);
    memset(larger, 0x5a, NFS3_MAXBUF_SIZE + 1);
}

TEST(CallInfo, TheReadBufferIsNullWhenMemoryIsShortAndTheOldOneStays) {
    CallInfo3 record;
    char* kept = record.ReadBuffer(100);
    EXPECT_EQ(nullptr, record.ReadBuffer(uint64_t{1} << 62));
    EXPECT_EQ(nullptr, record.ReadBuffer(~uint64_t{0}));
    EXPECT_EQ(kept, record.ReadBuffer(100));
}

TEST(CallInfo, TheMachineNameIsTheRecordsOwnCopyCutTo255Bytes) {
    CallInfo3 record;
    std::string sent(300, 'a');
    record.SetMachineName(sent.c_str());
    sent.assign(300, 'b');
    EXPECT_EQ(std::string(255, 'a'), record.identity.machineName);
    record.SetMachineName("client");
    EXPECT_STREQ("client", record.identity.machineName);
    record.SetMachineName(nullptr);
    EXPECT_EQ(nullptr, record.identity.machineName);
}

TEST(CallInfo, TheTransportCopyIsGivenBackThroughTheHookOnly) {
    SVCXPRT copy{};
    {
        CallInfo3 record;
        record.transportCopy = &copy;  // no hook: left alone
    }
    CallInfo3::freeTransportCopy = CountFreedCopy;
    freedCopies = 0;
    { CallInfo3 withoutCopy; }
    EXPECT_EQ(0, freedCopies);
    {
        CallInfo3 record;
        record.transportCopy = &copy;
    }
    CallInfo3::freeTransportCopy = nullptr;
    EXPECT_EQ(1, freedCopies);
    EXPECT_EQ(&copy, freedCopy);
}

TEST(MemPool, InitMakesTheRecordsAndTouchesOnlyTheirFirstPage) {
    TMemPool<CallInfo3> pool;
    EXPECT_EQ(0u, pool.Total());
    pool.Init(25);
    EXPECT_EQ(25u, pool.Total());
    EXPECT_EQ(25u, pool.Free());
    for (int i = 0; i < 25; ++i) {
        CallInfo3* record = pool.Pop();
        EXPECT_EQ(1u, ResidentPages(*record));
        pool.Push(record);
    }
}

TEST(MemPool, TheRecordThatHasBeenFreeLongestIsTaken) {
    TMemPool<CallInfo3> pool;
    pool.Init(3);
    CallInfo3* a = pool.Pop();
    CallInfo3* b = pool.Pop();
    CallInfo3* c = pool.Pop();
    EXPECT_EQ(3u, (std::set<CallInfo3*>{a, b, c}.size()));
    EXPECT_EQ(0u, pool.Free());
    EXPECT_EQ(3u, pool.Total());
    pool.Push(b);
    pool.Push(a);
    pool.Push(c);
    EXPECT_EQ(3u, pool.Free());
    EXPECT_EQ(b, pool.Pop());
    EXPECT_EQ(a, pool.Pop());
    EXPECT_EQ(c, pool.Pop());
    for (CallInfo3* record : {a, b, c}) pool.Push(record);
}

TEST(MemPool, ThePoolKeepsItsSizeWhateverIsTakenAndGivenBack) {
    TMemPool<CallInfo3> pool;
    pool.Init(2);
    for (int i = 0; i < 10; ++i) {
        CallInfo3* one = pool.Pop();
        CallInfo3* two = pool.Pop();
        EXPECT_EQ(0u, pool.Free());
        pool.Push(one);
        pool.Push(two);
        EXPECT_EQ(2u, pool.Free());
        EXPECT_EQ(2u, pool.Total());
    }
}

TEST(MemPool, TheTwentySixthTakerGetsARecordOnlyOnceOneIsGivenBack) {
    TMemPool<CallInfo3> pool;
    pool.Init(25);
    std::vector<CallInfo3*> taken;
    for (int i = 0; i < 25; ++i) taken.push_back(pool.Pop());
    EXPECT_EQ(0u, pool.Free());

    std::atomic<bool> givenBack{false};
    auto taker = std::async(std::launch::async, [&] {
        CallInfo3* record = pool.Pop();
        EXPECT_TRUE(givenBack.load()) << "taken although all records were in use";
        return record;
    });
    givenBack = true;
    pool.Push(taken[4]);
    EXPECT_EQ(taken[4], taker.get());
    for (CallInfo3* record : taken) pool.Push(record);
    EXPECT_EQ(25u, pool.Free());
}

TEST(MemPool, EveryWaitingTakerGetsARecordWhenAsManyAreGivenBackAtOnce) {
    TMemPool<CallInfo3> pool;
    pool.Init(4);
    for (int round = 0; round < 100; ++round) {
        std::vector<CallInfo3*> taken;
        for (int i = 0; i < 4; ++i) taken.push_back(pool.Pop());
        std::vector<std::future<CallInfo3*>> takers;
        for (int i = 0; i < 4; ++i)
            takers.push_back(std::async(std::launch::async, [&] { return pool.Pop(); }));
        for (CallInfo3* record : taken) pool.Push(record);
        std::set<CallInfo3*> got;
        for (auto& taker : takers) got.insert(taker.get());
        EXPECT_EQ(4u, got.size());
        for (CallInfo3* record : got) pool.Push(record);
    }
}

TEST(MemPool, NoRecordIsEverInTwoHands) {
    TMemPool<CallInfo3> pool;
    pool.Init(2);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&pool, t] {
            for (int i = 0; i < 2000; ++i) {
                CallInfo3* record = pool.Pop();
                record->procedure = t;
                record->replyBytes = static_cast<uint32_t>(i);
                EXPECT_EQ(t, record->procedure);
                EXPECT_EQ(static_cast<uint32_t>(i), record->replyBytes);
                pool.Push(record);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(2u, pool.Free());
}

TEST(MemPool, AFailureToMakeARecordPassesThroughInit) {
    TMemPool<CallInfo3> pool;
    pool.Init(1);
    {
        TransferSize size(uint64_t{1} << 62);
        EXPECT_THROW(pool.Init(3), std::bad_alloc);
    }
    EXPECT_EQ(1u, pool.Total());
    EXPECT_EQ(1u, pool.Free());
}

TEST(MemPool, TheServicesPoolStartsEmpty) {
    EXPECT_EQ(0u, gCallInfoPool.Total());
    EXPECT_EQ(0u, gCallInfoPool.Free());
}
