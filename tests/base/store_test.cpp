// SPDX-License-Identifier: Apache-2.0
//
// The configuration store: its grammar, the files behind it, and the arguments that name the
// instance.
#include "base/store.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <random>
#include <thread>

#include "tests/base/private_root.h"
#include "tests/support/log_capture.h"

namespace oxel {

using test::LogCapture;
using test::PrivateRoot;
using test::ReadFile;
using test::WriteFile;

namespace {

struct Parsed {
    StoreNumbers numbers;
    std::vector<StoreError> errors;
};

Parsed Parse(const std::string& text) {
    Parsed parsed;
    parsed.numbers = ReadStoreFile("x.conf", &parsed.errors, &text);
    return parsed;
}

// The only error's line and reason; "" without an error.
std::string Fault(const std::string& text) {
    const Parsed parsed = Parse(text);
    if (parsed.errors.empty()) return "";
    if (parsed.errors.size() > 1) return "more than one error";
    EXPECT_EQ(parsed.errors[0].file, "x.conf");
    return std::to_string(parsed.errors[0].line) + ": " + parsed.errors[0].reason;
}

}  // namespace

TEST(Store, NumbersBySectionAndKey) {
    const Parsed parsed = Parse("[Oxel]\nnNfs3Port = 2049\n[Log]\nnLogLevel=3\n");
    EXPECT_TRUE(parsed.errors.empty());
    EXPECT_EQ(parsed.numbers,
              (StoreNumbers{{{"Oxel", "nNfs3Port"}, 2049}, {{"Log", "nLogLevel"}, 3}}));
}

TEST(Store, EmptyTextIsAnEmptyStore) {
    EXPECT_TRUE(Parse("").numbers.empty());
    EXPECT_EQ(Fault(""), "");
    EXPECT_EQ(Fault("\n\n  \n\t\n"), "");
}

TEST(Store, CommentsAndBlanksAreSkipped) {
    const Parsed parsed =
        Parse("# one\n ; two\n\n [Oxel]  # three\n\tkey\t=  7  ; four\nother=8#five\r\n");
    EXPECT_TRUE(parsed.errors.empty());
    EXPECT_EQ(parsed.numbers, (StoreNumbers{{{"Oxel", "key"}, 7}, {{"Oxel", "other"}, 8}}));
}

TEST(Store, LastLineNeedsNoNewline) {
    EXPECT_EQ(Parse("[a]\nb=1").numbers.size(), 1u);
}

TEST(Store, LinesMayEndAsOnOtherSystems) {
    EXPECT_EQ(Parse("\xEF\xBB\xBF[a]\r\nb=1\r\n").numbers.size(), 1u);
}

TEST(Store, NumbersAreDecimalOrHexadecimalUpTo64Bits) {
    const Parsed parsed = Parse(
        "[a]\nb=0\nc=18446744073709551615\nd=0xFFffFFFFffffFFFF\ne=0X10\nf=007\ng="
        "0x000000000000000000"
        "1\n");
    EXPECT_TRUE(parsed.errors.empty());
    EXPECT_EQ(parsed.numbers, (StoreNumbers{{{"a", "b"}, 0},
                                            {{"a", "c"}, UINT64_MAX},
                                            {{"a", "d"}, UINT64_MAX},
                                            {{"a", "e"}, 16},
                                            {{"a", "f"}, 7},
                                            {{"a", "g"}, 1}}));
}

TEST(Store, NamesAreCaseSensitive) {
    const Parsed parsed = Parse("[A]\nk=1\nK=2\n[a]\nk=3\n");
    EXPECT_EQ(parsed.numbers, (StoreNumbers{{{"A", "k"}, 1}, {{"A", "K"}, 2}, {{"a", "k"}, 3}}));
}

TEST(Store, LastOfTwoEqualKeysWins) {
    EXPECT_EQ(Parse("[a]\nk=1\n[b]\nk=5\n[a]\nk=2\n").numbers,
              (StoreNumbers{{{"a", "k"}, 2}, {{"b", "k"}, 5}}));
}

TEST(Store, LineThatCannotBeReadIsReportedWithItsNumberAndReason) {
    EXPECT_EQ(Fault("[a]\nk=18446744073709551616\n"), "2: the number does not fit into 64 bits");
    EXPECT_EQ(Fault("[a]\nk=0x10000000000000000\n"), "2: the number does not fit into 64 bits");
    EXPECT_EQ(Fault("[a]\nk=5x\n"), "2: the value is not a number");
    EXPECT_EQ(Fault("[a]\nk=5 6\n"), "2: the value is not a number");
    EXPECT_EQ(Fault("[a]\nk=ff\n"), "2: the value is not a number");
    EXPECT_EQ(Fault("[a]\nk=1.5\n"), "2: the value is not a number");
    EXPECT_EQ(Fault("[a]\nk=\"1\"\n"), "2: the value is not a number");
    EXPECT_EQ(Fault("[a]\nk=1=2\n"), "2: the value is not a number");
    EXPECT_EQ(Fault("[a]\nk=0xfg\n"), "2: the value is not a hexadecimal number");
    EXPECT_EQ(Fault("[a]\nk=0x\n"), "2: no digits after 0x");
    EXPECT_EQ(Fault("[a]\nk=-1\n"), "2: a number must not have a sign");
    EXPECT_EQ(Fault("[a]\nk=+1\n"), "2: a number must not have a sign");
    EXPECT_EQ(Fault("[a]\nk=\n"), "2: no value after '='");
    EXPECT_EQ(Fault("[a]\nk= # 5\n"), "2: no value after '='");
    EXPECT_EQ(Fault("[a]\n=5\n"), "2: the key has no name");
    EXPECT_EQ(Fault("[a]\nk v=5\n"), "2: ' ' in the key's name");
    EXPECT_EQ(Fault("[a]\nk\x01=5\n"), "2: control character in the key's name");
    EXPECT_EQ(Fault(std::string("[a]\nk=5\0\n", 9)), "2: the value is not a number");
    EXPECT_EQ(Fault("[a]\nnonsense\n"), "2: neither [Section] nor key = number");
    EXPECT_EQ(Fault("[a\n"), "1: no ']' after the section's name");
    EXPECT_EQ(Fault("[]\n"), "1: the section has no name");
    EXPECT_EQ(Fault("[a] b\n"), "1: something stands after [Section]");
    EXPECT_EQ(Fault("[a[b]\n"), "1: '[' in the section's name");
    EXPECT_EQ(Fault("k=1\n"), "1: no readable [Section] above this key");
}

TEST(Store, RestOfTheFileIsUsed) {
    const Parsed parsed = Parse("[a]\nbad\nk=1\nalso=bad\nl=2\n");
    EXPECT_EQ(parsed.errors.size(), 2u);
    EXPECT_EQ(parsed.numbers, (StoreNumbers{{{"a", "k"}, 1}, {{"a", "l"}, 2}}));
}

TEST(Store, KeyThatCannotBeReadKeepsItsEarlierValue) {
    EXPECT_EQ(Parse("[a]\nk=1\nk=x\n").numbers, (StoreNumbers{{{"a", "k"}, 1}}));
}

// Else a typing error in a section's line would change settings of the section above it.
TEST(Store, KeysBelowASectionThatCannotBeReadBelongToNone) {
    const Parsed parsed = Parse("[Oxel]\nk=1\n[Log\nk=2\n[Oxel]\nl=3\n");
    EXPECT_EQ(parsed.errors.size(), 2u);
    EXPECT_EQ(parsed.numbers, (StoreNumbers{{{"Oxel", "k"}, 1}, {{"Oxel", "l"}, 3}}));
}

TEST(Store, AnyBytesAreRead) {
    std::minstd_rand random(1);
    const std::string alphabet("[]=#;\n\r \t0x9aK-+\0\xff\xef\xbb\xbf", 21);
    for (int round = 0; round < 2000; ++round) {
        std::string text;
        for (unsigned length = random() % 64; length > 0; --length)
            text.push_back(alphabet[random() % alphabet.size()]);
        const Parsed parsed = Parse(text);
        for (const StoreError& error : parsed.errors) EXPECT_GT(error.line, 0);
        // What was read can be written and read again.
        for (const auto& [name, number] : parsed.numbers) {
            const std::string again =
                "[" + name.first + "]\n" + name.second + "=" + std::to_string(number);
            EXPECT_EQ(Fault(again), "") << again;
        }
    }
}

TEST(StoreFile, MissingFileIsAnEmptyStore) {
    std::vector<StoreError> errors;
    EXPECT_TRUE(ReadStoreFile("/nonexistent/x.conf", &errors).empty());
    EXPECT_TRUE(errors.empty());
}

TEST(StoreFile, DirectoryInItsPlaceIsReported) {
    const PrivateRoot root;
    std::vector<StoreError> errors;
    EXPECT_TRUE(ReadStoreFile(root.Path(), &errors).empty());
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0].line, 0);
    EXPECT_EQ(errors[0].reason, "cannot be read: Is a directory");
}

