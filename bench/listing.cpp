// SPDX-License-Identifier: Apache-2.0
//
// READDIRPLUS of a whole directory, page after page, again and again; each slot on its own.
#include <stdexcept>

#include "bench/workload.h"

namespace bench {
namespace {

class Listing : public Workload {
  public:
    Listing(const Options& options, const std::string& root)
        : options_(options), root_(root), entries_(options.entries) {}

    void Prepare(Session* session) override {
        directory_ = session->Lookup(root_, options_.file);
        positions_.resize(size_t{options_.connections} * options_.depth);
    }

    void Next(Slot* slot) override {
        const Position& at = positions_[slot->number];
        CallBuilder(slot, kReaddirplus)
            .Opaque(directory_)
            .U64(at.cookie)
            .U64(at.verifier)
            .U32(options_.bytes)
            .U32(options_.bytes);
    }

    void Check(Slot* slot, Reader* reply, int64_t nowNs) override {
        Position& at = positions_[slot->number];
        if (at.cookie == 0) at.beginNs = slot->sentNs;
        CheckStatus(reply, "readdirplus");
        reply->SkipAttributes();
        at.verifier = reply->U64();
        uint64_t count = 0;
        while (reply->U32() != 0) {
            reply->U64();
            reply->Opaque();
            at.cookie = reply->U64();
            reply->SkipAttributes();
            if (reply->U32() != 0) reply->Opaque();
            ++count;
        }
        const bool eof = reply->U32() != 0;
        if (count == 0 && !eof) throw std::runtime_error("readdirplus: a page without entries");
        at.entries += count;
        counters.entries += count;
        if (!eof) return;
        if (entries_ == 0) entries_ = at.entries;
        if (at.entries != entries_)
            throw std::runtime_error("readdirplus: " + std::to_string(at.entries) +
                                     " entries instead of " + std::to_string(entries_));
        counters.listings.Add(nowNs - at.beginNs);
        at = Position();
    }

    bool MayStop(const Slot& slot) const override { return positions_[slot.number].cookie == 0; }

  private:
    struct Position {
        uint64_t cookie = 0, verifier = 0, entries = 0;
        int64_t beginNs = 0;
    };
    const Options& options_;
    const std::string root_;
    uint64_t entries_;  // of every listing; 0 until the first one is complete
    std::string directory_;
    std::vector<Position> positions_;  // by slot
};

}  // namespace

std::unique_ptr<Workload> MakeListing(const Options& options, const std::string& root) {
    return std::make_unique<Listing>(options, root);
}

}  // namespace bench
