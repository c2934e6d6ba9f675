// SPDX-License-Identifier: Apache-2.0
//
// The daemon is killed in the middle of its work, again and again, and started on the same port.
// Clients do what RFC 1813 section 4.8 asks of them: they keep what they have written until it is
// told as stable, and send the rest again. Nothing that was told as done is missing afterwards, and
// nothing is there that nobody wrote.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <map>
#include <mutex>
#include <shared_mutex>
#include <thread>

#include "tests/support/modes.h"
#include "tests/support/private_tree.h"
#include "tests/system/integrity_client.h"
#include "tests/system/local_tree.h"

namespace oxel::test {
namespace {

constexpr unsigned kClients = 4, kFiles = 2;
constexpr size_t kFileBytesMax = 100000, kWriteBytesMax = 30000, kPendingMax = 24;
constexpr uint32_t kNoEntry = 2;

// The server's lives, as the clients and the test that ends them see them.
class Lives {
  public:
    explicit Lives(uint16_t port) : port_(port) {}
    // An operation has been done; the test may wait for so many.
    void Count() {
        std::lock_guard<std::mutex> lock(mutex_);
        ++operations_;
        changed_.notify_all();
    }
    void WaitForOperations(uint64_t more) {
        std::unique_lock<std::mutex> lock(mutex_);
        const uint64_t until = operations_ + more;
        changed_.wait(lock, [&] { return operations_ >= until || testing::Test::HasFailure(); });
    }
    // Ends the server's life and begins the next one. Nobody connects meanwhile.
    bool Renew(Daemon* daemon) {
        std::unique_lock<std::shared_mutex> alone(connecting_);
        daemon->Kill();
        if (!daemon->Start()) return false;
        EXPECT_EQ(daemon->Port(), port_);
        std::lock_guard<std::mutex> lock(mutex_);
        ++life_;
        changed_.notify_all();
        return true;
    }
    // Connects to the server that runs; its life.
    unsigned Connect(Session* session) {
        std::shared_lock<std::shared_mutex> together(connecting_);
        session->Reconnect(port_);
        std::lock_guard<std::mutex> lock(mutex_);
        return life_;
    }
    void End() {
        std::lock_guard<std::mutex> lock(mutex_);
        over_ = true;
        changed_.notify_all();
    }
    bool Over() {
        std::lock_guard<std::mutex> lock(mutex_);
        return over_ || testing::Test::HasFailure();
    }
    // Waits for a life after `life`; false when there will be none.
    bool WaitForNext(unsigned life) {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait(lock, [&] { return life_ > life || over_ || testing::Test::HasFailure(); });
        return life_ > life;
    }
    // One verifier in one life, and each in one life only.
    void SawVerifier(unsigned life, uint64_t verifier) {
        std::lock_guard<std::mutex> lock(mutex_);
        const auto [known, isNew] = lifeOf_.emplace(verifier, life);
        EXPECT_EQ(known->second, life) << "a verifier of another life: " << verifier;
        if (isNew) {
            EXPECT_EQ(verifiers_.count(life), 0u) << "a second verifier in one life";
            verifiers_[life] = verifier;
        }
    }
    uint16_t Port() const { return port_; }

  private:
    const uint16_t port_;
    std::shared_mutex connecting_;  // taken before mutex_
    std::mutex mutex_;
    std::condition_variable changed_;
    uint64_t operations_ = 0;
    unsigned life_ = 1;
    bool over_ = false;
    std::map<uint64_t, unsigned> lifeOf_;
    std::map<unsigned, uint64_t> verifiers_;
};

// What was written since the file was committed last, in order. A stable one stays in the list, so
// that sending it all again ends in the same contents.
struct Pending {
    uint64_t offset;
    std::string data;
    bool stable;
};

struct File {
    std::string name, handle;
    std::string committed;        // what must be there whatever happens
    std::deque<Pending> pending;  // what may be there, and is to be
    int64_t unansweredSize = -1;  // of a SETATTR

    std::string Wanted() const {
        std::string wanted = committed;
        for (const Pending& write : pending) {
            const size_t end = write.offset + write.data.size();
            if (wanted.size() < end) wanted.resize(end, '\0');
            wanted.replace(write.offset, write.data.size(), write.data);
        }
        return wanted;
    }
    void Committed() {
        committed = Wanted();
        pending.clear();
    }
};

class CrashClient {
  public:
    CrashClient(Lives* lives, uint64_t seed, unsigned number)
        : lives_(lives), session_(lives->Port()), random_(seed + number), number_(number) {}

