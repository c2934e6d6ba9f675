// SPDX-License-Identifier: Apache-2.0
//
// oxelctl's stats and clients against a companion service in this process.
#include <gtest/gtest.h>

#include <atomic>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "base/latency_histogram.h"
#include "tests/companion/oxelctl_fixture.h"

namespace oxel::test {

using nlohmann::json;

static std::vector<std::string> Lines(const std::string& text) {
    std::istringstream stream(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    return lines;
}

static json Entry(const std::string& procedure, uint64_t calls) {
    return {
        {"program", "NFS"},           {"procedure", procedure},      {"calls", calls},
        {"errors", {{"IO", 2}}},      {"bytesRead", 1536},           {"bytesWritten", 0},
        {"meanMicroseconds", 12.3},   {"p50Microseconds", 9.0},      {"p95Microseconds", 4560.0},
        {"p99Microseconds", 99900.0}, {"maxMicroseconds", 7890000.0}};
}

TEST_F(Oxelctl, StatsAreATableForPeople) {
    Handle("stats", {{"procedures", {Entry("READ", 1000), Entry("NULL", 0)}},
                     {"rejected", {{"weakCredential", 3}, {"unknownProcedure", 0}}},
                     {"waitedForRecord",
                      {{"calls", 5}, {"meanMicroseconds", 250.0}, {"p99Microseconds", 800.0}}}});
    Start();
    const Outcome outcome = RunHere({"stats"});
    EXPECT_EQ(outcome.code, 0);
    EXPECT_EQ(outcome.output,
              "procedure  calls  read      written  mean     p50      p95      p99      max     "
              "errors\n"
              "READ       1000   1.50 KiB  -        12.3 us  9.00 us  4.56 ms  99.9 ms  7.89 s  "
              "IO 2\n"
              "Rejected: 3 (weakCredential)\n"
              "Waited for a call record: 5 (mean 250 us, p99 800 us; see nMaxNFSRPCThread)\n");
    EXPECT_EQ(LastRequest(), (json{{"verb", "stats"}}));
}

TEST_F(Oxelctl, StatsOfMountAreToldFromThoseOfNfs) {
    json mount = Entry("NULL", 4);
    mount["program"] = "MOUNT";
    Handle("stats", {{"procedures", {Entry("NULL", 7), mount}}});
    Start();
    const std::vector<std::string> lines = Lines(RunHere({"stats"}).output);
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[1].rfind("NULL        7 ", 0), 0u) << lines[1];
    EXPECT_EQ(lines[2].rfind("MOUNT NULL  4 ", 0), 0u) << lines[2];
}

TEST_F(Oxelctl, StatsByShareAndByClient) {
    json share = Entry("", 11), client = Entry("", 12);
    share["path"] = "/srv/a\nb";
    client["client"] = "10.0.0.5";
    Handle("stats", {{"shares", {share}}, {"clients", {client}}});
    Start();
    EXPECT_NE(RunHere({"stats", "--by", "share"}).output.find("/srv/a\\x0ab  11 "),
              std::string::npos);
    EXPECT_NE(RunHere({"stats", "--by", "client"}).output.find("10.0.0.5  12 "), std::string::npos);
    EXPECT_EQ(RunHere({"stats"}).output, "No calls.\n");
    const Outcome wrong = RunHere({"stats", "--by", "moon"});
    EXPECT_EQ(wrong.code, 2);
    EXPECT_NE(wrong.error.find("moon"), std::string::npos) << wrong.error;
}

TEST_F(Oxelctl, StatsFromADaemonOfAnotherVersion) {
    Handle("stats", {{"procedures", {{{"calls", 3}, {"errors", "many"}}, 5, nullptr}},
                     {"rejected", 4},
                     {"waitedForRecord", json::array()}});
    Start();
    const Outcome outcome = RunHere({"stats"});
    EXPECT_EQ(outcome.code, 0) << outcome.error;
    EXPECT_EQ(Lines(outcome.output).size(), 2u) << outcome.output;
}

// Answers with a histogram that grows; the fourth time it refuses, which ends the watching.
class OxelctlWatch : public Oxelctl {
  protected:
    void SetUp() override {
        Oxelctl::SetUp();
        SetControlHandler("stats", [this](const json& request) {
            ControlReply reply;
            if (request.value("buckets", false) == false) {
                reply.ok = false;
                reply.error = "asked without buckets";
                return reply;
            }
            const uint64_t round = ++rounds_;
            if (round == 4) {
                reply.ok = false;
                reply.error = "enough";
                return reply;
            }
            // 100 calls of 2 us before; then 10 of 1 ms in each round.
            const size_t quick = LatencyReading::BucketOf(2000);
            const size_t slow = LatencyReading::BucketOf(1'000'000);
            json entry = Entry("READ", 100 + 10 * (round - 1));
            entry["errors"] = {{"IO", round}};
            entry["bytesRead"] = 4096 * round;
            entry["maxMicroseconds"] = 1000.0;
            entry["totalNanoseconds"] = 200'000 + 10'000'000 * (round - 1);
            entry["buckets"] = {{quick, 100}};
            if (round > 1) entry["buckets"].push_back({slow, 10 * (round - 1)});
            json idle = Entry("WRITE", 50);
            idle["totalNanoseconds"] = 100'000;
            idle["buckets"] = {{quick, 50}};
            reply.body = {{"procedures", {entry, idle}}};
            return reply;
        });
        Start();
    }

