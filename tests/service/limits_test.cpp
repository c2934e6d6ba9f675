// SPDX-License-Identifier: Apache-2.0
//
// What a client may take: the settings, and the account of connections that were ended, whose lines
// nobody can make many.
#include "bin/oxelService_limits.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

#include "backend/OxelServiceGlobals.h"
#include "loop_clock.h"
#include "private_root.h"
#include "tests/support/log_capture.h"

using oxel::test::LogCapture;
using oxel::test::Pass;
using oxel::test::PrivateRoot;

namespace {

class Limits : public testing::Test {
  protected:
    ~Limits() override { NFS3_MAXBUF_SIZE = transferBytes_; }
    ClientLimits Read(const std::string& settings) const {
        root_.WriteConf("[Oxel]\n" + settings);
        return ClientLimits::FromSettings();
    }
    static void ExpectDefaults(const ClientLimits& limits) {
        EXPECT_EQ(limits.connections, 8192u);
        EXPECT_EQ(limits.connectionsPerAddress, 2048u);
        EXPECT_EQ(limits.recordSeconds, 60u);
        EXPECT_EQ(limits.idleSeconds, 600u);
        EXPECT_EQ(limits.sendSeconds, 60u);
        EXPECT_EQ(limits.bufferedBytes, 64u << 20);
    }

  private:
    PrivateRoot root_;
    const uint64_t transferBytes_ = NFS3_MAXBUF_SIZE;
};

class EndedConnections : public testing::Test {
  protected:
    // Begins a new minute, in which nothing has been said.
    void SetUp() override { NextMinute(); }
    static void NextMinute() {
        Pass(60);
        SumUpForClients();
    }
    static uint64_t Count(EndReason reason) {
        return EndCounts()[static_cast<size_t>(reason)].second;
    }
    static void End(EndReason reason, unsigned times, const std::string& text = "of a reason") {
        for (unsigned i = 0; i < times; ++i) CountEnd(reason, "192.0.2.1", text);
    }
    static constexpr char kLine[] = "Ended the connection of [192.0.2.1]: of a reason.";
};

}  // namespace

TEST_F(Limits, HaveDefaults) {
    ExpectDefaults(Read(""));
}

TEST_F(Limits, OfZeroAreTheDefaults) {
    ExpectDefaults(
        Read("nMaxConnections = 0\nnMaxConnectionsPerAddress = 0\nnRecordSeconds = 0\n"
             "nIdleSeconds = 0\nnSendSeconds = 0\nnMaxBufferedMB = 0\n"));
}

TEST_F(Limits, AreTheStoresWhereItHasThem) {
    const ClientLimits limits = Read(
        "nMaxConnections = 1\nnMaxConnectionsPerAddress = 2\nnRecordSeconds = 3\n"
        "nIdleSeconds = 4\nnSendSeconds = 5\nnMaxBufferedMB = 6\n");
    EXPECT_EQ(limits.connections, 1u);
    EXPECT_EQ(limits.connectionsPerAddress, 2u);
    EXPECT_EQ(limits.recordSeconds, 3u);
    EXPECT_EQ(limits.idleSeconds, 4u);
    EXPECT_EQ(limits.sendSeconds, 5u);
    EXPECT_EQ(limits.bufferedBytes, 6u << 20);
}

TEST_F(Limits, OfMemoryMayBeMoreThan4GiB) {
    EXPECT_EQ(Read("nMaxBufferedMB = 8192\n").bufferedBytes, uint64_t{8} << 30);
    EXPECT_EQ(Read("nMaxBufferedMB = 0xffffffff\n").bufferedBytes, 0xffffffffull << 20);
}

TEST_F(Limits, OfMemoryLeaveRoomForOneRecordAtLeast) {
    NFS3_MAXBUF_SIZE = 16 << 20;
    const ClientLimits limits = Read("nMaxBufferedMB = 1\n");
    EXPECT_EQ(limits.bufferedBytes, limits.record.bytes);
}

