// SPDX-License-Identifier: Apache-2.0
//
// The configuration store: numbers by section and key. People edit <I>.conf; the daemon writes
// only section "Runtime", into runtime.conf.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

// The instance whose files this process works with. Set once at start, before other threads run.
class XOPI_Focus {
  public:
    // Remembers the value of "-cn" for messages of the base library; unlocked.
    static void setFocusClientNameFromArgs(int argc, char** argv);
    static void setFocus(const std::string& instance);
    static const std::string& focus();
};

// Finds the instance name ("-vm") among the arguments.
class VMArgsAdjust {
  public:
    // `adjust`: whether the option and its value are removed from argv (the daemon passes false).
    VMArgsAdjust(int& argc, char** argv, bool adjust);
    static const std::string& getName();
};

namespace oxel {

// Where an instance's files lie; every path starts with $OXEL_ROOT when that is set.
struct InstancePaths {
    explicit InstancePaths(const std::string& instance);
    std::string conf, exports, runDir, runtimeConf, instanceLock, controlSocket, stateDir, registry,
        handleKey, logDir, log;
    // The file of a named lock.
    std::string NamedLock(const std::string& lockName) const;

  private:
    std::string lockDir_;
};

// Not empty, at most 64 bytes, no '/', no control character, not "." or "..".
bool IsValidInstanceName(const std::string& name);

struct StoreError {
    std::string file;
    int line;
    std::string reason;
};

// Where a number stands that could be read.
struct StoreLine {
    std::string section, key;
    int line;
};

using StoreNumbers = std::map<std::pair<std::string, std::string>, uint64_t>;

// Reads one store file: INI sections, "key = number" (decimal or 0x hexadecimal, up to 64 bits),
// '#' and ';' comments. The last of two equal keys wins. A missing file gives an empty store; lines
// that cannot be read are appended to `errors` and count as absent. Parses `text` when it is not
// null instead of opening `file`; appends a line for every number to `lines` when that is not null.
StoreNumbers ReadStoreFile(const std::string& file, std::vector<StoreError>* errors,
                           const std::string* text = nullptr,
                           std::vector<StoreLine>* lines = nullptr);

}  // namespace oxel

// One reading of the store of the instance in focus: the files are read by the constructor, and
// each unreadable line is logged once, at level -1, with file, line number and reason.
class XOPlatformInfo {
  public:
    XOPlatformInfo();
    // Non-zero when the key is present; *value is untouched otherwise. Section "Runtime" is looked
    // up in runtime.conf.
    int getNumber(const char* section, const char* key, unsigned long* value) const;
    // The 32-bit form keeps the low 32 bits.
    int getNumber(const char* section, const char* key, unsigned int* value) const;
    // Writes section "Runtime" only (temporary file, then rename); anything else is refused with
    // EINVAL. False with errno on failure.
    bool setNumber(const char* section, const char* key, unsigned long value);

  private:
    oxel::StoreNumbers numbers_;
    oxel::StoreNumbers runtime_;
};
