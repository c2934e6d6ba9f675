// SPDX-License-Identifier: Apache-2.0
//
// The account of calls: what is counted where, and which clients are remembered. The account is the
// process's: tests look at what has come since they began.
#include "bin/oxelService_account.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bin/oxelService_callinfo.h"
#include "mount3/mount3proc.h"
#include "net/CLuIPAddr.h"
#include "nfs3/nfs3proc.h"
#include "tests/support/contract_mocks.h"

using oxel::test::NiceExport;

namespace {

constexpr int kGetattr = 1;

CLuIPAddr Address(const std::string& text) {
    CLuIPAddr address;
    EXPECT_TRUE(CLuIPAddr::Parse(text, 700, &address)) << text;
    return address;
}

// The meter of a procedure in a share; of its own share id, so that no other test counts there.
MeterReading MeterOf(const std::string& procedure, uint32_t shareId,
                     RpcProgram program = RpcProgram::kNfs) {
    for (const ProcedureReading& one : ReadProcedures())
        if (one.program == program && one.procedure == procedure && one.shareId == shareId)
            return one.meter;
    return {};
}

ClientReading ReadingOf(const std::string& client) {
    for (const ClientReading& one : ReadClients())
        if (one.address == client) return one;
    return {};
}

bool IsKnown(const std::string& client) {
    return ReadingOf(client).address == client;
}

class Account : public testing::Test {
  protected:
    // One NFS call on a share, from its dispatching to its end.
    void Call(int procedure, uint32_t shareId, nfsstat3 status, ClientAccount* client = nullptr) {
        BeginCall(&record_, client);
        record_.row = &Nfsv3Handlers[procedure];
        record_.arguments().getattr.object.shareId = shareId;
        if (shareId != 0) record_.exportPtr = share_;
        record_.result.getattr.status = status;
        EndCall(&record_, OutcomeOf(&record_));
        record_.Reset();
    }

    CallInfo3 record_;
    const boost::shared_ptr<NiceExport> share_{new NiceExport("/account")};
};

}  // namespace

TEST_F(Account, CallsAreCountedByProcedureAndShare) {
    Call(kGetattr, 101, NFS3_OK);
    Call(kGetattr, 101, NFS3_OK);
    Call(kGetattr, 102, NFS3_OK);
    Call(NFSPROC3_READDIR, 101, NFS3_OK);
    EXPECT_EQ(MeterOf("GETATTR", 101).Calls(), 2u);
    EXPECT_EQ(MeterOf("GETATTR", 102).Calls(), 1u);
    EXPECT_EQ(MeterOf("READDIR", 101).Calls(), 1u);
    EXPECT_EQ(MeterOf("READDIR", 102).Calls(), 0u);
}

TEST_F(Account, PathIsTheSharesWhenItWasFirstUsed) {
    Call(kGetattr, 103, NFS3_OK);
    for (const ProcedureReading& one : ReadProcedures()) {
        if (one.shareId != 103) continue;
        EXPECT_EQ(one.sharePath, "/account");
        return;
    }
    FAIL() << "not counted";
}

TEST_F(Account, CallThatNamesNoShareIsCountedUnderNone) {
    const uint64_t before = MeterOf("GETATTR", 0).Calls();
    Call(kGetattr, 0, NFS3ERR_STALE);
    EXPECT_EQ(MeterOf("GETATTR", 0).Calls(), before + 1);
}

// A handle that somebody made up must not make a meter for each number in it.
TEST_F(Account, ShareIdOfAHandleCountsOnlyWhenThereIsSuchAShare) {
    BeginCall(&record_, nullptr);
    record_.row = &Nfsv3Handlers[kGetattr];
    record_.arguments().getattr.object.shareId = 104;
    record_.result.getattr.status = NFS3ERR_STALE;
    EndCall(&record_, OutcomeOf(&record_));
    EXPECT_EQ(MeterOf("GETATTR", 104).Calls(), 0u);
}

TEST_F(Account, ErrorsAreCountedByStatus) {
    for (const nfsstat3 status : {NFS3ERR_NOENT, NFS3ERR_NOENT, NFS3ERR_STALE, NFS3ERR_JUKEBOX,
                                  NFS3ERR_BADHANDLE, static_cast<nfsstat3>(12), NFS3_OK,
                                  static_cast<nfsstat3>(500), static_cast<nfsstat3>(-7)})
        Call(kGetattr, 105, status);
    const MeterReading meter = MeterOf("GETATTR", 105);
    EXPECT_EQ(meter.errors,
              (std::map<std::string, uint64_t>{
                  {"NOENT", 2}, {"STALE", 1}, {"JUKEBOX", 1}, {"BADHANDLE", 1}, {"other", 3}}));
    EXPECT_EQ(meter.Calls(), 9u);
    EXPECT_EQ(meter.Errors(), 8u);
}

