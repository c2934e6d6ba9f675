// SPDX-License-Identifier: Apache-2.0
//
// The text of registry.json and putting it on disk.
#include "backend/export_registry.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

namespace oxel {
namespace {

ShareRecords Sample() {
    ShareRecords records;
    records[7] = {"/home", 1795246801, {{"10.0.0.1", 1795246800}, {"2001:db8::1", 1}}};
    records[4294967295u] = {"/srv", 0, {}};
    return records;
}

bool operator==(const ShareRecord& a, const ShareRecord& b) {
    return a.path == b.path && a.lastAccess == b.lastAccess && a.mounts == b.mounts;
}

bool Same(const ShareRecords& a, const ShareRecords& b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](auto& x, auto& y) {
               return x.first == y.first && x.second == y.second;
           });
}

TEST(ExportRegistry, WhatIsWrittenIsReadBack) {
    ShareRecords read;
    ASSERT_TRUE(ParseRegistry(FormatRegistry(Sample()), &read));
    EXPECT_TRUE(Same(read, Sample()));
    ASSERT_TRUE(ParseRegistry(FormatRegistry({}), &read));
    EXPECT_TRUE(read.empty());
}

TEST(ExportRegistry, TimesAreUtcTextAsInTheLog) {
    nlohmann::json whole = nlohmann::json::parse(FormatRegistry(Sample()));
    EXPECT_EQ(whole["shares"][0]["id"], 7);
    EXPECT_EQ(whole["shares"][0]["lastAccess"], "2026-11-21T07:40:01.000000Z");
    EXPECT_EQ(whole["shares"][0]["mounts"][0]["client"], "10.0.0.1");
    EXPECT_EQ(whole["shares"][0]["mounts"][0]["lastMount"], "2026-11-21T07:40:00.000000Z");
    EXPECT_TRUE(whole["shares"][1]["lastAccess"].is_null());
}

TEST(ExportRegistry, TimesBeyondTheFormatAreCut) {
    ShareRecords records;
    records[1] = {"/a", INT64_MAX, {{"x", INT64_MIN}}};
    ShareRecords read;
    ASSERT_TRUE(ParseRegistry(FormatRegistry(records), &read));
    EXPECT_EQ(read[1].lastAccess, 253402300799);
    EXPECT_EQ(read[1].mounts["x"], 0);
}

TEST(ExportRegistry, EveryTruncationIsRefusedAndLeavesTheRecords) {
    std::string whole = FormatRegistry(Sample());
    // Only the final newline can be missing.
    for (size_t length = 0; length + 1 < whole.size(); ++length) {
        ShareRecords read;
        read[1].path = "/kept";
        ASSERT_FALSE(ParseRegistry(whole.substr(0, length), &read)) << length;
        ASSERT_EQ(read[1].path, "/kept");
    }
}

TEST(ExportRegistry, EveryChangedByteIsReadOrRefused) {
    std::string whole = FormatRegistry(Sample());
    for (size_t at = 0; at < whole.size(); ++at) {
        for (char byte : {'\0', '"', '{', '}', '9', '\377'}) {
            std::string changed = whole;
            changed[at] = byte;
            ShareRecords read;
            if (!ParseRegistry(changed, &read)) {
                ASSERT_TRUE(read.empty());
            }
        }
    }
}

TEST(ExportRegistry, WellFormedJsonOfAnotherShapeIsRefused) {
    const std::string valid =
        R"({"version":1,"shares":[{"id":1,"path":"/a","lastAccess":null,"mounts":[]}]})";
    ShareRecords read;
    ASSERT_TRUE(ParseRegistry(valid, &read));
    for (
        const char* text :
        {"null",
         "[]",
         "1",
         "\"x\"",
         "{}",
         R"({"version":1})",
         R"({"version":1,"shares":{}})",
         R"({"version":2,"shares":[]})",
         R"({"version":"1","shares":[]})",
         R"({"version":1,"shares":[1]})",
         R"({"version":1,"shares":[{}]})",
         R"({"version":1,"shares":[{"id":-1,"path":"/a","lastAccess":null,"mounts":[]}]})",
         R"({"version":1,"shares":[{"id":4294967296,"path":"/a","lastAccess":null,"mounts":[]}]})",
         R"({"version":1,"shares":[{"id":1.5,"path":"/a","lastAccess":null,"mounts":[]}]})",
         R"({"version":1,"shares":[{"id":1,"path":2,"lastAccess":null,"mounts":[]}]})",
         R"({"version":1,"shares":[{"id":1,"path":"/a","lastAccess":5,"mounts":[]}]})",
         R"({"version":1,"shares":[{"id":1,"path":"/a","lastAccess":"now","mounts":[]}]})",
         R"({"version":1,"shares":[{"id":1,"path":"/a","lastAccess":"2026-11-21T07:40:01","mounts":[]}]})",
         R"({"version":1,"shares":[{"id":1,"path":"/a","lastAccess":null,"mounts":{}}]})",
         R"({"version":1,"shares":[{"id":1,"path":"/a","lastAccess":null,"mounts":[1]}]})",
         R"({"version":1,"shares":[{"id":1,"path":"/a","lastAccess":null,"mounts":[{}]}]})",
         R"({"version":1,"shares":[{"id":1,"path":"/a","lastAccess":null,"mounts":[{"client":1,"lastMount":null}]}]})",
         R"({"version":1,"shares":[{"id":1,"path":"/a","mounts":[]}]})"})
        EXPECT_FALSE(ParseRegistry(text, &read)) << text;
}

