// SPDX-License-Identifier: Apache-2.0
//
// Starting the daemon and the kernel, and mounting the shares.
#include "tests/kernel/kernel_fixture.h"

#include <sys/mount.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

namespace oxel::test {

struct KernelTest::Stage {
    PrivateTree tree;
    std::unique_ptr<Daemon> server;
    std::unique_ptr<KernelClient> client;

    Stage() {
        const std::string memory = tree.MakeDir("memory");
        EXPECT_EQ(mount("tmpfs", memory.c_str(), "tmpfs", 0, "size=6g,mode=755"), 0)
            << strerror(errno);
        const std::string disk = tree.MakeDir("disk"), client = std::string(" ") + kGuestAddress;
        tree.WriteConf("wire", "[Oxel]\nnNfs3Port = 2049\n[Log]\nnLogLevel = 1\n");
        tree.WriteExports("wire", "/memory -dir=" + memory + ",id=1" + client +
                                      "(rw,no_root_squash)\n"
                                      "/disk -dir=" +
                                      disk + ",id=2" + client +
                                      "(rw,no_root_squash)\n"
                                      "/squashed -dir=" +
                                      disk + ",id=3" + client +
                                      "(rw)\n"
                                      "/readonly -dir=" +
                                      disk + ",id=4" + client +
                                      "(ro)\n"
                                      "/read_by_us -dir=" +
                                      disk + ",id=5" + client + "(ro) 127.0.0.1(rw)\n");
    }
    ~Stage() {
        client.reset();
        server.reset();
        EXPECT_EQ(umount(tree.Path("memory").c_str()), 0) << strerror(errno);
    }

    void Start() {
        server = std::make_unique<Daemon>(tree);
        if (!server->Start()) return;
        const std::string tools = std::filesystem::canonical("/proc/self/exe").parent_path();
        client = std::make_unique<KernelClient>(
            tree.Root(), std::vector<KernelClient::Variable>{{"OXEL_TOOLS", tools}});
        if (client->Boot()) {
            Succeeds(
                "for share in memory disk squashed readonly; do mount_share $share /mnt/$share; "
                "done\n");
        } else {
            client.reset();
        }
    }
};

std::unique_ptr<KernelTest::Stage> KernelTest::stage_;
std::string KernelTest::forbidden_;

void KernelTest::SetUpTestSuite() {
    forbidden_ = EnterKernelNetwork();
    if (!forbidden_.empty()) return;
    stage_ = std::make_unique<Stage>();
    stage_->Start();
}

void KernelTest::TearDownTestSuite() {
    stage_.reset();
}

void KernelTest::SetUp() {
    if (!forbidden_.empty())
        GTEST_SKIP() << "a kernel as a client needs namespaces and /dev/net/tun: " << forbidden_;
    ASSERT_TRUE(stage_ && stage_->client) << "there is no kernel";
}

void KernelTest::Succeeds(const KernelClient::Outcome& outcome) {
    EXPECT_EQ(outcome.exitCode, 0) << outcome.output;
}
void KernelTest::Succeeds(const std::string& script, unsigned secondsMax) {
    Succeeds(Client().Run(kLibrary + script, secondsMax));
}

PrivateTree& KernelTest::Tree() {
    return stage_->tree;
}
Daemon& KernelTest::Server() {
    return *stage_->server;
}
KernelClient& KernelTest::Client() {
    return *stage_->client;
}

}  // namespace oxel::test
