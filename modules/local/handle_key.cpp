// SPDX-License-Identifier: Apache-2.0
//
// The key file: read at start, made at the first start. Handles live as long as the key does, so an
// unreadable key is an error that stops the start, never a reason to make another one.
#include <fcntl.h>
#include <sodium.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/log.h"
#include "base/unique_fd.h"
#include "modules/local/handle_codec.h"
#include "modules/local/local_module.h"

namespace oxel {
namespace {

std::string Reason(const std::string& what, const std::string& file) {
    return what + " " + file + ": " + strerror(errno);
}

// Writes a new key so that the file either exists whole or not at all, also after a power cut. When
// another process made one at the same time, that one stays.
bool MakeKey(const std::string& file, std::string* error) {
    unsigned char key[local::kHandleKeyBytes];
    randombytes_buf(key, sizeof key);
    std::string directory = file.substr(0, file.find_last_of('/') + 1);
    if (directory.empty()) directory = ".";
    if (mkdir(directory.c_str(), 0700) != 0 && errno != EEXIST) {
        *error = Reason("cannot make the directory", directory);
        return false;
    }
    UniqueFd parent(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    std::string temporary = file + ".XXXXXX";
    UniqueFd fd(mkostemp(temporary.data(), O_CLOEXEC));  // mode 0600
    if (!parent || !fd) {
        *error = Reason("cannot make the handle key", file);
        return false;
    }
    const bool written = write(fd.Get(), key, sizeof key) == static_cast<ssize_t>(sizeof key) &&
                         fsync(fd.Get()) == 0 &&
                         (link(temporary.c_str(), file.c_str()) == 0 || errno == EEXIST);
    if (!written) *error = Reason("cannot write the handle key", file);
    (void)unlink(temporary.c_str());
    (void)fsync(parent.Get());  // some file systems cannot; the key itself is on the disk
    return written;
}

}  // namespace

bool InitializeHandleKey(const std::string& keyFile, std::string* error) {
    if (sodium_init() < 0) {
        *error = "the random number generator cannot be used";
        return false;
    }
    UniqueFd fd(open(keyFile.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd && errno == ENOENT) {
        if (!MakeKey(keyFile, error)) return false;
        fd.Reset(open(keyFile.c_str(), O_RDONLY | O_CLOEXEC));
    }
    struct stat st;
    if (!fd || fstat(fd.Get(), &st) != 0) {
        *error = Reason("cannot open the handle key", keyFile);
        return false;
    }
    unsigned char key[local::kHandleKeyBytes + 1];
    const ssize_t bytes = read(fd.Get(), key, sizeof key);
    if (bytes != static_cast<ssize_t>(local::kHandleKeyBytes)) {
        *error = "the handle key " + keyFile + " does not hold " +
                 std::to_string(local::kHandleKeyBytes) +
                 " bytes: restore it, or remove it, after which every client must mount again";
        return false;
    }
    if ((st.st_mode & 077) != 0) {
        OXEL_LOG(0,
                 "WARNING: the handle key [%s] has mode %03o: whoever reads it can forge file "
                 "handles. It should have mode 600.",
                 keyFile.c_str(), static_cast<unsigned>(st.st_mode & 0777));
    }
    unsigned char exact[local::kHandleKeyBytes];
    memcpy(exact, key, sizeof exact);
    local::SetHandleKey(exact);
    return true;
}

}  // namespace oxel
