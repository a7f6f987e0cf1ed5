// Latencies of one message type as a plain, copyable value: the total, the sum, the exact
// maximum and the non-empty log-linear nanosecond buckets, from which any percentile is read
// within 0.4% of the exact value (buckets under 256 ns are exact). What the statistics provider
// hands to exporters; copies share nothing, so any thread may read one.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

namespace connector {
namespace common_services {

// What a percentile in the overflow bucket reads as; no recorded latency reaches it.
constexpr std::uint64_t kBeyondRange = std::numeric_limits<std::uint64_t>::max();

struct LatencySnapshot {
  struct Bucket {
    std::uint64_t lower = 0;  // nanoseconds, inclusive
    std::uint64_t upper = 0;  // nanoseconds, exclusive
    std::uint64_t count = 0;
  };

  std::uint64_t count = 0;  // every latency counted, overflow included
  std::uint64_t sumNanoseconds = 0;
  std::uint64_t maxNanoseconds = 0;  // exact, even beyond the range; 0 when nothing was counted
  std::uint64_t overflow = 0;        // latencies of 2^42 ns (about 73 minutes) and more
  std::vector<Bucket> buckets;       // the non-empty ones below the overflow, in ascending order

  std::uint64_t meanNanoseconds() const { return count == 0 ? 0 : sumNanoseconds / count; }

  // The latency at rank ceil(percent / 100 * count) in ascending order (1-based, kept within 1 and
  // count, so 0 reads the smallest and 100 the largest): the smallest latency that at least
  // `percent` % of the requests did not exceed. 0 when nothing was counted; kBeyondRange when
  // that rank falls in the overflow bucket.
  std::uint64_t percentileNanoseconds(double percent) const {
    if (count == 0) {
      return 0;
    }
    const double wanted = std::ceil(percent / 100.0 * static_cast<double>(count));
    const std::uint64_t rank = std::min(count, static_cast<std::uint64_t>(std::max(wanted, 1.0)));
    std::uint64_t seen = 0;
    for (const Bucket& bucket : buckets) {
      seen += bucket.count;
      if (seen >= rank) {
        const std::uint64_t middle = bucket.lower + (bucket.upper - bucket.lower) / 2;
        return std::min(middle, maxNanoseconds);
      }
    }
    return kBeyondRange;
  }
};

}  // namespace common_services
}  // namespace connector
