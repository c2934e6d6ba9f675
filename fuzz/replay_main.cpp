// SPDX-License-Identifier: Apache-2.0
//
// Runs a fuzz target over files and folders of inputs, then over bounded random mutations of them:
// the fuzzers as ordinary tests, with any compiler. The random seed is fixed, so a failure repeats.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

using Bytes = std::vector<uint8_t>;

Bytes ReadFile(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

void Mutate(Bytes* input, std::mt19937* random) {
    const unsigned changes = 1 + (*random)() % 4;
    for (unsigned i = 0; i < changes; ++i) {
        const size_t at = input->empty() ? 0 : (*random)() % input->size();
        switch ((*random)() % 4) {
            case 0:
                if (!input->empty()) (*input)[at] = static_cast<uint8_t>((*random)());
                break;
            case 1:
                input->resize(at);
                break;
            case 2:
                input->insert(input->begin() + static_cast<long>(at), 1 + (*random)() % 9,
                              static_cast<uint8_t>((*random)()));
                break;
            default:
                if (!input->empty()) (*input)[at] ^= static_cast<uint8_t>(1u << (*random)() % 8);
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    static constexpr const char kOption[] = "-mutations=";
    unsigned long mutations = 20000;
    std::vector<Bytes> seeds;
    for (int i = 1; i < argc; ++i) {
        if (strncmp(argv[i], kOption, sizeof kOption - 1) == 0) {
            mutations = strtoul(argv[i] + sizeof kOption - 1, nullptr, 10);
            continue;
        }
        for (const auto& entry : std::filesystem::recursive_directory_iterator(argv[i]))
            if (entry.is_regular_file()) seeds.push_back(ReadFile(entry.path()));
    }
    if (seeds.empty()) {
        (void)fprintf(stderr, "usage: %s [-mutations=N] FOLDER-OF-SEEDS...\n", argv[0]);
        return 1;
    }
    for (const Bytes& seed : seeds) LLVMFuzzerTestOneInput(seed.data(), seed.size());
    // NOLINTNEXTLINE(cert-msc51-cpp): the same inputs in every run
    std::mt19937 random(20261121);
    for (unsigned long i = 0; i < mutations; ++i) {
        Bytes input = seeds[random() % seeds.size()];
        Mutate(&input, &random);
        LLVMFuzzerTestOneInput(input.data(), input.size());
    }
    (void)fprintf(stderr, "%zu seeds and %lu mutations\n", seeds.size(), mutations);
    return 0;
}