  private:
    std::atomic<uint64_t> rounds_{0};
};

TEST_F(OxelctlWatch, ShowsWhatHasComeSinceTheLastTime) {
    const Outcome outcome = RunHere({"stats", "--watch"});
    EXPECT_EQ(outcome.code, 1);
    EXPECT_EQ(outcome.error, "oxelctl: enough\n");
    const std::vector<std::string> lines = Lines(outcome.output);
    ASSERT_EQ(lines.size(), 6u) << outcome.output;  // heading, READ, blank; twice
    for (const size_t at : {size_t{1}, size_t{4}}) {
        std::istringstream words(lines[at]);
        std::string name, calls, read, unit, written, mean;
        words >> name >> calls >> read >> unit >> written >> mean;
        EXPECT_EQ(name + " " + calls + " " + read + " " + unit + " " + written + " " + mean,
                  "READ 10 4.00 KiB - 1.00")
            << lines[at];
        EXPECT_NE(lines[at].find("IO 1"), std::string::npos) << lines[at];
    }
}

TEST_F(OxelctlWatch, IsOneLineOfJsonASecondForPrograms) {
    const Outcome outcome = RunHere({"stats", "--watch", "--json"});
    EXPECT_EQ(outcome.code, 1);
    const std::vector<std::string> lines = Lines(outcome.output);
    ASSERT_EQ(lines.size(), 2u) << outcome.output;
    const json second = json::parse(lines[1]);
    const json read = second["procedures"][0];
    EXPECT_EQ(read["calls"], 10);
    EXPECT_EQ(read["meanMicroseconds"], 1000.0);
    EXPECT_GE(read["p50Microseconds"], 875.0);
    EXPECT_LE(read["p99Microseconds"], 1000.0);
    EXPECT_FALSE(read.contains("buckets"));
    EXPECT_EQ(second["procedures"][1]["calls"], 0);
}

TEST_F(Oxelctl, ClientsAreATableForPeople) {
    Handle("clients", {{"clients",
                        {{{"client", "10.0.0.5"},
                          {"connections", 2},
                          {"calls", 1234},
                          {"errors", 5},
                          {"bytesRead", 2147483648},
                          {"bytesWritten", 100},
                          {"inFlight", 3},
                          {"oldestMilliseconds", 1500},
                          {"shares", {"/srv/a", "/srv/b"}}},
                         {{"client", "2001:db8::7"},
                          {"connections", 1},
                          {"calls", 0},
                          {"errors", 0},
                          {"bytesRead", 0},
                          {"bytesWritten", 0},
                          {"inFlight", 0},
                          {"oldestMilliseconds", 0},
                          {"shares", json::array()}}}}});
    Start();
    EXPECT_EQ(RunHere({"clients"}).output,
              "client       connections  calls  errors  read      written  in flight  oldest  "
              "shares\n"
              "10.0.0.5     2            1234   5       2.00 GiB  100 B    3          1.50 s  "
              "/srv/a /srv/b\n"
              "2001:db8::7  1            0      0       -         -        0          -       -\n");
    Handle("clients", {{"clients", json::array()}});
    EXPECT_EQ(RunHere({"clients"}).output, "No client is connected.\n");
    EXPECT_EQ(json::parse(RunHere({"clients", "--json"}).output),
              (json{{"clients", json::array()}}));
}

}  // namespace oxel::test
