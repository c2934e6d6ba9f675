// SPDX-License-Identifier: Apache-2.0
//
// A mix of all kinds of calls as file servers of offices see them: the shares of the procedures
// are those that SFS 2008 took from real servers. Works on a directory that oxel-tree made.
#include <algorithm>
#include <array>
#include <deque>
#include <stdexcept>

#include "bench/pattern.h"
#include "bench/workload.h"

namespace bench {
namespace {

struct Part {
    Procedure procedure;
    unsigned percent;
};
constexpr Part kParts[] = {
    {kLookup, 24},  {kGetattr, 26}, {kRead, 18},       {kWrite, 10}, {kAccess, 11}, {kSetattr, 4},
    {kReadlink, 1}, {kReaddir, 1},  {kReaddirplus, 2}, {kCreate, 1}, {kRemove, 1},  {kFsstat, 1},
};
// Of READ and WRITE, and how many of a hundred have them.
constexpr struct {
    uint32_t bytes;
    unsigned percent;
} kSizes[] = {{4 << 10, 45}, {16 << 10, 25}, {32 << 10, 15}, {64 << 10, 15}};
constexpr uint32_t kPageBytes = 8 << 10;  // of listings

struct Asked {
    Procedure procedure = kNull;
    const Entry* file = nullptr;
    uint64_t offset = 0;
    uint32_t bytes = 0;
    uint32_t name = 0;  // of CREATE and REMOVE
};

class Mix : public Workload {
  public:
    Mix(const Options& options, const std::string& root) : options_(options), root_(root) {
        for (const Part& part : kParts)
            procedures_.insert(procedures_.end(), part.percent, part.procedure);
        for (const auto& size : kSizes) sizes_.insert(sizes_.end(), size.percent, size.bytes);
    }

    void Prepare(Session* session) override {
        const std::string tree = session->Lookup(root_, options_.file);
        for (Entry& entry : session->List(tree)) {
            if (!entry.isDirectory) continue;
            std::vector<Entry> inside = session->List(entry.handle);
            if (inside.empty()) continue;
            if (entry.name == "links") {
                for (Entry& link : inside) links_.push_back(std::move(link));
                continue;
            }
            directories_.push_back({std::move(entry.handle), std::move(inside)});
        }
        if (directories_.empty() || links_.empty())
            throw std::runtime_error("mix needs a directory that oxel-tree made");
        fileBytes_ = session->SizeOf(directories_[0].files[0].handle);
        asked_.resize(size_t{options_.connections} * options_.depth);
        work_.Make(session, root_);
    }

    void Next(Slot* slot) override {
        Asked& asked = asked_[slot->number];
        asked = Asked();
        asked.procedure = NextProcedure();
        const Directory& directory = directories_[picker_.Below(directories_.size())];
        asked.file = &directory.files[picker_.Below(directory.files.size())];
        const std::string& handle = asked.file->handle;
        // Each name that was made is removed once, but not before it is known to be there.
        if (asked.procedure == kRemove && made_.empty()) asked.procedure = kCreate;
        CallBuilder call(slot, asked.procedure);
        switch (asked.procedure) {
            case kLookup:
                call.Opaque(directory.handle).Opaque(asked.file->name);
                break;
            case kRead:
            case kWrite:
                asked.bytes = sizes_[picker_.Below(sizes_.size())];
                asked.offset = picker_.Below(fileBytes_ / asked.bytes) * asked.bytes;
                call.Opaque(handle).U64(asked.offset).U32(asked.bytes);
                // The file's own bytes again, so that every READ finds what it must.
                if (asked.procedure == kWrite)
                    call.U32(0).Data(pattern_.At(asked.offset, asked.bytes));
                break;
            case kAccess:
                call.Opaque(handle).U32(0x3f);
                break;
            case kSetattr:  // the mode that it has, no guard
                call.Opaque(handle).U32(1).U32(0644).U32(0).U32(0).U32(0).U32(0).U32(0).U32(0);
                break;
            case kReadlink:
                call.Opaque(links_[picker_.Below(links_.size())].handle);
                break;
            case kReaddir:
                call.Opaque(directory.handle).U64(0).U64(0).U32(kPageBytes);
                break;
            case kReaddirplus:
                call.Opaque(directory.handle).U64(0).U64(0).U32(kPageBytes).U32(kPageBytes);
                break;
            case kCreate:
                asked.name = ++lastName_;
                call.Opaque(work_.Handle()).Opaque(NameOf(asked.name)).U32(1);
                call.U32(1).U32(0644).U32(0).U32(0).U32(0).U32(0).U32(0);
                break;
            case kRemove:
                asked.name = made_.front();
                made_.pop_front();
                call.Opaque(work_.Handle()).Opaque(NameOf(asked.name));
                break;
            default:  // GETATTR, FSSTAT
                call.Opaque(handle);
        }
    }

    void Check(Slot* slot, Reader* reply, int64_t) override {
        const Asked& asked = asked_[slot->number];
        if (const uint32_t status = reply->U32(); status != 0)
            throw std::runtime_error("procedure " + std::to_string(asked.procedure) +
                                     " of the mix: status " + std::to_string(status));
        switch (asked.procedure) {
            case kLookup:
                if (reply->Opaque() != asked.file->handle)
                    throw std::runtime_error("lookup: the handle of another file");
                break;
            case kRead: {
                reply->SkipAttributes();
                const uint32_t count = reply->U32();
                reply->U32();
                const std::string_view data = reply->Opaque();
                if (count != asked.bytes || data.size() != count)
                    throw std::runtime_error("read: wrong length");
                counters.bytes += count;
                if (!options_.verify) break;
                if (data != pattern_.At(asked.offset, count))
                    throw std::runtime_error("read: wrong data");
                counters.verified += count;
                break;
            }
            case kWrite:
                reply->SkipWeakCacheData();
                if (reply->U32() != asked.bytes)
                    throw std::runtime_error("write: not all was written");
                counters.bytes += asked.bytes;
                break;
            case kReadlink:
                reply->SkipAttributes();
                if (reply->Opaque().empty()) throw std::runtime_error("readlink: nothing");
                break;
            case kCreate:
                made_.push_back(asked.name);
                break;
            default:
                break;
        }
    }

    void Finish(Session* session) override { work_.Remove(session); }

  private:
    struct Directory {
        std::string handle;
        std::vector<Entry> files;
    };

    // Each hundred calls hold every procedure as often as its share says.
    Procedure NextProcedure() {
        if (next_ == procedures_.size()) next_ = 0;
        if (next_ == 0)
            for (size_t i = procedures_.size(); i > 1; --i)
                std::swap(procedures_[i - 1], procedures_[picker_.Below(i)]);
        return procedures_[next_++];
    }
    std::string_view NameOf(uint32_t number) {
        return {name_.data(),
                static_cast<size_t>(snprintf(name_.data(), name_.size(), "name-%u", number))};
    }

    const Options& options_;
    const std::string root_;
    const Pattern pattern_;
    std::vector<Procedure> procedures_;  // a hundred
    std::vector<uint32_t> sizes_;        // a hundred
    size_t next_ = 0;
    Picker picker_;
    std::vector<Directory> directories_;
    std::vector<Entry> links_;
    uint64_t fileBytes_ = 0;
    WorkDirectory work_;
    std::vector<Asked> asked_;  // by slot
    std::deque<uint32_t> made_;
    uint32_t lastName_ = 0;
    std::array<char, 32> name_;
};

}  // namespace

std::unique_ptr<Workload> MakeMix(const Options& options, const std::string& root) {
    return std::make_unique<Mix>(options, root);
}

}  // namespace bench
