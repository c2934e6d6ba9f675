// SPDX-License-Identifier: Apache-2.0
//
// A tree with everything in it is copied into a share by an NFS client library that others wrote,
// and must be there: as that client sees it and on the disk.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "tests/support/modes.h"
#include "tests/support/private_tree.h"
#include "tests/system/generated_tree.h"
#include "tests/system/libnfs_client.h"
#include "tests/system/tree_comparison.h"
#include "tests/system/tree_copy.h"

namespace oxel::test {
namespace {

constexpr unsigned kSeed = 20260713;

class Copy : public testing::TestWithParam<Mode> {
  protected:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "the tree has files of other owners";
        source_ = tree_.MakeDir("source");
        target_ = InMemory();
        if (target_.empty()) target_ = tree_.MakeDir("target");
        tree_.WriteConf("wire", "[Oxel]\nnNfs3Port = 0\n" + ModeSettings(GetParam()));
        tree_.WriteExports("wire", "/tree -dir=" + target_ +
                                       " *(rw,no_root_squash,insecure)\n/look -dir=" + target_ +
                                       " *(ro,no_root_squash,insecure)\n");
        ASSERT_TRUE(daemon_.Start());
    }

    void TearDown() override {
        std::error_code error;
        if (target_.rfind(kMemory, 0) == 0) std::filesystem::remove_all(target_, error);
        EXPECT_FALSE(error) << target_;
    }
    // A directory for whole trees. The library commits every file, and each commit brings the whole
    // file system to the disk: there, the test would measure nothing else. Empty for the other
    // tests, and where there is no room.
    static std::string InMemory() {
        constexpr uintmax_t kBytes = 200 << 20;
        const std::string test = testing::UnitTest::GetInstance()->current_test_info()->name();
        std::error_code error;
        if (!test.starts_with("ATree")) return "";
        if (std::filesystem::space(kMemory, error).available < kBytes || error) return "";
        std::string name = std::string(kMemory) + "/oxel_copy_XXXXXX";
        return mkdtemp(name.data()) != nullptr ? name : "";
    }
    static constexpr const char* kMemory = "/dev/shm";

