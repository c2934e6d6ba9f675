// SPDX-License-Identifier: Apache-2.0
//
// Reading and writing of the store's files. Whatever bytes a file holds, reading it gives numbers
// and a list of what could not be understood.
#include "base/store.h"

#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <utility>

#include "base/instance.h"
#include "base/log.h"
#include "base/sync.h"
#include "base/unique_fd.h"

namespace oxel {

namespace {

constexpr size_t kInstanceNameBytesMax = 64;
// Far more than any list of settings; a larger file is some other file.
constexpr size_t kStoreFileBytesMax = 4u << 20;
constexpr char kRuntimeSection[] = "Runtime";

// Leaked on purpose: read while the process ends.
std::string& FocusInstance() {
    static auto* name = new std::string;
    return *name;
}
std::string& FocusClient() {
    static auto* name = new std::string;
    return *name;
}
std::string& ArgumentInstance() {
    static auto* name = new std::string;
    return *name;
}

bool IsControl(char character) {
    const auto c = static_cast<unsigned char>(character);
    return c < 0x20 || c == 0x7f;
}

bool IsBlank(char c) {
    return c == ' ' || c == '\t';
}

std::string_view Trim(std::string_view text) {
    while (!text.empty() && IsBlank(text.front())) text.remove_prefix(1);
    while (!text.empty() && IsBlank(text.back())) text.remove_suffix(1);
    return text;
}

// Why a section or key cannot have this name; empty when it can.
std::string NameFault(std::string_view name, const char* what) {
    if (name.empty()) return std::string("the ") + what + " has no name";
    for (const char c : name) {
        if (IsControl(c)) return std::string("control character in the ") + what + "'s name";
        if (IsBlank(c) || strchr("[]=#;", c) != nullptr)
            return std::string("'") + c + "' in the " + what + "'s name";
    }
    return "";
}

// Empty and *number set when `text` is a number; else why it is none.
std::string ParseNumber(std::string_view text, uint64_t* number) {
    if (text.empty()) return "no value after '='";
    if (text.front() == '-' || text.front() == '+') return "a number must not have a sign";
    unsigned base = 10;
    if (text.size() >= 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        base = 16;
        text.remove_prefix(2);
        if (text.empty()) return "no digits after 0x";
    }
    uint64_t value = 0;
    for (const char c : text) {
        unsigned digit = 16;
        if (c >= '0' && c <= '9') digit = static_cast<unsigned>(c - '0');
        if (c >= 'a' && c <= 'f') digit = static_cast<unsigned>(c - 'a') + 10;
        if (c >= 'A' && c <= 'F') digit = static_cast<unsigned>(c - 'A') + 10;
        if (digit >= base)
            return std::string("the value is not a ") +
                   (base == 16 ? "hexadecimal number" : "number");
        if (__builtin_mul_overflow(value, uint64_t{base}, &value) ||
            __builtin_add_overflow(value, uint64_t{digit}, &value))
            return "the number does not fit into 64 bits";
    }
    *number = value;
    return "";
}

// Reads the lines of one store file.
class StoreParser {
  public:
    // Empty when the line was understood; else why not.
    std::string ParseLine(std::string_view line) {
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        line = Trim(line);
        if (line.empty() || line[0] == '#' || line[0] == ';') return "";
        if (line[0] == '[') return ParseSection(line);
        line = Trim(line.substr(0, line.find_first_of("#;")));
        const size_t equals = line.find('=');
        if (equals == std::string_view::npos) return "neither [Section] nor key = number";
        const std::string_view key = Trim(line.substr(0, equals));
        if (std::string fault = NameFault(key, "key"); !fault.empty()) return fault;
        uint64_t number = 0;
        if (std::string fault = ParseNumber(Trim(line.substr(equals + 1)), &number); !fault.empty())
            return fault;
        if (!inSection_) return "no readable [Section] above this key";
        numbers_[{section_, std::string(key)}] = number;
        lastKey_ = key;
        return "";
    }

    StoreNumbers TakeNumbers() { return std::move(numbers_); }
    // The section that the line before belongs to, and its key; empty when it had none.
    const std::string& Section() const { return section_; }
    std::string TakeKey() { return std::exchange(lastKey_, ""); }