TEST(StoreFile, FileTooLargeForSettingsIsReported) {
    const PrivateRoot root;
    const std::string path = root.Path() + "/big";
    WriteFile(path, std::string(5u << 20, '#'));
    std::vector<StoreError> errors;
    EXPECT_TRUE(ReadStoreFile(path, &errors).empty());
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0].reason, "cannot be read: File too large");
}

TEST(PlatformInfo, AbsentKeyLeavesTheValueAlone) {
    const PrivateRoot root;
    const XOPlatformInfo info;
    unsigned long value = 42;
    unsigned int small = 43;
    EXPECT_EQ(info.getNumber("Oxel", "nNfs3Port", &value), 0);
    EXPECT_EQ(info.getNumber("Oxel", "nNfs3Port", &small), 0);
    EXPECT_EQ(value, 42u);
    EXPECT_EQ(small, 43u);
}

TEST(PlatformInfo, The32BitFormKeepsTheLowBits) {
    const PrivateRoot root;
    WriteFile(root.Paths().conf, "[Oxel]\nk = 0x500000007\n");
    const XOPlatformInfo info;
    unsigned long value = 0;
    unsigned int small = 0;
    EXPECT_NE(info.getNumber("Oxel", "k", &value), 0);
    EXPECT_NE(info.getNumber("Oxel", "k", &small), 0);
    EXPECT_EQ(value, 0x500000007u);
    EXPECT_EQ(small, 7u);
}