    PrivateTree tree_;
    Daemon daemon_{tree_};
    std::string source_, target_;
};

TEST_P(Copy, ATreeArrivesAsItIs) {
    const size_t objects =
        (GetParam() == Mode::kManyThreads ? 10000 : 2500) / (SanitizerBuild() ? 10 : 1);
    GenerateTree(source_, objects, kSeed);
    ASSERT_FALSE(HasFailure()) << "seed " << kSeed;
    {
        LibnfsClient client(daemon_.Port(), "/tree");
        ASSERT_TRUE(client.Mounted());
        TreeCopy copy(client, source_);
        copy.Run();
        EXPECT_GE(copy.Objects(), objects);
    }
    ASSERT_FALSE(HasFailure()) << "seed " << kSeed;
    ExpectSameTrees(source_, target_);
    // The library opens what it may read and nothing else: the share where nothing may be written.
    LibnfsClient client(daemon_.Port(), "/look");
    ASSERT_TRUE(client.Mounted());
    TreeComparison comparison(client, daemon_.Port(), "/look", target_,
                              TreeComparison::Share::kReadOnly, [](size_t) { return true; });
    comparison.Run();
    EXPECT_GE(comparison.Objects(), objects);
}

TEST_P(Copy, ALargeFileArrivesWhole) {
    const size_t bytes = SanitizerBuild() ? (8 << 20) + 5 : (64 << 20) + 5;
    tree_.Write("source/large", GeneratedBytes(1, bytes));
    LibnfsClient client(daemon_.Port(), "/tree"), reader(daemon_.Port(), "/look");
    ASSERT_TRUE(client.Mounted() && reader.Mounted());
    TreeCopy(client, source_).Run();
    EXPECT_TRUE(ReadFile(source_ + "/large") == ReadFile(target_ + "/large"));
    TreeComparison comparison(reader, daemon_.Port(), "/look", target_,
                              TreeComparison::Share::kReadOnly, [](size_t) { return true; });
    comparison.Run();
    EXPECT_EQ(comparison.Files(), 1u);
}

TEST_P(Copy, AFileWithHolesIsWrittenAndReadBeyondFourGibibytes) {
    constexpr uint64_t kFar = (uint64_t{5} << 30) + 12345;
    LibnfsClient client(daemon_.Port(), "/tree"), reader(daemon_.Port(), "/look");
    ASSERT_TRUE(client.Mounted() && reader.Mounted());
    const std::string piece = GeneratedBytes(2, 300000);
    const uint64_t places[] = {0, (uint64_t{1} << 31) - 150000, (uint64_t{1} << 32) - 150000, kFar};
    nfsfh* file = nullptr;
    ASSERT_EQ(nfs_creat(client.Get(), "/sparse", 0644, &file), 0) << client.Error();
    for (const uint64_t place : places) {
        for (size_t at = 0; at < piece.size(); at += 100000)
            ASSERT_EQ(nfs_pwrite(client.Get(), file, place + at, 100000, piece.data() + at), 100000)
                << client.Error();
    }
    ASSERT_EQ(nfs_close(client.Get(), file), 0);
    struct stat st;
    ASSERT_EQ(stat((target_ + "/sparse").c_str(), &st), 0);
    EXPECT_EQ(static_cast<uint64_t>(st.st_size), kFar + piece.size());
    EXPECT_LT(st.st_blocks * 512, 64 << 20);
    nfs_stat_64 seen{};
    ASSERT_EQ(nfs_stat64(reader.Get(), "/sparse", &seen), 0) << reader.Error();
    EXPECT_EQ(seen.nfs_size, kFar + piece.size());

    ASSERT_EQ(nfs_open(reader.Get(), "/sparse", O_RDONLY, &file), 0) << reader.Error();
    const int local = open((target_ + "/sparse").c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(local, 0);
    const std::string hole(1000, '\0');
    for (const uint64_t place : places) {
        std::string there(piece.size(), '-'), read(100000, '-'), after(1000, '-');
        ASSERT_EQ(pread(local, there.data(), there.size(), static_cast<off_t>(place)),
                  static_cast<ssize_t>(there.size()));
        EXPECT_TRUE(there == piece) << place;
        for (size_t at = 0; at < piece.size(); at += read.size()) {
            ASSERT_EQ(nfs_pread(reader.Get(), file, place + at, read.size(), read.data()),
                      static_cast<int>(read.size()))
                << reader.Error();
            EXPECT_EQ(piece.compare(at, read.size(), read), 0) << place << "+" << at;
        }
        if (place == kFar) continue;
        ASSERT_EQ(nfs_pread(reader.Get(), file, place + piece.size(), after.size(), after.data()),
                  1000);
        EXPECT_TRUE(after == hole) << place;
    }
    close(local);
    ASSERT_EQ(nfs_close(reader.Get(), file), 0);

    // Shorter and longer again, across the 32-bit border.
    for (const uint64_t size : {(uint64_t{1} << 32) - 1, uint64_t{1} << 33, uint64_t{7}}) {
        ASSERT_EQ(nfs_truncate(client.Get(), "/sparse", size), 0) << client.Error();
        ASSERT_EQ(stat((target_ + "/sparse").c_str(), &st), 0);
        EXPECT_EQ(static_cast<uint64_t>(st.st_size), size);
        ASSERT_EQ(nfs_stat64(reader.Get(), "/sparse", &seen), 0) << reader.Error();
        EXPECT_EQ(seen.nfs_size, size);
    }
    EXPECT_TRUE(ReadFile(target_ + "/sparse") == piece.substr(0, 7));
}

OXEL_ALL_MODES(Copy);

}  // namespace
}  // namespace oxel::test