TEST_F(Account, HandlerThatThrewIsAnError) {
    BeginCall(&record_, nullptr);
    record_.row = &Nfsv3Handlers[kGetattr];
    record_.arguments().getattr.object.shareId = 106;
    record_.exportPtr = share_;
    EndCall(&record_, kCallThrew);
    EXPECT_EQ(MeterOf("GETATTR", 106).errors, (std::map<std::string, uint64_t>{{"SYSTEM_ERR", 1}}));
}

TEST_F(Account, DataOfReadAndWriteIsCountedWhenTheyDidIt) {
    for (const nfsstat3 status : {NFS3_OK, NFS3ERR_IO}) {
        record_.result.read.resok.count = 4000;
        Call(NFSPROC3_READ, 107, status);
        record_.result.write.resok.count = 500;
        Call(NFSPROC3_WRITE, 107, status);
    }
    EXPECT_EQ(MeterOf("READ", 107).bytesRead, 4000u);
    EXPECT_EQ(MeterOf("READ", 107).bytesWritten, 0u);
    EXPECT_EQ(MeterOf("WRITE", 107).bytesWritten, 500u);
    EXPECT_EQ(MeterOf("WRITE", 107).bytesRead, 0u);
}

TEST_F(Account, MountProceduresAreCountedApart) {
    const MeterReading before = MeterOf("MNT", 0, RpcProgram::kMount);
    BeginCall(&record_, nullptr);
    record_.row = &Mountv3Handlers[MOUNTPROC3_MNT];
    record_.result.mnt.fhs_status = MNT3ERR_ACCES;
    EndCall(&record_, OutcomeOf(&record_));
    const MeterReading after = MeterOf("MNT", 0, RpcProgram::kMount);
    EXPECT_EQ(after.Calls(), before.Calls() + 1);
    EXPECT_EQ(after.Errors(), before.Errors() + 1);
}

TEST_F(Account, ForgottenCallIsNotCounted) {
    BeginCall(&record_, nullptr);
    record_.row = &Nfsv3Handlers[kGetattr];
    record_.arguments().getattr.object.shareId = 108;
    record_.exportPtr = share_;
    ForgetCall(&record_);
    EndCall(&record_, NFS3_OK);
    EXPECT_EQ(MeterOf("GETATTR", 108).Calls(), 0u);
}

TEST_F(Account, CallEndsOnce) {
    Call(kGetattr, 109, NFS3_OK);
    record_.row = &Nfsv3Handlers[kGetattr];
    EndCall(&record_, NFS3_OK);
    EXPECT_EQ(MeterOf("GETATTR", 109).Calls(), 1u);
}

TEST_F(Account, ManySharesAreKeptApart) {
    constexpr uint32_t kShares = 3000, kFirst = 1'000'000;
    // Some of them would have one place.
    for (uint32_t i = 0; i < kShares; ++i) Call(kGetattr, kFirst + 4 * i, NFS3_OK);
    uint32_t found = 0;
    for (const ProcedureReading& one : ReadProcedures())
        if (one.shareId >= kFirst && one.procedure == "GETATTR") {
            EXPECT_EQ(one.meter.Calls(), 1u) << one.shareId;
            ++found;
        }
    EXPECT_EQ(found, kShares);
}

TEST_F(Account, ThreadsThatMakeAMeterAtOnceMakeOne) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([this] {
            auto record = std::make_unique<CallInfo3>();
            for (int call = 0; call < 500; ++call) {
                BeginCall(record.get(), nullptr);
                record->row = &Nfsv3Handlers[kGetattr];
                record->arguments().getattr.object.shareId = 110 + static_cast<uint32_t>(call % 50);
                record->exportPtr = share_;
                EndCall(record.get(), NFS3_OK);
            }
        });
    for (std::thread& thread : threads) thread.join();
    for (uint32_t id = 110; id < 160; ++id) EXPECT_EQ(MeterOf("GETATTR", id).Calls(), 40u) << id;
}

// ---- Clients ----

TEST_F(Account, ConnectionsOfOneAddressAreOneClient) {
    ClientAccount* first = EnterClient(Address("10.1.1.1"));
    ClientAccount* second = EnterClient(Address("10.1.1.1"));
    EXPECT_EQ(first, second);
    EXPECT_EQ(ReadingOf("10.1.1.1").connections, 2u);
    // The same host on the IPv6 socket.
    EXPECT_EQ(EnterClient(Address("::ffff:10.1.1.1")), first);
    for (int i = 0; i < 3; ++i) LeaveClient(first);
    EXPECT_EQ(ReadingOf("10.1.1.1").connections, 0u);
}

