// SPDX-License-Identifier: Apache-2.0
//
// The daemon's figures for a monitoring system: Prometheus' text format over HTTP, on the loopback
// address only.
#pragma once

#include <cstdint>
#include <string>

// Serves the figures when "nMetricsPort" says where. A port that cannot be had is logged and the
// daemon goes on without. Once, at the start.
void StartMetrics();

// All figures as they are now. `perClient`: also by client, whose number nobody bounds. Any thread.
std::string MetricsText(bool perClient);
