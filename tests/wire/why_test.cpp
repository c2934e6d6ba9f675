// SPDX-License-Identifier: Apache-2.0
//
// What oxelctl why tells of a running daemon's shares, against what the daemon gives to clients
// that come from those addresses.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "tests/support/access_cases.h"
#include "tests/support/nfs_client.h"
#include "tests/support/private_tree.h"

namespace oxel::test {
namespace {

using nlohmann::json;

constexpr uint32_t kOk = 0, kNoEntry = 2, kAccess = 13, kReadOnly = 30;
constexpr uint32_t kSomeUser = 4242, kSomeGroup = 4243;

class Why : public testing::Test {
  protected:
    void SetUp() override {
        tree_.WriteConf("wire", "[Oxel]\nnNfs3Port = 0\n");
        for (const std::string& name : AccessCaseDirectories()) {
            tree_.MakeDir(name);
            ASSERT_EQ(chmod(tree_.Path(name).c_str(), 0777), 0);
        }
        tree_.WriteExports("wire", AccessCaseExports(tree_.Root()));
    }
    struct Answer {
        int code;
        std::string text;
        // Standard error may follow what programs read.
        json Json() const { return json::parse(text.substr(0, text.find('\n')), nullptr, false); }
        std::string FirstLine() const { return text.substr(0, text.find('\n')); }
    };
    Answer Ask(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), "why");
        Answer answer;
        answer.code = daemon_.Control(arguments, &answer.text);
        return answer;
    }
    static std::vector<std::string> Arguments(const AccessCase& access) {
        std::vector<std::string> arguments = {access.address, access.path};
        if (access.port)
            arguments.insert(arguments.end(), {"--port", std::to_string(*access.port)});
        if (access.uid) arguments.insert(arguments.end(), {"--uid", std::to_string(*access.uid)});
        return arguments;
    }
    static std::vector<std::string> With(std::vector<std::string> arguments,
                                         const std::vector<std::string>& more) {
        arguments.insert(arguments.end(), more.begin(), more.end());
        return arguments;
    }
    std::string ExportsFile() const { return tree_.Path("etc/oxelnfsd/wire.exports"); }
    // Where a client with that address can be had on this machine: its address, else "".
    static std::string LoopbackAddress(const AccessCase& access) {
        std::string address = access.address;
        if (address.starts_with("::ffff:")) address = address.substr(7);
        return address.starts_with("127.") || address == "::1" ? address : "";
    }
    uint32_t MountStatus(const std::string& from, bool reservedPort, const std::string& path,
                         std::string* root = nullptr) {
        NfsClient client(daemon_.Port(), from, reservedPort, 0, 0);
        uint32_t status = 99999;
        const std::string handle = client.MountShare(path, &status);
        if (root != nullptr) *root = handle;
        client.Connection().Reset();  // the port is free again at once
        return status;
    }

    PrivateTree tree_;
    Daemon daemon_{tree_};
};

TEST_F(Why, EveryCaseIsToldInBothFormsAndFromBothSources) {
    ASSERT_TRUE(daemon_.Start());
    for (const AccessCase& access : AccessCases(tree_.Root())) {
        SCOPED_TRACE(testing::PrintToString(access));
        const int code = access.allowed ? 0 : 1;
        const std::vector<std::string> arguments = Arguments(access);

        const Answer text = Ask(arguments);
        EXPECT_EQ(text.code, code);
        EXPECT_EQ(text.FirstLine(), (access.allowed ? "allowed: " : "refused: ") + access.reason);
        EXPECT_EQ(text.text.find("\nWhat to do: ") == std::string::npos, access.allowed);

        const Answer answer = Ask(With(arguments, {"--json"}));
        EXPECT_EQ(answer.code, code);
        const json body = answer.Json();
        ASSERT_TRUE(body.is_object()) << answer.text;
        EXPECT_EQ(body["allowed"], access.allowed);
        EXPECT_EQ(body["reason"], access.reason);
        EXPECT_EQ(body["path"], access.path);
        EXPECT_EQ(body["port"], access.port ? json(*access.port) : json());
        EXPECT_EQ(body["uid"], access.uid ? json(*access.uid) : json());
        EXPECT_EQ(body.contains("remedy"), !access.allowed);
        ASSERT_EQ(body["rule"].is_object(), access.rule != nullptr) << body;
        if (access.rule != nullptr) {
            EXPECT_EQ(body["rule"]["client"], access.rule);
            EXPECT_EQ(body["rule"]["line"], access.line);
            EXPECT_EQ(body["readOnly"], access.readOnly);
        }

        Answer file = Ask(With(arguments, {"--json", "--file", ExportsFile()}));
        EXPECT_EQ(file.code, code);
        json fileBody = file.Json();
        EXPECT_EQ(fileBody["errors"], json::array());
        fileBody.erase("errors");
        if (geteuid() == 0) {
            EXPECT_EQ(fileBody, body);
        }
    }
}

