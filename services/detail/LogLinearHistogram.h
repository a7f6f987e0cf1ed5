// Latency in log-linear nanosecond buckets, as high-dynamic-range histograms keep it: for
// statistics that count every request with one increment yet report any percentile within 1%.
//
// Buckets: every latency under 256 ns has a bucket of its own (exact); above that, each power of
// two [2^k, 2^(k+1)) is split into 128 equal sub-buckets of width 2^(k-7). The range ends at
// 2^42 ns (about 73 minutes, so at least an hour); longer latencies go to one overflow bucket,
// never wrapped into a small one. A negative latency (a clock that went backwards on another
// core, or an unsigned difference that wrapped) counts as 0 ns.
//
// Accuracy: a percentile is reported as the middle of the bucket holding it (the bucket's value
// below 256 ns), capped by the exact maximum, so it is within 0.4% of the exact value; a
// percentile in the overflow bucket is reported as kBeyondRange.
//
// Memory: a LatencyBlock is one thread's counts for one message type, at most 64 KiB (36.1 KiB
// today, checked below). A provider makes a thread's block on that thread's first request of the
// type, so a type costs one block per thread that has delivered it and nothing for the others.
//
// Threads: a block's owner records with record() (relaxed loads and stores, no locked
// instruction); a block written by several threads is recorded with recordShared() only. Any
// thread may merge blocks while they are being recorded: a merge sees each recording entirely or
// not at all in the bucket counts, and a recording it misses is seen by the next merge.
//
// Internal to connector_common_services.
#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "services/LatencySnapshot.h"

namespace connector {
namespace common_services {
namespace detail {

constexpr unsigned kSubBucketBits = 7;
constexpr std::uint64_t kSubBuckets = std::uint64_t{1} << kSubBucketBits;  // per power of two
constexpr unsigned kRangeBits = 42;
constexpr std::uint64_t kLatencyRangeNanoseconds = std::uint64_t{1} << kRangeBits;  // first overflow
// Buckets below the overflow: 2 * kSubBuckets for [0, 256) ns, then kSubBuckets per power of two.
constexpr std::size_t kLogLinearBuckets = (kRangeBits - kSubBucketBits + 1) * kSubBuckets;
constexpr std::size_t kLatencyOverflowBucket = kLogLinearBuckets;
using common_services::kBeyondRange;
using common_services::LatencySnapshot;

inline std::uint64_t nonNegativeNanoseconds(std::int64_t elapsed) {
  return elapsed < 0 ? 0 : static_cast<std::uint64_t>(elapsed);
}

inline std::size_t logLinearBucket(std::uint64_t nanoseconds) {
  if (nanoseconds < 2 * kSubBuckets) {
    return static_cast<std::size_t>(nanoseconds);
  }
  if (nanoseconds >= kLatencyRangeNanoseconds) {
    return kLatencyOverflowBucket;
  }
  // The top kSubBucketBits + 1 bits select the sub-bucket; the power of two selects its group.
  const unsigned shift = static_cast<unsigned>(63 - __builtin_clzll(nanoseconds)) - kSubBucketBits;
  return static_cast<std::size_t>(shift * kSubBuckets + (nanoseconds >> shift));
}

// [lower, upper) of a bucket below the overflow.
struct LatencyBucketBounds {
  std::uint64_t lower = 0;
  std::uint64_t upper = 0;
};

inline LatencyBucketBounds logLinearBounds(std::size_t bucket) {
  if (bucket < 2 * kSubBuckets) {
    return {bucket, bucket + 1};
  }
  const std::uint64_t shift = bucket / kSubBuckets - 1;
  const std::uint64_t mantissa = bucket % kSubBuckets + kSubBuckets;
  return {mantissa << shift, (mantissa + 1) << shift};
}

// One thread's counts for one message type.
struct alignas(64) LatencyBlock {
  static constexpr std::size_t kGroupBits = 8;  // buckets per bit of `touched`: one cache line
  static constexpr std::size_t kGroups = (kLogLinearBuckets + 1 + kGroupBits - 1) / kGroupBits;