    void MakeFiles() {
        const std::string root = session_.Client().MountShare("/share");
        for (unsigned i = 0; i < kFiles; ++i) {
            File file;
            file.name = "file" + std::to_string(number_) + "." + std::to_string(i);
            file.handle =
                MadeResults(*session_.Call(nfs::kCreate, CreateArguments(root, file.name))).handle;
            files_.push_back(file);
        }
        directoryName_ = "names" + std::to_string(number_);
        directory_ = MadeResults(*session_.Call(nfs::kMkdir, DirectoryName(root, directoryName_) +
                                                                 SetAttributes().Bytes()))
                         .handle;
    }

    void Run() {
        Work();
        lives_->Count();  // whoever waits for operations sees that there may be no more
    }

    // The server runs, and nobody ends it any more.
    void ExpectEverythingAsAnswered(const std::string& share, bool lost) {
        if (lost) {
            EXPECT_TRUE(Recover());
        }
        for (File& file : files_) {
            EXPECT_TRUE(Commit(&file));
            EXPECT_EQ(Difference(file.committed, ReadWhole(file)), "") << file.name;
            EXPECT_EQ(Difference(file.committed, ReadFile(share + "/" + file.name)), "");
        }
        std::vector<std::string> names;
        for (const auto& [name, fileid] : names_) names.push_back(name);
        EXPECT_EQ(LocalNames(share + "/" + directoryName_), names);
    }
    unsigned Life() const { return life_; }
    unsigned Recoveries() const { return recoveries_; }
    uint64_t BytesVerified() const { return bytesVerified_; }
    uint64_t BytesSentAgain() const { return bytesSentAgain_; }

  private:
    void Work() {
        while (!lives_->Over()) {
            const bool answered = Below(random_, 3) == 0 ? ChangeNames() : ChangeFile();
            lives_->Count();
            if (answered) continue;
            do {
                if (!lives_->WaitForNext(life_)) return;
            } while (!Recover());
        }
    }

    // Each answers whether the server did; when it did not, the mirrors say what may have been
    // done.
    bool ChangeFile() {
        File& file = files_[Below(random_, files_.size())];
        const uint64_t what = Below(random_, 10);
        if (file.pending.size() >= kPendingMax || what == 0) return Commit(&file);
        if (what == 1) return Resize(&file, Below(random_, kFileBytesMax));
        if (what == 2) {
            const std::string found = ReadWhole(file, &answered_);
            if (answered_) {
                EXPECT_EQ(Difference(file.Wanted(), found), "") << file.name;
            }
            return answered_;
        }
        const uint64_t at = Below(random_, kFileBytesMax);
        const size_t length =
            std::min<size_t>(1 + Below(random_, kWriteBytesMax), kFileBytesMax - at);
        return Write(&file, at, UniqueBytes(random_, length),
                     what < 8    ? kUnstable
                     : what == 8 ? kDataSync
                                 : kFileSync);
    }

    bool Write(File* file, uint64_t at, const std::string& data, uint32_t stable) {
        file->pending.push_back({at, data, false});
        const auto results =
            session_.Call(nfs::kWrite, WriteArguments(file->handle, at, stable, data));
        if (!results) return false;
        const Changed changed = WriteResults(*results);
        EXPECT_EQ(changed.status, 0u) << file->name;
        EXPECT_EQ(changed.count, data.size());
        EXPECT_GE(changed.committed, stable);
        file->pending.back().stable = changed.committed != kUnstable;
        lives_->SawVerifier(life_, changed.verifier);
        return true;
    }

    bool Commit(File* file) {
        const auto results = session_.Call(nfs::kCommit, CommitArguments(file->handle));
        if (!results) return false;
        const Changed changed = CommitResults(*results);
        EXPECT_EQ(changed.status, 0u) << file->name;
        lives_->SawVerifier(life_, changed.verifier);
        file->Committed();
        return true;
    }

    // As clients do, after all that was written has been committed.
    bool Resize(File* file, uint64_t size) {
        if (!Commit(file)) return false;
        file->unansweredSize = static_cast<int64_t>(size);
        const auto results = session_.Call(nfs::kSetattr, SizeArguments(file->handle, size));
        if (!results) return false;
        EXPECT_EQ(XdrReader(*results).U32(), 0u) << file->name;
        file->unansweredSize = -1;
        file->committed.resize(size, '\0');
        return true;
    }

    std::string ReadWhole(const File& file, bool* answered = nullptr) {
        const auto results =
            session_.Call(nfs::kRead, ReadArguments(file.handle, 0, 2 * kFileBytesMax));
        if (answered != nullptr) *answered = results.has_value();
        if (!results) return "";
        const Piece piece = ReadResults(*results);
        EXPECT_EQ(piece.status, 0u) << file.name;
        EXPECT_TRUE(piece.eof);
        bytesVerified_ += piece.data.size();
        return piece.data;
    }

