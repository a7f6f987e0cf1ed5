// Latency in power-of-two microsecond buckets, and the percentiles read back from them: for
// statistics that must count every request with one increment and still answer "p99" cheaply.
//
// Bucket 0 holds latencies under 1 us; bucket i (1 to 26) holds [2^(i-1), 2^i) us, so bucket 26
// ends at 2^26 us (about 67 s); bucket 27 holds everything longer. A percentile is reported as
// the upper bound of the bucket that holds it (1, 2, 4, ... us), or the largest latency seen
// when that is smaller, or in the overflow bucket; it is therefore at most twice the true value.
//
// Internal to connector_common_services. Plain functions of their arguments; any thread.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>

namespace connector {
namespace common_services {
namespace detail {

constexpr std::size_t kLatencyBuckets = 28;
constexpr std::size_t kOverflowBucket = kLatencyBuckets - 1;

using LatencyCounts = std::array<std::uint64_t, kLatencyBuckets>;

inline std::size_t latencyBucket(std::uint64_t micros) {
  if (micros == 0) {
    return 0;
  }
  const auto width = static_cast<std::size_t>(64 - __builtin_clzll(micros));  // 1 for 1 us, 2 for 2-3 us...
  return std::min(width, kOverflowBucket);
}

struct LatencySummary {
  std::uint64_t count = 0;
  std::uint64_t p50 = 0;
  std::uint64_t p90 = 0;
  std::uint64_t p99 = 0;
  std::uint64_t max = 0;
};

// `maxMicros` is the largest latency counted (0 when there is none).
inline LatencySummary summarizeLatencies(const LatencyCounts& counts, std::uint64_t maxMicros) {
  LatencySummary summary;
  summary.max = maxMicros;
  for (std::uint64_t n : counts) {
    summary.count += n;
  }
  // The smallest latency that at least `percent` % of the requests did not exceed.
  const auto percentile = [&](std::uint64_t percent) -> std::uint64_t {
    if (summary.count == 0) {
      return 0;
    }
    const std::uint64_t rank = std::max<std::uint64_t>(1, (summary.count * percent + 99) / 100);
    std::uint64_t seen = 0;
    for (std::size_t bucket = 0; bucket < kOverflowBucket; ++bucket) {
      seen += counts[bucket];
      if (seen >= rank) {
        return std::min<std::uint64_t>(std::uint64_t{1} << bucket, maxMicros);
      }
    }
    return maxMicros;
  };
  summary.p50 = percentile(50);
  summary.p90 = percentile(90);
  summary.p99 = percentile(99);
  return summary;
}

}  // namespace detail
}  // namespace common_services
}  // namespace connector
