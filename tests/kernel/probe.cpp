// SPDX-License-Identifier: Apache-2.0
//
// oxel_probe: system calls in the mounted share that no program of a command line makes for one.
// Ends with 0 when what it looked for holds, otherwise with a line that says what does not.
#include "tests/kernel/probe.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "tests/kernel/probe_processes.h"

namespace oxel::test {
namespace {

// Of many that make the same file exclusively one succeeds.
void Exclusive(const char* file) {
    for (int round = 0; round < 20; ++round) {
        unsigned made = 0;
        for (const int result : InProcesses(8, [&](unsigned) {
                 const int fd = open(file, O_CREAT | O_EXCL | O_WRONLY, 0640);
                 return fd >= 0 ? 0 : errno;
             })) {
            DEMAND(result == 0 || result == EEXIST);
            made += result == 0;
        }
        DEMAND(made == 1);
        struct stat about;
        DEMAND(stat(file, &about) == 0 && (about.st_mode & 07777) == 0640 && about.st_size == 0);
        DEMAND(unlink(file) == 0);
    }
}

// Lines that several processes append stay whole, and none is lost.
void Append(const char* file) {
    constexpr unsigned kWriters = 6, kLines = 300;
    for (const int result : InProcesses(kWriters, [&](unsigned writer) {
             const int fd = open(file, O_CREAT | O_APPEND | O_WRONLY, 0644);
             DEMAND(fd >= 0);
             for (unsigned i = 0; i < kLines; ++i) {
                 const std::string line = std::to_string(writer) + " " + std::to_string(i) + " " +
                                          std::string(i, 'x') + "\n";
                 DEMAND(write(fd, line.data(), line.size()) == static_cast<ssize_t>(line.size()));
             }
             DEMAND(close(fd) == 0);
             return 0;
         }))
        DEMAND(result == 0);
    FILE* in = fopen(file, "r");
    DEMAND(in != nullptr);
    unsigned next[kWriters] = {}, writer, number, lines = 0;
    char text[1024];
    for (; fgets(text, sizeof text, in) != nullptr; ++lines) {
        DEMAND(sscanf(text, "%u %u", &writer, &number) == 2 && writer < kWriters);
        DEMAND(number == next[writer]++);
        DEMAND(strlen(strrchr(text, ' ')) == number + 2);
    }
    DEMAND(lines == kWriters * kLines);
    fclose(in);
}

// Pages written through a mapping are in the file, for read() and for the server.
void Mapped(const char* file) {
    constexpr size_t kBytes = 5u << 20;
    int fd = open(file, O_CREAT | O_RDWR | O_TRUNC, 0644);
    DEMAND(fd >= 0 && ftruncate(fd, kBytes) == 0);
    auto* memory = static_cast<unsigned char*>(
        mmap(nullptr, kBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
    DEMAND(memory != MAP_FAILED);
    for (size_t at = 0; at < kBytes; at += 4096) {
        DEMAND(memory[at] == 0);
        for (size_t i = 0; i < 4096; ++i)
            memory[at + i] = static_cast<unsigned char>(at / 4096 + i);
    }
    std::string page(4096, '\0');
    for (size_t at = 0; at < kBytes; at += 4096) {
        DEMAND(pread(fd, page.data(), 4096, static_cast<off_t>(at)) == 4096);
        DEMAND(memcmp(page.data(), memory + at, 4096) == 0);
    }
    DEMAND(msync(memory, kBytes, MS_SYNC) == 0 && munmap(memory, kBytes) == 0 && close(fd) == 0);
}

// What is open can be used after it has been removed, and is gone with the last close.
void Unlinked(const char* folder) {
    const std::string file = std::string(folder) + "/held";
    const int fd = open(file.c_str(), O_CREAT | O_EXCL | O_RDWR, 0600);
    DEMAND(fd >= 0);
    const std::string content(300000, 'h');
    DEMAND(pwrite(fd, content.data(), content.size(), 0) == static_cast<ssize_t>(content.size()));
    DEMAND(unlink(file.c_str()) == 0);
    struct stat about;
    DEMAND(stat(file.c_str(), &about) == -1 && errno == ENOENT);
    DEMAND(fsync(fd) == 0 && posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED) == 0);
    std::string got(content.size(), '\0');
    DEMAND(pread(fd, got.data(), got.size(), 0) == static_cast<ssize_t>(got.size()) &&
           got == content);
    DEMAND(pwrite(fd, "more", 4, 300000) == 4 && ftruncate(fd, 300002) == 0);
    DEMAND(fstat(fd, &about) == 0 && about.st_size == 300002);
    DEMAND(close(fd) == 0);
    DEMAND(rmdir(folder) == 0);  // nothing is left in it
}

std::map<std::string, unsigned> Names(const char* folder) {
    std::map<std::string, unsigned> names;
    std::error_code error;
    std::filesystem::directory_iterator entry(folder, error);
    for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error))
        ++names[entry->path().filename()];
    DEMAND(!error);
    return names;
}

// While others make and remove names in a directory, those that stay are listed once each.
void Listing(const char* folder) {
    constexpr unsigned kStaying = 2000;
    const std::string prefix = std::string(folder) + "/";
    for (unsigned i = 0; i < kStaying; ++i) {
        const int fd =
            open((prefix + "stays" + std::to_string(i)).c_str(), O_CREAT | O_WRONLY, 0644);
        DEMAND(fd >= 0 && close(fd) == 0);
    }
    const pid_t changer = fork();
    DEMAND(changer >= 0);
    if (changer == 0) {
        for (unsigned i = 0;; ++i) {
            const std::string name = prefix + "comes" + std::to_string(i % 500);
            const std::string other = prefix + "moved" + std::to_string(i % 300);
            const int fd = open(name.c_str(), O_CREAT | O_WRONLY, 0644);
            DEMAND(fd >= 0 && close(fd) == 0);
            DEMAND(rename(name.c_str(), other.c_str()) == 0);
            if (i % 3 == 0) DEMAND(unlink(other.c_str()) == 0);
        }
    }
    for (int round = 0; round < 15; ++round) {
        unsigned staying = 0;
        for (const auto& [name, count] : Names(folder)) {
            if (name.rfind("stays", 0) != 0) continue;
            DEMAND(count == 1);
            ++staying;
        }
        DEMAND(staying == kStaying);
    }
    int status;
    DEMAND(waitpid(changer, &status, WNOHANG) == 0);  // it had no failure
    DEMAND(kill(changer, SIGKILL) == 0 && waitpid(changer, &status, 0) == changer);
}

// Unbuffered reading and writing, past the client's cache.
void Direct(const char* file) {
    constexpr size_t kBytes = 1u << 20;
    void* memory;
    DEMAND(posix_memalign(&memory, 4096, kBytes) == 0);
    memset(memory, 'd', kBytes);
    const int fd = open(file, O_CREAT | O_RDWR | O_DIRECT, 0644);
    DEMAND(fd >= 0);
    for (off_t at = 0; at < 8; ++at)
        DEMAND(pwrite(fd, memory, kBytes, at * static_cast<off_t>(kBytes)) ==
               static_cast<ssize_t>(kBytes));
    memset(memory, 0, kBytes);
    DEMAND(pread(fd, memory, kBytes, 7 * static_cast<off_t>(kBytes)) ==
           static_cast<ssize_t>(kBytes));
    for (size_t i = 0; i < kBytes; ++i) DEMAND(static_cast<char*>(memory)[i] == 'd');
    DEMAND(pread(fd, memory, kBytes, 8 * static_cast<off_t>(kBytes)) == 0);
    DEMAND(close(fd) == 0);
    free(memory);
}

// Locks are kept by the client: they hold between its own processes.
void Locks(const char* file) {
    const int fd = open(file, O_CREAT | O_RDWR, 0644);
    struct flock whole {};
    whole.l_type = F_WRLCK;
    DEMAND(fd >= 0 && fcntl(fd, F_SETLK, &whole) == 0 && flock(fd, LOCK_EX) == 0);
    const std::vector<int> refused = InProcesses(1, [&](unsigned) {
        const int other = open(file, O_RDWR);
        struct flock wish = whole;
        const bool byRange =
            fcntl(other, F_SETLK, &wish) == -1 && (errno == EAGAIN || errno == EACCES);
        const bool whole = flock(other, LOCK_EX | LOCK_NB) == -1 && errno == EWOULDBLOCK;
        return byRange && whole ? 0 : 1;
    });
    DEMAND(refused[0] == 0);
    DEMAND(close(fd) == 0);
}

}  // namespace
}  // namespace oxel::test

int main(int argc, char** argv) {
    using namespace oxel::test;
    const std::string what = argc > 2 ? argv[1] : "";
    static const std::map<std::string, void (*)(const char*)> probes = {
        {"append", Append}, {"direct", Direct}, {"exclusive", Exclusive}, {"listing", Listing},
        {"locks", Locks},   {"mapped", Mapped}, {"unlinked", Unlinked},
    };
    const auto found = probes.find(what);
    if (found != probes.end()) {
        found->second(argv[2]);
    } else if (what == "random" && argc == 5) {
        RandomIo(argv[2], static_cast<unsigned>(atoi(argv[3])),
                 static_cast<unsigned>(atoi(argv[4])));
    } else if (what == "work" && argc == 5) {
        WorkUntil(argv[2], argv[3], static_cast<unsigned>(atoi(argv[4])));
    } else {
        fprintf(stderr, "usage: oxel_probe WHAT FILE [ARGUMENTS]\n");
        return 2;
    }
    return 0;
}