    // The call that has not been answered is in unanswered_, with the names as they are after it.
    bool ChangeNames() {
        const auto random = [&] { return "n" + std::to_string(Below(random_, 12)); };
        const std::string name = random(), other = random();
        const bool there = names_.count(name) != 0, otherThere = names_.count(other) != 0;
        after_ = names_;
        Session::Results results;
        uint32_t expected = 0;
        switch (Below(random_, 5)) {
            case 0:
            case 1:
                if (!there) after_[name] = 0;
                results = session_.Call(nfs::kCreate, CreateArguments(directory_, name));
                expected = there ? 17 : 0;
                if (results && !there) after_[name] = MadeResults(*results).fileid;
                break;
            case 2:
                after_.erase(name);
                results = session_.Call(nfs::kRemove, DirectoryName(directory_, name));
                break;
            case 3:
                if (there && name != other) {
                    after_[other] = names_[name];
                    after_.erase(name);
                }
                results = session_.Call(nfs::kRename, DirectoryName(directory_, name) +
                                                          DirectoryName(directory_, other));
                // Two names of one file both stay.
                if (there && otherThere && names_[name] == names_[other]) after_ = names_;
                expected = there ? 0 : kNoEntry;
                break;
            default: {
                if (!there) return true;
                const auto found = session_.Call(nfs::kLookup, DirectoryName(directory_, name));
                if (!found) return Unanswered(names_);
                XdrReader reader(*found);
                EXPECT_EQ(reader.U32(), 0u) << name;
                if (!otherThere) after_[other] = names_[name];
                results = session_.Call(nfs::kLink, XdrWriter()
                                                        .Opaque(reader.Opaque())
                                                        .Raw(DirectoryName(directory_, other))
                                                        .Bytes());
                expected = otherThere ? 17 : 0;
            }
        }
        if (!results) return Unanswered(after_);
        EXPECT_EQ(XdrReader(*results).U32(), expected) << name << " " << other;
        names_ = after_;
        return true;
    }
    bool Unanswered(const std::map<std::string, uint64_t>& after) {
        after_ = after;
        namesUnsure_ = true;
        return false;
    }

    // False when the server has been killed again meanwhile; the next recovery goes on from there.
    bool Recover() {
        ++recoveries_;
        life_ = lives_->Connect(&session_);
        for (File& file : files_) {
            if (!RecoverFile(&file)) return false;
        }
        return RecoverNames();
    }

    bool RecoverFile(File* file) {
        bool answered = false;
        const std::string found = ReadWhole(*file, &answered);
        if (!answered) return false;
        if (file->unansweredSize >= 0 && found.size() != file->committed.size()) {
            EXPECT_EQ(found.size(), static_cast<size_t>(file->unansweredSize)) << file->name;
            file->committed.resize(found.size(), '\0');
        }
        file->unansweredSize = -1;
        ExpectNothingLostOrForeign(*file, found);
        // From here on an older write can come to lie over a later stable one, until all are sent.
        for (Pending& write : file->pending) write.stable = false;
        const std::deque<Pending> again = file->pending;
        for (const Pending& write : again) {
            const auto results = session_.Call(
                nfs::kWrite, WriteArguments(file->handle, write.offset, kUnstable, write.data));
            if (!results) return false;
            const Changed changed = WriteResults(*results);
            EXPECT_EQ(changed.status, 0u) << file->name;
            lives_->SawVerifier(life_, changed.verifier);
            bytesSentAgain_ += write.data.size();
        }
        if (!Commit(file)) return false;
        const std::string now = ReadWhole(*file, &answered);
        if (answered) {
            EXPECT_EQ(Difference(file->committed, now), "") << file->name;
        }
        return answered;
    }

    // Every byte is a committed one, or one of a later write, which may have been done or not.
    void ExpectNothingLostOrForeign(const File& file, const std::string& found) {
        const size_t wanted = file.Wanted().size();
        EXPECT_GE(found.size(), file.committed.size()) << file.name;
        EXPECT_LE(found.size(), wanted) << file.name;
        std::string right = file.committed;
        right.resize(std::max(found.size(), wanted), '\0');
        std::vector<bool> matches(found.size());
        for (size_t i = 0; i < found.size(); ++i) matches[i] = found[i] == right[i];
        for (const Pending& write : file.pending) {
            for (size_t i = 0; i < write.data.size() && write.offset + i < found.size(); ++i) {
                const size_t at = write.offset + i;
                const bool same = found[at] == write.data[i];
                matches[at] = same || (matches[at] && !write.stable);
            }
            if (write.stable) {
                EXPECT_GE(found.size(), write.offset + write.data.size()) << file.name;
            }
        }
        const auto wrong = std::find(matches.begin(), matches.end(), false);
        EXPECT_TRUE(wrong == matches.end())
            << file.name << ": byte " << wrong - matches.begin()
            << " is neither what was committed nor what was written later";
    }

