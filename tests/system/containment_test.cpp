// SPDX-License-Identifier: Apache-2.0
//
// Another process swaps a directory of the share for symbolic links that lead out of it, in a tight
// loop, while clients work below that directory with every procedure, through handles and through
// names. Nothing outside is read, listed or changed.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <deque>
#include <filesystem>
#include <iterator>
#include <new>
#include <thread>

#include "tests/support/outside_watch.h"
#include "tests/support/private_tree.h"
#include "tests/system/integrity_client.h"

namespace oxel::test {
namespace {

constexpr unsigned kClients = 3;
constexpr int kRoundsMax = 250;
// These succeed now and then, or the test has tried nothing.
constexpr uint32_t kTried[] = {nfs::kRead,   nfs::kWrite,  nfs::kCreate,      nfs::kLink,
                               nfs::kRename, nfs::kRemove, nfs::kReaddirplus, nfs::kSetattr};

// Calls that succeeded, by procedure.
struct Done {
    std::atomic<uint64_t> calls[22] = {};
    bool AllTried() const {
        return std::all_of(std::begin(kTried), std::end(kTried),
                           [this](uint32_t procedure) { return calls[procedure] != 0; });
    }
};
// What clients make begins with this.
const std::string kNew = "oxel-new-name-";

// A process that exchanges `directory` with each of `links` in turn for as long as it lives. That
// it is a process of its own leaves the test's threads their time.
class Swapper {
  public:
    Swapper(const std::string& directory, const std::vector<std::string>& links) {
        void* shared = mmap(nullptr, sizeof(std::atomic<uint64_t>), PROT_READ | PROT_WRITE,
                            MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        EXPECT_NE(shared, MAP_FAILED);
        swaps_ = new (shared) std::atomic<uint64_t>(0);
        const pid_t parent = getpid();
        pid_ = fork();
        EXPECT_GE(pid_, 0);
        if (pid_ != 0) return;
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        while (getppid() == parent) {
            for (const std::string& link : links) {
                for (int twice = 0; twice < 2; ++twice) {
                    if (syscall(SYS_renameat2, AT_FDCWD, directory.c_str(), AT_FDCWD, link.c_str(),
                                RENAME_EXCHANGE) == 0)
                        ++*swaps_;
                }
            }
        }
        _exit(0);
    }
    ~Swapper() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        munmap(swaps_, sizeof *swaps_);
    }
    Swapper(const Swapper&) = delete;
    Swapper& operator=(const Swapper&) = delete;
    uint64_t Swaps() const { return *swaps_; }

  private:
    std::atomic<uint64_t>* swaps_;
    pid_t pid_ = -1;
};

// Works below the share's "d", whatever that is at the moment.
class Visitor {
  public:
    Visitor(uint16_t port, uint64_t seed, const OutsideWatch* outside, Done* done)
        : session_(port), random_(seed), outside_(outside), done_(done) {
        root_ = session_.Client().MountShare("/share");
        d_ = session_.Client().Lookup(root_, "d");
        sub_ = session_.Client().Lookup(d_, "sub");
        file_ = session_.Client().Lookup(d_, "f");
    }

    void Work() {
        // A busy disk makes few rounds of it.
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(6);
        for (int i = 0; i < kRoundsMax && !testing::Test::HasFailure(); ++i) {
            if (std::chrono::steady_clock::now() > end && done_->AllTried()) break;
            // The handle from before, or what the name gives now: the directory, or the link.
            const std::string d = Below(random_, 2) == 0 ? d_ : Find(root_, "d", d_);
            const std::string sub = Below(random_, 2) == 0 ? sub_ : Find(d, "sub", sub_);
            const std::string file = Below(random_, 2) == 0 ? file_ : Find(d, "f", file_);
            Read(d, file);
            Change(d, sub, file);
        }
    }

  private:
    std::string Ask(uint32_t procedure, const std::string& arguments) {
        const Session::Results results = session_.Call(procedure, arguments);
        EXPECT_TRUE(results.has_value()) << procedure;
        if (!results) return XdrWriter().U32(1).Bytes();
        outside_->ExpectHidden(*results);
        if (XdrReader(*results).U32() == 0) ++done_->calls[procedure];
        return *results;
    }
    std::string Find(const std::string& directory, const std::string& name,
                     const std::string& otherwise) {
        XdrReader reader(Ask(nfs::kLookup, DirectoryName(directory, name)));
        return reader.U32() == 0 ? reader.Opaque() : otherwise;
    }
    static std::string Handle(const std::string& handle) {
        return XdrWriter().Opaque(handle).Bytes();
    }
    std::string Name() { return kNew + std::to_string(Below(random_, 3)); }

