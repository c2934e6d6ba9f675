// SPDX-License-Identifier: Apache-2.0
//
// Keeps a server busy: connections x depth calls in flight, for a time.
#pragma once

#include <memory>
#include <vector>

#include "base/unique_fd.h"
#include "bench/connection.h"
#include "bench/histogram.h"
#include "bench/workload.h"

namespace bench {

int64_t NowNs();

class Load {
  public:
    // Connects all; throws when the server refuses one.
    Load(const Options& options, Workload* workload);
    // Keeps all slots busy for so long, and goes on until all have stopped. Returns the durations
    // of all calls.
    std::unique_ptr<Histogram> Run(double seconds);
    // One call on each connection.
    std::unique_ptr<Histogram> RunOnce();

  private:
    std::unique_ptr<Histogram> Pump(int64_t endNs, unsigned depth);
    void Start(Connection* connection, Slot* slot, int64_t nowNs);
    void Send(Connection* connection);
    void Receive(Connection* connection);

    const Options& options_;
    Workload* const workload_;
    const oxel::UniqueFd poller_;
    std::vector<std::unique_ptr<Connection>> connections_;
    std::unique_ptr<Histogram> durations_;
    int64_t endNs_ = 0;
    size_t inFlight_ = 0;
};

}  // namespace bench