TEST(ExportRegistry, DeepNestingDoesNotExhaustTheStack) {
    ShareRecords read;
    EXPECT_FALSE(ParseRegistry(std::string(1000000, '['), &read));
    std::string closed = std::string(200000, '[') + std::string(200000, ']');
    EXPECT_FALSE(ParseRegistry(closed, &read));
}

TEST(ExportRegistry, PathsOfAnyBytesHaveATextOfTheirOwn) {
    EXPECT_EQ(RegistryPathText("/srv/a b"), "/srv/a b");
    EXPECT_EQ(RegistryPathText("/sr\xc3\xa4"), "/sr\xc3\xa4");
    EXPECT_EQ(RegistryPathText("/\xe2\x82\xac\xf0\x9f\x98\x80"), "/\xe2\x82\xac\xf0\x9f\x98\x80");
    EXPECT_EQ(RegistryPathText("/a\\b\n\x7f"), "/a\\134b\\012\\177");
    EXPECT_EQ(RegistryPathText("/\xff\xc3"), "/\\377\\303");
    // Overlong forms, surrogates, beyond the last code point.
    EXPECT_EQ(RegistryPathText("\xc0\xaf"), "\\300\\257");
    EXPECT_EQ(RegistryPathText("\xe0\x80\xaf"), "\\340\\200\\257");
    EXPECT_EQ(RegistryPathText("\xed\xa0\x80"), "\\355\\240\\200");
    EXPECT_EQ(RegistryPathText("\xf4\x90\x80\x80"), "\\364\\220\\200\\200");
    EXPECT_EQ(RegistryPathText("\xf0\x80\x80\xaf"), "\\360\\200\\200\\257");
    for (int byte = 1; byte < 256; ++byte) {
        ShareRecords records, read;
        records[1].path = RegistryPathText(std::string("/x") + static_cast<char>(byte));
        ASSERT_TRUE(ParseRegistry(FormatRegistry(records), &read)) << byte;
        ASSERT_EQ(read[1].path, records[1].path) << byte;
    }
}

class DurableFile : public testing::Test {
  protected:
    DurableFile() {
        char name[] = "/tmp/oxel_registry_XXXXXX";
        dir_ = mkdtemp(name);
    }
    ~DurableFile() override {
        std::string command = "rm -rf " + dir_;
        EXPECT_EQ(system(command.c_str()), 0);
    }
    std::string Content(const std::string& file) {
        std::ifstream in(file);
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }
    std::string dir_;
};

TEST_F(DurableFile, ReplacesTheContentAndLeavesNoTemporaryFile) {
    std::string file = dir_ + "/r.json";
    ASSERT_TRUE(ReplaceFileDurably(file, "one"));
    ASSERT_TRUE(ReplaceFileDurably(file, "two"));
    EXPECT_EQ(Content(file), "two");
    struct stat status;
    ASSERT_EQ(stat(file.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u);
    EXPECT_NE(stat((file + ".tmp").c_str(), &status), 0);
}

TEST_F(DurableFile, AMissingDirectoryIsToldInErrno) {
    EXPECT_FALSE(ReplaceFileDurably(dir_ + "/no/r.json", "x"));
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(DurableFile, ATargetThatCannotBeReplacedKeepsItsPlace) {
    std::string file = dir_ + "/r.json";
    ASSERT_EQ(mkdir(file.c_str(), 0700), 0);
    EXPECT_FALSE(ReplaceFileDurably(file, "x"));
    EXPECT_EQ(errno, EISDIR);
    struct stat status;
    EXPECT_NE(stat((file + ".tmp").c_str(), &status), 0);
}

TEST_F(DurableFile, AFullDiskKeepsTheOldContent) {
    std::string file = dir_ + "/r.json";
    ASSERT_TRUE(ReplaceFileDurably(file, "old"));
    ASSERT_EQ(symlink("/dev/full", (file + ".tmp").c_str()), 0);
    // A link in the temporary file's place is not followed.
    EXPECT_FALSE(ReplaceFileDurably(file, "new"));
    EXPECT_EQ(errno, ELOOP);
    EXPECT_EQ(Content(file), "old");
}

// Whatever moment a process ends at, the file is one of the texts that were to be in it.
TEST_F(DurableFile, AKilledWriterLeavesTheOldOrTheNewContent) {
    const std::string file = dir_ + "/r.json";
    const std::string texts[] = {std::string(200000, 'a') + "\n", std::string(100, 'b') + "\n"};
    ASSERT_TRUE(ReplaceFileDurably(file, texts[0]));
    for (int round = 0; round < 20; ++round) {
        int ready[2];
        ASSERT_EQ(pipe2(ready, O_CLOEXEC), 0);
        const pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            for (int i = 0;; ++i)
                if (!ReplaceFileDurably(file, texts[i % 2]) || write(ready[1], "x", 1) != 1)
                    _exit(1);
        }
        close(ready[1]);
        char bytes[16];
        for (int done = 0; done <= round;) {
            const ssize_t count = read(ready[0], bytes, sizeof bytes);
            ASSERT_GT(count, 0);
            done += static_cast<int>(count);
        }
        ASSERT_EQ(kill(pid, SIGKILL), 0);
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(WIFSIGNALED(status));
        close(ready[0]);
        const std::string content = Content(file);
        EXPECT_TRUE(content == texts[0] || content == texts[1]) << content.size() << " bytes";
    }
}

}  // namespace
}  // namespace oxel