TEST(PlatformInfo, EachOneReadsTheFileAnew) {
    const PrivateRoot root;
    WriteFile(root.Paths().conf, "[Oxel]\nk=1\n");
    const XOPlatformInfo first;
    WriteFile(root.Paths().conf, "[Oxel]\nk=2\n");
    const XOPlatformInfo second;
    unsigned int value = 0;
    first.getNumber("Oxel", "k", &value);
    EXPECT_EQ(value, 1u);
    second.getNumber("Oxel", "k", &value);
    EXPECT_EQ(value, 2u);
}

TEST(PlatformInfo, EachUnreadableLineIsLoggedOncePerRead) {
    const PrivateRoot root;
    WriteFile(root.Paths().conf, "[Oxel]\nk=x\nfine=1\nrub\nish\n");
    LogCapture capture;
    const XOPlatformInfo info;
    const auto lines = capture.AtLevel(-1);
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].text,
              root.Paths().conf + ":2: the value is not a number. The line is ignored.");
    unsigned int value = 0;
    EXPECT_NE(info.getNumber("Oxel", "fine", &value), 0);
    EXPECT_EQ(capture.AtLevel(-1).size(), 3u) << "looking up reports nothing";
    const XOPlatformInfo again;
    EXPECT_EQ(capture.AtLevel(-1).size(), 6u);
}

TEST(PlatformInfo, RuntimeSectionIsReadFromItsOwnFileOnly) {
    const PrivateRoot root;
    WriteFile(root.Paths().conf, "[Runtime]\nk=1\n");
    WriteFile(root.Paths().runtimeConf, "[Runtime]\nl=2\n[Oxel]\nm=3\n");
    const XOPlatformInfo info;
    unsigned int value = 0;
    EXPECT_EQ(info.getNumber("Runtime", "k", &value), 0);
    EXPECT_NE(info.getNumber("Runtime", "l", &value), 0);
    EXPECT_EQ(value, 2u);
    EXPECT_EQ(info.getNumber("Oxel", "m", &value), 0);
}

