// SPDX-License-Identifier: Apache-2.0
//
// Shares of the exports file: share options, defaults, and what makes a line an error.
#include "backend/exports_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <random>

namespace oxel {
namespace {

ExportsFile Parse(const std::string& text) {
    return ParseExports(text, "I.exports", false);
}

ShareConfig One(const std::string& line) {
    ExportsFile file = Parse(line + "\n");
    EXPECT_EQ(file.shares.size(), 1u) << line;
    EXPECT_TRUE(file.errors.empty()) << file.errors[0].reason;
    return file.shares.empty() ? ShareConfig() : file.shares[0];
}

// The one error of a text, as "line: reason".
std::string Error(const std::string& text) {
    ExportsFile file = Parse(text);
    if (file.errors.size() != 1) return std::to_string(file.errors.size()) + " errors";
    EXPECT_EQ(file.errors[0].file, "I.exports");
    return std::to_string(file.errors[0].line) + ": " + file.errors[0].reason;
}

class TempDir {
  public:
    TempDir() {
        char name[] = "/tmp/oxel_exports_XXXXXX";
        path_ = mkdtemp(name);
    }
    ~TempDir() {
        std::string command = "rm -rf " + path_;
        EXPECT_EQ(system(command.c_str()), 0);
    }
    const std::string& path() const { return path_; }

