// SPDX-License-Identifier: Apache-2.0
//
// The verb "check": every error in the files, with or without a daemon, and what a reload of one
// that runs would change.
#include <gtest/gtest.h>

#include "tests/companion/oxelctl_fixture.h"

namespace oxel::test {

using nlohmann::json;

static std::string NoDaemon() {
    return "No daemon runs for instance " + XOPI_Focus::focus() + ".\n";
}

TEST_F(Oxelctl, CheckOfGoodFilesSumsThemUp) {
    const InstancePaths paths = root_.Paths();
    WriteFile(paths.conf, "# all\n[Oxel]\nnNfs3Port = 2049\n[Log]\nnLogLevel=0x2\n");
    WriteFile(paths.exports, "/a -dir=" + root_.Path() + "\n");
    Outcome outcome = RunHere({"check"});
    EXPECT_EQ(outcome.code, 0);
    EXPECT_EQ(outcome.error, "");
    EXPECT_EQ(outcome.output, "ok: 1 share in " + paths.exports + ", 2 settings in " + paths.conf +
                                  "\n" + NoDaemon());
    outcome = RunHere({"check", "--json"});
    EXPECT_EQ(outcome.code, 0);
    EXPECT_EQ(json::parse(outcome.output), (json{{"errors", json::array()},
                                                 {"warnings", json::array()},
                                                 {"settings", 2},
                                                 {"shares", 1},
                                                 {"running", false},
                                                 {"reload", nullptr}}));
}

TEST_F(Oxelctl, CheckOfNoFilesIsGood) {
    const Outcome outcome = RunHere({"check"});
    EXPECT_EQ(outcome.code, 0);
    EXPECT_EQ(outcome.output.substr(0, 16), "ok: 0 shares in ");
}

TEST_F(Oxelctl, CheckShowsEveryErrorOfBothFilesWithItsLine) {
    const InstancePaths paths = root_.Paths();
    WriteFile(paths.conf, "[Oxel]\nthis is no line\nnNfs3Port = many\n[Log\nnLogLevel = 1\n");
    WriteFile(paths.exports, "/a *(rww)\n\n/b \\\n  10.0.0.0/33\nrelative\n/c -dir=" +
                                 root_.Path() + "/gone\n/d -dir=" + root_.Path() + "\n");
    Outcome outcome = RunHere({"check"});
    EXPECT_EQ(outcome.code, 1);
    EXPECT_EQ(outcome.output,
              paths.conf + ":2: neither [Section] nor key = number\n" + paths.conf +
                  ":3: the value is not a number\n" + paths.conf +
                  ":4: no ']' after the section's name\n" + paths.conf +
                  ":5: no readable [Section] above this key\n" + paths.exports +
                  ":1: unknown option 'rww'; did you mean 'rw'?\n" + paths.exports +
                  ":4: network '10.0.0.0/33' needs a prefix length from 0 to 32 or a netmask "
                  "after the '/'\n" +
                  paths.exports + ":5: a share's path must begin with '/': 'relative'\n" +
                  paths.exports + ":6: directory '" + root_.Path() + "/gone' does not exist\n" +
                  NoDaemon());
    EXPECT_EQ(outcome.error, "oxelctl: 8 errors\n");
    outcome = RunHere({"--json", "check"});
    EXPECT_EQ(outcome.code, 1);
    const json answer = json::parse(outcome.output);
    ASSERT_EQ(answer["errors"].size(), 8u);
    EXPECT_EQ(answer["errors"][1],
              (json{{"file", paths.conf}, {"line", 3}, {"reason", "the value is not a number"}}));
    EXPECT_EQ(answer["shares"], 1);
    EXPECT_EQ(answer["error"], "8 errors");
}

TEST_F(Oxelctl, CheckSaysWhichFileCannotBeRead) {
    const InstancePaths paths = root_.Paths();
    std::filesystem::create_directories(paths.conf);
    std::filesystem::create_directories(paths.exports);
    const Outcome outcome = RunHere({"check"});
    EXPECT_EQ(outcome.code, 1);
    EXPECT_EQ(outcome.output, paths.conf + ": cannot be read: Is a directory\n" + paths.exports +
                                  ": the file cannot be read: Is a directory\n" + NoDaemon());
}

TEST_F(Oxelctl, CheckWarnsOfKeysThatNothingReads) {
    const InstancePaths paths = root_.Paths();
    WriteFile(paths.conf,
              "[Oxel]\nnHardend = 1\nnHardened = 1\nnLogLevel = 2\n[oxel]\nnHardened = 1\n");
    const std::vector<std::pair<int, std::string>> expected = {
        {2, "nothing reads 'nHardend' in section [Oxel]; did you mean 'nHardened'?"},
        {4, "nothing reads 'nLogLevel' in section [Oxel]; it belongs into section [Log]"},
        {6, "nothing reads 'nHardened' in section [oxel]; it belongs into section [Oxel]"}};
    std::string text;
    json warnings = json::array();
    for (const auto& [line, reason] : expected) {
        text += paths.conf + ":" + std::to_string(line) + ": " + reason + " (warning)\n";
        warnings.push_back({{"file", paths.conf}, {"line", line}, {"reason", reason}});
    }
    Outcome outcome = RunHere({"check"});
    EXPECT_EQ(outcome.code, 0);
    EXPECT_EQ(outcome.error, "");
    EXPECT_EQ(outcome.output, "ok: 0 shares in " + paths.exports + ", 4 settings in " + paths.conf +
                                  "\n" + text + NoDaemon());
    outcome = RunHere({"check", "--json"});
    EXPECT_EQ(outcome.code, 0);
    const json answer = json::parse(outcome.output);
    EXPECT_EQ(answer["warnings"], warnings);
    EXPECT_EQ(answer["errors"], json::array());
}

TEST_F(Oxelctl, CheckAsksADaemonThatRunsWhatAReloadWouldChange) {
    const json body = {
        {"added", {{{"path", "/new"}, {"id", 1}}}},
        {"removed", json::array()},
        {"changed", {{{"path", "/b"}, {"id", 4}, {"what", {"id"}}, {"handlesKept", false}}}},
        {"unchanged", 5}};
    Handle("reload", body);
    Start();
    Outcome outcome = RunHere({"check"});
    EXPECT_EQ(outcome.code, 0);
    EXPECT_EQ(outcome.output.substr(outcome.output.find('\n') + 1),
              "A reload would change this:\n"
              "outcome  path  id  what\n"
              "added    /new  1\n"
              "changed  /b    4   id (clients that have it mounted must mount it again)\n");
    EXPECT_EQ(LastRequest(), (json{{"verb", "reload"}, {"preview", true}}));
    outcome = RunHere({"check", "--json"});
    EXPECT_EQ(outcome.code, 0);
    const json answer = json::parse(outcome.output);
    EXPECT_EQ(answer["running"], true);
    EXPECT_EQ(answer["reload"], body);
    Handle("reload", {{"added", json::array()}, {"unchanged", 5}});
    outcome = RunHere({"check"});
    EXPECT_EQ(outcome.code, 0);
    EXPECT_EQ(outcome.output.substr(outcome.output.find('\n') + 1),
              "A reload would change nothing.\n");
}

TEST_F(Oxelctl, CheckAddsWhatOnlyTheDaemonFindsWrong) {
    const InstancePaths paths = root_.Paths();
    WriteFile(paths.exports, "/a *(rww)\n");
    const json own = {{"file", paths.exports},
                      {"line", 1},
                      {"reason", "unknown option 'rww'; did you mean 'rw'?"}};
    const json daemons = {{"file", paths.exports}, {"line", 0}, {"reason", "only I know"}};
    SetControlHandler("reload", [own, daemons](const json&) {
        ControlReply reply;
        reply.ok = false;
        reply.error = "a reload would change nothing: 2 errors in the exports file";
        reply.body["errors"] = {own, daemons};
        return reply;
    });
    Start();
    Outcome outcome = RunHere({"check"});
    EXPECT_EQ(outcome.code, 1);
    EXPECT_EQ(outcome.output, paths.exports + ":1: unknown option 'rww'; did you mean 'rw'?\n" +
                                  paths.exports +
                                  ": only I know\nThe daemon says: a reload would change nothing: "
                                  "2 errors in the exports file.\n");
    EXPECT_EQ(outcome.error, "oxelctl: 2 errors\n");
    outcome = RunHere({"check", "--json"});
    EXPECT_EQ(outcome.code, 1);
    const json answer = json::parse(outcome.output);
    EXPECT_EQ(answer["errors"], (json{own, daemons}));
    EXPECT_EQ(answer["running"], true);
    EXPECT_EQ(answer["reload"], nullptr);
}

}  // namespace oxel::test