  private:
    std::string ParseSection(std::string_view line) {
        // Keys below a section line that cannot be read must not count for the section above it.
        inSection_ = false;
        const size_t end = line.find(']');
        if (end == std::string_view::npos) return "no ']' after the section's name";
        const std::string_view rest = Trim(line.substr(end + 1));
        if (!rest.empty() && rest[0] != '#' && rest[0] != ';')
            return "something stands after [Section]";
        const std::string_view name = Trim(line.substr(1, end - 1));
        if (std::string fault = NameFault(name, "section"); !fault.empty()) return fault;
        section_ = name;
        inSection_ = true;
        return "";
    }

    StoreNumbers numbers_;
    std::string section_, lastKey_;
    bool inSection_ = false;
};

// 0, or an errno. A missing file is empty.
int ReadWholeFile(const std::string& file, std::string* text) {
    const UniqueFd fd(open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    if (!fd) return errno == ENOENT ? 0 : errno;
    char buffer[16384];
    for (;;) {
        const ssize_t bytes = read(fd.Get(), buffer, sizeof buffer);
        if (bytes < 0 && errno == EINTR) continue;
        if (bytes < 0) return errno;
        if (bytes == 0) return 0;
        if (text->size() + static_cast<size_t>(bytes) > kStoreFileBytesMax) return EFBIG;
        text->append(buffer, static_cast<size_t>(bytes));
    }
}

bool WriteWholeFile(const std::string& file, const std::string& text) {
    const UniqueFd fd(
        open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0644));
    if (!fd) return false;
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t bytes = write(fd.Get(), text.data() + done, text.size() - done);
        if (bytes < 0 && errno == EINTR) continue;
        if (bytes < 0) return false;
        done += static_cast<size_t>(bytes);
    }
    return true;
}

StoreNumbers ReadAndReport(const std::string& file) {
    std::vector<StoreError> errors;
    StoreNumbers numbers = ReadStoreFile(file, &errors);
    for (const StoreError& error : errors) {
        OXEL_LOG(-1, "%s:%d: %s. The line is ignored.", error.file.c_str(), error.line,
                 error.reason.c_str());
    }
    return numbers;
}

// The text after the last `option` among the arguments; untouched when it is not there. The value
// of "-cn" is no option, whatever it spells.
void FindOption(int argc, char** argv, const char* option, std::string* value) {
    for (int i = 0; i + 1 < argc; ++i) {
        if (strcasecmp(argv[i], option) == 0) *value = argv[i + 1];
        if (strcasecmp(argv[i], "-cn") == 0) ++i;
    }
}

}  // namespace

InstancePaths::InstancePaths(const std::string& instance) {
    const char* environment = getenv("OXEL_ROOT");
    std::string root = environment == nullptr ? "" : environment;
    while (!root.empty() && root.back() == '/') root.pop_back();
    conf = root + "/etc/oxelnfsd/" + instance + ".conf";
    exports = root + "/etc/oxelnfsd/" + instance + ".exports";
    lockDir_ = root + "/run/oxelnfsd";
    runDir = lockDir_ + "/" + instance;
    runtimeConf = runDir + "/runtime.conf";
    instanceLock = runDir + "/oxelnfsd.lock";
    controlSocket = runDir + "/control.sock";
    stateDir = root + "/var/lib/oxelnfsd/" + instance;
    registry = stateDir + "/registry.json";
    handleKey = stateDir + "/handle.key";
    logDir = root + "/var/log/oxelnfsd";
    log = logDir + "/" + instance + ".log";
}

std::string InstancePaths::NamedLock(const std::string& lockName) const {
    return lockDir_ + "/" + lockName + ".lock";
}

bool IsValidInstanceName(const std::string& name) {
    if (name.empty() || name.size() > kInstanceNameBytesMax || name == "." || name == "..")
        return false;
    for (const char c : name) {
        if (c == '/' || IsControl(c)) return false;
    }
    return true;
}

