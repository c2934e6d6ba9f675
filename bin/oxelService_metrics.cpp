// SPDX-License-Identifier: Apache-2.0
//
// Which figures there are: calls, what makes them wait, and who is connected. They are read from
// the same account as oxelctl's, when somebody asks for them.
#include "bin/oxelService_metrics.h"

#include <prometheus/metric_family.h>
#include <prometheus/text_serializer.h>

#include <algorithm>
#include <limits>
#include <map>
#include <sstream>
#include <utility>
#include <vector>

#include "backend/export_registry.h"
#include "backend/share_set.h"
#include "bin/oxelService.h"
#include "bin/oxelService_account.h"
#include "bin/oxelService_callinfo.h"
#include "bin/oxelService_connection.h"
#include "bin/oxelService_limits.h"
#include "bin/version.h"

using prometheus::ClientMetric;
using prometheus::MetricFamily;
using prometheus::MetricType;

namespace {

using Labels = std::vector<ClientMetric::Label>;

// The histograms' bounds: powers of four from 16 us to 17 s.
constexpr unsigned kFirstBound = 14, kLastBound = 34, kBoundStep = 2;
static_assert(kFirstBound >= oxel::LatencyReading::kFirstOctave &&
              kLastBound <= oxel::LatencyReading::kLastOctave);

double Seconds(uint64_t nanoseconds) {
    return static_cast<double>(nanoseconds) / 1e9;
}

class Figures {
  public:
    // The families, in the order in which they were begun.
    std::string Text() const {
        std::ostringstream text;
        prometheus::TextSerializer().Serialize(text, families_);
        return text.str();
    }

    void Begin(const char* name, const char* help, MetricType type) {
        families_.push_back({std::string("oxelnfsd_") + name, help, type, {}});
    }
    void Add(Labels labels, double value) {
        ClientMetric& metric = New(std::move(labels));
        if (families_.back().type == MetricType::Counter)
            metric.counter.value = value;
        else
            metric.gauge.value = value;
    }
    void Add(Labels labels, uint64_t value) { Add(std::move(labels), static_cast<double>(value)); }
    void Add(Labels labels, const oxel::LatencyReading& latency) {
        ClientMetric::Histogram& histogram = New(std::move(labels)).histogram;
        histogram.sample_count = latency.count;
        histogram.sample_sum = Seconds(latency.nanoseconds);
        for (unsigned bound = kFirstBound; bound <= kLastBound; bound += kBoundStep)
            histogram.bucket.push_back({latency.CountBelow(bound), Seconds(uint64_t{1} << bound)});
        histogram.bucket.push_back({latency.count, std::numeric_limits<double>::infinity()});
    }
    // A family of one figure without labels.
    void Gauge(const char* name, const char* help, uint64_t value) {
        Begin(name, help, MetricType::Gauge);
        Add({}, value);
    }

  private:
    ClientMetric& New(Labels labels) {
        ClientMetric& metric = families_.back().metric.emplace_back();
        metric.label = std::move(labels);
        return metric;
    }

