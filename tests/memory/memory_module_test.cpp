// SPDX-License-Identifier: Apache-2.0
//
// What a module owes the daemon and its clients, held by the example module: handles, rights,
// reloads, listings that go on.
#include <set>

#include "tests/memory/memory_fixture.h"

namespace oxel::test {
namespace {

constexpr uint32_t kOk = 0, kPerm = 1, kAccess = 13, kExist = 17, kCrossDevice = 18, kReadOnly = 30,
                   kStale = 70;

class MemoryModule : public MemoryTest {
  protected:
    // CREATE (GUARDED); the new file's handle, or "" with the status in *status.
    static std::string Create(NfsClient& client, const std::string& directory,
                              const std::string& name, uint32_t* status = nullptr) {
        SetAttributes wish;
        wish.mode = 0644;
        const uint32_t answer = client.Status(client.Nfs(
            nfs::kCreate,
            XdrWriter().Raw(DirectoryName(directory, name)).U32(1).Raw(wish.Bytes()).Bytes()));
        if (status != nullptr) *status = answer;
        return answer == kOk ? client.Lookup(directory, name) : "";
    }
    static uint32_t Write(NfsClient& client, const std::string& file, const std::string& data) {
        return client.Status(client.Nfs(nfs::kWrite, WriteArguments(file, 0, 2, data)));
    }
    static uint32_t Remove(NfsClient& client, const std::string& directory,
                           const std::string& name) {
        return client.Status(client.Nfs(nfs::kRemove, DirectoryName(directory, name)));
    }
    static uint32_t Rename(NfsClient& client, const std::string& from, const std::string& to) {
        return client.Status(client.Nfs(nfs::kRename, from + to));
    }
};

TEST_P(MemoryModule, AHandleOfAnEarlierLifeNamesNothing) {
    std::string root, file;
    {
        NfsClient client(daemon_.Port());
        root = client.MountShare("/scratch");
        file = Create(client, root, "file");
        ASSERT_NE(file, "");
    }
    ASSERT_EQ(daemon_.Stop(), 0);
    ASSERT_TRUE(daemon_.Start());
    NfsClient client(daemon_.Port());
    const std::string rootNow = client.MountShare("/scratch");
    const std::string fileNow = Create(client, rootNow, "file");
    ASSERT_NE(fileNow, "");
    EXPECT_NE(file, fileNow);
    for (const std::string& old : {root, file}) {
        uint32_t status = 0;
        client.GetAttributes(old, &status);
        EXPECT_EQ(status, kStale);
    }
}

TEST_P(MemoryModule, TheHandleOfARemovedFileIsStaleAndItsNumberIsNotUsedAgain) {
    NfsClient client(daemon_.Port());
    const std::string root = client.MountShare("/scratch");
    const std::string file = Create(client, root, "file");
    ASSERT_EQ(Remove(client, root, "file"), kOk);
    const std::string second = Create(client, root, "file");
    EXPECT_NE(second, file);
    uint32_t status = 0;
    client.GetAttributes(file, &status);
    EXPECT_EQ(status, kStale);
}

TEST_P(MemoryModule, AReloadThatChangesTheClientsKeepsFilesAndHandles) {
    NfsClient client(daemon_.Port());
    const std::string root = client.MountShare("/scratch");
    const std::string file = Create(client, root, "file");
    ASSERT_EQ(Write(client, file, "before"), kOk);
    WriteShares("*(ro,insecure)");
    std::string said;
    ASSERT_EQ(daemon_.Control({"reload"}, &said), 0) << said;
    EXPECT_NE(said.find("changed  /scratch  1   clients"), std::string::npos) << said;
    EXPECT_EQ(client.Read(file, 0, 100), "before");
    EXPECT_EQ(Write(client, file, "after!"), kAccess);  // read-only to everybody
    WriteShares("127.0.0.1(ro,insecure) 10.0.0.0/8(rw,insecure)");
    ASSERT_EQ(daemon_.Control({"reload"}, &said), 0) << said;
    EXPECT_EQ(Write(client, file, "after!"), kReadOnly);  // to this client
    EXPECT_EQ(client.Read(file, 0, 100), "before");
}

TEST_P(MemoryModule, SharesKnowNothingOfEachOther) {
    NfsClient client(daemon_.Port());
    const std::string first = client.MountShare("/scratch"), second = client.MountShare("/second");
    const std::string disk = client.MountShare("/disk");
    const std::string file = Create(client, first, "file");
    ASSERT_NE(file, "");
    EXPECT_EQ(client.ReadDirectory(second, 0, 8192).entries.size(), 2u);
    EXPECT_EQ(Rename(client, DirectoryName(first, "file"), DirectoryName(second, "file")),
              kCrossDevice);
    EXPECT_EQ(Rename(client, DirectoryName(first, "file"), DirectoryName(disk, "file")),
              kCrossDevice);
    // A handle's share id exchanged for another share's: it is no handle of that one.
    std::string forged = file;
    forged[7] = 2;
    uint32_t status = 0;
    client.GetAttributes(forged, &status);
    EXPECT_EQ(status, kStale);
}

TEST_P(MemoryModule, RightsAreTheCallers) {
    NfsClient root(daemon_.Port()), user(daemon_.Port(), 1000, 1000),
        other(daemon_.Port(), 1001, 1001);
    const std::string top = root.MountShare("/scratch");
    uint32_t status = 0;
    Create(user, top, "file", &status);
    EXPECT_EQ(status, kAccess);  // the top belongs to root
    SetAttributes open;
    open.mode = 01777;
    ASSERT_EQ(root.Status(root.Nfs(nfs::kSetattr,
                                   XdrWriter().Opaque(top).Raw(open.Bytes()).Bool(false).Bytes())),
              kOk);
    const std::string file = Create(user, top, "file", &status);
    ASSERT_EQ(status, kOk);
    EXPECT_EQ(user.GetAttributes(file).uid, 1000u);
    EXPECT_EQ(Write(user, file, "mine"), kOk);
    EXPECT_EQ(Write(other, file, "ours"), kAccess);
    EXPECT_EQ(other.Read(file, 0, 10), "mine");    // mode 644
    EXPECT_EQ(Remove(other, top, "file"), kPerm);  // the directory is sticky
    EXPECT_EQ(Remove(user, top, "file"), kOk);
}

TEST_P(MemoryModule, AListingGoesOnBehindWhatWasRemovedMeanwhile) {
    NfsClient client(daemon_.Port());
    const std::string root = client.MountShare("/scratch");
    for (int i = 0; i < 40; ++i) ASSERT_NE(Create(client, root, "file" + std::to_string(i)), "");
    uint32_t status = 0;
    Create(client, root, "file7", &status);
    EXPECT_EQ(status, kExist);
    std::set<std::string> seen;
    uint64_t cookie = 0;
    for (bool eof = false; !eof;) {
        const DirectoryPage page = client.ReadDirectory(root, cookie, 2156 + 200);
        ASSERT_EQ(page.status, kOk);
        for (const DirectoryEntry& entry : page.entries) {
            EXPECT_TRUE(seen.insert(entry.name).second) << entry.name;
            cookie = entry.cookie;
        }
        // The entry at which the page ended is the next one's place to begin.
        if (!page.entries.empty() && page.entries.back().name.starts_with("file")) {
            ASSERT_EQ(Remove(client, root, page.entries.back().name), kOk);
        }
        eof = page.eof;
    }
    EXPECT_EQ(seen.size(), 42u);
}

TEST_P(MemoryModule, ALineThatTheModuleCannotServeSaysWhy) {
    tree_.WriteExports("wire", "/scratch -module=memory,unlisted *(rw)\n");
    std::string said;
    EXPECT_EQ(daemon_.Control({"reload"}, &said), 1);
    EXPECT_NE(said.find("wire.exports:1: shares in memory cannot be unlisted"), std::string::npos)
        << said;
    tree_.WriteExports("wire", "/scratch -module=memry *(rw)\n");
    EXPECT_EQ(daemon_.Control({"reload"}, &said), 1);
    EXPECT_NE(said.find("unknown module 'memry'; did you mean 'memory'?"), std::string::npos)
        << said;
}

OXEL_ALL_MODES(MemoryModule);

}  // namespace
}  // namespace oxel::test
