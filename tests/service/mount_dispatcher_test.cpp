// SPDX-License-Identifier: Apache-2.0
//
// The MOUNT dispatcher: which versions serve what, the refusals, and that every call is handled
// here and now in the one record.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <boost/make_shared.hpp>
#include <csignal>
#include <new>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "backend/ExportCache.h"
#include "backend/FSMCache.h"
#include "base/perf_counter.h"
#include "bin/oxelService.h"
#include "bin/oxelService_callinfo.h"
#include "private_root.h"
#include "rpc_wire.h"
#include "tests/support/contract_mocks.h"
#include "tests/support/log_capture.h"

using oxel::test::LogCapture;
using oxel::test::LogLine;
using oxel::test::NiceExport;
using oxel::test::NiceFSM;
using oxel::test::Opaque;
using oxel::test::PrivateRoot;
using oxel::test::RpcCall;
using oxel::test::RpcReply;
using oxel::test::ServedConnection;
using oxel::test::Word;
using testing::Return;

namespace {

const std::string kDispatcher = "void Mount3Dispatcher(svc_req*, SVCXPRT*)";
constexpr FSModuleType kType = 8;

RpcCall Mount(uint32_t version, uint32_t procedure, const std::string& arguments = "") {
    RpcCall call;
    call.xid = 1000 * version + procedure;
    call.program = 100005;
    call.version = version;
    call.procedure = procedure;
    call.arguments = arguments;
    return call;
}

class MountDispatch : public testing::Test {
  protected:
    void SetUp() override {
        signal(SIGPIPE, SIG_IGN);
        oxel::LogWriter::SetLevel(0);
        for (const rpcvers_t version : {3, 2, 1})
            ASSERT_TRUE(
                svc_reg(connection_.transport, 100005, version, MountDispatcher(), nullptr));
        ON_CALL(*share_, IsClientAllowed).WillByDefault(Return(true));
        ON_CALL(*share_, GetFSMType).WillByDefault(Return(kType));
        ON_CALL(*share_, AddMountPoint).WillByDefault([](const CLuIPAddr&, nfs_fh3* root) {
            *root = oxel::test::MakeHandle(kType, 5, 'r');
            return 0;
        });
        FSMCache::SetFSM(kType, boost::make_shared<NiceFSM>());
        gAllExports.Replace({{5, share_}});
    }
    void TearDown() override {
        gAllExports.Replace({});
        // The record keeps the last call's share; a MNT of no share has it let go.
        if (FD_ISSET(connection_.fd, &svc_fdset)) {
            Ask(Mount(3, 1, Opaque("/no such share")));
            connection_.End();
        }
        FSMCache::SetFSM(kType, nullptr);
        EXPECT_EQ(Connection::Count(), 0u);
    }
    RpcReply Ask(const RpcCall& call) {
        connection_.client.Send(call);
        connection_.Serve();
        const RpcReply reply = connection_.client.Expect();
        EXPECT_EQ(reply.xid, call.xid);
        return reply;
    }
    void ExpectVersion3Only(uint32_t version, uint32_t procedure) {
        const RpcReply reply = Ask(Mount(version, procedure));
        EXPECT_EQ(reply.accept, uint32_t{PROG_MISMATCH})
            << "procedure " << procedure << " of version " << version;
        EXPECT_EQ(reply.low, 3u);
        EXPECT_EQ(reply.high, 3u);
    }

    PrivateRoot root_;
    ServedConnection connection_;
    boost::shared_ptr<NiceExport> share_ = boost::make_shared<NiceExport>("/share");
};

}  // namespace

TEST_F(MountDispatch, Version3ServesAllItsProcedures) {
    EXPECT_EQ(Ask(Mount(3, 0)).results, "");
    EXPECT_EQ(Ask(Mount(3, 1, Opaque("/share"))).results.substr(0, 4), Word(0));
    EXPECT_EQ(Ask(Mount(3, 2)).results, Word(0));
    EXPECT_EQ(Ask(Mount(3, 3, Opaque("/share"))).results, "");
    EXPECT_EQ(Ask(Mount(3, 4)).results, "");
    EXPECT_EQ(Ask(Mount(3, 5)).results, Word(1) + Opaque("/share") + Word(0) + Word(0));
}

TEST_F(MountDispatch, Version1ServesNullUmntAndExport) {
    EXPECT_EQ(Ask(Mount(1, 0)).accept, uint32_t{SUCCESS});
    EXPECT_EQ(Ask(Mount(1, 3, Opaque("/share"))).accept, uint32_t{SUCCESS});
    EXPECT_EQ(Ask(Mount(1, 5)).accept, uint32_t{SUCCESS});
}

TEST_F(MountDispatch, Version1AnswersEverythingElseThatOnlyVersion3IsServed) {
    for (const uint32_t procedure : {1u, 2u, 4u, 6u, 0xffffffffu}) ExpectVersion3Only(1, procedure);
}