  std::array<std::atomic<std::uint64_t>, kLogLinearBuckets + 1> counts{};  // the last: overflow
  // Bit g of word g / 64 is set once a bucket of group g has counted, so a merge reads only the
  // cache lines of counts that hold something.
  std::array<std::atomic<std::uint64_t>, (kGroups + 63) / 64> touched{};
  std::atomic<std::uint64_t> sumNanoseconds{0};
  std::atomic<std::uint64_t> maxNanoseconds{0};

  // By the block's owner only.
  void record(std::int64_t elapsed) {
    const std::uint64_t ns = nonNegativeNanoseconds(elapsed);
    const std::size_t bucket = logLinearBucket(ns);
    const std::uint64_t before = counts[bucket].load(std::memory_order_relaxed);
    counts[bucket].store(before + 1, std::memory_order_relaxed);
    if (before == 0) {
      std::atomic<std::uint64_t>& word = touched[bucket / kGroupBits / 64];
      word.store(word.load(std::memory_order_relaxed) | groupBit(bucket), std::memory_order_release);
    }
    sumNanoseconds.store(sumNanoseconds.load(std::memory_order_relaxed) + ns, std::memory_order_relaxed);
    if (ns > maxNanoseconds.load(std::memory_order_relaxed)) {
      maxNanoseconds.store(ns, std::memory_order_relaxed);
    }
  }

  // By any number of threads at once.
  void recordShared(std::int64_t elapsed) {
    const std::uint64_t ns = nonNegativeNanoseconds(elapsed);
    const std::size_t bucket = logLinearBucket(ns);
    if (counts[bucket].fetch_add(1, std::memory_order_relaxed) == 0) {
      touched[bucket / kGroupBits / 64].fetch_or(groupBit(bucket), std::memory_order_release);
    }
    sumNanoseconds.fetch_add(ns, std::memory_order_relaxed);
    std::uint64_t max = maxNanoseconds.load(std::memory_order_relaxed);
    while (ns > max && !maxNanoseconds.compare_exchange_weak(max, ns, std::memory_order_relaxed)) {
    }
  }

  static std::uint64_t groupBit(std::size_t bucket) { return std::uint64_t{1} << (bucket / kGroupBits % 64); }
};

static_assert(sizeof(LatencyBlock) <= 64 * 1024, "a thread's block for one type stays within 64 KiB");

// Adds blocks up into a snapshot. Any thread; the blocks may be recorded meanwhile. It reads and
// writes only the cache lines of buckets that have counted, so merging a block costs what its
// latencies spread over, not 36 KiB. It holds its counts in itself (about 36 KiB) rather than on
// the heap: one lives on the stack of the thread taking a snapshot.
class LatencyMerge {
 public:
  void add(const LatencyBlock& block) {
    for (std::size_t word = 0; word < block.touched.size(); ++word) {
      std::uint64_t groups = block.touched[word].load(std::memory_order_acquire);
      while (groups != 0) {
        const std::uint64_t bit = groups & (~groups + 1);
        const std::size_t group = word * 64 + static_cast<std::size_t>(__builtin_ctzll(groups));
        groups &= groups - 1;
        const bool fresh = (touched_[word] & bit) == 0;  // its counts_ are not yet written
        touched_[word] |= bit;
        for (std::size_t bucket = group * LatencyBlock::kGroupBits; bucket < groupEnd(group); ++bucket) {
          const std::uint64_t n = block.counts[bucket].load(std::memory_order_relaxed);
          counts_[bucket] = fresh ? n : counts_[bucket] + n;
        }
      }
    }
    sum_ += block.sumNanoseconds.load(std::memory_order_relaxed);
    max_ = std::max(max_, block.maxNanoseconds.load(std::memory_order_relaxed));
  }

