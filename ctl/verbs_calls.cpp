// SPDX-License-Identifier: Apache-2.0
//
// What clients do: who is connected, how many calls, and how long they take.
#include <time.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "base/log.h"
#include "companion/latency_figures.h"
#include "ctl/ask.h"
#include "ctl/output.h"

namespace oxel::ctl {

using nlohmann::json;

namespace {

constexpr time_t kWatchSeconds = 1;

uint64_t Number(const json& object, const char* member) {
    const auto found = object.find(member);
    return found != object.end() && found->is_number_unsigned() ? found->get<uint64_t>() : 0;
}

double Real(const json& object, const char* member) {
    const auto found = object.find(member);
    return found != object.end() && found->is_number() ? found->get<double>() : 0;
}

// "NOENT 12, STALE 1"; "-" when there are none.
std::string ErrorsText(const json& entry) {
    std::string text;
    if (const auto errors = entry.find("errors"); errors != entry.end() && errors->is_object())
        for (const auto& [status, count] : errors->items())
            if (Number(*errors, status.c_str()) != 0)
                text += (text.empty() ? "" : ", ") + EscapeControl(status) + " " +
                        std::to_string(Number(*errors, status.c_str()));
    return text.empty() ? "-" : text;
}

std::string WordsText(const json& entry, const char* member) {
    std::string text;
    if (const auto words = entry.find(member); words != entry.end() && words->is_array())
        for (const json& word : *words)
            if (word.is_string())
                text += (text.empty() ? "" : " ") + EscapeControl(word.get<std::string>());
    return text.empty() ? "-" : text;
}

// How the statistics are grouped: the reply's list, and what its entries are called by.
struct Grouping {
    const char* by;
    const char* list;
    const char* heading;
    const char* member;
};
constexpr Grouping kGroupings[] = {
    {"procedure", "procedures", "procedure", "procedure"},
    {"share", "shares", "share", "path"},
    {"client", "clients", "client", "client"},
};

std::string NameOf(const Grouping& grouping, const json& entry) {
    std::string name = Shown(entry, grouping.member);
    // NULL is in both programs.
    if (entry.value("program", json()) == json("MOUNT")) name = "MOUNT " + name;
    return name;
}

// ---- Differences ----

// The entry of `list` that is called as `entry` is; an empty one when there is none.
json Counterpart(const std::vector<json>& list, const Grouping& grouping, const json& entry) {
    for (const json& one : list)
        if (one.value(grouping.member, json()) == entry.value(grouping.member, json()) &&
            one.value("program", json()) == entry.value("program", json()))
            return one;
    return json::object();
}

void TakeOff(const json& earlier, const char* member, json* entry) {
    const uint64_t now = Number(*entry, member), before = Number(earlier, member);
    (*entry)[member] = now < before ? now : now - before;  // a daemon that was started anew
}

// Makes `entry` what has come since `earlier`, without the buckets that tell.
void Since(const json& earlier, json* entry) {
    LatencyReading latency = LatencyWithBuckets(*entry);
    const LatencyReading before = LatencyWithBuckets(earlier);
    if (before.count <= latency.count) latency.Subtract(before);
    for (const char* member : {"calls", "bytesRead", "bytesWritten"})
        TakeOff(earlier, member, entry);
    const json none = json::object();
    const auto errors = entry->find("errors");
    if (errors != entry->end() && errors->is_object()) {
        const json earlierErrors = earlier.value("errors", none);
        for (const auto& [status, count] : errors->items())
            TakeOff(earlierErrors, status.c_str(), &*errors);
    }
    for (const LatencyFigure& figure : kLatencyFigures)
        (*entry)[figure.member] = static_cast<double>(figure.nanoseconds(latency)) / 1000;
    RemoveLatencyBuckets(entry);
}

// ---- Tables ----

void ShowStats(const Grouping& grouping, const std::vector<json>& entries) {
    std::vector<std::vector<std::string>> rows;
    for (const json& entry : entries) {
        if (Number(entry, "calls") == 0) continue;
        std::vector<std::string> row = {NameOf(grouping, entry), Shown(entry, "calls"),
                                        ShownBytes(Number(entry, "bytesRead")),
                                        ShownBytes(Number(entry, "bytesWritten"))};
        for (const LatencyFigure& figure : kLatencyFigures)
            row.push_back(ShownMicroseconds(Real(entry, figure.member)));
        row.push_back(ErrorsText(entry));
        rows.push_back(std::move(row));
    }
    if (rows.empty()) {
        printf("No calls.\n");
        return;
    }
    PrintColumns({grouping.heading, "calls", "read", "written", "mean", "p50", "p95", "p99", "max",
                  "errors"},
                 rows);
}

void ShowRest(const json& body) {
    for (const char* reason : {"unknownProcedure", "weakCredential", "garbageArguments"})
        if (const uint64_t count = Number(body.value("rejected", json::object()), reason))
            printf("Rejected: %llu (%s)\n", static_cast<unsigned long long>(count), reason);
    const json waited = body.value("waitedForRecord", json::object());
    if (const uint64_t calls = Number(waited, "calls"))
        printf("Waited for a call record: %llu (mean %s, p99 %s; see nMaxNFSRPCThread)\n",
               static_cast<unsigned long long>(calls),
               ShownMicroseconds(Real(waited, "meanMicroseconds")).c_str(),
               ShownMicroseconds(Real(waited, "p99Microseconds")).c_str());
}

const Grouping& GroupingOf(const Settings& settings) {
    for (const Grouping& grouping : kGroupings)
        if (settings.by == grouping.by) return grouping;
    return kGroupings[0];
}

// Once a second what has come in that second, until the tool or the daemon ends.
ExitCode Watch(const Settings& settings, const Grouping& grouping) {
    const json request = {{"verb", "stats"}, {"buckets", true}};
    Settings quiet = settings;
    quiet.json = false;  // a daemon that has ended is no line of figures
    std::vector<json> before;
    for (bool first = true;; first = false) {
        json body;
        if (const ExitCode code = Request(quiet, request, kAnswerMs, &body); code != kDone)
            return code;
        const std::vector<json> now = Listed(body, grouping.list);
        std::vector<json> shown = now;
        for (json& entry : shown) Since(Counterpart(before, grouping, entry), &entry);
        before = now;
        // All since the daemon's start is no second.
        if (!first && settings.json) {
            PrintJson({{grouping.list, shown}});
        } else if (!first) {
            if (isatty(STDOUT_FILENO) != 0) printf("\033[H\033[2J");
            ShowStats(grouping, shown);
            printf("\n");
        }
        (void)fflush(stdout);
        const timespec pause{kWatchSeconds, 0};
        (void)nanosleep(&pause, nullptr);
    }
}

}  // namespace

ExitCode Clients(const Settings& settings) {
    return Ask(settings, {{"verb", "clients"}}, kAnswerMs, [](const json& body) {
        std::vector<std::vector<std::string>> rows;
        for (const json& client : Listed(body, "clients")) {
            std::string oldest = "-";
            if (Number(client, "inFlight") != 0)
                oldest = ShownMicroseconds(
                    static_cast<double>(Number(client, "oldestMilliseconds")) * 1000);
            rows.push_back({Shown(client, "client"), Shown(client, "connections"),
                            Shown(client, "calls"), Shown(client, "errors"),
                            ShownBytes(Number(client, "bytesRead")),
                            ShownBytes(Number(client, "bytesWritten")), Shown(client, "inFlight"),
                            oldest, WordsText(client, "shares")});
        }
        if (rows.empty()) {
            printf("No client is connected.\n");
            return;
        }
        PrintColumns({"client", "connections", "calls", "errors", "read", "written", "in flight",
                      "oldest", "shares"},
                     rows);
    });
}

ExitCode Stats(const Settings& settings) {
    const Grouping& grouping = GroupingOf(settings);
    if (settings.watch) return Watch(settings, grouping);
    return Ask(settings, {{"verb", "stats"}}, kAnswerMs, [&grouping](const json& body) {
        ShowStats(grouping, Listed(body, grouping.list));
        ShowRest(body);
    });
}

}  // namespace oxel::ctl