TEST_F(MountDispatch, Version2ServesNullAndUmnt) {
    EXPECT_EQ(Ask(Mount(2, 0)).accept, uint32_t{SUCCESS});
    EXPECT_EQ(Ask(Mount(2, 3, Opaque("/share"))).accept, uint32_t{SUCCESS});
}

TEST_F(MountDispatch, Version2AnswersEverythingElseThatOnlyVersion3IsServed) {
    for (const uint32_t procedure : {1u, 2u, 4u, 5u, 6u}) ExpectVersion3Only(2, procedure);
}

TEST_F(MountDispatch, UnknownVersionIsTheLibrarysToRefuse) {
    const RpcReply reply = Ask(Mount(4, 0));
    EXPECT_EQ(reply.accept, uint32_t{PROG_MISMATCH});
    EXPECT_EQ(reply.low, 1u);
    EXPECT_EQ(reply.high, 3u);
}

TEST_F(MountDispatch, Procedure6IsUnavailable) {
    LogCapture log(1);
    EXPECT_EQ(Ask(Mount(3, 6)).accept, uint32_t{PROC_UNAVAIL});
    EXPECT_EQ(Ask(Mount(3, 0xffffffff)).accept, uint32_t{PROC_UNAVAIL});
    EXPECT_EQ(log.Lines(), (std::vector<LogLine>{
                               {-1, kDispatcher, "Error: : unknown procedure 6"},
                               {-1, kDispatcher, "Error: : unknown procedure -1"},
                           }))
        << log.Dump();
}

TEST_F(MountDispatch, ArgumentsThatDoNotDecodeAreGarbage) {
    LogCapture log(1);
    EXPECT_EQ(Ask(Mount(3, 1, Word(100) + "too short")).accept, uint32_t{GARBAGE_ARGS});
    EXPECT_EQ(log.Lines(),
              (std::vector<LogLine>{{-1, kDispatcher, "Error: : Args Decode Failed. procNum [1]"}}))
        << log.Dump();
    EXPECT_EQ(Ask(Mount(3, 0)).accept, uint32_t{SUCCESS});
}

TEST_F(MountDispatch, NoCredentialIsAskedFor) {
    EXPECT_EQ(Ask(Mount(3, 1, Opaque("/share"))).results.substr(0, 4), Word(0));
    RpcCall call = Mount(3, 1, Opaque("/share"));
    EXPECT_EQ(Ask(call.WithUnix(1, 2, "machine")).results.substr(0, 4), Word(0));
}

TEST_F(MountDispatch, ClientIsTheConnections) {
    std::string client;
    ON_CALL(*share_, AddMountPoint).WillByDefault([&](const CLuIPAddr& address, nfs_fh3*) {
        client = address.GetAddressString();
        return 0;
    });
    Ask(Mount(3, 1, Opaque("/share")));
    EXPECT_EQ(client, "127.0.0.1");
}

TEST_F(MountDispatch, TracesEachCallAtLevel3) {
    LogCapture log(3);
    Ask(Mount(3, 0));
    const std::vector<LogLine> lines = log.AtLevel(3);
    ASSERT_EQ(lines.size(), 4u) << log.Dump();
    char transport[32];
    snprintf(transport, sizeof transport, "%p", static_cast<void*>(connection_.transport));
    EXPECT_THAT(lines[0].text,
                testing::MatchesRegex("transp \\[" + std::string(transport) +
                                      "\\] dispatch time \\([0-9]+\\) : prog=100005, ver=3, "
                                      "proc=0, sock=" +
                                      std::to_string(connection_.fd) +
                                      ", port=0 client address = 127.0.0.1"));
    EXPECT_EQ(lines[1].text, "Procedure Name [0:NULL3]");
    EXPECT_EQ(lines[2].text, ": Args Decode Success. Calling [0:NULL3]");
    EXPECT_EQ(lines[3].text, "Reply Sending Success.");
    for (const LogLine& line : lines) EXPECT_EQ(line.function, kDispatcher);
}

TEST_F(MountDispatch, GatedCallIsTracedAndNoMore) {
    LogCapture log(3);
    ExpectVersion3Only(1, 2);
    EXPECT_EQ(log.Lines().size(), 1u) << log.Dump();
}

TEST_F(MountDispatch, FailedReplyIsTold) {
    connection_.client.Send(Mount(3, 0));
    ASSERT_EQ(shutdown(connection_.fd, SHUT_WR), 0);
    LogCapture log(1);
    connection_.Serve();
    EXPECT_EQ(log.Lines(),
              (std::vector<LogLine>{{-1, kDispatcher, "Error: Failed to send reply."}}))
        << log.Dump();
    EXPECT_FALSE(FD_ISSET(connection_.fd, &svc_fdset)) << "the connection has ended";
}

