// SPDX-License-Identifier: Apache-2.0
//
// What people do in a directory, done by ordinary programs in the mounted share: one script each.
#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <vector>

#include "tests/kernel/kernel_fixture.h"

namespace oxel::test {
namespace {

class Scripts : public KernelTest, public testing::WithParamInterface<std::string> {};

std::vector<std::string> Names() {
    std::vector<std::string> names;
    const char* source = getenv("OXEL_SOURCE_DIR");
    if (source == nullptr) return names;
    for (const auto& entry :
         std::filesystem::directory_iterator(std::string(source) + "/tests/kernel/scripts"))
        if (entry.path().extension() == ".sh") names.push_back(entry.path().stem());
    std::sort(names.begin(), names.end());
    return names;
}

std::string NameOf(const testing::TestParamInfo<std::string>& info) {
    return info.param;
}

TEST_P(Scripts, WorksInMemory) {
    Succeeds(Client().Run("bash /run/source/tests/kernel/lib.sh memory " + GetParam(), 900));
}
INSTANTIATE_TEST_SUITE_P(Kernel, Scripts, testing::ValuesIn(Names()), NameOf);

// Those that do not make too many files for a disk that is brought up to date with each of them.
class ScriptsOnDisk : public Scripts {};
TEST_P(ScriptsOnDisk, WorksOnTheDisk) {
    Succeeds(Client().Run("bash /run/source/tests/kernel/lib.sh disk " + GetParam(), 900));
}
INSTANTIATE_TEST_SUITE_P(Kernel, ScriptsOnDisk,
                         testing::Values("append", "links", "mapped", "names", "random_io",
                                         "sparse", "truncate", "unlinked", "users"),
                         NameOf);

}  // namespace
}  // namespace oxel::test
