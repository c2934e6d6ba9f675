// SPDX-License-Identifier: Apache-2.0
//
// The loads that read and write file data.
#include <sys/random.h>

#include <algorithm>
#include <stdexcept>

#include "bench/pattern.h"
#include "bench/workload.h"

namespace bench {
namespace {

// Behind a reply's header READ's result has at most so many bytes before the data.
constexpr size_t kReadHeadBytes = 160;
// From here on a reply's data is better left in the kernel when nobody wants to see it.
constexpr uint32_t kWorthThrowingAway = 16 << 10;

// READs of one file, block after block.
class Read : public Workload {
  public:
    Read(const Options& options, const std::string& root) : options_(options), root_(root) {}

    void Prepare(Session* session) override {
        file_ = session->Lookup(root_, options_.file);
        blocks_ = session->SizeOf(file_) / options_.bytes;
        if (blocks_ == 0) throw std::runtime_error(options_.file + " is shorter than one READ");
    }

    void Next(Slot* slot) override {
        if (slot->number >= offsets_.size()) offsets_.resize(slot->number + 1);
        const uint64_t offset = next_++ % blocks_ * options_.bytes;
        offsets_[slot->number] = offset;
        CallBuilder(slot, kRead).Opaque(file_).U64(offset).U32(options_.bytes);
    }

    void Check(Slot* slot, Reader* reply, int64_t) override {
        CheckStatus(reply, "read");
        reply->SkipAttributes();
        const uint32_t count = reply->U32();
        reply->U32();  // eof
        const uint32_t length = reply->U32();
        if (count != options_.bytes || length != count ||
            reply->Left() != length + PaddingOf(length))
            throw std::runtime_error("read: wrong length");
        counters.bytes += count;
        if (!options_.verify) return;
        const uint64_t offset = offsets_[slot->number];
        if (reply->Take(length) != pattern_.At(offset, length))
            throw std::runtime_error("read: wrong data at offset " + std::to_string(offset));
        counters.verified += length;
    }

    size_t BytesKept() const override {
        return options_.verify || options_.bytes < kWorthThrowingAway ? SIZE_MAX : kReadHeadBytes;
    }

  private:
    const Options& options_;
    const std::string root_;
    const Pattern pattern_;
    std::string file_;
    uint64_t blocks_ = 0, next_ = 0;
    std::vector<uint64_t> offsets_;  // by slot
};

// WRITEs, each connection a file of its own and each slot a few blocks of it, again and again.
class Write : public Workload {
  public:
    Write(const Options& options, const std::string& root)
        : options_(options), root_(root), pattern_(Shift()) {}

    // The blocks are there before the load begins, with other bytes: what is measured is writing,
    // not finding room.
    void Prepare(Session* session) override {
        directory_.Make(session, root_);
        const std::string zeros(options_.bytes, '\0');
        const uint64_t blocks = uint64_t{options_.depth} * kBlocks;
        for (unsigned i = 0; i < options_.connections; ++i) {
            files_.push_back(session->MakeFile(directory_.Handle(), "file-" + std::to_string(i)));
            for (uint64_t block = 0; block < blocks; ++block)
                session->Nfs(kWrite,
                             Writer()
                                 .Opaque(files_.back())
                                 .U64(block * options_.bytes)
                                 .U32(options_.bytes)
                                 .U32(0)
                                 .Opaque(zeros)
                                 .Bytes(),
                             "write");
            session->Nfs(kCommit, Writer().Opaque(files_.back()).U64(0).U32(0).Bytes(), "commit");
        }
        written_.resize(size_t{options_.connections} * options_.depth);
    }

    void Next(Slot* slot) override {
        const uint64_t offset = OffsetOf(slot->number, written_[slot->number]++ % kBlocks);
        CallBuilder(slot, kWrite)
            .Opaque(files_[slot->connection])
            .U64(offset)
            .U32(options_.bytes)
            .U32(options_.stable)
            .Data(pattern_.At(offset, options_.bytes));
    }

    void Check(Slot*, Reader* reply, int64_t) override {
        CheckStatus(reply, "write");
        reply->SkipWeakCacheData();
        if (reply->U32() != options_.bytes) throw std::runtime_error("write: not all was written");
        if (reply->U32() < options_.stable) throw std::runtime_error("write: not stable");
        if (reply->Left() != 8) throw std::runtime_error("write: wrong length");
        counters.bytes += options_.bytes;
    }

    void Finish(Session* session) override {
        if (options_.verify) ReadBack(session);
        directory_.Remove(session);
    }

  private:
    static constexpr uint64_t kBlocks = 16;  // of a slot

    static uint64_t Shift() {
        uint32_t shift = 0;
        if (getrandom(&shift, sizeof shift, 0) != sizeof shift)
            throw std::runtime_error("getrandom");
        return shift;
    }
    uint64_t OffsetOf(uint32_t slot, uint64_t block) const {
        return (slot % options_.depth * kBlocks + block) * options_.bytes;
    }

    void ReadBack(Session* session) {
        for (uint32_t slot = 0; slot < written_.size(); ++slot) {
            for (uint64_t block = 0; block < std::min(written_[slot], kBlocks); ++block) {
                const uint64_t offset = OffsetOf(slot, block);
                Reader reply = session->Nfs(kRead,
                                            Writer()
                                                .Opaque(files_[slot / options_.depth])
                                                .U64(offset)
                                                .U32(options_.bytes)
                                                .Bytes(),
                                            "read");
                reply.SkipAttributes();
                reply.Take(8);
                if (reply.Opaque() != pattern_.At(offset, options_.bytes))
                    throw std::runtime_error("what was written at offset " +
                                             std::to_string(offset) + " is not there");
                counters.verified += options_.bytes;
            }
        }
    }

    const Options& options_;
    const std::string root_;
    const Pattern pattern_;
    WorkDirectory directory_;
    std::vector<std::string> files_;  // by connection
    std::vector<uint64_t> written_;   // by slot
};

}  // namespace

std::unique_ptr<Workload> MakeRead(const Options& options, const std::string& root) {
    return std::make_unique<Read>(options, root);
}

std::unique_ptr<Workload> MakeWrite(const Options& options, const std::string& root) {
    return std::make_unique<Write>(options, root);
}

}  // namespace bench
