// SPDX-License-Identifier: Apache-2.0
//
// The exports file: one share a line. A line with any error is left out whole, so that a half
// understood line can never serve more than its author meant.
#include "backend/exports_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <unordered_map>

#include "backend/ExportCache.h"
#include "backend/exports_client.h"
#include "backend/exports_words.h"
#include "backend/module_names.h"
#include "base/nearest_word.h"
#include "base/unique_fd.h"

namespace oxel {

static constexpr size_t kFileBytesMax = 16 << 20;
// MNTPATHLEN (RFC 1813 section 5.1.1): a longer path could not be mounted.
static constexpr size_t kPathBytesMax = 1024;
static constexpr size_t kErrorsPerLineMax = 20;
static constexpr size_t kErrorsMax = 1000;

uint32_t DefaultShareId(const std::string& path) {
    uint32_t hash = 2166136261u;
    for (char byte : path) hash = (hash ^ static_cast<unsigned char>(byte)) * 16777619u;
    // 0 is no share id.
    return hash != 0 ? hash : 1;
}

// Null when there is no such module.
static const ModuleName* FindModule(const std::string& name) {
    for (const ModuleName& module : ModuleNames())
        if (name == module.name) return &module;
    return nullptr;
}

// "; did you mean 'local'?"; the only module is meant whatever is written.
static std::string ModuleHint(const std::string& name) {
    std::vector<std::string> names;
    for (const ModuleName& module : ModuleNames()) names.emplace_back(module.name);
    if (names.size() == 1) return "; did you mean '" + names[0] + "'?";
    return DidYouMean(name, names);
}

std::string ErrorText(const ExportsError& error) {
    return error.file + ":" + (error.line != 0 ? std::to_string(error.line) + ":" : "") + " " +
           error.reason;
}

namespace {

class ExportsParser {
  public:
    ExportsParser(const std::string& file, bool checkDirectories, const HostResolver& resolve)
        : file_(file), checkDirectories_(checkDirectories), clients_(resolve) {}
    ExportsFile Parse(const std::string& text);

  private:
    void ParseLine(const ExportsLine& line);
    void ParsePath(const ExportsWord& word);
    void ParseGroup(const ExportsWord& word);
    void ParseShareOption(const ExportsWord& option);
    void ParseClients(const ExportsLine& line, size_t first);
    void CheckDirectory(int line);
    void CheckUnique(int line);
    void Error(int line, const std::string& reason);

