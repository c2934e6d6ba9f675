// SPDX-License-Identifier: Apache-2.0
//
// The store of files' places, damaged: what the check of its file lets pass, the database can use.
// The input changes a sound file of some hundred records: two bytes with how much of it is cut off,
// then for each change an offset of three bytes, and two bytes to be written there.
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "base/log.h"
#include "modules/local/inode_map_check.h"
#include "modules/local/inode_map_store.h"

namespace {

using oxel::local::InodeStore;

void Demand(bool holds) {
    if (!holds) abort();
}

class Places {
  public:
    Places() {
        oxel::LogWriter::SetSink([](const oxel::LogRecord&) {});
        parent_ = std::filesystem::temp_directory_path() / "oxel-fuzz-XXXXXX";
        Demand(mkdtemp(parent_.data()) != nullptr);
        directory_ = parent_ + "/inodes";
        const auto store = Open();
        for (int round = 0; round < 3; ++round) {  // pages that are free, too
            for (uint64_t i = 1; i < kRecords; ++i)
                store->Set({1 + i % 3, i * 7}, std::string((i * 13 + 29) % 300, 'r'));
            store->Flush();
            for (uint64_t i = 1; i < kRecords; i += 4) store->Erase({1 + i % 3, i * 7});
            store->Flush();
        }
        store->Settle();
        std::ifstream file(directory_ + "/data.mdb", std::ios::binary);
        sound_.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
        Demand(sound_.size() > size_t{3} * 4096);
    }
    ~Places() { std::filesystem::remove_all(parent_); }

    void Try(const uint8_t* data, size_t size) {
        std::string bytes = sound_;
        bytes.resize(bytes.size() - ((data[0] << 8 | data[1]) % bytes.size()));
        for (size_t at = 2; at + 5 <= size; at += 5) {
            const size_t offset =
                static_cast<size_t>(data[at] << 16 | data[at + 1] << 8 | data[at + 2]) %
                bytes.size();
            bytes[offset] = static_cast<char>(data[at + 3]);
            bytes[(offset + 1) % bytes.size()] = static_cast<char>(data[at + 4]);
        }
        std::filesystem::remove_all(directory_);
        std::filesystem::create_directory(directory_);
        const std::string file = directory_ + "/data.mdb";
        std::ofstream(file, std::ios::binary) << bytes;
        if (!oxel::local::CheckInodeStoreFile(file).empty()) return;
        const auto store = Open();
        std::string record;
        for (uint64_t i = 0; i < kRecords; ++i) {
            (void)store->Get({1 + i % 3, i * 7}, &record);
            if (i % 5 == 0) store->Erase({1 + i % 3, i * 7});
            if (i % 5 == 1) store->Set({9, i}, std::string(i % 400, 'n'));
            if (i % 100 == 99) store->Flush();
        }
        store->Flush();
        Demand(store->Get({9, 11}, &record) && record == std::string(11, 'n'));
    }

  private:
    std::shared_ptr<InodeStore> Open() const {
        return InodeStore::Open(directory_, {.bytes = 1 << 20, .bytesMax = 4 << 20});
    }

    static constexpr uint64_t kRecords = 400;
    std::string parent_, directory_, sound_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    static Places places;
    places.Try(data, size);
    return 0;
}
