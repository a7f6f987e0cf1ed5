// The statistics provider's counters, spread over per-thread stripes: a request number sequence
// and, per message type, one block per stripe that has counted the type: its latencies in a
// log-linear histogram, its failures, and its longest latency since the last reset.
//
// Internal to connector_common_services. Each stripe is written by the threads that map to it
// (see currentStripe()) and read by any thread.
#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <string_view>

#include "foundation/core/detail/ThreadIndex.h"
#include "services/detail/LogLinearHistogram.h"

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

// Adds one and answers the value before: by its only writer with a plain load and a release
// store, else atomically.
inline std::uint64_t increment(std::atomic<std::uint64_t>& counter, bool owned) {
  if (owned) {
    const std::uint64_t value = counter.load(std::memory_order_relaxed);
    counter.store(value + 1, std::memory_order_release);
    return value;
  }
  return counter.fetch_add(1, std::memory_order_release);
}

// What one stripe has counted of one message type.
struct TypeBlock {
  LatencyBlock latency;
  // Written after the latency is recorded, with release, so a reader that loads it (acquire)
  // before merging the latencies never finds more failures than requests.
  alignas(64) std::atomic<std::uint64_t> failed{0};
  // The longest latency of the reset epoch `epoch`: a reset cannot zero what the owner writes
  // without a lock, so it moves the provider's epoch on and the writer starts afresh.
  std::atomic<std::uint64_t> epoch{0};
  std::atomic<std::uint64_t> maxSinceReset{0};
};

static_assert(sizeof(TypeBlock) <= 64 * 1024, "a thread's counts of one type stay within 64 KiB");

// What is counted for one message type: a block per stripe, made on the stripe's first request
// of the type (so a type costs nothing for a thread that never completes one), never freed
// before the table.
struct TypeStats {
  explicit TypeStats(std::string_view typeName) : name(typeName) {}
  ~TypeStats() {
    for (auto& block : blocks) {
      delete block.load(std::memory_order_relaxed);
    }
  }
  TypeStats(const TypeStats&) = delete;
  TypeStats& operator=(const TypeStats&) = delete;

  const std::string_view name;  // cached for the process
  std::array<std::atomic<TypeBlock*>, kStripes> blocks{};

  // Never throws: a stripe whose block cannot be made (memory exhausted) counts in the shared
  // one; if that cannot be made either, the request goes uncounted.
  void record(std::size_t stripe, std::uint64_t epoch, std::int64_t elapsed, bool failed) noexcept {
    TypeBlock* block = blockOf(stripe);
    if (block == nullptr && stripe != kSharedStripe) {
      stripe = kSharedStripe;
      block = blockOf(stripe);
    }
    if (block == nullptr) {
      return;
    }
    const bool owned = stripe != kSharedStripe;
    owned ? block->latency.record(elapsed) : block->latency.recordShared(elapsed);
    if (failed) {
      increment(block->failed, owned);
    }
    const std::uint64_t ns = nonNegativeNanoseconds(elapsed);
    if (block->epoch.load(std::memory_order_relaxed) != epoch) {
      // On the shared stripe two threads may both get here; a maximum of a request completing
      // while a reset is under way may then be lost, which a reset allows anyway.
      block->maxSinceReset.store(ns, std::memory_order_relaxed);
      block->epoch.store(epoch, std::memory_order_release);
      return;
    }
    std::uint64_t max = block->maxSinceReset.load(std::memory_order_relaxed);
    if (owned) {
      block->maxSinceReset.store(std::max(max, ns), std::memory_order_relaxed);
      return;
    }
    while (ns > max && !block->maxSinceReset.compare_exchange_weak(max, ns, std::memory_order_relaxed)) {
    }
  }

  // The longest latency counted in reset epoch `epoch`. Any thread.
  std::uint64_t maxSince(std::uint64_t epoch) const {
    std::uint64_t max = 0;
    for (const auto& slot : blocks) {
      const TypeBlock* block = slot.load(std::memory_order_acquire);
      if (block != nullptr && block->epoch.load(std::memory_order_acquire) == epoch) {
        max = std::max(max, block->maxSinceReset.load(std::memory_order_relaxed));
      }
    }
    return max;
  }

 private:
  // The block of `stripe`, made on first use: by its owner with a plain store, on the shared
  // stripe by whichever thread wins the exchange.
  TypeBlock* blockOf(std::size_t stripe) noexcept {
    std::atomic<TypeBlock*>& slot = blocks[stripe];
    TypeBlock* block = slot.load(std::memory_order_acquire);
    if (block != nullptr) {
      return block;
    }
    std::unique_ptr<TypeBlock> made(new (std::nothrow) TypeBlock);
    if (!made) {
      return nullptr;
    }
    if (stripe != kSharedStripe) {
      slot.store(made.get(), std::memory_order_release);
      return made.release();
    }
    return slot.compare_exchange_strong(block, made.get(), std::memory_order_acq_rel) ? made.release()
                                                                                      : block;
  }
};

// The next request number of a stripe; written like the counters.
struct alignas(64) Sequence {
  std::atomic<std::uint64_t> next{0};
};

}  // namespace detail
}  // namespace common_services
}  // namespace connector
