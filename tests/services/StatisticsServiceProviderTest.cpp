// The statistics provider: histogram edges and percentiles, the slowest list, per-type counts,
// requests in flight, and its commands.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "services/StatisticsServiceProvider.h"
#include "services/detail/LatencyHistogram.h"
#include "services/detail/SlowestRequests.h"
#include "tests/support/FakeAdministration.h"
#include "tests/support/FakeContext.h"
#include "tests/support/HiddenNumbers.h"

namespace connector {
namespace {

using common_services::StatisticsServiceProvider;
using namespace common_services::detail;
using test_support::FakeAdministration;
using test_support::FakeContext;
using test_support::hideNumbers;
using test_support::MessagePtr;

namespace shop {
struct Order : Message {};
struct Ping : Message {};
}  // namespace shop

constexpr const char* kOrder = "connector::(anonymous namespace)::shop::Order";
constexpr const char* kPing = "connector::(anonymous namespace)::shop::Ping";

TEST(LatencyHistogram, BucketsArePowersOfTwoMicrosecondsWithAnOverflow) {
  const std::vector<std::pair<std::uint64_t, std::size_t>> edges = {
      {0, 0},         {1, 1},     {2, 2}, {3, 2}, {4, 3}, {1023, 10}, {1024, 11}, {(1u << 26) - 1, 26},
      {1u << 26, 27}, {~0ull, 27}};
  for (const auto& edge : edges) {
    EXPECT_EQ(latencyBucket(edge.first), edge.second) << edge.first << " us";
  }
}

TEST(LatencyHistogram, PercentilesAreTheBoundOfTheirBucketCappedByTheMaximum) {
  LatencyCounts counts{};
  counts[latencyBucket(3)] = 50;    // [2, 4)
  counts[latencyBucket(100)] = 40;  // [64, 128)
  counts[latencyBucket(1000)] = 9;  // [512, 1024)
  counts[latencyBucket(5000)] = 1;  // [4096, 8192)
  const LatencySummary summary = summarizeLatencies(counts, 5000);
  EXPECT_EQ(summary.count, 100u);
  EXPECT_EQ(summary.p50, 4u);
  EXPECT_EQ(summary.p90, 128u);
  EXPECT_EQ(summary.p99, 1024u);
  EXPECT_EQ(summary.max, 5000u);
  LatencyCounts slowOnly{};
  slowOnly[kOverflowBucket] = 1;
  EXPECT_EQ(summarizeLatencies(slowOnly, 90000000).p50, 90000000u);
  EXPECT_EQ(summarizeLatencies(LatencyCounts{}, 0).p99, 0u);
}

// Slowest first; the fastest kept leaves for a slower one; a tie keeps the earlier request.
TEST(SlowestRequestsList, KeepsTheSlowestInOrderAndEvictsTheFastest) {
  SlowestRequests slowest(3);
  for (const auto& [number, elapsed] :
       std::vector<std::pair<int, int>>{{1, 5}, {2, 1}, {3, 9}, {4, 5}, {5, 7}, {6, 5}}) {
    slowest.offer({static_cast<std::uint64_t>(number), "T", elapsed, "ok"});
  }
  std::vector<std::uint64_t> numbers;
  for (const auto& entry : slowest.slowest(32)) {
    numbers.push_back(entry.number);
  }
  EXPECT_EQ(numbers, (std::vector<std::uint64_t>{3, 5, 1}));
  EXPECT_EQ(slowest.slowest(1).size(), 1u);
  slowest.clear();
  EXPECT_TRUE(slowest.slowest(32).empty());
}

struct Statistics {
  std::shared_ptr<FakeAdministration> administration = std::make_shared<FakeAdministration>();
  std::unique_ptr<StatisticsServiceProvider> provider =
      std::make_unique<StatisticsServiceProvider>(administration, "metrics");

