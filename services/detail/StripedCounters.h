// The statistics provider's counters, spread over per-thread stripes: a request number sequence
// and, per message type, a latency histogram, a failure count and the longest latency.
//
// Internal to connector_common_services. Each stripe is written by the threads that map to it
// (see currentStripe()) and read by any thread.
#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "foundation/core/detail/ThreadIndex.h"
#include "services/detail/LatencyHistogram.h"

namespace connector {
namespace common_services {
namespace detail {

// Counters are spread over stripes, one per thread, so that no two threads write one cache line
// and a thread's own counters need no locked instruction: the first kOwnedStripes threads of the
// process (by foundation's thread index, never reused) each own a stripe that only they write,
// with a plain load and store; later threads share the last stripe and use atomic
// read-modify-writes.
constexpr std::size_t kOwnedStripes = 64;
constexpr std::size_t kStripes = kOwnedStripes + 1;
constexpr std::size_t kSharedStripe = kOwnedStripes;

// The stripe of the calling thread.
inline std::size_t currentStripe() {
  return std::min<std::size_t>(foundation::core::detail::thread_index(), kSharedStripe);
}

// Adds one and answers the value before: by its only writer with a plain load and store, else
// atomically.
inline std::uint64_t increment(std::atomic<std::uint64_t>& counter, bool owned) {
  if (owned) {
    const std::uint64_t value = counter.load(std::memory_order_relaxed);
    counter.store(value + 1, std::memory_order_relaxed);
    return value;
  }
  return counter.fetch_add(1, std::memory_order_relaxed);
}

inline std::uint64_t microseconds(std::int64_t nanoseconds) {
  return static_cast<std::uint64_t>(std::max<std::int64_t>(nanoseconds, 0)) / 1000;
}

// What is counted for one message type, per stripe. A reset does not touch the stripes (their
// owners write them without a lock): it moves the provider's epoch on, a stripe whose epoch is
// behind counts as empty, and its writer zeroes it before it next counts.
struct TypeStats {
  struct alignas(64) Stripe {
    std::atomic<std::uint64_t> epoch{0};  // the reset epoch the counts belong to
    std::array<std::atomic<std::uint64_t>, kLatencyBuckets> buckets{};
    std::atomic<std::uint64_t> failed{0};
    std::atomic<std::int64_t> maxNanoseconds{0};
  };

  // What the stripes of the current epoch add up to.
  struct Totals {
    LatencyCounts counts{};
    std::uint64_t failed = 0;
    std::int64_t maxNanoseconds = 0;
  };

  explicit TypeStats(std::string_view typeName) : name(typeName) {}

  const std::string_view name;  // cached for the process
  std::array<Stripe, kStripes> stripes;

  void record(std::size_t stripe, std::uint64_t epoch, std::int64_t elapsed, bool failed) {
    Stripe& s = stripes[stripe];
    const bool owned = stripe != kSharedStripe;
    if (s.epoch.load(std::memory_order_relaxed) != epoch) {
      // On the shared stripe two threads may both get here; a count of a request completing
      // while a reset is under way may then be lost, which a reset allows anyway.
      for (auto& bucket : s.buckets) {
        bucket.store(0, std::memory_order_relaxed);
      }
      s.failed.store(0, std::memory_order_relaxed);
      s.maxNanoseconds.store(0, std::memory_order_relaxed);
      s.epoch.store(epoch, std::memory_order_release);
    }
    increment(s.buckets[latencyBucket(microseconds(elapsed))], owned);
    if (failed) {
      increment(s.failed, owned);
    }
    std::int64_t max = s.maxNanoseconds.load(std::memory_order_relaxed);
    while (elapsed > max &&
           !s.maxNanoseconds.compare_exchange_weak(max, elapsed, std::memory_order_relaxed)) {
    }
  }

  // Any thread, while the owners count: each counter is read once, so the totals may miss a
  // request completing meanwhile, never count one twice.
  Totals total(std::uint64_t epoch) const {
    Totals totals;
    for (const Stripe& stripe : stripes) {
      if (stripe.epoch.load(std::memory_order_acquire) != epoch) {
        continue;  // counted before the last reset
      }
      for (std::size_t i = 0; i < totals.counts.size(); ++i) {
        totals.counts[i] += stripe.buckets[i].load(std::memory_order_relaxed);
      }
      totals.failed += stripe.failed.load(std::memory_order_relaxed);
      totals.maxNanoseconds =
          std::max(totals.maxNanoseconds, stripe.maxNanoseconds.load(std::memory_order_relaxed));
    }
    return totals;
  }
};

// The next request number of a stripe; written like the counters.
struct alignas(64) Sequence {
  std::atomic<std::uint64_t> next{0};
};

}  // namespace detail
}  // namespace common_services
}  // namespace connector
