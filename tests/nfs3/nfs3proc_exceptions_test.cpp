// SPDX-License-Identifier: Apache-2.0
//
// Every handler against a back end whose N-th call throws, for every N: nothing stays open, nothing
// is lost, and the release frees what hangs off the result. And handlers on many threads at once.
#include <thread>

#include "tests/nfs3/faulty_back_end.h"

using namespace oxel::test;

namespace {

TEST_F(HandlerFaults, ExceptionInReadClosesTheDescriptorOnce) {
    // The text of the handle, its share, the client, the object, Open, Read.
    EXPECT_EQ(6, ThrowAll(6, [this] { ReadArguments(call_); }));
}

TEST_F(HandlerFaults, ExceptionInReaddirClosesTheStreamOnceAndTheReleaseFreesTheList) {
    // 4 before OpenDir, then SeekDir and its trace; three names of ReadDir and two TellDir, with
    // GetParent and FindChild between them; the end; Stat.
    EXPECT_EQ(4 + 1 + 2 + 3 * 3 + 2 + 1 + 1, ThrowAll(16, [this] { ReaddirArguments(); }));
}

TEST_F(HandlerFaults, ExceptionInReaddirplusClosesTheStreamOnceAndTheReleaseFreesTheList) {
    // As READDIR, with a Stat for each name.
    EXPECT_EQ(4 + 1 + 2 + 3 * 4 + 2 + 1 + 1, ThrowAll(17, [this] { ReaddirplusArguments(call_); }));
}

TEST_F(HandlerFaults, ExceptionInTheOthersReachesTheCaller) {
    EXPECT_EQ(5, ThrowAll(1, [] {}));
    EXPECT_EQ(12, ThrowAll(2, [this] { SetattrArguments(); }));
    EXPECT_EQ(8, ThrowAll(3, [this] { LookupArguments(); }));
    EXPECT_EQ(8, ThrowAll(4, [] {}));
    EXPECT_EQ(6, ThrowAll(5, [] {}));
    EXPECT_EQ(6, ThrowAll(18, [] {}));
    EXPECT_EQ(5, ThrowAll(19, [] {}));
    EXPECT_EQ(9, ThrowAll(20, [] {}));
}

// ---- Threads ----

TEST_F(HandlerFaults, HandlersRunOnManyThreadsAtOnce) {
    oxel::LogWriter::SetLevel(0);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([this] {
            CallInfo3 call;
            for (int round = 0; round < 20; ++round) {
                for (int procedure : {1, 4, 6, 17, 18}) {
                    Fresh(call, procedure);
                    if (procedure == 6) ReadArguments(call);
                    if (procedure == 17) ReaddirplusArguments(call);
                    EXPECT_EQ(TRUE, call.row->handler(&call));
                    EXPECT_EQ(NFS3_OK, call.result.getattr.status);
                    if (procedure == 17) {
                        ASSERT_TRUE(call.result.readdirplus.resok.reply.present);
                        EXPECT_STREQ(".", call.result.readdirplus.resok.reply.entry->name);
                    }
                    if (call.row->release != nullptr) call.row->release(&call);
                }
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EverythingWasClosedOnce();
}

}  // namespace
