#include "host/StatusPage.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "foundation/log/Log.h"
#include "host/MonitoringSources.h"

namespace connector {
namespace host {
namespace {

using common_services::kBeyondRange;
using common_services::LatencySnapshot;

// Plot geometry, in SVG user units.
constexpr double kWidth = 480;
constexpr double kHeight = 150;
constexpr double kMargin = 24;
constexpr double kAxis = 20;  // below the plot, for the decade labels

constexpr std::size_t kSlowestShown = 10;  // per statistics provider

constexpr const char* kHead =
    "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
    "<title>connector status</title><style>"
    "body{font-family:sans-serif;margin:1em 2em}table{border-collapse:collapse}"
    "td,th{border:1px solid #999;padding:2px 8px;text-align:right}"
    "td:first-child,td:nth-child(2){text-align:left}svg{display:block;margin-bottom:1em}"
    "</style></head><body>\n<h1>connector status</h1>\n";

std::string formatNanoseconds(std::uint64_t ns) {
  if (ns == kBeyondRange) {
    return "beyond range";
  }
  char text[32];
  if (ns < 1000) {
    std::snprintf(text, sizeof text, "%llu ns", static_cast<unsigned long long>(ns));
  } else if (ns < 1000000) {
    std::snprintf(text, sizeof text, "%.3g us", static_cast<double>(ns) / 1e3);
  } else if (ns < 1000000000) {
    std::snprintf(text, sizeof text, "%.3g ms", static_cast<double>(ns) / 1e6);
  } else {
    std::snprintf(text, sizeof text, "%.3g s", static_cast<double>(ns) / 1e9);
  }
  return text;
}

std::string number(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f", value);
  return text;
}

void appendProviders(std::string& out, const Connector& connector) {
  // getServiceProviderNames() only reads; the framework's interface declares it non-const.
  const std::set<std::string> names = const_cast<Connector&>(connector).getServiceProviderNames();
  out += "<h2>Service providers</h2>\n<ul>";
  for (const std::string& name : names) {
    out += "<li>" + escapeHtml(name) + "</li>";
  }
  out += "</ul>\n<h2>Routes</h2>\n<ul>";
  for (const auto& [address, chain] : connector.getRoutes()) {
    out += "<li>" + escapeHtml(address) + " &rarr;";
    for (const std::string& provider : chain) {
      out += ' ' + escapeHtml(provider);
    }
    out += "</li>";
  }
  out += "</ul>\n";
}

void appendProcessLog(std::string& out) {
  const auto statistics = foundation::log::statistics();
  out += "<h2>Process log</h2>\n<p>destination <code>" + escapeHtml(statistics.destination) +
         "</code>, specification <code>" + escapeHtml(foundation::log::specification()) + "</code>, " +
         std::to_string(statistics.records) + " records, " + std::to_string(statistics.dropped) +
         " dropped</p>\n";
}

// One plot of a type's fine buckets: x is log10 of the latency across whole decades, a bar's
// height is its bucket's count against the fullest bucket's.
void appendPlot(std::string& out, const std::string& title, const LatencySnapshot& latency) {
  const double plotWidth = kWidth - 2 * kMargin;
  const double plotHeight = kHeight - kMargin - kAxis;
  std::uint64_t fullest = 1;
  for (const auto& bucket : latency.buckets) {
    fullest = std::max(fullest, bucket.count);
  }
  double low = 0;
  double high = 1;
  if (!latency.buckets.empty()) {
    low = std::floor(std::log10(std::max<double>(1, latency.buckets.front().lower)));
    high = std::max(low + 1, std::ceil(std::log10(latency.buckets.back().upper)));
  }
  const auto x = [&](double ns) {
    return kMargin + (std::log10(std::max(1.0, ns)) - low) / (high - low) * plotWidth;
  };
  const double bottom = kMargin + plotHeight;

  out += "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" + number(kWidth) + "\" height=\"" +
         number(kHeight) + "\" role=\"img\"><title>" + title + "</title>";
  out += "<line x1=\"" + number(kMargin) + "\" y1=\"" + number(bottom) + "\" x2=\"" +
         number(kWidth - kMargin) + "\" y2=\"" + number(bottom) + "\" stroke=\"#333\"/>";
  for (double decade = low; decade <= high; ++decade) {
    const double at = x(std::pow(10.0, decade));
    out += "<line x1=\"" + number(at) + "\" y1=\"" + number(kMargin) + "\" x2=\"" + number(at) + "\" y2=\"" +
           number(bottom + 4) + "\" stroke=\"#ddd\"/><text x=\"" + number(at) + "\" y=\"" +
           number(kHeight - 4) + "\" font-size=\"10\" text-anchor=\"middle\">" +
           formatNanoseconds(static_cast<std::uint64_t>(std::pow(10.0, decade))) + "</text>";
  }
  for (const auto& bucket : latency.buckets) {
    const double left = x(static_cast<double>(bucket.lower));
    const double width = std::max(1.0, x(static_cast<double>(bucket.upper)) - left);
    const double height = plotHeight * static_cast<double>(bucket.count) / fullest;
    out += "<rect x=\"" + number(left) + "\" y=\"" + number(bottom - height) + "\" width=\"" + number(width) +
           "\" height=\"" + number(height) + "\" fill=\"#4a7ab5\"/>";
  }
  for (const auto& [label, percent, colour] :
       {std::make_tuple("p50", 50.0, "#2a2"), std::make_tuple("p99", 99.0, "#c22")}) {
    const std::uint64_t ns = latency.percentileNanoseconds(percent);
    if (latency.count == 0 || ns == kBeyondRange) {
      continue;
    }
    const double at = x(static_cast<double>(ns));
    out += std::string("<line x1=\"") + number(at) + "\" y1=\"" + number(kMargin) + "\" x2=\"" + number(at) +
           "\" y2=\"" + number(bottom) + "\" stroke=\"" + colour + "\" stroke-dasharray=\"4 2\"/><text x=\"" +
           number(at + 2) + "\" y=\"" + number(kMargin + (percent < 90 ? 10 : 22)) +
           "\" font-size=\"10\" fill=\"" + colour + "\">" + label + " " + formatNanoseconds(ns) + "</text>";
  }
  out += "</svg>\n";
}

// The slowest requests since the commands' last reset, and the requests in flight, oldest first.
void appendRequests(std::string& out, const MonitoringSources& sources) {
  std::string slowest;
  std::string inflight;
  for (const auto& statistics : sources.statistics) {
    if (!statistics) {
      continue;
    }
    const std::string provider = "<tr><td>" + escapeHtml(statistics->name()) + "</td><td>";
    for (const auto& r : statistics->slowest(kSlowestShown)) {
      slowest += provider + escapeHtml(r.type) + "</td><td>" + std::to_string(r.thread) + "</td><td>" +
                 std::to_string(r.request) + "</td><td>" + formatNanoseconds(r.elapsedNanoseconds) +
                 "</td><td>" + escapeHtml(r.outcome) + "</td></tr>\n";
    }
    for (const auto& r : statistics->inflight()) {
      inflight += provider + escapeHtml(r.type) + "</td><td>" + std::to_string(r.thread) + "</td><td>" +
                  std::to_string(r.request) + "</td><td>" + formatNanoseconds(r.ageNanoseconds) +
                  "</td></tr>\n";
    }
  }
  out +=
      "<h2>Slowest requests</h2>\n<table><tr><th>provider</th><th>type</th><th>thread</th>"
      "<th>request</th><th>elapsed</th><th>outcome</th></tr>\n" +
      slowest +
      "</table>\n<h2>Requests in flight</h2>\n<table><tr><th>provider</th><th>type</th>"
      "<th>thread</th><th>request</th><th>age</th></tr>\n" +
      inflight + "</table>\n";
}

void appendStatistics(std::string& out, const MonitoringSources& sources) {
  std::vector<std::pair<std::string, std::vector<common_services::StatisticsServiceProvider::TypeSnapshot>>>
      providers;
  for (const auto& statistics : sources.statistics) {
    if (statistics) {
      providers.emplace_back(statistics->name(), statistics->snapshot());
    }
  }
  out +=
      "<h2>Requests per message type</h2>\n<table><tr><th>provider</th><th>type</th>"
      "<th>succeeded</th><th>failed</th><th>in flight</th><th>p50</th><th>p99</th>"
      "<th>max</th></tr>\n";
  for (const auto& [provider, types] : providers) {
    for (const auto& t : types) {
      out += "<tr><td>" + escapeHtml(provider) + "</td><td>" + escapeHtml(t.type) + "</td><td>" +
             std::to_string(t.succeeded) + "</td><td>" + std::to_string(t.failed) + "</td><td>" +
             std::to_string(t.inflight) + "</td><td>" +
             formatNanoseconds(t.latency.percentileNanoseconds(50)) + "</td><td>" +
             formatNanoseconds(t.latency.percentileNanoseconds(99)) + "</td><td>" +
             formatNanoseconds(t.latency.maxNanoseconds) + "</td></tr>\n";
    }
  }
  out += "</table>\n";
  appendRequests(out, sources);
  out += "<h2>Latency distributions</h2>\n";
  for (const auto& [provider, types] : providers) {
    for (const auto& t : types) {
      const std::string title = escapeHtml(provider) + ": " + escapeHtml(t.type);
      out += "<h3>" + title + "</h3>\n";
      if (t.latency.overflow != 0) {
        out += "<p>" + std::to_string(t.latency.overflow) + " beyond the plotted range</p>\n";
      }
      appendPlot(out, title, t.latency);
    }
  }
}

}  // namespace

std::string escapeHtml(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (const char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      case '\'':
        out += "&#39;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

std::string renderStatusPage(const MonitoringSources& sources) {
  std::string out = kHead;
  if (sources.connector) {
    appendProviders(out, *sources.connector);
  }
  appendProcessLog(out);
  appendStatistics(out, sources);
  out += "</body></html>\n";
  return out;
}

}  // namespace host
}  // namespace connector