    std::vector<MetricFamily> families_;
};

Labels LabelsOf(const ProcedureReading& one) {
    return {{"program", one.program == RpcProgram::kNfs ? "NFS" : "MOUNT"},
            {"procedure", one.procedure},
            {"share", oxel::RegistryPathText(one.sharePath)}};
}

void AddCalls(Figures& figures) {
    const std::vector<ProcedureReading> all = ReadProcedures();
    figures.Begin("call_duration_seconds",
                  "Time from a call's dispatching until its reply is encoded.",
                  MetricType::Histogram);
    for (const ProcedureReading& one : all) figures.Add(LabelsOf(one), one.meter.latency);

    figures.Begin("call_errors_total", "Calls that were answered with a status other than OK.",
                  MetricType::Counter);
    for (const ProcedureReading& one : all)
        for (const auto& [status, count] : one.meter.errors) {
            Labels labels = LabelsOf(one);
            labels.push_back({"status", status});
            figures.Add(std::move(labels), count);
        }

    std::map<std::string, MeterReading> shares;
    for (const ProcedureReading& one : all)
        if (one.shareId != 0) shares[oxel::RegistryPathText(one.sharePath)].Add(one.meter);
    figures.Begin("read_bytes_total", "Data in replies to READ.", MetricType::Counter);
    for (const auto& [path, meter] : shares) figures.Add({{"share", path}}, meter.bytesRead);
    figures.Begin("written_bytes_total", "Data that WRITE has taken.", MetricType::Counter);
    for (const auto& [path, meter] : shares) figures.Add({{"share", path}}, meter.bytesWritten);

    figures.Begin("rejected_calls_total", "Calls that no procedure has seen, by reason.",
                  MetricType::Counter);
    for (const auto& [reason, count] : ReadRejections()) figures.Add({{"reason", reason}}, count);
}

void AddSaturation(Figures& figures) {
    const size_t records = gCallInfoPool.Total();
    figures.Gauge("call_records", "Call records: so many calls can be under way.", records);
    figures.Gauge("call_records_in_use", "Call records of calls that are under way.",
                  records - gCallInfoPool.Free());
    figures.Begin("call_record_wait_seconds",
                  "Time that calls have waited for a call record; only those that had to.",
                  MetricType::Histogram);
    figures.Add({}, gCallInfoPool.Waits());
    figures.Gauge("handler_threads", "Threads that handle calls, as many as there are now.",
                  gWorkerPool.threadCount());
    figures.Begin("queued", "Calls and replies that wait for a thread.", MetricType::Gauge);
    figures.Add({{"queue", "handlers"}}, uint64_t{gWorkerPool.queued()});
    figures.Add({{"queue", "senders"}}, uint64_t{gRPCSendPool.queued()});
}

void AddConnections(Figures& figures) {
    figures.Gauge("connections", "Connections that are open.", Connection::Count());
    if (!gHardened) return;
    figures.Begin("connections_ended_total", "Connections that have ended, by reason.",
                  MetricType::Counter);
    for (const auto& [reason, count] : EndCounts()) figures.Add({{"reason", reason}}, count);
}

void AddClients(Figures& figures, bool perClient) {
    figures.Gauge("clients", "Addresses that have connections.", ConnectedClients());
    figures.Begin("oldest_call_seconds", "Age of the oldest call that is under way.",
                  MetricType::Gauge);
    figures.Add({}, Seconds(ReadOldestCall()));
    if (!perClient) return;
    const std::vector<ClientReading> clients = ReadClients();
    const auto add = [&](const char* name, const char* help, auto value) {
        figures.Begin(name, help, MetricType::Counter);
        for (const ClientReading& one : clients)
            figures.Add({{"client", one.address}}, value(one.meter));
    };
    add("client_calls_total", "Calls, by client.", [](const auto& meter) { return meter.Calls(); });
    add("client_errors_total", "Calls that were answered with a status other than OK, by client.",
        [](const auto& meter) { return meter.Errors(); });
    add("client_read_bytes_total", "Data in replies to READ, by client.",
        [](const auto& meter) { return meter.bytesRead; });
    add("client_written_bytes_total", "Data that WRITE has taken, by client.",
        [](const auto& meter) { return meter.bytesWritten; });
    add("client_call_seconds_total", "Time that calls have taken, by client.",
        [](const auto& meter) { return Seconds(meter.latency.nanoseconds); });
}

}  // namespace

std::string MetricsText(bool perClient) {
    Figures figures;
    figures.Begin("build_info", "The daemon's version; always 1.", MetricType::Gauge);
    figures.Add({{"version", kOxelVersion}, {"hardened", gHardened ? "yes" : "no"}}, uint64_t{1});
    figures.Gauge("start_time_seconds", "When the network services started, since the epoch.",
                  OxelServiceGlobals::serverStartTime);
    figures.Gauge("shares", "Shares that are served.", oxel::gShareSet.All().size());
    AddCalls(figures);
    AddSaturation(figures);
    AddConnections(figures);
    AddClients(figures, perClient);
    return figures.Text();
}
