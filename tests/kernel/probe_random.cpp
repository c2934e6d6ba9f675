// SPDX-License-Identifier: Apache-2.0
//
// Random reading and writing of one file, every byte of it known.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <random>
#include <string>

#include "tests/kernel/probe.h"

namespace oxel::test {
namespace {

constexpr size_t kBytesMax = 3u << 20, kPageBytes = 4096;

class RandomFile {
  public:
    RandomFile(const char* name, unsigned seed) : name_(name), random_(seed) {
        Open(O_CREAT | O_TRUNC);
    }
    ~RandomFile() { close(fd_); }

    void Step() {
        switch (random_() % 10) {
            case 0:
            case 1:
            case 2:
                return Write();
            case 3:
                return WriteMapped();
            case 4:
                return Truncate();
            case 5:
                return ReadMapped();
            case 6:
                return Reopen();
            default:
                return Read();
        }
    }
    void CompareAll() {
        struct stat about;
        DEMAND(fstat(fd_, &about) == 0 && static_cast<size_t>(about.st_size) == wanted_.size());
        Compare(0, wanted_.size());
    }

  private:
    void Open(int flags) {
        fd_ = open(name_, O_RDWR | flags, 0644);
        DEMAND(fd_ >= 0);
    }
    size_t Below(size_t limit) { return limit == 0 ? 0 : random_() % limit; }
    size_t Bytes() { return 1 + Below(random_() % 4 == 0 ? 600000 : 9000); }
    std::string Content(size_t bytes) {
        std::string content(bytes, '\0');
        const auto mark = static_cast<unsigned char>(random_());
        for (size_t i = 0; i < bytes; ++i) content[i] = static_cast<char>(mark + i % 251);
        return content;
    }
    void Grow(size_t bytes) {
        if (wanted_.size() < bytes) wanted_.resize(bytes, '\0');
    }

    void Write() {
        const size_t at = Below(kBytesMax), bytes = std::min(Bytes(), kBytesMax - at);
        const std::string content = Content(bytes);
        DEMAND(pwrite(fd_, content.data(), bytes, static_cast<off_t>(at)) ==
               static_cast<ssize_t>(bytes));
        Grow(at + bytes);
        wanted_.replace(at, bytes, content);
        if (random_() % 8 == 0) DEMAND(fsync(fd_) == 0);
    }
    void Compare(size_t at, size_t bytes) {
        std::string got(bytes, '?');
        const ssize_t count = pread(fd_, got.data(), bytes, static_cast<off_t>(at));
        DEMAND(count == static_cast<ssize_t>(std::min(bytes, wanted_.size() - at)));
        DEMAND(memcmp(got.data(), wanted_.data() + at, static_cast<size_t>(count)) == 0);
    }
    void Read() { Compare(Below(wanted_.size() + 1), Bytes()); }
    void Truncate() {
        const size_t bytes = Below(kBytesMax);
        DEMAND(ftruncate(fd_, static_cast<off_t>(bytes)) == 0);
        wanted_.resize(bytes, '\0');
    }
    // A part of the file that starts at a page.
    char* Map(size_t page, size_t bytes, int protection) {
        void* memory = mmap(nullptr, bytes, protection, MAP_SHARED, fd_,
                            static_cast<off_t>(page * kPageBytes));
        DEMAND(memory != MAP_FAILED);
        return static_cast<char*>(memory);
    }
    void WriteMapped() {
        if (wanted_.empty()) return;
        const size_t page = Below(wanted_.size()) / kPageBytes;
        const size_t bytes = std::min(Bytes(), wanted_.size() - page * kPageBytes);
        const std::string content = Content(bytes);
        char* memory = Map(page, bytes, PROT_READ | PROT_WRITE);
        memcpy(memory, content.data(), bytes);
        if (random_() % 2 == 0) DEMAND(msync(memory, bytes, MS_SYNC) == 0);
        DEMAND(munmap(memory, bytes) == 0);
        wanted_.replace(page * kPageBytes, bytes, content);
    }
    void ReadMapped() {
        if (wanted_.empty()) return;
        const size_t page = Below(wanted_.size()) / kPageBytes;
        const size_t bytes = std::min(Bytes(), wanted_.size() - page * kPageBytes);
        char* memory = Map(page, bytes, PROT_READ);
        DEMAND(memcmp(memory, wanted_.data() + page * kPageBytes, bytes) == 0);
        DEMAND(munmap(memory, bytes) == 0);
    }
    void Reopen() {
        DEMAND(close(fd_) == 0);  // what was written is at the server, or this says why not
        Open(0);
    }

    const char* const name_;
    std::mt19937 random_;
    int fd_ = -1;
    std::string wanted_;
};

}  // namespace

void RandomIo(const char* file, unsigned seed, unsigned operations) {
    RandomFile random(file, seed);
    for (unsigned i = 0; i < operations; ++i) random.Step();
    random.CompareAll();
}

}  // namespace oxel::test
