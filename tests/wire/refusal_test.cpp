// SPDX-License-Identifier: Apache-2.0
//
// The line of the log that tells an administrator what a client was refused, why, and what to do:
// once for each client and reason, beside what the procedures say themselves.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>

#include "tests/wire/wire_fixture.h"

namespace oxel::test {
namespace {

class Refusal : public WireTest {
  protected:
    std::string ExportsFile() const { return tree_.Path("etc/oxelnfsd/wire.exports"); }
    static uint32_t MountStatus(NfsClient& client, const std::string& path) {
        uint32_t status = 99999;
        client.MountShare(path, &status);
        return status;
    }
    static uint32_t Make(NfsClient& client, const std::string& root, const std::string& name) {
        return client.Status(
            client.Nfs(nfs::kMkdir, DirectoryName(root, name) + SetAttributes().Bytes()));
    }
    // The lines that begin with "Refused", each from there on and with its level before it.
    std::vector<std::string> Refusals() const {
        std::vector<std::string> found;
        std::istringstream log(daemon_.Log());
        for (std::string line; std::getline(log, line);) {
            // Behind the function and the line of the source.
            const size_t at = line.find_first_not_of("0123456789", line.find("):") + 2);
            if (at == std::string::npos || line.compare(at, 10, " Refused [") != 0) continue;
            const size_t level = line.find("] L");
            found.push_back(line.substr(level + 2, line.find(' ', level + 2) - level - 2) +
                            line.substr(at));
        }
        std::sort(found.begin(), found.end());
        return found;
    }
    using Lines = std::vector<std::string>;
};

OXEL_ALL_MODES(Refusal);

TEST_P(Refusal, EveryReasonHasOneLineWithItsRemedy) {
    // A share that somebody else may write.
    tree_.WriteExports(
        "wire", "/rw -dir=" + tree_.Path("rw") + " *(rw,insecure)\n/ro -dir=" + tree_.Path("ro") +
                    " *(insecure)\n/mine -dir=" + tree_.Path("second") +
                    " 127.0.0.0/8(insecure) ::1(rw)\n" + "/secure -dir=" + tree_.Path("secure") +
                    " *(rw)\n/other -dir=" + tree_.Path("other") + " 10.99.0.0/16(rw,insecure)\n");
    std::string output;
    ASSERT_EQ(daemon_.Control({"reload"}, &output), 0) << output;
    NfsClient client(Port());
    const std::string ro = client.MountShare("/ro"), mine = client.MountShare("/mine");
    for (int twice = 0; twice < 2; ++twice) {
        EXPECT_EQ(MountStatus(client, "/rw/sub"), 2u);
        EXPECT_EQ(MountStatus(client, "/secure"), 13u);
        EXPECT_EQ(MountStatus(client, "/other"), 13u);
        EXPECT_EQ(Make(client, mine, "new"), 30u);
    }
    const Lines lines = Refusals();
    ASSERT_EQ(lines.size(), 4u) << daemon_.Log();
    const std::string reload = ExportsFile() + " and run oxelctl reload";
    EXPECT_EQ(lines[0],
              "L1 Refused [127.0.0.1]: /rw/sub is not a share, it lies below share /rw: "
              "mount /rw instead; there it is sub");
    EXPECT_EQ(lines[1],
              "L1 Refused [127.0.0.1]: a change in [/mine] by rule [127.0.0.0/8(ro,insecure)]: "
              "write rw instead of ro for 127.0.0.0/8 in " +
                  reload);
    EXPECT_EQ(lines[2],
              "L1 Refused [127.0.0.1]: no client of [/other] matches: add 127.0.0.1(rw) "
              "to its line in " +
                  reload);
    const std::string tail =
        " of [/secure] by rule [*(rw,secure)]: mount from a port below 1024 "
        "(as root, without noresvport), or add insecure to * in " +
        reload;
    EXPECT_TRUE(lines[3].starts_with("L1 Refused [127.0.0.1]: port ")) << lines[3];
    EXPECT_TRUE(lines[3].ends_with(tail)) << lines[3];
    // What was always said is said each time, unless the daemon bounds what clients can cause.
    EXPECT_TRUE(daemon_.LogHas("[/rw/sub] is not exported."));
    EXPECT_TRUE(daemon_.LogHas("Client [127.0.0.1] is not authorized to mount share [/secure]."));
    EXPECT_TRUE(daemon_.LogHas("Client [127.0.0.1] is not authorized to mount share [/other]."));
}

TEST_P(Refusal, AShareThatNobodyMayChangeIsSaidToBeOne) {
    NfsClient client(Port());
    const std::string ro = client.MountShare("/ro");
    for (const char* name : {"one", "two"}) EXPECT_EQ(Make(client, ro, name), 13u);
    EXPECT_EQ(Refusals(), (Lines{"L1 Refused [127.0.0.1]: a change in [/ro], which no client may "
                                 "change: write rw for the client in " +
                                 ExportsFile() + " and run oxelctl reload"}));
    EXPECT_TRUE(daemon_.LogHas("Write Access denied for share [/ro]"));
}

TEST_P(Refusal, EachClientIsToldOf) {
    if (geteuid() != 0) GTEST_SKIP() << "a port below 1024 needs root";
    for (const char* address : {"127.0.0.1", "127.0.0.2", "::1"}) {
        for (int i = 0; i < 3; ++i) {
            NfsClient client(Port(), address, false, 0, 0);
            EXPECT_EQ(MountStatus(client, "/secure"), 13u);
        }
    }
    const Lines lines = Refusals();
    ASSERT_EQ(lines.size(), 3u) << daemon_.Log();
    EXPECT_TRUE(lines[0].starts_with("L1 Refused [127.0.0.1]: port ")) << lines[0];
    EXPECT_TRUE(lines[1].starts_with("L1 Refused [127.0.0.2]: port ")) << lines[1];
    EXPECT_TRUE(lines[2].starts_with("L1 Refused [::1]: port ")) << lines[2];
}

TEST_P(Refusal, CallsWithAHandleAreToldOfAsMountsAre) {
    NfsClient client(Port());
    const std::string root = client.MountShare("/rw");
    tree_.WriteExports("wire", "/rw -dir=" + tree_.Path("rw") + ",id=7 10.0.0.0/8(rw)\n");
    std::string output;
    ASSERT_EQ(daemon_.Control({"reload"}, &output), 0) << output;
    for (int i = 0; i < 3; ++i) {
        uint32_t status = 0;
        client.GetAttributes(root, &status);
        EXPECT_EQ(status, 13u);
    }
    EXPECT_EQ(Refusals(), (Lines{"L1 Refused [127.0.0.1]: no client of [/rw] matches: add "
                                 "127.0.0.1(rw) to its line in " +
                                 ExportsFile() + " and run oxelctl reload"}));
    EXPECT_TRUE(daemon_.LogHas("This object is not accessible to client [127.0.0.1]"));
}

TEST_P(Refusal, AClientsPathCannotForgeALine) {
    NfsClient client(Port());
    EXPECT_EQ(MountStatus(client, "/rw\nL1 Refused [1.2.3.4]: forged"), 2u);
    const Lines lines = Refusals();
    ASSERT_EQ(lines.size(), 1u) << daemon_.Log();
    EXPECT_TRUE(lines[0].starts_with("L1 Refused [127.0.0.1]: /rw\\x0aL1 ")) << lines[0];
}

TEST_P(Refusal, WhatIsAllowedIsNotToldOf) {
    NfsClient client(Port());
    const std::string root = client.MountShare("/rw");
    EXPECT_EQ(Make(client, root, "new"), 0u);
    EXPECT_EQ(Refusals(), Lines{});
}

}  // namespace
}  // namespace oxel::test