TEST_F(Limits, OfRecordsFollowTheTransferSize) {
    NFS3_MAXBUF_SIZE = 256 << 10;
    EXPECT_EQ(Read("").record.bytes, (256u << 10) + (8u << 10));
    EXPECT_EQ(Read("").record.fragments, 1024u);
    NFS3_MAXBUF_SIZE = 16 << 20;
    EXPECT_EQ(Read("").record.bytes, (16u << 20) + (8u << 10));
    EXPECT_EQ(Read("").record.fragments, (16u << 20) / 256);
    // However small transfers are, calls have arguments.
    NFS3_MAXBUF_SIZE = 1 << 10;
    EXPECT_EQ(Read("").record.bytes, 16u << 10);
    EXPECT_EQ(Read("").record.fragments, 1024u);
}

TEST_F(EndedConnections, AreCountedByReason) {
    LogCapture log;
    const auto before = EndCounts();
    for (size_t i = 0; i < kEndReasons; ++i)
        End(static_cast<EndReason>(i), static_cast<unsigned>(i + 1));
    const auto after = EndCounts();
    std::set<std::string> names;
    for (size_t i = 0; i < kEndReasons; ++i) {
        EXPECT_EQ(after[i].second - before[i].second, i + 1);
        EXPECT_STREQ(after[i].first, before[i].first);
        names.insert(after[i].first);
    }
    EXPECT_EQ(names.size(), kEndReasons);
    EXPECT_STREQ(after[static_cast<size_t>(EndReason::kNotACall)].first, "notACall");
    EXPECT_STREQ(after[static_cast<size_t>(EndReason::kByClient)].first, "byClient");
}

TEST_F(EndedConnections, ByTheirClientsAreNoErrors) {
    LogCapture log(3);
    End(EndReason::kByClient, 30);
    EXPECT_EQ(log.Count(3, "The client at [192.0.2.1] has ended its connection."), 30u);
    EXPECT_TRUE(log.AtLevel(-1).empty()) << log.Dump();
    NextMinute();
    EXPECT_TRUE(log.AtLevel(-1).empty()) << log.Dump();
}

TEST_F(EndedConnections, HaveTenLinesOfEachReasonInAMinute) {
    LogCapture log;
    End(EndReason::kIdle, 35);
    End(EndReason::kNotACall, 12, "of another");
    EXPECT_EQ(log.Count(-1, kLine), 10u);
    EXPECT_EQ(log.Count(-1, "Ended the connection of [192.0.2.1]: of another."), 10u);
    EXPECT_EQ(log.AtLevel(-1).size(), 20u) << log.Dump();
    Pass(59);
    End(EndReason::kIdle, 5);
    SumUpForClients();
    EXPECT_EQ(log.AtLevel(-1).size(), 20u) << log.Dump();
}

TEST_F(EndedConnections, WithoutALineAreSummedUpWhenTheMinuteIsOver) {
    LogCapture log;
    End(EndReason::kIdle, 35);
    End(EndReason::kNotACall, 10, "of another");
    log.Clear();
    NextMinute();
    EXPECT_EQ(log.AtLevel(-1).size(), 1u) << log.Dump();
    EXPECT_TRUE(log.Has(-1, "25 more connections were ended because of a reason.")) << log.Dump();
    log.Clear();
    NextMinute();
    EXPECT_TRUE(log.Lines().empty()) << "once";
}

TEST_F(EndedConnections, HaveTheirLinesAgainInTheNextMinute) {
    LogCapture log;
    for (int minute = 0; minute < 3; ++minute) {
        log.Clear();
        End(EndReason::kIdle, 15);
        EXPECT_EQ(log.Count(-1, kLine), 10u);
        Pass(60);  // the next one ends this minute by itself
    }
    End(EndReason::kIdle, 1);
    EXPECT_TRUE(log.Has(-1, "5 more connections were ended because of a reason."));
    EXPECT_EQ(log.Lines().back().text, kLine);
}
