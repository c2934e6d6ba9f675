// SPDX-License-Identifier: Apache-2.0
//
// Reloading the shares of a running daemon: what clients see from the next call on, what stays, and
// that a file with an error changes nothing.
#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>
#include <thread>

#include "companion/PellService.h"
#include "tests/support/nfs_client.h"
#include "tests/support/private_tree.h"

namespace oxel::test {
namespace {

using nlohmann::json;

constexpr uint32_t kOk = 0, kNoEntry = 2, kAccess = 13, kReadOnly = 30, kStale = 70;

class Reload : public testing::Test {
  protected:
    void SetUp() override {
        tree_.WriteConf("wire", "[Oxel]\nnNfs3Port = 0\n");
        for (const char* name : {"a", "b", "c"}) {
            tree_.MakeDir(name);
            tree_.Write(std::string(name) + "/file", std::string("in ") + name);
        }
    }
    // The line of share "/a", "/b" or "/c", whose ids are 1, 2 and 3.
    std::string Line(char name, const std::string& clients = "*(rw,no_root_squash,insecure)") {
        return std::string("/") + name + " -dir=" + tree_.Path(std::string(1, name)) +
               ",id=" + std::to_string(name - 'a' + 1) + " " + clients + "\n";
    }
    void StartWith(const std::string& exports) {
        tree_.WriteExports("wire", exports);
        ASSERT_TRUE(daemon_.Start());
    }
    // Writes the file and reloads it through the control socket; the answer.
    ControlReply To(const std::string& exports) {
        tree_.WriteExports("wire", exports);
        ControlReply reply;
        EXPECT_TRUE(ControlCall(tree_.Path("run/oxelnfsd/wire/control.sock"), {{"verb", "reload"}},
                                0, &reply));
        return reply;
    }
    // The same; it must be done.
    json ReloadTo(const std::string& exports) {
        const ControlReply reply = To(exports);
        EXPECT_TRUE(reply.ok) << reply.error << " " << reply.body;
        return reply.body;
    }
    json Control(const std::vector<std::string>& arguments, int code = 0) {
        std::vector<std::string> all = arguments;
        all.push_back("--json");
        std::string output;
        EXPECT_EQ(daemon_.Control(all, &output), code) << output;
        return json::parse(output.substr(0, output.find('\n')), nullptr, false);
    }
    static uint32_t Write(NfsClient& client, const std::string& file, const std::string& data) {
        return client.Status(client.Nfs(nfs::kWrite, WriteArguments(file, 0, 2, data)));
    }
    static uint32_t GetStatus(NfsClient& client, const std::string& handle) {
        uint32_t status = 99999;
        client.GetAttributes(handle, &status);
        return status;
    }
    static uint32_t MountStatus(NfsClient& client, const std::string& path) {
        uint32_t status = 99999;
        client.MountShare(path, &status);
        return status;
    }
    static std::set<std::string> Listed(NfsClient& client) {
        XdrReader reader(client.Results(client.Mount(mnt::kExport, "")));
        std::set<std::string> listed;
        while (reader.Bool()) {
            listed.insert(reader.Opaque());
            reader.U32();  // no groups
        }
        return listed;
    }

