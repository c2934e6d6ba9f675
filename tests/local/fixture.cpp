// SPDX-License-Identifier: Apache-2.0
//
// The share that the local module's tests work on.
#include "tests/local/fixture.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "backend/ExportCache.h"
#include "backend/FdCache.h"
#include "modules/local/object_cache.h"

namespace oxel::testing {
namespace {

CLuIPAddr Client() {
    CLuIPAddr address;
    EXPECT_TRUE(CLuIPAddr::Parse("192.0.2.7", 800, &address));
    return address;
}

ClientRules RulesFor(const ClientOptions& options) {
    ClientRule everybody;
    everybody.text = "*";
    everybody.options = options;
    return ClientRules({everybody});
}

}  // namespace

void LocalTest::SetUp() {
    char name[] = "/tmp/oxel-local-XXXXXX";
    ASSERT_NE(mkdtemp(name), nullptr);
    directory_ = name;
    ASSERT_EQ(chmod(name, 0755), 0);
    MakeDir(ShareDirectory());
    MakeDir(directory_ + "/outside");
    std::string error;
    ASSERT_TRUE(InitializeHandleKey(directory_ + "/handle.key", &error)) << error;
    gFdCache.Init(100);
    options_.writable = true;
    options_.rootSquash = false;
    options_.secure = false;
    caller_.clientAddress = Client();
    Restart();
}

void LocalTest::TearDown() {
    ForgetEverything();
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
}

void LocalTest::ForgetEverything() {
    RestoreOwnRights();
    gAllExports.Replace({});
    share_.reset();
    module_.reset();
    local::ObjectCache::Instance().Clear();
    gFdCache.Clear();
    KeepPlacesIn(directory_ + "/inodes");  // closes what was open
}

void LocalTest::Restart() {
    ForgetEverything();
    std::string error;
    ASSERT_TRUE(InitializeHandleKey(directory_ + "/handle.key", &error)) << error;
    module_ = MakeLocalModule(kLocalModuleType);
    share_ = MakeShare(ShareDirectory(), kShareId);
    ASSERT_TRUE(share_);
    Publish({share_});
}

void LocalTest::SetOptions(const ClientOptions& options) {
    options_ = options;
    share_ = MakeShare(ShareDirectory(), kShareId);
    ASSERT_TRUE(share_);
    Publish({share_});
}

ExportPtr LocalTest::MakeShare(const std::string& directory, uint32_t id, bool unlisted) {
    ShareConfig config;
    config.path = "/export" + std::to_string(id);
    config.directory = directory;
    config.id = id;
    config.unlisted = unlisted;
    config.clients = RulesFor(options_);
    std::string error;
    ExportPtr share = MakeLocalExport(config, &error);
    EXPECT_TRUE(share) << error;
    return share;
}

void LocalTest::Publish(const std::vector<ExportPtr>& shares) {
    std::vector<std::pair<unsigned int, ExportPtr>> all;
    for (const ExportPtr& share : shares) {
        nfs_fh3 root;
        share->AddMountPoint(caller_.clientAddress, &root);
        all.emplace_back(root.shareId, share);
    }
    gAllExports.Replace(std::move(all));
}

OxelCtxt LocalTest::As(uid_t uid, gid_t gid, const BkEndProcPtr& object) {
    RestoreOwnRights();
    caller_.uid = uid;
    caller_.gid = gid;
    return OxelCtxt(caller_, share_, object);
}

nfs_fh3 LocalTest::HandleOf(const BkEndProcPtr& object) {
    nfs_fh3 handle;
    object->GetFileHandle(&handle);
    return handle;
}

nfs_fh3 LocalTest::RootHandle() {
    nfs_fh3 handle;
    share_->AddMountPoint(caller_.clientAddress, &handle);
    return handle;
}

BkEndProcPtr LocalTest::Resolve(const nfs_fh3& handle) {
    BkEndProcPtr object = module_->GetBkEndProc(share_, handle);
    RestoreOwnRights();
    return object;
}

BkEndProcPtr LocalTest::Find(const std::string& path) {
    BkEndProcPtr at = Root();
    for (size_t begin = 0; at && begin < path.size();) {
        const size_t end = std::min(path.find('/', begin), path.size());
        OxelCtxt ctxt = AsSelf(at);
        at = at->FindChild(&ctxt, path.substr(begin, end - begin));
        begin = end + 1;
    }
    const int reason = errno;
    RestoreOwnRights();
    errno = reason;
    return at;
}

nfs_fh3 LocalTest::HandleAt(const std::string& path) {
    const BkEndProcPtr object = Find(path);
    EXPECT_TRUE(object) << path;
    return object ? HandleOf(object) : nfs_fh3{};
}

void WriteFile(const std::string& path, const std::string& text, mode_t mode) {
    FILE* file = fopen(path.c_str(), "we");
    ASSERT_NE(file, nullptr) << path;
    ASSERT_EQ(fwrite(text.data(), 1, text.size(), file), text.size());
    ASSERT_EQ(fclose(file), 0);
    ASSERT_EQ(chmod(path.c_str(), mode), 0);
}

void MakeDir(const std::string& path, mode_t mode) {
    ASSERT_EQ(mkdir(path.c_str(), 0700), 0) << path;
    ASSERT_EQ(chmod(path.c_str(), mode), 0) << path;
}

void Move(const std::string& from, const std::string& to) {
    ASSERT_EQ(rename(from.c_str(), to.c_str()), 0) << from << " " << to << " errno " << errno;
}

void Remove(const std::string& path) {
    ASSERT_EQ(remove(path.c_str()), 0) << path;
}

struct stat StatOf(const std::string& path) {
    struct stat st = {};
    EXPECT_EQ(lstat(path.c_str(), &st), 0) << path;
    return st;
}

int CountDescriptors() {
    DIR* directory = opendir("/proc/self/fd");
    EXPECT_NE(directory, nullptr);
    int count = 0;
    while (readdir(directory) != nullptr) ++count;
    closedir(directory);
    return count - 3;  // ".", ".." and the listing's own
}

std::string ReadAll(BkEndProc& object, OxelCtxt& ctxt) {
    const int fd = object.Open(&ctxt, object.GetPath(), 0, 0);
    if (fd < 0) return "errno " + std::to_string(errno);
    char text[4096];
    const ssize_t bytes = object.Read(&ctxt, fd, text, 0, sizeof text);
    const int reason = errno;
    object.Close(&ctxt, fd);
    if (bytes < 0) return "errno " + std::to_string(reason);
    return std::string(text, static_cast<size_t>(bytes));
}

void InChild(const std::function<void()>& body) {
    fflush(nullptr);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        body();
        fflush(nullptr);
        _exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
}

}  // namespace oxel::testing
