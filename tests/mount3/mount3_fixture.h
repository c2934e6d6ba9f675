// SPDX-License-Identifier: Apache-2.0
//
// What the tests of the MOUNT procedures stand on: a private tree for the registry's file, shares
// in the process's registry, and a call record.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <boost/make_shared.hpp>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "backend/ExportCache.h"
#include "backend/FSMCache.h"
#include "base/store.h"
#include "bin/oxelService_callinfo.h"
#include "mount3/mount3proc.h"

namespace oxel::test {

class MountTest : public testing::Test {
  protected:
    using Shares = std::vector<std::pair<unsigned int, ExportPtr>>;

    MountTest() {
        char root[] = "/tmp/oxel-mount-XXXXXX";
        EXPECT_NE(nullptr, mkdtemp(root));
        root_ = root;
        setenv("OXEL_ROOT", root, 1);
        XOPI_Focus::setFocus("MountTest");
        std::filesystem::create_directories(InstancePaths("MountTest").stateDir);
        EXPECT_TRUE(CLuIPAddr::Parse("192.0.2.7", 700, &record_.identity.clientAddress));
    }

    ~MountTest() override {
        gAllExports.Replace({});
        FSMCache::SetFSM(kLocalModuleType, FSMPtr());
        unsetenv("OXEL_ROOT");
        std::filesystem::remove_all(root_);
    }

    // What SaveToDisk wrote; empty when it did not.
    std::string Registry() const {
        std::ifstream file(InstancePaths("MountTest").registry);
        std::ostringstream text;
        text << file.rdbuf();
        return text.str();
    }

    void RequestPath(const char* path) {
        // MNT's and UMNT's arguments are alike; nobody writes to the text.
        record_.arguments().mnt.dirpath = const_cast<char*>(path);
    }

    // As the call before may have left it.
    void DirtyResult() { memset(&record_.result, 0xff, sizeof(record_.result)); }

    std::string root_;
    CallInfo3 record_;
};

}  // namespace oxel::test
