// SPDX-License-Identifier: Apache-2.0
//
// A client that writes, resizes, reads and commits at random, against a mirror of its files in
// memory, and says so when a byte is another one than was written there last.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <deque>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/private_tree.h"
#include "tests/system/integrity_client.h"

namespace oxel::test {

// A file, or a client's region of one, with what must be in it.
struct MirroredFile {
    std::string name, handle;
    uint64_t begin = 0;
    bool shared = false;
    std::string mirror;
    std::deque<std::string> history;  // the last operations, told when something differs

    void Note(const std::string& what) {
        history.push_back(what);
        if (history.size() > 20) history.pop_front();
    }
    std::string History() const {
        std::string text = name + ", last operations:\n";
        for (const std::string& line : history) text += "  " + line + "\n";
        return text;
    }
};

// The files "shared0", ... of the share must be there, with a region of each for every client.
class IntegrityClient {
  public:
    static constexpr unsigned kClients = 4, kSharedFiles = 2;
    // Of a shared file, one for each client; not aligned.
    static constexpr size_t kRegionBytes = 100003;

    IntegrityClient(uint16_t port, uint64_t seed, unsigned number, std::atomic<uint64_t>* verifier)
        : session_(port), random_(seed + number), number_(number), verifier_(verifier) {}

    // Before any client makes its files.
    static void MakeSharedFiles(uint16_t port) {
        Session session(port);
        const std::string root = session.Client().MountShare("/share");
        for (unsigned i = 0; i < kSharedFiles; ++i) {
            const Made made = MadeResults(
                *session.Call(nfs::kCreate, CreateArguments(root, "shared" + std::to_string(i))));
            ASSERT_EQ(XdrReader(*session.Call(nfs::kSetattr,
                                              SizeArguments(made.handle, kClients * kRegionBytes)))
                          .U32(),
                      0u);
        }
    }

    void MakeFiles() {
        const std::string root = session_.Client().MountShare("/share");
        for (unsigned i = 0; i < kOwnFiles; ++i) {
            MirroredFile file;
            file.name = "own" + std::to_string(number_) + "." + std::to_string(i);
            file.handle =
                MadeResults(*session_.Call(nfs::kCreate, CreateArguments(root, file.name))).handle;
            files_.push_back(file);
        }
        for (unsigned i = 0; i < kSharedFiles; ++i) {
            MirroredFile file;
            file.name = "shared" + std::to_string(i);
            file.handle = session_.Client().Lookup(root, file.name);
            file.shared = true;
            file.begin = number_ * kRegionBytes;
            file.mirror.assign(kRegionBytes, '\0');
            files_.push_back(file);
        }
    }

    void Run(std::chrono::steady_clock::time_point end) {
        do {  // at least once, however busy the machine is
            MirroredFile& file = files_[Below(random_, files_.size())];
            const uint64_t what = Below(random_, 100);
            if (what < 45) {
                Write(&file);
            } else if (what < 80) {
                Read(&file);
            } else if (what < 90) {
                Commit(&file);
            } else {
                Resize(&file);
            }
            ++operations_;
        } while (std::chrono::steady_clock::now() < end && !testing::Test::HasFailure());
    }

    void ExpectEverythingAsWritten(const std::string& directory) {
        for (const MirroredFile& file : files_) {
            std::string found;
            while (found.size() < file.mirror.size() || !file.shared) {
                const Piece piece = ReadResults(*session_.Call(
                    nfs::kRead, ReadArguments(file.handle, file.begin + found.size(),
                                              static_cast<uint32_t>(std::min<size_t>(
                                                  65536, kFileBytesMax + 1 - found.size())))));
                found += piece.data;
                if (piece.status != 0 || piece.data.empty()) break;
            }
            if (file.shared) found.resize(std::min(found.size(), file.mirror.size()));
            EXPECT_EQ(Difference(file.mirror, found), "") << file.History();
            std::string local = ReadFile(directory + "/" + file.name);
            if (file.shared) local = local.substr(file.begin, kRegionBytes);
            EXPECT_EQ(Difference(file.mirror, local), "") << "on the disk: " << file.History();
        }
    }

    uint64_t Operations() const { return operations_; }
    uint64_t Bytes() const { return bytes_; }

  private:
    static constexpr unsigned kOwnFiles = 3;
    static constexpr size_t kFileBytesMax = 1 << 20, kWriteBytesMax = 200000, kBatchMax = 8;

    static std::string Numbers(const char* what, uint64_t a, uint64_t b, uint64_t c) {
        return std::string(what) + " " + std::to_string(a) + " " + std::to_string(b) + " " +
               std::to_string(c);
    }

