// A steady clock cheap enough to read twice per request: for measuring how long a request took
// on a path where std::chrono::steady_clock's ~25 ns per reading would cost more than the work
// being measured.
//
// On x86-64 processors with an invariant time-stamp counter (one that ticks at a fixed rate
// whatever the power state, as the kernel requires before it uses the counter for its own
// monotonic clock) a reading is the counter, scaled to nanoseconds by a factor measured against
// std::chrono::steady_clock once per process, on the first reading (which therefore takes about
// a millisecond). Elsewhere it is std::chrono::steady_clock itself. Readings are nanoseconds
// from an arbitrary origin; only differences between readings of one process mean anything.
//
// Internal to connector_common_services (not installed).
//
// Threads: now() may be called from any thread, concurrently. The scale is computed once, under
// the guard of a function-local static, and never changes afterwards.
#pragma once

#include <chrono>
#include <cstdint>

namespace foundation {
namespace core {
namespace detail {

struct tick_clock {
  using rep = std::int64_t;
  using period = std::nano;
  using duration = std::chrono::nanoseconds;
  using time_point = std::chrono::time_point<tick_clock>;
  static constexpr bool is_steady = true;

  static time_point now() noexcept;
};

}  // namespace detail
}  // namespace core
}  // namespace foundation
