// SPDX-License-Identifier: Apache-2.0
//
// The loads that look at names and attributes, and those that make and remove names.
#include <sys/random.h>
#include <unistd.h>

#include <stdexcept>

#include "bench/workload.h"

namespace bench {
namespace {

class Null : public Workload {
  public:
    void Next(Slot* slot) override { CallBuilder(slot, kNull); }
    void Check(Slot*, Reader* reply, int64_t) override {
        if (reply->Left() != 0) throw std::runtime_error("null: a result");
    }
};

// GETATTR, LOOKUP or ACCESS of one file, or of random files of a directory.
class OnFiles : public Workload {
  public:
    OnFiles(const Options& options, const std::string& root)
        : options_(options),
          root_(root),
          procedure_(options.operation == "lookup"   ? kLookup
                     : options.operation == "access" ? kAccess
                                                     : kGetattr) {}

    void Prepare(Session* session) override {
        if (!options_.set.empty()) {
            directory_ = session->Lookup(root_, options_.set);
            files_ = session->List(directory_);
            if (files_.empty()) throw std::runtime_error(options_.set + " is empty");
            return;
        }
        const size_t slash = options_.file.rfind('/');
        directory_ = slash == std::string::npos
                         ? root_
                         : session->Lookup(root_, options_.file.substr(0, slash));
        Entry file;
        file.name = slash == std::string::npos ? options_.file : options_.file.substr(slash + 1);
        if (file.name.empty() && procedure_ == kLookup)
            throw std::runtime_error("lookup needs --file or --set");
        file.handle = session->Lookup(root_, options_.file);
        files_.push_back(std::move(file));
    }

    void Next(Slot* slot) override {
        const Entry& file = files_.size() == 1 ? files_[0] : files_[picker_.Below(files_.size())];
        if (slot->number >= asked_.size()) asked_.resize(slot->number + 1);
        asked_[slot->number] = &file;
        CallBuilder call(slot, procedure_);
        if (procedure_ == kLookup) {
            call.Opaque(directory_).Opaque(file.name);
        } else {
            call.Opaque(file.handle);
            if (procedure_ == kAccess) call.U32(kAllAccess);
        }
    }

    void Check(Slot* slot, Reader* reply, int64_t) override {
        CheckStatus(reply, options_.operation.c_str());
        if (procedure_ == kLookup) {
            if (reply->Opaque() != asked_[slot->number]->handle)
                throw std::runtime_error("lookup: the handle of another file");
        } else if (procedure_ == kAccess) {
            reply->SkipAttributes();
            if ((reply->U32() & 1) == 0) throw std::runtime_error("access: may not read");
        } else if (reply->Left() != 84) {
            throw std::runtime_error("getattr: wrong length");
        }
    }

  private:
    static constexpr uint32_t kAllAccess = 0x3f;
    const Options& options_;
    const std::string root_;
    const Procedure procedure_;
    std::string directory_;
    std::vector<Entry> files_;
    std::vector<const Entry*> asked_;  // by slot
    Picker picker_;
};

// CREATE and REMOVE, or MKDIR and RMDIR, in turn, each slot a name of its own.
class Names : public Workload {
  public:
    Names(const Options& options, const std::string& root)
        : directories_(options.operation == "mkdir-rmdir"), root_(root) {}

    void Prepare(Session* session) override { directory_.Make(session, root_); }

    void Next(Slot* slot) override {
        if (slot->number >= exists_.size()) exists_.resize(slot->number + 1);
        char name[16];
        const int length = snprintf(name, sizeof name, "name-%u", slot->number);
        const std::string_view ours(name, static_cast<size_t>(length));
        if (exists_[slot->number]) {
            CallBuilder(slot, directories_ ? kRmdir : kRemove)
                .Opaque(directory_.Handle())
                .Opaque(ours);
            return;
        }
        CallBuilder call(slot, directories_ ? kMkdir : kCreate);
        call.Opaque(directory_.Handle()).Opaque(ours);
        if (!directories_) call.U32(1);  // GUARDED
        // A mode and nothing else said.
        call.U32(1).U32(directories_ ? 0755 : 0644).U32(0).U32(0).U32(0).U32(0).U32(0);
    }

    void Check(Slot* slot, Reader* reply, int64_t) override {
        const bool existed = exists_[slot->number];
        CheckStatus(reply, existed ? "remove" : "create");
        exists_[slot->number] = existed ? 0 : 1;
    }

    bool MayStop(const Slot& slot) const override { return !exists_[slot.number]; }
    void Finish(Session* session) override { directory_.Remove(session); }

  private:
    const bool directories_;
    const std::string root_;
    WorkDirectory directory_;
    std::vector<char> exists_;  // by slot
};

}  // namespace

void WorkDirectory::Make(Session* session, const std::string& root) {
    uint32_t random = 0;
    if (getrandom(&random, sizeof random, 0) != sizeof random)
        throw std::runtime_error("getrandom");
    root_ = root;
    name_ = "bench-" + std::to_string(getpid()) + "-" + std::to_string(random);
    handle_ = session->MakeDirectory(root_, name_);
}

void WorkDirectory::Remove(Session* session) {
    for (const Entry& entry : session->List(handle_))
        session->Remove(handle_, entry.name, entry.isDirectory ? kRmdir : kRemove);
    session->Remove(root_, name_, kRmdir);
}

std::unique_ptr<Workload> MakeWorkload(const Options& options, const std::string& root) {
    const std::string& operation = options.operation;
    if (operation == "null" || operation == "idle") return std::make_unique<Null>();
    if (operation == "read") return MakeRead(options, root);
    if (operation == "write") return MakeWrite(options, root);
    if (operation == "readdirplus") return MakeListing(options, root);
    if (operation == "mix") return MakeMix(options, root);
    if (operation == "create-remove" || operation == "mkdir-rmdir")
        return std::make_unique<Names>(options, root);
    return std::make_unique<OnFiles>(options, root);
}

}  // namespace bench