  private:
    std::string path_;
};

TEST(ExportsFile, APathAloneIsReadableByEverybody) {
    ShareConfig share = One("/srv/projects");
    EXPECT_EQ(share.path, "/srv/projects");
    EXPECT_EQ(share.directory, "/srv/projects");
    EXPECT_EQ(share.module, "local");
    EXPECT_FALSE(share.unlisted);
    EXPECT_EQ(share.id, DefaultShareId("/srv/projects"));
    EXPECT_EQ(share.line, 1);
    ASSERT_EQ(share.clients.All().size(), 1u);
    EXPECT_EQ(share.clients.All()[0].text, "*");
    EXPECT_EQ(share.clients.All()[0].options, ClientOptions());
}

TEST(ExportsFile, TheDocumentedExampleIsUnderstood) {
    ExportsFile file = Parse(
        "# path        -share,options                 client(options) client(options) ...\n"
        "/srv/projects                                10.0.0.0/8(rw) 2001:db8::/32(ro)\n"
        "/home         -dir=/mnt/disk1/home,id=7      *(rw,manage_gids)\n"
        "\"/srv/my\\040data\" -unlisted                  127.0.0.1(rw,no_root_squash,insecure) "
        "::1(rw)\n");
    ASSERT_TRUE(file.errors.empty()) << file.errors[0].reason;
    ASSERT_EQ(file.shares.size(), 3u);
    EXPECT_EQ(file.shares[0].clients.All().size(), 2u);
    EXPECT_EQ(file.shares[1].directory, "/mnt/disk1/home");
    EXPECT_EQ(file.shares[1].id, 7u);
    EXPECT_TRUE(file.shares[1].clients.All()[0].options.manageGids);
    EXPECT_EQ(file.shares[2].path, "/srv/my data");
    EXPECT_TRUE(file.shares[2].unlisted);
    EXPECT_EQ(file.shares[2].line, 4);
}

TEST(ExportsFile, DefaultIdsAreTheFnv1aHashOfThePath) {
    // Published test vectors of the hash.
    EXPECT_EQ(DefaultShareId(""), 0x811c9dc5u);
    EXPECT_EQ(DefaultShareId("a"), 0xe40c292cu);
    EXPECT_EQ(DefaultShareId("foobar"), 0xbf9cf968u);
}

TEST(ExportsFile, ADefaultIdIsNeverZero) {
    // Four bytes that the 32-bit FNV-1a hash maps to 0.
    EXPECT_EQ(DefaultShareId("\xcc\x24\x31\xc4"), 1u);
}

TEST(ExportsFile, PathsAreKeptInStoredForm) {
    EXPECT_EQ(One("//srv///a/").path, "/srv/a");
    EXPECT_EQ(One("//srv///a/").directory, "/srv/a");
    EXPECT_EQ(One("//srv///a/").id, DefaultShareId("/srv/a"));
    EXPECT_EQ(One("/").path, "/");
    EXPECT_EQ(One("///").path, "/");
}

TEST(ExportsFile, ShareAndClientOptionsMixInTheGroup) {
    ShareConfig share = One("/a -rw,id=4294967295,insecure,module=local,dir=/b");
    EXPECT_EQ(share.id, 4294967295u);
    EXPECT_EQ(share.directory, "/b");
    EXPECT_TRUE(share.clients.All()[0].options.writable);
    EXPECT_FALSE(share.clients.All()[0].options.secure);
    EXPECT_EQ(One("/a - 10.0.0.1").clients.All()[0].text, "10.0.0.1");
}

TEST(ExportsFile, DirectoriesMayHoldBlanksAndCommas) {
    EXPECT_EQ(One("/a -dir=\"/my, data\",id=3").directory, "/my, data");
    EXPECT_EQ(One("/a -dir=/my\\054\\040data,id=3").directory, "/my, data");
    EXPECT_EQ(One("/a -dir=/x=y").directory, "/x=y");
}

TEST(ExportsFile, ContinuedLinesAreOneShare) {
    ExportsFile file = Parse("/a \\\n  10.0.0.1(rw) \\\n  10.0.0.2\n/b\n");
    ASSERT_EQ(file.shares.size(), 2u);
    EXPECT_EQ(file.shares[0].clients.All().size(), 2u);
    EXPECT_EQ(file.shares[0].line, 1);
    EXPECT_EQ(file.shares[1].line, 4);
}

TEST(ExportsFile, AnErrorIsToldWithTheLineThatItStandsIn) {
    EXPECT_EQ(Error("/a \\\n  10.0.0.1(rw) \\\n  10.0.0.2(rww)\n"),
              "3: unknown option 'rww'; did you mean 'rw'?");
}

TEST(ExportsFile, ALineWithAnErrorIsLeftOutAndTheOthersStay) {
    ExportsFile file = Parse("/a\n/b *(rww)\nc\n/d\n");
    ASSERT_EQ(file.shares.size(), 2u);
    EXPECT_EQ(file.shares[0].path, "/a");
    EXPECT_EQ(file.shares[1].path, "/d");
    EXPECT_EQ(file.errors.size(), 2u);
}

TEST(ExportsFile, OneGoodClientDoesNotSaveALineWithABadOne) {
    ExportsFile file = Parse("/a 10.0.0.1(rw) 10.0.0.2(rww)\n");
    EXPECT_TRUE(file.shares.empty());
    EXPECT_EQ(file.errors.size(), 1u);
}

TEST(ExportsFile, RelativePathsAreErrors) {
    EXPECT_EQ(Error("srv/a"), "1: a share's path must begin with '/': 'srv/a'");
    EXPECT_EQ(Error("\"\""), "1: a share's path must begin with '/': ''");
    EXPECT_EQ(Error("-rw"), "1: a share's path must begin with '/': '-rw'");
    EXPECT_EQ(Error("/a -dir=b"), "1: option 'dir' needs a path that begins with '/', not 'b'");
    EXPECT_EQ(Error("/a -dir="), "1: option 'dir' needs a path that begins with '/', not ''");
    EXPECT_EQ(Error("/a -dir"), "1: option 'dir' needs a path that begins with '/', not ''");
}

TEST(ExportsFile, PathsHaveTheLengthThatClientsCanMount) {
    EXPECT_EQ(One("/" + std::string(1023, 'a')).path.size(), 1024u);
    EXPECT_EQ(Error("/" + std::string(1024, 'a')),
              "1: the share's path is longer than 1024 bytes, the most that a client can mount");
    EXPECT_EQ(Error("/a -dir=/" + std::string(5000, 'a')), "1: option 'dir': the path is too long");
}

TEST(ExportsFile, IdsAreStrictNumbers) {
    for (const char* id : {"0", "4294967296", "-1", "+1", "0x10", "", "seven", "1 "}) {
        EXPECT_EQ(Error(std::string("/a \"\"-id=\"") + id + "\""),
                  std::string("1: option 'id': '") + id + "' is not a number from 1 to 4294967295");
    }
    EXPECT_EQ(Error("/a -id"), "1: option 'id': '' is not a number from 1 to 4294967295");
}

TEST(ExportsFile, UnknownOptionsAndModulesNameTheNearestWord) {
    EXPECT_EQ(Error("/a -idd=3"), "1: unknown option 'idd'; did you mean 'id'?");
    EXPECT_EQ(Error("/a -unlist"), "1: unknown option 'unlist'; did you mean 'unlisted'?");
    EXPECT_EQ(Error("/a -rww"), "1: unknown option 'rww'; did you mean 'rw'?");
    EXPECT_EQ(Error("/a -module=locale"), "1: unknown module 'locale'; did you mean 'local'?");
    EXPECT_EQ(Error("/a -module"), "1: unknown module ''; did you mean 'local'?");
    EXPECT_EQ(Error("/a -unlisted=1"), "1: option 'unlisted' takes no value");
    EXPECT_EQ(Error("/a -rw,,ro"), "1: an option is missing: nothing stands between two commas");
}

TEST(ExportsFile, AShareOptionIsGivenOnce) {
    EXPECT_EQ(Error("/a -id=1,id=2"), "1: option 'id' is given twice");
    EXPECT_EQ(Error("/a -unlisted,unlisted"), "1: option 'unlisted' is given twice");
}

TEST(ExportsFile, TheOptionGroupHasItsPlace) {
    EXPECT_EQ(Error("/a 10.0.0.1 -rw"),
              "1: options '-rw' stand in the wrong place: one group that begins with '-' goes "
              "between the path and the clients");
    EXPECT_EQ(Error("/a -rw -ro").substr(0, 14), "1: options '-r");
}

TEST(ExportsFile, TwoSharesCannotHaveOnePathOrId) {
    EXPECT_EQ(Error("/a\n/b\n//a/ -id=3\n"), "3: path '/a' is already shared by line 1");
    EXPECT_EQ(Error("/a -id=9\n/b -id=9\n"),
              "2: id 9 of share '/b' is already that of '/a' in line 1; give one of them another "
              "id=N");
    EXPECT_EQ(Error("/a\n/b -id=" + std::to_string(DefaultShareId("/a")) + "\n").substr(0, 5),
              "2: id");
}

TEST(ExportsFile, ALineThatWasLeftOutTakesNoPathAndNoId) {
    ExportsFile file = Parse("/a -id=9 *(rww)\n/a -id=9 *(rw)\n");
    EXPECT_EQ(file.errors.size(), 1u);
    ASSERT_EQ(file.shares.size(), 1u);
    EXPECT_EQ(file.shares[0].line, 2);
}

TEST(ExportsFile, DirectoriesMustExist) {
    TempDir dir;
    std::ofstream(dir.path() + "/file") << "x";
    ASSERT_EQ(mkdir((dir.path() + "/good").c_str(), 0755), 0);
    std::string text = "/g -dir=" + dir.path() + "/good\n/m -dir=" + dir.path() +
                       "/missing\n/f -dir=" + dir.path() + "/file\n/d -dir=" + dir.path() +
                       "/file/below\n";
    ExportsFile file = ParseExports(text, "I.exports", true);
    ASSERT_EQ(file.shares.size(), 1u);
    EXPECT_EQ(file.shares[0].path, "/g");
    ASSERT_EQ(file.errors.size(), 3u);
    EXPECT_EQ(file.errors[0].reason, "directory '" + dir.path() + "/missing' does not exist");
    EXPECT_EQ(file.errors[1].reason, "'" + dir.path() + "/file' is not a directory");
    EXPECT_EQ(file.errors[2].reason, "directory '" + dir.path() + "/file/below': Not a directory");
    EXPECT_EQ(ParseExports(text, "I.exports", false).shares.size(), 4u);
}

TEST(ExportsFile, AMissingFileHasNoSharesAndNoErrors) {
    TempDir dir;
    ExportsFile file = ReadExportsFile(dir.path() + "/missing");
    EXPECT_TRUE(file.shares.empty());
    EXPECT_TRUE(file.errors.empty());
}

TEST(ExportsFile, AFileThatCannotBeReadIsAnError) {
    TempDir dir;
    ExportsFile file = ReadExportsFile(dir.path());
    ASSERT_EQ(file.errors.size(), 1u);
    EXPECT_EQ(file.errors[0].file, dir.path());
    EXPECT_EQ(file.errors[0].line, 0);
    EXPECT_EQ(file.errors[0].reason, "the file cannot be read: Is a directory");
    // A pipe in its place must not hold the start up.
    ASSERT_EQ(mkfifo((dir.path() + "/pipe").c_str(), 0600), 0);
    EXPECT_TRUE(ReadExportsFile(dir.path() + "/pipe").shares.empty());
}

TEST(ExportsFile, AFileIsReadFromDiskWithItsDirectoriesChecked) {
    TempDir dir;
    std::ofstream(dir.path() + "/exports")
        << "/a -dir=" << dir.path() << "\n/b -dir=/no/such/dir\n";
    ExportsFile file = ReadExportsFile(dir.path() + "/exports");
    EXPECT_EQ(file.shares.size(), 1u);
    ASSERT_EQ(file.errors.size(), 1u);
    EXPECT_EQ(file.errors[0].line, 2);
    EXPECT_EQ(file.errors[0].file, dir.path() + "/exports");
}

TEST(ExportsFile, AHugeFileIsRefused) {
    TempDir dir;
    std::ofstream(dir.path() + "/exports") << std::string((16 << 20) + 1, '\n');
    ExportsFile file = ReadExportsFile(dir.path() + "/exports");
    ASSERT_EQ(file.errors.size(), 1u);
    EXPECT_EQ(file.errors[0].reason, "the file is longer than 16 MiB");
}

TEST(ExportsFile, ErrorsAreBounded) {
    std::string line = "/a *(";
    for (int i = 0; i < 1000; ++i) line += "x" + std::to_string(i) + ",";
    ExportsFile file = Parse(line + "rw)\n/b\n");
    EXPECT_EQ(file.errors.size(), 20u);
    EXPECT_EQ(file.errors.back().reason, "more errors follow, not shown");
    EXPECT_EQ(file.shares.size(), 1u);

    std::string text;
    for (int i = 0; i < 5000; ++i) text += "relative\n";
    file = Parse(text + "/b\n");
    EXPECT_EQ(file.errors.size(), 1001u);
    EXPECT_EQ(file.errors.back().reason, "more errors follow, not shown");
    EXPECT_EQ(file.shares.size(), 1u);
}

TEST(ExportsFile, ControlCharactersOfTheFileDoNotReachErrors) {
    ExportsFile file = Parse("/a *(\"x\\012forged line\")\n");
    ASSERT_EQ(file.errors.size(), 1u);
    EXPECT_EQ(file.errors[0].reason, "unknown option 'x\\x0aforged line'");
}

TEST(ExportsFile, AnyBytesAreSharesOrErrors) {
    std::mt19937 random(20260102);
    const char* pieces[] = {
        "/a", " ",  "\n", "-",        "dir=/b", ",",  "id=",       "7",    "*",  "(",
        ")",  "rw", "\"", "\\",       "\\040",  "#",  "10.0.",     "1.1",  "/8", "::1",
        "@g", "=",  "\t", "unlisted", "\377",   "\r", "anonuid=1", "\\\n", "/",  "\001"};
    auto refuse = [](const std::string&, std::vector<CLuIPAddr>*, std::string* error) {
        *error = "not asked";
        return false;
    };
    for (int round = 0; round < 5000; ++round) {
        std::string text;
        for (size_t i = random() % 20; i > 0; --i) text += pieces[random() % std::size(pieces)];
        ExportsFile file = ParseExports(text, "f", false, refuse);
        for (const ShareConfig& share : file.shares) {
            ASSERT_EQ(share.path[0], '/') << text;
            ASSERT_EQ(share.directory[0], '/') << text;
            ASSERT_NE(share.id, 0u) << text;
            ASSERT_FALSE(share.clients.All().empty()) << text;
        }
        for (const ExportsError& error : file.errors) ASSERT_GT(error.line, 0) << text;
    }
}

}  // namespace
}  // namespace oxel
