// The host's figures in the Prometheus text exposition format, version 0.0.4, for the HTTP
// endpoint's "GET /metrics" and for embedders that serve them their own way.
//
// Every value is cumulative since the process (or the object counted) started: the statistics
// provider's snapshot() is not zeroed by NAME.statistics.reset, so rate() and
// histogram_quantile() never see a false reset. Families, all prefixed "connector_", in base units
// (seconds), counters ending in "_total", each with its HELP and TYPE lines:
//   connector_requests_total{provider,type,outcome="succeeded"|"failed"}        counter
//   connector_requests_in_flight{provider,type}                                  gauge
//   connector_request_duration_seconds{provider,type,le}  _bucket _sum _count    histogram
//   connector_access_log_requests_total{access_log,outcome="selected"|"selected_out"} counter
//   connector_access_log_lines_total{access_log,outcome="written"|"dropped"|"failed"} counter
//   connector_log_records_total{level}                                           counter
//   connector_log_dropped_records_total, connector_log_rotations_total,
//   connector_log_reopens_total                                                  counter
//   connector_log_queued_records                                                 gauge
//   connector_admin_connections_total                                            counter
//   connector_admin_commands_total{outcome="succeeded"|"failed"}                 counter
//   connector_admin_refusals_total{reason}                                       counter
//   connector_build_info{version} 1                                              gauge
// An access log is labelled by its place in MonitoringSources::accessLogs, from 1. A label value
// holds any bytes: backslash, double quote and line feed are escaped as the format
// asks, so a C++ type name such as `Box<std::string, "a\b">` stays valid exposition.
//
// The histogram's `le` bounds are read off the provider's fine latency buckets: a fine bucket
// counts into every bound at or above the largest latency it can hold, and the overflow bucket
// into +Inf alone, so every bucket is cumulative and +Inf equals _count. Pure functions of their
// arguments; any thread.
#pragma once

#include <string>
#include <vector>

#include "services/StatisticsServiceProvider.h"

namespace connector {
namespace host {

struct MonitoringSources;

// The default `le` bounds in seconds, from 1 us to 10 s, 1-2.5-5 per decade: the latencies of an
// in-process framework start at microseconds, where the usual web defaults (5 ms up) see nothing.
std::vector<double> defaultLatencyBounds();

struct MetricsOptions {
  // Finite, positive and strictly ascending; +Inf is always added. The renderers throw
  // std::invalid_argument otherwise.
  std::vector<double> latencyBounds = defaultLatencyBounds();
};

// One statistics provider's figures, as its snapshot() gives them.
struct ProviderStatistics {
  std::string provider;
  std::vector<common_services::StatisticsServiceProvider::TypeSnapshot> types;
};

// The request families (requests_total, requests_in_flight, request_duration_seconds) of the
// providers given. Throws std::invalid_argument, naming the bound, for bounds as refused above.
std::string renderRequestMetrics(const std::vector<ProviderStatistics>& providers,
                                 const MetricsOptions& options);

// Every family above, of what `sources` offers.
std::string renderMetrics(const MonitoringSources& sources, const MetricsOptions& options);

}  // namespace host
}  // namespace connector