  LatencySnapshot snapshot() const {
    LatencySnapshot s;
    std::size_t lines = 0;
    for (std::uint64_t groups : touched_) {
      lines += static_cast<std::size_t>(__builtin_popcountll(groups));
    }
    s.buckets.reserve(lines * LatencyBlock::kGroupBits);
    for (std::size_t word = 0; word < touched_.size(); ++word) {
      for (std::uint64_t groups = touched_[word]; groups != 0; groups &= groups - 1) {
        const std::size_t group = word * 64 + static_cast<std::size_t>(__builtin_ctzll(groups));
        for (std::size_t bucket = group * LatencyBlock::kGroupBits; bucket < groupEnd(group); ++bucket) {
          if (counts_[bucket] == 0) {
            continue;
          }
          s.count += counts_[bucket];
          if (bucket == kLatencyOverflowBucket) {
            s.overflow = counts_[bucket];
          } else {
            const LatencyBucketBounds bounds = logLinearBounds(bucket);
            s.buckets.push_back({bounds.lower, bounds.upper, counts_[bucket]});
          }
        }
      }
    }
    s.sumNanoseconds = sum_;
    s.maxNanoseconds = max_;
    return s;
  }

 private:
  static std::size_t groupEnd(std::size_t group) {
    return std::min(kLatencyOverflowBucket + 1, (group + 1) * LatencyBlock::kGroupBits);
  }

  std::array<std::uint64_t, std::tuple_size<decltype(LatencyBlock::touched)>::value> touched_{};
  // Left unset where touched_ has no bit, which is never read.
  std::array<std::uint64_t, kLatencyOverflowBucket + 1> counts_;
  std::uint64_t sum_ = 0;
  std::uint64_t max_ = 0;
};

// What `now` counted beyond `before`, an earlier snapshot of the same latencies (whose buckets
// are therefore among those of `now`, each with no larger a count). The maximum of the difference
// cannot be read from the two, so the caller gives it: `maxNanoseconds`.
inline LatencySnapshot latenciesSince(const LatencySnapshot& now, const LatencySnapshot& before,
                                      std::uint64_t maxNanoseconds) {
  LatencySnapshot since;
  since.count = now.count - std::min(now.count, before.count);
  since.sumNanoseconds = now.sumNanoseconds - std::min(now.sumNanoseconds, before.sumNanoseconds);
  since.overflow = now.overflow - std::min(now.overflow, before.overflow);
  since.maxNanoseconds = maxNanoseconds;
  auto earlier = before.buckets.begin();
  for (const LatencySnapshot::Bucket& bucket : now.buckets) {
    while (earlier != before.buckets.end() && earlier->lower < bucket.lower) {
      ++earlier;
    }
    const std::uint64_t old =
        earlier != before.buckets.end() && earlier->lower == bucket.lower ? earlier->count : 0;
    if (bucket.count > old) {
      since.buckets.push_back({bucket.lower, bucket.upper, bucket.count - old});
    }
  }
  return since;
}

// Nanoseconds as microseconds with three significant digits, so no latency reads as a bare zero:
// 412 -> "0.412", 1234 -> "1.23", 12345 -> "12.3"; from 100 us on, whole microseconds (118000 ->
// "118", 1234567 -> "1235"). 0 -> "0"; kBeyondRange -> ">4398046511", the end of the range.
inline std::string formatMicroseconds(std::uint64_t nanoseconds) {
  if (nanoseconds == kBeyondRange) {
    return ">" + std::to_string(kLatencyRangeNanoseconds / 1000);
  }
  if (nanoseconds == 0) {
    return "0";
  }
  if (nanoseconds < 1000) {
    const std::string digits = std::to_string(nanoseconds);
    return "0." + std::string(3 - digits.size(), '0') + digits;
  }
  // Rounded to hundredths, then tenths, of a microsecond while that keeps three digits.
  for (std::uint64_t unit = 10, decimals = 2; unit <= 100; unit *= 10, --decimals) {
    const std::uint64_t scaled = (nanoseconds + unit / 2) / unit;
    if (scaled < 1000) {
      const std::string digits = std::to_string(scaled);
      return digits.substr(0, digits.size() - decimals) + "." + digits.substr(digits.size() - decimals);
    }
  }
  return std::to_string((nanoseconds + 500) / 1000);
}

}  // namespace detail
}  // namespace common_services
}  // namespace connector