    PrivateTree tree_;
    Daemon daemon_{tree_};
};

TEST_F(Reload, AHangUpReloadsTheShares) {
    StartWith(Line('a'));
    NfsClient client(daemon_.Port());
    EXPECT_EQ(MountStatus(client, "/b"), kNoEntry);
    tree_.WriteExports("wire", Line('a') + Line('b'));
    daemon_.Signal(SIGHUP);
    ASSERT_TRUE(daemon_.WaitForLog(
        "The shares are reloaded: [1] added, [0] removed, [0] changed, [1] as before."));
    EXPECT_EQ(MountStatus(client, "/b"), kOk);
}

TEST_F(Reload, AHangUpWithAnErrorIsLoggedAndChangesNothing) {
    StartWith(Line('a'));
    tree_.WriteExports("wire", Line('b') + "/x *(rww)\n");
    daemon_.Signal(SIGHUP);
    ASSERT_TRUE(daemon_.WaitForLog("The shares are not reloaded, they stay as they were: [1] "));
    EXPECT_TRUE(std::regex_search(
        daemon_.Log(), std::regex(" L-1 [^\n]* Error: [^\n]*wire\\.exports:2: unknown option "
                                  "'rww'; did you mean 'rw'\\?\\.\n")));
    NfsClient client(daemon_.Port());
    EXPECT_EQ(MountStatus(client, "/a"), kOk);
    EXPECT_EQ(MountStatus(client, "/b"), kNoEntry);
}

TEST_F(Reload, ACheckTellsWhatAReloadWouldChangeAndChangesNothing) {
    StartWith(Line('a') + Line('b'));
    // Behind the line that sums the files up.
    const auto preview = [&] {
        std::string output;
        EXPECT_EQ(daemon_.Control({"check"}, &output), 0);
        EXPECT_TRUE(output.starts_with("ok: ")) << output;
        return output.substr(output.find('\n') + 1);
    };
    std::string output;
    EXPECT_EQ(preview(), "A reload would change nothing.\n");
    tree_.WriteExports("wire", Line('a', "*(ro,insecure)") + Line('c'));
    const std::string changes =
        "outcome  path  id  what\n"
        "added    /c    3\n"
        "removed  /b    2\n"
        "changed  /a    1   clients\n";
    EXPECT_EQ(preview(), "A reload would change this:\n" + changes);
    const json answer = Control({"check"});
    EXPECT_EQ(answer["running"], true);
    EXPECT_EQ(answer["reload"]["added"][0]["path"], "/c");
    NfsClient client(daemon_.Port());
    EXPECT_EQ(MountStatus(client, "/b"), kOk);
    EXPECT_EQ(MountStatus(client, "/c"), kNoEntry);
    EXPECT_FALSE(daemon_.LogHas("The shares are reloaded"));
    // And so it comes.
    EXPECT_EQ(daemon_.Control({"reload"}, &output), 0);
    EXPECT_EQ(output, changes);
    EXPECT_EQ(preview(), "A reload would change nothing.\n");
}

TEST_F(Reload, ACheckFindsTheErrorThatOnlyARunningDaemonKnows) {
    StartWith(Line('a'));
    const std::string file = tree_.Path("etc/oxelnfsd/wire.exports");
    ASSERT_EQ(unlink(file.c_str()), 0);
    std::string output;
    EXPECT_EQ(daemon_.Control({"check"}, &output), 1);
    EXPECT_NE(output.find(file + ": the file does not exist; an empty one would mean no shares\n"),
              std::string::npos)
        << output;
    EXPECT_EQ(Control({"check"}, 1)["errors"].size(), 1u);
    ASSERT_EQ(daemon_.Stop(), 0);
    EXPECT_EQ(daemon_.Control({"check"}, &output), 0);
    EXPECT_NE(output.find("No daemon runs for instance wire.\n"), std::string::npos) << output;
    EXPECT_EQ(Control({"check"})["running"], false);
}

TEST_F(Reload, APreviewIsAskedForWithTrueOrFalse) {
    StartWith(Line('a'));
    ControlReply reply;
    ASSERT_TRUE(ControlCall(tree_.Path("run/oxelnfsd/wire/control.sock"),
                            {{"verb", "reload"}, {"preview", 1}}, 0, &reply));
    EXPECT_FALSE(reply.ok);
    EXPECT_EQ(reply.error, "\"preview\" must be true or false");
}

TEST_F(Reload, TheToolTellsWhatHasChanged) {
    StartWith(Line('a') + Line('b'));
    tree_.WriteExports("wire", Line('a', "*(ro)") + Line('c'));
    std::string output;
    EXPECT_EQ(daemon_.Control({"reload"}, &output), 0);
    EXPECT_EQ(output,
              "outcome  path  id  what\n"
              "added    /c    3\n"
              "removed  /b    2\n"
              "changed  /a    1   clients\n");
    EXPECT_EQ(daemon_.Control({"reload"}, &output), 0);
    EXPECT_EQ(output, "Nothing has changed.\n");
    EXPECT_EQ(Control({"reload"}), (json{{"added", json::array()},
                                         {"removed", json::array()},
                                         {"changed", json::array()},
                                         {"unchanged", 2}}));
}

TEST_F(Reload, TheToolShowsTheErrorsAndTheSharesStay) {
    StartWith(Line('a'));
    NfsClient client(daemon_.Port());
    const std::string root = client.MountShare("/a");
    const std::string file = tree_.Path("etc/oxelnfsd/wire.exports");
    tree_.WriteExports("wire", "/a -dir=" + tree_.Path("gone") + "\n" + Line('b') + "/b *(rw)\n");
    std::string output;
    EXPECT_EQ(daemon_.Control({"reload"}, &output), 1);
    EXPECT_EQ(output, "oxelctl: the shares stay as they were: 2 errors in the exports file\n" +
                          file + ":1: directory '" + tree_.Path("gone") + "' does not exist\n" +
                          file + ":3: path '/b' is already shared by line 2\n");
    const json answer = Control({"reload"}, 1);
    EXPECT_EQ(answer["errors"][1], (json{{"file", file},
                                         {"line", 3},
                                         {"reason",
                                          "path '/b' is already shared by line "
                                          "2"}}));
    EXPECT_EQ(GetStatus(client, root), kOk);
    EXPECT_EQ(Listed(client), (std::set<std::string>{"/a"}));
    EXPECT_TRUE(daemon_.LogHas(file + ":3: path '/b' is already shared by line 2."));
}

TEST_F(Reload, HandlesOfARemovedShareAreStaleUntilItIsBack) {
    StartWith(Line('a') + Line('b'));
    NfsClient client(daemon_.Port());
    const std::string root = client.MountShare("/a"), file = client.Lookup(root, "file");
    const std::string other = client.MountShare("/b");
    ReloadTo(Line('b'));
    EXPECT_EQ(GetStatus(client, root), kStale);
    EXPECT_EQ(GetStatus(client, file), kStale);
    EXPECT_EQ(Write(client, file, "x"), kStale);
    EXPECT_EQ(MountStatus(client, "/a"), kNoEntry);
    EXPECT_EQ(GetStatus(client, other), kOk);
    ReloadTo(Line('a') + Line('b'));
    EXPECT_EQ(GetStatus(client, root), kOk);
    EXPECT_EQ(client.Read(file, 0, 100), "in a");
}

TEST_F(Reload, ARemovedShareLetsGoOfItsDirectory) {
    StartWith(Line('a') + Line('b'));
    NfsClient client(daemon_.Port());
    const std::string file = client.Lookup(client.MountShare("/a"), "file");
    EXPECT_EQ(Write(client, file, "data"), kOk);
    EXPECT_EQ(client.Read(file, 0, 100), "data");
    const auto open = [&] {
        const std::string fds = "/proc/" + std::to_string(daemon_.Pid()) + "/fd/";
        int count = 0;
        DIR* directory = opendir(fds.c_str());
        while (dirent* entry = directory ? readdir(directory) : nullptr) {
            char target[PATH_MAX];
            const ssize_t bytes = readlink((fds + entry->d_name).c_str(), target, sizeof target);
            const std::string path(target, bytes > 0 ? static_cast<size_t>(bytes) : 0);
            if (path.compare(0, tree_.Path("a").size(), tree_.Path("a")) == 0) ++count;
        }
        if (directory) closedir(directory);
        return count;
    };
    EXPECT_GT(open(), 0);
    ReloadTo(Line('b'));
    // By default the record of MOUNT keeps its share until the next MNT.
    if (!HardenedRun()) client.MountShare("/b");
    // The last call's record lets go of the share a moment after its reply.
    EXPECT_TRUE(WaitUntil([&] { return open() == 0; }));
}

TEST_F(Reload, ReadOnlyAndReadWriteTakeEffectWithTheNextCall) {
    StartWith(Line('a'));
    NfsClient client(daemon_.Port());
    const std::string file = client.Lookup(client.MountShare("/a"), "file");
    // A share that nobody may modify, and one that this client may not.
    const struct {
        const char* clients;
        uint32_t status;
    } rows[] = {{"*(ro,no_root_squash,insecure)", kAccess},
                {"127.0.0.1(ro,no_root_squash,insecure) 10.99.0.1(rw)", kReadOnly}};
    for (const auto& row : rows) {
        EXPECT_EQ(Write(client, file, "rw"), kOk);
        ReloadTo(Line('a', row.clients));
        EXPECT_EQ(Write(client, file, "ro"), row.status) << row.clients;
        EXPECT_EQ(client.Read(file, 0, 100), "rw a");
        ReloadTo(Line('a'));
    }
}

TEST_F(Reload, SquashingTakesEffectWithTheNextCall) {
    if (geteuid() != 0) GTEST_SKIP() << "needs callers' rights";
    ASSERT_EQ(chmod(tree_.Path("a/file").c_str(), 0600), 0);
    StartWith(Line('a'));
    // Others may pass the tree's own directory.
    ASSERT_EQ(chmod(tree_.Root().c_str(), 0755), 0);
    RpcConnection connection(daemon_.Port());
    NfsClient client(daemon_.Port());
    const std::string file = client.Lookup(client.MountShare("/a"), "file");
    const auto read = [&] {
        RpcCall call = client.Nfs(nfs::kRead, ReadArguments(file, 0, 100));
        call.credentialFlavour = kAuthUnix;
        call.credential = UnixCredential(0, 0);
        return XdrReader(connection.Call(call).results).U32();
    };
    EXPECT_EQ(read(), kOk);
    ReloadTo(Line('a', "*(rw,root_squash,insecure)"));
    EXPECT_EQ(read(), kAccess);
    ReloadTo(Line('a'));
    EXPECT_EQ(read(), kOk);
}

TEST_F(Reload, AClientThatIsNoLongerNamedIsRefused) {
    StartWith(Line('a'));
    NfsClient client(daemon_.Port());
    const std::string root = client.MountShare("/a");
    ReloadTo(Line('a', "10.99.0.0/16(rw,insecure)"));
    EXPECT_NE(GetStatus(client, root), kOk);
    EXPECT_EQ(MountStatus(client, "/a"), kAccess);
    ReloadTo(Line('a'));
    EXPECT_EQ(GetStatus(client, root), kOk);
}

TEST_F(Reload, UnlistedAndListedTakeEffectAtOnce) {
    StartWith(Line('a') + Line('b'));
    NfsClient client(daemon_.Port());
    EXPECT_EQ(Listed(client), (std::set<std::string>{"/a", "/b"}));
    const std::string unlisted =
        "/a -unlisted,dir=" + tree_.Path("a") + ",id=1 *(rw,insecure)\n" + Line('b');
    const json answer = ReloadTo(unlisted);
    EXPECT_EQ(answer["changed"][0]["what"][0], "unlisted");
    EXPECT_EQ(answer["changed"][0]["handlesKept"], false);
    EXPECT_EQ(Listed(client), (std::set<std::string>{"/b"}));
    EXPECT_EQ(GetStatus(client, client.MountShare("/a")), kOk);
    ReloadTo(Line('a') + Line('b'));
    EXPECT_EQ(Listed(client), (std::set<std::string>{"/a", "/b"}));
}

TEST_F(Reload, AnotherDirectoryTakesEffectAtOnce) {
    StartWith("/x -dir=" + tree_.Path("a") + ",id=9 *(rw,insecure)\n");
    NfsClient client(daemon_.Port());
    const std::string before = client.MountShare("/x"), file = client.Lookup(before, "file");
    ReloadTo("/x -dir=" + tree_.Path("b") + ",id=9 *(rw,insecure)\n");
    EXPECT_EQ(GetStatus(client, before), kStale);
    EXPECT_EQ(GetStatus(client, file), kStale);
    EXPECT_EQ(client.Read(client.Lookup(client.MountShare("/x"), "file"), 0, 100), "in b");
}

TEST_F(Reload, ADirectoryThatAnotherOneReplacedIsServedAfterAReload) {
    const std::string line = Line('a');
    StartWith(line);
    NfsClient client(daemon_.Port());
    const std::string before = client.MountShare("/a");
    ASSERT_EQ(rename(tree_.Path("a").c_str(), tree_.Path("a.old").c_str()), 0);
    ASSERT_EQ(rename(tree_.Path("b").c_str(), tree_.Path("a").c_str()), 0);
    EXPECT_EQ(ReloadTo(line)["changed"][0]["what"], json::array({"directory"}));
    EXPECT_EQ(GetStatus(client, before), kStale);
    EXPECT_EQ(client.Read(client.Lookup(client.MountShare("/a"), "file"), 0, 100), "in b");
}

TEST_F(Reload, ExportsAndMountsTellWhatIsServedToWhom) {
    StartWith(Line('a') + "/b -unlisted,dir=" + tree_.Path("b") +
              ",id=2 10.0.0.0/8(rw,anonuid=5) *(ro,insecure)\n");
    json shares = Control({"exports"})["shares"];
    ASSERT_EQ(shares.size(), 2u);
    EXPECT_EQ(shares[0], (json{{"path", "/a"},
                               {"id", 1},
                               {"directory", tree_.Path("a")},
                               {"module", "local"},
                               {"unlisted", false},
                               {"lastAccess", nullptr},
                               {"clients",
                                {{{"client", "*"},
                                  {"options",
                                   {"rw", "no_root_squash", "insecure", "no_manage_gids",
                                    "anonuid=65534", "anongid=65534"}}}}}}));
    EXPECT_EQ(shares[1]["unlisted"], true);
    EXPECT_EQ(shares[1]["clients"][0]["client"], "10.0.0.0/8");
    EXPECT_EQ(shares[1]["clients"][1]["client"], "*");
    EXPECT_EQ(Control({"mounts"}), (json{{"mounts", json::array()}}));

    NfsClient client(daemon_.Port());
    client.MountShare("/a");
    const std::regex time("[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{6}Z");
    const json mounts = Control({"mounts"});
    ASSERT_EQ(mounts["mounts"].size(), 1u);
    EXPECT_EQ(mounts["mounts"][0]["client"], "127.0.0.1");
    EXPECT_EQ(mounts["mounts"][0]["path"], "/a");
    EXPECT_EQ(mounts["mounts"][0]["id"], 1);
    EXPECT_TRUE(std::regex_match(mounts["mounts"][0]["lastMount"].get<std::string>(), time));
    shares = Control({"exports"})["shares"];
    EXPECT_TRUE(std::regex_match(shares[0]["lastAccess"].get<std::string>(), time));
    EXPECT_TRUE(shares[1]["lastAccess"].is_null());
    // What is known of a share outlives a change of its options.
    ReloadTo(Line('a', "*(ro,insecure)"));
    EXPECT_EQ(Control({"mounts"}), mounts);
    EXPECT_EQ(Control({"exports"})["shares"][0]["lastAccess"], shares[0]["lastAccess"]);
    std::string output;
    EXPECT_EQ(daemon_.Control({"exports"}, &output), 0);
    EXPECT_NE(output.find(" *(ro,insecure)\n"), std::string::npos) << output;
}

// Readers and writers of a share that stays, of one whose options change, and of one that comes and
// goes, while the shares are reloaded.
TEST_F(Reload, CallsGoOnWhileTheSharesChange) {
    const std::string one = Line('a') + Line('b') + Line('c');
    const std::string two = Line('a', "*(rw,no_root_squash,insecure,anonuid=7)") + Line('c');
    StartWith(one);
    std::atomic<bool> stop{false};
    std::atomic<int> calls[4] = {};
    // The handles are there before the first reload: /b might just be away.
    std::vector<std::string> files;
    {
        NfsClient client(daemon_.Port());
        for (const char* path : {"/a", "/b", "/c"})
            files.push_back(client.Lookup(client.MountShare(path), "file"));
    }
    std::vector<std::thread> threads;
    for (int share = 0; share < 3; ++share) {
        threads.emplace_back([&, share] {
            const std::string expected = std::string("in ") + "abc"[share];
            NfsClient client(daemon_.Port());
            while (!stop) {
                uint32_t status = kOk;
                const std::string data = client.Read(files[share], 0, 100, nullptr, &status);
                if (share == 1 && status == kStale) continue;
                EXPECT_EQ(status, kOk) << expected;
                EXPECT_EQ(data, expected);
                ++calls[share];
            }
        });
    }
    threads.emplace_back([&] {
        NfsClient client(daemon_.Port());
        for (int n = 0; !stop; ++n) {
            const int share = n % 3;
            const uint32_t status = Write(client, files[share], std::string("in ") + "abc"[share]);
            if (share == 1 && status == kStale) continue;
            EXPECT_EQ(status, kOk);
            ++calls[3];
        }
    });
    for (int round = 0; round < 50; ++round) {
        const json answer = ReloadTo(round % 2 == 0 ? two : one);
        EXPECT_EQ(answer["changed"].size(), 1u);
        EXPECT_EQ(answer["unchanged"], 1);
    }
    stop = true;
    for (std::thread& thread : threads) thread.join();
    for (const auto& count : calls) EXPECT_GT(count, 0);
}

// Two at once: each sees a whole set, and the last one counts.
TEST_F(Reload, ReloadsAndHangUpsAtOnceEndWithTheFileAsItIs) {
    StartWith(Line('a'));
    tree_.WriteExports("wire", Line('b') + Line('c'));
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            for (int n = 0; n < 10; ++n) {
                ControlReply reply;
                do {
                    ASSERT_TRUE(ControlCall(tree_.Path("run/oxelnfsd/wire/control.sock"),
                                            {{"verb", n % 2 == 0 ? "reload" : "exports"}}, 0,
                                            &reply));
                } while (!reply.ok && reply.error.find("is busy") != std::string::npos);
                EXPECT_TRUE(reply.ok) << reply.error;
            }
        });
    }
    for (int n = 0; n < 10; ++n) daemon_.Signal(SIGHUP);
    for (std::thread& thread : threads) thread.join();
    NfsClient client(daemon_.Port());
    EXPECT_EQ(Listed(client), (std::set<std::string>{"/b", "/c"}));
}

}  // namespace
}  // namespace oxel::test
