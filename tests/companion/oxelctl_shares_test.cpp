// SPDX-License-Identifier: Apache-2.0
//
// The verbs about shares: the daemon's answers as tables, and "check", which needs no daemon.
#include <gtest/gtest.h>

#include "tests/companion/oxelctl_fixture.h"

namespace oxel::test {

using nlohmann::json;

static json Client(const char* name, std::vector<std::string> options) {
    return {{"client", name}, {"options", options}};
}

static json ExportsBody() {
    return {{"shares",
             {{{"path", "/home"},
               {"id", 7},
               {"directory", "/mnt/disk1/home"},
               {"module", "local"},
               {"unlisted", false},
               {"lastAccess", "2026-11-21T07:40:01.000000Z"},
               {"clients",
                {Client("10.0.0.0/8", {"rw", "no_root_squash", "insecure", "no_manage_gids",
                                       "anonuid=65534", "anongid=9"}),
                 Client("*", {"ro", "root_squash", "secure", "no_manage_gids", "anonuid=65534",
                              "anongid=65534"})}}},
              {{"path", "/x"},
               {"id", 4294967295u},
               {"directory", "/x"},
               {"module", "local"},
               {"unlisted", true},
               {"lastAccess", nullptr},
               {"clients", {Client("*", {"rw", "all_squash", "secure", "manage_gids"})}}}}}};
}

TEST_F(Oxelctl, ExportsIsATableOfTheSharesWithWhatIsUnusual) {
    Handle("exports", ExportsBody());
    Start();
    const Outcome outcome = RunHere({"exports"});
    EXPECT_EQ(outcome.code, 0);
    EXPECT_EQ(outcome.error, "");
    EXPECT_EQ(outcome.output,
              "path   id          directory        module  unlisted  last access                  "
              "clients\n"
              "/home  7           /mnt/disk1/home  local   no        2026-11-21T07:40:01.000000Z  "
              "10.0.0.0/8(rw,no_root_squash,insecure,anongid=9) *(ro)\n"
              "/x     4294967295  /x               local   yes       -                            "
              "*(rw,all_squash,manage_gids)\n");
    EXPECT_EQ(LastRequest(), (json{{"verb", "exports"}}));
    EXPECT_EQ(json::parse(RunHere({"exports", "--json"}).output), ExportsBody());
    Handle("exports", {{"shares", json::array()}});
    EXPECT_EQ(RunHere({"exports"}).output, "No shares are served.\n");
}

TEST_F(Oxelctl, MountsIsATableOfClients) {
    const json body = {{"mounts",
                        {{{"client", "2001:db8::1"},
                          {"path", "/home"},
                          {"id", 7},
                          {"lastMount", "2026-11-21T07:40:01.000000Z"}}}}};
    Handle("mounts", body);
    Start();
    Outcome outcome = RunHere({"mounts"});
    EXPECT_EQ(outcome.code, 0);
    EXPECT_EQ(outcome.output,
              "client       path   id  last mount\n"
              "2001:db8::1  /home  7   2026-11-21T07:40:01.000000Z\n");
    EXPECT_EQ(json::parse(RunHere({"--json", "mounts"}).output), body);
    Handle("mounts", {{"mounts", json::array()}});
    EXPECT_EQ(RunHere({"mounts"}).output, "No client has mounted a share.\n");
}

TEST_F(Oxelctl, ReloadTellsWhatBecameOfTheShares) {
    const json body = {
        {"added", {{{"path", "/new"}, {"id", 1}}}},
        {"removed", {{{"path", "/old"}, {"id", 22}}}},
        {"changed",
         {{{"path", "/a"}, {"id", 3}, {"what", {"clients"}}, {"handlesKept", true}},
          {{"path", "/b"}, {"id", 4}, {"what", {"id", "directory"}}, {"handlesKept", false}}}},
        {"unchanged", 5}};
    Handle("reload", body);
    Start();
    Outcome outcome = RunHere({"reload"});
    EXPECT_EQ(outcome.code, 0);
    EXPECT_EQ(outcome.output,
              "outcome  path  id  what\n"
              "added    /new  1\n"
              "removed  /old  22\n"
              "changed  /a    3   clients\n"
              "changed  /b    4   id, directory (clients that have it mounted must mount it "
              "again)\n");
    EXPECT_EQ(json::parse(RunHere({"reload", "--json"}).output), body);
    Handle("reload", {{"added", json::array()}, {"unchanged", 5}});
    EXPECT_EQ(RunHere({"reload"}).output, "Nothing has changed.\n");
}

TEST_F(Oxelctl, ARefusedReloadShowsEveryErrorWithItsLine) {
    const json errors = {{{"file", "/etc/I.exports"}, {"line", 3}, {"reason", "it is\nbad"}},
                         {{"file", "/etc/I.exports"}, {"line", 0}, {"reason", "no file"}}};
    SetControlHandler("reload", [errors](const json&) {
        ControlReply reply;
        reply.ok = false;
        reply.error = "the shares stay as they were: 2 errors in the exports file";
        reply.body["errors"] = errors;
        return reply;
    });
    Start();
    Outcome outcome = RunHere({"reload"});
    EXPECT_EQ(outcome.code, 1);
    EXPECT_EQ(outcome.output, "");
    EXPECT_EQ(outcome.error,
              "oxelctl: the shares stay as they were: 2 errors in the exports file\n"
              "/etc/I.exports:3: it is\\x0abad\n"
              "/etc/I.exports: no file\n");
    outcome = RunHere({"reload", "--json"});
    EXPECT_EQ(outcome.code, 1);
    const json answer = json::parse(outcome.output);
    EXPECT_EQ(answer["errors"], errors);
    EXPECT_TRUE(answer["error"].is_string());
}

TEST_F(Oxelctl, TablesOfADaemonOfAnotherVersionAreStillTables) {
    Handle("exports", {{"shares", {{{"path", "a\nb"}, {"clients", 7}}, "text"}}});
    Handle("mounts", {{"mounts", 7}});
    Handle("reload", {{"changed", {{{"path", "/a"}, {"what", "all"}, {"handlesKept", 3}}}}});
    Start();
    EXPECT_EQ(RunHere({"exports"}).output,
              "path    id  directory  module  unlisted  last access  clients\n"
              "a\\x0ab  -   -          -       -         -            -\n");
    EXPECT_EQ(RunHere({"mounts"}).output, "No client has mounted a share.\n");
    EXPECT_EQ(RunHere({"reload"}).output,
              "outcome  path  id  what\n"
              "changed  /a    -\n");
}

TEST_F(Oxelctl, VerbsAboutSharesNeedADaemon) {
    for (const char* verb : {"exports", "mounts", "reload"}) {
        EXPECT_EQ(RunHere({verb}).code, 3) << verb;
        EXPECT_EQ(RunHere({verb, "more"}).code, 2) << verb;
    }
    EXPECT_EQ(RunHere({"check", "more"}).code, 2);
}

// ---- check ----

TEST_F(Oxelctl, CheckOfGoodFilesSumsThemUp) {
    const InstancePaths paths = root_.Paths();
    WriteFile(paths.conf, "# all\n[Oxel]\nnNfs3Port = 2049\nnoSuchKey = 1\n[Log]\nnLogLevel=0x2\n");
    WriteFile(paths.exports, "/a -dir=" + root_.Path() + "\n");
    Outcome outcome = RunHere({"check"});
    EXPECT_EQ(outcome.code, 0);
    EXPECT_EQ(outcome.error, "");
    EXPECT_EQ(outcome.output,
              "ok: 1 share in " + paths.exports + ", 3 settings in " + paths.conf + "\n");
    outcome = RunHere({"check", "--json"});
    EXPECT_EQ(outcome.code, 0);
    EXPECT_EQ(json::parse(outcome.output),
              (json{{"errors", json::array()}, {"settings", 3}, {"shares", 1}}));
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
                  paths.exports + ":6: directory '" + root_.Path() + "/gone' does not exist\n");
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
                                  ": the file cannot be read: Is a directory\n");
}

TEST_F(Oxelctl, CheckNeedsNoDaemonAndAsksNone) {
    SetControlHandler("check", [](const json&) -> ControlReply { abort(); });
    Start();
    EXPECT_EQ(RunHere({"check"}).code, 0);
}

}  // namespace oxel::test
