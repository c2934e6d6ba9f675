// SPDX-License-Identifier: Apache-2.0
//
// What the log says of refused clients, and how often. Each test has clients of its own: the table
// is the process's.
#include "backend/refusal_log.h"

#include <gtest/gtest.h>

#include <boost/make_shared.hpp>

#include "backend/ExportCache.h"
#include "backend/exports_file.h"
#include "base/store.h"
#include "tests/support/contract_mocks.h"
#include "tests/support/log_capture.h"

namespace oxel::test {
namespace {

CLuIPAddr Client(const std::string& text, unsigned short port = 40000) {
    CLuIPAddr address;
    EXPECT_TRUE(CLuIPAddr::Parse(text, port, &address)) << text;
    return address;
}

XOIPAddr Address(const std::string& text, unsigned short port = 40000) {
    return XOIPAddr(Client(text, port));
}

ClientRules Rules(const std::string& clients) {
    ExportsFile file = ParseExports("/x " + clients + "\n", "exports", false);
    EXPECT_EQ(file.shares.size(), 1u) << clients;
    return file.shares.at(0).clients;
}

std::string File() {
    return InstancePaths(XOPI_Focus::focus()).exports;
}

}  // namespace

TEST(RefusalTable, AReasonIsToldOnceAMinuteWithHowOftenItWas) {
    RefusalTable table;
    const XOIPAddr client = Address("10.0.0.1");
    const auto count = [&](int64_t now) {
        const RefusalTable::Verdict verdict = table.Count(client, RefusalReason::kPort, now);
        return std::make_pair(verdict.tell, verdict.untold);
    };
    EXPECT_EQ(count(1000), std::make_pair(true, uint64_t{0}));
    EXPECT_EQ(count(1000), std::make_pair(false, uint64_t{0}));
    EXPECT_EQ(count(1059), std::make_pair(false, uint64_t{0}));
    EXPECT_EQ(count(1060), std::make_pair(true, uint64_t{2}));
    EXPECT_EQ(count(1061), std::make_pair(false, uint64_t{0}));
    EXPECT_EQ(count(5000), std::make_pair(true, uint64_t{1}));
    EXPECT_EQ(count(6000), std::make_pair(true, uint64_t{0}));
}

TEST(RefusalTable, EachClientAndEachReasonCountsForItself) {
    RefusalTable table;
    for (const char* client : {"10.0.0.1", "10.0.0.2", "2001:db8::1"})
        for (const RefusalReason reason : {RefusalReason::kPath, RefusalReason::kClient,
                                           RefusalReason::kPort, RefusalReason::kChange}) {
            EXPECT_TRUE(table.Count(Address(client), reason, 100).tell);
            EXPECT_FALSE(table.Count(Address(client), reason, 101).tell);
        }
}

TEST(RefusalTable, AnotherPortIsTheSameClient) {
    RefusalTable table;
    EXPECT_TRUE(table.Count(Address("10.0.0.1", 2000), RefusalReason::kPort, 100).tell);
    EXPECT_FALSE(table.Count(Address("::ffff:10.0.0.1", 2001), RefusalReason::kPort, 100).tell);
}

TEST(RefusalTable, OfTooManyClientsTheOldestIsForgotten) {
    RefusalTable table;
    const auto client = [](size_t n) {
        return Address("10.0." + std::to_string(n / 256) + "." + std::to_string(n % 256));
    };
    for (size_t n = 0; n <= RefusalTable::kEntriesMax; ++n)
        EXPECT_TRUE(table.Count(client(n), RefusalReason::kPath, 100).tell);
    EXPECT_FALSE(table.Count(client(RefusalTable::kEntriesMax), RefusalReason::kPath, 100).tell);
    EXPECT_TRUE(table.Count(client(0), RefusalReason::kPath, 100).tell);
}

TEST(RefusalLog, APortNamesTheRuleAndBothRemedies) {
    LogCapture log;
    LogRefusedClient(Address("10.1.0.1", 40000), "/srv/a", Rules("* 10.0.0.0/8(rw,anonuid=5)"));
    EXPECT_TRUE(log.Has(1,
                        "Refused [10.1.0.1]: port 40000 of [/srv/a] by rule "
                        "[10.0.0.0/8(rw,anonuid=5,secure)]: mount from a port below 1024 (as root, "
                        "without noresvport), or add insecure to 10.0.0.0/8 in " +
                            File() + " and run oxelctl reload"))
        << log.Dump();
}

TEST(RefusalLog, AClientThatNoRuleMatchesIsToldWhatToAdd) {
    LogCapture log;
    LogRefusedClient(Address("10.1.0.2"), "/srv/a", Rules("10.9.0.0/16"));
    EXPECT_TRUE(log.Has(1,
                        "Refused [10.1.0.2]: no client of [/srv/a] matches: add 10.1.0.2(ro) to "
                        "its line in " +
                            File() + " and run oxelctl reload"))
        << log.Dump();
}

TEST(RefusalLog, AChangeNamesTheRuleOrThatThereIsNone) {
    LogCapture log;
    const ClientRules rules = Rules("*(rw) 10.0.0.0/8(insecure)");
    LogRefusedChange(Client("10.1.0.3"), "/srv/a", rules.Match(Address("10.1.0.3")));
    EXPECT_TRUE(log.Has(1,
                        "Refused [10.1.0.3]: a change in [/srv/a] by rule "
                        "[10.0.0.0/8(ro,insecure)]: write rw instead of ro for 10.0.0.0/8 in " +
                            File() + " and run oxelctl reload"))
        << log.Dump();
    LogRefusedChange(Client("10.1.0.4"), "/srv/a", nullptr);
    EXPECT_TRUE(log.Has(1,
                        "Refused [10.1.0.4]: a change in [/srv/a], which no client may change: "
                        "write rw for the client in " +
                            File() + " and run oxelctl reload"))
        << log.Dump();
}

TEST(RefusalLog, APathNamesTheShareThatWasMeant) {
    gAllExports.Replace({{1, boost::make_shared<NiceExport>("/srv/open")}});
    LogCapture log;
    LogRefusedPath(Client("10.1.0.5"), "/srv//open/sub");
    EXPECT_TRUE(log.Has(1,
                        "Refused [10.1.0.5]: /srv/open/sub is not a share, it lies below share "
                        "/srv/open: mount /srv/open instead; there it is sub"))
        << log.Dump();
    gAllExports.Replace({});
}

TEST(RefusalLog, IsSilentWhereNobodyWantsIt) {
    const int level = LogWriter::Level();
    {
        LogCapture log;
        LogWriter::SetLevel(0);
        LogRefusedPath(Client("10.1.0.6"), "/x");
        EXPECT_EQ(log.Dump(), "");
        LogWriter::SetLevel(1);
        // What was not counted is told as soon as somebody wants it.
        LogRefusedPath(Client("10.1.0.6"), "/x");
        EXPECT_NE(log.Dump(), "");
    }
    LogWriter::SetLevel(level);
}

TEST(RefusalLog, IsWrittenOnceForManyCalls) {
    LogCapture log;
    const ClientRules rules = Rules("10.9.0.0/16");
    for (int i = 0; i < 100; ++i) LogRefusedClient(Address("10.1.0.7"), "/srv/a", rules);
    const std::string said = log.Dump();
    EXPECT_NE(said.find("Refused [10.1.0.7]"), std::string::npos);
    EXPECT_EQ(said.find("Refused [10.1.0.7]"), said.rfind("Refused [10.1.0.7]"));
}

}  // namespace oxel::test
