#include "host/Metrics.h"

#include <charconv>
#include <cmath>
#include <cstdint>
#include <initializer_list>
#include <iterator>
#include <stdexcept>
#include <string_view>
#include <tuple>
#include <utility>

#include "foundation/log/Log.h"
#include "host/MonitoringSources.h"

namespace connector {
namespace host {
namespace {

using Labels = std::initializer_list<std::pair<std::string_view, std::string_view>>;

// The shortest text that reads back as the same double, as the format's float values allow.
std::string formatDouble(double value) {
  if (std::isinf(value)) {
    return value > 0 ? "+Inf" : "-Inf";
  }
  char text[32];
  const auto result = std::to_chars(text, text + sizeof text, value);
  return std::string(text, result.ptr);
}

// Label values escape backslash, double quote and line feed; HELP texts escape backslash and
// line feed only.
void appendEscaped(std::string& out, std::string_view text, bool quote) {
  for (const char c : text) {
    if (c == '\\') {
      out += "\\\\";
    } else if (c == '\n') {
      out += "\\n";
    } else if (c == '"' && quote) {
      out += "\\\"";
    } else {
      out += c;
    }
  }
}

class Exposition {
 public:
  void family(std::string_view name, std::string_view type, std::string_view help) {
    out_ += "# HELP ";
    out_ += name;
    out_ += ' ';
    appendEscaped(out_, help, false);
    out_ += "\n# TYPE ";
    out_ += name;
    out_ += ' ';
    out_ += type;
    out_ += '\n';
  }

  void sample(std::string_view name, Labels labels, std::string_view value, std::string_view le = {}) {
    out_ += name;
    const char* separator = "{";
    for (const auto& [label, text] : labels) {
      out_ += separator;
      out_ += label;
      out_ += "=\"";
      appendEscaped(out_, text, true);
      out_ += '"';
      separator = ",";
    }
    if (!le.empty()) {
      out_ += separator;
      out_ += "le=\"";
      out_ += le;
      out_ += '"';
    }
    if (labels.size() != 0 || !le.empty()) {
      out_ += '}';
    }
    out_ += ' ';
    out_ += value;
    out_ += '\n';
  }

  void sample(std::string_view name, Labels labels, std::uint64_t value) {
    sample(name, labels, std::to_string(value));
  }

  std::string take() { return std::move(out_); }

