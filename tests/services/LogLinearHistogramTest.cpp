// The log-linear latency histogram: percentiles within 1% over a wide spread, the percentile
// rank, the edges of its range (overflow, clocks that go backwards) and the microsecond texts.
#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <random>

#include "services/detail/LogLinearHistogram.h"

namespace {

using namespace connector::common_services::detail;

LatencySnapshot snapshotOf(const std::vector<const LatencyBlock*>& blocks) {
  LatencyMerge merge;
  for (const LatencyBlock* block : blocks)
    merge.add(*block);
  return merge.snapshot();
}

// Over latencies spread from 100 ns to tens of milliseconds and recorded in two blocks, every
// percentile is within 1% of the exact one and the count and maximum are exact.
TEST(LogLinearHistogram, PercentilesAreWithinOnePercentOfTheExactValues) {
  std::mt19937_64 random(20261124);
  std::lognormal_distribution<double> spread(std::log(50'000.0), 1.5);  // median 50 us
  auto blocks = std::make_unique<LatencyBlock[]>(2);
  std::vector<std::uint64_t> exact;
  for (int i = 0; i < 1'000'000; ++i) {
    exact.push_back(100 + static_cast<std::uint64_t>(spread(random)));
    blocks[i % 2].record(static_cast<std::int64_t>(exact.back()));
  }
  std::sort(exact.begin(), exact.end());
  const LatencySnapshot s = snapshotOf({&blocks[0], &blocks[1]});
  EXPECT_EQ(std::make_pair(s.count, s.maxNanoseconds), std::make_pair(exact.size(), exact.back()));
  for (double percent : {50.0, 90.0, 99.0, 99.9}) {
    const auto want = static_cast<double>(exact[static_cast<std::size_t>(std::lround(percent * 10'000)) - 1]);
    EXPECT_NEAR(static_cast<double>(s.percentileNanoseconds(percent)), want, want / 100) << percent;
  }
}

// A percentile is the smallest latency that at least that share of the requests did not exceed.
TEST(LogLinearHistogram, PercentileIsTheSmallestLatencyThatShareDidNotExceed) {
  auto block = std::make_unique<LatencyBlock>();
  for (int ns = 1; ns <= 200; ++ns)
    block->record(ns);
  const LatencySnapshot s = snapshotOf({block.get()});
  EXPECT_EQ(s.percentileNanoseconds(50), 100u);
  EXPECT_EQ(s.percentileNanoseconds(99.9), 200u);
}

// A latency past the range is overflow, never wrapped; one from a clock gone backwards is 0 ns.
TEST(LogLinearHistogram, OverflowAndBackwardClocksAreNeverWrapped) {
  auto block = std::make_unique<LatencyBlock>();
  block->record(-5);
  block->recordShared(INT64_MIN);
  block->record(7'200'000'000'000);  // two hours
  const LatencySnapshot s = snapshotOf({block.get()});
  EXPECT_EQ(
      std::make_tuple(s.count, s.overflow, s.sumNanoseconds, s.maxNanoseconds, s.percentileNanoseconds(50)),
      std::make_tuple(3u, 1u, 7'200'000'000'000u, 7'200'000'000'000u, 0u));
  EXPECT_EQ(formatMicroseconds(s.percentileNanoseconds(100)), ">4398046511");
}

// Microseconds keep three significant digits, so no latency reads as a bare zero.
TEST(LogLinearHistogram, MicrosecondsKeepThreeSignificantDigits) {
  using Case = std::pair<std::uint64_t, const char*>;
  for (const auto& [nanoseconds, text] :
       {Case{0, "0"}, {5, "0.005"}, {412, "0.412"}, {1234, "1.23"}, {9996, "10.0"}, {125400, "125"}})
    EXPECT_EQ(formatMicroseconds(nanoseconds), text) << nanoseconds;
}

}  // namespace
