// The host's status page for a person, served by the HTTP endpoint's "GET /": one self-contained
// HTML document (no script, and no style, font or image fetched from elsewhere) holding
//   - the service providers added to the connector and its routes,
//   - the process log's destination and specification,
//   - one table row per statistics provider and message type: completed, failed, in flight,
//     p50, p99 and maximum latency,
//   - per statistics provider, its 10 slowest requests since NAME.statistics.reset last ran
//     (type, thread, request, latency, outcome) and every request in flight, oldest first, with
//     its age,
//   - one inline SVG plot per message type of its latency distribution, on a log-scaled time
//     axis, with p50 and p99 marked.
// The figures are the same cumulative snapshots that /metrics exports. Every text that comes from
// the process (type names, provider names, addresses, log settings) is HTML-escaped, so a message
// type named `Box<script>` shows as text. A pure function of the sources; any thread.
#pragma once

#include <string>
#include <string_view>

namespace connector {
namespace host {

struct MonitoringSources;

// `text` with &, <, >, " and ' replaced by their character references.
std::string escapeHtml(std::string_view text);

std::string renderStatusPage(const MonitoringSources& sources);

}  // namespace host
}  // namespace connector
