// SPDX-License-Identifier: Apache-2.0
//
// A private tree for a test: OXEL_ROOT points to a fresh temporary directory, which goes with it.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "base/store.h"

namespace oxel::test {

inline std::string ReadFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

inline void WriteFile(const std::string& path, const std::string& text) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << text;
}

class PrivateRoot {
  public:
    explicit PrivateRoot(const std::string& instance = "Test001") {
        char name[] = "/tmp/oxel-test-XXXXXX";
        path_ = mkdtemp(name);
        setenv("OXEL_ROOT", path_.c_str(), 1);
        XOPI_Focus::setFocus(instance);
    }
    ~PrivateRoot() {
        unsetenv("OXEL_ROOT");
        std::error_code ignored;  // a file left in /tmp fails no test
        std::filesystem::remove_all(path_, ignored);
    }
    PrivateRoot(const PrivateRoot&) = delete;
    PrivateRoot& operator=(const PrivateRoot&) = delete;

    const std::string& Path() const { return path_; }
    InstancePaths Paths() const { return InstancePaths(XOPI_Focus::focus()); }

  private:
    std::string path_;
};

}  // namespace oxel::test
