// The slowest requests seen since the last clear: for an operator who asks "which requests were
// slow, and did they fail?" without a log to search.
//
// Keeps at most `capacity` entries, slowest first. A request enters when it is slower than the
// fastest kept (or while there is room); the fastest then leaves. Of two equally slow requests
// the one offered first ranks first, and one that is only as slow as the fastest kept does not
// enter. Most requests are turned away by one atomic load, without the lock.
//
// Internal to connector_common_services. Every member is safe from any thread; the type and
// outcome views must stay valid for the life of the object (the providers pass names cached for
// the process).
#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string_view>
#include <vector>

namespace connector {
namespace common_services {
namespace detail {

class SlowestRequests {
 public:
  struct Entry {
    std::uint64_t number;
    std::string_view type;
    std::int64_t elapsedNanoseconds;
    std::string_view outcome;  // "ok" or the exception's type name
  };

  explicit SlowestRequests(std::size_t capacity) : capacity_(capacity) { entries_.reserve(capacity + 1); }

  void offer(const Entry& entry) {
    if (entry.elapsedNanoseconds <= threshold_.load(std::memory_order_relaxed)) {
      return;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    const auto place = std::upper_bound(
        entries_.begin(), entries_.end(), entry.elapsedNanoseconds,
        [](std::int64_t elapsed, const Entry& kept) { return elapsed > kept.elapsedNanoseconds; });
    if (place == entries_.end() && entries_.size() >= capacity_) {
      return;
    }
    entries_.insert(place, entry);
    if (entries_.size() > capacity_) {
      entries_.pop_back();
    }
    updateThreshold();
  }

  // The `n` slowest, slowest first.
  std::vector<Entry> slowest(std::size_t n) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return std::vector<Entry>(entries_.begin(),
                              entries_.begin() + static_cast<std::ptrdiff_t>(std::min(n, entries_.size())));
  }

  void clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    entries_.clear();
    updateThreshold();
  }

 private:
  // Called with mutex_ held.
  void updateThreshold() {
    threshold_.store(entries_.size() < capacity_ ? -1 : entries_.back().elapsedNanoseconds,
                     std::memory_order_relaxed);
  }

  const std::size_t capacity_;
  // A request must be slower than this to be considered: the fastest kept once full, else -1.
  // Written under mutex_, read without it (a stale value only costs a look under the lock).
  std::atomic<std::int64_t> threshold_{-1};
  mutable std::mutex mutex_;
  std::vector<Entry> entries_;  // guarded by mutex_; slowest first
};

}  // namespace detail
}  // namespace common_services
}  // namespace connector
