// SPDX-License-Identifier: Apache-2.0
//
// What a load calls and what it expects: the next call of a slot, and the check of its reply.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "bench/connection.h"
#include "bench/histogram.h"
#include "bench/options.h"
#include "bench/session.h"
#include "bench/wire.h"

namespace bench {

struct Counters {
    uint64_t bytes = 0;     // of files, read or written
    uint64_t verified = 0;  // bytes that were compared
    uint64_t entries = 0;   // of directories
    Histogram listings;     // durations of whole listings
};

class Workload {
  public:
    virtual ~Workload() = default;
    // Looks up and makes what the calls need.
    virtual void Prepare(Session*) {}
    // Builds the slot's next call.
    virtual void Next(Slot* slot) = 0;
    // Throws when the result is not what it has to be.
    virtual void Check(Slot* slot, Reader* reply, int64_t nowNs) = 0;
    // Whether the slot may stop here; false in the middle of several calls that belong together.
    virtual bool MayStop(const Slot&) const { return true; }
    // Checks and removes what is left behind.
    virtual void Finish(Session*) {}
    // How much of a reply it looks at.
    virtual size_t BytesKept() const { return SIZE_MAX; }

    Counters counters;
};

// `root` is the handle of the share's root.
std::unique_ptr<Workload> MakeWorkload(const Options& options, const std::string& root);
// The kinds that have files of their own.
std::unique_ptr<Workload> MakeListing(const Options& options, const std::string& root);
std::unique_ptr<Workload> MakeMix(const Options& options, const std::string& root);
std::unique_ptr<Workload> MakeRead(const Options& options, const std::string& root);
std::unique_ptr<Workload> MakeWrite(const Options& options, const std::string& root);

// A directory of the run's own below the share's root.
class WorkDirectory {
  public:
    void Make(Session* session, const std::string& root);
    void Remove(Session* session);
    const std::string& Handle() const { return handle_; }

  private:
    std::string root_, name_, handle_;
};

// Picks out of 0 .. count-1. The same sequence in every run, so that all servers get the same.
class Picker {
  public:
    size_t Below(size_t count) { return static_cast<size_t>((uint64_t{engine_()} * count) >> 32); }

  private:
    std::mt19937 engine_{1};  // NOLINT(cert-msc51-cpp): the same in every run
};

}  // namespace bench