 private:
  std::string out_;
};

void checkBounds(const std::vector<double>& bounds) {
  for (std::size_t i = 0; i < bounds.size(); ++i) {
    const double bound = bounds[i];
    if (!std::isfinite(bound) || bound <= 0 || (i > 0 && bound <= bounds[i - 1])) {
      throw std::invalid_argument("metrics: latency bound " + formatDouble(bound) + " (number " +
                                  std::to_string(i + 1) +
                                  ") is not allowed; give finite, positive seconds in strictly "
                                  "ascending order (+Inf is added by itself)");
    }
  }
}

void appendRequests(Exposition& out, const std::vector<ProviderStatistics>& providers,
                    const std::vector<double>& bounds) {
  out.family("connector_requests_total", "counter",
             "Requests completed per statistics provider and message type, by outcome.");
  for (const ProviderStatistics& p : providers) {
    for (const auto& t : p.types) {
      out.sample("connector_requests_total",
                 {{"provider", p.provider}, {"type", t.type}, {"outcome", "succeeded"}}, t.succeeded);
      out.sample("connector_requests_total",
                 {{"provider", p.provider}, {"type", t.type}, {"outcome", "failed"}}, t.failed);
    }
  }
  out.family("connector_requests_in_flight", "gauge",
             "Requests delivered and not yet completed, per provider and message type.");
  for (const ProviderStatistics& p : providers) {
    for (const auto& t : p.types) {
      out.sample("connector_requests_in_flight", {{"provider", p.provider}, {"type", t.type}}, t.inflight);
    }
  }

  std::vector<std::string> les;
  std::vector<std::uint64_t> nanoseconds;
  for (const double bound : bounds) {
    les.push_back(formatDouble(bound));
    nanoseconds.push_back(static_cast<std::uint64_t>(std::llround(bound * 1e9)));
  }
  out.family("connector_request_duration_seconds", "histogram",
             "Latency of completed requests, failures included, per provider and message type.");
  for (const ProviderStatistics& p : providers) {
    for (const auto& t : p.types) {
      const Labels labels = {{"provider", p.provider}, {"type", t.type}};
      // A fine bucket's largest latency is upper - 1 ns; it counts from the first bound that
      // reaches it.
      std::uint64_t cumulative = 0;
      auto bucket = t.latency.buckets.begin();
      for (std::size_t i = 0; i < bounds.size(); ++i) {
        for (; bucket != t.latency.buckets.end() && bucket->upper - 1 <= nanoseconds[i]; ++bucket) {
          cumulative += bucket->count;
        }
        out.sample("connector_request_duration_seconds_bucket", labels, std::to_string(cumulative), les[i]);
      }
      out.sample("connector_request_duration_seconds_bucket", labels, std::to_string(t.latency.count),
                 "+Inf");
      out.sample("connector_request_duration_seconds_sum", labels,
                 formatDouble(static_cast<double>(t.latency.sumNanoseconds) / 1e9));
      out.sample("connector_request_duration_seconds_count", labels, t.latency.count);
    }
  }
}

// An access-log provider has no name of its own to show; it is numbered from 1 in the order the
// sources list them.
void appendAccessLogs(Exposition& out, const MonitoringSources& sources) {
  std::vector<common_services::AccessLogServiceProvider::LineCounts> counts;
  for (const auto& log : sources.accessLogs) {
    if (log) {
      counts.push_back(log->lineCounts());
    }
  }
  if (counts.empty()) {
    return;
  }
  out.family("connector_access_log_lines_selected_total", "counter",
             "Access-log lines chosen by the selection settings.");
  for (std::size_t i = 0; i < counts.size(); ++i) {
    out.sample("connector_access_log_lines_selected_total", {{"access_log", std::to_string(i + 1)}},
               counts[i].selected);
  }
  out.family("connector_access_log_lines_total", "counter",
             "Selected access-log lines by what became of them: written to the destination, "
             "dropped on a full queue, or failed at the destination.");
  for (std::size_t i = 0; i < counts.size(); ++i) {
    const std::string index = std::to_string(i + 1);
    out.sample("connector_access_log_lines_total", {{"access_log", index}, {"outcome", "written"}},
               counts[i].written);
    out.sample("connector_access_log_lines_total", {{"access_log", index}, {"outcome", "dropped"}},
               counts[i].dropped);
    out.sample("connector_access_log_lines_total", {{"access_log", index}, {"outcome", "failed"}},
               counts[i].failed);
  }
}

void appendProcessLog(Exposition& out) {
  const foundation::log::statistics_snapshot log = foundation::log::statistics();
  static constexpr const char* kLevels[] = {"trace", "debug", "info", "warn", "error", "critical"};
  static_assert(std::size(kLevels) == std::tuple_size_v<decltype(log.records_by_level)>);
  out.family("connector_log_records_total", "counter",
             "Process-log records passed to a destination, by level.");
  for (std::size_t i = 0; i < std::size(kLevels); ++i) {
    out.sample("connector_log_records_total", {{"level", kLevels[i]}}, log.records_by_level[i]);
  }
  out.family("connector_log_dropped_records_total", "counter",
             "Process-log records dropped by a full async queue.");
  out.sample("connector_log_dropped_records_total", {}, log.dropped);
  out.family("connector_log_queued_records", "gauge",
             "Process-log records waiting in the async queue of the destination in force.");
  out.sample("connector_log_queued_records", {}, log.queued);
  out.family("connector_log_rotations_total", "counter",
             "Files that \"rotating:\" destinations of the process log rotated.");
  out.sample("connector_log_rotations_total", {}, log.rotations);
  out.family("connector_log_reopens_total", "counter",
             "Successful reopenings of the process log's file (after an outside rotation).");
  out.sample("connector_log_reopens_total", {}, log.reopens);
}

void appendAdmin(Exposition& out, const AdminServer& admin) {
  const AdminServer::ActivityCounts activity = admin.activity();
  out.family("connector_admin_connections_total", "counter",
             "Connections the administration endpoint accepted, refused ones included.");
  out.sample("connector_admin_connections_total", {}, activity.connections);
  out.family("connector_admin_commands_total", "counter",
             "Commands the administration endpoint ran, by outcome.");
  out.sample("connector_admin_commands_total", {{"outcome", "succeeded"}}, activity.commandsSucceeded);
  out.sample("connector_admin_commands_total", {{"outcome", "failed"}}, activity.commandsFailed);
  const AdminServer::RefusalCounts refusals = admin.refusals();
  out.family("connector_admin_refusals_total", "counter",
             "Administration-endpoint requests and connections refused, by reason.");
  out.sample("connector_admin_refusals_total", {{"reason", "line_too_long"}}, refusals.lineTooLong);
  out.sample("connector_admin_refusals_total", {{"reason", "not_text"}}, refusals.notText);
  out.sample("connector_admin_refusals_total", {{"reason", "too_many_connections"}},
             refusals.tooManyConnections);
  out.sample("connector_admin_refusals_total", {{"reason", "foreign_peer"}}, refusals.foreignPeer);
}

}  // namespace

std::vector<double> defaultLatencyBounds() {
  return {1e-6, 2.5e-6, 5e-6,   1e-5, 2.5e-5, 5e-5, 1e-4, 2.5e-4, 5e-4, 1e-3, 2.5e-3,
          5e-3, 1e-2,   2.5e-2, 5e-2, 0.1,    0.25, 0.5,  1,      2.5,  5,    10};
}

std::string renderRequestMetrics(const std::vector<ProviderStatistics>& providers,
                                 const MetricsOptions& options) {
  checkBounds(options.latencyBounds);
  Exposition out;
  appendRequests(out, providers, options.latencyBounds);
  return out.take();
}

std::string renderMetrics(const MonitoringSources& sources, const MetricsOptions& options) {
  checkBounds(options.latencyBounds);
  std::vector<ProviderStatistics> providers;
  for (const auto& statistics : sources.statistics) {
    if (statistics) {
      providers.push_back({statistics->name(), statistics->snapshot()});
    }
  }
  Exposition out;
  appendRequests(out, providers, options.latencyBounds);
  appendAccessLogs(out, sources);
  appendProcessLog(out);
  if (sources.admin) {
    appendAdmin(out, *sources.admin);
  }
  out.family("connector_build_info", "gauge", "The library's version; always 1.");
  out.sample("connector_build_info", {{"version", sources.version}}, 1);
  return out.take();
}

}  // namespace host
}  // namespace connector
