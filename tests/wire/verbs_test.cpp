// SPDX-License-Identifier: Apache-2.0
//
// Every verb of oxelctl against the running daemon, for people and for programs.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/nfs_client.h"
#include "tests/support/private_tree.h"

namespace oxel::test {
namespace {

using nlohmann::json;

class Verbs : public testing::Test {
  protected:
    void SetUp() override {
        tree_.WriteConf("wire", "[Oxel]\nnNfs3Port = 0\n");
        tree_.WriteExports("wire", "/rw -dir=" + tree_.MakeDir("rw") + ",id=7 *(rw,insecure)\n");
        ASSERT_TRUE(daemon_.Start());
        NfsClient client(daemon_.Port());
        (void)client.GetAttributes(client.MountShare("/rw"));
    }
    std::string Text(const std::vector<std::string>& verb, int code = 0) {
        std::string output;
        EXPECT_EQ(daemon_.Control(verb, &output), code) << output;
        return output;
    }
    json Json(std::vector<std::string> verb, int code = 0) {
        verb.emplace_back("--json");
        const std::string output = Text(verb, code);
        json answer = json::parse(output.substr(0, output.find('\n')), nullptr, false);
        EXPECT_TRUE(answer.is_object()) << output;
        return answer;
    }

    PrivateTree tree_;
    Daemon daemon_{tree_};
};

// What stands in the answer of each verb, in both forms. Stop ends the daemon, so it comes last.
struct Form {
    std::vector<std::string> verb;
    const char* text;    // in the form for people
    const char* member;  // of the one for programs; null: it has none
};
const Form kForms[] = {
    {{"status"}, "(serving)", "handlerThreads"},
    {{"check"}, "1 share", "errors"},
    {{"exports"}, "/rw   7   ", "shares"},
    {{"mounts"}, "127.0.0.1  /rw   7   ", "mounts"},
    {{"clients"}, "", "clients"},
    {{"why", "127.0.0.1", "/rw"}, "allowed: ", "allowed"},
    {{"reload"}, "Nothing has changed.\n", "unchanged"},
    {{"stats"}, "MOUNT MNT  1 ", "procedures"},
    {{"perf"}, "The counters go to the daemon's log.\n", "accounting"},
    {{"log-level"}, "log level  1\n", "logLevel"},
    {{"start-network"}, "services started                 yes\n", "servicesStarted"},
    {{"stop"}, "The daemon stops.\n", nullptr},
};

TEST_F(Verbs, EachAnswersPeopleAndPrograms) {
    std::set<std::string> tried;
    for (const Form& form : kForms) {
        SCOPED_TRACE(form.verb[0]);
        tried.insert(form.verb[0]);
        if (form.member != nullptr) {
            const json answer = Json(form.verb);
            EXPECT_TRUE(answer.contains(form.member)) << answer;
        }
        const std::string text = Text(form.verb);
        EXPECT_NE(text.find(form.text), std::string::npos) << text;
        EXPECT_NE(text.substr(0, 1), "{") << text;
        EXPECT_EQ(text.back(), '\n');
    }
    EXPECT_EQ(daemon_.WaitForExit(), 0);
    // None is left out.
    std::istringstream help(Text({"--help"}));
    std::set<std::string> known;
    bool inVerbs = false;
    for (std::string line; std::getline(help, line);) {
        if (line == "Verbs:")
            inVerbs = true;
        else if (line.empty())
            inVerbs = false;
        else if (inVerbs && line.rfind("  ", 0) == 0 && line[2] != ' ')
            known.insert(line.substr(2, line.find(' ', 2) - 2));
    }
    EXPECT_EQ(tried, known);
}

TEST_F(Verbs, StatusIsOfThisDaemon) {
    const json status = Json({"status"});
    EXPECT_EQ(status["pid"], daemon_.Pid());
    EXPECT_EQ(status["nfsPort"], daemon_.Port());
    EXPECT_EQ(status["mountPort"], daemon_.Port());
    EXPECT_EQ(status["state"], 2);
    EXPECT_EQ(status["records"]["total"], 25);
    EXPECT_EQ(status["hardened"], HardenedRun());
    const std::string text = Text({"status"});
    EXPECT_NE(text.find("\nNFS port         " + std::to_string(daemon_.Port()) + "\n"),
              std::string::npos)
        << text;
}

TEST_F(Verbs, LogLevelCountsAtOnce) {
    EXPECT_EQ(Json({"log-level", "3"}), (json{{"logLevel", 3}}));
    EXPECT_EQ(Text({"log-level"}), "log level  3\n");
    EXPECT_TRUE(daemon_.WaitForLog("Control request [log-level]"));
    EXPECT_EQ(Text({"log-level", "0"}), "log level  0\n");
    const std::string wrong = Text({"log-level", "5"}, 2);
    EXPECT_NE(wrong.find("not in range 0 to 4"), std::string::npos) << wrong;
}

TEST_F(Verbs, PerfWritesTheCounters) {
    EXPECT_EQ(Json({"perf"}), (json{{"accounting", true}}));
    EXPECT_TRUE(daemon_.WaitForLog("Counter ["));
}

TEST_F(Verbs, StopForProgramsIsAnEmptyAnswer) {
    EXPECT_EQ(Json({"stop"}), json::object());
    EXPECT_EQ(daemon_.WaitForExit(), 0);
}

TEST_F(Verbs, WithoutADaemonEachSaysSoAndWhatToDo) {
    EXPECT_EQ(daemon_.Stop(), 0);
    for (const Form& form : kForms) {
        if (form.verb[0] == "check") continue;  // needs none
        SCOPED_TRACE(form.verb[0]);
        const std::string text = Text(form.verb, 3);
        EXPECT_NE(text.find("is oxelnfsd running for instance wire?"), std::string::npos) << text;
        EXPECT_TRUE(Json(form.verb, 3).contains("error"));
    }
    EXPECT_NE(Text({"check"}).find("1 share"), std::string::npos);
}

}  // namespace
}  // namespace oxel::test