    const std::string& file_;
    const bool checkDirectories_;
    ClientParser clients_;
    ExportsFile result_;
    std::unordered_map<std::string, int> linesByPath_;
    std::unordered_map<uint32_t, size_t> sharesById_;
    // Of the line under way:
    ShareConfig share_;
    ClientOptions defaults_;
    std::vector<std::string> shareOptionsSeen_;
    size_t lineErrors_ = 0;
};

}  // namespace

void ExportsParser::Error(int line, const std::string& reason) {
    ++lineErrors_;
    if (result_.errors.size() > kErrorsMax || lineErrors_ > kErrorsPerLineMax) return;
    bool last = result_.errors.size() == kErrorsMax || lineErrors_ == kErrorsPerLineMax;
    result_.errors.push_back({file_, line, last ? "more errors follow, not shown" : reason});
}

ExportsFile ExportsParser::Parse(const std::string& text) {
    ExportsLineReader reader(text);
    ExportsLine line;
    while (reader.Next(&line)) ParseLine(line);
    return std::move(result_);
}

void ExportsParser::ParseLine(const ExportsLine& line) {
    share_ = ShareConfig();
    share_.line = line.line;
    defaults_ = ClientOptions();
    shareOptionsSeen_.clear();
    lineErrors_ = 0;
    for (const auto& [number, reason] : line.errors) Error(number, reason);
    // What the words say is not told: the error may have cut them anywhere.
    if (lineErrors_ != 0) return;

    ParsePath(line.words[0]);
    size_t firstClient = 1;
    if (line.words.size() > 1 && line.words[1].Is(0, '-')) {
        ParseGroup(line.words[1]);
        firstClient = 2;
    }
    ParseClients(line, firstClient);
    if (lineErrors_ != 0) return;

    if (share_.directory.empty()) share_.directory = share_.path;
    if (share_.id == 0) share_.id = DefaultShareId(share_.path);
    CheckUnique(line.line);
    const ModuleName* module = FindModule(share_.module);
    if (lineErrors_ == 0 && checkDirectories_ && module != nullptr && module->servesDirectory)
        CheckDirectory(line.line);
    if (lineErrors_ != 0) return;
    linesByPath_[share_.path] = line.line;
    sharesById_[share_.id] = result_.shares.size();
    result_.shares.push_back(std::move(share_));
}

void ExportsParser::ParsePath(const ExportsWord& word) {
    const std::string& text = word.text();
    if (text.empty() || text[0] != '/') {
        Error(word.line(), "a share's path must begin with '/': " + QuoteForError(text));
        return;
    }
    ReverseNormalizeExportPath(text, share_.path);
    if (share_.path.size() > kPathBytesMax)
        Error(word.line(), "the share's path is longer than " + std::to_string(kPathBytesMax) +
                               " bytes, the most that a client can mount");
}

void ExportsParser::ParseGroup(const ExportsWord& word) {
    ExportsWord list = word.Part(1);
    if (list.empty()) return;
    for (const ExportsWord& option : list.Split(',')) {
        std::string error;
        switch (ApplyClientOption(option, &defaults_, &error)) {
            case ClientOptionOutcome::kTaken:
                break;
            case ClientOptionOutcome::kError:
                Error(option.line(), error);
                break;
            case ClientOptionOutcome::kUnknown:
                ParseShareOption(option);
                break;
        }
    }
}

void ExportsParser::ParseShareOption(const ExportsWord& option) {
    int line = option.line();
    size_t equals = option.Find('=');
    bool hasValue = equals != std::string::npos;
    std::string name = option.text().substr(0, equals);
    std::string value = hasValue ? option.text().substr(equals + 1) : "";
    if (option.empty()) {
        Error(line, "an option is missing: nothing stands between two commas");
        return;
    }
    for (const std::string& seen : shareOptionsSeen_) {
        if (seen == name) {
            Error(line, "option '" + name + "' is given twice");
            return;
        }
    }
    if (name == "unlisted") {
        if (hasValue) Error(line, "option 'unlisted' takes no value");
        share_.unlisted = true;
    } else if (name == "dir") {
        if (value.empty() || value[0] != '/')
            Error(line,
                  "option 'dir' needs a path that begins with '/', not " + QuoteForError(value));
        else if (value.size() >= PATH_MAX)
            Error(line, "option 'dir': the path is too long");
        share_.directory = value;
    } else if (name == "module") {
        if (FindModule(value) == nullptr)
            Error(line, "unknown module " + QuoteForError(value) + ModuleHint(value));
        share_.module = value;
    } else if (name == "id") {
        if (!ParseDecimal(value, UINT32_MAX, &share_.id) || share_.id == 0)
            Error(line,
                  "option 'id': " + QuoteForError(value) + " is not a number from 1 to 4294967295");
    } else {
        std::vector<std::string> valid = ShareOptionNames();
        valid.insert(valid.end(), ClientOptionNames().begin(), ClientOptionNames().end());
        Error(line, "unknown option " + QuoteForError(name) + DidYouMean(name, valid));
        return;
    }
    shareOptionsSeen_.push_back(name);
}

void ExportsParser::ParseClients(const ExportsLine& line, size_t first) {
    std::vector<ClientRule> rules;
    std::vector<std::string> errors;
    for (size_t i = first; i < line.words.size(); ++i) {
        const ExportsWord& word = line.words[i];
        if (word.Is(0, '-')) {
            Error(word.line(), "options " + QuoteForError(word.text()) +
                                   " stand in the wrong place: one group that begins with '-' goes "
                                   "between the path and the clients");
            continue;
        }
        if (word.empty()) {
            Error(word.line(), "a client's name is empty");
            continue;
        }
        errors.clear();
        clients_.Parse(word, defaults_, &rules, &errors);
        for (const std::string& error : errors) Error(word.line(), error);
    }
    if (line.words.size() <= first) {
        ClientRule everybody;
        everybody.text = "*";
        everybody.options = defaults_;
        everybody.line = line.line;
        rules.push_back(std::move(everybody));
    }
    share_.clients = ClientRules(std::move(rules));
}

void ExportsParser::CheckUnique(int line) {
    if (auto it = linesByPath_.find(share_.path); it != linesByPath_.end()) {
        Error(line, "path " + QuoteForError(share_.path) + " is already shared by line " +
                        std::to_string(it->second));
        return;
    }
    if (auto it = sharesById_.find(share_.id); it != sharesById_.end()) {
        const ShareConfig& other = result_.shares[it->second];
        Error(line, "id " + std::to_string(share_.id) + " of share " + QuoteForError(share_.path) +
                        " is already that of " + QuoteForError(other.path) + " in line " +
                        std::to_string(other.line) + "; give one of them another id=N");
    }
}

void ExportsParser::CheckDirectory(int line) {
    struct stat status;
    const std::string& directory = share_.directory;
    if (stat(directory.c_str(), &status) != 0) {
        int error = errno;
        Error(line, "directory " + QuoteForError(directory) +
                        (error == ENOENT ? std::string(" does not exist")
                                         : std::string(": ") + std::strerror(error)));
    } else if (!S_ISDIR(status.st_mode)) {
        Error(line, QuoteForError(directory) + " is not a directory");
    }
}

ExportsFile ParseExports(const std::string& text, const std::string& file, bool checkDirectories,
                         const HostResolver& resolve) {
    return ExportsParser(file, checkDirectories, resolve).Parse(text);
}

static bool ReadWholeFile(const std::string& file, std::string* text, std::string* reason) {
    UniqueFd fd(open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!fd) {
        if (errno == ENOENT) return true;
        *reason = std::string("cannot be opened: ") + std::strerror(errno);
        return false;
    }
    char buffer[65536];
    for (;;) {
        ssize_t count = read(fd.Get(), buffer, sizeof buffer);
        if (count == 0) return true;
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) {
            *reason = std::string("cannot be read: ") + std::strerror(errno);
            return false;
        }
        text->append(buffer, static_cast<size_t>(count));
        if (text->size() > kFileBytesMax) {
            *reason = "is longer than " + std::to_string(kFileBytesMax >> 20) + " MiB";
            return false;
        }
    }
}

ExportsFile ReadExportsFile(const std::string& file) {
    std::string text, reason;
    if (!ReadWholeFile(file, &text, &reason)) {
        ExportsFile result;
        result.errors.push_back({file, 0, "the file " + reason});
        return result;
    }
    return ParseExports(text, file, true);
}

}  // namespace oxel