TEST_F(Account, CallsAreCountedByClient) {
    ClientAccount* client = EnterClient(Address("10.1.1.2"));
    record_.result.read.resok.count = 77;
    Call(NFSPROC3_READ, 161, NFS3_OK, client);
    Call(kGetattr, 162, NFS3ERR_STALE, client);
    Call(kGetattr, 162, NFS3_OK, client);
    const ClientReading reading = ReadingOf("10.1.1.2");
    EXPECT_EQ(reading.meter.Calls(), 3u);
    EXPECT_EQ(reading.meter.Errors(), 1u);
    EXPECT_EQ(reading.meter.bytesRead, 77u);
    EXPECT_EQ(reading.shares, (std::vector<uint32_t>{161, 162}));
    EXPECT_EQ(reading.callsInFlight, 0u);
    LeaveClient(client);
}

TEST_F(Account, ClientThatComesBackIsTheSame) {
    ClientAccount* client = EnterClient(Address("10.1.1.3"));
    Call(kGetattr, 163, NFS3_OK, client);
    LeaveClient(client);
    client = EnterClient(Address("10.1.1.3"));
    EXPECT_EQ(ReadingOf("10.1.1.3").meter.Calls(), 1u);
    LeaveClient(client);
}

TEST_F(Account, CallsInFlightAreThoseOfTheirClient) {
    gCallInfoPool.Init(3);
    CallInfo3* one = gCallInfoPool.Pop();
    CallInfo3* other = gCallInfoPool.Pop();
    ClientAccount* client = EnterClient(Address("10.1.1.4"));
    ClientAccount* idle = EnterClient(Address("10.1.1.5"));
    BeginCall(one, client);
    BeginCall(other, client);
    ClientReading reading = ReadingOf("10.1.1.4");
    EXPECT_EQ(reading.callsInFlight, 2u);
    EXPECT_GT(reading.oldestNanoseconds, 0u);
    EXPECT_EQ(ReadingOf("10.1.1.5").callsInFlight, 0u);
    EXPECT_EQ(ReadingOf("10.1.1.5").oldestNanoseconds, 0u);
    ForgetCall(one);
    EXPECT_EQ(ReadingOf("10.1.1.4").callsInFlight, 1u);
    ForgetCall(other);
    EXPECT_EQ(ReadingOf("10.1.1.4").callsInFlight, 0u);
    for (CallInfo3* record : {one, other}) gCallInfoPool.Push(record);
    for (ClientAccount* account : {client, idle}) LeaveClient(account);
}

TEST_F(Account, SharesUsedAreTheLatestSixteen) {
    ClientAccount* client = EnterClient(Address("10.1.1.6"));
    for (uint32_t id = 200; id < 240; ++id) {
        client->Used(id);
        client->Used(id);
    }
    const std::vector<uint32_t> used = client->SharesUsed();
    EXPECT_EQ(used.size(), ClientAccount::kShares);
    EXPECT_EQ(used.back(), 239u);
    EXPECT_EQ(used.front(), 240u - ClientAccount::kShares);
    LeaveClient(client);
}

// As many addresses as somebody has must not fill the memory.
TEST_F(Account, ThousandClientsThatHaveGoneAreRememberedAndNoMore) {
    ClientAccount* stays = EnterClient(Address("10.2.0.1"));
    for (int i = 0; i < 1500; ++i)
        LeaveClient(EnterClient(
            Address("10.3." + std::to_string(i / 250) + "." + std::to_string(i % 250))));
    EXPECT_EQ(ReadClients().size(), 1024u + 1);
    EXPECT_TRUE(IsKnown("10.2.0.1")) << "it has a connection";
    LeaveClient(stays);
}

// ---- The rest ----

TEST_F(Account, RejectionsAreCountedByReason) {
    const auto before = ReadRejections();
    CountRejection(Rejection::kWeakCredential);
    const auto after = ReadRejections();
    EXPECT_STREQ(after[0].first, "unknownProcedure");
    EXPECT_EQ(after[0].second, before[0].second);
    EXPECT_STREQ(after[1].first, "weakCredential");
    EXPECT_EQ(after[1].second, before[1].second + 1);
    EXPECT_STREQ(after[2].first, "garbageArguments");
    EXPECT_EQ(after[2].second, before[2].second);
}