TEST_F(MountDispatch, WithoutMemoryThereIsNoReplyAndTheServiceGoesOn) {
    EXPECT_CALL(*share_, AddMountPoint).WillOnce([](auto&&...) -> int { throw std::bad_alloc(); });
    LogCapture log;
    connection_.client.Send(Mount(3, 1, Opaque("/share")));
    connection_.Serve();
    EXPECT_TRUE(log.Has(-1, "Error: [new] failed.")) << log.Dump();
    EXPECT_TRUE(connection_.client.Silent());
    EXPECT_EQ(Ask(Mount(3, 0)).accept, uint32_t{SUCCESS});
}

// It used to go through the RPC library and end the process.
TEST_F(MountDispatch, AnythingElseThatIsThrownEndsTheCallAlone) {
    EXPECT_CALL(*share_, AddMountPoint).WillOnce([](auto&&...) -> int { throw 42; });
    LogCapture log;
    connection_.client.Send(Mount(3, 1, Opaque("/share")));
    connection_.Serve();
    EXPECT_TRUE(log.Has(-1, "Error: unknown exception caught.")) << log.Dump();
    EXPECT_TRUE(connection_.client.Silent());
    EXPECT_EQ(Ask(Mount(3, 0)).accept, uint32_t{SUCCESS});
}

TEST_F(MountDispatch, HardenedACallThatThrowsIsASystemError) {
    EXPECT_CALL(*share_, AddMountPoint)
        .WillOnce([](auto&&...) -> int { throw std::bad_alloc(); })
        .WillOnce([](auto&&...) -> int { throw 42; });
    gHardened = true;
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(Ask(Mount(3, 1, Opaque("/share"))).accept, uint32_t{SYSTEM_ERR});
    gHardened = false;
    EXPECT_EQ(Ask(Mount(3, 0)).accept, uint32_t{SUCCESS});
}

TEST_F(MountDispatch, OneRecordOfItsOwnServesEveryCall) {
    ASSERT_EQ(gCallInfoPool.Total(), 0u) << "there is no pool to take one from";
    for (int i = 0; i < 50; ++i) EXPECT_EQ(Ask(Mount(3, 0)).accept, uint32_t{SUCCESS});
    EXPECT_EQ(gCallInfoPool.Total(), 0u);
}

TEST_F(MountDispatch, RecordKeepsItsShareUntilTheNextMnt) {
    auto other = boost::make_shared<NiceExport>("/other");
    gAllExports.Replace({{5, share_}, {6, other}});
    Ask(Mount(3, 1, Opaque("/other")));
    gAllExports.Replace({{5, share_}});
    EXPECT_EQ(other.use_count(), 2);
    Ask(Mount(3, 0));
    EXPECT_EQ(other.use_count(), 2);
    Ask(Mount(3, 1, Opaque("/share")));
    EXPECT_EQ(other.use_count(), 1);
}

TEST_F(MountDispatch, ExitFlagDoesNotStopMountCalls) {
    OxelServiceGlobals::exitProcess = 1;
    EXPECT_EQ(Ask(Mount(3, 0)).accept, uint32_t{SUCCESS});
    OxelServiceGlobals::exitProcess = 0;
}

TEST_F(MountDispatch, TransportWithoutAGuardIsNotServed) {
    auto [client, server] = oxel::test::TcpPair();
    SVCXPRT* transport = svc_fd_create(server.Get(), 0, 0);
    ASSERT_NE(transport, nullptr);
    const int fd = server.Release();
    oxel::test::RpcClient rpc(std::move(client));
    rpc.Send(Mount(3, 0));
    svc_getreq_common(fd);
    EXPECT_TRUE(rpc.Silent());
    SVC_DESTROY(transport);
}

TEST_F(MountDispatch, LargeListIsAnsweredWhole) {
    std::vector<std::pair<unsigned, ExportPtr>> shares;
    for (unsigned id = 1; id <= 2000; ++id)
        shares.emplace_back(
            id, boost::make_shared<NiceExport>("/" + std::string(400, 'x') + std::to_string(id)));
    gAllExports.Replace(shares);
    connection_.client.Send(Mount(3, 5));
    std::thread receive([&] { connection_.Serve(); });
    const RpcReply reply = connection_.client.Expect();
    receive.join();
    EXPECT_EQ(reply.accept, uint32_t{SUCCESS});
    EXPECT_GT(reply.results.size(), 2000u * 400);
}

TEST_IN_CHILD(MountCounters, HandlerAndCleanUpAreTimed) {
    ServedConnection connection;
    ASSERT_TRUE(svc_reg(connection.transport, 100005, 3, MountDispatcher(), nullptr));
    connection.client.Send(Mount(3, 0));
    connection.Serve();
    connection.client.Expect();
    std::vector<std::pair<unsigned, std::string>> counted;
    for (const oxel::PerfTotals& total : oxel::PerfSnapshot())
        if (total.id == 11 || total.id == 12) counted.emplace_back(total.id, total.name);
    EXPECT_EQ(counted, (std::vector<std::pair<unsigned, std::string>>{{11, "OXEL"}, {12, "OXEL"}}));
}