TEST(PlatformInfo, SetNumberWritesTheRuntimeFileAndKeepsWhatIsThere) {
    const PrivateRoot root;
    XOPlatformInfo first;
    EXPECT_TRUE(first.setNumber("Runtime", "NfsServerPort_v4", 2049));
    XOPlatformInfo second;
    EXPECT_TRUE(second.setNumber("Runtime", "MountServerPort_v4", 2050));
    EXPECT_TRUE(first.setNumber("Runtime", "NfsServerPort_v4", ULONG_MAX));
    unsigned long value = 0;
    EXPECT_NE(first.getNumber("Runtime", "MountServerPort_v4", &value), 0)
        << "the writer sees what others wrote";
    const XOPlatformInfo third;
    EXPECT_NE(third.getNumber("Runtime", "NfsServerPort_v4", &value), 0);
    EXPECT_EQ(value, ULONG_MAX);
    EXPECT_NE(third.getNumber("Runtime", "MountServerPort_v4", &value), 0);
    EXPECT_EQ(value, 2050u);
    EXPECT_FALSE(std::filesystem::exists(root.Paths().runtimeConf + ".tmp"));
    EXPECT_FALSE(std::filesystem::exists(root.Paths().conf));
}

TEST(PlatformInfo, SetNumberRefusesOtherSections) {
    const PrivateRoot root;
    XOPlatformInfo info;
    EXPECT_FALSE(info.setNumber("Oxel", "k", 1));
    EXPECT_EQ(errno, EINVAL);
    EXPECT_FALSE(std::filesystem::exists(root.Paths().conf));
}

TEST(PlatformInfo, SetNumberRefusesKeysThatCouldNotBeReadAgain) {
    const PrivateRoot root;
    XOPlatformInfo info;
    for (const char* key : {"", "a b", "a=b", "[a", "a\nb", "#a"}) {
        EXPECT_FALSE(info.setNumber("Runtime", key, 1)) << key;
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_FALSE(std::filesystem::exists(root.Paths().runtimeConf));
}

TEST(PlatformInfo, SetNumberThatFailsLeavesTheOldFile) {
    const PrivateRoot root;
    XOPlatformInfo info;
    ASSERT_TRUE(info.setNumber("Runtime", "k", 1));
    std::filesystem::create_directory(root.Paths().runtimeConf + ".tmp");
    EXPECT_FALSE(info.setNumber("Runtime", "k", 2));
    EXPECT_EQ(errno, EISDIR);
    unsigned int value = 0;
    EXPECT_NE(XOPlatformInfo().getNumber("Runtime", "k", &value), 0);
    EXPECT_EQ(value, 1u);
}

TEST(PlatformInfo, WritersOfSeveralThreadsLoseNothing) {
    const PrivateRoot root;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < 10; ++i)
                XOPlatformInfo().setNumber("Runtime", ("k" + std::to_string(t * 10 + i)).c_str(),
                                           1);
        });
    }
    for (std::thread& thread : threads) thread.join();
    const XOPlatformInfo info;
    for (int i = 0; i < 40; ++i) {
        unsigned int value = 0;
        EXPECT_NE(info.getNumber("Runtime", ("k" + std::to_string(i)).c_str(), &value), 0) << i;
    }
}

TEST(Arguments, InstanceIsTheValueBehindVmInAnyCase) {
    char program[] = "oxelnfsd", option[] = "-VM", name[] = "I7", extra[] = "-no_nfs";
    char* argv[] = {program, option, name, extra, nullptr};
    int argc = 4;
    const VMArgsAdjust adjusted(argc, argv, false);
    EXPECT_EQ(VMArgsAdjust::getName(), "I7");
    EXPECT_EQ(argc, 4) << "left as they are";
}

TEST(Arguments, LastInstanceCounts) {
    char program[] = "oxelnfsd", option[] = "-vm", first[] = "I1", second[] = "I2";
    char* argv[] = {program, option, first, option, second, nullptr};
    int argc = 5;
    const VMArgsAdjust adjusted(argc, argv, false);
    EXPECT_EQ(VMArgsAdjust::getName(), "I2");
}

TEST(Arguments, ClientNameIsNoOption) {
    char program[] = "oxelnfsd", vm[] = "-vm", name[] = "I1", cn[] = "-cn", other[] = "I2";
    char* argv[] = {program, vm, name, cn, vm, other, nullptr};
    int argc = 6;
    const VMArgsAdjust adjusted(argc, argv, false);
    EXPECT_EQ(VMArgsAdjust::getName(), "I1");
}

