// SPDX-License-Identifier: Apache-2.0
//
// The control socket: requests, answers, and what must not hurt it.
#include "companion/PellService.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <random>
#include <vector>

#include "base/thread.h"
#include "tests/companion/control_fixture.h"

namespace oxel::test {

using nlohmann::json;

class PellService : public ControlTest {};

TEST_F(PellService, AnswersWithTheHandlersBodyOnOneLine) {
    SetControlHandler("echo", [](const json& request) {
        ControlReply reply;
        reply.body["got"] = request;
        return reply;
    });
    Start();
    const json reply = json::parse(AskRaw("{\"verb\":\"echo\",\"n\":7}\n"));
    EXPECT_EQ(reply, (json{{"ok", true}, {"got", {{"verb", "echo"}, {"n", 7}}}}));
}

TEST_F(PellService, HandlerRunsOnAThreadOfItsOwn) {
    SetControlHandler("thread", [](const json&) {
        ControlReply reply;
        reply.body["name"] = ThreadName();
        return reply;
    });
    Start();
    EXPECT_EQ(Ask({{"verb", "thread"}}).body["name"].get<std::string>().substr(0, 5), "PELL-");
}

TEST_F(PellService, RefusalHasItsTextAndMayHaveABody) {
    SetControlHandler("refuse", [](const json&) {
        ControlReply reply;
        reply.ok = false;
        reply.error = "not today";
        reply.body["rule"] = 3;
        return reply;
    });
    Start();
    EXPECT_EQ(json::parse(AskRaw("{\"verb\":\"refuse\"}\n")),
              (json{{"ok", false}, {"error", "not today"}, {"rule", 3}}));
}

TEST_F(PellService, RequestThatIsNoneIsAnsweredWithTheReason) {
    Start();
    const auto error = [&](const std::string& bytes) {
        const json reply = json::parse(AskRaw(bytes), nullptr, false);
        if (!reply.is_object() || reply.value("ok", true)) return std::string("NO REFUSAL");
        return reply.value("error", std::string("NO ERROR"));
    };
    EXPECT_EQ(error("\n"), "the request is not JSON");
    EXPECT_EQ(error("status\n"), "the request is not JSON");
    EXPECT_EQ(error("{\"verb\":\n"), "the request is not JSON");
    EXPECT_EQ(error("{\"verb\":\"\xff\xfe\"}\n"), "the request is not JSON");
    EXPECT_EQ(error(std::string("{\"verb\":\0}\n", 10) + "\n"), "the request is not JSON");
    EXPECT_EQ(error("[]\n"), "the request is not a JSON object");
    EXPECT_EQ(error("7\n"), "the request is not a JSON object");
    EXPECT_EQ(error("{}\n"), "the request has no \"verb\", or one that is not text");
    EXPECT_EQ(error("{\"verb\":7}\n"), "the request has no \"verb\", or one that is not text");
    EXPECT_EQ(error("{\"verb\":\"none\"}\n"), "unknown request \"none\"");
    EXPECT_EQ(error("{\"verb\":\"a\\nb\"}\n"), "unknown request \"a\\x0ab\"");
}

TEST_F(PellService, RequestNestedDeeplyIsJustNoRequest) {
    Start();
    EXPECT_NE(AskRaw(std::string(60000, '[') + std::string(5000, ']') + "\n").find("not JSON"),
              std::string::npos);
    EXPECT_NE(AskRaw(std::string(30000, '[') + std::string(30000, ']') + "\n").find("object"),
              std::string::npos);
}

TEST_F(PellService, RequestMustEndWithANewline) {
    Start();
    const UniqueFd fd = Connect();
    Send(fd.Get(), "{\"verb\":\"echo\"}");
    shutdown(fd.Get(), SHUT_WR);
    EXPECT_NE(ReadReply(fd.Get()).find("does not end with a newline"), std::string::npos);
}

TEST_F(PellService, RequestMayComeInPieces) {
    SetControlHandler("pieces", Constant({{"whole", true}}));
    Start();
    const UniqueFd fd = Connect();
    for (const char c : std::string("{\"verb\": \"pieces\"}\n")) Send(fd.Get(), std::string(1, c));
    EXPECT_EQ(json::parse(ReadReply(fd.Get()))["whole"], true);
}

TEST_F(PellService, LongestRequestIsAnswered) {
    SetControlHandler("long", [](const json& request) {
        ControlReply reply;
        reply.body["bytes"] = request["x"].get<std::string>().size();
        return reply;
    });
    Start();
    const std::string frame = "{\"verb\":\"long\",\"x\":\"\"}";
    const size_t bytes = 65536 - frame.size();
    const std::string request = "{\"verb\":\"long\",\"x\":\"" + std::string(bytes, 'x') + "\"}\n";
    EXPECT_EQ(json::parse(AskRaw(request))["bytes"], bytes);
}

TEST_F(PellService, LongerRequestIsRefusedWhileItIsStillBeingSent) {
    Start();
    EXPECT_NE(AskRaw(std::string(65537, 'x') + "\n").find("longer than 65536 bytes"),
              std::string::npos);
    EXPECT_NE(AskRaw(std::string(4u << 20, 'x')).find("longer than 65536 bytes"),
              std::string::npos);
}

TEST_F(PellService, AnyBytesGetAnAnswer) {
    Start();
    std::minstd_rand random(1);
    const std::string alphabet("{}[]\":,verb0\\u\xff\0 \t", 18);
    for (int round = 0; round < 200; ++round) {
        std::string bytes;
        for (unsigned length = random() % 40; length > 0; --length)
            bytes.push_back(alphabet[random() % alphabet.size()]);
        const json reply = json::parse(AskRaw(bytes + "\n"), nullptr, false);
        ASSERT_TRUE(reply.is_object());
        EXPECT_EQ(reply["ok"], false);
    }
}

TEST_F(PellService, ConnectionWithoutARequestDoesNoHarm) {
    SetControlHandler("ping", Constant({}));
    Start();
    for (int i = 0; i < 50; ++i) (void)Connect();
    while (!Ask({{"verb", "ping"}}).ok) std::this_thread::yield();
}

TEST_F(PellService, ClientThatDoesNotReadItsReplyDoesNoHarm) {
    SetControlHandler("big", Constant({{"x", std::string(1u << 20, 'x')}}));
    SetControlHandler("ping", Constant({}));
    Start();
    for (int i = 0; i < 5; ++i) {
        const UniqueFd fd = Connect();
        Send(fd.Get(), "{\"verb\":\"big\"}\n");
    }
    EXPECT_EQ(Ask({{"verb", "big"}}).body["x"].get<std::string>().size(), 1u << 20);
}

TEST_F(PellService, ExceptionOfAHandlerBecomesARefusal) {
    SetControlHandler(
        "throw", [](const json&) -> ControlReply { throw std::runtime_error("the disk is full"); });
    SetControlHandler("throw-odd", [](const json&) -> ControlReply { throw 7; });
    SetControlHandler("type", [](const json& request) {
        (void)request["verb"].get<int>();  // as a handler with a mistake does
        return ControlReply();
    });
    Start();
    EXPECT_EQ(Ask({{"verb", "throw"}}).error, "the disk is full");
    EXPECT_EQ(Ask({{"verb", "throw-odd"}}).error, "unknown exception");
    EXPECT_FALSE(Ask({{"verb", "type"}}).ok);
}

TEST_F(PellService, NamesThatAreNotUtf8AreAnsweredAllTheSame) {
    SetControlHandler("name", Constant({{"path", "a\xff"}}));
    Start();
    EXPECT_EQ(Ask({{"verb", "name"}}).body["path"], "a\xef\xbf\xbd");
}

TEST_F(PellService, BodyThatIsNoObjectIsLeftOut) {
    SetControlHandler("array", Constant(json::array({1, 2})));
    Start();
    EXPECT_EQ(AskRaw("{\"verb\":\"array\"}\n"), "{\"ok\":true}");
}

TEST_F(PellService, StatusIsAnsweredWhileAnotherRequestTakesItsTime) {
    SlowHandler slow;
    SetControlHandler("slow", slow.Handler());
    SetControlHandler("status", Constant({{"state", 2}}));
    Start();
    std::thread asker([&] { EXPECT_TRUE(Ask({{"verb", "slow"}}).ok); });
    slow.WaitUntilStarted(1);
    EXPECT_EQ(Ask({{"verb", "status"}}).body["state"], 2);
    slow.release.set();
    asker.join();
}

TEST_F(PellService, NinthRequestAtOnceIsRefused) {
    SlowHandler slow;
    SetControlHandler("slow", slow.Handler());
    SetControlHandler("status", Constant({}));
    Start();
    std::vector<std::thread> askers;
    for (int i = 0; i < 8; ++i)
        askers.emplace_back([&] { EXPECT_TRUE(Ask({{"verb", "slow"}}).ok); });
    slow.WaitUntilStarted(8);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(Ask({{"verb", "status"}}).error,
                  "the daemon is busy with other requests; try again");
    slow.release.set();
    for (std::thread& asker : askers) asker.join();
    while (!Ask({{"verb", "status"}}).ok) std::this_thread::yield();
}

TEST_F(PellService, SocketIsForItsOwnerOnlyWhateverTheUmask) {
    for (const mode_t mask : {0000u, 0022u, 0277u}) {
        const mode_t before = umask(mask);
        Start();
        umask(before);
        struct stat status;
        ASSERT_EQ(stat(socket_.c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 07777, 0600u);
        StopPellService();
    }
}

TEST_F(PellService, OtherUsersAreRefusedEvenWhenTheyReachTheSocket) {
    if (geteuid() != 0) GTEST_SKIP() << "only root can become somebody else";
    SetControlHandler("status", Constant({}));
    Start();
    ASSERT_EQ(chmod(socket_.c_str(), 0666), 0);
    ASSERT_EQ(chmod(root_.Path().c_str(), 0755), 0);
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const UniqueFd reader(ends[0]);
    UniqueFd writer(ends[1]);
    const pid_t child = fork();
    if (child == 0) {
        if (setresuid(65534, 65534, 65534) != 0) _exit(1);
        const std::string reply = AskRaw("{\"verb\":\"status\"}\n");
        _exit(write(writer.Get(), reply.data(), reply.size()) < 0 ? 1 : 0);
    }
    writer.Reset();
    char text[256] = "";
    EXPECT_GT(read(reader.Get(), text, sizeof text - 1), 0);
    waitpid(child, nullptr, 0);
    EXPECT_STREQ(text, "{\"error\":\"only root and the daemon's own user may ask\",\"ok\":false}");
}

TEST_F(PellService, StaleSocketFileIsReplaced) {
    SetControlHandler("status", Constant({}));
    {
        SocketFile file;
        const UniqueFd dead = ListenUnix(socket_, &file);  // leaves its file behind
        ASSERT_TRUE(dead);
    }
    Start();
    EXPECT_TRUE(Ask({{"verb", "status"}}).ok);
}

TEST_F(PellService, SocketOfALivingDaemonIsLeftAlone) {
    SocketFile file;
    const UniqueFd other = ListenUnix(socket_, &file);
    ASSERT_TRUE(other);
    EXPECT_FALSE(StartPellService(socket_));
    EXPECT_EQ(errno, EADDRINUSE);
    EXPECT_TRUE(Connect()) << "the other one still listens";
}

TEST_F(PellService, FileThatIsNoSocketIsLeftAlone) {
    WriteFile(socket_, "precious");
    EXPECT_FALSE(StartPellService(socket_));
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(ReadFile(socket_), "precious");
}

TEST_F(PellService, DirectoryThatIsMissingIsAnError) {
    EXPECT_FALSE(StartPellService(root_.Path() + "/none/control.sock"));
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(PellService, StartedTwiceFails) {
    Start();
    EXPECT_FALSE(StartPellService(root_.Path() + "/other.sock"));
    EXPECT_EQ(errno, EALREADY);
}

TEST_F(PellService, PathMayBeLongerThanASocketAddress) {
    const std::string directory = root_.Path() + "/" + std::string(150, 'd');
    ASSERT_TRUE(MakeDirectories(directory, 0755));
    SetControlHandler("status", Constant({{"state", 2}}));
    for (int i = 0; i < 2; ++i) {
        const std::string path = directory + "/control.sock";
        ASSERT_TRUE(StartPellService(path));
        ControlReply reply;
        EXPECT_TRUE(ControlCall(path, {{"verb", "status"}}, 0, &reply));
        EXPECT_EQ(reply.body["state"], 2);
        StopPellService();
        EXPECT_FALSE(std::filesystem::exists(path));
    }
    EXPECT_FALSE(StartPellService(directory + "/" + std::string(150, 's')));
    EXPECT_EQ(errno, ENAMETOOLONG);
}

TEST_F(PellService, StartNetworkIsRefusedWithoutACallback) {
    Start();
    const ControlReply reply = Ask({{"verb", "start-network"}});
    EXPECT_FALSE(reply.ok);
    EXPECT_NE(reply.error.find("-no_nfs"), std::string::npos);
}

namespace {

struct StartCall {
    int calls = 0;
    bool registerWithPortMapper = false, reportStartupArgs = false;
} gStartCall;

bool StartBoth(bool registerWithPortMapper, bool reportStartupArgs) {
    gStartCall = {gStartCall.calls + 1, registerWithPortMapper, reportStartupArgs};
    SetStartupArgs(false, !registerWithPortMapper);
    return true;
}

bool StartNothing(bool, bool) {
    return false;
}

}  // namespace

TEST_F(PellService, StartNetworkCallsBackAndTellsWhatIsStarted) {
    gStartCall = {};
    LogCapture capture;
    SetStartupArgs(true, true);
    SetNetworkServiceSetupCB(StartBoth);
    Start();
    ControlReply reply = Ask({{"verb", "start-network"}, {"register", true}});
    EXPECT_TRUE(reply.ok);
    EXPECT_EQ(reply.body, (json{{"servicesStarted", true}, {"portMapperRegistered", true}}));
    EXPECT_EQ(gStartCall.calls, 1);
    EXPECT_TRUE(gStartCall.registerWithPortMapper);
    EXPECT_TRUE(gStartCall.reportStartupArgs);
    reply = Ask({{"verb", "start-network"}});
    EXPECT_EQ(reply.body, (json{{"servicesStarted", true}, {"portMapperRegistered", false}}));
    EXPECT_EQ(gStartCall.calls, 2);
    EXPECT_FALSE(gStartCall.registerWithPortMapper);
}

TEST_F(PellService, StartNetworkThatFailsIsRefused) {
    LogCapture capture;
    SetNetworkServiceSetupCB(StartNothing);
    Start();
    const ControlReply reply = Ask({{"verb", "start-network"}});
    EXPECT_FALSE(reply.ok);
    EXPECT_NE(reply.error.find("the log says why"), std::string::npos);
}

TEST_F(PellService, StartNetworkTakesRegisterAsTrueOrFalseOnly) {
    gStartCall = {};
    SetNetworkServiceSetupCB(StartBoth);
    Start();
    EXPECT_EQ(Ask({{"verb", "start-network"}, {"register", 1}}).error,
              "\"register\" must be true or false");
    EXPECT_EQ(gStartCall.calls, 0);
}

}  // namespace oxel::test
