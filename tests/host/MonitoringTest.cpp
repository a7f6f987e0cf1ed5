// The monitoring renderers: the Prometheus exposition and the HTML status page.
#include <map>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "host/AdminServer.h"
#include "host/CommandRegistry.h"
#include "host/Connector.h"
#include "host/Metrics.h"
#include "host/MonitoringSources.h"
#include "host/StatusPage.h"
#include "services/EchoServiceProvider.h"
#include "tests/support/AdminPeer.h"
#include "tests/support/FakeContext.h"
#include "tests/support/TempDirectory.h"

namespace connector {
namespace {

using host::ProviderStatistics;
using ::testing::AllOf;
using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::Not;
using Type = common_services::StatisticsServiceProvider::TypeSnapshot;
using Sample = std::map<std::string, std::string>;  // label -> value; "" -> name, "=" -> value

// Reads one sample line of the text format, undoing the label-value escapes; throws on anything
// the format does not allow there.
Sample parseSample(const std::string& line) {
  Sample sample;
  std::size_t i = line.find_first_of("{ ");
  sample[""] = line.substr(0, i);
  if (line.at(i) == '{') {
    while (line.at(++i) != '}') {
      const std::size_t equals = line.find("=\"", i);
      std::string& value = sample[line.substr(i, equals - i)];
      for (i = equals + 2; line.at(i) != '"'; ++i) {
        if (line[i] == '\n')
          throw std::runtime_error("raw line feed in " + line);
        if (line[i] != '\\') {
          value += line[i];
          continue;
        }
        const char escaped = line.at(++i);
        if (escaped != '\\' && escaped != '"' && escaped != 'n')
          throw std::runtime_error(line);
        value += escaped == 'n' ? '\n' : escaped;
      }
      if (line.at(i + 1) == ',')
        ++i;
    }
    ++i;
  }
  if (line.at(i) != ' ')
    throw std::runtime_error("no value in " + line);
  sample["="] = line.substr(i + 1);
  return sample;
}

std::vector<Sample> samples(const std::string& exposition, const std::string& name) {
  std::vector<Sample> found;
  std::size_t start = 0;
  for (std::size_t end; (end = exposition.find('\n', start)) != std::string::npos; start = end + 1) {
    const std::string line = exposition.substr(start, end - start);
    if (line.rfind('#', 0) != 0 && parseSample(line)[""] == name)
      found.push_back(parseSample(line));
  }
  return found;
}

// Whatever bytes a type name holds, the exposition stays parseable and reads it back exactly.
TEST(Metrics, LabelValuesReadBackExactlyWhateverTheTypeName) {
  std::mt19937 random(7);
  ProviderStatistics provider{"stats", {}};
  for (int i = 0; i < 300; ++i) {
    Type type;
    for (int n = random() % 12; n > 0; --n)
      type.type += static_cast<char>(1 + random() % 255);
    type.type += "Box<std::map<int, \"a\\b\">>\n" + std::to_string(i);
    provider.types.push_back(type);
  }
  const auto read = samples(host::renderRequestMetrics({provider}, {}), "connector_requests_in_flight");
  ASSERT_EQ(read.size(), provider.types.size());
  for (std::size_t i = 0; i < read.size(); ++i)
    EXPECT_EQ(read[i].at("type"), provider.types[i].type);
}

// A fine bucket counts into every bound that its largest latency does not exceed, the overflow
// into +Inf alone; so buckets are cumulative and +Inf equals _count. The sum is in seconds.
TEST(Metrics, BucketsAreCumulativeAndEndInInfEqualToCount) {
  Type type{"T", 15, 0, 0, {}};
  type.latency.count = 15;
  type.latency.overflow = 8;
  type.latency.sumNanoseconds = 1'500'000'000;
  type.latency.buckets = {{999, 1000, 1}, {1000, 1001, 2}, {1001, 1002, 4}};
  host::MetricsOptions options{{1e-6, 2.5e-6}};
  const std::string exposition = host::renderRequestMetrics({{"stats", {type}}}, options);
  std::string read;
  for (const Sample& bucket : samples(exposition, "connector_request_duration_seconds_bucket"))
    read += bucket.at("le") + "=" + bucket.at("=") + " ";
  EXPECT_EQ(read, "1e-06=3 2.5e-06=7 +Inf=15 ");
  EXPECT_EQ(samples(exposition, "connector_request_duration_seconds_sum").at(0).at("="), "1.5");
}

// Bounds an embedder passes must be positive, finite and strictly ascending.
TEST(Metrics, RefusesBoundsNotPositiveOrOutOfOrder) {
  EXPECT_THROW(host::renderRequestMetrics({}, {{0.0, 1e-3}}), std::invalid_argument);
  EXPECT_THROW(host::renderRequestMetrics({}, {{1e-3, 1e-3}}), std::invalid_argument);
}

template <typename T>
struct Held : Message {};

// Every text from the process shows as text, never as markup; a request held in flight is listed
// until it completes, then it is among the slowest, with its outcome.
TEST(StatusPage, ShowsProcessTextsAsTextAndARequestInFlightThenAmongTheSlowest) {
  auto connector = std::make_shared<host::Connector>();
  connector->addServiceProvider("Box<script>", std::make_shared<common_services::EchoServiceProvider>());
  auto statistics = std::make_shared<common_services::StatisticsServiceProvider>(nullptr, "stats");
  host::MonitoringSources sources;
  sources.connector = connector;
  sources.statistics = {statistics};
  Promise<std::unique_ptr<Message>> held;
  statistics->deliver(std::make_unique<Held<int>>(), {},
                      std::make_shared<test_support::FakeContext>([&](auto&&) { return held.getFuture(); }));
  const std::string page = host::renderStatusPage(sources);
  const std::string row = "<tr><td>stats</td><td>[^<]*Held&lt;int&gt;</td><td>0</td><td>1</td><td>[^<]+</td>";
  EXPECT_THAT(page, ContainsRegex("in flight</h2>\n<table>[^\n]*\n" + row));
  EXPECT_THAT(page, AllOf(HasSubstr("<li>Box&lt;script&gt;</li>"), Not(HasSubstr("<script"))));
  held.resolve(std::make_unique<Held<int>>());
  EXPECT_THAT(host::renderStatusPage(sources),
              ContainsRegex("Slowest requests</h2>\n<table>[^\n]*\n" + row +
                            "<td>ok</td></tr>\n</table>\n"
                            "<h2>Requests in flight</h2>\n<table>[^\n]*\n</table>"));
}

// The administration endpoint counts each connection it accepts and each command by its outcome.
TEST(AdminServerActivity, CountsConnectionsAndCommandsByOutcome) {
  test_support::TempDirectory directory;
  host::AdminServer server(std::make_shared<host::CommandRegistry>(), directory / "admin.sock");
  {
    test_support::AdminPeer peer(server.socketPath());
    for (const char* command : {"help", "no.such.command", "help"})
      peer.call(command);
  }
  EXPECT_EQ(server.activity().connections, 1u);
  EXPECT_EQ(server.activity().commandsSucceeded, 2u);
  EXPECT_EQ(server.activity().commandsFailed, 1u);
}

}  // namespace
}  // namespace connector