TEST(Arguments, AdjustTakesOptionAndValueOut) {
    char program[] = "oxelctl", json[] = "--json", vm[] = "-vm", name[] = "I9", verb[] = "status";
    char* argv[] = {program, json, vm, name, verb, nullptr};
    int argc = 5;
    const VMArgsAdjust adjusted(argc, argv, true);
    EXPECT_EQ(VMArgsAdjust::getName(), "I9");
    ASSERT_EQ(argc, 3);
    EXPECT_STREQ(argv[1], "--json");
    EXPECT_STREQ(argv[2], "status");
    EXPECT_EQ(argv[3], nullptr);
}

TEST(Arguments, OptionWithoutAValueIsLeftAlone) {
    char program[] = "oxelctl", vm[] = "-vm";
    char* argv[] = {program, vm, nullptr};
    int argc = 2;
    const VMArgsAdjust adjusted(argc, argv, true);
    EXPECT_EQ(argc, 2);
}

TEST(InstanceName, ValidNames) {
    EXPECT_TRUE(IsValidInstanceName("Instance001"));
    EXPECT_TRUE(IsValidInstanceName("-no_nfs"));
    EXPECT_TRUE(IsValidInstanceName("a b"));
    EXPECT_TRUE(IsValidInstanceName("..."));
    EXPECT_TRUE(IsValidInstanceName(std::string(64, 'x')));
}

TEST(InstanceName, NamesThatWouldLeaveTheirDirectoryOrTheLogLine) {
    EXPECT_FALSE(IsValidInstanceName(""));
    EXPECT_FALSE(IsValidInstanceName("."));
    EXPECT_FALSE(IsValidInstanceName(".."));
    EXPECT_FALSE(IsValidInstanceName("a/b"));
    EXPECT_FALSE(IsValidInstanceName("a\nb"));
    EXPECT_FALSE(IsValidInstanceName("a\x7f"));
    EXPECT_FALSE(IsValidInstanceName(std::string(65, 'x')));
    EXPECT_FALSE(IsValidInstanceName(std::string("a\0b", 3)));
}

TEST(InstancePaths, AreAbsoluteWithoutARoot) {
    unsetenv("OXEL_ROOT");
    const InstancePaths paths("I1");
    EXPECT_EQ(paths.conf, "/etc/oxelnfsd/I1.conf");
    EXPECT_EQ(paths.exports, "/etc/oxelnfsd/I1.exports");
    EXPECT_EQ(paths.runDir, "/run/oxelnfsd/I1");
    EXPECT_EQ(paths.runtimeConf, "/run/oxelnfsd/I1/runtime.conf");
    EXPECT_EQ(paths.instanceLock, "/run/oxelnfsd/I1/oxelnfsd.lock");
    EXPECT_EQ(paths.controlSocket, "/run/oxelnfsd/I1/control.sock");
    EXPECT_EQ(paths.stateDir, "/var/lib/oxelnfsd/I1");
    EXPECT_EQ(paths.registry, "/var/lib/oxelnfsd/I1/registry.json");
    EXPECT_EQ(paths.handleKey, "/var/lib/oxelnfsd/I1/handle.key");
    EXPECT_EQ(paths.logDir, "/var/log/oxelnfsd");
    EXPECT_EQ(paths.log, "/var/log/oxelnfsd/I1.log");
    EXPECT_EQ(paths.NamedLock("Korvane-oxelnfsdServiceI1"),
              "/run/oxelnfsd/Korvane-oxelnfsdServiceI1.lock");
}

TEST(InstancePaths, StandBelowTheRootThatIsSet) {
    setenv("OXEL_ROOT", "/tmp/tree/", 1);
    EXPECT_EQ(InstancePaths("I1").conf, "/tmp/tree/etc/oxelnfsd/I1.conf");
    setenv("OXEL_ROOT", "", 1);
    EXPECT_EQ(InstancePaths("I1").conf, "/etc/oxelnfsd/I1.conf");
    unsetenv("OXEL_ROOT");
}

}  // namespace oxel
