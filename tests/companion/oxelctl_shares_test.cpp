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

}  // namespace oxel::test