  Future<MessagePtr> deliver(MessagePtr message, test_support::Answer answer) {
    return provider->deliver(std::move(message), Address("api"),
                             std::make_shared<FakeContext>(std::move(answer)));
  }
  // The command's output with every microsecond figure replaced by "#".
  std::string run(const std::string& command, std::vector<std::string> arguments = {}) const {
    std::string text = administration->run(command, std::move(arguments));
    for (std::size_t at = text.find("_us="); at != std::string::npos; at = text.find("_us=", at + 1)) {
      const std::size_t digits = at + 4;
      text.replace(digits, text.find_first_not_of("0123456789", digits) - digits, "#");
    }
    return text;
  }
};

// Counts by type, sorted by name and filtered by prefix; the slowest list, 10 by default; a reset
// zeroes them all, and a handler still answers once the provider is gone.
TEST(StatisticsProvider, CountsRequestsAndFailuresPerTypeUntilReset) {
  Statistics statistics;
  for (int i = 0; i < 12; ++i) {
    statistics.deliver(std::make_unique<shop::Ping>(), test_support::echoing()).get();
  }
  EXPECT_THROW(statistics
                   .deliver(std::make_unique<shop::Order>(),
                            test_support::rejecting(std::make_exception_ptr(std::runtime_error("no"))))
                   .get(),
               std::runtime_error);
  EXPECT_THROW(statistics.deliver(std::make_unique<shop::Order>(),
                                  test_support::throwing(std::make_exception_ptr(std::logic_error("no")))),
               std::logic_error);
  const std::string orders =
      std::string(kOrder) + " count=2 failed=2 inflight=0 p50_us=# p90_us=# p99_us=# max_us=#\n";
  const std::string pings =
      std::string(kPing) + " count=12 failed=0 inflight=0 p50_us=# p90_us=# p99_us=# max_us=#\n";
  EXPECT_EQ(statistics.run("metrics.statistics"), orders + pings);
  EXPECT_EQ(statistics.run("metrics.statistics", {std::string(kPing).substr(0, 41)}), pings);
  const auto lines = [](const std::string& text) { return std::count(text.begin(), text.end(), '\n'); };
  EXPECT_EQ(lines(statistics.run("metrics.slowest")), 10);
  EXPECT_EQ(lines(statistics.run("metrics.slowest", {"3"})), 3);
  EXPECT_EQ(lines(statistics.run("metrics.slowest", {"32"})), 14);
  EXPECT_EQ(statistics.run("metrics.statistics.reset"), "");
  EXPECT_EQ(statistics.run("metrics.statistics"), "");
  EXPECT_EQ(statistics.run("metrics.slowest"), "");
  statistics.deliver(std::make_unique<shop::Ping>(), test_support::echoing()).get();
  EXPECT_NE(statistics.run("metrics.statistics").find(" count=1 failed=0 "), std::string::npos);
  statistics.provider.reset();
  EXPECT_EQ(lines(statistics.run("metrics.slowest")), 1);
}

TEST(StatisticsProvider, ListsRequestsInFlightOldestFirstUntilTheyComplete) {
  Statistics statistics;
  Promise<MessagePtr> first;
  Promise<MessagePtr> second;
  Future<MessagePtr> a =
      statistics.deliver(std::make_unique<shop::Order>(), [&](MessagePtr&&) { return first.getFuture(); });
  Future<MessagePtr> b =
      statistics.deliver(std::make_unique<shop::Ping>(), [&](MessagePtr&&) { return second.getFuture(); });
  EXPECT_EQ(a.state->status.load(), detail::Status::Pending);  // deliver() did not wait
  EXPECT_EQ(hideNumbers(statistics.run("metrics.inflight")),
            "# " + std::string(kOrder) + " age_us=#\n# " + kPing + " age_us=#\n");
  EXPECT_NE(statistics.run("metrics.statistics").find("inflight=1"), std::string::npos);
  first.resolve(std::make_unique<shop::Order>());
  second.reject(std::make_exception_ptr(std::runtime_error("late")));
  EXPECT_NE(a.get(), nullptr);
  EXPECT_THROW(b.get(), std::runtime_error);
  EXPECT_EQ(statistics.run("metrics.inflight"), "");
  const std::string slowest = hideNumbers(statistics.run("metrics.slowest"));
  const std::string ping = "# " + std::string(kPing) + " elapsed_us=# std::runtime_error\n";
  const std::string order = "# " + std::string(kOrder) + " elapsed_us=# ok\n";
  EXPECT_TRUE(slowest == ping + order || slowest == order + ping) << slowest;
}

TEST(StatisticsProvider, RefusesACountThatIsNotOneToThirtyTwo) {
  Statistics statistics;
  for (const char* bad : {"abc", "0", "33", "-1", "", "1.5"}) {
    try {
      statistics.run("metrics.slowest", {bad});
      ADD_FAILURE() << bad << " was taken";
    } catch (const std::invalid_argument& error) {
      EXPECT_EQ(error.what(),
                "metrics.slowest takes a count from 1 to 32, but was given \"" + std::string(bad) + "\"");
    }
  }
}

}  // namespace
}  // namespace connector