    // Some writes at once, beside each other, since nothing is said about their order.
    void Write(MirroredFile* file) {
        const size_t room = file->shared ? kRegionBytes : kFileBytesMax;
        std::vector<Session::Request> requests;
        std::vector<uint32_t> stable;
        const size_t count = Below(random_, 2) == 0 ? 1 : 1 + Below(random_, kBatchMax);
        uint64_t at = Below(random_, room);
        for (size_t i = 0; i < count && at < room; ++i) {
            const size_t length = std::min(1 + Below(random_, kWriteBytesMax / count), room - at);
            const std::string data = UniqueBytes(random_, length);
            stable.push_back(static_cast<uint32_t>(Below(random_, 10)));
            if (stable.back() > kFileSync) stable.back() = kUnstable;
            requests.emplace_back(
                nfs::kWrite, WriteArguments(file->handle, file->begin + at, stable.back(), data));
            file->Note(Numbers("WRITE", at, length, stable.back()));
            if (file->mirror.size() < at + length) file->mirror.resize(at + length, '\0');
            file->mirror.replace(at, length, data);
            at += length + Below(random_, 3) * Below(random_, 5000);
        }
        const auto results = session_.Calls(requests);
        for (size_t i = 0; i < results.size(); ++i) {
            ASSERT_TRUE(results[i].has_value()) << file->History();
            const Changed changed = WriteResults(*results[i]);
            ASSERT_EQ(changed.status, 0u) << file->History();
            EXPECT_EQ(changed.committed, stable[i]);
            bytes_ += changed.count;
            SameVerifier(changed.verifier);
        }
    }

    void Read(MirroredFile* file) {
        std::vector<Session::Request> requests;
        std::vector<std::pair<uint64_t, uint32_t>> places;
        for (size_t i = 0, count = 1 + Below(random_, kBatchMax); i < count; ++i) {
            uint64_t at = Below(random_, file->mirror.size() + 100);
            uint64_t length = Below(random_, kWriteBytesMax);
            if (file->shared) {  // beyond it somebody else writes
                at = std::min<uint64_t>(at, kRegionBytes);
                length = std::min(length, kRegionBytes - at);
            }
            places.emplace_back(at, static_cast<uint32_t>(length));
            requests.emplace_back(
                nfs::kRead, ReadArguments(file->handle, file->begin + at, places.back().second));
        }
        const auto results = session_.Calls(requests);
        for (size_t i = 0; i < results.size(); ++i) {
            ASSERT_TRUE(results[i].has_value()) << file->History();
            const Piece piece = ReadResults(*results[i]);
            const auto [at, length] = places[i];
            ASSERT_EQ(piece.status, 0u) << file->History();
            const std::string expected =
                at < file->mirror.size() ? file->mirror.substr(at, length) : "";
            ASSERT_EQ(Difference(expected, piece.data), "")
                << "READ " << at << " " << length << " of " << file->History();
            EXPECT_EQ(piece.eof, piece.data.size() < length);
            bytes_ += piece.data.size();
        }
    }

    void Commit(MirroredFile* file) {
        const auto results = session_.Call(nfs::kCommit, CommitArguments(file->handle));
        ASSERT_TRUE(results.has_value());
        const Changed changed = CommitResults(*results);
        ASSERT_EQ(changed.status, 0u) << file->History();
        SameVerifier(changed.verifier);
        file->Note("COMMIT");
    }

    // Of a shared file only the size is asked for, which no client changes.
    void Resize(MirroredFile* file) {
        if (!file->shared) {
            const uint64_t size = Below(random_, kFileBytesMax);
            const auto results = session_.Call(nfs::kSetattr, SizeArguments(file->handle, size));
            ASSERT_TRUE(results.has_value());
            ASSERT_EQ(XdrReader(*results).U32(), 0u) << file->History();
            file->mirror.resize(size, '\0');
            file->Note(Numbers("SIZE", size, 0, 0));
        }
        const uint64_t size = session_.Client().GetAttributes(file->handle).size;
        EXPECT_EQ(size, file->shared ? kClients * kRegionBytes : file->mirror.size())
            << file->History();
    }

    void SameVerifier(uint64_t verifier) {
        uint64_t known = 0;
        if (!verifier_->compare_exchange_strong(known, verifier)) {
            EXPECT_EQ(known, verifier);
        }
    }

    Session session_;
    Random random_;
    const unsigned number_;
    std::atomic<uint64_t>* const verifier_;
    std::vector<MirroredFile> files_;
    uint64_t operations_ = 0, bytes_ = 0;
};

}  // namespace oxel::test
