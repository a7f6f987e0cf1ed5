#include "foundation/core/detail/TickClock.h"

#include <atomic>

#if defined(__x86_64__)
#include <cpuid.h>
#include <x86intrin.h>
#endif

namespace foundation {
namespace core {
namespace detail {

namespace {

#if defined(__x86_64__)

// How long the counter is compared with steady_clock. Each steady_clock reading is good to a few
// tens of nanoseconds, so a millisecond puts the scale within about 0.005 %.
constexpr std::chrono::microseconds kCalibration{1000};

bool hasInvariantCounter() {
  unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
  if (__get_cpuid(0x80000000U, &eax, &ebx, &ecx, &edx) == 0 || eax < 0x80000007U) {
    return false;
  }
  __get_cpuid(0x80000007U, &eax, &ebx, &ecx, &edx);
  return (edx & (1U << 8)) != 0;  // "invariant TSC"
}

struct Scale {
  bool counter = false;      // false: read steady_clock instead
  std::uint64_t origin = 0;  // the counter at calibration
  double nanosecondsPerTick = 0;
  std::int64_t originNanoseconds = 0;  // steady_clock at calibration, so that readings look alike

  Scale() {
    if (!hasInvariantCounter()) {
      return;
    }
    const auto steadyStart = std::chrono::steady_clock::now();
    const std::uint64_t ticksStart = __rdtsc();
    auto steadyEnd = steadyStart;
    std::uint64_t ticksEnd = ticksStart;
    while (steadyEnd - steadyStart < kCalibration) {
      steadyEnd = std::chrono::steady_clock::now();
      ticksEnd = __rdtsc();
    }
    if (ticksEnd <= ticksStart) {
      return;  // a counter that does not move is no clock
    }
    counter = true;
    origin = ticksStart;
    nanosecondsPerTick =
        static_cast<double>((steadyEnd - steadyStart).count()) / static_cast<double>(ticksEnd - ticksStart);
    originNanoseconds =
        std::chrono::duration_cast<std::chrono::nanoseconds>(steadyStart.time_since_epoch()).count();
  }
};

std::atomic<const Scale*> calibrated{nullptr};

// Out of line, so that a reading once calibrated needs no registers saved for it.
[[gnu::noinline, gnu::cold]] const Scale& calibrate() {
  static const Scale instance;
  calibrated.store(&instance, std::memory_order_release);
  return instance;
}

const Scale& scale() {
  const Scale* s = calibrated.load(std::memory_order_acquire);
  return s != nullptr ? *s : calibrate();
}

#endif

}  // namespace

tick_clock::time_point tick_clock::now() noexcept {
#if defined(__x86_64__)
  const Scale& s = scale();
  if (s.counter) {
    // Signed, so that a reading on a core whose counter lags the calibrating core's by a few
    // ticks comes out slightly before the origin rather than wrapping round.
    const auto ticks = static_cast<std::int64_t>(__rdtsc() - s.origin);
    return time_point(duration(s.originNanoseconds +
                               static_cast<std::int64_t>(static_cast<double>(ticks) * s.nanosecondsPerTick)));
  }
#endif
  return time_point(
      std::chrono::duration_cast<duration>(std::chrono::steady_clock::now().time_since_epoch()));
}

}  // namespace detail
}  // namespace core
}  // namespace foundation
