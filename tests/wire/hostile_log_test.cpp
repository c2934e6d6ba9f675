// SPDX-License-Identifier: Apache-2.0
//
// Clients that would fill the daemon's log, or write into it. Hardened, each message has ten lines
// a minute and a sum; otherwise each one is written, as it always was.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <regex>
#include <sstream>

#include "tests/wire/hostile_fixture.h"

namespace oxel::test {
namespace {

constexpr unsigned kLinesAMinute = 10;
constexpr uint32_t kNoEntry = 2, kRefused = 13, kStale = 70;

class HostileLog : public HostileTest {
  protected:
    // By default an unknown procedure keeps its call record.
    unsigned Unknown() const { return IsHardened(GetParam()) ? kMany : 20; }

    // Ends the daemon, and with it the minute. `times` messages that begin with `text`: in lines of
    // their own, and in sums.
    void Expect(const std::string& text, unsigned times) {
        const std::string log = daemon_.Log();
        uint64_t lines = 0, repeated = 0, sums = 0;
        const std::regex sum("Repeated (\\d+) times more: (.*)");
        std::istringstream stream(log);
        for (std::string line; std::getline(stream, line);) {
            const size_t at = line.find(text);
            if (at == std::string::npos) continue;
            std::smatch match;
            if (std::regex_search(line, match, sum)) {
                repeated += std::stoull(match[1]);
                ++sums;
            } else {
                ++lines;
            }
        }
        EXPECT_EQ(lines + repeated, times) << text;
        if (IsHardened(GetParam())) {
            EXPECT_GE(lines, std::min(times, kLinesAMinute)) << text;
            // However slowly the daemon is run: a minute has as many at most, and its sum.
            EXPECT_LE(lines, kLinesAMinute * (sums + 1)) << text;
        } else {
            EXPECT_EQ(sums, 0u);
        }
    }
    static constexpr unsigned kMany = 400;
};

TEST_P(HostileLog, AFloodOfRefusedCallsIsSummedUp) {
    RpcConnection connection(Port());
    RpcCall unknown = Null(), weak = Getattr(), garbage = maker_->Nfs(nfs::kLookup, "");
    unknown.procedure = 22;
    weak.credentialFlavour = kAuthNone;
    weak.credential.clear();
    for (unsigned i = 0; i < kMany; ++i) {
        if (i < Unknown()) (void)connection.CallRaw(unknown);
        (void)connection.CallRaw(weak);
        (void)connection.CallRaw(garbage);
    }
    EXPECT_EQ(daemon_.Stop(), 0);
    Expect("Error: unknown procedure 22", Unknown());
    Expect("Error: Auth_NULL not accepted for proc [GETATTR3].", kMany);
    Expect("Error: Args Decode Failed. procNum [3]", kMany);
}

TEST_P(HostileLog, AFloodOfBadHandlesIsSummedUp) {
    std::string forged = root_, module = root_, share = root_;
    forged.back() = static_cast<char>(forged.back() ^ 1);
    module[3] = 77;
    share[7] = 77;
    for (unsigned i = 0; i < kMany; ++i)
        for (const std::string& handle : {forged, module, share})
            EXPECT_EQ(
                maker_->Status(maker_->Nfs(nfs::kGetattr, XdrWriter().Opaque(handle).Bytes())),
                kStale);
    EXPECT_EQ(daemon_.Stop(), 0);
    Expect("Error: Stale File Handle. FH [] IP [", kMany);
    Expect("FSM Not Found fsmType [77]", kMany);
    Expect("Export not found for [", kMany);
}

TEST_P(HostileLog, AFloodOfRefusedMountsIsSummedUp) {
    for (unsigned i = 0; i < kMany; ++i) {
        uint32_t status = 0;
        maker_->MountShare("/other", &status);
        EXPECT_EQ(status, kRefused);
        maker_->MountShare("/nothing", &status);
        EXPECT_EQ(status, kNoEntry);
        EXPECT_EQ(maker_->Results(maker_->Mount(mnt::kUmnt, XdrWriter().Opaque("/gone").Bytes())),
                  "");
    }
    EXPECT_EQ(daemon_.Stop(), 0);
    Expect("is not authorized to mount share [/other].", kMany);
    Expect("[/nothing] is not exported.", kMany);
    Expect("Export [/gone] not found.", kMany);
}

// What the daemon says of its own life is never counted away.
TEST_P(HostileLog, TheDaemonsOwnLinesStandThere) {
    RpcConnection connection(Port());
    RpcCall call = maker_->Nfs(nfs::kLookup, "");
    for (unsigned i = 0; i < kMany; ++i) (void)connection.CallRaw(call);
    std::string exports;
    constexpr int kShares = 30;
    for (int i = 0; i < kShares; ++i)
        exports += "/more" + std::to_string(i) + " -dir=" + tree_.Path("rw") + " *(ro)\n";
    tree_.WriteExports("wire", exports);
    std::string output;
    EXPECT_EQ(daemon_.Control({"reload"}, &output), 0) << output;
    EXPECT_EQ(daemon_.Stop(), 0);
    for (int i = 0; i < kShares; ++i)
        EXPECT_TRUE(daemon_.LogHas("Share [/more" + std::to_string(i) + "] id [")) << i;
    EXPECT_TRUE(daemon_.LogHas("oxelnfsd exiting."));
}

// Each line is the daemon's, whatever a client calls its files; hardened, it is short too.
TEST_P(HostileLog, NamesCannotForgeLines) {
    const std::string forged =
        "x\n2026-01-01T00:00:00.000000Z 1 [main] L-1 int main():1 forged\r\x1b[2K\x1b[1A\x7f\b";
    std::string every;
    for (int byte = 1; byte < 256; ++byte)
        if (byte != '/') every.push_back(static_cast<char>(byte));
    for (const std::string& name :
         {forged, every, std::string(4000, '\n'), std::string(4000, '%'),
          std::string("%s%n%x%5000d"), std::string("a\xc2\x85\xe2\x80\xa8")}) {
        std::string stale = root_;
        stale.back() = static_cast<char>(stale.back() ^ 1);
        for (const std::string& directory : {root_, stale}) {
            (void)maker_->Status(maker_->Nfs(nfs::kLookup, DirectoryName(directory, name)));
            (void)maker_->Status(maker_->Nfs(nfs::kRemove, DirectoryName(directory, name)));
            (void)maker_->Status(maker_->Nfs(
                nfs::kRename, DirectoryName(directory, name) + DirectoryName(directory, name)));
        }
        uint32_t status = 0;
        maker_->MountShare("/" + name, &status);
        (void)maker_->Results(maker_->Mount(mnt::kUmnt, XdrWriter().Opaque(name).Bytes()));
    }
    EXPECT_EQ(daemon_.Stop(), 0);
    const std::regex begin(
        "\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{6}Z \\d+ \\[[^\\]]*\\] L(-?\\d|ev) .*");
    std::istringstream stream(daemon_.Log());
    for (std::string line; std::getline(stream, line);) {
        EXPECT_TRUE(std::regex_match(line.substr(0, 60), begin)) << line.substr(0, 200);
        EXPECT_EQ(line.find_first_of("\r\x1b\x7f\b"), std::string::npos) << line.substr(0, 200);
        if (!IsHardened(GetParam())) continue;
        EXPECT_LE(line.size(), 5000u);
        EXPECT_EQ(line.find("\xc2\x85"), std::string::npos) << line;
    }
    EXPECT_EQ(daemon_.Log().find(" L-1 int main():1 forged\n"), std::string::npos);
}

// The RPC library prints a line for each credential that it cannot decode.
TEST_P(HostileLog, NothingIsPrintedForBadCredentials) {
    char target[64] = {};
    const std::string link = "/proc/" + std::to_string(daemon_.Pid()) + "/fd/1";
    ASSERT_GT(readlink(link.c_str(), target, sizeof target - 1), 0);
    EXPECT_STREQ(target, "/dev/null");
    RpcCall call = Getattr();
    call.credential = UnixCredential(0, 0, {}, std::string(300, 'm'));
    for (int i = 0; i < 100; ++i) (void)maker_->Connection().CallRaw(call);
    EXPECT_EQ(daemon_.StandardError().find("bad auth_len"), std::string::npos);
    ExpectServing();
}

OXEL_ALL_MODES(HostileLog);

}  // namespace
}  // namespace oxel::test
