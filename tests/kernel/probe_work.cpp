// SPDX-License-Identifier: Apache-2.0
//
// Work that goes on while the server comes and goes. Everything that a call has acknowledged must
// be there in the end, and what has been removed must not.
#include <fcntl.h>
#include <sys/stat.h>

#include <filesystem>
#include <set>
#include <string>

#include "tests/kernel/probe.h"
#include "tests/kernel/probe_processes.h"

namespace oxel::test {
namespace {

constexpr unsigned kWorkers = 4;

std::string Content(unsigned worker, unsigned number) {
    std::string content((number * 7919 + worker) % 90000, '\0');
    for (size_t i = 0; i < content.size(); ++i)
        content[i] = static_cast<char>(number * 31 + worker + i % 253);
    return content;
}

class Worker {
  public:
    Worker(const std::string& folder, unsigned index, unsigned repeatsMax)
        : folder_(folder + "/worker" + std::to_string(index)),
          index_(index),
          repeatsMax_(repeatsMax) {}

    void Work(const char* enough) {
        DEMAND(mkdir(folder_.c_str(), 0755) == 0);
        while (access(enough, F_OK) != 0) Step(++number_);
        Compare();
        printf("worker %u: %u files, %zu names, %zu bytes compared, %u repeats\n", index_, number_,
               names_.size(), bytes_, repeats_);
    }

  private:
    std::string Name(const char* kind, unsigned number) const {
        return folder_ + "/" + kind + std::to_string(number);
    }
    // A call that the server may have done before its answer was lost.
    void Done(int result, int ifDoneBefore) {
        if (result != 0 && errno == ifDoneBefore && ++repeats_ <= repeatsMax_) return;
        DEMAND(result == 0);
    }

    void Step(unsigned number) {
        const std::string part = Name("part", number), whole = Name("file", number);
        Write(part, Content(index_, number), number % 2 == 0);
        Done(rename(part.c_str(), whole.c_str()), ENOENT);
        names_.insert("file" + std::to_string(number));
        if (number % 5 == 0) {
            Done(link(whole.c_str(), Name("also", number).c_str()), EEXIST);
            names_.insert("also" + std::to_string(number));
        }
        if (number % 7 == 0) {
            Done(symlink(whole.c_str(), Name("link", number).c_str()), EEXIST);
            names_.insert("link" + std::to_string(number));
        }
        if (number % 3 == 0) {
            DEMAND(unlink(Name("file", number / 3).c_str()) == 0);
            names_.erase("file" + std::to_string(number / 3));
        }
    }
    void Write(const std::string& file, const std::string& content, bool atOnce) {
        const int fd = open(file.c_str(), O_CREAT | O_WRONLY, 0644);
        DEMAND(fd >= 0);
        const size_t half = content.size() / 2;
        DEMAND(write(fd, content.data(), half) == static_cast<ssize_t>(half));
        if (atOnce) DEMAND(fsync(fd) == 0);
        DEMAND(write(fd, content.data() + half, content.size() - half) ==
               static_cast<ssize_t>(content.size() - half));
        DEMAND(close(fd) == 0);
    }

    void Compare() {
        std::set<std::string> found;
        for (const auto& entry : std::filesystem::directory_iterator(folder_)) {
            const std::string name = entry.path().filename();
            // What the client keeps for a file that is removed while it is open has a dot.
            if (name[0] != '.') DEMAND(found.insert(name).second);
        }
        DEMAND(found == names_);
        for (const std::string& name : names_) {
            const unsigned number = static_cast<unsigned>(std::stoul(name.substr(4)));
            // The link leads to a file that may have been removed since.
            if (name.rfind("link", 0) == 0 && names_.count("file" + std::to_string(number)) == 0)
                continue;
            CompareFile(folder_ + "/" + name, Content(index_, number));
        }
    }
    void CompareFile(const std::string& file, const std::string& wanted) {
        const int fd = open(file.c_str(), O_RDONLY);
        DEMAND(fd >= 0 && posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED) == 0);
        std::string got(wanted.size() + 1, '\0');
        const ssize_t count = read(fd, got.data(), got.size());
        DEMAND(count == static_cast<ssize_t>(wanted.size()));
        DEMAND(memcmp(got.data(), wanted.data(), wanted.size()) == 0);
        DEMAND(close(fd) == 0);
        bytes_ += wanted.size();
    }

    const std::string folder_;
    const unsigned index_, repeatsMax_;
    std::set<std::string> names_;  // that must be there
    unsigned number_ = 0, repeats_ = 0;
    size_t bytes_ = 0;
};

}  // namespace

void WorkUntil(const char* folder, const char* enough, unsigned repeats) {
    for (const int result : InProcesses(kWorkers, [&](unsigned index) {
             Worker(folder, index, repeats).Work(enough);
             return 0;
         }))
        DEMAND(result == 0);
}

}  // namespace oxel::test