    void Read(const std::string& d, const std::string& file) {
        Ask(nfs::kGetattr, Handle(d));
        Ask(nfs::kReadlink, Handle(d));
        Ask(nfs::kAccess, XdrWriter().Opaque(d).U32(0x3f).Bytes());
        Ask(nfs::kRead, ReadArguments(file, 0, 4096));
        Ask(nfs::kReaddir, XdrWriter().Opaque(d).U64(0).U64(0).U32(4096).Bytes());
        Ask(nfs::kReaddirplus, XdrWriter().Opaque(d).U64(0).U64(0).U32(4096).U32(16384).Bytes());
        Ask(nfs::kLookup, DirectoryName(d, ".."));
        Ask(nfs::kLookup, DirectoryName(d, "what-lies-outside"));
    }

    void Change(const std::string& d, const std::string& sub, const std::string& file) {
        const std::string name = Name();
        SetAttributes attributes;
        attributes.mode = 0600;
        switch (Below(random_, 9)) {
            case 0: {
                const Made made = MadeResults(Ask(nfs::kCreate, CreateArguments(d, name)));
                if (made.status == 0) {
                    Ask(nfs::kWrite, WriteArguments(made.handle, 0, kUnstable, "written"));
                    Ask(nfs::kCommit, CommitArguments(made.handle));
                }
                break;
            }
            case 1:
                Ask(nfs::kWrite, WriteArguments(file, Below(random_, 100), kUnstable, "written"));
                break;
            case 2:
                Ask(nfs::kSetattr,
                    XdrWriter().Opaque(file).Raw(attributes.Bytes()).Bool(false).Bytes());
                Ask(nfs::kSetattr, SizeArguments(file, 3));
                break;
            case 3:
                Ask(nfs::kMkdir, DirectoryName(d, name + "d") + attributes.Bytes());
                Ask(nfs::kRmdir, DirectoryName(d, name + "d"));
                break;
            case 4:
                Ask(nfs::kSymlink,
                    DirectoryName(d, name + "l") +
                        XdrWriter().Raw(SetAttributes().Bytes()).Opaque("target").Bytes());
                Ask(nfs::kRemove, DirectoryName(d, name + "l"));
                break;
            case 5:
                Ask(nfs::kRename, DirectoryName(d, name) + DirectoryName(sub, name));
                Ask(nfs::kRename, DirectoryName(sub, name) + DirectoryName(d, name));
                break;
            case 6:
                Ask(nfs::kLink, XdrWriter().Opaque(file).Raw(DirectoryName(d, name)).Bytes());
                break;
            case 7:
                Ask(nfs::kRemove, DirectoryName(d, name));
                break;
            default:
                Ask(nfs::kRename, DirectoryName(d, "sub") + DirectoryName(d, "sub2"));
                Ask(nfs::kRename, DirectoryName(d, "sub2") + DirectoryName(d, "sub"));
        }
    }

    Session session_;
    Random random_;
    const OutsideWatch* const outside_;
    Done* const done_;
    std::string root_, d_, sub_, file_;
};

TEST(Containment, SwappedDirectoriesLeadNowhere) {
    PrivateTree tree;
    const OutsideWatch outside(tree.Path("outside"));
    const std::string share = tree.MakeDir("share");
    tree.MakeDir("share/d/sub");
    tree.Write("share/d/f", "inside");
    tree.Write("share/d/sub/f", "inside");
    ASSERT_EQ(symlink((outside.Directory() + "/d").c_str(), (share + "/beside").c_str()), 0);
    ASSERT_EQ(symlink("/", (share + "/top").c_str()), 0);
    tree.WriteConf("wire", "[Log]\nnLogLevel = 0\n[Oxel]\nnNfs3Port = 0\n");
    tree.WriteExports("wire", "/share -dir=" + share + ",id=7 *(rw,no_root_squash,insecure)\n");
    Daemon daemon(tree);
    ASSERT_TRUE(daemon.Start());
    const uint64_t seed = IntegritySeed();
    Done done;
    std::deque<Visitor> visitors;
    for (unsigned i = 0; i < kClients; ++i)
        visitors.emplace_back(daemon.Port(), seed + i, &outside, &done);
    {
        const Swapper swapper(share + "/d", {share + "/beside", share + "/top"});
        std::vector<std::thread> threads;
        for (Visitor& visitor : visitors) threads.emplace_back([&visitor] { visitor.Work(); });
        for (std::thread& thread : threads) thread.join();
        EXPECT_GT(swapper.Swaps(), 0u);
    }
    outside.ExpectUntouched();
    for (const auto& entry : std::filesystem::directory_iterator("/"))
        EXPECT_EQ(entry.path().filename().string().find(kNew), std::string::npos) << entry.path();
    for (const uint32_t procedure : kTried)
        EXPECT_GT(done.calls[procedure], 0u) << "procedure " << procedure;
}

}  // namespace
}  // namespace oxel::test