TEST_F(Why, WhatIsToldIsWhatClientsGet) {
    if (geteuid() != 0) GTEST_SKIP() << "ports below 1024 and other users need root";
    ASSERT_TRUE(daemon_.Start());
    size_t mounted = 0, refused = 0, made = 0, file = 0;
    for (const AccessCase& access : AccessCases(tree_.Root())) {
        const std::string from = LoopbackAddress(access);
        if (from.empty()) continue;
        SCOPED_TRACE(testing::PrintToString(access));
        const json body = Ask(With(Arguments(access), {"--json"})).Json();
        ASSERT_TRUE(body.is_object());
        const bool reserved = !access.port || *access.port < 1024;
        std::string root;
        const uint32_t status = MountStatus(from, reserved, access.path, &root);
        if (!access.allowed) {
            EXPECT_EQ(status, body["share"].is_null() ? kNoEntry : kAccess);
            ++refused;
            continue;
        }
        ASSERT_EQ(status, kOk);
        ++mounted;
        if (!access.port) {
            EXPECT_EQ(MountStatus(from, false, access.path),
                      body["secure"] == true ? kAccess : kOk);
        }

        const uint32_t uid = access.uid.value_or(kSomeUser);
        NfsClient client(daemon_.Port(), from, reserved, uid, uid == 0 ? 0 : kSomeGroup);
        const std::string name = "made" + std::to_string(++file);
        const uint32_t created = client.Status(client.Nfs(
            nfs::kCreate,
            DirectoryName(root, name) + XdrWriter().U32(1).Raw(SetAttributes().Bytes()).Bytes()));
        if (access.readOnly) {
            // A share that no client may write is refused as a whole.
            EXPECT_EQ(created, body["share"]["path"] == "/srv/ro" ? kAccess : kReadOnly);
        } else {
            EXPECT_EQ(created, kOk);
            uint32_t found = 99999;
            const Attributes attributes = client.GetAttributes(client.Lookup(root, name), &found);
            EXPECT_EQ(found, kOk);
            const json& squash = body["squash"];
            EXPECT_EQ(attributes.uid,
                      squash["uid"].is_null() ? uid : squash["uid"].get<uint32_t>());
            EXPECT_EQ(attributes.gid, squash["gid"].is_null() ? (uid == 0 ? 65534 : kSomeGroup)
                                                              : squash["gid"].get<uint32_t>());
            ++made;
        }
        client.Connection().Reset();
    }
    EXPECT_GE(mounted, 15u);
    EXPECT_GE(refused, 15u);
    EXPECT_GE(made, 10u);
}

TEST_F(Why, PeopleGetTheVerdictTheRulesAndWhatToDo) {
    ASSERT_TRUE(daemon_.Start());
    Answer answer = Ask({"127.0.0.1", "/srv/mixed", "--port", "40000", "--uid", "0"});
    EXPECT_EQ(answer.code, 1);
    const std::string file = ExportsFile();
    const std::string id = Ask({"127.0.0.1", "/srv/mixed", "--json"}).Json()["share"]["id"].dump();
    EXPECT_EQ(
        answer.text,
        "refused: port 40000 is not below 1024, and the rule 127.0.0.0/8(rw) is secure\n"
        "\n"
        "share      /srv/mixed (id " +
            id + ", line 2 of " + file +
            ")\n"
            "directory  " +
            tree_.Path("mixed") +
            "\n"
            "groups     the user's first one\n"
            "\n"
            "client       options                                       line  decides  why\n"
            "127.0.0.2    ro,insecure                                   2              "
            "127.0.0.2 is not 127.0.0.1\n"
            "127.0.0.3    rw,all_squash,insecure,anonuid=99,anongid=98  2              "
            "127.0.0.3 is not 127.0.0.1\n"
            "127.0.0.0/8  rw                                            2     yes      matches\n"
            "*            ro                                            2              "
            "matches, but 127.0.0.0/8 is more specific\n"
            "\n"
            "What to do: mount from a port below 1024 (as root, without noresvport), or add "
            "insecure to 127.0.0.0/8 in line 2 of " +
            file + " and run oxelctl reload.\n");
    answer = Ask({"127.0.0.1", "/srv/open/x/y"});
    EXPECT_EQ(answer.code, 1);
    EXPECT_EQ(answer.text,
              "refused: /srv/open/x/y is not a share, it lies below share /srv/open\n"
              "\n"
              "What to do: mount /srv/open instead; there it is x/y.\n");
}