    bool RecoverNames() {
        std::map<std::string, uint64_t> found;
        for (uint64_t cookie = 0;;) {
            const auto results = session_.Call(
                nfs::kReaddir, XdrWriter().Opaque(directory_).U64(cookie).U64(0).U32(8192).Bytes());
            if (!results) return false;
            XdrReader reader(*results);
            EXPECT_EQ(reader.U32(), 0u);
            if (reader.Bool()) ReadAttributes(&reader);
            reader.U64();
            while (reader.Bool()) {
                const uint64_t fileid = reader.U64();
                const std::string name = reader.Opaque();
                cookie = reader.U64();
                if (name != "." && name != "..") found[name] = fileid;
            }
            if (reader.Bool()) break;
            if (testing::Test::HasFailure()) return false;
        }
        if (namesUnsure_ && found != names_) {
            // What a CREATE made that was not answered has whatever number.
            for (auto& [name, fileid] : after_) {
                if (fileid == 0) fileid = found[name];
            }
            names_ = after_;
        }
        namesUnsure_ = false;
        EXPECT_EQ(found, names_);
        return true;
    }

    Lives* const lives_;
    Session session_;
    Random random_;
    const unsigned number_;
    unsigned life_ = 1, recoveries_ = 0;
    uint64_t bytesVerified_ = 0, bytesSentAgain_ = 0;
    bool answered_ = true;
    std::vector<File> files_;
    std::string directoryName_, directory_;
    std::map<std::string, uint64_t> names_, after_;
    bool namesUnsure_ = false;
};

class Crash : public testing::TestWithParam<Mode> {};

TEST_P(Crash, WhatWasAnsweredAsDoneSurvivesTheDaemon) {
    PrivateTree tree;
    Daemon daemon(tree);
    const std::string share = tree.MakeDir("share");
    tree.WriteExports("wire", "/share -dir=" + share + ",id=7 *(rw,no_root_squash,insecure)\n");
    const std::string conf = "[Log]\nnLogLevel = 1\n[Oxel]\n" + ModeSettings(GetParam());
    tree.WriteConf("wire", conf + "nNfs3Port = 0\n");
    ASSERT_TRUE(daemon.Start());
    const uint16_t port = daemon.Port();
    tree.WriteConf("wire", conf + "nNfs3Port = " + std::to_string(port) + "\n");
    const uint64_t seed = IntegritySeed();
    Random random(seed);
    Lives lives(port);
    std::deque<CrashClient> clients;
    for (unsigned i = 1; i <= kClients; ++i) {
        clients.emplace_back(&lives, seed, i);
        clients.back().MakeFiles();
    }
    std::vector<std::thread> threads;
    for (CrashClient& client : clients) threads.emplace_back([&client] { client.Run(); });

    const auto end = IntegrityEnd(IsHardened(GetParam()) ? 0.3 : 0.2);
    const char* wanted = getenv("OXEL_CRASH_ROUNDS");
    const unsigned rounds = wanted != nullptr ? static_cast<unsigned>(atoi(wanted)) : 1;
    unsigned kills = 0;
    do {  // once at least, however busy the machine is
        // Now and then at once, while clients still recover.
        lives.WaitForOperations(1 + Below(random, Below(random, 4) == 0 ? 5 : 400));
        if (!lives.Renew(&daemon)) break;
        ++kills;
    } while ((kills < rounds || (wanted == nullptr && std::chrono::steady_clock::now() < end)) &&
             !testing::Test::HasFailure());
    lives.End();
    for (std::thread& thread : threads) thread.join();
    unsigned recoveries = 0;
    uint64_t verified = 0, sentAgain = 0;
    for (CrashClient& client : clients) {
        client.ExpectEverythingAsAnswered(share, client.Life() != kills + 1);
        recoveries += client.Recoveries();
        verified += client.BytesVerified();
        sentAgain += client.BytesSentAgain();
    }
    printf("%u lives, %u recoveries, %llu bytes verified, %llu sent again\n", kills + 1, recoveries,
           static_cast<unsigned long long>(verified), static_cast<unsigned long long>(sentAgain));
    EXPECT_GT(kills, 0u);
    EXPECT_GT(recoveries, 0u);
}

INSTANTIATE_TEST_SUITE_P(Modes, Crash, testing::Values(Mode::kManyThreads, Mode::kHardened),
                         testing::PrintToStringParamName());

}  // namespace
}  // namespace oxel::test