StoreNumbers ReadStoreFile(const std::string& file, std::vector<StoreError>* errors,
                           const std::string* text, std::vector<StoreLine>* lines) {
    std::string content;
    if (text == nullptr) {
        if (const int error = ReadWholeFile(file, &content); error != 0) {
            errors->push_back({file, 0, std::string("cannot be read: ") + strerror(error)});
            return {};
        }
        text = &content;
    }
    std::string_view rest(*text);
    constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
    if (rest.starts_with(kByteOrderMark)) rest.remove_prefix(kByteOrderMark.size());
    StoreParser parser;
    for (int line = 1; !rest.empty(); ++line) {
        const size_t end = std::min(rest.find('\n'), rest.size());
        if (std::string fault = parser.ParseLine(rest.substr(0, end)); !fault.empty())
            errors->push_back({file, line, std::move(fault)});
        if (std::string key = parser.TakeKey(); lines != nullptr && !key.empty())
            lines->push_back({parser.Section(), std::move(key), line});
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    return parser.TakeNumbers();
}

}  // namespace oxel

void XOPI_Focus::setFocusClientNameFromArgs(int argc, char** argv) {
    oxel::FindOption(argc, argv, "-cn", &oxel::FocusClient());
}

void XOPI_Focus::setFocus(const std::string& instance) {
    oxel::FocusInstance() = instance;
}

const std::string& XOPI_Focus::focus() {
    return oxel::FocusInstance();
}

VMArgsAdjust::VMArgsAdjust(int& argc, char** argv, bool adjust) {
    oxel::FindOption(argc, argv, "-vm", &oxel::ArgumentInstance());
    if (!adjust) return;
    int kept = 0;
    for (int i = 0; i < argc; ++i) {
        if (strcasecmp(argv[i], "-vm") == 0 && i + 1 < argc) {
            ++i;
        } else {
            argv[kept++] = argv[i];
        }
    }
    if (kept < argc) argv[kept] = nullptr;
    argc = kept;
}

const std::string& VMArgsAdjust::getName() {
    return oxel::ArgumentInstance();
}

XOPlatformInfo::XOPlatformInfo() {
    const oxel::InstancePaths paths(XOPI_Focus::focus());
    numbers_ = oxel::ReadAndReport(paths.conf);
    runtime_ = oxel::ReadAndReport(paths.runtimeConf);
}

int XOPlatformInfo::getNumber(const char* section, const char* key, unsigned long* value) const {
    const auto& numbers = strcmp(section, oxel::kRuntimeSection) == 0 ? runtime_ : numbers_;
    const auto found = numbers.find({section, key});
    if (found == numbers.end()) return 0;
    *value = found->second;
    return 1;
}

int XOPlatformInfo::getNumber(const char* section, const char* key, unsigned int* value) const {
    unsigned long number = 0;
    const int found = getNumber(section, key, &number);
    if (found != 0) *value = static_cast<unsigned int>(number);
    return found;
}

bool XOPlatformInfo::setNumber(const char* section, const char* key, unsigned long value) {
    if (strcmp(section, oxel::kRuntimeSection) != 0 || !oxel::NameFault(key, "key").empty()) {
        errno = EINVAL;
        return false;
    }
    // One writer at a time, so that no number gets lost between reading and writing.
    static XoCriticalSection writing;
    XoCriticalSectionGuard lock(writing);
    const oxel::InstancePaths paths(XOPI_Focus::focus());
    if (!oxel::MakeDirectories(paths.runDir, 0755)) return false;
    std::vector<oxel::StoreError> ignored;  // what cannot be read is dropped by the new file
    oxel::StoreNumbers numbers = oxel::ReadStoreFile(paths.runtimeConf, &ignored);
    numbers[{oxel::kRuntimeSection, key}] = value;
    std::string text =
        "# Written by oxelnfsd while it runs.\n[" + std::string(oxel::kRuntimeSection) + "]\n";
    for (const auto& [name, number] : numbers) {
        if (name.first == oxel::kRuntimeSection)
            text += name.second + " = " + std::to_string(number) + "\n";
    }
    const std::string temporary = paths.runtimeConf + ".tmp";
    if (!oxel::WriteWholeFile(temporary, text) ||
        rename(temporary.c_str(), paths.runtimeConf.c_str()) != 0) {
        const int savedErrno = errno;
        (void)unlink(temporary.c_str());
        errno = savedErrno;
        return false;
    }
    runtime_ = std::move(numbers);
    return true;
}