TEST_F(Why, TheRunningSharesCountAndAfterAReloadTheNewOnes) {
    ASSERT_TRUE(daemon_.Start());
    EXPECT_EQ(Ask({"127.0.0.9", "/srv/remote"}).code, 1);
    tree_.WriteExports("wire", "# one line more\n/srv/remote -dir=" + tree_.Path("remote") +
                                   " 127.0.0.0/8(rw,insecure)\n");
    EXPECT_EQ(Ask({"127.0.0.9", "/srv/remote"}).code, 1);
    EXPECT_EQ(Ask({"127.0.0.9", "/srv/remote", "--file", ExportsFile()}).code, 0);
    std::string output;
    ASSERT_EQ(daemon_.Control({"reload"}, &output), 0) << output;
    const Answer answer = Ask({"127.0.0.9", "/srv/remote", "--json"});
    EXPECT_EQ(answer.code, 0);
    EXPECT_EQ(answer.Json()["rule"]["line"], 2);
}

TEST_F(Why, LinesThatMovedAreToldWhereTheyAreNow) {
    ASSERT_TRUE(daemon_.Start());
    tree_.WriteExports("wire", "\n\n" + AccessCaseExports(tree_.Root()));
    std::string output;
    ASSERT_EQ(daemon_.Control({"reload"}, &output), 0) << output;
    EXPECT_EQ(output, "Nothing has changed.\n");
    EXPECT_EQ(Ask({"127.0.0.1", "/srv/open", "--json"}).Json()["rule"]["line"], 5);
}

TEST_F(Why, WhatCannotBeAskedIsAUsageError) {
    ASSERT_TRUE(daemon_.Start());
    for (const std::vector<std::string>& arguments :
         std::vector<std::vector<std::string>>{{"client.example", "/srv/open"},
                                               {"10.0.0.0/8", "/srv/open"},
                                               {"127.0.0.1", "srv/open"},
                                               {"127.0.0.1"},
                                               {},
                                               {"127.0.0.1", "/srv/open", "more"},
                                               {"127.0.0.1", "/srv/open", "--port", "0"},
                                               {"127.0.0.1", "/srv/open", "--port", "65536"},
                                               {"127.0.0.1", "/srv/open", "--port", "many"},
                                               {"127.0.0.1", "/srv/open", "--uid", "4294967296"},
                                               {"127.0.0.1", "/srv/open", "--uid", "root"},
                                               {"127.0.0.1", "/srv/open", "--file", "/no/file"}}) {
        const Answer answer = Ask(arguments);
        EXPECT_EQ(answer.code, 2) << testing::PrintToString(arguments) << answer.text;
        EXPECT_TRUE(answer.text.starts_with("oxelctl: ")) << answer.text;
    }
    EXPECT_NE(Ask({"client.example", "/srv/open"}).text.find("look a host name up first"),
              std::string::npos);
}

TEST_F(Why, WithoutADaemonOnlyFilesAreAsked) {
    EXPECT_EQ(Ask({"127.0.0.1", "/srv/open"}).code, 3);
    EXPECT_EQ(Ask({"127.0.0.1", "/srv/open", "--file", ExportsFile()}).code, 0);
    EXPECT_EQ(Ask({"127.0.0.1", "/srv/opne", "--file", ExportsFile()}).code, 1);
}

TEST_F(Why, LinesWithErrorsAreShownAndLeftOut) {
    const std::string file = tree_.Write(
        "other.exports", "/srv/bad *(rww)\n/srv/good -dir=" + tree_.Path("all") + " *\n");
    EXPECT_EQ(Ask({"127.0.0.1", "/srv/good", "--file", file}).code, 0);
    const Answer answer = Ask({"127.0.0.1", "/srv/bad", "--file", file, "--json"});
    EXPECT_EQ(answer.code, 1);
    EXPECT_EQ(answer.Json()["errors"],
              (json{{{"file", file},
                     {"line", 1},
                     {"reason", "unknown option 'rww'; did you mean 'rw'?"}}}));
    EXPECT_NE(answer.text.find(file + ":1: unknown option 'rww'; did you mean 'rw'? (the line "
                                      "is left out)"),
              std::string::npos)
        << answer.text;
}

}  // namespace
}  // namespace oxel::test
