// SPDX-License-Identifier: Apache-2.0
//
// Many threads on one tree that is being turned over: a handle leads to its own object or to none.
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <thread>

#include "backend/FdCache.h"
#include "modules/local/object.h"
#include "modules/local/object_cache.h"
#include "tests/local/fixture.h"

namespace oxel::testing {
namespace {

class Storm : public LocalTest {
  protected:
    static constexpr int kFiles = 12;
    void SetUp() override {
        LocalTest::SetUp();
        gFdCache.Init(4);
        local::gPathBelievedMs = 0;
        for (const char* name : {"a", "b", "c"}) MakeDir(InShare(name));
    }
    void TearDown() override {
        local::gPathBelievedMs = 1000;
        LocalTest::TearDown();
    }
    static std::string Text(int i) { return "this is file " + std::to_string(i); }

    // Reads file `i` by its handle, as READ does.
    enum class Outcome { kRight, kStale, kWrong };
    Outcome ReadByHandle(const IdInfo& id, const nfs_fh3& handle, const std::string& expected) {
        ExportPtr share = share_;
        const BkEndProcPtr object = module_->GetBkEndProc(share, handle);
        if (!object) return Outcome::kStale;
        OxelCtxt ctxt(id, share, object);
        struct stat st;
        if (object->Stat(&ctxt, object->GetPath(), &st) != 0) return Outcome::kWrong;
        return ReadAll(*object, ctxt) == expected ? Outcome::kRight : Outcome::kWrong;
    }
    IdInfo Reader() {
        IdInfo id;
        id.clientAddress = Caller().clientAddress;
        id.uid = geteuid();
        id.gid = getegid();
        return id;
    }
};

TEST_F(Storm, FilesThatAreMovedAboutAreAlwaysFoundByTheirHandles) {
    std::vector<nfs_fh3> handles;
    for (int i = 0; i < kFiles; ++i) {
        WriteFile(InShare("a/" + std::to_string(i)), Text(i));
        handles.push_back(HandleAt("a/" + std::to_string(i)));
    }
    if (handles[0].objectId[1] != static_cast<unsigned char>(local::HandleKind::kKernel)) {
        GTEST_SKIP() << "inode numbers cannot follow what other processes rename meanwhile";
    }
    std::atomic<bool> done{false};
    std::atomic<int> wrong{0}, stale{0}, right{0};
    const auto read = [&](int first) {
        const IdInfo id = Reader();
        for (int i = first; !done || i < first + 200; ++i) {
            switch (ReadByHandle(id, handles[static_cast<size_t>(i % kFiles)], Text(i % kFiles))) {
                case Outcome::kRight:
                    ++right;
                    break;
                case Outcome::kStale:
                    ++stale;
                    break;
                case Outcome::kWrong:
                    ++wrong;
                    break;
            }
            if (i % 7 == 0) local::ObjectCache::Instance().DropHalf();
        }
    };
    std::thread first(read, 0), second(read, 5);
    for (int round = 0; round < 150; ++round) {
        const std::string name = "/" + std::to_string(round % kFiles);
        if (rename(InShare("a" + name).c_str(), InShare("b" + name).c_str()) != 0) {
            Move(InShare("b" + name), InShare("a" + name));
        }
        if (round % 10 == 0) {
            Move(InShare("a"), InShare("c/a"));
            Move(InShare("c/a"), InShare("a"));
        }
    }
    done = true;
    first.join();
    second.join();
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(stale, 0);
}

TEST_F(Storm, HandlesOfRemovedFilesNeverLeadToWhatTookTheirPlace) {
    std::atomic<bool> done{false};
    std::atomic<int> wrong{0}, tried{0};
    constexpr int kRounds = 150;
    std::vector<nfs_fh3> handles(kRounds);
    std::atomic<int> made{0};
    const auto read = [&] {
        const IdInfo id = Reader();
        for (int i = 0; !done || tried < 200; ++i) {
            const int last = made;
            if (last == 0) continue;
            const int which = last - 1 - i % std::min(last, 4);
            if (ReadByHandle(id, handles[static_cast<size_t>(which)], Text(which)) ==
                Outcome::kWrong) {
                ++wrong;
            }
            ++tried;
        }
    };
    std::thread first(read), second(read);
    for (int round = 0; round < kRounds; ++round) {
        // One name for all, and inode numbers that the file system uses again.
        WriteFile(InShare("b/new"), Text(round));
        Move(InShare("b/new"), InShare("a/file"));
        handles[static_cast<size_t>(round)] = HandleAt("a/file");
        ++made;
    }
    done = true;
    first.join();
    second.join();
    EXPECT_EQ(wrong, 0);
}

}  // namespace
}  // namespace oxel::testing
